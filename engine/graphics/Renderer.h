#pragma once

// The one abstraction of a graphics device: a singleton (g_ptrRenderer) with
// a subclass per platform, owning the device-independent frame state and the
// thirteen graphics factories.
//
// The backend boundary is KOVEX_RENDERER_DEVICE_OPS: every operation a
// platform implements is declared there once, and that list generates the
// abstract interface here and the empty bodies of the null device. A new
// backend (engine/graphics/vulkan/) implements the list and adds itself to
// SetupPlatform's table in its own file; nothing above it changes.
//
// Threads: the renderer belongs to the main thread (and, for device work, to
// the graphics side of GraphicsThread). The factories it owns are safe to
// call from any thread as their headers say. Register/Unregister of the
// device delegates belong to the main thread.

#include <cstddef>
#include <functional>
#include <vector>

#include "graphics/HWCapability.h"
#include "graphics/RenderStates.h"
#include "graphics/Texture.h"
#include "math/Rect.h"
#include "reflection/Delegate.h"

namespace KovexEngine {

class Renderer;
class GraphicsWindowFactory;
// Arrive with the render-data and programs layers, above this one.
class GeometryRDI;
class Program;
class BaseProgram;
class VertexBuffer;
class IndexBuffer;
class VertexDecl;

// One draw of buffers with the current program (Renderer::DrawWithProgram).
struct DrawBuffersDesc
{
    // One buffer per input slot the layout names, slot 0 first.
    VertexBuffer* const* VertexBuffers = nullptr;
    uint32 VertexBufferCount = 0;
    // Null: the elements of the first buffer's stream.
    const VertexDecl* Layout = nullptr;
    IndexBuffer* Indices = nullptr; // optional
    GraphicsTopology Topology = GraphicsTopology::TriangleList;
    uint32 First = 0;  // first index, or first vertex without indices
    uint32 Count = 0;  // indices, or vertices without indices
    int32 BaseVertex = 0; // added to every index
    uint32 InstanceCount = 1;
};

// A program as the renderer counts it. Made where the program's type is
// known (a Program* or any BaseProgram* converts), so this layer needs only
// the declarations.
struct ProgramRef
{
    Program* program = nullptr;
    BaseProgram* base = nullptr;
    GraphicsObject* object = nullptr;
    ProgramRef() = default;
    ProgramRef(std::nullptr_t) {}
    template <typename P>
    ProgramRef(P* p) : program(AsProgram(p)), base(p), object(p)
    {
    }

private:
    static Program* AsProgram(Program* p) { return p; }
    static Program* AsProgram(BaseProgram*) { return nullptr; }
};

// Makes the program compiler of the shader layer, which installs it; the
// renderer's factory slot holds a bare factory without one.
using ProgramCompilerMaker = GraphicsFactory* (*)();
KOVEX_API void SetProgramCompilerMaker(ProgramCompilerMaker maker);
KOVEX_API GraphicsFactory* MakeProgramCompiler();

KOVEX_API extern Ptr<Renderer> g_ptrRenderer;

struct KOVEX_API GraphicsParameters
{
    uint64 WindowHandle = 0;
    bool FullScreen = false;
    bool VSync = false;
    uint32 Width = 0;
    uint32 Height = 0;
    GraphicsFormat BackBufferFormat = GraphicsFormat::UNKNOWN; // the renderer's default
    GraphicsFormat DepthStencilFormat = GraphicsFormat::D24_UNORM_S8_UINT;
    uint32 Extra0 = 0; // a backend's own: multi-sample count
    uint32 Extra1 = 1; // and quality
};

// X(result, name, (parameters), what the null device answers)
// ReadTexture copies one subresource into `out` with tightly packed rows (of
// pixels, or of 4x4 blocks, as TextureDesc::GetRowPitch gives them): how
// frames are saved and checked. The null device holds no pixels.
#define KOVEX_RENDERER_DEVICE_OPS(X)                                                                                  \
    X(bool, OnCreateDevice, (const GraphicsParameters& parameters), NullCreateDevice(parameters))                     \
    X(bool, OnResetDevice, (const GraphicsParameters& parameters), true)                                              \
    X(void*, GetStageRecord, (uint32 index), nullptr)                                                                 \
    X(void, Draw, (GeometryRDI * geometry), void())                                                                   \
    X(void, DrawInstanced, (GeometryRDI * geometry, uint32 instanceCount), void())                                    \
    X(void, Clear, (GraphicsClearMode mode, const Vector4& color, float depth, uint32 stencil), void())               \
    X(void, ClearSingle, (Texture * texture, const Vector4& color), void())                                           \
    X(void, ClearSingle, (Texture * texture, uint32 arrayIndex, const Vector4& color), void())                        \
    X(void, ClearUAV, (GraphicsResource * resource, uint32 index, uint32 value), void())                              \
    X(void, Present, (), void())                                                                                      \
    X(void, ApplyViewport, (const Viewport& viewport), void())                                                        \
    X(void, ApplyScissorRect, (const Rect& rect), void())                                                             \
    X(void, ApplyRTGroup, (const RenderTargetGroup& group), void())                                                   \
    X(void, ApplyBlendState, (BlendState * state, BlendState * previous), void())                                     \
    X(void, ApplyRasterizerState, (RasterizerState * state, RasterizerState * previous), void())                      \
    X(void, ApplyDepthStencilState, (DepthStencilState * state, DepthStencilState * previous), void())                \
    X(void, ClearTextures, (), void())                                                                                \
    X(bool, CheckTextureFormat,                                                                                       \
      (GraphicsFormat format, TextureDimension dimension, uint32 view, GraphicsResourceUsage usage, uint32 cpu),      \
      !GraphicsFormat::IsCompressed(format) && format != GraphicsFormat::UNKNOWN)                                     \
    X(GraphicsFormatLayout, GetRenderTargetLayout, (GraphicsFormat format), GraphicsFormat::GetLayout(format))        \
    X(Ptr<Texture>, CreateBackBuffer, (), NewNullBuffer(m_parameters.BackBufferFormat))                              \
    X(Ptr<Texture>, CreateDepthBuffer, (), NewNullBuffer(m_parameters.DepthStencilFormat))                            \
    X(GraphicsFactory*, CreateBlendStateFactory, (), new BlendStateFactory())                                         \
    X(GraphicsFactory*, CreateSamplerStateFactory, (), new SamplerStateFactory())                                     \
    X(GraphicsFactory*, CreateRasterizerStateFactory, (), new RasterizerStateFactory())                               \
    X(GraphicsFactory*, CreateDepthStencilStateFactory, (), new DepthStencilStateFactory())                           \
    X(GraphicsFactory*, CreateVertexBufferFactory, (), new NullVertexBufferFactory())                                 \
    X(GraphicsFactory*, CreateIndexBufferFactory, (), new NullIndexBufferFactory())                                   \
    X(GraphicsFactory*, CreateConstantBufferFactory, (), new NullConstantBufferFactory())                             \
    X(GraphicsFactory*, CreateRWBufferFactory, (), new NullRWBufferFactory())                                         \
    X(GraphicsFactory*, CreateShaderFactory, (), new ShaderFactory())                                                 \
    X(GraphicsFactory*, CreateWindowFactory, (), NewNullWindowFactory())                                              \
    X(GraphicsFactory*, CreateInputLayoutFactory, (), new InputLayoutFactory())                                       \
    X(GraphicsFactory*, CreateProgramCompiler, (), MakeProgramCompiler())                                             \
    X(bool, CreateProgramDevice, (BaseProgram * program), true)                                                       \
    X(bool, DrawWithProgram, (const DrawBuffersDesc& draw), true)                                                     \
    X(bool, ReadTexture, (Texture * texture, uint32 arrayIndex, uint32 mip, std::vector<uint8> & out), false)          \
    X(GraphicsFactory*, CreateTextureFactory, (), new NullTextureFactory())

class KOVEX_API Renderer : public Object
{
    KOVEX_CLASS(Renderer)

public:
    Renderer();
    ~Renderer() override;

    static const Ptr<Renderer>& Get() { return g_ptrRenderer; }

    // The null renderer when g_IsNullRenderer is set; otherwise the best
    // platform this build has. False, with one log line, when there is none.
    static bool SetupPlatformAuto();
    static bool SetupPlatform(RendererPlatform platform);
    // What this build and machine offer; false when nothing does.
    static bool GetAvailablePlatforms(TArray<RendererPlatform>& out, RendererPlatform& preferred);
    // The teardown, in order: device state, buffers, factories (all OnExit,
    // then per factory OnExit, Cleanup, delete), delegates, g_ptrRenderer.
    static void Destroy();

    bool Init(const GraphicsParameters& parameters);
    bool Reset(const GraphicsParameters& parameters);
    void Tick(float delta, double total);
    void M_Precache();

    GraphicsFactory* GetGraphicsFactory(FactoryType type) const { return m_factories[unsigned(type)]; }
    const GraphicsParameters& GetParamters() const { return m_parameters; }
    const Ptr<HWCapability>& GetHWCapability() const { return m_capability; }
    RendererPlatform GetPlatform() const { return m_platform; }
    GPUVendor GetGPUVendor() const { return m_vendor; }
    void SetGPUVendor(const char* description) { m_vendor = m_capability->DetectVendor(description); }
    void SetDefaultFormat(GraphicsFormat backBuffer, GraphicsFormat depthStencil);
    GraphicsFormat GetDefaultBackBufferFormat() const { return m_defaultBackBufferFormat; }
    GraphicsFormat GetDefaultDepthStencilFormat() const { return m_defaultDepthStencilFormat; }
    GraphicsFormatLayout GetDefaultBackBufferFormatLayout() const { return m_backBufferLayout; }
    uint32 GetMaxAnisotropy() const { return m_maxAnisotropy; }
    // Colour word conversions of the back buffer's layout (null before
    // SetDefaultFormat with an RGBA or BGRA layout).
    Vector4 (*GetDefaultDWORDtoCOLOR() const)(uint32) { return m_dwordToColor; }
    uint32 (*GetDefaultCOLORtoDWORD() const)(const Vector4&) { return m_colorToDWORD; }
    uint32 (*GetDefaultDWORDtoABGR() const)(uint32) { return m_dwordToABGR; }
    uint32 (*GetDefaultABGRtoDWORD() const)(uint32) { return m_dwordToABGR; }
    // Runs the texture's device creation now; on failure releases it and
    // answers null.
    Ptr<Texture> InitializeATexture(Texture* texture);
    void SetMaxAnisotropy(uint32 value);
    bool AllowCacheShaders() const;
    static const char* GetShaderFuncName(ShaderType type);
    virtual GraphicsFormat GetCompatibleTextureFormat(GraphicsFormat format);

    // Viewport and targets.
    void SetViewport(const Viewport& viewport);
    void SetViewport(uint32 width, uint32 height);
    void SetViewport(uint32 x, uint32 y, uint32 width, uint32 height);
    // Left, top, width and height from the rectangle (an inverted one gives
    // an empty viewport).
    void SetViewportRect(const Rect& rect);
    // Left, top, left + width, top + height of the current viewport.
    Rect GetViewportRect() const;
    // The size of render target 0 of the current group, depth 0 to 1.
    void SetViewportByRT0();
    const Viewport& GetViewport() const { return m_currentViewport; }
    // The scissor box (target pixels, top-left origin, right and bottom
    // exclusive) that draws are cut to while the current rasterizer state
    // has ScissorEnable; without one set it is empty, so such draws draw
    // nothing. The rasterizer state without ScissorEnable ignores it.
    void SetScissorRect(const Rect& rect);
    const Rect& GetScissorRect() const { return m_scissor; }
    void SetRTGroup(const RenderTargetGroup& group);
    void SetRenderTarget(const Ptr<Texture>& texture, uint32 slot, uint32 arrayIndex);
    void SetDepthBuffer(const Ptr<Texture>& texture, uint32 arrayIndex);
    const Ptr<Texture>& GetRenderTarget(uint32 slot) const;
    uint32 GetRenderTargetArrayIndex(uint32 slot) const;
    const Ptr<Texture>& GetDepthBuffer() const { return m_currentGroup.DepthBuffer; }
    uint32 GetDepthBufferArrayIndex() const { return m_currentGroup.DepthArrayIndex; }
    // Index of the first empty slot among NumSimultaneousRTs; 0 when all
    // are filled, as it always has answered.
    uint32 GetNumActivedRenderTargets() const;
    const RenderTargetGroup& GetCurrentRTGroup() const { return m_currentGroup; }

    // States: a null pointer does nothing; a change reaches the device.
    void CommitState(BlendState* state);
    void CommitState(RasterizerState* state);
    void CommitState(DepthStencilState* state);
    const Ptr<BlendState>& GetDefaultBlendState() const { return m_defaultBlend; }
    const Ptr<SamplerState>& GetDefaultSamplerState() const { return m_defaultSampler; }
    const Ptr<RasterizerState>& GetDefaultRasterizerState() const { return m_defaultRasterizer; }
    const Ptr<DepthStencilState>& GetDefaultDepthStencilState() const { return m_defaultDepthStencil; }
    const Ptr<BlendState>& GetCurBlendState() const { return m_curBlend; }
    const Ptr<RasterizerState>& GetCurRasterizerState() const { return m_curRasterizer; }
    const Ptr<DepthStencilState>& GetCurDepthStencilState() const { return m_curDepthStencil; }
    uint32 GetCurStencilRef() const { return m_curStencilRef; }

    // Device-lost and device-reset callbacks: false for a second delegate of
    // the same object / an absent one.
    using DeviceDelegate = std::function<void()>;
    bool RegisterDeviceLostDelegate(const void* owner, DeviceDelegate callback);
    bool RegisterDeviceResetDelegate(const void* owner, DeviceDelegate callback);
    bool UnregisterDeviceLostDelegate(const void* owner);
    bool UnregisterDeviceResetDelegate(const void* owner);

    // The time record the frame's constants read.
    struct TimeRecord
    {
        float Delta = 0.0f;
        float Total = 0.0f;
        float Fraction = 0.0f;
    };
    const TimeRecord& GetTime() const { return m_time; }

    // Frame hooks with base behaviour.
    // Drops the current program.
    virtual void Cleanup();
    virtual void BeginFrame();
    virtual void EndFrame() { CleanupFrameState(); }
    // Drops the current program; a backend adds its unbinding.
    virtual void CleanupFrameState();
    // Keeps a counted reference to the program the next draws use.
    virtual void SetCurrentProgram(ProgramRef program);
    Program* GetCurrentProgram() const { return m_currentProgram; }
    BaseProgram* GetCurrentBaseProgram() const { return m_currentBaseProgram; }
    virtual bool IsViewportFliped() const { return false; }
    virtual void BeginPerfEvent(uint32, const char16_t*) {}
    virtual void EndPerfEvent() {}
    virtual void EnablePerf(bool) {}
    virtual void SetMarker(uint32, const char16_t*) {}

#define KOVEX_DEVICE_OP_PURE(result, name, params, nullResult) virtual result name params = 0;
    KOVEX_RENDERER_DEVICE_OPS(KOVEX_DEVICE_OP_PURE)
#undef KOVEX_DEVICE_OP_PURE

protected:
    virtual void OnDestroying();
    virtual void OnDestroyed();
    void SetPlatform(RendererPlatform platform) { m_platform = platform; }
    // Runs the device-lost delegates, in order, for a backend that finds its
    // device gone outside Reset.
    void NotifyDeviceLost();

    GraphicsParameters m_parameters;

private:
    bool CreateFactories();
    void DestroyFactories();
    bool CreateBuffers();
    void ReleaseBuffers();
    void SetDefaultViewport();
    void InitDefaultRenderStates();
    void ApplyFormatDefaults(GraphicsParameters& copy, bool depthToo);
    struct DeviceDelegateEntry
    {
        const void* owner;
        DeviceDelegate callback;
    };
    static bool AddDelegate(TArray<DeviceDelegateEntry>& list, const void* owner, DeviceDelegate callback);
    static bool RemoveDelegate(TArray<DeviceDelegateEntry>& list, const void* owner);

    uint32 m_maxAnisotropy = 16;
    Ptr<HWCapability> m_capability;
    GraphicsFormat m_defaultBackBufferFormat = GraphicsFormat::UNKNOWN;
    GraphicsFormat m_defaultDepthStencilFormat = GraphicsFormat::UNKNOWN;
    GraphicsFormatLayout m_backBufferLayout = GraphicsFormatLayout::UNSUPPORTED;
    uint32 (*m_colorToDWORD)(const Vector4&) = nullptr;
    Vector4 (*m_dwordToColor)(uint32) = nullptr;
    uint32 (*m_dwordToABGR)(uint32) = nullptr;
    Viewport m_currentViewport;
    Viewport m_defaultViewport;
    Rect m_scissor;
    RenderTargetGroup m_defaultGroup;
    RenderTargetGroup m_currentGroup;
    Ptr<Texture> m_backBuffer;
    Ptr<Texture> m_depthBuffer;
    Ptr<BlendState> m_defaultBlend;
    Ptr<SamplerState> m_defaultSampler;
    Ptr<RasterizerState> m_defaultRasterizer;
    Ptr<DepthStencilState> m_defaultDepthStencil;
    Ptr<BlendState> m_curBlend;
    Ptr<RasterizerState> m_curRasterizer;
    Ptr<DepthStencilState> m_curDepthStencil;
    uint32 m_curStencilRef = 0;
    TimeRecord m_time;
    GraphicsFactory* m_factories[unsigned(FactoryType::COUNT)] = {};
    TArray<DeviceDelegateEntry> m_deviceLost;
    TArray<DeviceDelegateEntry> m_deviceReset;
    GPUVendor m_vendor = GPUVendor::Unknown;
    Program* m_currentProgram = nullptr;
    BaseProgram* m_currentBaseProgram = nullptr;
    Ptr<GraphicsObject> m_currentProgramRef;
    RendererPlatform m_platform = RendererPlatform::D3D11;
};

// A second swap chain: its own parameters and render-target group.
class KOVEX_API GraphicsWindow : public GraphicsObject
{
    KOVEX_CLASS(GraphicsWindow)

public:
    const GraphicsParameters& GetParameters() const { return m_parameters; }
    void SetParameters(const GraphicsParameters& parameters) { m_parameters = parameters; }
    const RenderTargetGroup& GetGroup() const { return m_group; }

    // Swap chain, then back and depth buffer into the window's group.
    bool CreateDeviceHandle() override;
    void ReleaseDeviceHandle() override;
    // Applies the window's group and a viewport of its size.
    virtual void BeginWindow();
    virtual void EndWindow();
    bool Reset(const GraphicsParameters& parameters);

protected:
    virtual bool OnCreateSwapChain() { return true; }
    virtual bool OnResetSwapChain() { return true; }
    virtual Ptr<Texture> OnCreateBackBuffer() = 0;
    virtual Ptr<Texture> OnCreateDepthBuffer() = 0;

private:
    bool CreateBuffers();
    void ReleaseBuffers();
    GraphicsParameters m_parameters;
    RenderTargetGroup m_group;
};

class KOVEX_API GraphicsWindowFactory : public GraphicsFactory
{
public:
    GraphicsWindowFactory() : GraphicsFactory(FactoryType::WindowFactory) {}
    static GraphicsWindowFactory* Get()
    {
        return static_cast<GraphicsWindowFactory*>(GetSlot(FactoryType::WindowFactory));
    }
    Ptr<GraphicsWindow> Create(const GraphicsParameters& parameters);

protected:
    virtual GraphicsWindow* NewWindow() = 0;
};

// How a backend joins SetupPlatform: one registration in its own source
// file, made before main. The highest priority that is available wins in
// SetupPlatformAuto.
struct RendererBackend
{
    RendererPlatform platform;
    int priority;
    bool (*isAvailable)();
    Renderer* (*make)();
};
KOVEX_API bool RegisterRendererBackend(const RendererBackend& backend);

} // namespace KovexEngine
