// The pipeline cache's life on disk: read at device creation, written at
// device close. The driver validates what it is given too, but a file from
// another device or a damaged one is never handed to it.

#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "graphics/vulkan/VulkanPipeline.h"
#include "io/CacheDirectory.h"
#include "kernel/Log.h"
#include "kernel/StringConv.h"

namespace KovexEngine {

namespace {

// Far beyond what a game's pipelines take; a bigger file is not read.
constexpr long kMaxDiskBytes = 256l << 20;

std::string DiskPath()
{
    WString dir = GetEngineCacheDirectory();
    if (dir.IsEmpty())
        return std::string();
    AString path;
    StringConvFuncs::UTF16toUTF8(path, (dir + VulkanPipelineCache::kDiskFileName)());
    return std::string(path());
}

uint32 ReadWord(const uint8* p)
{
    uint32 value;
    memcpy(&value, p, 4);
    return value;
}

} // namespace

bool VulkanPipelineCache::HeaderMatches(const uint8* data, size_t size, const VkPhysicalDeviceProperties& device)
{
    // VkPipelineCacheHeaderVersionOne: size, version, vendor, device, UUID.
    constexpr size_t kHeader = 16 + VK_UUID_SIZE;
    if (!data || size < kHeader)
        return false;
    const uint32 headerSize = ReadWord(data);
    return headerSize >= kHeader && headerSize <= size && ReadWord(data + 4) == VK_PIPELINE_CACHE_HEADER_VERSION_ONE &&
           ReadWord(data + 8) == device.vendorID && ReadWord(data + 12) == device.deviceID &&
           memcmp(data + 16, device.pipelineCacheUUID, VK_UUID_SIZE) == 0;
}

void VulkanPipelineCache::CreateVkCache(const void* data, size_t size)
{
    VkPipelineCacheCreateInfo info = {VK_STRUCTURE_TYPE_PIPELINE_CACHE_CREATE_INFO};
    info.initialDataSize = size;
    info.pInitialData = data;
    VkResult result = vkCreatePipelineCache(m_device, &info, nullptr, &m_vkCache);
    if (result != VK_SUCCESS && size)
    {
        // Refused content: start empty rather than without a cache.
        info.initialDataSize = 0;
        info.pInitialData = nullptr;
        size = 0;
        result = vkCreatePipelineCache(m_device, &info, nullptr, &m_vkCache);
    }
    if (result != VK_SUCCESS)
    {
        m_vkCache = VK_NULL_HANDLE;
        Log::Format(LOG_WARNING, u"Vulkan: no pipeline cache (%d); pipelines are made without one.\n", int(result));
        return;
    }
    m_loadedBytes = size;
}

void VulkanPipelineCache::LoadDisk(const VkPhysicalDeviceProperties& device)
{
    std::lock_guard<std::mutex> lock(m_lock);
    if (!m_device || m_vkCache)
        return;
    m_loadedBytes = 0;
    // Written back where it was read: the engine may have let its root path
    // go by the time the device closes.
    m_diskPath = DiskPath();
    const std::string& path = m_diskPath;
    FILE* file = path.empty() ? nullptr : fopen(path.c_str(), "rb");
    if (!file)
    {
        CreateVkCache(nullptr, 0); // the first run: nothing saved yet
        return;
    }
    std::vector<uint8> bytes;
    long size = -1;
    if (fseek(file, 0, SEEK_END) == 0)
        size = ftell(file);
    bool read = size > 0 && size <= kMaxDiskBytes && fseek(file, 0, SEEK_SET) == 0;
    if (read)
    {
        bytes.resize(size_t(size));
        read = fread(bytes.data(), 1, bytes.size(), file) == bytes.size();
    }
    fclose(file);
    if (!read || !HeaderMatches(bytes.data(), bytes.size(), device))
    {
        Log::Format(LOG_WARNING,
                    u"Vulkan: the pipeline cache [%S] is not this device's or is damaged; it is ignored.\n",
                    path.c_str());
        bytes.clear();
    }
    CreateVkCache(bytes.data(), bytes.size());
}

bool VulkanPipelineCache::SaveDisk()
{
    std::lock_guard<std::mutex> lock(m_lock);
    if (!m_device || !m_vkCache)
        return false;
    size_t size = 0;
    std::vector<uint8> bytes;
    VkResult result = vkGetPipelineCacheData(m_device, m_vkCache, &size, nullptr);
    if (result == VK_SUCCESS && size)
    {
        bytes.resize(size);
        result = vkGetPipelineCacheData(m_device, m_vkCache, &size, bytes.data());
        bytes.resize(size);
    }
    const std::string& path = m_diskPath;
    if (result != VK_SUCCESS || bytes.empty() || path.empty())
        return false;
    // Unique per process: two engines closing at once each write whole files.
    const std::string temporary = path + "." + std::to_string(long(getpid())) + ".tmp";
    FILE* file = fopen(temporary.c_str(), "wb");
    bool ok = file && fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
    if (file)
        ok = fclose(file) == 0 && ok;
    ok = ok && rename(temporary.c_str(), path.c_str()) == 0;
    if (!ok)
    {
        remove(temporary.c_str());
        Log::Format(LOG_WARNING, u"Vulkan: the pipeline cache could not be written to [%S].\n", path.c_str());
    }
    return ok;
}

} // namespace KovexEngine
