#include "graphics/vulkan/VulkanFormats.h"

#include "graphics/GraphicsFormat.h"

namespace KovexEngine {

namespace VulkanFormats {

namespace {

// X(engine format, Vulkan format); rows absent here have no Vulkan format.
#define KOVEX_VULKAN_FORMATS(X)                                      \
    X(A8_UNORM, VK_FORMAT_R8_UNORM)                                  \
    X(R8_UNORM, VK_FORMAT_R8_UNORM)                                  \
    X(R10G10B10A2_UNORM, VK_FORMAT_A2B10G10R10_UNORM_PACK32)         \
    X(R8G8_SNORM, VK_FORMAT_R8G8_SNORM)                              \
    X(R8G8B8A8_UNORM, VK_FORMAT_R8G8B8A8_UNORM)                      \
    X(R8G8B8A8_SNORM, VK_FORMAT_R8G8B8A8_SNORM)                      \
    X(B8G8R8A8_UNORM, VK_FORMAT_B8G8R8A8_UNORM)                      \
    X(B8G8R8X8_UNORM, VK_FORMAT_B8G8R8A8_UNORM)                      \
    X(R8G8B8X8_UNORM, VK_FORMAT_R8G8B8A8_UNORM)                      \
    X(B8G8R8_UNORM, VK_FORMAT_B8G8R8_UNORM)                          \
    X(R8G8B8_UNORM, VK_FORMAT_R8G8B8_UNORM)                          \
    X(R16G16_UNORM, VK_FORMAT_R16G16_UNORM)                          \
    X(R16G16_SNORM, VK_FORMAT_R16G16_SNORM)                          \
    X(R16G16B16A16_UNORM, VK_FORMAT_R16G16B16A16_UNORM)              \
    X(R16G16B16A16_SNORM, VK_FORMAT_R16G16B16A16_SNORM)              \
    X(R16_FLOAT, VK_FORMAT_R16_SFLOAT)                               \
    X(R16G16_FLOAT, VK_FORMAT_R16G16_SFLOAT)                         \
    X(R16G16B16A16_FLOAT, VK_FORMAT_R16G16B16A16_SFLOAT)             \
    X(R32_FLOAT, VK_FORMAT_R32_SFLOAT)                               \
    X(R32G32_FLOAT, VK_FORMAT_R32G32_SFLOAT)                         \
    X(R32G32B32A32_FLOAT, VK_FORMAT_R32G32B32A32_SFLOAT)             \
    X(BC1_UNORM, VK_FORMAT_BC1_RGBA_UNORM_BLOCK)                     \
    X(BC2_UNORM, VK_FORMAT_BC2_UNORM_BLOCK)                          \
    X(BC3_UNORM, VK_FORMAT_BC3_UNORM_BLOCK)                          \
    X(BC4_UNORM, VK_FORMAT_BC4_UNORM_BLOCK)                          \
    X(BC5_UNORM, VK_FORMAT_BC5_UNORM_BLOCK)                          \
    X(D16_UNORM, VK_FORMAT_D16_UNORM)                                \
    X(D32_FLOAT, VK_FORMAT_D32_SFLOAT)                               \
    X(D24_UNORM_S8_UINT, VK_FORMAT_D24_UNORM_S8_UINT)                \
    X(B5G6R5_UNORM, VK_FORMAT_R5G6B5_UNORM_PACK16)                   \
    X(B5G5R5A1_UNORM, VK_FORMAT_A1R5G5B5_UNORM_PACK16)               \
    X(B5G5R5X1_UNORM, VK_FORMAT_A1R5G5B5_UNORM_PACK16)               \
    X(R32G32B32A32_UINT, VK_FORMAT_R32G32B32A32_UINT)                \
    X(R16G16B16A16_UINT, VK_FORMAT_R16G16B16A16_UINT)                \
    X(R32G32_UINT, VK_FORMAT_R32G32_UINT)                            \
    X(R10G10B10A2_UINT, VK_FORMAT_A2B10G10R10_UINT_PACK32)           \
    X(R8G8B8A8_UINT, VK_FORMAT_R8G8B8A8_UINT)                        \
    X(R16G16_UINT, VK_FORMAT_R16G16_UINT)                            \
    X(R32_UINT, VK_FORMAT_R32_UINT)                                  \
    X(R8G8_UINT, VK_FORMAT_R8G8_UINT)                                \
    X(R16_UINT, VK_FORMAT_R16_UINT)                                  \
    X(R32G32B32A32_SINT, VK_FORMAT_R32G32B32A32_SINT)                \
    X(R16G16B16A16_SINT, VK_FORMAT_R16G16B16A16_SINT)                \
    X(R32G32_SINT, VK_FORMAT_R32G32_SINT)                            \
    X(R8G8B8A8_SINT, VK_FORMAT_R8G8B8A8_SINT)                        \
    X(R16G16_SINT, VK_FORMAT_R16G16_SINT)                            \
    X(R32_SINT, VK_FORMAT_R32_SINT)                                  \
    X(R8G8_SINT, VK_FORMAT_R8G8_SINT)                                \
    X(R16_SINT, VK_FORMAT_R16_SINT)                                  \
    X(R11G11B10_FLOAT, VK_FORMAT_B10G11R11_UFLOAT_PACK32)            \
    X(R8G8_UNORM, VK_FORMAT_R8G8_UNORM)                              \
    X(R16_UNORM, VK_FORMAT_R16_UNORM)                                \
    X(R16_SNORM, VK_FORMAT_R16_SNORM)                                \
    X(R32G32B32A32_TYPELESS, VK_FORMAT_R32G32B32A32_UINT)            \
    X(R16G16B16A16_TYPELESS, VK_FORMAT_R16G16B16A16_UINT)            \
    X(R32G32_TYPELESS, VK_FORMAT_R32G32_UINT)                        \
    X(R10G10B10A2_TYPELESS, VK_FORMAT_A2B10G10R10_UINT_PACK32)       \
    X(R8G8B8A8_TYPELESS, VK_FORMAT_R8G8B8A8_UINT)                    \
    X(R16G16_TYPELESS, VK_FORMAT_R16G16_UINT)                        \
    X(R32_TYPELESS, VK_FORMAT_R32_UINT)                              \
    X(R8G8_TYPELESS, VK_FORMAT_R8G8_UINT)                            \
    X(R16_TYPELESS, VK_FORMAT_R16_UINT)                              \
    X(R24G8_TYPELESS, VK_FORMAT_D24_UNORM_S8_UINT)                   \
    X(R24_UNORM_X8_TYPELESS, VK_FORMAT_D24_UNORM_S8_UINT)

struct Table
{
    VkFormat formats[GraphicsFormat::COUNT] = {};
    Table()
    {
#define KOVEX_VULKAN_FORMAT_ROW(name, vk) formats[GraphicsFormat::name] = vk;
        KOVEX_VULKAN_FORMATS(KOVEX_VULKAN_FORMAT_ROW)
#undef KOVEX_VULKAN_FORMAT_ROW
    }
};

const Table& GetTable()
{
    static const Table table;
    return table;
}

} // namespace

VkFormat ToVkFormat(uint32 graphicsFormat)
{
    return graphicsFormat < GraphicsFormat::COUNT ? GetTable().formats[graphicsFormat] : VK_FORMAT_UNDEFINED;
}

VkComponentMapping SampledSwizzle(uint32 graphicsFormat)
{
    VkComponentMapping mapping = {VK_COMPONENT_SWIZZLE_IDENTITY, VK_COMPONENT_SWIZZLE_IDENTITY,
                                  VK_COMPONENT_SWIZZLE_IDENTITY, VK_COMPONENT_SWIZZLE_IDENTITY};
    switch (graphicsFormat)
    {
    case GraphicsFormat::A8_UNORM:
        mapping = {VK_COMPONENT_SWIZZLE_ZERO, VK_COMPONENT_SWIZZLE_ZERO, VK_COMPONENT_SWIZZLE_ZERO,
                   VK_COMPONENT_SWIZZLE_R};
        break;
    case GraphicsFormat::B8G8R8X8_UNORM:
    case GraphicsFormat::R8G8B8X8_UNORM:
    case GraphicsFormat::B5G5R5X1_UNORM:
        mapping.a = VK_COMPONENT_SWIZZLE_ONE;
        break;
    default:
        break;
    }
    return mapping;
}

bool CanBeColorTarget(uint32 graphicsFormat)
{
    VkFormat format = ToVkFormat(graphicsFormat);
    return format != VK_FORMAT_UNDEFINED && graphicsFormat != GraphicsFormat::A8_UNORM &&
           !GraphicsFormat::IsCompressed(int(graphicsFormat)) && !IsDepthFormat(format);
}

bool IsDepthFormat(VkFormat format)
{
    return format == VK_FORMAT_D16_UNORM || format == VK_FORMAT_D32_SFLOAT || format == VK_FORMAT_D24_UNORM_S8_UINT ||
           format == VK_FORMAT_D32_SFLOAT_S8_UINT || format == VK_FORMAT_X8_D24_UNORM_PACK32;
}

bool HasStencil(VkFormat format)
{
    return format == VK_FORMAT_D24_UNORM_S8_UINT || format == VK_FORMAT_D32_SFLOAT_S8_UINT;
}

VkImageAspectFlags AspectOf(VkFormat format)
{
    if (!IsDepthFormat(format))
        return VK_IMAGE_ASPECT_COLOR_BIT;
    return HasStencil(format) ? VK_IMAGE_ASPECT_DEPTH_BIT | VK_IMAGE_ASPECT_STENCIL_BIT : VK_IMAGE_ASPECT_DEPTH_BIT;
}

ClearKind GetClearKind(uint32 graphicsFormat)
{
    if (!GraphicsFormat::IsInt(int(graphicsFormat)))
        return ClearKind::Float;
    return GraphicsFormat::IsSigned(int(graphicsFormat)) ? ClearKind::Sint : ClearKind::Uint;
}

VkClearColorValue MakeClearColor(uint32 graphicsFormat, float r, float g, float b, float a)
{
    VkClearColorValue value = {};
    switch (GetClearKind(graphicsFormat))
    {
    case ClearKind::Float:
        value.float32[0] = r;
        value.float32[1] = g;
        value.float32[2] = b;
        value.float32[3] = a;
        break;
    case ClearKind::Uint:
        value.uint32[0] = uint32(r);
        value.uint32[1] = uint32(g);
        value.uint32[2] = uint32(b);
        value.uint32[3] = uint32(a);
        break;
    case ClearKind::Sint:
        value.int32[0] = int32(r);
        value.int32[1] = int32(g);
        value.int32[2] = int32(b);
        value.int32[3] = int32(a);
        break;
    }
    return value;
}

} // namespace VulkanFormats

} // namespace KovexEngine
