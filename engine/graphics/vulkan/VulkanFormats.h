#pragma once

// The format table in Vulkan's terms. Formats map by their bits in memory,
// not by their names: the engine's packed formats name components from the
// lowest bit, Vulkan's from the highest, so B5G6R5 is R5G6B5_UNORM_PACK16.
// A typeless format is stored as a concrete format of its class (the view
// formats decide, with VK_IMAGE_CREATE_MUTABLE_FORMAT_BIT); what Vulkan has
// no format for maps to VK_FORMAT_UNDEFINED, and CheckTextureFormat answers
// false for it.
//
// Pure table look-ups, safe from any thread.

#include <vulkan/vulkan.h>

#include "kernel/Types.h"

namespace KovexEngine {

namespace VulkanFormats {

// VK_FORMAT_UNDEFINED for a format Vulkan cannot hold.
VkFormat ToVkFormat(uint32 graphicsFormat);
// How a sampled view reads it: alpha one where the format has an X
// channel, A8 stored as R8 read into alpha; identity otherwise.
VkComponentMapping SampledSwizzle(uint32 graphicsFormat);
// A format that a colour target may hold: not A8 (stored as R8, a shader
// writing alpha would write nothing) and not compressed.
bool CanBeColorTarget(uint32 graphicsFormat);
bool IsDepthFormat(VkFormat format);
bool HasStencil(VkFormat format);
VkImageAspectFlags AspectOf(VkFormat format);

// How a clear colour reaches an attachment of this format.
enum class ClearKind
{
    Float,
    Uint,
    Sint,
};
ClearKind GetClearKind(uint32 graphicsFormat);
VkClearColorValue MakeClearColor(uint32 graphicsFormat, float r, float g, float b, float a);

} // namespace VulkanFormats

} // namespace KovexEngine
