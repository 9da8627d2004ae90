#include "graphics/vulkan/VulkanDevice.h"

#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <cctype>
#include <string>
#include <vector>

#include "kernel/Log.h"

namespace KovexEngine {

namespace {

std::atomic<bool> s_validationRequested{false};
std::atomic<uint32> s_validationErrors{0};
std::atomic<uint32> s_validationWarnings{0};

constexpr const char* kValidationLayer = "VK_LAYER_KHRONOS_validation";

std::string Lower(const char* text)
{
    std::string s(text ? text : "");
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    return s;
}

VKAPI_ATTR VkBool32 VKAPI_CALL OnDebugMessage(VkDebugUtilsMessageSeverityFlagBitsEXT severity,
                                              VkDebugUtilsMessageTypeFlagsEXT,
                                              const VkDebugUtilsMessengerCallbackDataEXT* data, void*)
{
    const char* text = data && data->pMessage ? data->pMessage : "";
    if (severity & VK_DEBUG_UTILS_MESSAGE_SEVERITY_ERROR_BIT_EXT)
    {
        s_validationErrors.fetch_add(1);
        Log::Format(LOG_ERROR, u"Vulkan validation: %S\n", text);
    }
    else if (severity & VK_DEBUG_UTILS_MESSAGE_SEVERITY_WARNING_BIT_EXT)
    {
        s_validationWarnings.fetch_add(1);
        Log::Format(LOG_WARNING, u"Vulkan validation: %S\n", text);
    }
    return VK_FALSE;
}

// Whether the loader (or an enabled layer) offers an instance extension.
bool HasInstanceExtension(const char* layer, const char* name)
{
    uint32 count = 0;
    if (vkEnumerateInstanceExtensionProperties(layer, &count, nullptr) != VK_SUCCESS)
        return false;
    std::vector<VkExtensionProperties> extensions(count);
    if (vkEnumerateInstanceExtensionProperties(layer, &count, extensions.data()) != VK_SUCCESS)
        return false;
    for (const VkExtensionProperties& extension : extensions)
        if (strcmp(extension.extensionName, name) == 0)
            return true;
    return false;
}

bool HasLayer(const char* name)
{
    uint32 count = 0;
    if (vkEnumerateInstanceLayerProperties(&count, nullptr) != VK_SUCCESS)
        return false;
    std::vector<VkLayerProperties> layers(count);
    if (vkEnumerateInstanceLayerProperties(&count, layers.data()) != VK_SUCCESS)
        return false;
    for (const VkLayerProperties& layer : layers)
        if (strcmp(layer.layerName, name) == 0)
            return true;
    return false;
}

// Lower is better; devices the rules exclude answer -1.
int Rank(const VkPhysicalDeviceProperties& properties)
{
    if (properties.apiVersion < VK_API_VERSION_1_1)
        return -1;
    const char* wanted = getenv("KOVEX_VULKAN_DEVICE");
    if (wanted && *wanted && Lower(properties.deviceName).find(Lower(wanted)) == std::string::npos)
        return -1;
    switch (properties.deviceType)
    {
    case VK_PHYSICAL_DEVICE_TYPE_DISCRETE_GPU: return 0;
    case VK_PHYSICAL_DEVICE_TYPE_INTEGRATED_GPU: return 1;
    case VK_PHYSICAL_DEVICE_TYPE_VIRTUAL_GPU: return 2;
    case VK_PHYSICAL_DEVICE_TYPE_CPU: return 3;
    default: return 4;
    }
}

bool GraphicsQueueFamily(VkPhysicalDevice device, uint32& family)
{
    uint32 count = 0;
    vkGetPhysicalDeviceQueueFamilyProperties(device, &count, nullptr);
    std::vector<VkQueueFamilyProperties> families(count);
    vkGetPhysicalDeviceQueueFamilyProperties(device, &count, families.data());
    for (uint32 i = 0; i < count; ++i)
        if (families[i].queueFlags & VK_QUEUE_GRAPHICS_BIT)
        {
            family = i;
            return true;
        }
    return false;
}

// The best device of the instance by the rules above; null when none.
VkPhysicalDevice Choose(VkInstance instance, VkPhysicalDeviceProperties& chosen, uint32& family)
{
    uint32 count = 0;
    if (vkEnumeratePhysicalDevices(instance, &count, nullptr) != VK_SUCCESS || count == 0)
        return VK_NULL_HANDLE;
    std::vector<VkPhysicalDevice> devices(count);
    if (vkEnumeratePhysicalDevices(instance, &count, devices.data()) != VK_SUCCESS)
        return VK_NULL_HANDLE;
    VkPhysicalDevice best = VK_NULL_HANDLE;
    int bestRank = 1 << 30;
    for (VkPhysicalDevice device : devices)
    {
        VkPhysicalDeviceProperties properties;
        vkGetPhysicalDeviceProperties(device, &properties);
        int rank = Rank(properties);
        uint32 queueFamily = 0;
        if (rank < 0 || rank >= bestRank || !GraphicsQueueFamily(device, queueFamily))
            continue;
        best = device;
        bestRank = rank;
        chosen = properties;
        family = queueFamily;
    }
    return best;
}

VkInstance NewInstance(bool validation, bool debugUtils, VkDebugUtilsMessengerCreateInfoEXT* messenger, bool quiet)
{
    VkApplicationInfo app = {VK_STRUCTURE_TYPE_APPLICATION_INFO};
    app.pApplicationName = "KovexEngine";
    app.pEngineName = "KovexEngine";
    app.apiVersion = VK_API_VERSION_1_1;
    VkInstanceCreateInfo info = {VK_STRUCTURE_TYPE_INSTANCE_CREATE_INFO};
    info.pApplicationInfo = &app;
    std::vector<const char*> extensions;
    // Names and labels are cheap and what a capture tool shows; validation
    // needs the messenger as well.
    if (validation || debugUtils)
        extensions.push_back(VK_EXT_DEBUG_UTILS_EXTENSION_NAME);
    if (validation)
        extensions.push_back(VK_EXT_VALIDATION_FEATURES_EXTENSION_NAME);
#ifdef KOVEX_HAVE_XCB
    // Window surfaces where the loader has them; offscreen rendering needs neither.
    if (HasInstanceExtension(nullptr, "VK_KHR_xcb_surface") &&
        HasInstanceExtension(nullptr, VK_KHR_SURFACE_EXTENSION_NAME))
    {
        extensions.push_back(VK_KHR_SURFACE_EXTENSION_NAME);
        extensions.push_back("VK_KHR_xcb_surface");
    }
#endif
    info.enabledExtensionCount = uint32(extensions.size());
    info.ppEnabledExtensionNames = extensions.data();
    VkValidationFeatureEnableEXT enables[] = {VK_VALIDATION_FEATURE_ENABLE_SYNCHRONIZATION_VALIDATION_EXT};
    VkValidationFeaturesEXT features = {VK_STRUCTURE_TYPE_VALIDATION_FEATURES_EXT};
    features.enabledValidationFeatureCount = 1;
    features.pEnabledValidationFeatures = enables;
    if (validation)
    {
        info.enabledLayerCount = 1;
        info.ppEnabledLayerNames = &kValidationLayer;
        // Messages of instance creation and destruction reach the log too.
        features.pNext = messenger;
        info.pNext = &features;
    }
    VkInstance instance = VK_NULL_HANDLE;
    VkResult result = vkCreateInstance(&info, nullptr, &instance);
    if (result != VK_SUCCESS)
    {
        // A probe is asked often and answers with its result; opening logs.
        if (!quiet)
            Log::Format(LOG_INFO, u"Vulkan: no instance (%d).\n", int(result));
        return VK_NULL_HANDLE;
    }
    return instance;
}

} // namespace

void VulkanDevice::SetValidationRequested(bool enabled) { s_validationRequested.store(enabled); }

bool VulkanDevice::IsValidationRequested()
{
    const char* env = getenv("KOVEX_VULKAN_VALIDATION");
    return s_validationRequested.load() || (env && strcmp(env, "1") == 0);
}

uint32 VulkanDevice::GetValidationErrorCount() { return s_validationErrors.load(); }
uint32 VulkanDevice::GetValidationWarningCount() { return s_validationWarnings.load(); }

bool VulkanDevice::Probe(AString* deviceName)
{
    VkInstance instance = NewInstance(false, false, nullptr, true);
    if (!instance)
        return false;
    VkPhysicalDeviceProperties properties = {};
    uint32 family = 0;
    bool found = Choose(instance, properties, family) != VK_NULL_HANDLE;
    if (found && deviceName)
        *deviceName = AString(properties.deviceName);
    vkDestroyInstance(instance, nullptr);
    return found;
}

bool VulkanDevice::CreateInstance(bool validation)
{
    VkDebugUtilsMessengerCreateInfoEXT messenger = {VK_STRUCTURE_TYPE_DEBUG_UTILS_MESSENGER_CREATE_INFO_EXT};
    messenger.messageSeverity =
        VK_DEBUG_UTILS_MESSAGE_SEVERITY_WARNING_BIT_EXT | VK_DEBUG_UTILS_MESSAGE_SEVERITY_ERROR_BIT_EXT;
    messenger.messageType = VK_DEBUG_UTILS_MESSAGE_TYPE_GENERAL_BIT_EXT |
                            VK_DEBUG_UTILS_MESSAGE_TYPE_VALIDATION_BIT_EXT |
                            VK_DEBUG_UTILS_MESSAGE_TYPE_PERFORMANCE_BIT_EXT;
    messenger.pfnUserCallback = &OnDebugMessage;
    if (validation && !HasLayer(kValidationLayer))
    {
        Log::Print(LOG_WARNING, u"Vulkan: validation was asked for, but the Khronos validation layer is missing.\n");
        validation = false;
    }
    m_debugUtils = validation || HasInstanceExtension(nullptr, VK_EXT_DEBUG_UTILS_EXTENSION_NAME);
    m_instance = NewInstance(validation, m_debugUtils, &messenger, false);
    if (!m_instance)
        return false;
    if (validation)
    {
        auto create = reinterpret_cast<PFN_vkCreateDebugUtilsMessengerEXT>(
            vkGetInstanceProcAddr(m_instance, "vkCreateDebugUtilsMessengerEXT"));
        if (!create || create(m_instance, &messenger, nullptr, &m_messenger) != VK_SUCCESS)
            Log::Print(LOG_WARNING, u"Vulkan: the validation messenger could not be made.\n");
    }
    return true;
}

bool VulkanDevice::ChooseDevice()
{
    m_physical = Choose(m_instance, m_properties, m_queueFamily);
    return m_physical != VK_NULL_HANDLE;
}

bool VulkanDevice::CreateDevice()
{
    float priority = 1.0f;
    VkDeviceQueueCreateInfo queue = {VK_STRUCTURE_TYPE_DEVICE_QUEUE_CREATE_INFO};
    queue.queueFamilyIndex = m_queueFamily;
    queue.queueCount = 1;
    queue.pQueuePriorities = &priority;
    // Only what the backend uses; a feature asked for and absent fails the
    // device.
    VkPhysicalDeviceFeatures supported = {};
    vkGetPhysicalDeviceFeatures(m_physical, &supported);
    VkPhysicalDeviceFeatures features = {};
    features.textureCompressionBC = supported.textureCompressionBC;
    features.geometryShader = supported.geometryShader;
    features.samplerAnisotropy = supported.samplerAnisotropy;
    features.fillModeNonSolid = supported.fillModeNonSolid;
    features.independentBlend = supported.independentBlend;
    features.imageCubeArray = supported.imageCubeArray;
    // An index beyond its vertex buffer reads zeros instead of faulting.
    features.robustBufferAccess = supported.robustBufferAccess;
    // Turning depth clipping off is depth clamping here.
    features.depthClamp = supported.depthClamp;
    VkDeviceCreateInfo info = {VK_STRUCTURE_TYPE_DEVICE_CREATE_INFO};
    info.queueCreateInfoCount = 1;
    info.pQueueCreateInfos = &queue;
    info.pEnabledFeatures = &features;
    // Dynamic rendering and what it builds on, where the device has them.
    const char* rendering[] = {VK_KHR_CREATE_RENDERPASS_2_EXTENSION_NAME,
                               VK_KHR_DEPTH_STENCIL_RESOLVE_EXTENSION_NAME,
                               VK_KHR_DYNAMIC_RENDERING_EXTENSION_NAME};
    uint32 count = 0;
    vkEnumerateDeviceExtensionProperties(m_physical, nullptr, &count, nullptr);
    std::vector<VkExtensionProperties> available(count);
    vkEnumerateDeviceExtensionProperties(m_physical, nullptr, &count, available.data());
    uint32 found = 0;
    for (const char* name : rendering)
        for (const VkExtensionProperties& extension : available)
            found += strcmp(extension.extensionName, name) == 0;
    std::vector<const char*> enabled;
    if (found == 3)
        enabled.assign(std::begin(rendering), std::end(rendering));
    // Swap chains where the device has them: a window needs them, offscreen does not.
    for (const VkExtensionProperties& extension : available)
        if (strcmp(extension.extensionName, VK_KHR_SWAPCHAIN_EXTENSION_NAME) == 0)
            enabled.push_back(VK_KHR_SWAPCHAIN_EXTENSION_NAME);
    // Program draws push their descriptors where the device can;
    // KOVEX_VULKAN_PUSH_DESCRIPTORS=0 makes them take the pool path instead.
    const char* push = getenv("KOVEX_VULKAN_PUSH_DESCRIPTORS");
    bool withPush = false;
    for (const VkExtensionProperties& extension : available)
        withPush |= strcmp(extension.extensionName, VK_KHR_PUSH_DESCRIPTOR_EXTENSION_NAME) == 0;
    withPush = withPush && !(push && strcmp(push, "0") == 0);
    if (withPush)
        enabled.push_back(VK_KHR_PUSH_DESCRIPTOR_EXTENSION_NAME);
    info.enabledExtensionCount = uint32(enabled.size());
    info.ppEnabledExtensionNames = enabled.data();
    VkPhysicalDeviceDynamicRenderingFeaturesKHR dynamicRendering = {
        VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_DYNAMIC_RENDERING_FEATURES_KHR};
    const bool withRendering = found == 3;
    if (withRendering)
    {
        dynamicRendering.dynamicRendering = VK_TRUE;
        info.pNext = &dynamicRendering;
    }
    VkResult result = vkCreateDevice(m_physical, &info, nullptr, &m_device);
    if (result != VK_SUCCESS)
    {
        Log::Format(LOG_WARNING, u"Vulkan: the device '%S' refused to open (%d).\n", m_properties.deviceName,
                    int(result));
        m_device = VK_NULL_HANDLE;
        return false;
    }
    vkGetDeviceQueue(m_device, m_queueFamily, 0, &m_queue);
    if (withRendering)
    {
        m_beginRendering = reinterpret_cast<PFN_vkCmdBeginRenderingKHR>(
            vkGetDeviceProcAddr(m_device, "vkCmdBeginRenderingKHR"));
        m_endRendering =
            reinterpret_cast<PFN_vkCmdEndRenderingKHR>(vkGetDeviceProcAddr(m_device, "vkCmdEndRenderingKHR"));
    }
    else
        Log::Print(LOG_INFO, u"Vulkan: the device has no dynamic rendering; it cannot draw.\n");
    m_pushDescriptor = withPush ? reinterpret_cast<PFN_vkCmdPushDescriptorSetKHR>(
                                      vkGetDeviceProcAddr(m_device, "vkCmdPushDescriptorSetKHR"))
                                : nullptr;
    m_maxPushDescriptors = 0;
    if (m_pushDescriptor)
    {
        VkPhysicalDevicePushDescriptorPropertiesKHR pushProperties = {
            VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_PUSH_DESCRIPTOR_PROPERTIES_KHR};
        VkPhysicalDeviceProperties2 properties = {VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_PROPERTIES_2};
        properties.pNext = &pushProperties;
        vkGetPhysicalDeviceProperties2(m_physical, &properties);
        m_maxPushDescriptors = pushProperties.maxPushDescriptors;
    }
    VkCommandPoolCreateInfo pool = {VK_STRUCTURE_TYPE_COMMAND_POOL_CREATE_INFO};
    pool.flags = VK_COMMAND_POOL_CREATE_RESET_COMMAND_BUFFER_BIT;
    pool.queueFamilyIndex = m_queueFamily;
    result = vkCreateCommandPool(m_device, &pool, nullptr, &m_pool);
    if (result != VK_SUCCESS)
    {
        Log::Format(LOG_WARNING, u"Vulkan: no command pool (%d).\n", int(result));
        return false;
    }
    m_memory.Init(m_physical, m_device);
    m_debug.Load(m_instance, m_device, m_debugUtils);
    m_memory.SetDebug(&m_debug);
    uint32 familyCount = 0;
    vkGetPhysicalDeviceQueueFamilyProperties(m_physical, &familyCount, nullptr);
    std::vector<VkQueueFamilyProperties> families(familyCount);
    vkGetPhysicalDeviceQueueFamilyProperties(m_physical, &familyCount, families.data());
    m_timestampBits = m_queueFamily < familyCount ? families[m_queueFamily].timestampValidBits : 0;
    return true;
}

bool VulkanDevice::Open()
{
    std::lock_guard<std::recursive_mutex> lock(m_lock);
    if (IsOpen())
        return true;
    if (!CreateInstance(IsValidationRequested()))
    {
        Log::Print(LOG_WARNING, u"Vulkan: no Vulkan driver is installed.\n");
        Close();
        return false;
    }
    if (!ChooseDevice())
    {
        Log::Print(LOG_WARNING, u"Vulkan: no Vulkan 1.1 device with a graphics queue was found.\n");
        Close();
        return false;
    }
    if (!CreateDevice())
    {
        Close();
        return false;
    }
    Log::Format(LOG_INFO, u"Vulkan: opened '%S'%s.\n", m_properties.deviceName,
                m_messenger ? u" with validation" : u"");
    return true;
}

void VulkanDevice::Close()
{
    std::lock_guard<std::recursive_mutex> lock(m_lock);
    if (m_device)
    {
        vkDeviceWaitIdle(m_device);
        m_debug.Load(VK_NULL_HANDLE, VK_NULL_HANDLE, false);
        m_timestampBits = 0;
        m_memory.Destroy();
        if (m_pool)
            vkDestroyCommandPool(m_device, m_pool, nullptr);
        vkDestroyDevice(m_device, nullptr);
    }
    m_pool = VK_NULL_HANDLE;
    m_device = VK_NULL_HANDLE;
    m_beginRendering = nullptr;
    m_endRendering = nullptr;
    m_pushDescriptor = nullptr;
    m_maxPushDescriptors = 0;
    m_queue = VK_NULL_HANDLE;
    m_physical = VK_NULL_HANDLE;
    if (m_messenger)
    {
        auto destroy = reinterpret_cast<PFN_vkDestroyDebugUtilsMessengerEXT>(
            vkGetInstanceProcAddr(m_instance, "vkDestroyDebugUtilsMessengerEXT"));
        if (destroy)
            destroy(m_instance, m_messenger, nullptr);
        m_messenger = VK_NULL_HANDLE;
    }
    if (m_instance)
        vkDestroyInstance(m_instance, nullptr);
    m_instance = VK_NULL_HANDLE;
}

VkFormatFeatureFlags VulkanDevice::GetFormatFeatures(VkFormat format) const
{
    if (!m_physical || format == VK_FORMAT_UNDEFINED)
        return 0;
    VkFormatProperties properties;
    vkGetPhysicalDeviceFormatProperties(m_physical, format, &properties);
    return properties.optimalTilingFeatures;
}

} // namespace KovexEngine
