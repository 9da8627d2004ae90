#include "graphics/vulkan/VulkanDebug.h"

#include <stdio.h>

#include "graphics/GraphicsFormat.h"
#include "graphics/TextureDesc.h"
#include "reflection/EngineEnums.h"

namespace KovexEngine {

void VulkanDebug::Load(VkInstance instance, VkDevice device, bool enabled)
{
    *this = VulkanDebug();
    if (!enabled || !instance || !device)
        return;
    m_device = device;
    // Instance-level entry points: the layers between the loader and the
    // driver see every call.
    m_setName = reinterpret_cast<PFN_vkSetDebugUtilsObjectNameEXT>(
        vkGetInstanceProcAddr(instance, "vkSetDebugUtilsObjectNameEXT"));
    m_beginLabel = reinterpret_cast<PFN_vkCmdBeginDebugUtilsLabelEXT>(
        vkGetInstanceProcAddr(instance, "vkCmdBeginDebugUtilsLabelEXT"));
    m_endLabel =
        reinterpret_cast<PFN_vkCmdEndDebugUtilsLabelEXT>(vkGetInstanceProcAddr(instance, "vkCmdEndDebugUtilsLabelEXT"));
    m_insertLabel = reinterpret_cast<PFN_vkCmdInsertDebugUtilsLabelEXT>(
        vkGetInstanceProcAddr(instance, "vkCmdInsertDebugUtilsLabelEXT"));
    if (!m_setName || !m_beginLabel || !m_endLabel || !m_insertLabel)
        *this = VulkanDebug();
}

void VulkanDebug::Name(VkObjectType type, uint64 handle, const char* name) const
{
    if (!m_setName || !handle || !name || !*name)
        return;
    VkDebugUtilsObjectNameInfoEXT info = {VK_STRUCTURE_TYPE_DEBUG_UTILS_OBJECT_NAME_INFO_EXT};
    info.objectType = type;
    info.objectHandle = handle;
    info.pObjectName = name;
    m_setName(m_device, &info);
}

namespace {
// Begin and Insert take the same label.
void RecordLabel(void(VKAPI_PTR* record)(VkCommandBuffer, const VkDebugUtilsLabelEXT*), VkCommandBuffer cmd,
                 uint32 argb, const char16_t* name)
{
    if (!record || !cmd)
        return;
    std::string text = VulkanUtf8(name);
    VkDebugUtilsLabelEXT label = {VK_STRUCTURE_TYPE_DEBUG_UTILS_LABEL_EXT};
    label.pLabelName = text.c_str();
    VulkanLabelColor(argb, label.color);
    record(cmd, &label);
}
} // namespace

void VulkanDebug::BeginLabel(VkCommandBuffer cmd, uint32 argb, const char16_t* name) const
{
    RecordLabel(m_beginLabel, cmd, argb, name);
}

void VulkanDebug::EndLabel(VkCommandBuffer cmd) const
{
    if (m_endLabel && cmd)
        m_endLabel(cmd);
}

void VulkanDebug::InsertLabel(VkCommandBuffer cmd, uint32 argb, const char16_t* name) const
{
    RecordLabel(m_insertLabel, cmd, argb, name);
}

const char* VulkanFormatName(int format)
{
    switch (format)
    {
#define KOVEX_FORMAT_NAME_CASE(PASS_, name, value, type, layout, bits, sign, compressed) \
    case value: return #name;
        KOVEX_GRAPHICS_FORMAT_TABLE(KOVEX_FORMAT_NAME_CASE, )
#undef KOVEX_FORMAT_NAME_CASE
    default: return nullptr;
    }
}

std::string VulkanTextureName(const TextureDesc& desc, const WString& path)
{
    if (!path.IsEmpty())
        return VulkanUtf8(path.c_str());
    const char* kind = "Texture";
    if (desc.ViewFlags & TextureViewFlags::DEPTH_STENCIL)
        kind = "Depth target";
    else if (desc.ViewFlags & TextureViewFlags::RENDER_TARGET)
        kind = "Render target";
    else if (desc.Dimension == TextureDimension::Cube)
        kind = "Cube texture";
    char size[64];
    if (desc.Dimension == TextureDimension::_3D)
        snprintf(size, sizeof(size), "%ux%ux%u", desc.Width, desc.Height, desc.Depth);
    else
        snprintf(size, sizeof(size), "%ux%u", desc.Width, desc.Height);
    std::string name = std::string(kind) + " " + size + " ";
    if (const char* format = VulkanFormatName(int(desc.Format)))
        name += format;
    else
        name += "Format " + std::to_string(desc.Format);
    if (desc.Dimension != TextureDimension::_3D && desc.ArraySize > 1)
        name += " [" + std::to_string(desc.ArraySize) + "]";
    return name;
}

std::string VulkanBufferName(VkBufferUsageFlags usage, uint32 bytes, uint32 copies)
{
    const char* kind = "Buffer";
    if (usage & VK_BUFFER_USAGE_VERTEX_BUFFER_BIT)
        kind = "Vertex buffer";
    else if (usage & VK_BUFFER_USAGE_INDEX_BUFFER_BIT)
        kind = "Index buffer";
    else if (usage & VK_BUFFER_USAGE_UNIFORM_BUFFER_BIT)
        kind = "Constant buffer";
    else if (usage & VK_BUFFER_USAGE_STORAGE_BUFFER_BIT)
        kind = "Read-write buffer";
    std::string name = std::string(kind) + " " + std::to_string(bytes) + " bytes";
    if (copies > 1)
        name += " x" + std::to_string(copies);
    return name;
}

std::string VulkanMemoryBlockName(uint64 bytes, uint32 memoryType, bool mapped)
{
    std::string size = bytes >= (1ull << 20) && bytes % (1ull << 20) == 0
                           ? std::to_string(bytes >> 20) + " MiB"
                           : std::to_string(bytes) + " bytes";
    return "Memory block " + size + " type " + std::to_string(memoryType) + (mapped ? ", mapped" : "");
}

std::string VulkanUtf8(const char16_t* text)
{
    std::string out;
    if (!text)
        return out;
    for (size_t i = 0; text[i]; ++i)
    {
        uint32 c = text[i];
        if (c >= 0xD800 && c <= 0xDBFF && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF)
            c = 0x10000 + ((c - 0xD800) << 10) + (uint32(text[++i]) - 0xDC00);
        else if (c >= 0xD800 && c <= 0xDFFF)
            c = 0xFFFD;
        if (c < 0x80)
            out += char(c);
        else if (c < 0x800)
        {
            out += char(0xC0 | (c >> 6));
            out += char(0x80 | (c & 0x3F));
        }
        else if (c < 0x10000)
        {
            out += char(0xE0 | (c >> 12));
            out += char(0x80 | ((c >> 6) & 0x3F));
            out += char(0x80 | (c & 0x3F));
        }
        else
        {
            out += char(0xF0 | (c >> 18));
            out += char(0x80 | ((c >> 12) & 0x3F));
            out += char(0x80 | ((c >> 6) & 0x3F));
            out += char(0x80 | (c & 0x3F));
        }
    }
    return out;
}

void VulkanLabelColor(uint32 argb, float out[4])
{
    out[0] = float((argb >> 16) & 0xFF) / 255.0f;
    out[1] = float((argb >> 8) & 0xFF) / 255.0f;
    out[2] = float(argb & 0xFF) / 255.0f;
    out[3] = float(argb >> 24) / 255.0f;
}

} // namespace KovexEngine
