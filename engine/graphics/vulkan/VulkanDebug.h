#pragma once

// Debug names and labels through VK_EXT_debug_utils, for captures and
// validation messages. The instance enables the extension whenever the
// loader offers it, validation or not: naming costs a call per object and
// makes every capture readable. Without it every call here does nothing.
//
// Also the texts the backend gives its objects, as plain functions so that
// they can be checked without a device.
//
// Threads: Load runs when the device opens; the calls afterwards only read
// the loaded entry points and are safe from any thread (the driver requires
// external synchronisation of the command buffer a label goes into).

#include <string>

#include <vulkan/vulkan.h>

#include "kernel/Strings.h"

namespace KovexEngine {

struct TextureDesc;

class KOVEX_API VulkanDebug
{
public:
    // Takes the entry points from an instance that enabled the extension;
    // with `enabled` false, clears them.
    void Load(VkInstance instance, VkDevice device, bool enabled);
    bool IsEnabled() const { return m_setName != nullptr; }

    // Names one object; an empty or null name leaves it as it is.
    void Name(VkObjectType type, uint64 handle, const char* name) const;
    template <typename HANDLE>
    void Name(VkObjectType type, HANDLE handle, const std::string& name) const
    {
        Name(type, reinterpret_cast<uint64>(handle), name.c_str());
    }

    void BeginLabel(VkCommandBuffer cmd, uint32 argb, const char16_t* name) const;
    void EndLabel(VkCommandBuffer cmd) const;
    void InsertLabel(VkCommandBuffer cmd, uint32 argb, const char16_t* name) const;

private:
    VkDevice m_device = VK_NULL_HANDLE;
    PFN_vkSetDebugUtilsObjectNameEXT m_setName = nullptr;
    PFN_vkCmdBeginDebugUtilsLabelEXT m_beginLabel = nullptr;
    PFN_vkCmdEndDebugUtilsLabelEXT m_endLabel = nullptr;
    PFN_vkCmdInsertDebugUtilsLabelEXT m_insertLabel = nullptr;
};

// A texture's name: its path when it has one, else its kind, size and
// format ("Texture 256x256 R8G8B8A8_UNORM", "Render target 640x360
// R8G8B8A8_UNORM", "Cube texture 64x64 ...", "Texture 8x8x4 ..." for 3D,
// "... [6]" for arrays).
KOVEX_API std::string VulkanTextureName(const TextureDesc& desc, const WString& path);
// The format's name as the engine's format table spells it; "Format <n>"
// for a value outside the table.
KOVEX_API const char* VulkanFormatName(int format);
// A buffer's name: its use, bytes per copy, and how many copies a dynamic
// one keeps ("Vertex buffer 1024 bytes", "Constant buffer 256 bytes x3").
KOVEX_API std::string VulkanBufferName(VkBufferUsageFlags usage, uint32 bytes, uint32 copies);
// A device memory block's: "Memory block 64 MiB type 2" (", mapped").
KOVEX_API std::string VulkanMemoryBlockName(uint64 bytes, uint32 memoryType, bool mapped);
// UTF-16 to UTF-8; unpaired surrogates become U+FFFD.
KOVEX_API std::string VulkanUtf8(const char16_t* text);
// An ARGB colour as the RGBA floats a label takes.
KOVEX_API void VulkanLabelColor(uint32 argb, float out[4]);

} // namespace KovexEngine
