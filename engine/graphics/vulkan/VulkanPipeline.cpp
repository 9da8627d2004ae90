#include "graphics/vulkan/VulkanPipeline.h"

#include <string.h>

#include "graphics/ShaderReflection.h"
#include "graphics/vulkan/VulkanDebug.h"
#include "kernel/Log.h"

namespace KovexEngine {

namespace {

uint64 Mix(uint64 hash, uint64 value)
{
    // A word at a time: every draw hashes its key, so a byte-wise hash would
    // cost more than the rest of finding the pipeline.
    hash = (hash ^ value) * 0x9E3779B97F4A7C15ull;
    return hash ^ (hash >> 29);
}

constexpr uint32 kUnread = ~0u;

const char* const kSemanticNames[] = {"POSITION", "NORMAL",       "TANGENT", "BINORMAL",
                                      "BLENDWEIGHT", "BLENDINDICES", "COLOR",   "TEXCOORD"};

// The location each element feeds: without a program's inputs, element i
// feeds location i; with them, the input of the element's semantic, and
// elements no input reads are left out. False, with a log line, when an
// input has no element.
bool PlaceVertexInputs(const ShaderReflection* inputs, const TArray<VertexElement>& elements, uint32* locations,
                       uint32 count)
{
    for (uint32 i = 0; i < count; ++i)
        locations[i] = inputs ? kUnread : i;
    if (!inputs)
        return true;
    for (const ShaderReflection::Input& input : inputs->Inputs)
    {
        bool found = false;
        for (uint32 i = 0; i < count && !found; ++i)
        {
            const VertexElement& e = elements[i];
            // A module without semantic names reads its inputs in element order.
            if (input.Semantic.empty())
                found = i == input.Location;
            else
            {
                const unsigned name = unsigned(e.SemanticName.value);
                found = name < 8 && input.Semantic == std::string(kSemanticNames[name]) +
                                                          std::to_string(e.SemanticIndex);
            }
            if (found)
                locations[i] = input.Location;
        }
        if (!found)
        {
            Log::Format(LOG_WARNING, u"Vulkan: the vertex layout has no element for the input [%S] (%S).\n",
                        input.Name.c_str(), input.Semantic.c_str());
            return false;
        }
    }
    return true;
}

} // namespace

uint64 VulkanPipelineKey::Hash() const
{
    uint64 h = 14695981039346656037ull;
    h = Mix(h, uint64(Vertex));
    h = Mix(h, uint64(Pixel));
    h = Mix(h, uint64(Geometry));
    h = Mix(h, uint64(PipelineLayout));
    h = Mix(h, uint64(reinterpret_cast<uintptr_t>(Layout)));
    h = Mix(h, uint64(reinterpret_cast<uintptr_t>(Blend)));
    h = Mix(h, uint64(reinterpret_cast<uintptr_t>(Rasterizer)));
    h = Mix(h, uint64(reinterpret_cast<uintptr_t>(DepthStencil)));
    for (uint32 i = 0; i < ColorCount && i < 8; ++i)
        h = Mix(h, uint64(Colors[i]));
    h = Mix(h, ColorCount);
    h = Mix(h, uint64(Depth));
    h = Mix(h, uint64(Samples));
    return Mix(h, uint64(Topology.value));
}

bool VulkanPipelineKey::operator==(const VulkanPipelineKey& o) const
{
    if (Vertex != o.Vertex || Pixel != o.Pixel || Geometry != o.Geometry || PipelineLayout != o.PipelineLayout ||
        Layout != o.Layout || Blend != o.Blend ||
        Rasterizer != o.Rasterizer || DepthStencil != o.DepthStencil || ColorCount != o.ColorCount ||
        Depth != o.Depth || Samples != o.Samples || Topology.value != o.Topology.value)
        return false;
    for (uint32 i = 0; i < ColorCount && i < 8; ++i)
        if (Colors[i] != o.Colors[i])
            return false;
    return true;
}

// --- State mapping: the engine's enums carry D3D11's numbers ------------------------------

namespace VulkanStates {

VkBlendFactor ToVk(GraphicsBlend blend)
{
    switch (blend)
    {
    case GraphicsBlend::Zero: return VK_BLEND_FACTOR_ZERO;
    case GraphicsBlend::One: return VK_BLEND_FACTOR_ONE;
    case GraphicsBlend::SrcColor: return VK_BLEND_FACTOR_SRC_COLOR;
    case GraphicsBlend::InvSrcColor: return VK_BLEND_FACTOR_ONE_MINUS_SRC_COLOR;
    case GraphicsBlend::SrcAlpha: return VK_BLEND_FACTOR_SRC_ALPHA;
    case GraphicsBlend::InvSrcAlpha: return VK_BLEND_FACTOR_ONE_MINUS_SRC_ALPHA;
    case GraphicsBlend::DestAlpha: return VK_BLEND_FACTOR_DST_ALPHA;
    case GraphicsBlend::InvDestAlpha: return VK_BLEND_FACTOR_ONE_MINUS_DST_ALPHA;
    case GraphicsBlend::DestColor: return VK_BLEND_FACTOR_DST_COLOR;
    case GraphicsBlend::InvDestColor: return VK_BLEND_FACTOR_ONE_MINUS_DST_COLOR;
    case GraphicsBlend::SrcAlphaSat: return VK_BLEND_FACTOR_SRC_ALPHA_SATURATE;
    case GraphicsBlend::BlendFactor: return VK_BLEND_FACTOR_CONSTANT_COLOR;
    case GraphicsBlend::InvBlendFactor: return VK_BLEND_FACTOR_ONE_MINUS_CONSTANT_COLOR;
    default: return VK_BLEND_FACTOR_ONE;
    }
}

VkBlendOp ToVk(GraphicsBlendOp op)
{
    switch (op)
    {
    case GraphicsBlendOp::Subtract: return VK_BLEND_OP_SUBTRACT;
    case GraphicsBlendOp::RevSubtract: return VK_BLEND_OP_REVERSE_SUBTRACT;
    case GraphicsBlendOp::Min: return VK_BLEND_OP_MIN;
    case GraphicsBlendOp::Max: return VK_BLEND_OP_MAX;
    default: return VK_BLEND_OP_ADD;
    }
}

VkCompareOp ToVk(GraphicsComparison comparison)
{
    // D3D11 counts from Never = 1; Vulkan from NEVER = 0, in the same order.
    int value = comparison.value - 1;
    return value >= 0 && value <= 7 ? VkCompareOp(value) : VK_COMPARE_OP_ALWAYS;
}

VkStencilOp ToVk(GraphicsStencilOp op)
{
    switch (op)
    {
    case GraphicsStencilOp::Zero: return VK_STENCIL_OP_ZERO;
    case GraphicsStencilOp::Replace: return VK_STENCIL_OP_REPLACE;
    case GraphicsStencilOp::IncrSat: return VK_STENCIL_OP_INCREMENT_AND_CLAMP;
    case GraphicsStencilOp::DecrSat: return VK_STENCIL_OP_DECREMENT_AND_CLAMP;
    case GraphicsStencilOp::Invert: return VK_STENCIL_OP_INVERT;
    case GraphicsStencilOp::Incr: return VK_STENCIL_OP_INCREMENT_AND_WRAP;
    case GraphicsStencilOp::Decr: return VK_STENCIL_OP_DECREMENT_AND_WRAP;
    default: return VK_STENCIL_OP_KEEP;
    }
}

VkCullModeFlags ToVk(GraphicsCullMode cull)
{
    switch (cull)
    {
    case GraphicsCullMode::Front: return VK_CULL_MODE_FRONT_BIT;
    case GraphicsCullMode::Back: return VK_CULL_MODE_BACK_BIT;
    default: return VK_CULL_MODE_NONE;
    }
}

VkPrimitiveTopology ToVk(GraphicsTopology topology)
{
    switch (topology)
    {
    case GraphicsTopology::PointList: return VK_PRIMITIVE_TOPOLOGY_POINT_LIST;
    case GraphicsTopology::LineList: return VK_PRIMITIVE_TOPOLOGY_LINE_LIST;
    case GraphicsTopology::LineStrip: return VK_PRIMITIVE_TOPOLOGY_LINE_STRIP;
    case GraphicsTopology::TriangleStrip: return VK_PRIMITIVE_TOPOLOGY_TRIANGLE_STRIP;
    default: return VK_PRIMITIVE_TOPOLOGY_TRIANGLE_LIST;
    }
}

VkFormat ToVk(GraphicsLayoutFormat format)
{
    switch (format)
    {
    case GraphicsLayoutFormat::Float1: return VK_FORMAT_R32_SFLOAT;
    case GraphicsLayoutFormat::Float2: return VK_FORMAT_R32G32_SFLOAT;
    case GraphicsLayoutFormat::Float3: return VK_FORMAT_R32G32B32_SFLOAT;
    case GraphicsLayoutFormat::Float4: return VK_FORMAT_R32G32B32A32_SFLOAT;
    case GraphicsLayoutFormat::Half2: return VK_FORMAT_R16G16_SFLOAT;
    case GraphicsLayoutFormat::Half4: return VK_FORMAT_R16G16B16A16_SFLOAT;
    case GraphicsLayoutFormat::UByte4: return VK_FORMAT_R8G8B8A8_UINT;
    case GraphicsLayoutFormat::Short2: return VK_FORMAT_R16G16_SINT;
    case GraphicsLayoutFormat::Short4: return VK_FORMAT_R16G16B16A16_SINT;
    case GraphicsLayoutFormat::UByte4N: return VK_FORMAT_R8G8B8A8_UNORM;
    case GraphicsLayoutFormat::Short2N: return VK_FORMAT_R16G16_SNORM;
    case GraphicsLayoutFormat::Short4N: return VK_FORMAT_R16G16B16A16_SNORM;
    default: return VK_FORMAT_UNDEFINED;
    }
}

} // namespace VulkanStates

// --- Cache --------------------------------------------------------------------------------

bool VulkanPipelineCache::Init(VkDevice device, bool depthClamp)
{
    std::lock_guard<std::mutex> lock(m_lock);
    m_device = device;
    m_depthClamp = depthClamp;
    // No resources yet: programs bring their descriptor sets with them.
    VkPipelineLayoutCreateInfo info = {VK_STRUCTURE_TYPE_PIPELINE_LAYOUT_CREATE_INFO};
    VkResult result = vkCreatePipelineLayout(device, &info, nullptr, &m_layout);
    if (result != VK_SUCCESS)
    {
        m_layout = VK_NULL_HANDLE;
        Log::Format(LOG_WARNING, u"Vulkan: no pipeline layout (%d).\n", int(result));
        return false;
    }
    return true;
}

void VulkanPipelineCache::Destroy()
{
    if (m_vkCache)
        SaveDisk();
    std::lock_guard<std::mutex> lock(m_lock);
    if (m_vkCache)
        vkDestroyPipelineCache(m_device, m_vkCache, nullptr);
    m_vkCache = VK_NULL_HANDLE;
    m_loadedBytes = 0;
    for (auto& [hash, list] : m_pipelines)
        for (auto& [key, pipeline] : list)
            vkDestroyPipeline(m_device, pipeline, nullptr);
    m_pipelines.clear();
    if (m_layout)
        vkDestroyPipelineLayout(m_device, m_layout, nullptr);
    m_layout = VK_NULL_HANDLE;
    m_device = VK_NULL_HANDLE;
}

size_t VulkanPipelineCache::GetCount()
{
    std::lock_guard<std::mutex> lock(m_lock);
    size_t n = 0;
    for (const auto& entry : m_pipelines)
        n += entry.second.size();
    return n;
}

std::vector<VkPipeline> VulkanPipelineCache::Forget(VkPipelineLayout layout)
{
    std::vector<VkPipeline> forgotten;
    std::lock_guard<std::mutex> lock(m_lock);
    for (auto& [hash, list] : m_pipelines)
    {
        size_t kept = 0;
        for (size_t i = 0; i < list.size(); ++i)
        {
            if (list[i].first.PipelineLayout == layout)
                forgotten.push_back(list[i].second);
            else
                list[kept++] = list[i];
        }
        list.resize(kept);
    }
    return forgotten;
}

VkPipeline VulkanPipelineCache::Get(const VulkanPipelineKey& key)
{
    std::lock_guard<std::mutex> lock(m_lock);
    std::vector<std::pair<VulkanPipelineKey, VkPipeline>>& list = m_pipelines[key.Hash()];
    for (const auto& [stored, pipeline] : list)
        if (stored == key)
            return pipeline;
    VkPipeline pipeline = Create(key);
    if (pipeline)
        list.emplace_back(key, pipeline);
    return pipeline;
}

VkPipeline VulkanPipelineCache::Create(const VulkanPipelineKey& key)
{
    // Raw modules come in pairs; a program may leave the pixel stage out.
    if (!m_device || !key.Vertex || (!key.Pixel && !key.PipelineLayout) || !key.Blend || !key.Rasterizer ||
        !key.DepthStencil || key.ColorCount > 8)
    {
        Log::Print(LOG_WARNING, u"Vulkan: a pipeline needs both stages and the three states.\n");
        return VK_NULL_HANDLE;
    }
    VkPipelineShaderStageCreateInfo stages[3] = {};
    uint32 stageCount = 0;
    const VkShaderModule modules[3] = {key.Vertex, key.Pixel, key.Geometry};
    const VkShaderStageFlagBits stageBits[3] = {VK_SHADER_STAGE_VERTEX_BIT, VK_SHADER_STAGE_FRAGMENT_BIT,
                                                VK_SHADER_STAGE_GEOMETRY_BIT};
    for (uint32 i = 0; i < 3; ++i)
    {
        if (!modules[i])
            continue;
        VkPipelineShaderStageCreateInfo& stage = stages[stageCount++];
        stage.sType = VK_STRUCTURE_TYPE_PIPELINE_SHADER_STAGE_CREATE_INFO;
        stage.stage = stageBits[i];
        stage.module = modules[i];
        stage.pName = key.Entries[i] ? key.Entries[i] : "main";
    }

    // Attributes take locations in element order; each input slot is one
    // binding with the slot's stride.
    std::vector<VkVertexInputAttributeDescription> attributes;
    std::vector<VkVertexInputBindingDescription> bindings;
    if (!key.Layout && key.VertexInputs && !key.VertexInputs->Inputs.empty())
    {
        const ShaderReflection::Input& input = key.VertexInputs->Inputs[0];
        Log::Format(LOG_WARNING, u"Vulkan: the vertex layout has no element for the input [%S] (%S).\n",
                    input.Name.c_str(), input.Semantic.c_str());
        return VK_NULL_HANDLE;
    }
    if (key.Layout)
    {
        const TArray<VertexElement>& elements = key.Layout->GetElements();
        uint32 locations[64];
        const uint32 count = elements.Count() < 64 ? elements.Count() : 64;
        if (!PlaceVertexInputs(key.VertexInputs, elements, locations, count))
            return VK_NULL_HANDLE;
        for (uint32 i = 0; i < count; ++i)
        {
            if (locations[i] == kUnread)
                continue;
            const VertexElement& e = elements[i];
            VkFormat format = VulkanStates::ToVk(e.Format);
            if (format == VK_FORMAT_UNDEFINED || e.InputSlot >= VertexDecl::kMaxSlots)
            {
                Log::Format(LOG_WARNING, u"Vulkan: vertex element %u has a format Vulkan cannot read.\n", i);
                return VK_NULL_HANDLE;
            }
            attributes.push_back({locations[i], e.InputSlot, format, e.AlignedByteOffset});
            bool known = false;
            for (const VkVertexInputBindingDescription& b : bindings)
                known |= b.binding == e.InputSlot;
            if (!known)
                bindings.push_back({e.InputSlot, key.Layout->GetFirstStride()[e.InputSlot],
                                    e.InputSlotClass == GraphicsInputClass::PerInstance
                                        ? VK_VERTEX_INPUT_RATE_INSTANCE
                                        : VK_VERTEX_INPUT_RATE_VERTEX});
        }
    }
    VkPipelineVertexInputStateCreateInfo vertexInput = {VK_STRUCTURE_TYPE_PIPELINE_VERTEX_INPUT_STATE_CREATE_INFO};
    vertexInput.vertexBindingDescriptionCount = uint32(bindings.size());
    vertexInput.pVertexBindingDescriptions = bindings.data();
    vertexInput.vertexAttributeDescriptionCount = uint32(attributes.size());
    vertexInput.pVertexAttributeDescriptions = attributes.data();

    VkPipelineInputAssemblyStateCreateInfo assembly = {VK_STRUCTURE_TYPE_PIPELINE_INPUT_ASSEMBLY_STATE_CREATE_INFO};
    assembly.topology = VulkanStates::ToVk(key.Topology);

    VkPipelineViewportStateCreateInfo viewport = {VK_STRUCTURE_TYPE_PIPELINE_VIEWPORT_STATE_CREATE_INFO};
    viewport.viewportCount = 1;
    viewport.scissorCount = 1;

    const RasterizerStateDesc& r = key.Rasterizer->GetDesc();
    VkPipelineRasterizationStateCreateInfo raster = {VK_STRUCTURE_TYPE_PIPELINE_RASTERIZATION_STATE_CREATE_INFO};
    raster.depthClampEnable = m_depthClamp && !r.DepthClipEnable;
    raster.polygonMode = r.FillMode == GraphicsFillMode::Wireframe ? VK_POLYGON_MODE_LINE : VK_POLYGON_MODE_FILL;
    raster.cullMode = VulkanStates::ToVk(r.CullMode);
    // The viewport's height is negative (y up, as the engine's content has
    // it), which keeps the on-screen winding that decides the front face.
    raster.frontFace = r.FrontCounterClockwise ? VK_FRONT_FACE_COUNTER_CLOCKWISE : VK_FRONT_FACE_CLOCKWISE;
    raster.depthBiasEnable = r.DepthBias != 0 || r.SlopeScaledDepthBias != 0.0f;
    raster.depthBiasConstantFactor = float(r.DepthBias);
    raster.depthBiasClamp = r.DepthBiasClamp;
    raster.depthBiasSlopeFactor = r.SlopeScaledDepthBias;
    raster.lineWidth = 1.0f;

    VkPipelineMultisampleStateCreateInfo multisample = {VK_STRUCTURE_TYPE_PIPELINE_MULTISAMPLE_STATE_CREATE_INFO};
    multisample.rasterizationSamples = VkSampleCountFlagBits(key.Samples ? key.Samples : 1);
    multisample.alphaToCoverageEnable = key.Blend->GetDesc().AlphaToCoverageEnable;

    const DepthStencilStateDesc& d = key.DepthStencil->GetDesc();
    auto face = [](const StencilOpDesc& s, uint32 readMask, uint32 writeMask) {
        VkStencilOpState op = {};
        op.failOp = VulkanStates::ToVk(s.StencilFailOp);
        op.passOp = VulkanStates::ToVk(s.StencilPassOp);
        op.depthFailOp = VulkanStates::ToVk(s.StencilDepthFailOp);
        op.compareOp = VulkanStates::ToVk(s.StencilFunc);
        op.compareMask = readMask & 0xFF;
        op.writeMask = writeMask & 0xFF;
        return op;
    };
    VkPipelineDepthStencilStateCreateInfo depth = {VK_STRUCTURE_TYPE_PIPELINE_DEPTH_STENCIL_STATE_CREATE_INFO};
    const bool hasDepth = key.Depth != VK_FORMAT_UNDEFINED;
    depth.depthTestEnable = hasDepth && d.DepthEnable;
    depth.depthWriteEnable = hasDepth && d.DepthWriteEnable;
    depth.depthCompareOp = VulkanStates::ToVk(d.DepthFunc);
    depth.stencilTestEnable = hasDepth && d.StencilEnable;
    depth.front = face(d.FrontFace, d.StencilReadMask, d.StencilWriteMask);
    depth.back = face(d.BackFace, d.StencilReadMask, d.StencilWriteMask);
    depth.maxDepthBounds = 1.0f;

    const BlendStateDesc& b = key.Blend->GetDesc();
    VkPipelineColorBlendAttachmentState targets[8] = {};
    for (uint32 i = 0; i < key.ColorCount; ++i)
    {
        const RenderTargetBlendDesc& t = b.Target(b.IndependentBlendEnable ? i : 0);
        targets[i].blendEnable = t.BlendEnable;
        targets[i].srcColorBlendFactor = VulkanStates::ToVk(t.SrcBlend);
        targets[i].dstColorBlendFactor = VulkanStates::ToVk(t.DestBlend);
        targets[i].colorBlendOp = VulkanStates::ToVk(t.BlendOp);
        targets[i].srcAlphaBlendFactor = VulkanStates::ToVk(t.SrcBlendAlpha);
        targets[i].dstAlphaBlendFactor = VulkanStates::ToVk(t.DestBlendAlpha);
        targets[i].alphaBlendOp = VulkanStates::ToVk(t.BlendOpAlpha);
        // Both name red, green, blue, alpha from bit 0.
        targets[i].colorWriteMask = VkColorComponentFlags(t.RenderTargetWriteMask.value & 0xF);
    }
    VkPipelineColorBlendStateCreateInfo blend = {VK_STRUCTURE_TYPE_PIPELINE_COLOR_BLEND_STATE_CREATE_INFO};
    blend.attachmentCount = key.ColorCount;
    blend.pAttachments = targets;

    VkDynamicState dynamics[] = {VK_DYNAMIC_STATE_VIEWPORT, VK_DYNAMIC_STATE_SCISSOR,
                                 VK_DYNAMIC_STATE_STENCIL_REFERENCE, VK_DYNAMIC_STATE_BLEND_CONSTANTS};
    VkPipelineDynamicStateCreateInfo dynamic = {VK_STRUCTURE_TYPE_PIPELINE_DYNAMIC_STATE_CREATE_INFO};
    dynamic.dynamicStateCount = 4;
    dynamic.pDynamicStates = dynamics;

    VkPipelineRenderingCreateInfoKHR rendering = {VK_STRUCTURE_TYPE_PIPELINE_RENDERING_CREATE_INFO_KHR};
    rendering.colorAttachmentCount = key.ColorCount;
    rendering.pColorAttachmentFormats = key.Colors;
    rendering.depthAttachmentFormat = key.Depth;
    rendering.stencilAttachmentFormat =
        key.Depth == VK_FORMAT_D24_UNORM_S8_UINT || key.Depth == VK_FORMAT_D32_SFLOAT_S8_UINT ? key.Depth
                                                                                              : VK_FORMAT_UNDEFINED;

    VkGraphicsPipelineCreateInfo info = {VK_STRUCTURE_TYPE_GRAPHICS_PIPELINE_CREATE_INFO};
    info.pNext = &rendering;
    info.stageCount = stageCount;
    info.pStages = stages;
    info.pVertexInputState = &vertexInput;
    info.pInputAssemblyState = &assembly;
    info.pViewportState = &viewport;
    info.pRasterizationState = &raster;
    info.pMultisampleState = &multisample;
    info.pDepthStencilState = &depth;
    info.pColorBlendState = &blend;
    info.pDynamicState = &dynamic;
    info.layout = key.PipelineLayout ? key.PipelineLayout : m_layout;
    VkPipeline pipeline = VK_NULL_HANDLE;
    VkResult result = vkCreateGraphicsPipelines(m_device, m_vkCache, 1, &info, nullptr, &pipeline);
    if (result != VK_SUCCESS)
    {
        Log::Format(LOG_WARNING, u"Vulkan: a graphics pipeline could not be made (%d).\n", int(result));
        return VK_NULL_HANDLE;
    }
    if (m_debug)
        m_debug->Name(VK_OBJECT_TYPE_PIPELINE, pipeline,
                      "Pipeline " + std::to_string(++m_made) + ", " + std::to_string(key.ColorCount) + " targets");
    return pipeline;
}

} // namespace KovexEngine
