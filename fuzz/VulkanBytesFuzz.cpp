// Fuzz target: bytes the Vulkan backend reads from outside before a driver
// sees them: a pipeline cache file's header (against a made-up device) and
// shader code searched for its entry point.
#include <string.h>

#include <string>
#include <vector>

#include "graphics/vulkan/VulkanPipeline.h"
#include "graphics/vulkan/VulkanProgram.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    VkPhysicalDeviceProperties device = {};
    device.vendorID = 0x10005;
    device.deviceID = 0;
    (void)KovexEngine::VulkanPipelineCache::HeaderMatches(data, size, device);
    // The shader's words, as a malloc'd copy of whole words would hold them.
    std::vector<uint32_t> words(size / 4);
    if (!words.empty())
        memcpy(words.data(), data, words.size() * 4);
    std::string name;
    (void)KovexEngine::VulkanShader::FindEntryPoint(words.data(), words.size(), name);
    return 0;
}
