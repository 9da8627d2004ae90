#include "graphics/vulkan/VulkanProgram.h"

#include <string.h>

#include <algorithm>

#include "graphics/RWBuffer.h"
#include "graphics/RenderStates.h"
#include "graphics/ShaderReflection.h"
#include "graphics/ShaderResource.h"
#include "graphics/VertexDecl.h"
#include "graphics/vulkan/VulkanRenderer.h"
#include "graphics/vulkan/VulkanResources.h"
#include "kernel/Log.h"

namespace KovexEngine {

KOVEX_REGISTER_CLASS(VulkanShader, u"Engine", Shader)

namespace {

constexpr uint32 kSpirvMagic = 0x07230203u;
constexpr uint32 kOpEntryPoint = 15;
// Constants of one frame start in a block of this size; more get more blocks.
constexpr uint64 kRingChunk = uint64(1) << 20;
constexpr uint32 kSetsPerPool = 256;

const char* StageName(ShaderType type)
{
    static const char* const names[] = {"Vertex", "Pixel", "Geometry", "Hull", "Domain", "Compute"};
    return unsigned(type.value) < 6 ? names[type.value] : "Unknown";
}

const VkShaderStageFlagBits kStageBits[BaseProgram::kStages] = {
    VK_SHADER_STAGE_VERTEX_BIT,
    VK_SHADER_STAGE_FRAGMENT_BIT,
    VK_SHADER_STAGE_GEOMETRY_BIT,
    VK_SHADER_STAGE_TESSELLATION_CONTROL_BIT,
    VK_SHADER_STAGE_TESSELLATION_EVALUATION_BIT,
    VK_SHADER_STAGE_COMPUTE_BIT};

// A texture's reflected dimension (1, 2, 3, 4 for a cube; arrays add 8) as
// the view type its descriptor needs.
VkImageViewType ViewTypeOf(uint32 dimension)
{
    switch (dimension)
    {
    case 1: return VK_IMAGE_VIEW_TYPE_1D;
    case 3: return VK_IMAGE_VIEW_TYPE_3D;
    case 4: return VK_IMAGE_VIEW_TYPE_CUBE;
    case 9: return VK_IMAGE_VIEW_TYPE_1D_ARRAY;
    case 10: return VK_IMAGE_VIEW_TYPE_2D_ARRAY;
    case 12: return VK_IMAGE_VIEW_TYPE_CUBE_ARRAY;
    default: return VK_IMAGE_VIEW_TYPE_2D;
    }
}

const ShaderReflection::Resource* FindReflected(const std::vector<ShaderReflection::Resource>& list, int slot)
{
    for (const ShaderReflection::Resource& resource : list)
        if (int(resource.Binding) == slot)
            return &resource;
    return nullptr;
}

VulkanShader* AsVulkanShader(Shader* shader)
{
    return DynamicCast<VulkanShader>(static_cast<Object*>(shader));
}

VulkanTexture* AsVulkanTexture(Texture* texture)
{
    return DynamicCast<VulkanTexture>(static_cast<Object*>(texture));
}

VkSamplerAddressMode ToVkAddress(GraphicsAddress address)
{
    switch (address)
    {
    case GraphicsAddress::Mirror: return VK_SAMPLER_ADDRESS_MODE_MIRRORED_REPEAT;
    case GraphicsAddress::Clamp: return VK_SAMPLER_ADDRESS_MODE_CLAMP_TO_EDGE;
    case GraphicsAddress::Border: return VK_SAMPLER_ADDRESS_MODE_CLAMP_TO_BORDER;
    // Mirroring once needs a feature Vulkan 1.1 does not promise; mirroring
    // always agrees with it over [-1, 2].
    case GraphicsAddress::MirrorOnce: return VK_SAMPLER_ADDRESS_MODE_MIRRORED_REPEAT;
    default: return VK_SAMPLER_ADDRESS_MODE_REPEAT;
    }
}

} // namespace

// --- Shaders ------------------------------------------------------------------------------------

uint32 VulkanShader::StageBinding(ShaderType stage, int slot)
{
    return uint32(stage.value) * kStageBindings + uint32(slot);
}

bool VulkanShader::MoveBindings(uint32* words, size_t count, ShaderType stage)
{
    constexpr uint32 kOpDecorate = 71, kDecorationBinding = 33;
    for (size_t at = 5; at < count;)
    {
        const uint32 length = words[at] >> 16;
        if (length == 0 || at + length > count)
            return false;
        if ((words[at] & 0xFFFFu) == kOpDecorate && length == 4 && words[at + 2] == kDecorationBinding)
        {
            if (words[at + 3] >= kStageBindings)
                return false;
            words[at + 3] = StageBinding(stage, int(words[at + 3]));
        }
        at += length;
    }
    return true;
}

VulkanShader::~VulkanShader() { ReleaseDeviceHandle(); }

bool VulkanShader::FindEntryPoint(const uint32* words, size_t count, std::string& name)
{
    if (!words || count < 5 || words[0] != kSpirvMagic)
        return false;
    for (size_t at = 5; at < count;)
    {
        const uint32 length = words[at] >> 16;
        if (length == 0 || at + length > count)
            return false;
        if ((words[at] & 0xFFFFu) == kOpEntryPoint && length > 3)
        {
            const char* text = reinterpret_cast<const char*>(words + at + 3);
            const size_t room = size_t(length - 3) * 4;
            name.assign(text, strnlen(text, room));
            return !name.empty();
        }
        at += length;
    }
    return false;
}

bool VulkanShader::CreateDeviceHandle()
{
    VulkanRenderer* renderer = VulkanRenderer::Get();
    const uint32* words = static_cast<const uint32*>(GetShaderCode());
    const size_t count = GetShaderCodeSize() / 4;
    if (!FindEntryPoint(words, count, m_entry))
    {
        Log::Format(LOG_WARNING, u"Vulkan: the %S shader's code is no SPIR-V module with an entry point.\n",
                    StageName(GetType()));
        return false;
    }
    if (!renderer)
        return false;
    // Each stage numbers its resources on its own, as its registers are
    // counted: the stage's bindings move to a range of their own.
    std::vector<uint32> patched(words, words + count);
    if (!MoveBindings(patched.data(), count, GetType()))
    {
        Log::Format(LOG_WARNING, u"Vulkan: the %S shader has a binding beyond %u.\n", StageName(GetType()),
                    kStageBindings - 1);
        return false;
    }
    m_module = renderer->CreateShaderModule(patched.data(), count * 4);
    if (!m_module)
        return false;
    renderer->GetDevice().GetDebug().Name(VK_OBJECT_TYPE_SHADER_MODULE, m_module,
                                          std::string(StageName(GetType())) + " shader " + m_entry);
    return true;
}

void VulkanShader::ReleaseDeviceHandle()
{
    if (!m_module)
        return;
    if (VulkanRenderer* renderer = VulkanRenderer::Get())
        renderer->DestroyShaderModule(m_module);
    m_module = VK_NULL_HANDLE;
}

// --- Program layouts -------------------------------------------------------------------------------

VulkanProgramState::~VulkanProgramState()
{
    VulkanRenderer* renderer = VulkanRenderer::Get();
    if (!renderer || renderer->GetDevice().GetDevice() != m_device || !m_device)
        return; // the device went first, and its objects with it
    std::lock_guard<std::recursive_mutex> lock(renderer->GetDevice().GetLock());
    VkDevice device = m_device;
    for (VkPipeline pipeline : renderer->GetPipelines().Forget(m_pipelineLayout))
        renderer->DeferDestroy([device, pipeline] { vkDestroyPipeline(device, pipeline, nullptr); });
    renderer->DeferDestroy([device, set = m_setLayout, layout = m_pipelineLayout] {
        vkDestroyPipelineLayout(device, layout, nullptr);
        vkDestroyDescriptorSetLayout(device, set, nullptr);
    });
}

VulkanProgramBinder::VulkanProgramBinder(VulkanRenderer& renderer) : m_renderer(renderer)
{
    VulkanDevice& device = renderer.GetDevice();
    m_push = device.GetPushDescriptor();
    m_maxPush = device.GetMaxPushDescriptors();
    const uint64 align = device.GetProperties().limits.minUniformBufferOffsetAlignment;
    m_uniformAlign = align ? align : 256;
    m_frames.resize(VulkanRenderer::kFramesInFlight);
}

VulkanProgramBinder::~VulkanProgramBinder() { Destroy(); }

void VulkanProgramBinder::Destroy()
{
    VulkanDevice& device = m_renderer.GetDevice();
    VkDevice vk = device.GetDevice();
    if (!vk)
        return;
    for (FrameSlot& frame : m_frames)
    {
        for (Chunk& chunk : frame.Chunks)
        {
            vkDestroyBuffer(vk, chunk.Buffer, nullptr);
            device.GetMemory().Free(chunk.Memory);
        }
        for (VkDescriptorPool pool : frame.Pools)
            vkDestroyDescriptorPool(vk, pool, nullptr);
        frame = FrameSlot();
    }
    for (auto& [state, sampler] : m_samplers)
        vkDestroySampler(vk, sampler, nullptr);
    m_samplers.clear();
    for (VkImageView& view : m_defaultViews)
    {
        if (view)
            vkDestroyImageView(vk, view, nullptr);
        view = VK_NULL_HANDLE;
    }
    for (DefaultImage& image : m_defaults)
    {
        if (image.Image)
            vkDestroyImage(vk, image.Image, nullptr);
        device.GetMemory().Free(image.Memory);
        image = DefaultImage();
    }
}

bool VulkanProgramBinder::CreateProgram(BaseProgram* program)
{
    if (!program)
        return false;
    VulkanDevice& device = m_renderer.GetDevice();
    std::lock_guard<std::recursive_mutex> lock(device.GetLock());
    std::vector<VulkanProgramState::Binding> bindings;
    bool clash = false;
    auto add = [&](int slot, unsigned stage, VkDescriptorType type, ShaderResource* resource, uint32 index,
                   VkImageViewType view) {
        if (slot < 0)
            return;
        if (slot >= int(VulkanShader::kStageBindings))
        {
            Log::Format(LOG_WARNING, u"Vulkan: program slot %d of [%s] is beyond %u.\n", slot,
                        resource->GetName().c_str(), VulkanShader::kStageBindings - 1);
            clash = true;
            return;
        }
        for (VulkanProgramState::Binding& b : bindings)
            if (b.Slot == VulkanShader::StageBinding(ShaderType{int(stage)}, slot))
            {
                if (b.Resource.Get() != resource || b.Type != type)
                {
                    Log::Format(LOG_WARNING, u"Vulkan: program slot %d is claimed by [%s] and [%s].\n", slot,
                                b.Resource->GetName().c_str(), resource->GetName().c_str());
                    clash = true;
                }
                b.Stages |= kStageBits[stage];
                return;
            }
        VulkanProgramState::Binding b;
        b.Slot = VulkanShader::StageBinding(ShaderType{int(stage)}, slot);
        b.Type = type;
        b.Stages = kStageBits[stage];
        b.Resource = Ptr<ShaderResource>(resource);
        b.CBufferIndex = index;
        b.ViewType = view;
        bindings.push_back(b);
    };
    for (unsigned stage = 0; stage < BaseProgram::kStages; ++stage)
    {
        const ShaderType type{int(stage)};
        Shader* shader = program->GetShader(type);
        // One descriptor per resource: a resource holds one value.
        const ShaderReflection empty;
        const ShaderReflection& reflection = shader ? shader->GetReflection() : empty;
        for (const std::vector<ShaderReflection::Resource>* list :
             {&reflection.Textures, &reflection.Samplers, &reflection.RWBuffers})
            for (const ShaderReflection::Resource& resource : *list)
                if (resource.ArraySize > 1)
                {
                    Log::Format(LOG_WARNING, u"Vulkan: program resource [%S] is an array of %u; arrays of resources "
                                             u"are not bound yet.\n",
                                resource.Name.c_str(), resource.ArraySize);
                    return false;
                }
        for (unsigned i = 0; i < program->GetNumCBuffers(); ++i)
        {
            ShaderCBuffer* cbuffer = program->GetCBuffer(i);
            add(cbuffer->GetSlotInShader(type), stage, VK_DESCRIPTOR_TYPE_UNIFORM_BUFFER, cbuffer, i,
                VK_IMAGE_VIEW_TYPE_2D);
        }
        for (const auto& pair : program->GetTextureMap())
        {
            const int slot = pair.value->GetSlotInShader(type);
            const ShaderReflection::Resource* reflected =
                shader && slot >= 0 ? FindReflected(shader->GetReflection().Textures, slot) : nullptr;
            add(slot, stage, VK_DESCRIPTOR_TYPE_SAMPLED_IMAGE, pair.value.Get(), 0,
                ViewTypeOf(reflected ? reflected->Dimension : 2));
        }
        for (const auto& pair : program->GetSamplerMap())
            add(pair.value->GetSlotInShader(type), stage, VK_DESCRIPTOR_TYPE_SAMPLER, pair.value.Get(), 0,
                VK_IMAGE_VIEW_TYPE_2D);
        for (const auto& pair : program->GetBufferMap())
        {
            const int slot = pair.value->GetSlotInShader(type);
            const ShaderReflection::Resource* reflected =
                shader && slot >= 0 ? FindReflected(shader->GetReflection().RWBuffers, slot) : nullptr;
            const bool image = reflected && reflected->Dimension != 0;
            add(slot, stage, image ? VK_DESCRIPTOR_TYPE_STORAGE_IMAGE : VK_DESCRIPTOR_TYPE_STORAGE_BUFFER,
                pair.value.Get(), 0, ViewTypeOf(image ? reflected->Dimension : 2));
        }
    }
    if (clash)
        return false;
    std::sort(
        bindings.begin(), bindings.end(),
        [](const VulkanProgramState::Binding& a, const VulkanProgramState::Binding& b) { return a.Slot < b.Slot; });

    auto state = std::make_unique<VulkanProgramState>();
    state->m_device = device.GetDevice();
    state->m_pushed = m_push && bindings.size() <= m_maxPush;
    std::vector<VkDescriptorSetLayoutBinding> layoutBindings;
    for (const VulkanProgramState::Binding& b : bindings)
        layoutBindings.push_back({b.Slot, b.Type, 1, b.Stages, nullptr});
    VkDescriptorSetLayoutCreateInfo setInfo = {VK_STRUCTURE_TYPE_DESCRIPTOR_SET_LAYOUT_CREATE_INFO};
    setInfo.flags = state->m_pushed ? VK_DESCRIPTOR_SET_LAYOUT_CREATE_PUSH_DESCRIPTOR_BIT_KHR : 0;
    setInfo.bindingCount = uint32(layoutBindings.size());
    setInfo.pBindings = layoutBindings.data();
    VkResult result = vkCreateDescriptorSetLayout(device.GetDevice(), &setInfo, nullptr, &state->m_setLayout);
    if (result == VK_SUCCESS)
    {
        VkPipelineLayoutCreateInfo layoutInfo = {VK_STRUCTURE_TYPE_PIPELINE_LAYOUT_CREATE_INFO};
        layoutInfo.setLayoutCount = 1;
        layoutInfo.pSetLayouts = &state->m_setLayout;
        result = vkCreatePipelineLayout(device.GetDevice(), &layoutInfo, nullptr, &state->m_pipelineLayout);
    }
    if (result != VK_SUCCESS)
    {
        if (state->m_setLayout)
            vkDestroyDescriptorSetLayout(device.GetDevice(), state->m_setLayout, nullptr);
        state->m_setLayout = VK_NULL_HANDLE;
        state->m_device = VK_NULL_HANDLE;
        Log::Format(LOG_WARNING, u"Vulkan: the layout of a program of %u resources was refused (%d).\n",
                    unsigned(bindings.size()), int(result));
        return false;
    }
    const std::string name = "Program " + std::to_string(++m_programs);
    device.GetDebug().Name(VK_OBJECT_TYPE_DESCRIPTOR_SET_LAYOUT, state->m_setLayout, name + " set layout");
    device.GetDebug().Name(VK_OBJECT_TYPE_PIPELINE_LAYOUT, state->m_pipelineLayout, name + " layout");
    state->m_bindings = std::move(bindings);
    state->m_writes.reserve(state->m_bindings.size());
    state->m_bufferInfos.reserve(state->m_bindings.size());
    state->m_imageInfos.reserve(state->m_bindings.size());
    program->SetDeviceState(std::move(state));
    return true;
}

// --- Per-frame memory -----------------------------------------------------------------------------

VulkanProgramBinder::FrameSlot& VulkanProgramBinder::Frame()
{
    // Called with the frame's commands begun: a slot whose command buffer
    // began anew has had its fence waited for, so its memory is free.
    FrameSlot& frame = m_frames[m_renderer.GetFrameSlot()];
    if (frame.Begun != m_renderer.GetFrameBegun())
    {
        frame.Begun = m_renderer.GetFrameBegun();
        for (Chunk& chunk : frame.Chunks)
            chunk.Used = 0;
        frame.Current = 0;
        for (VkDescriptorPool pool : frame.Pools)
            vkResetDescriptorPool(m_renderer.GetDevice().GetDevice(), pool, 0);
        frame.CurrentPool = 0;
    }
    return frame;
}

bool VulkanProgramBinder::Allocate(uint64 size, VkBuffer& buffer, uint64& offset, uint8*& mapped)
{
    FrameSlot& frame = Frame();
    for (; frame.Current < frame.Chunks.size(); ++frame.Current)
    {
        Chunk& chunk = frame.Chunks[frame.Current];
        const uint64 at = (chunk.Used + m_uniformAlign - 1) / m_uniformAlign * m_uniformAlign;
        if (at + size <= chunk.Size)
        {
            chunk.Used = at + size;
            buffer = chunk.Buffer;
            offset = at;
            mapped = chunk.Memory.Mapped + at;
            return true;
        }
    }
    VulkanDevice& device = m_renderer.GetDevice();
    Chunk chunk;
    chunk.Size = size > kRingChunk ? size : kRingChunk;
    VkBufferCreateInfo info = {VK_STRUCTURE_TYPE_BUFFER_CREATE_INFO};
    info.size = chunk.Size;
    info.usage = VK_BUFFER_USAGE_UNIFORM_BUFFER_BIT;
    info.sharingMode = VK_SHARING_MODE_EXCLUSIVE;
    VkResult result = vkCreateBuffer(device.GetDevice(), &info, nullptr, &chunk.Buffer);
    if (result == VK_SUCCESS)
    {
        VkMemoryRequirements requirements;
        vkGetBufferMemoryRequirements(device.GetDevice(), chunk.Buffer, &requirements);
        if (!device.GetMemory().Allocate(requirements,
                                         VK_MEMORY_PROPERTY_HOST_VISIBLE_BIT | VK_MEMORY_PROPERTY_HOST_COHERENT_BIT,
                                         true, chunk.Memory) ||
            !chunk.Memory.Mapped ||
            vkBindBufferMemory(device.GetDevice(), chunk.Buffer, chunk.Memory.Memory, chunk.Memory.Offset) !=
                VK_SUCCESS)
            result = VK_ERROR_OUT_OF_DEVICE_MEMORY;
    }
    if (result != VK_SUCCESS)
    {
        if (chunk.Buffer)
            vkDestroyBuffer(device.GetDevice(), chunk.Buffer, nullptr);
        device.GetMemory().Free(chunk.Memory);
        Log::Format(LOG_WARNING, u"Vulkan: no memory for %I64u bytes of constants (%d).\n",
                    (unsigned long long)chunk.Size, int(result));
        return false;
    }
    device.GetDebug().Name(VK_OBJECT_TYPE_BUFFER, chunk.Buffer,
                           "Constants of frame slot " + std::to_string(m_renderer.GetFrameSlot()));
    chunk.Used = size;
    buffer = chunk.Buffer;
    offset = 0;
    mapped = chunk.Memory.Mapped;
    frame.Current = frame.Chunks.size();
    frame.Chunks.push_back(chunk);
    return true;
}

VkDescriptorSet VulkanProgramBinder::AllocateSet(VkDescriptorSetLayout layout)
{
    FrameSlot& frame = Frame();
    VkDevice device = m_renderer.GetDevice().GetDevice();
    for (; frame.CurrentPool <= frame.Pools.size(); ++frame.CurrentPool)
    {
        if (frame.CurrentPool == frame.Pools.size())
        {
            const VkDescriptorPoolSize sizes[] = {{VK_DESCRIPTOR_TYPE_UNIFORM_BUFFER, kSetsPerPool * 4},
                                                  {VK_DESCRIPTOR_TYPE_SAMPLED_IMAGE, kSetsPerPool * 8},
                                                  {VK_DESCRIPTOR_TYPE_SAMPLER, kSetsPerPool * 8},
                                                  {VK_DESCRIPTOR_TYPE_STORAGE_BUFFER, kSetsPerPool * 2},
                                                  {VK_DESCRIPTOR_TYPE_STORAGE_IMAGE, kSetsPerPool}};
            VkDescriptorPoolCreateInfo info = {VK_STRUCTURE_TYPE_DESCRIPTOR_POOL_CREATE_INFO};
            info.maxSets = kSetsPerPool;
            info.poolSizeCount = 5;
            info.pPoolSizes = sizes;
            VkDescriptorPool pool = VK_NULL_HANDLE;
            VkResult result = vkCreateDescriptorPool(device, &info, nullptr, &pool);
            if (result != VK_SUCCESS)
            {
                Log::Format(LOG_WARNING, u"Vulkan: no descriptor pool (%d).\n", int(result));
                return VK_NULL_HANDLE;
            }
            frame.Pools.push_back(pool);
        }
        VkDescriptorSetAllocateInfo info = {VK_STRUCTURE_TYPE_DESCRIPTOR_SET_ALLOCATE_INFO};
        info.descriptorPool = frame.Pools[frame.CurrentPool];
        info.descriptorSetCount = 1;
        info.pSetLayouts = &layout;
        VkDescriptorSet set = VK_NULL_HANDLE;
        VkResult result = vkAllocateDescriptorSets(device, &info, &set);
        if (result == VK_SUCCESS)
            return set;
        if (result != VK_ERROR_OUT_OF_POOL_MEMORY && result != VK_ERROR_FRAGMENTED_POOL)
        {
            Log::Format(LOG_WARNING, u"Vulkan: a descriptor set was refused (%d).\n", int(result));
            return VK_NULL_HANDLE;
        }
    }
    return VK_NULL_HANDLE;
}

VkSampler VulkanProgramBinder::GetSampler(const SamplerState* state)
{
    // Sampler states are unique per content for the life of their factory.
    auto found = m_samplers.find(state);
    if (found != m_samplers.end())
        return found->second;
    const SamplerStateDesc& d = state->GetDesc();
    const uint32 filter = uint32(d.Filter.value);
    const bool anisotropic = d.Filter == GraphicsFilter::Anisotropic;
    VkSamplerCreateInfo info = {VK_STRUCTURE_TYPE_SAMPLER_CREATE_INFO};
    // The filter's bits: mip linear 0x01, magnification 0x04, minification 0x10.
    info.minFilter = anisotropic || (filter & 0x10) ? VK_FILTER_LINEAR : VK_FILTER_NEAREST;
    info.magFilter = anisotropic || (filter & 0x04) ? VK_FILTER_LINEAR : VK_FILTER_NEAREST;
    info.mipmapMode =
        anisotropic || (filter & 0x01) ? VK_SAMPLER_MIPMAP_MODE_LINEAR : VK_SAMPLER_MIPMAP_MODE_NEAREST;
    info.addressModeU = ToVkAddress(d.AddressU);
    info.addressModeV = ToVkAddress(d.AddressV);
    info.addressModeW = ToVkAddress(d.AddressW);
    info.mipLodBias = d.MipLODBias;
    const uint32 maxAnisotropy = m_renderer.GetHWCapability()->MaxAnisotropy;
    info.anisotropyEnable = anisotropic && maxAnisotropy > 1;
    info.maxAnisotropy = float(d.MaxAnisotropy < maxAnisotropy ? d.MaxAnisotropy : maxAnisotropy);
    if (info.maxAnisotropy < 1.0f)
        info.maxAnisotropy = 1.0f;
    info.compareEnable = d.ComparisonFunc != GraphicsComparison::Never;
    info.compareOp = VulkanStates::ToVk(d.ComparisonFunc);
    info.minLod = d.MinLOD;
    info.maxLod = d.MaxLOD < d.MinLOD ? d.MinLOD : d.MaxLOD;
    // Vulkan borders are three fixed colours: the nearest one.
    const Vector4& b = d.BorderColor;
    info.borderColor = b.x + b.y + b.z > 1.5f ? VK_BORDER_COLOR_FLOAT_OPAQUE_WHITE
                       : b.w > 0.5f          ? VK_BORDER_COLOR_FLOAT_OPAQUE_BLACK
                                             : VK_BORDER_COLOR_FLOAT_TRANSPARENT_BLACK;
    VkSampler sampler = VK_NULL_HANDLE;
    VkResult result = vkCreateSampler(m_renderer.GetDevice().GetDevice(), &info, nullptr, &sampler);
    if (result != VK_SUCCESS)
    {
        Log::Format(LOG_WARNING, u"Vulkan: a sampler was refused (%d).\n", int(result));
        return VK_NULL_HANDLE;
    }
    m_renderer.GetDevice().GetDebug().Name(VK_OBJECT_TYPE_SAMPLER, sampler,
                                           "Sampler " + std::to_string(m_samplers.size() + 1));
    m_samplers.emplace(state, sampler);
    return sampler;
}

bool VulkanProgramBinder::CreateDefaultImages(VkCommandBuffer cmd)
{
    VulkanDevice& device = m_renderer.GetDevice();
    const VkImageType types[3] = {VK_IMAGE_TYPE_1D, VK_IMAGE_TYPE_2D, VK_IMAGE_TYPE_3D};
    const char* names[3] = {"Default texture 1D", "Default texture 2D", "Default texture 3D"};
    for (uint32 i = 0; i < 3; ++i)
    {
        DefaultImage& image = m_defaults[i];
        VkImageCreateInfo info = {VK_STRUCTURE_TYPE_IMAGE_CREATE_INFO};
        info.flags = i == 1 ? VK_IMAGE_CREATE_CUBE_COMPATIBLE_BIT : 0;
        info.imageType = types[i];
        info.format = VK_FORMAT_R8G8B8A8_UNORM;
        info.extent = {1, 1, 1};
        info.mipLevels = 1;
        info.arrayLayers = i == 1 ? 6 : 1;
        info.samples = VK_SAMPLE_COUNT_1_BIT;
        info.tiling = VK_IMAGE_TILING_OPTIMAL;
        info.usage = VK_IMAGE_USAGE_SAMPLED_BIT | VK_IMAGE_USAGE_TRANSFER_DST_BIT;
        info.initialLayout = VK_IMAGE_LAYOUT_UNDEFINED;
        VkResult result = vkCreateImage(device.GetDevice(), &info, nullptr, &image.Image);
        VkMemoryRequirements requirements = {};
        if (result == VK_SUCCESS)
        {
            vkGetImageMemoryRequirements(device.GetDevice(), image.Image, &requirements);
            if (!device.GetMemory().Allocate(requirements, VK_MEMORY_PROPERTY_DEVICE_LOCAL_BIT, false, image.Memory) ||
                vkBindImageMemory(device.GetDevice(), image.Image, image.Memory.Memory, image.Memory.Offset) !=
                    VK_SUCCESS)
                result = VK_ERROR_OUT_OF_DEVICE_MEMORY;
        }
        if (result != VK_SUCCESS)
        {
            if (image.Image)
                vkDestroyImage(device.GetDevice(), image.Image, nullptr);
            device.GetMemory().Free(image.Memory);
            image = DefaultImage();
            Log::Format(LOG_WARNING, u"Vulkan: the default textures could not be made (%d).\n", int(result));
            return false;
        }
        device.GetDebug().Name(VK_OBJECT_TYPE_IMAGE, image.Image, std::string(names[i]));
        VkImageMemoryBarrier barrier = {VK_STRUCTURE_TYPE_IMAGE_MEMORY_BARRIER};
        barrier.dstAccessMask = VK_ACCESS_TRANSFER_WRITE_BIT;
        barrier.oldLayout = VK_IMAGE_LAYOUT_UNDEFINED;
        barrier.newLayout = VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL;
        barrier.srcQueueFamilyIndex = barrier.dstQueueFamilyIndex = VK_QUEUE_FAMILY_IGNORED;
        barrier.image = image.Image;
        barrier.subresourceRange = {VK_IMAGE_ASPECT_COLOR_BIT, 0, 1, 0, info.arrayLayers};
        vkCmdPipelineBarrier(cmd, VK_PIPELINE_STAGE_TOP_OF_PIPE_BIT, VK_PIPELINE_STAGE_TRANSFER_BIT, 0, 0, nullptr,
                             0, nullptr, 1, &barrier);
        const VkClearColorValue white = {{1.0f, 1.0f, 1.0f, 1.0f}};
        vkCmdClearColorImage(cmd, image.Image, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL, &white, 1,
                             &barrier.subresourceRange);
        barrier.srcAccessMask = VK_ACCESS_TRANSFER_WRITE_BIT;
        barrier.dstAccessMask = VK_ACCESS_SHADER_READ_BIT;
        barrier.oldLayout = VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL;
        barrier.newLayout = VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL;
        vkCmdPipelineBarrier(cmd, VK_PIPELINE_STAGE_TRANSFER_BIT, VK_PIPELINE_STAGE_ALL_GRAPHICS_BIT, 0, 0, nullptr,
                             0, nullptr, 1, &barrier);
    }
    return true;
}

VkImageView VulkanProgramBinder::GetDefaultView(VkCommandBuffer cmd, VkImageViewType type)
{
    if (unsigned(type) >= 7)
        return VK_NULL_HANDLE;
    if (m_defaultViews[type])
        return m_defaultViews[type];
    if (!m_defaults[0].Image && !CreateDefaultImages(cmd))
        return VK_NULL_HANDLE;
    VkImageViewCreateInfo info = {VK_STRUCTURE_TYPE_IMAGE_VIEW_CREATE_INFO};
    const bool oneD = type == VK_IMAGE_VIEW_TYPE_1D || type == VK_IMAGE_VIEW_TYPE_1D_ARRAY;
    info.image = oneD ? m_defaults[0].Image : type == VK_IMAGE_VIEW_TYPE_3D ? m_defaults[2].Image : m_defaults[1].Image;
    info.viewType = type;
    info.format = VK_FORMAT_R8G8B8A8_UNORM;
    const bool sixLayers = type == VK_IMAGE_VIEW_TYPE_CUBE || type == VK_IMAGE_VIEW_TYPE_CUBE_ARRAY ||
                           type == VK_IMAGE_VIEW_TYPE_2D_ARRAY;
    info.subresourceRange = {VK_IMAGE_ASPECT_COLOR_BIT, 0, 1, 0, sixLayers ? 6u : 1u};
    VkResult result = vkCreateImageView(m_renderer.GetDevice().GetDevice(), &info, nullptr, &m_defaultViews[type]);
    if (result != VK_SUCCESS)
    {
        m_defaultViews[type] = VK_NULL_HANDLE;
        Log::Format(LOG_WARNING, u"Vulkan: no default texture of view type %d (%d).\n", int(type), int(result));
    }
    return m_defaultViews[type];
}

// --- Per-draw binding ---------------------------------------------------------------------------

bool VulkanProgramBinder::PrepareBindings(VkCommandBuffer cmd, BaseProgram& program, VulkanProgramState& state,
                                          VkDescriptorSet& set)
{
    state.m_writes.clear();
    state.m_bufferInfos.clear();
    state.m_imageInfos.clear();
    set = VK_NULL_HANDLE;
    const uint64 begun = m_renderer.GetFrameBegun();
    for (const VulkanProgramState::Binding& b : state.m_bindings)
    {
        VkWriteDescriptorSet write = {VK_STRUCTURE_TYPE_WRITE_DESCRIPTOR_SET};
        write.dstBinding = b.Slot;
        write.descriptorCount = 1;
        write.descriptorType = b.Type;
        switch (b.Type)
        {
        case VK_DESCRIPTOR_TYPE_UNIFORM_BUFFER:
        {
            auto* buffer =
                DynamicCast<VulkanConstantBuffer>(static_cast<Object*>(program.GetConstantBuffer(b.CBufferIndex)));
            GraphicsStream* stream = buffer ? buffer->GetStream().Get() : nullptr;
            GraphicsStream* read = stream ? stream->GetGpuReadStream() : nullptr;
            if (read && !read->GetPointer(0))
                read = stream;
            if (!read || !read->GetLength())
            {
                Log::Format(LOG_WARNING, u"Vulkan: the program's constant buffer [%s] has no Vulkan buffer.\n",
                            b.Resource->GetName().c_str());
                return false;
            }
            VulkanConstantBuffer::RingCopy& copy = buffer->GetRingCopy();
            // A copy made in an earlier frame may be overwritten any time now.
            if (read->IsDirty() || copy.Begun != begun || !copy.Buffer)
            {
                uint8* mapped = nullptr;
                if (!Allocate(read->GetLength(), copy.Buffer, copy.Offset, mapped))
                    return false;
                memcpy(mapped, read->GetPointer(0), read->GetLength());
                m_ringBytes += read->GetLength();
                copy.Begun = begun;
                read->MakeClean();
            }
            state.m_bufferInfos.push_back({copy.Buffer, copy.Offset, read->GetLength()});
            write.pBufferInfo = &state.m_bufferInfos.back();
            break;
        }
        case VK_DESCRIPTOR_TYPE_SAMPLED_IMAGE:
        {
            auto* resource = static_cast<ShaderTexture*>(b.Resource.Get());
            VulkanTexture* texture = AsVulkanTexture(resource->Value.Get());
            VkImageView view = texture && texture->IsCreated() ? texture->GetSampledView() : VK_NULL_HANDLE;
            if (view)
            {
                if (texture->GetLayout() != VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL)
                    m_renderer.Transition(cmd, *texture, VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL);
            }
            else
            {
                if (!state.m_toldDefault)
                    Log::Format(LOG_WARNING, u"Vulkan: the program's texture [%s] is not set; a default texture is "
                                             u"bound.\n",
                                resource->GetName().c_str());
                state.m_toldDefault = true;
                view = GetDefaultView(cmd, b.ViewType);
                if (!view)
                    return false;
            }
            state.m_imageInfos.push_back({VK_NULL_HANDLE, view, VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL});
            write.pImageInfo = &state.m_imageInfos.back();
            break;
        }
        case VK_DESCRIPTOR_TYPE_SAMPLER:
        {
            auto* resource = static_cast<ShaderSampler*>(b.Resource.Get());
            const SamplerState* sampler =
                resource->Value ? resource->Value.Get() : m_renderer.GetDefaultSamplerState().Get();
            VkSampler vk = sampler ? GetSampler(sampler) : VK_NULL_HANDLE;
            if (!vk)
                return false;
            state.m_imageInfos.push_back({vk, VK_NULL_HANDLE, VK_IMAGE_LAYOUT_UNDEFINED});
            write.pImageInfo = &state.m_imageInfos.back();
            break;
        }
        case VK_DESCRIPTOR_TYPE_STORAGE_BUFFER:
        {
            auto* resource = static_cast<ShaderBuffer*>(b.Resource.Get());
            auto* buffer = DynamicCast<VulkanRWBuffer>(static_cast<Object*>(resource->Value.Get()));
            // A dynamic buffer whose stream changed takes it into its next copy.
            if (!buffer || !buffer->GetDeviceMemory().GetBuffer() || !buffer->GetDeviceMemory().Refresh(*buffer))
            {
                if (!state.m_toldBuffer)
                    Log::Format(LOG_WARNING, u"Vulkan: the program's read-write buffer [%s] is not set; its draws "
                                             u"are skipped.\n",
                                resource->GetName().c_str());
                state.m_toldBuffer = true;
                return false;
            }
            VulkanBufferMemory& memory = buffer->GetDeviceMemory();
            state.m_bufferInfos.push_back({memory.GetBuffer(), memory.GetOffset(), memory.GetSize()});
            write.pBufferInfo = &state.m_bufferInfos.back();
            break;
        }
        default:
            if (!state.m_toldBuffer)
                Log::Format(LOG_WARNING, u"Vulkan: the program's read-write image [%s] cannot be bound yet; its "
                                         u"draws are skipped.\n",
                            b.Resource->GetName().c_str());
            state.m_toldBuffer = true;
            return false;
        }
        state.m_writes.push_back(write);
    }
    if (state.m_pushed || state.m_writes.empty())
        return true;
    set = AllocateSet(state.m_setLayout);
    if (!set)
        return false;
    for (VkWriteDescriptorSet& write : state.m_writes)
        write.dstSet = set;
    vkUpdateDescriptorSets(m_renderer.GetDevice().GetDevice(), uint32(state.m_writes.size()), state.m_writes.data(),
                           0, nullptr);
    return true;
}

void VulkanProgramBinder::PushDescriptors(VkCommandBuffer cmd, VulkanProgramState& state)
{
    if (!state.m_writes.empty())
        m_push(cmd, VK_PIPELINE_BIND_POINT_GRAPHICS, state.m_pipelineLayout, 0, uint32(state.m_writes.size()),
               state.m_writes.data());
}

// --- Drawing -------------------------------------------------------------------------------------

namespace {

class ProgramDraw final : public VulkanDrawRecorder
{
public:
    VulkanProgramBinder* binder = nullptr;
    BaseProgram* program = nullptr;
    VulkanProgramState* state = nullptr;
    const DrawBuffersDesc* draw = nullptr;
    VkBuffer vertexBuffers[VertexDecl::kMaxSlots] = {};
    VkDeviceSize vertexOffsets[VertexDecl::kMaxSlots] = {};
    uint32 vertexBufferCount = 0;
    VulkanIndexBuffer* indices = nullptr;
    VkDescriptorSet set = VK_NULL_HANDLE;

    bool Prepare(VkCommandBuffer cmd) override { return binder->PrepareBindings(cmd, *program, *state, set); }
    void Record(VkCommandBuffer cmd, VkPipeline pipeline) override
    {
        vkCmdBindPipeline(cmd, VK_PIPELINE_BIND_POINT_GRAPHICS, pipeline);
        if (state->IsPushed())
            binder->PushDescriptors(cmd, *state);
        else if (set)
            vkCmdBindDescriptorSets(cmd, VK_PIPELINE_BIND_POINT_GRAPHICS, state->GetPipelineLayout(), 0, 1, &set, 0,
                                    nullptr);
        if (vertexBufferCount)
            vkCmdBindVertexBuffers(cmd, 0, vertexBufferCount, vertexBuffers, vertexOffsets);
        const uint32 instances = draw->InstanceCount ? draw->InstanceCount : 1;
        if (indices)
        {
            VulkanBufferMemory& memory = indices->GetDeviceMemory();
            vkCmdBindIndexBuffer(cmd, memory.GetBuffer(), memory.GetOffset(),
                                 indices->GetIndexStream()->GetFormat() == IndexBuffer::Index32 ? VK_INDEX_TYPE_UINT32
                                                                                                : VK_INDEX_TYPE_UINT16);
            vkCmdDrawIndexed(cmd, draw->Count, instances, draw->First, draw->BaseVertex, 0);
        }
        else
            vkCmdDraw(cmd, draw->Count, instances, draw->First, 0);
    }
};

} // namespace

namespace {

// The instance step rate of the buffer in `slot` (at least 1), or 0 when the
// slot feeds vertices.
uint32 InstanceStepRate(const TArray<VertexElement>& elements, uint32 slot)
{
    uint32 rate = 0;
    for (const VertexElement& element : elements)
    {
        if (element.InputSlot != slot)
            continue;
        if (element.InputSlotClass != GraphicsInputClass::PerInstance)
            return 0;
        rate = element.InstanceDataStepRate ? element.InstanceDataStepRate : 1;
    }
    return rate;
}

} // namespace

bool VulkanProgramBinder::Draw(const DrawBuffersDesc& draw)
{
    std::lock_guard<std::recursive_mutex> lock(m_renderer.GetDevice().GetLock());
    BaseProgram* program = m_renderer.GetCurrentBaseProgram();
    auto* state = program ? dynamic_cast<VulkanProgramState*>(program->GetDeviceState()) : nullptr;
    if (!state)
    {
        Log::Print(LOG_WARNING, program ? u"Vulkan: the current program has no Vulkan layout; nothing is drawn.\n"
                                        : u"Vulkan: a program draw without a current program.\n");
        return false;
    }
    VulkanShader* stages[3] = {AsVulkanShader(program->GetShader(ShaderType::Vertex)),
                               AsVulkanShader(program->GetShader(ShaderType::Pixel)),
                               AsVulkanShader(program->GetShader(ShaderType::Geometry))};
    if (!stages[0] || !stages[0]->GetModule() || program->GetShader(ShaderType::Hull) ||
        program->GetShader(ShaderType::Domain))
    {
        Log::Print(LOG_WARNING, u"Vulkan: the current program needs a vertex shader module and no tessellation "
                                u"stages to draw.\n");
        return false;
    }
    ProgramDraw recorder;
    recorder.binder = this;
    recorder.program = program;
    recorder.state = state;
    recorder.draw = &draw;
    if (draw.VertexBufferCount > VertexDecl::kMaxSlots || (draw.VertexBufferCount && !draw.VertexBuffers))
    {
        Log::Format(LOG_WARNING, u"Vulkan: a draw of %u vertex buffers.\n", draw.VertexBufferCount);
        return false;
    }
    uint32 vertexCount = ~0u;
    const TArray<VertexElement>* elements = draw.Layout ? &draw.Layout->GetElements() : nullptr;
    for (uint32 i = 0; i < draw.VertexBufferCount; ++i)
    {
        auto* buffer = DynamicCast<VulkanVertexBuffer>(static_cast<Object*>(draw.VertexBuffers[i]));
        if (!buffer || !buffer->GetDeviceMemory().GetBuffer() || !buffer->GetVertexStream() ||
            !buffer->GetDeviceMemory().Refresh(*buffer))
        {
            Log::Format(LOG_WARNING, u"Vulkan: vertex buffer %u of a draw has no Vulkan buffer.\n", i);
            return false;
        }
        recorder.vertexBuffers[i] = buffer->GetDeviceMemory().GetBuffer();
        recorder.vertexOffsets[i] = buffer->GetDeviceMemory().GetOffset();
        if (!elements)
            elements = &buffer->GetVertexStream()->GetElements();
        const uint32 count = buffer->GetVertexStream()->GetVertexCount();
        // A per-instance stream holds one entry per step of instances, not one
        // per vertex: it bounds the instances, never the vertices.
        const uint32 stepRate = InstanceStepRate(*elements, i);
        if (stepRate)
        {
            if (uint64(count) * stepRate < draw.InstanceCount)
            {
                Log::Format(LOG_WARNING, u"Vulkan: a draw of %u instances reaches past instance buffer %u of %u.\n",
                            draw.InstanceCount, i, count);
                return false;
            }
            continue;
        }
        vertexCount = count < vertexCount ? count : vertexCount;
    }
    recorder.vertexBufferCount = draw.VertexBufferCount;
    if (draw.Indices)
    {
        recorder.indices = DynamicCast<VulkanIndexBuffer>(static_cast<Object*>(draw.Indices));
        if (!recorder.indices || !recorder.indices->GetDeviceMemory().GetBuffer() ||
            !recorder.indices->GetIndexStream() || !recorder.indices->GetDeviceMemory().Refresh(*recorder.indices))
        {
            Log::Print(LOG_WARNING, u"Vulkan: a draw with an index buffer that has no Vulkan buffer.\n");
            return false;
        }
    }
    const uint32 available = recorder.indices ? recorder.indices->GetIndexStream()->GetIndexCount()
                                              : draw.VertexBufferCount ? vertexCount : ~0u;
    if (uint64(draw.First) + draw.Count > available)
    {
        Log::Format(LOG_WARNING, u"Vulkan: a draw of %u %s from %u reaches past a buffer of %u.\n", draw.Count,
                    recorder.indices ? u"indices" : u"vertices", draw.First, available);
        return false;
    }
    Ptr<VertexDecl> layout;
    if (!draw.Layout && draw.VertexBufferCount)
        layout = VertexDeclManager::Ins()->Create(
            static_cast<VulkanVertexBuffer*>(draw.VertexBuffers[0])->GetVertexStream()->GetElements());
    VulkanPipelineKey key;
    key.Vertex = stages[0]->GetModule();
    key.Pixel = stages[1] ? stages[1]->GetModule() : VK_NULL_HANDLE;
    key.Geometry = stages[2] ? stages[2]->GetModule() : VK_NULL_HANDLE;
    for (uint32 i = 0; i < 3; ++i)
        key.Entries[i] = stages[i] ? stages[i]->GetEntryPoint() : nullptr;
    key.PipelineLayout = state->GetPipelineLayout();
    // Without reflected inputs, elements feed locations in their order.
    key.VertexInputs = stages[0]->GetReflection().Inputs.empty() ? nullptr : &stages[0]->GetReflection();
    key.Layout = draw.Layout ? draw.Layout : layout.Get();
    key.Topology = draw.Topology;
    return m_renderer.RecordDraw(key, recorder);
}

// --- The renderer's operations ---------------------------------------------------------------------

bool VulkanRenderer::CreateProgramDevice(BaseProgram* program)
{
    if (!m_programs)
    {
        Log::Print(LOG_WARNING, u"Vulkan: a program's layout needs an open device.\n");
        return false;
    }
    return m_programs->CreateProgram(program);
}

bool VulkanRenderer::DrawWithProgram(const DrawBuffersDesc& draw)
{
    if (!m_programs)
    {
        Log::Print(LOG_WARNING, u"Vulkan: a program draw needs an open device.\n");
        return false;
    }
    return m_programs->Draw(draw);
}

} // namespace KovexEngine
