#pragma once

// Graphics pipelines of the Vulkan backend, made from the engine's state
// objects and looked up by one key: the shader stages, the vertex layout,
// the three state objects, the target formats and the topology. State
// objects and vertex layouts are unique per content for the life of their
// factory, so their addresses stand for their content; the key hashes to one
// 64-bit word and compares in full on a hit.
//
// Pipelines draw with dynamic rendering (VK_KHR_dynamic_rendering); viewport,
// scissor, stencil reference and blend factor are dynamic state.
//
// Threads: Get, GetCount and the mapping functions are safe from any thread
// (one lock); Init and Destroy belong to the thread that opens and closes
// the device.

#include <mutex>
#include <unordered_map>
#include <vector>

#include <vulkan/vulkan.h>

#include "graphics/RenderStates.h"
#include "graphics/VertexDecl.h"

namespace KovexEngine {

struct KOVEX_API VulkanPipelineKey
{
    VkShaderModule Vertex = VK_NULL_HANDLE;
    VkShaderModule Pixel = VK_NULL_HANDLE;
    const VertexDecl* Layout = nullptr;
    const BlendState* Blend = nullptr;
    const RasterizerState* Rasterizer = nullptr;
    const DepthStencilState* DepthStencil = nullptr;
    VkFormat Colors[8] = {};
    uint32 ColorCount = 0;
    VkFormat Depth = VK_FORMAT_UNDEFINED;
    GraphicsTopology Topology = GraphicsTopology::TriangleList;
    uint32 Samples = 1;

    uint64 Hash() const;
    bool operator==(const VulkanPipelineKey& other) const;
};

namespace VulkanStates {
KOVEX_API VkBlendFactor ToVk(GraphicsBlend blend);
KOVEX_API VkBlendOp ToVk(GraphicsBlendOp op);
KOVEX_API VkCompareOp ToVk(GraphicsComparison comparison);
KOVEX_API VkStencilOp ToVk(GraphicsStencilOp op);
KOVEX_API VkCullModeFlags ToVk(GraphicsCullMode cull);
KOVEX_API VkPrimitiveTopology ToVk(GraphicsTopology topology);
// VK_FORMAT_UNDEFINED for a layout format Vulkan cannot read (the two
// whose element size the table gives as 0).
KOVEX_API VkFormat ToVk(GraphicsLayoutFormat format);
} // namespace VulkanStates

class VulkanDebug;

class KOVEX_API VulkanPipelineCache
{
public:
    // `depthClamp`: the device's feature, enabled; without it a rasterizer
    // state that turns depth clipping off still clips.
    bool Init(VkDevice device, bool depthClamp);
    // Names the pipelines made from now on; null names nothing.
    void SetDebug(const VulkanDebug* debug) { m_debug = debug; }
    void Destroy();
    // The pipeline of the key, made on the first request; null, with a log
    // line, when the device refuses it or the key is incomplete.
    VkPipeline Get(const VulkanPipelineKey& key);
    VkPipelineLayout GetLayout() const { return m_layout; }
    size_t GetCount();

private:
    VkPipeline Create(const VulkanPipelineKey& key);

    std::mutex m_lock;
    const VulkanDebug* m_debug = nullptr;
    uint32 m_made = 0;
    VkDevice m_device = VK_NULL_HANDLE;
    bool m_depthClamp = false;
    VkPipelineLayout m_layout = VK_NULL_HANDLE;
    std::unordered_map<uint64, std::vector<std::pair<VulkanPipelineKey, VkPipeline>>> m_pipelines;
};

} // namespace KovexEngine
