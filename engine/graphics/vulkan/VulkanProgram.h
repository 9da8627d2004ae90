#pragma once

// Programs on the Vulkan backend: shader modules, one descriptor set layout
// and pipeline layout per program, and the per-draw binding of its constant
// buffers, textures, samplers and read-write buffers.
//
// Layout: every resource of the program lives in descriptor set 0, once for
// each stage that reads it, at its slot in that stage (the compiler shifts
// registers: b to 0, t to 16, s to 32, u to 48) moved into the stage's range
// of bindings (VulkanShader::StageBinding): each stage numbers its slots on
// its own, as the compiler numbers each stage's buffers from 0. Constant buffers are
// uniform buffers, textures sampled images, samplers samplers, read-write
// buffers storage buffers (storage images are laid out but not bound yet).
// A resource declared as an array fails the program: a resource holds one
// value, and the descriptors beyond it would be left unwritten.
//
// Binding: push descriptors (VK_KHR_push_descriptor) where the device has
// them and the program's descriptors fit its limit, else one set per draw
// from per-frame descriptor pools, reset when the frame's slot comes round
// again (its fence has then signalled). Pushing wins on every device we know:
// no set is allocated, no pool is reset, and the driver copies the few
// descriptors straight into the command stream; the pool path costs an
// allocation and a vkUpdateDescriptorSets per draw.
//
// Constants: a draw copies each constant buffer the program changed since it
// last reached the GPU into a per-frame linear ring of host-visible memory
// and points the descriptor at that copy. Nothing waits, and every draw of a
// frame keeps the values it was recorded with, however often they change
// (a buffer's own few copies would be overwritten within one frame).
//
// A texture the program never had committed draws with a 1x1 opaque white
// default texture of the declared kind, logged once per program; a sampler
// left unset uses the renderer's default sampler state.
//
// Threads: VulkanShader and VulkanProgramState are made and released on the
// graphics side (CreateDeviceHandle, ReleaseDeviceHandle); the binder's Draw
// belongs to the thread that records frames. Every call takes the device
// lock, so the two sides may run at once.

#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include <vulkan/vulkan.h>

#include "graphics/BaseProgram.h"
#include "graphics/Shader.h"
#include "graphics/vulkan/VulkanMemory.h"

namespace KovexEngine {

class VulkanRenderer;
class SamplerState;
struct DrawBuffersDesc;

class KOVEX_API VulkanShader : public Shader
{
    KOVEX_CLASS(VulkanShader)

public:
    ~VulkanShader() override;
    // The module of the SPIR-V words, named after its stage and entry point.
    // False, with a log line, for words that are no SPIR-V module or a
    // module the device refuses.
    bool CreateDeviceHandle() override;
    // The module goes once no submitted frame can use it.
    void ReleaseDeviceHandle() override;
    VkShaderModule GetModule() const { return m_module; }
    // The module's first entry point, as its OpEntryPoint names it.
    const char* GetEntryPoint() const { return m_entry.c_str(); }

    // The name of the first OpEntryPoint of `words`; false for words that
    // are no SPIR-V module or have none.
    static bool FindEntryPoint(const uint32* words, size_t count, std::string& name);

    // Stages count their slots each from 0 (a vertex and a pixel shader may
    // both have a buffer at slot 0), so a module's bindings are moved into
    // its stage's range when the module is made: binding = stage * 256 +
    // slot. MoveBindings rewrites the Binding decorations of `words`; false
    // for a slot beyond the range or a damaged module.
    static constexpr uint32 kStageBindings = 256;
    static uint32 StageBinding(ShaderType stage, int slot);
    static bool MoveBindings(uint32* words, size_t count, ShaderType stage);

private:
    VkShaderModule m_module = VK_NULL_HANDLE;
    std::string m_entry;
};

class KOVEX_API VulkanShaderFactory : public ShaderFactory
{
protected:
    Shader* NewShader() override { return new VulkanShader(); }
};

// The Vulkan objects of one program.
class KOVEX_API VulkanProgramState : public ProgramDeviceState
{
public:
    struct Binding
    {
        uint32 Slot = 0;
        VkDescriptorType Type = VK_DESCRIPTOR_TYPE_UNIFORM_BUFFER;
        VkShaderStageFlags Stages = 0;
        Ptr<ShaderResource> Resource;
        uint32 CBufferIndex = 0;                           // constant buffers
        VkImageViewType ViewType = VK_IMAGE_VIEW_TYPE_2D; // textures
    };
    VulkanProgramState() = default;
    ~VulkanProgramState() override;

    VkDescriptorSetLayout GetSetLayout() const { return m_setLayout; }
    VkPipelineLayout GetPipelineLayout() const { return m_pipelineLayout; }
    const std::vector<Binding>& GetBindings() const { return m_bindings; }
    bool IsPushed() const { return m_pushed; }
    // Whether a draw found a texture unset (said once per program).
    bool HasToldDefault() const { return m_toldDefault; }

private:
    friend class VulkanProgramBinder;
    VkDevice m_device = VK_NULL_HANDLE;
    VkDescriptorSetLayout m_setLayout = VK_NULL_HANDLE;
    VkPipelineLayout m_pipelineLayout = VK_NULL_HANDLE;
    std::vector<Binding> m_bindings; // by slot
    bool m_pushed = false;
    bool m_toldDefault = false;
    bool m_toldBuffer = false;
    // Scratch of one draw, kept to spare allocations.
    std::vector<VkWriteDescriptorSet> m_writes;
    std::vector<VkDescriptorBufferInfo> m_bufferInfos;
    std::vector<VkDescriptorImageInfo> m_imageInfos;
};

class KOVEX_API VulkanProgramBinder
{
public:
    explicit VulkanProgramBinder(VulkanRenderer& renderer);
    ~VulkanProgramBinder();
    VulkanProgramBinder(const VulkanProgramBinder&) = delete;
    VulkanProgramBinder& operator=(const VulkanProgramBinder&) = delete;
    // Destroys the ring, pools, samplers and default textures; the device
    // is idle.
    void Destroy();

    // Renderer::CreateProgramDevice: the layouts from the program's merged
    // resources. False, with a log line, when two resources claim one slot
    // or the device refuses a layout.
    bool CreateProgram(BaseProgram* program);
    // Renderer::DrawWithProgram with the current program.
    bool Draw(const DrawBuffersDesc& draw);

    // Whether programs that fit push their descriptors on this device.
    bool CanPush() const { return m_push != nullptr; }
    // Bytes of constants copied into the ring since the device opened.
    uint64 GetRingBytes() const { return m_ringBytes; }

    // --- For the draw recorder --------------------------------------------------
    // Fills the state's descriptor writes for one draw, recording texture
    // transitions into `cmd` (outside rendering); with the pool path, also
    // allocates and writes the set. False, with a log line, when a resource
    // cannot be bound.
    bool PrepareBindings(VkCommandBuffer cmd, BaseProgram& program, VulkanProgramState& state, VkDescriptorSet& set);
    void PushDescriptors(VkCommandBuffer cmd, VulkanProgramState& state);

private:
    struct Chunk
    {
        VkBuffer Buffer = VK_NULL_HANDLE;
        VulkanAllocation Memory;
        uint64 Size = 0;
        uint64 Used = 0;
    };
    struct FrameSlot
    {
        uint64 Begun = 0;
        std::vector<Chunk> Chunks;
        size_t Current = 0;
        std::vector<VkDescriptorPool> Pools;
        size_t CurrentPool = 0;
    };
    FrameSlot& Frame();
    bool Allocate(uint64 size, VkBuffer& buffer, uint64& offset, uint8*& mapped);
    VkDescriptorSet AllocateSet(VkDescriptorSetLayout layout);
    VkSampler GetSampler(const SamplerState* state);
    VkImageView GetDefaultView(VkCommandBuffer cmd, VkImageViewType type);
    bool CreateDefaultImages(VkCommandBuffer cmd);

    VulkanRenderer& m_renderer;
    PFN_vkCmdPushDescriptorSetKHR m_push = nullptr;
    uint32 m_maxPush = 0;
    uint64 m_uniformAlign = 256;
    uint64 m_ringBytes = 0;
    uint32 m_programs = 0;
    std::vector<FrameSlot> m_frames;
    std::unordered_map<const SamplerState*, VkSampler> m_samplers;
    struct DefaultImage
    {
        VkImage Image = VK_NULL_HANDLE;
        VulkanAllocation Memory;
    };
    DefaultImage m_defaults[3]; // 1D, 2D (six layers, cube-compatible), 3D
    VkImageView m_defaultViews[7] = {};
};

} // namespace KovexEngine
