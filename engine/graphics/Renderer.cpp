#include "graphics/Renderer.h"

#include <cmath>

#include "graphics/GraphicsBuffer.h"
#include "graphics/GraphicsThread.h"
#include "kernel/EngineGlobals.h"
#include "kernel/Log.h"
#include "reflection/FunctionRegistration.h"

namespace KovexEngine {

KOVEX_REGISTER_CLASS_EX(Renderer, u"Engine")
void Renderer::StaticConstructor(Class* cls)
{
    RegisterBases<Renderer, Object>(cls);
    using R = Renderer;
    AddFunction(cls, u"SetRTGroup", &R::SetRTGroup, {u"renderTargetGroup"});
    AddFunction(cls, u"Clear", &R::Clear, {u"mode", u"color", u"depth", u"stencil"});
    AddFunction(cls, u"ClearSingle", static_cast<void (R::*)(Texture*, const Vector4&)>(&R::ClearSingle),
                {u"texture", u"color"});
    AddFunction(cls, u"ClearSingle", static_cast<void (R::*)(Texture*, uint32, const Vector4&)>(&R::ClearSingle),
                {u"texture", u"arrayIndex", u"color"});
    AddFunction(cls, u"ClearUAV", &R::ClearUAV, {u"texture", u"index", u"value"});
    AddFunction(cls, u"CleanupFrameState", &R::CleanupFrameState);
    AddFunction(cls, u"GetViewport", &R::GetViewport);
    AddFunction(cls, u"SetViewportByRT0", &R::SetViewportByRT0);
    AddFunction(cls, u"GetViewportRect", &R::GetViewportRect);
    AddFunction(cls, u"SetViewportRect", &R::SetViewportRect, {u"rect"});
    AddFunction(cls, u"GetRenderTarget", &R::GetRenderTarget, {u"slot"});
    AddFunction(cls, u"SetRenderTarget", &R::SetRenderTarget, {u"texture", u"slot", u"arrayIndex"});
    AddFunction(cls, u"GetDepthBuffer", &R::GetDepthBuffer);
    AddFunction(cls, u"SetDepthBuffer", &R::SetDepthBuffer, {u"texture", u"arrayIndex"});
    AddFunction(cls, u"GetDefaultBlendState", &R::GetDefaultBlendState);
    AddFunction(cls, u"GetDefaultSamplerState", &R::GetDefaultSamplerState);
    AddFunction(cls, u"GetDefaultRasterizerState", &R::GetDefaultRasterizerState);
    AddFunction(cls, u"GetDefaultDepthStencilState", &R::GetDefaultDepthStencilState);
    AddFunction(cls, u"GetCurBlendState", &R::GetCurBlendState);
    AddFunction(cls, u"GetCurRasterizerState", &R::GetCurRasterizerState);
    AddFunction(cls, u"GetCurDepthStencilState", &R::GetCurDepthStencilState);
    AddFunction(cls, u"GetNumActivedRenderTargets", &R::GetNumActivedRenderTargets);
    AddFunction(cls, u"GetRenderTargetArrayIndex", &R::GetRenderTargetArrayIndex, {u"slot"});
    AddFunction(cls, u"GetDepthBufferArrayIndex", &R::GetDepthBufferArrayIndex);
    AddFunction(cls, u"CheckTextureFormat", &R::CheckTextureFormat,
                {u"format", u"dimension", u"view", u"usage", u"cpuAccess"});
    AddFunction(cls, u"GetCompatibleTextureFormat", &R::GetCompatibleTextureFormat, {u"format"});
    AddFunction(cls, u"GetDefaultDepthStencilFormat", &R::GetDefaultDepthStencilFormat);
    AddFunction(cls, u"GetDefaultBackBufferFormat", &R::GetDefaultBackBufferFormat);
    AddFunction(cls, u"GetDefaultBackBufferFormatLayout", &R::GetDefaultBackBufferFormatLayout);
    AddFunction(cls, u"GetGPUVendor", &R::GetGPUVendor);
    AddFunction(cls, u"GetMaxAnisotropy", &R::GetMaxAnisotropy);
    AddFunction(cls, u"SetMaxAnisotropy", &R::SetMaxAnisotropy, {u"maxAnisotropy"});
    AddFunction(cls, u"ClearTextures", &R::ClearTextures);
    AddFunction(cls, u"GetPlatform", &R::GetPlatform);
    cls->ProcessClass();
}
KOVEX_REGISTER_CLASS(GraphicsWindow, u"Engine", GraphicsObject)

Ptr<Renderer> g_ptrRenderer;

void RenderTargetGroup::Clear()
{
    for (unsigned i = 0; i < kMaxTargets; ++i)
    {
        RenderTargets[i] = nullptr;
        ArrayIndices[i] = 0;
    }
    DepthBuffer = nullptr;
    DepthArrayIndex = 0;
    ClearOnApply = false;
}

bool RenderTargetGroup::SetRenderTarget(uint32 slot, const Ptr<Texture>& texture, uint32 arrayIndex)
{
    if (slot >= kMaxTargets)
        return false;
    RenderTargets[slot] = texture;
    ArrayIndices[slot] = arrayIndex;
    return true;
}

uint32 RenderTargetGroup::GetNumTargets() const
{
    uint32 n = 0;
    while (n < kMaxTargets && RenderTargets[n])
        ++n;
    return n;
}

bool RenderTargetGroup::operator==(const RenderTargetGroup& o) const
{
    for (unsigned i = 0; i < kMaxTargets; ++i)
        if (RenderTargets[i] != o.RenderTargets[i] || ArrayIndices[i] != o.ArrayIndices[i])
            return false;
    return DepthBuffer == o.DepthBuffer && DepthArrayIndex == o.DepthArrayIndex && ClearOnApply == o.ClearOnApply;
}

// --- Platforms ------------------------------------------------------------------------

namespace {


struct BackendTable
{
    RendererBackend entries[8];
    unsigned count = 0;
};

BackendTable& Backends()
{
    static BackendTable table;
    return table;
}

const RendererBackend* FindBackend(RendererPlatform platform)
{
    BackendTable& table = Backends();
    for (unsigned i = 0; i < table.count; ++i)
        if (table.entries[i].platform == platform && table.entries[i].isAvailable())
            return &table.entries[i];
    return nullptr;
}

} // namespace

// Made by the null backend's own source file.
Renderer* NewNullRenderer();

bool RegisterRendererBackend(const RendererBackend& backend)
{
    BackendTable& table = Backends();
    if (table.count == sizeof(table.entries) / sizeof(table.entries[0]))
        return false;
    table.entries[table.count++] = backend;
    return true;
}

bool Renderer::GetAvailablePlatforms(TArray<RendererPlatform>& out, RendererPlatform& preferred)
{
    out.Clear();
    BackendTable& table = Backends();
    int best = -1;
    for (unsigned i = 0; i < table.count; ++i)
        if (table.entries[i].isAvailable())
        {
            out.Add(table.entries[i].platform);
            if (table.entries[i].priority > best)
            {
                best = table.entries[i].priority;
                preferred = table.entries[i].platform;
            }
        }
    return !out.IsEmpty();
}

bool Renderer::SetupPlatformAuto()
{
    if (!g_ptrRenderer)
    {
        if (g_IsNullRenderer)
            g_ptrRenderer = NewNullRenderer();
        else
        {
            TArray<RendererPlatform> platforms;
            RendererPlatform preferred = RendererPlatform::Vulkan;
            if (GetAvailablePlatforms(platforms, preferred))
                g_ptrRenderer = FindBackend(preferred)->make();
            else
                Log::Print(LOG_ERROR, u"Renderer: no graphics platform is available.\n");
        }
    }
    return g_ptrRenderer && g_ptrRenderer->CreateFactories();
}

bool Renderer::SetupPlatform(RendererPlatform platform)
{
    if (!g_ptrRenderer)
    {
        if (g_IsNullRenderer)
            g_ptrRenderer = NewNullRenderer();
        else if (const RendererBackend* backend = FindBackend(platform))
            g_ptrRenderer = backend->make();
    }
    return g_ptrRenderer && g_ptrRenderer->CreateFactories();
}

// --- Construction and teardown --------------------------------------------------------

Renderer::Renderer() : m_capability(new HWCapability()) {}

Renderer::~Renderer() = default;

bool Renderer::CreateFactories()
{
    if (m_factories[0])
        return true; // already made for this renderer
    using Maker = GraphicsFactory* (Renderer::*)();
    static const Maker ms_pCreateFactories[] = {
#define KOVEX_FACTORY_MAKER(name, cls) &Renderer::Create##name,
        KOVEX_GRAPHICS_FACTORY_SLOTS(KOVEX_FACTORY_MAKER)
#undef KOVEX_FACTORY_MAKER
    };
    for (unsigned i = 0; i < unsigned(FactoryType::COUNT); ++i)
    {
        m_factories[i] = (this->*ms_pCreateFactories[i])();
        if (m_factories[i])
            m_factories[i]->OnInit();
    }
    return true;
}

void Renderer::DestroyFactories()
{
    for (GraphicsFactory* factory : m_factories)
        if (factory)
            factory->OnExit();
    // Objects of one factory may hold objects of another: all are released
    // above before any factory goes.
    for (GraphicsFactory*& factory : m_factories)
    {
        if (!factory)
            continue;
        factory->OnExit();
        factory->Cleanup();
        delete factory;
        factory = nullptr;
    }
}

void Renderer::Destroy()
{
    Ptr<Renderer> renderer = g_ptrRenderer;
    if (!renderer)
        return;
    // The graphics thread stops and what is still posted to it runs first,
    // so no creation command outlives its factory.
    GraphicsThread::Destroy();
    renderer->OnDestroying();
    renderer->ReleaseBuffers();
    BlockedGraphicsBuffer::Destroy(); // its buffers go back through their factories
    renderer->DestroyFactories();
    renderer->OnDestroyed();
    g_ptrRenderer = nullptr;
}

void Renderer::OnDestroying()
{
    m_capability = nullptr;
    m_backBuffer = nullptr;
    m_depthBuffer = nullptr;
    m_defaultBlend = nullptr;
    m_defaultSampler = nullptr;
    m_defaultRasterizer = nullptr;
    m_defaultDepthStencil = nullptr;
    m_curBlend = nullptr;
    m_curRasterizer = nullptr;
    m_curDepthStencil = nullptr;
    m_defaultGroup.Clear();
    m_currentGroup.Clear();
    SetCurrentProgram(nullptr);
}

void Renderer::OnDestroyed()
{
    m_deviceLost.Clear();
    m_deviceReset.Clear();
}

// --- Init, reset, tick ------------------------------------------------------------------

void Renderer::ApplyFormatDefaults(GraphicsParameters& copy, bool depthToo)
{
    if (m_defaultBackBufferFormat == GraphicsFormat::UNKNOWN)
        Log::Print(LOG_WARNING, u"Default back buffer format is not initialized.\n");
    else if (copy.BackBufferFormat == GraphicsFormat::UNKNOWN)
        copy.BackBufferFormat = m_defaultBackBufferFormat;
    if (!depthToo)
        return;
    if (m_defaultDepthStencilFormat == GraphicsFormat::UNKNOWN)
        Log::Print(LOG_WARNING, u"Default depth stencil format is not initialized.\n");
    else if (copy.DepthStencilFormat == GraphicsFormat::UNKNOWN)
        copy.DepthStencilFormat = m_defaultDepthStencilFormat;
}

bool Renderer::Init(const GraphicsParameters& parameters)
{
    GraphicsParameters copy = parameters;
    ApplyFormatDefaults(copy, false);
    if (!OnCreateDevice(copy))
        return false;
    // The device may have set its default formats only now.
    if (copy.BackBufferFormat == GraphicsFormat::UNKNOWN)
        copy.BackBufferFormat = m_defaultBackBufferFormat;
    m_parameters = copy;
    CreateBuffers();
    SetDefaultViewport();
    for (GraphicsFactory* factory : m_factories)
        if (factory)
            factory->OnDeviceCreated();
    InitDefaultRenderStates();
    Tick(float(g_kovexTimer.GetDeltaTime()), g_kovexTimer.GetElapsedTime());
    return true;
}

bool Renderer::Reset(const GraphicsParameters& parameters)
{
    CleanupFrameState();
    ReleaseBuffers();
    for (const DeviceDelegateEntry& entry : m_deviceLost)
        entry.callback();
    for (GraphicsFactory* factory : m_factories)
        if (factory)
            factory->OnDeviceLost();
    GraphicsParameters copy = parameters;
    ApplyFormatDefaults(copy, true);
    if (!OnResetDevice(copy))
        return false;
    m_parameters = copy;
    CreateBuffers();
    SetDefaultViewport();
    for (const DeviceDelegateEntry& entry : m_deviceReset)
        entry.callback();
    for (GraphicsFactory* factory : m_factories)
        if (factory)
            factory->OnDeviceReset();
    return true;
}

void Renderer::Tick(float delta, double total)
{
    m_time.Delta = delta;
    m_time.Total = float(total);
    m_time.Fraction = float(total - std::floor(total));
    for (GraphicsFactory* factory : m_factories)
        if (factory)
            factory->OnTick();
    BlockedGraphicsBuffer::M_Tick();
}

void Renderer::M_Precache()
{
    for (GraphicsFactory* factory : m_factories)
        if (factory)
            factory->M_Precache();
}

bool Renderer::CreateBuffers()
{
    m_backBuffer = CreateBackBuffer();
    m_depthBuffer = CreateDepthBuffer();
    if (!m_backBuffer || !m_depthBuffer)
    {
        Log::Print(LOG_INFO, u"Renderer: CreateBuffers failed !\n");
        return false;
    }
    m_defaultGroup.RenderTargets[0] = m_backBuffer;
    m_defaultGroup.DepthBuffer = m_depthBuffer;
    ApplyRTGroup(m_defaultGroup);
    m_currentGroup = m_defaultGroup;
    return true;
}

void Renderer::ReleaseBuffers()
{
    m_defaultGroup.Clear();
    m_currentGroup.Clear();
    m_backBuffer = nullptr;
    m_depthBuffer = nullptr;
}

void Renderer::SetDefaultViewport()
{
    m_defaultViewport = Viewport();
    m_defaultViewport.Width = m_parameters.Width;
    m_defaultViewport.Height = m_parameters.Height;
    m_currentViewport = m_defaultViewport;
    ApplyViewport(m_currentViewport);
}

void Renderer::InitDefaultRenderStates()
{
    auto* blend = static_cast<BlendStateFactory*>(GetGraphicsFactory(FactoryType::BlendStateFactory));
    auto* sampler = static_cast<SamplerStateFactory*>(GetGraphicsFactory(FactoryType::SamplerStateFactory));
    auto* raster = static_cast<RasterizerStateFactory*>(GetGraphicsFactory(FactoryType::RasterizerStateFactory));
    auto* depth = static_cast<DepthStencilStateFactory*>(GetGraphicsFactory(FactoryType::DepthStencilStateFactory));
    if (!blend || !sampler || !raster || !depth)
        return;
    m_defaultBlend = blend->Create(BlendStateDesc());
    SamplerStateDesc samplerDesc;
    samplerDesc.Filter = GraphicsFilter::MinMagMipLinear;
    m_defaultSampler = sampler->Create(samplerDesc);
    m_defaultRasterizer = raster->Create(RasterizerStateDesc());
    m_defaultDepthStencil = depth->Create(DepthStencilStateDesc());
    // Samplers are bound by programs: the default one is not committed.
    CommitState(m_defaultBlend.Get());
    CommitState(m_defaultRasterizer.Get());
    CommitState(m_defaultDepthStencil.Get());
}

// --- Formats and capabilities --------------------------------------------------------------

namespace {
uint32 SwapRedBlue(uint32 word) { return (word & 0xFF00FF00u) | (word >> 16 & 0xFFu) | (word & 0xFFu) << 16; }
uint32 Identity(uint32 word) { return word; }
uint32 ToRGBAWord(const Vector4& c) { return c.ToRGBA(); }
uint32 ToBGRAWord(const Vector4& c) { return c.ToBGRA(); }
} // namespace

void Renderer::SetDefaultFormat(GraphicsFormat backBuffer, GraphicsFormat depthStencil)
{
    m_defaultBackBufferFormat = backBuffer;
    m_defaultDepthStencilFormat = depthStencil;
    m_backBufferLayout = GraphicsFormat::GetLayout(backBuffer);
    if (m_backBufferLayout == GraphicsFormatLayout::RGBA)
    {
        m_dwordToColor = &Vector4::FromRGBA;
        m_colorToDWORD = &ToRGBAWord;
        m_dwordToABGR = &Identity;
    }
    else if (m_backBufferLayout == GraphicsFormatLayout::BGRA)
    {
        m_dwordToColor = &Vector4::FromBGRA;
        m_colorToDWORD = &ToBGRAWord;
        m_dwordToABGR = &SwapRedBlue;
    }
}

void Renderer::SetMaxAnisotropy(uint32 value)
{
    uint32 limit = m_capability ? m_capability->MaxAnisotropy : 1;
    m_maxAnisotropy = value < limit ? value : limit;
}

bool Renderer::AllowCacheShaders() const
{
    return m_platform == RendererPlatform::D3D9 || m_platform == RendererPlatform::D3D11 ||
           m_platform == RendererPlatform::Vulkan;
}

const char* Renderer::GetShaderFuncName(ShaderType type)
{
    static const char* const names[] = {"VS", "PS", "GS", "HS", "DS", "CS"};
    return unsigned(type.value) < 6 ? names[type.value] : "";
}

GraphicsFormat Renderer::GetCompatibleTextureFormat(GraphicsFormat format)
{
    GraphicsFormat candidates[8];
    unsigned count = GetCompatibleFormatCandidates(format, candidates);
    for (unsigned i = 0; i < count; ++i)
        if (CheckTextureFormat(candidates[i], TextureDimension::_2D, unsigned(GraphicsView::ShaderResource),
                               GraphicsResourceUsage::Default, 0))
            return candidates[i];
    return GraphicsFormat::UNKNOWN;
}

// --- Frame state ------------------------------------------------------------------------------

void Renderer::Cleanup() { CleanupFrameState(); }

void Renderer::BeginFrame()
{
    ApplyRTGroup(m_defaultGroup);
    m_currentGroup = m_defaultGroup;
    m_currentViewport = m_defaultViewport;
    ApplyViewport(m_currentViewport);
}

void Renderer::CleanupFrameState() { SetCurrentProgram(nullptr); }

void Renderer::SetCurrentProgram(ProgramRef program)
{
    // The new reference first: setting the same program again keeps it.
    m_currentProgramRef = program.object;
    m_currentProgram = program.program;
    m_currentBaseProgram = program.base;
}

namespace {
std::atomic<ProgramCompilerMaker> s_programCompilerMaker{nullptr};
}

void SetProgramCompilerMaker(ProgramCompilerMaker maker) { s_programCompilerMaker.store(maker); }

GraphicsFactory* MakeProgramCompiler()
{
    ProgramCompilerMaker maker = s_programCompilerMaker.load();
    return maker ? maker() : new GraphicsFactory(FactoryType::ProgramCompiler);
}

void Renderer::SetViewport(const Viewport& viewport)
{
    m_currentViewport = viewport;
    ApplyViewport(m_currentViewport);
}

void Renderer::SetViewport(uint32 width, uint32 height) { SetViewport(0, 0, width, height); }

void Renderer::SetViewport(uint32 x, uint32 y, uint32 width, uint32 height)
{
    Viewport v;
    v.TopLeftX = x;
    v.TopLeftY = y;
    v.Width = width;
    v.Height = height;
    SetViewport(v);
}

void Renderer::SetViewportRect(const Rect& rect)
{
    // Negative corners clamp to 0, as a viewport's corner is unsigned.
    int64 left = rect.left < 0 ? 0 : rect.left, top = rect.top < 0 ? 0 : rect.top;
    int64 width = int64(rect.right) - left, height = int64(rect.bottom) - top;
    SetViewport(uint32(left), uint32(top), uint32(width > 0 ? width : 0), uint32(height > 0 ? height : 0));
}

void Renderer::SetScissorRect(const Rect& rect)
{
    m_scissor = rect;
    ApplyScissorRect(rect);
}

void Renderer::NotifyDeviceLost()
{
    for (const DeviceDelegateEntry& entry : m_deviceLost)
        entry.callback();
}

Rect Renderer::GetViewportRect() const
{
    const Viewport& v = m_currentViewport;
    return Rect(int32(v.TopLeftX), int32(v.TopLeftY), int32(v.TopLeftX + v.Width), int32(v.TopLeftY + v.Height));
}

void Renderer::SetViewportByRT0()
{
    const Ptr<Texture>& target = m_currentGroup.RenderTargets[0];
    if (target)
        SetViewport(target->GetWidth(), target->GetHeight());
}

Ptr<Texture> Renderer::InitializeATexture(Texture* texture)
{
    if (!texture)
        return Ptr<Texture>();
    Ptr<Texture> held(texture);
    if (!texture->CreateDeviceHandle())
    {
        texture->SetState(GraphicsObject::Failed);
        return Ptr<Texture>(); // the only reference goes: released here
    }
    texture->SetState(GraphicsObject::Created);
    return held;
}

void Renderer::SetRTGroup(const RenderTargetGroup& group)
{
    ApplyRTGroup(group);
    m_currentGroup = group;
}

void Renderer::SetRenderTarget(const Ptr<Texture>& texture, uint32 slot, uint32 arrayIndex)
{
    if (slot >= RenderTargetGroup::kMaxTargets)
        return;
    m_currentGroup.RenderTargets[slot] = texture;
    m_currentGroup.ArrayIndices[slot] = texture ? arrayIndex : 0;
}

void Renderer::SetDepthBuffer(const Ptr<Texture>& texture, uint32 arrayIndex)
{
    m_currentGroup.DepthBuffer = texture;
    m_currentGroup.DepthArrayIndex = texture ? arrayIndex : 0;
}

const Ptr<Texture>& Renderer::GetRenderTarget(uint32 slot) const
{
    static const Ptr<Texture> none;
    return slot < RenderTargetGroup::kMaxTargets ? m_currentGroup.RenderTargets[slot] : none;
}

uint32 Renderer::GetRenderTargetArrayIndex(uint32 slot) const
{
    return slot < RenderTargetGroup::kMaxTargets ? m_currentGroup.ArrayIndices[slot] : 0;
}

uint32 Renderer::GetNumActivedRenderTargets() const
{
    uint32 limit = m_capability ? m_capability->NumSimultaneousRTs : 1;
    if (limit > RenderTargetGroup::kMaxTargets)
        limit = RenderTargetGroup::kMaxTargets;
    for (uint32 i = 0; i < limit; ++i)
        if (!m_currentGroup.RenderTargets[i])
            return i;
    return 0;
}

void Renderer::CommitState(BlendState* state)
{
    if (!state || state == m_curBlend.Get())
        return;
    ApplyBlendState(state, m_curBlend.Get());
    m_curBlend = state;
}

void Renderer::CommitState(RasterizerState* state)
{
    if (!state || state == m_curRasterizer.Get())
        return;
    ApplyRasterizerState(state, m_curRasterizer.Get());
    m_curRasterizer = state;
}

void Renderer::CommitState(DepthStencilState* state)
{
    if (!state || (state == m_curDepthStencil.Get() && state->StencilRef == m_curStencilRef))
        return;
    ApplyDepthStencilState(state, m_curDepthStencil.Get());
    m_curDepthStencil = state;
    m_curStencilRef = state->StencilRef;
}

// --- Delegates -------------------------------------------------------------------------------------

bool Renderer::AddDelegate(TArray<DeviceDelegateEntry>& list, const void* owner, DeviceDelegate callback)
{
    for (const DeviceDelegateEntry& entry : list)
        if (entry.owner == owner)
            return false;
    list.Add(DeviceDelegateEntry{owner, std::move(callback)});
    return true;
}

bool Renderer::RemoveDelegate(TArray<DeviceDelegateEntry>& list, const void* owner)
{
    for (unsigned i = 0; i < list.Count(); ++i)
        if (list[i].owner == owner)
        {
            list.RemoveAt(i);
            return true;
        }
    return false;
}

bool Renderer::RegisterDeviceLostDelegate(const void* owner, DeviceDelegate callback)
{
    return AddDelegate(m_deviceLost, owner, std::move(callback));
}
bool Renderer::RegisterDeviceResetDelegate(const void* owner, DeviceDelegate callback)
{
    return AddDelegate(m_deviceReset, owner, std::move(callback));
}
bool Renderer::UnregisterDeviceLostDelegate(const void* owner) { return RemoveDelegate(m_deviceLost, owner); }
bool Renderer::UnregisterDeviceResetDelegate(const void* owner) { return RemoveDelegate(m_deviceReset, owner); }

// --- Windows ----------------------------------------------------------------------------------------

bool GraphicsWindow::CreateDeviceHandle() { return OnCreateSwapChain() && CreateBuffers(); }

void GraphicsWindow::ReleaseDeviceHandle() { ReleaseBuffers(); }

bool GraphicsWindow::CreateBuffers()
{
    Ptr<Texture> back = OnCreateBackBuffer();
    Ptr<Texture> depth = OnCreateDepthBuffer();
    if (!back || !depth)
    {
        ReleaseBuffers();
        return false;
    }
    m_group.RenderTargets[0] = back;
    m_group.DepthBuffer = depth;
    return true;
}

void GraphicsWindow::ReleaseBuffers() { m_group.Clear(); }

void GraphicsWindow::BeginWindow()
{
    if (!g_ptrRenderer)
        return;
    g_ptrRenderer->SetRTGroup(m_group);
    g_ptrRenderer->SetViewport(m_parameters.Width, m_parameters.Height);
}

void GraphicsWindow::EndWindow()
{
    if (g_ptrRenderer)
        g_ptrRenderer->CleanupFrameState();
}

bool GraphicsWindow::Reset(const GraphicsParameters& parameters)
{
    // Put the renderer's own buffers back where ours are bound.
    bool bound = false;
    if (g_ptrRenderer)
    {
        const RenderTargetGroup& current = g_ptrRenderer->GetCurrentRTGroup();
        bound = current.RenderTargets[0] == m_group.RenderTargets[0] && m_group.RenderTargets[0];
    }
    ReleaseBuffers();
    GraphicsParameters copy = parameters;
    if (g_ptrRenderer && copy.BackBufferFormat == GraphicsFormat::UNKNOWN)
        copy.BackBufferFormat = g_ptrRenderer->GetDefaultBackBufferFormat();
    if (!OnResetSwapChain())
        return false;
    m_parameters = copy;
    bool ok = CreateBuffers();
    if (bound && ok)
        g_ptrRenderer->SetRTGroup(m_group);
    return ok;
}

Ptr<GraphicsWindow> GraphicsWindowFactory::Create(const GraphicsParameters& parameters)
{
    Ptr<GraphicsWindow> window(NewWindow());
    window->SetParameters(parameters);
    M_PostObject(Ptr<GraphicsObject>(window.Get()), nullptr);
    return window;
}

} // namespace KovexEngine
