#pragma once

// The Vulkan renderer, platform 4. It registers itself as a backend when the
// library is built with Vulkan, and is available when VulkanDevice::Probe
// finds a device.
//
// Frames: device operations record into the frame's command buffer, begun on
// first use. Present submits it with its fence (no window: that is the whole
// of presenting); with kFramesInFlight command buffers the next frame waits
// only for the one before the last. Reading back first submits what the
// frame has recorded, so it sees every clear before it. Uploads go through a
// staging buffer into the frame's commands, so they wait for nothing; the
// staging buffer goes once that frame is complete. Read-backs wait for the
// device (RunNow).
//
// Objects released while a frame may still read them are destroyed once the
// frames submitted before then are complete (DeferDestroy).
//
// Windows: with GraphicsParameters::WindowHandle set to an X11 window id,
// the renderer presents into that window (see VulkanSwapChain for the
// convention). A frame that finds the window resized or the swap chain out of
// date resets the renderer at the window's size, which fires the reset
// delegates; the back buffer is recreated at that size.
//
// Multisampling: GraphicsParameters::Extra0 is the number of samples per
// pixel of the back and depth buffer (0 and 1: one). A count the device
// cannot render logs a line and takes the highest one below it that it can.
// The back buffer then draws into a multisampled twin that every draw
// resolves into it, so reading it back, copying it and presenting it see
// the resolved pixels; the depth buffer itself is multisampled (it cannot be
// read back). Other targets have one sample.
//
// Colour: GraphicsFormat has no sRGB members, so every 8-bit colour format
// is UNORM everywhere: render targets, textures and the window's swap
// chain. A shader writes the bytes it means (0.5 is stored as 128) and
// sampling returns the stored value; encoding and decoding gamma is the
// shaders' business. The window shows the back buffer's bytes unconverted.
//
// Scissor: while the current rasterizer state has ScissorEnable, draws are
// cut to Renderer::GetScissorRect (clamped to the targets).
//
// Device loss: a submission or wait that reports VK_ERROR_DEVICE_LOST puts
// the renderer in a lost state, logs one line and runs the device-lost
// delegates once. From then on recording, submitting and reading back fail,
// each kind logging one line until the next Reset. Reset clears the state
// when the device answers again (it fails, with a line, when it does not);
// destroying the renderer is always safe.
//
// Threads: every device operation takes the device lock, so the graphics
// thread may create objects while the main thread records; the renderer's
// frame state (Renderer's own) belongs to the thread that draws, as for any
// renderer.

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "graphics/Renderer.h"
#include "graphics/vulkan/VulkanDevice.h"
#include "graphics/vulkan/VulkanPipeline.h"

namespace KovexEngine {

class VulkanTexture;
class VulkanSwapChain;
class VulkanBufferMemory;
class GraphicsBuffer;
class VertexBuffer;
class IndexBuffer;
class VulkanProgramBinder;

// What one draw records around the renderer's part (targets, rendering,
// dynamic state): Prepare runs before rendering begins (layout transitions),
// Record inside it, and binds the pipeline, resources and buffers, then draws.
class VulkanDrawRecorder
{
public:
    virtual bool Prepare(VkCommandBuffer cmd) = 0;
    virtual void Record(VkCommandBuffer cmd, VkPipeline pipeline) = 0;

protected:
    ~VulkanDrawRecorder() = default;
};

class KOVEX_API VulkanRenderer : public Renderer
{
    KOVEX_CLASS(VulkanRenderer)

public:
    static constexpr uint32 kFramesInFlight = 2;

    VulkanRenderer();
    ~VulkanRenderer() override;

    // The renderer of g_ptrRenderer when it is this platform's; else null.
    static VulkanRenderer* Get();

#define KOVEX_DEVICE_OP_VULKAN_DECL(result, name, params, nullResult) result name params override;
    KOVEX_RENDERER_DEVICE_OPS(KOVEX_DEVICE_OP_VULKAN_DECL)
#undef KOVEX_DEVICE_OP_VULKAN_DECL

    VulkanDevice& GetDevice() { return m_device; }
    // The main window's swap chain; null when the renderer has no window.
    VulkanSwapChain* GetSwapChain() { return m_swapChain.get(); }

    // Perf events and markers become debug-utils labels in the frame's
    // commands (nothing where the loader lacks the extension, or while
    // EnablePerf(false)). An EndPerfEvent without its Begin is ignored; events
    // still open when the frame's commands are submitted (Present, a
    // read-back) are closed then, so every command buffer is balanced.
    void BeginPerfEvent(uint32 color, const char16_t* name) override;
    void EndPerfEvent() override;
    void EnablePerf(bool enabled) override;
    void SetMarker(uint32 color, const char16_t* name) override;
    // Perf events open in the frame being recorded; 0 once it is submitted.
    uint32 GetOpenPerfEvents() const { return m_perfDepth; }

    // Milliseconds the GPU spent on the last frame whose timestamps have come
    // back (timestamps at the start and end of each frame's commands, read
    // once its fence has signalled, never waited for); 0 before the first,
    // and always where the queue has no timestamps. Each one is also added
    // to g_TimeAnalyzer as section kGpuFrameSection. Safe from any thread.
    double GetGpuFrameTime() const { return m_gpuFrameMs.load(std::memory_order_relaxed); }
    static constexpr int kGpuFrameSection = 20;
    // Perf events are timed on the GPU too (up to kMaxTimedEvents a frame,
    // nested or not; events still open at submission end there). Once the
    // frame's fence has signalled each one is added to g_TimeAnalyzer, as
    // "GPU <name>", in a section of its own per name: kGpuEventSectionBase
    // plus the order in which names first appeared, for up to
    // kMaxEventNames names (later names get labels only).
    static constexpr int kGpuEventSectionBase = 1000;
    static constexpr uint32 kMaxTimedEvents = 32;
    static constexpr uint32 kMaxEventNames = 64;
    // The section of events of this name; -1 before the first one. Safe
    // from any thread.
    int GetGpuEventSection(const char16_t* name);

    // ReadTexture (a device operation): False, with a log line, also for a
    // texture of another platform or a failed copy.
    // The current content of a vertex, index, constant or read-write buffer.
    bool ReadBuffer(GraphicsBuffer* buffer, std::vector<uint8>& out);

    // Draws `vertexCount` vertices of one buffer into the bound targets with
    // the committed states and the current viewport (y up, as the engine's
    // content has it). The stages are SPIR-V modules until programs come;
    // the pipeline comes from the cache. False, with a log line, when the
    // device cannot draw or the pipeline cannot be made.
    // With `indices`, `vertexCount` counts indices of that buffer.
    bool DrawVertices(VkShaderModule vertex, VkShaderModule pixel, VertexBuffer* buffer, uint32 vertexCount,
                      GraphicsTopology topology, IndexBuffer* indices = nullptr);
    // A shader module of SPIR-V words; null, with a log line, when refused.
    VkShaderModule CreateShaderModule(const uint32* code, size_t bytes);
    // Samples per pixel of the back and depth buffer, as the device gave them.
    uint32 GetSampleCount() const { return m_samples; }
    // The highest count the device can render colour and depth with that
    // is not above `wanted` (at least 1).
    uint32 SupportedSampleCount(uint32 wanted) const;

    // Test-only: the next frame submission reports VK_ERROR_DEVICE_LOST, as
    // a lost device would (the commands still run, so the device stays
    // consistent for the tests that go on after a Reset). Any thread.
    void SimulateDeviceLostForTest() { m_simulateLost = true; }
    // Safe from any thread.
    bool IsDeviceLost() const { return m_lost.load(std::memory_order_acquire); }
    void DestroyShaderModule(VkShaderModule module);
    VulkanPipelineCache& GetPipelines() { return m_pipelines; }
    // Descriptors, constants and defaults of program draws (VulkanProgram.h);
    // null while the device is closed.
    VulkanProgramBinder* GetPrograms() { return m_programs.get(); }
    // Completes `key` with the bound targets and the committed states, then
    // records one draw into the frame. False, with a log line, when there is
    // no target or the pipeline cannot be made.
    bool RecordDraw(VulkanPipelineKey& key, VulkanDrawRecorder& recorder);

    // --- For the backend's objects ---------------------------------------------
    // A command buffer that runs before anything recorded later: the
    // frame's. Null when the device is not open.
    VkCommandBuffer GetFrameCommands();
    // Submits the frame's commands; with `wait`, returns when the device is
    // idle. The submit waits for `waitOn` (at transfer) and signals `signal`
    // where they are given.
    bool SubmitFrame(bool wait, VkSemaphore waitOn = VK_NULL_HANDLE, VkSemaphore signal = VK_NULL_HANDLE);
    // The slot of the frame being recorded, below kFramesInFlight.
    uint32 GetFrameSlot() const { return m_slot; }
    // Counts the frames' command buffers begun: a slot's per-frame memory is
    // free again once this has moved on since it was last used.
    uint64 GetFrameBegun() const { return m_begun; }
    // Commands that run now: what the frame recorded is submitted first, the
    // commands are recorded by `record`, and the device is waited for.
    bool RunNow(const std::function<void(VkCommandBuffer)>& record);
    // Copies `size` bytes into a staging buffer and lets `record` copy from it
    // within the frame's commands; the staging buffer is destroyed once the
    // frame is complete. False, with a log line, when no staging memory is
    // left.
    bool Upload(const void* data, uint64 size, const std::function<void(VkCommandBuffer, VkBuffer)>& record);
    // Runs `destroy` once no submitted frame can use what it destroys.
    void DeferDestroy(std::function<void()> destroy);
    // Moves the whole image to `layout`, recording the barrier in `cmd`; into
    // TRANSFER_DST always, so that transfer writes in a row are ordered.
    void Transition(VkCommandBuffer cmd, VulkanTexture& texture, VkImageLayout layout);
    // The same for any image whose layout the caller tracks in `current`.
    static void TransitionImage(VkCommandBuffer cmd, VkImage image, VkImageAspectFlags aspects,
                                VkImageLayout& current, VkImageLayout layout);
    // A host-visible buffer of `size` bytes for one transfer; destroyed with
    // DestroyTransferBuffer.
    bool CreateTransferBuffer(uint64 size, VkBuffer& buffer, VulkanAllocation& memory);
    void DestroyTransferBuffer(VkBuffer& buffer, VulkanAllocation& memory);

protected:
    void OnDestroying() override;
    void OnDestroyed() override;

private:
    bool VulkanCreateDevice(const GraphicsParameters& parameters);
    Ptr<Texture> NewBuffer(GraphicsFormat format, uint32 viewFlags);
    GraphicsFactory* NewWindowFactory();
    void ClearColor(VkCommandBuffer cmd, VulkanTexture& texture, const Vector4& color, int layer);
    void ClearDepth(VkCommandBuffer cmd, VulkanTexture& texture, VkImageAspectFlags aspects, float depth,
                    uint32 stencil, int layer);
    bool WaitFrame(uint32 slot);
    VkCommandBuffer PerfCommands();
    void CloseOpenEvents(VkCommandBuffer cmd);
    int EventSection(const std::string& name);
    void BeginFrameTimestamps(VkCommandBuffer cmd);
    void ReadFrameTimestamps(uint32 slot);
    void CreateTimestampPools();
    void CollectGarbage();
    void DrawWithoutProgram();
    void CloseDevice();
    enum class LostKind
    {
        Recording,
        Submission,
        ReadBack,
        Count
    };
    // After a VK_ERROR_DEVICE_LOST: the lost state, its line, the delegates.
    void EnterDeviceLost();
    // True, logging once per kind, while the device is lost.
    bool RefuseWhileLost(LostKind kind);
    void ClearGroup(const RenderTargetGroup& group);
    void ChooseSamples(uint32 wanted);
    bool FillScissor(VkRect2D& scissor, VkExtent2D extent) const;

    VulkanDevice m_device;
    std::unique_ptr<VulkanSwapChain> m_swapChain;
    Ptr<Texture> m_mainBackBuffer;
    VulkanPipelineCache m_pipelines;
    std::unique_ptr<VulkanProgramBinder> m_programs;
    uint64 m_begun = 0;
    Viewport m_viewport;
    VkCommandBuffer m_frameCommands[kFramesInFlight] = {};
    VkFence m_frameFences[kFramesInFlight] = {};
    uint64 m_frameSerial[kFramesInFlight] = {};
    VkCommandBuffer m_nowCommands = VK_NULL_HANDLE;
    VkQueryPool m_timestampPools[kFramesInFlight] = {};
    bool m_timestampsPending[kFramesInFlight] = {};
    std::atomic<double> m_gpuFrameMs{0.0};
    uint32 m_perfDepth = 0; // events open in the frame's commands
    struct TimedEvent
    {
        int section;
        std::string name;
    };
    std::vector<TimedEvent> m_timedEvents[kFramesInFlight]; // by query pair, per slot
    std::vector<int32> m_openEvents;   // index into the slot's events; -1 for one not timed
    std::vector<std::string> m_eventNames; // section kGpuEventSectionBase + index
    bool m_perfEnabled = true;
    uint32 m_slot = 0;
    bool m_recording = false;
    uint64 m_submitted = 0; // submissions made
    uint64 m_completed = 0; // all submissions up to this one are complete
    struct Garbage
    {
        uint64 serial;
        std::function<void()> destroy;
    };
    std::vector<Garbage> m_garbage;
    RenderTargetGroup m_bound;
    uint32 m_samples = 1;
    std::atomic<bool> m_simulateLost{false};
    std::atomic<bool> m_lost{false};
    bool m_toldLost[int(LostKind::Count)] = {};
    std::atomic<bool> m_toldNoPrograms{false};
};

} // namespace KovexEngine
