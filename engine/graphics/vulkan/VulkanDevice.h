#pragma once

// The Vulkan instance, the chosen physical device, the logical device with
// one graphics queue, and the messenger that routes validation messages into
// the engine log.
//
// Device choice: a discrete GPU before an integrated one, before a virtual
// one, before a CPU implementation (lavapipe). KOVEX_VULKAN_DEVICE, when set,
// keeps only devices whose name contains it (case-insensitive); a value that
// names no device leaves none, which is how a machine with Vulkan is made to
// look like one without.
//
// Validation: KOVEX_VULKAN_VALIDATION=1 or SetValidationRequested(true)
// enables the Khronos layer (and synchronization validation) for devices
// opened afterwards. VK_EXT_debug_utils is enabled whenever the loader has
// it, validation or not, so that objects carry names. Every error message is logged at level 4 and counted.
//
// Threads: Probe, the counters and SetValidationRequested are safe from any
// thread. Open and Close belong to the thread that opens the renderer. The
// queue and the command pool are used under GetLock() only.

#include <atomic>
#include <mutex>

#include <vulkan/vulkan.h>

#include "graphics/vulkan/VulkanDebug.h"
#include "graphics/vulkan/VulkanMemory.h"
#include "kernel/Strings.h"

namespace KovexEngine {

class KOVEX_API VulkanDevice
{
public:
    VulkanDevice() = default;
    ~VulkanDevice() { Close(); }
    VulkanDevice(const VulkanDevice&) = delete;
    VulkanDevice& operator=(const VulkanDevice&) = delete;

    // Whether a loader and a device that the choice rules accept exist, and
    // that device's name.
    static bool Probe(AString* deviceName = nullptr);
    static void SetValidationRequested(bool enabled);
    static bool IsValidationRequested();
    // Validation messages of error severity since the process started, and
    // of warning severity.
    static uint32 GetValidationErrorCount();
    static uint32 GetValidationWarningCount();

    // False, with a log line, when there is no loader, no device or the
    // device refuses to open; Close is then already done.
    bool Open();
    // Waits for the device, then destroys what Open made.
    void Close();
    bool IsOpen() const { return m_device != VK_NULL_HANDLE; }
    bool IsValidating() const { return m_messenger != VK_NULL_HANDLE; }

    VkInstance GetInstance() const { return m_instance; }
    VkPhysicalDevice GetPhysicalDevice() const { return m_physical; }
    VkDevice GetDevice() const { return m_device; }
    VkQueue GetQueue() const { return m_queue; }
    uint32 GetQueueFamily() const { return m_queueFamily; }
    VkCommandPool GetCommandPool() const { return m_pool; }
    const VkPhysicalDeviceProperties& GetProperties() const { return m_properties; }
    VulkanMemory& GetMemory() { return m_memory; }
    // Drawing renders with VK_KHR_dynamic_rendering; null where the device
    // lacks it (clears, copies and read-back do not need it).
    PFN_vkCmdBeginRenderingKHR GetBeginRendering() const { return m_beginRendering; }
    PFN_vkCmdEndRenderingKHR GetEndRendering() const { return m_endRendering; }
    std::recursive_mutex& GetLock() { return m_lock; }
    // VK_KHR_push_descriptor's command and how many descriptors one set may
    // push; null and 0 where the device lacks it.
    PFN_vkCmdPushDescriptorSetKHR GetPushDescriptor() const { return m_pushDescriptor; }
    uint32 GetMaxPushDescriptors() const { return m_maxPushDescriptors; }
    // Names and labels; they do nothing where the loader lacks
    // VK_EXT_debug_utils.
    const VulkanDebug& GetDebug() const { return m_debug; }
    // Valid bits of the graphics queue's timestamps; 0 where it has none.
    uint32 GetTimestampBits() const { return m_timestampBits; }

    // The format's optimal-tiling features on this device.
    VkFormatFeatureFlags GetFormatFeatures(VkFormat format) const;

private:
    bool CreateInstance(bool validation);
    bool ChooseDevice();
    bool CreateDevice();

    VkInstance m_instance = VK_NULL_HANDLE;
    VkDebugUtilsMessengerEXT m_messenger = VK_NULL_HANDLE;
    VkPhysicalDevice m_physical = VK_NULL_HANDLE;
    VkPhysicalDeviceProperties m_properties = {};
    VkDevice m_device = VK_NULL_HANDLE;
    VkQueue m_queue = VK_NULL_HANDLE;
    uint32 m_queueFamily = 0;
    VkCommandPool m_pool = VK_NULL_HANDLE;
    VulkanMemory m_memory;
    PFN_vkCmdBeginRenderingKHR m_beginRendering = nullptr;
    PFN_vkCmdEndRenderingKHR m_endRendering = nullptr;
    PFN_vkCmdPushDescriptorSetKHR m_pushDescriptor = nullptr;
    uint32 m_maxPushDescriptors = 0;
    std::recursive_mutex m_lock;
    VulkanDebug m_debug;
    bool m_debugUtils = false;
    uint32 m_timestampBits = 0;
};

} // namespace KovexEngine
