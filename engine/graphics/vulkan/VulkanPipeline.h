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
#include <string>
#include <unordered_map>
#include <vector>

#include <vulkan/vulkan.h>

#include "graphics/RenderStates.h"
#include "graphics/VertexDecl.h"

namespace KovexEngine {

struct ShaderReflection;

struct KOVEX_API VulkanPipelineKey
{
    VkShaderModule Vertex = VK_NULL_HANDLE;
    VkShaderModule Pixel = VK_NULL_HANDLE; // may be null with a program
    VkShaderModule Geometry = VK_NULL_HANDLE;
    // A program's layout; null for the cache's empty one (raw modules).
    VkPipelineLayout PipelineLayout = VK_NULL_HANDLE;
    // Entry points by stage (vertex, pixel, geometry), "main" where null,
    // and the vertex stage's inputs, which place each vertex element at the
    // location of the input of its semantic (null: element i at location i).
    // All follow from the modules, so they are not part of the key's content.
    const char* Entries[3] = {};
    const ShaderReflection* VertexInputs = nullptr;
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
    // Takes the pipelines made with `layout` out of the cache (the layout is
    // going away); the caller destroys them once no frame uses them.
    std::vector<VkPipeline> Forget(VkPipelineLayout layout);

    // --- The driver's own cache, kept on disk --------------------------------------
    // Every pipeline is made through one VkPipelineCache. LoadDisk seeds it
    // from "vulkan-pipelines.cache" in the engine's cache directory when the
    // file's header names this device (vendor, device id, cache UUID); a
    // foreign, damaged or absurdly large file is ignored with one log line.
    // SaveDisk writes it back to the same file (through a temporary file and
    // a rename, so a reader never sees half a file); Destroy calls it.
    static constexpr const char16_t* kDiskFileName = u"vulkan-pipelines.cache";
    void LoadDisk(const VkPhysicalDeviceProperties& device);
    bool SaveDisk();
    // Bytes the cache was seeded with; 0 when it started empty.
    size_t GetLoadedBytes() const { return m_loadedBytes; }
    // Whether `data` starts with a pipeline-cache header of `device`.
    static bool HeaderMatches(const uint8* data, size_t size, const VkPhysicalDeviceProperties& device);

private:
    VkPipeline Create(const VulkanPipelineKey& key);
    void CreateVkCache(const void* data, size_t size);

    std::mutex m_lock;
    const VulkanDebug* m_debug = nullptr;
    uint32 m_made = 0;
    VkDevice m_device = VK_NULL_HANDLE;
    bool m_depthClamp = false;
    VkPipelineLayout m_layout = VK_NULL_HANDLE;
    VkPipelineCache m_vkCache = VK_NULL_HANDLE;
    size_t m_loadedBytes = 0;
    std::string m_diskPath;
    std::unordered_map<uint64, std::vector<std::pair<VulkanPipelineKey, VkPipeline>>> m_pipelines;
};

} // namespace KovexEngine
