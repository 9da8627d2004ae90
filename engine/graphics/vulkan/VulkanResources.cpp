#include "graphics/vulkan/VulkanResources.h"

#include <string.h>

#include "graphics/vulkan/VulkanFormats.h"
#include "graphics/vulkan/VulkanRenderer.h"
#include "kernel/Log.h"

namespace KovexEngine {

KOVEX_REGISTER_CLASS(VulkanTexture, u"Engine", Texture)
KOVEX_REGISTER_CLASS(VulkanVertexBuffer, u"Engine", VertexBuffer)
KOVEX_REGISTER_CLASS(VulkanIndexBuffer, u"Engine", IndexBuffer)
KOVEX_REGISTER_CLASS(VulkanConstantBuffer, u"Engine", ConstantBuffer)
KOVEX_REGISTER_CLASS(VulkanRWBuffer, u"Engine", RWBuffer)

namespace {

VulkanRenderer* OpenRenderer(const char16_t* what)
{
    VulkanRenderer* renderer = VulkanRenderer::Get();
    if (!renderer || !renderer->GetDevice().IsOpen())
    {
        Log::Format(LOG_WARNING, u"Vulkan: no open device to create %s on.\n", what);
        return nullptr;
    }
    return renderer;
}

// The format the image is made with, and whether views may reinterpret it.
VkFormat StorageFormat(const TextureDesc& desc, bool& mutableFormat)
{
    mutableFormat = false;
    if (!GraphicsFormat::IsTypeless(int(desc.Format)))
        return VulkanFormats::ToVkFormat(desc.Format);
    VkFormat rtvDsv = VulkanFormats::ToVkFormat(desc.TypelessRtvDsvFormat);
    VkFormat srvUav = VulkanFormats::ToVkFormat(desc.TypelessSavUavFormat);
    // A typeless depth buffer is a depth image; its sampled view reads the
    // depth aspect, which is what a typeless colour view of it reads.
    if (VulkanFormats::IsDepthFormat(rtvDsv))
        return rtvDsv;
    mutableFormat = true;
    if (rtvDsv != VK_FORMAT_UNDEFINED)
        return rtvDsv;
    if (srvUav != VK_FORMAT_UNDEFINED)
        return srvUav;
    return VulkanFormats::ToVkFormat(desc.Format);
}

VkFormat SampledFormat(const TextureDesc& desc, VkFormat storage)
{
    if (!GraphicsFormat::IsTypeless(int(desc.Format)) || VulkanFormats::IsDepthFormat(storage))
        return storage;
    VkFormat srvUav = VulkanFormats::ToVkFormat(desc.TypelessSavUavFormat);
    return srvUav != VK_FORMAT_UNDEFINED ? srvUav : storage;
}

uint64 WholeSize(const TextureDesc& desc)
{
    return desc.GetDataOffset(desc.ArraySize, 0, 0, desc.Format);
}

uint32 Mips(const TextureDesc& desc) { return desc.MipLevels ? desc.MipLevels : 1; }

// Copy regions of every subresource between an image and a buffer laid out
// as TextureDesc::GetDataOffset says.
std::vector<VkBufferImageCopy> Regions(const TextureDesc& desc, VkImageAspectFlags aspects)
{
    std::vector<VkBufferImageCopy> regions;
    const bool volume = desc.Dimension == TextureDimension::_3D;
    for (uint32 slice = 0; slice < desc.ArraySize; ++slice)
        for (uint32 mip = 0; mip < Mips(desc); ++mip)
        {
            VkBufferImageCopy region = {};
            region.bufferOffset = desc.GetDataOffset(slice, mip, 0, desc.Format);
            region.imageSubresource.aspectMask =
                aspects & VK_IMAGE_ASPECT_DEPTH_BIT ? VK_IMAGE_ASPECT_DEPTH_BIT : VK_IMAGE_ASPECT_COLOR_BIT;
            region.imageSubresource.mipLevel = mip;
            region.imageSubresource.baseArrayLayer = volume ? 0 : slice;
            region.imageSubresource.layerCount = 1;
            region.imageExtent = {desc.GetMipWidth(mip), desc.GetMipHeight(mip), volume ? desc.GetMipDepth(mip) : 1};
            regions.push_back(region);
        }
    return regions;
}

VkImageViewType ViewType(const TextureDesc& desc)
{
    switch (desc.Dimension)
    {
    case TextureDimension::_1D: return desc.ArraySize > 1 ? VK_IMAGE_VIEW_TYPE_1D_ARRAY : VK_IMAGE_VIEW_TYPE_1D;
    case TextureDimension::_3D: return VK_IMAGE_VIEW_TYPE_3D;
    case TextureDimension::Cube: return desc.ArraySize > 6 ? VK_IMAGE_VIEW_TYPE_CUBE_ARRAY : VK_IMAGE_VIEW_TYPE_CUBE;
    default: return desc.ArraySize > 1 ? VK_IMAGE_VIEW_TYPE_2D_ARRAY : VK_IMAGE_VIEW_TYPE_2D;
    }
}

} // namespace

// --- Textures ------------------------------------------------------------------------------

VulkanTexture::~VulkanTexture() { VulkanTexture::ReleaseDeviceHandle(); }

uint32 VulkanTexture::GetNumSubresources() const { return GetDesc().ArraySize * Mips(GetDesc()); }

bool VulkanTexture::CreateDeviceHandle()
{
    VulkanRenderer* renderer = OpenRenderer(u"a texture");
    if (!renderer)
        return false;
    std::lock_guard<std::recursive_mutex> lock(renderer->GetDevice().GetLock());
    bool ok = IsStagingResource() ? CreateStaging() : CreateImage();
    DropInitialData();
    if (!ok)
        ReleaseDeviceHandle();
    else
        ApplyDebugName();
    return ok;
}

std::string VulkanTexture::GetDebugName() const
{
    return m_debugName.empty() ? VulkanTextureName(GetDesc(), GetPath()) : m_debugName;
}

void VulkanTexture::SetDebugName(const char* name)
{
    m_debugName = name ? name : "";
    VulkanRenderer* renderer = VulkanRenderer::Get();
    if (!renderer)
        return;
    std::lock_guard<std::recursive_mutex> lock(renderer->GetDevice().GetLock());
    ApplyDebugName();
}

void VulkanTexture::ApplyDebugName()
{
    VulkanRenderer* renderer = VulkanRenderer::Get();
    if (!renderer || !renderer->GetDevice().GetDebug().IsEnabled())
        return;
    const VulkanDebug& debug = renderer->GetDevice().GetDebug();
    std::string name = GetDebugName();
    debug.Name(VK_OBJECT_TYPE_IMAGE, m_image, name);
    debug.Name(VK_OBJECT_TYPE_BUFFER, m_buffer, name);
    debug.Name(VK_OBJECT_TYPE_IMAGE_VIEW, m_sampledView, name + " (sampled)");
    for (size_t slice = 0; slice < m_targetViews.size(); ++slice)
        debug.Name(VK_OBJECT_TYPE_IMAGE_VIEW, m_targetViews[slice], name + " (target " + std::to_string(slice) + ")");
}

bool VulkanTexture::CreateStaging()
{
    VulkanRenderer* renderer = VulkanRenderer::Get();
    const TextureDesc& desc = GetDesc();
    m_format = VulkanFormats::ToVkFormat(desc.Format);
    const uint64 size = WholeSize(desc);
    if (!renderer->CreateTransferBuffer(size, m_buffer, m_memory))
        return false;
    if (GetInitialData())
        memcpy(m_memory.Mapped, GetInitialData(), GetInitialDataSize() < size ? GetInitialDataSize() : size);
    else
        memset(m_memory.Mapped, 0, size);
    return true;
}

bool VulkanTexture::CreateImage()
{
    VulkanRenderer* renderer = VulkanRenderer::Get();
    VulkanDevice& device = renderer->GetDevice();
    const TextureDesc& desc = GetDesc();
    bool mutableFormat = false;
    m_format = StorageFormat(desc, mutableFormat);
    if (m_format == VK_FORMAT_UNDEFINED)
    {
        Log::Format(LOG_WARNING, u"Vulkan: the format %u has no Vulkan format.\n", desc.Format);
        return false;
    }
    VkImageCreateInfo info = {VK_STRUCTURE_TYPE_IMAGE_CREATE_INFO};
    info.flags = mutableFormat ? VK_IMAGE_CREATE_MUTABLE_FORMAT_BIT : 0;
    info.imageType = desc.Dimension == TextureDimension::_1D   ? VK_IMAGE_TYPE_1D
                     : desc.Dimension == TextureDimension::_3D ? VK_IMAGE_TYPE_3D
                                                               : VK_IMAGE_TYPE_2D;
    if (desc.Dimension == TextureDimension::Cube)
        info.flags |= VK_IMAGE_CREATE_CUBE_COMPATIBLE_BIT;
    info.format = m_format;
    info.extent = {desc.Width, desc.Height, desc.Dimension == TextureDimension::_3D ? desc.Depth : 1};
    info.mipLevels = Mips(desc);
    info.arrayLayers = desc.Dimension == TextureDimension::_3D ? 1 : desc.ArraySize;
    // A multisampled depth buffer is the image itself; colour keeps one
    // sample here and gets a twin.
    const bool depthTarget = (desc.ViewFlags & TextureViewFlags::DEPTH_STENCIL) != 0;
    info.samples = depthTarget ? VkSampleCountFlagBits(m_samples) : VK_SAMPLE_COUNT_1_BIT;
    info.tiling = VK_IMAGE_TILING_OPTIMAL;
    info.usage = VK_IMAGE_USAGE_TRANSFER_SRC_BIT | VK_IMAGE_USAGE_TRANSFER_DST_BIT;
    if (desc.ViewFlags & TextureViewFlags::SHADER_RESOURCE)
        info.usage |= VK_IMAGE_USAGE_SAMPLED_BIT;
    if (desc.ViewFlags & TextureViewFlags::RENDER_TARGET)
        info.usage |= VK_IMAGE_USAGE_COLOR_ATTACHMENT_BIT;
    if (desc.ViewFlags & TextureViewFlags::DEPTH_STENCIL)
        info.usage |= VK_IMAGE_USAGE_DEPTH_STENCIL_ATTACHMENT_BIT;
    if (desc.ViewFlags & TextureViewFlags::UNORDERED_ACCESS)
        info.usage |= VK_IMAGE_USAGE_STORAGE_BIT;
    info.sharingMode = VK_SHARING_MODE_EXCLUSIVE;
    info.initialLayout = VK_IMAGE_LAYOUT_UNDEFINED;
    VkResult result = vkCreateImage(device.GetDevice(), &info, nullptr, &m_image);
    if (result != VK_SUCCESS)
    {
        m_image = VK_NULL_HANDLE;
        Log::Format(LOG_WARNING, u"Vulkan: an image of %u x %u (format %u) could not be made (%d).\n", desc.Width,
                    desc.Height, desc.Format, int(result));
        return false;
    }
    m_layout = VK_IMAGE_LAYOUT_UNDEFINED;
    VkMemoryRequirements requirements;
    vkGetImageMemoryRequirements(device.GetDevice(), m_image, &requirements);
    if (!device.GetMemory().Allocate(requirements, VK_MEMORY_PROPERTY_DEVICE_LOCAL_BIT, false, m_memory))
    {
        Log::Format(LOG_WARNING, u"Vulkan: no memory for a texture of %u x %u (format %u).\n", desc.Width,
                    desc.Height, desc.Format);
        return false;
    }
    if (vkBindImageMemory(device.GetDevice(), m_image, m_memory.Memory, m_memory.Offset) != VK_SUCCESS)
        return false;

    if (desc.ViewFlags & TextureViewFlags::SHADER_RESOURCE)
    {
        VkImageViewCreateInfo view = {VK_STRUCTURE_TYPE_IMAGE_VIEW_CREATE_INFO};
        view.image = m_image;
        view.viewType = ViewType(desc);
        view.format = SampledFormat(desc, m_format);
        view.components = VulkanFormats::SampledSwizzle(desc.Format);
        // A sampled depth-stencil view reads depth.
        VkImageAspectFlags aspects = VulkanFormats::AspectOf(m_format);
        view.subresourceRange.aspectMask =
            aspects & VK_IMAGE_ASPECT_DEPTH_BIT ? VK_IMAGE_ASPECT_DEPTH_BIT : VK_IMAGE_ASPECT_COLOR_BIT;
        view.subresourceRange.levelCount = VK_REMAINING_MIP_LEVELS;
        view.subresourceRange.layerCount = VK_REMAINING_ARRAY_LAYERS;
        result = vkCreateImageView(device.GetDevice(), &view, nullptr, &m_sampledView);
        if (result != VK_SUCCESS)
        {
            m_sampledView = VK_NULL_HANDLE;
            Log::Format(LOG_WARNING, u"Vulkan: a sampled view could not be made (%d).\n", int(result));
            return false;
        }
    }

    if (desc.ViewFlags & (TextureViewFlags::RENDER_TARGET | TextureViewFlags::DEPTH_STENCIL))
    {
        m_targetFormat = m_format;
        // A typeless colour target writes through its render-target format.
        if (mutableFormat && desc.TypelessRtvDsvFormat)
            m_targetFormat = VulkanFormats::ToVkFormat(desc.TypelessRtvDsvFormat);
        m_targetViews.assign(desc.Dimension == TextureDimension::_3D ? 1 : desc.ArraySize, VK_NULL_HANDLE);
        if (!GetTargetView(0))
            return false;
        if (m_samples > 1 && !depthTarget && !CreateMultisampleTwin())
            return false;
    }

    if (!GetInitialData())
        return true;
    // Initial pixels through a staging buffer, in the layout of the image's
    // TextureDesc.
    const uint64 size = WholeSize(desc);
    if (GetInitialDataSize() < size)
    {
        Log::Format(LOG_WARNING, u"Vulkan: %u bytes of initial data for a texture of %I64u.\n", GetInitialDataSize(),
                    (unsigned long long)size);
        return false;
    }
    std::vector<VkBufferImageCopy> regions = Regions(desc, VulkanFormats::AspectOf(m_format));
    return renderer->Upload(GetInitialData(), size, [&](VkCommandBuffer cmd, VkBuffer staging) {
        renderer->Transition(cmd, *this, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL);
        vkCmdCopyBufferToImage(cmd, staging, m_image, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL, uint32(regions.size()),
                               regions.data());
        if (desc.ViewFlags & TextureViewFlags::SHADER_RESOURCE)
            renderer->Transition(cmd, *this, VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL);
    });
}

bool VulkanTexture::CreateMultisampleTwin()
{
    VulkanDevice& device = VulkanRenderer::Get()->GetDevice();
    const TextureDesc& desc = GetDesc();
    VkImageCreateInfo info = {VK_STRUCTURE_TYPE_IMAGE_CREATE_INFO};
    info.imageType = VK_IMAGE_TYPE_2D;
    info.format = m_targetFormat;
    info.extent = {desc.Width, desc.Height, 1};
    info.mipLevels = 1;
    info.arrayLayers = 1;
    info.samples = VkSampleCountFlagBits(m_samples);
    info.tiling = VK_IMAGE_TILING_OPTIMAL;
    info.usage = VK_IMAGE_USAGE_COLOR_ATTACHMENT_BIT | VK_IMAGE_USAGE_TRANSFER_DST_BIT;
    info.sharingMode = VK_SHARING_MODE_EXCLUSIVE;
    info.initialLayout = VK_IMAGE_LAYOUT_UNDEFINED;
    VkResult result = vkCreateImage(device.GetDevice(), &info, nullptr, &m_msaaImage);
    if (result != VK_SUCCESS)
    {
        m_msaaImage = VK_NULL_HANDLE;
        Log::Format(LOG_WARNING, u"Vulkan: a target of %u samples could not be made (%d).\n", m_samples, int(result));
        return false;
    }
    m_msaaLayout = VK_IMAGE_LAYOUT_UNDEFINED;
    VkMemoryRequirements requirements;
    vkGetImageMemoryRequirements(device.GetDevice(), m_msaaImage, &requirements);
    if (!device.GetMemory().Allocate(requirements, VK_MEMORY_PROPERTY_DEVICE_LOCAL_BIT, false, m_msaaMemory) ||
        vkBindImageMemory(device.GetDevice(), m_msaaImage, m_msaaMemory.Memory, m_msaaMemory.Offset) != VK_SUCCESS)
    {
        Log::Format(LOG_WARNING, u"Vulkan: no memory for a target of %u samples.\n", m_samples);
        return false;
    }
    VkImageViewCreateInfo view = {VK_STRUCTURE_TYPE_IMAGE_VIEW_CREATE_INFO};
    view.image = m_msaaImage;
    view.viewType = VK_IMAGE_VIEW_TYPE_2D;
    view.format = m_targetFormat;
    view.subresourceRange = {VK_IMAGE_ASPECT_COLOR_BIT, 0, 1, 0, 1};
    if (vkCreateImageView(device.GetDevice(), &view, nullptr, &m_msaaView) != VK_SUCCESS)
    {
        m_msaaView = VK_NULL_HANDLE;
        return false;
    }
    return true;
}

VkImageView VulkanTexture::GetTargetView(uint32 slice)
{
    if (slice >= m_targetViews.size() || !m_image)
        return VK_NULL_HANDLE;
    if (m_targetViews[slice])
        return m_targetViews[slice];
    VulkanRenderer* renderer = VulkanRenderer::Get();
    if (!renderer)
        return VK_NULL_HANDLE;
    VkImageViewCreateInfo view = {VK_STRUCTURE_TYPE_IMAGE_VIEW_CREATE_INFO};
    view.image = m_image;
    view.viewType = GetDesc().Dimension == TextureDimension::_1D ? VK_IMAGE_VIEW_TYPE_1D : VK_IMAGE_VIEW_TYPE_2D;
    view.format = m_targetFormat;
    view.subresourceRange = {VulkanFormats::AspectOf(m_format), 0, 1, slice, 1};
    VkResult result = vkCreateImageView(renderer->GetDevice().GetDevice(), &view, nullptr, &m_targetViews[slice]);
    if (result != VK_SUCCESS)
    {
        m_targetViews[slice] = VK_NULL_HANDLE;
        Log::Format(LOG_WARNING, u"Vulkan: a target view of slice %u could not be made (%d).\n", slice, int(result));
    }
    else
        renderer->GetDevice().GetDebug().Name(VK_OBJECT_TYPE_IMAGE_VIEW, m_targetViews[slice],
                                              GetDebugName() + " (target " + std::to_string(slice) + ")");
    return m_targetViews[slice];
}

void VulkanTexture::GenerateMips()
{
    VulkanRenderer* renderer = VulkanRenderer::Get();
    const TextureDesc& desc = GetDesc();
    if (!renderer || !m_image || Mips(desc) < 2)
        return;
    const VkFormatFeatureFlags needed = VK_FORMAT_FEATURE_BLIT_SRC_BIT | VK_FORMAT_FEATURE_BLIT_DST_BIT |
                                        VK_FORMAT_FEATURE_SAMPLED_IMAGE_FILTER_LINEAR_BIT;
    if ((renderer->GetDevice().GetFormatFeatures(m_format) & needed) != needed)
    {
        Log::Format(LOG_INFO, u"Vulkan: mips of format %u cannot be generated on this device.\n", desc.Format);
        return;
    }
    std::lock_guard<std::recursive_mutex> lock(renderer->GetDevice().GetLock());
    VkCommandBuffer cmd = renderer->GetFrameCommands();
    if (!cmd)
        return;
    // Mip 0 becomes a transfer source, the rest destinations; each mip turns
    // into a source once written, so the whole chain ends as sources.
    const uint32 layers = desc.Dimension == TextureDimension::_3D ? 1 : desc.ArraySize;
    const VkImageAspectFlags aspect = VulkanFormats::AspectOf(m_format);
    auto barrier = [&](uint32 mip, uint32 count, VkImageLayout from, VkImageLayout to) {
        VkImageMemoryBarrier b = {VK_STRUCTURE_TYPE_IMAGE_MEMORY_BARRIER};
        b.srcAccessMask = VK_ACCESS_MEMORY_WRITE_BIT;
        b.dstAccessMask = VK_ACCESS_TRANSFER_READ_BIT | VK_ACCESS_TRANSFER_WRITE_BIT;
        b.oldLayout = from;
        b.newLayout = to;
        b.srcQueueFamilyIndex = b.dstQueueFamilyIndex = VK_QUEUE_FAMILY_IGNORED;
        b.image = m_image;
        b.subresourceRange = {aspect, mip, count, 0, layers};
        vkCmdPipelineBarrier(cmd, VK_PIPELINE_STAGE_ALL_COMMANDS_BIT, VK_PIPELINE_STAGE_TRANSFER_BIT, 0, 0, nullptr, 0,
                             nullptr, 1, &b);
    };
    barrier(0, 1, m_layout, VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL);
    barrier(1, Mips(desc) - 1, m_layout, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL);
    for (uint32 mip = 1; mip < Mips(desc); ++mip)
    {
        VkImageBlit blit = {};
        blit.srcSubresource = {aspect, mip - 1, 0, layers};
        blit.srcOffsets[1] = {int32(desc.GetMipWidth(mip - 1)), int32(desc.GetMipHeight(mip - 1)),
                              int32(desc.Dimension == TextureDimension::_3D ? desc.GetMipDepth(mip - 1) : 1)};
        blit.dstSubresource = {aspect, mip, 0, layers};
        blit.dstOffsets[1] = {int32(desc.GetMipWidth(mip)), int32(desc.GetMipHeight(mip)),
                              int32(desc.Dimension == TextureDimension::_3D ? desc.GetMipDepth(mip) : 1)};
        vkCmdBlitImage(cmd, m_image, VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL, m_image,
                       VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL, 1, &blit, VK_FILTER_LINEAR);
        barrier(mip, 1, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL, VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL);
    }
    m_layout = VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL;
}

void VulkanTexture::ReleaseDeviceHandle()
{
    if (!m_image && !m_buffer && !m_sampledView && m_targetViews.empty() && !m_memory.IsValid() && !m_msaaImage &&
        !m_msaaMemory.IsValid() && !m_mapBuffer)
        return;
    VulkanRenderer* renderer = VulkanRenderer::Get();
    if (!renderer || !renderer->GetDevice().IsOpen())
    {
        // The device went first: its objects went with it.
        m_image = VK_NULL_HANDLE;
        m_buffer = VK_NULL_HANDLE;
        m_sampledView = VK_NULL_HANDLE;
        m_targetViews.clear();
        m_memory = VulkanAllocation();
        m_msaaImage = VK_NULL_HANDLE;
        m_msaaView = VK_NULL_HANDLE;
        m_msaaMemory = VulkanAllocation();
        m_mapBuffer = VK_NULL_HANDLE;
        m_mapMemory = VulkanAllocation();
        return;
    }
    if (m_mapBuffer)
        renderer->DestroyTransferBuffer(m_mapBuffer, m_mapMemory);
    VkDevice device = renderer->GetDevice().GetDevice();
    VkImage image = m_image;
    VkBuffer buffer = m_buffer;
    VkImageView view = m_sampledView;
    std::vector<VkImageView> targets;
    targets.swap(m_targetViews);
    VulkanAllocation memory = m_memory;
    VkImage twin = m_msaaImage;
    VkImageView twinView = m_msaaView;
    VulkanAllocation twinMemory = m_msaaMemory;
    m_msaaImage = VK_NULL_HANDLE;
    m_msaaView = VK_NULL_HANDLE;
    m_msaaMemory = VulkanAllocation();
    m_msaaLayout = VK_IMAGE_LAYOUT_UNDEFINED;
    m_image = VK_NULL_HANDLE;
    m_buffer = VK_NULL_HANDLE;
    m_sampledView = VK_NULL_HANDLE;
    m_memory = VulkanAllocation();
    m_layout = VK_IMAGE_LAYOUT_UNDEFINED;
    renderer->DeferDestroy([=]() mutable {
        if (twinView)
            vkDestroyImageView(device, twinView, nullptr);
        if (twin)
            vkDestroyImage(device, twin, nullptr);
        renderer->GetDevice().GetMemory().Free(twinMemory);
        if (view)
            vkDestroyImageView(device, view, nullptr);
        for (VkImageView target : targets)
            if (target)
                vkDestroyImageView(device, target, nullptr);
        if (image)
            vkDestroyImage(device, image, nullptr);
        if (buffer)
            vkDestroyBuffer(device, buffer, nullptr);
        renderer->GetDevice().GetMemory().Free(memory);
    });
}

bool VulkanTexture::DeviceMap(MappedSubresource& out, MapType type, uint32 subresource)
{
    VulkanRenderer* renderer = VulkanRenderer::Get();
    if (!renderer || subresource >= GetNumSubresources())
        return false;
    if (m_image)
    {
        if (type == MapType::WriteDiscard && IsDynamicResource())
            return MapForDiscard(out, subresource);
        Log::Print(LOG_WARNING, u"Vulkan: a texture in device memory maps only as a dynamic one, with WriteDiscard.\n");
        return false;
    }
    if (!m_buffer)
        return false;
    // What the device wrote must be complete before the CPU reads it, and
    // what it is still to read before the CPU writes over it.
    if (!renderer->SubmitFrame(true))
        return false;
    const TextureDesc& desc = GetDesc();
    const uint32 mips = Mips(desc);
    const uint32 mip = subresource % mips, slice = subresource / mips;
    uint32 rowBytes = 0, rows = 0;
    desc.GetRowPitch(rowBytes, rows, mip, desc.Format);
    out.pData = m_memory.Mapped + desc.GetDataOffset(slice, mip, 0, desc.Format);
    out.RowPitch = rowBytes;
    out.DepthPitch = uint32(desc.GetSlicePitch(mip, desc.Format));
    return true;
}

bool VulkanTexture::MapForDiscard(MappedSubresource& out, uint32 subresource)
{
    VulkanRenderer* renderer = VulkanRenderer::Get();
    std::lock_guard<std::recursive_mutex> lock(renderer->GetDevice().GetLock());
    if (m_mapBuffer)
    {
        Log::Print(LOG_WARNING, u"Vulkan: a dynamic texture is mapped twice.\n");
        return false;
    }
    const TextureDesc& desc = GetDesc();
    const uint32 mip = subresource % Mips(desc);
    uint32 rowBytes = 0, rows = 0;
    desc.GetRowPitch(rowBytes, rows, mip, desc.Format);
    const uint64 slicePitch = uint64(rowBytes) * rows;
    if (!renderer->CreateTransferBuffer(slicePitch * desc.GetMipDepth(mip), m_mapBuffer, m_mapMemory))
        return false;
    m_mapSubresource = subresource;
    out.pData = m_mapMemory.Mapped;
    out.RowPitch = rowBytes;
    out.DepthPitch = uint32(slicePitch);
    return true;
}

void VulkanTexture::DeviceUnmap(uint32)
{
    VulkanRenderer* renderer = VulkanRenderer::Get();
    if (!renderer || !m_mapBuffer)
        return;
    std::lock_guard<std::recursive_mutex> lock(renderer->GetDevice().GetLock());
    VkBuffer buffer = m_mapBuffer;
    VulkanAllocation memory = m_mapMemory;
    m_mapBuffer = VK_NULL_HANDLE;
    m_mapMemory = VulkanAllocation();
    VkCommandBuffer cmd = m_image ? renderer->GetFrameCommands() : VK_NULL_HANDLE;
    if (!cmd)
    {
        renderer->DestroyTransferBuffer(buffer, memory);
        return;
    }
    const TextureDesc& desc = GetDesc();
    const uint32 mip = m_mapSubresource % Mips(desc), slice = m_mapSubresource / Mips(desc);
    const bool volume = desc.Dimension == TextureDimension::_3D;
    VkBufferImageCopy region = {};
    region.imageSubresource = {VK_IMAGE_ASPECT_COLOR_BIT, mip, volume ? 0 : slice, 1};
    region.imageExtent = {desc.GetMipWidth(mip), desc.GetMipHeight(mip), volume ? desc.GetMipDepth(mip) : 1};
    renderer->Transition(cmd, *this, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL);
    vkCmdCopyBufferToImage(cmd, buffer, m_image, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL, 1, &region);
    if (desc.ViewFlags & TextureViewFlags::SHADER_RESOURCE)
        renderer->Transition(cmd, *this, VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL);
    renderer->DeferDestroy([renderer, buffer, memory]() mutable { renderer->DestroyTransferBuffer(buffer, memory); });
}

bool VulkanTexture::DeviceUpdateSubresource(uint32 subresource, const MappedSubresource& data, const MappedBox* box)
{
    VulkanRenderer* renderer = VulkanRenderer::Get();
    const TextureDesc& desc = GetDesc();
    if (!renderer || !m_image)
        return false;
    const uint32 mip = subresource % Mips(desc), slice = subresource / Mips(desc);
    MappedBox whole = {0, 0, 0, desc.GetMipWidth(mip), desc.GetMipHeight(mip), desc.GetMipDepth(mip)};
    const MappedBox& b = box ? *box : whole;
    // The box's rows packed tightly, as the copy reads them.
    TextureDesc part;
    part.Width = b.right - b.left;
    part.Height = b.bottom - b.top;
    uint32 rowBytes = 0, rows = 0;
    part.GetRowPitch(rowBytes, rows, 0, desc.Format);
    const uint32 depth = b.back - b.front;
    std::vector<uint8> packed(size_t(rowBytes) * rows * depth);
    for (uint32 z = 0; z < depth; ++z)
        for (uint32 y = 0; y < rows; ++y)
            memcpy(packed.data() + (size_t(z) * rows + y) * rowBytes,
                   static_cast<const uint8*>(data.pData) + size_t(z) * data.DepthPitch + size_t(y) * data.RowPitch,
                   rowBytes);
    const bool volume = desc.Dimension == TextureDimension::_3D;
    VkBufferImageCopy region = {};
    const VkImageAspectFlags aspects = VulkanFormats::AspectOf(m_format);
    region.imageSubresource.aspectMask =
        aspects & VK_IMAGE_ASPECT_DEPTH_BIT ? VK_IMAGE_ASPECT_DEPTH_BIT : VK_IMAGE_ASPECT_COLOR_BIT;
    region.imageSubresource.mipLevel = mip;
    region.imageSubresource.baseArrayLayer = volume ? 0 : slice;
    region.imageSubresource.layerCount = 1;
    region.imageOffset = {int32(b.left), int32(b.top), int32(volume ? b.front : 0)};
    region.imageExtent = {part.Width, part.Height, volume ? depth : 1};
    std::lock_guard<std::recursive_mutex> lock(renderer->GetDevice().GetLock());
    const VkImageLayout after =
        m_layout == VK_IMAGE_LAYOUT_UNDEFINED ? VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL : m_layout;
    return renderer->Upload(packed.data(), packed.size(), [&](VkCommandBuffer cmd, VkBuffer staging) {
        renderer->Transition(cmd, *this, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL);
        vkCmdCopyBufferToImage(cmd, staging, m_image, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL, 1, &region);
        if (after != VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL && (desc.ViewFlags & TextureViewFlags::SHADER_RESOURCE))
            renderer->Transition(cmd, *this, after);
    });
}

bool VulkanTexture::DeviceCopyResource(GraphicsResource* dst)
{
    auto* target = static_cast<VulkanTexture*>(dst);
    VulkanRenderer* renderer = VulkanRenderer::Get();
    if (!renderer)
        return false;
    std::lock_guard<std::recursive_mutex> lock(renderer->GetDevice().GetLock());
    VkCommandBuffer cmd = renderer->GetFrameCommands();
    if (!cmd || (!m_image && !m_buffer) || (!target->m_image && !target->m_buffer))
        return false;
    const TextureDesc& desc = GetDesc();
    if (m_image && target->m_buffer)
    {
        std::vector<VkBufferImageCopy> regions = Regions(desc, VulkanFormats::AspectOf(m_format));
        renderer->Transition(cmd, *this, VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL);
        vkCmdCopyImageToBuffer(cmd, m_image, VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL, target->m_buffer,
                               uint32(regions.size()), regions.data());
        // Host reads after the copy are made visible by the wait of Map.
        VkMemoryBarrier toHost = {VK_STRUCTURE_TYPE_MEMORY_BARRIER};
        toHost.srcAccessMask = VK_ACCESS_TRANSFER_WRITE_BIT;
        toHost.dstAccessMask = VK_ACCESS_HOST_READ_BIT;
        vkCmdPipelineBarrier(cmd, VK_PIPELINE_STAGE_TRANSFER_BIT, VK_PIPELINE_STAGE_HOST_BIT, 0, 1, &toHost, 0,
                             nullptr, 0, nullptr);
        return true;
    }
    if (m_buffer && target->m_image)
    {
        std::vector<VkBufferImageCopy> regions = Regions(desc, VulkanFormats::AspectOf(target->m_format));
        renderer->Transition(cmd, *target, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL);
        vkCmdCopyBufferToImage(cmd, m_buffer, target->m_image, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL,
                               uint32(regions.size()), regions.data());
        return true;
    }
    if (m_image && target->m_image)
    {
        std::vector<VkImageCopy> regions;
        const VkImageAspectFlags aspects = VulkanFormats::AspectOf(m_format);
        for (uint32 mip = 0; mip < Mips(desc); ++mip)
        {
            VkImageCopy region = {};
            region.srcSubresource = {aspects, mip, 0, desc.Dimension == TextureDimension::_3D ? 1 : desc.ArraySize};
            region.dstSubresource = region.srcSubresource;
            region.extent = {desc.GetMipWidth(mip), desc.GetMipHeight(mip),
                             desc.Dimension == TextureDimension::_3D ? desc.GetMipDepth(mip) : 1};
            regions.push_back(region);
        }
        renderer->Transition(cmd, *this, VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL);
        renderer->Transition(cmd, *target, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL);
        vkCmdCopyImage(cmd, m_image, VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL, target->m_image,
                       VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL, uint32(regions.size()), regions.data());
        return true;
    }
    // Buffer to buffer: both staging.
    VkBufferCopy region = {0, 0, m_memory.Size < target->m_memory.Size ? m_memory.Size : target->m_memory.Size};
    vkCmdCopyBuffer(cmd, m_buffer, target->m_buffer, 1, &region);
    return true;
}

// --- Buffers -------------------------------------------------------------------------------

bool VulkanBufferMemory::Create(GraphicsBuffer& owner, VkBufferUsageFlags usage)
{
    VulkanRenderer* renderer = OpenRenderer(u"a buffer");
    if (!renderer)
        return false;
    GraphicsStream* stream = owner.GetStream().Get();
    m_size = owner.GetByteWidth();
    if (m_size == 0 && stream)
        m_size = stream->GetLength();
    if (m_size == 0)
    {
        Log::Print(LOG_WARNING, u"Vulkan: a buffer of no bytes.\n");
        return false;
    }
    VulkanDevice& device = renderer->GetDevice();
    std::lock_guard<std::recursive_mutex> lock(device.GetLock());
    // One copy for each frame that may be in flight, and the one written.
    m_copies = owner.IsDynamicResource() ? VulkanRenderer::kFramesInFlight + 1 : 1;
    m_current = 0;
    VkBufferCreateInfo info = {VK_STRUCTURE_TYPE_BUFFER_CREATE_INFO};
    info.size = uint64(m_size) * m_copies;
    info.usage = usage | VK_BUFFER_USAGE_TRANSFER_SRC_BIT | VK_BUFFER_USAGE_TRANSFER_DST_BIT;
    info.sharingMode = VK_SHARING_MODE_EXCLUSIVE;
    VkResult result = vkCreateBuffer(device.GetDevice(), &info, nullptr, &m_buffer);
    if (result != VK_SUCCESS)
    {
        m_buffer = VK_NULL_HANDLE;
        Log::Format(LOG_WARNING, u"Vulkan: a buffer of %u bytes could not be made (%d).\n", m_size, int(result));
        return false;
    }
    VkMemoryRequirements requirements;
    vkGetBufferMemoryRequirements(device.GetDevice(), m_buffer, &requirements);
    VkMemoryPropertyFlags properties = IsDynamic()
                                           ? VK_MEMORY_PROPERTY_HOST_VISIBLE_BIT | VK_MEMORY_PROPERTY_HOST_COHERENT_BIT
                                           : VK_MEMORY_PROPERTY_DEVICE_LOCAL_BIT;
    if (!device.GetMemory().Allocate(requirements, properties, true, m_memory) ||
        vkBindBufferMemory(device.GetDevice(), m_buffer, m_memory.Memory, m_memory.Offset) != VK_SUCCESS)
    {
        Log::Format(LOG_WARNING, u"Vulkan: no memory for a buffer of %u bytes.\n", m_size);
        Release();
        return false;
    }
    device.GetDebug().Name(VK_OBJECT_TYPE_BUFFER, m_buffer, VulkanBufferName(usage, m_size, m_copies));
    GraphicsStream* content = stream ? stream->GetGpuReadStream() : nullptr;
    if (!content || !content->GetPointer(0))
        content = stream;
    if (content && content->GetPointer(0) && !Write(content->GetPointer(0), content->GetLength()))
    {
        Release();
        return false;
    }
    return true;
}

void VulkanBufferMemory::Release()
{
    if (!m_buffer && !m_memory.IsValid())
        return;
    VulkanRenderer* renderer = VulkanRenderer::Get();
    VkBuffer buffer = m_buffer;
    VulkanAllocation memory = m_memory;
    m_buffer = VK_NULL_HANDLE;
    m_memory = VulkanAllocation();
    if (!renderer || !renderer->GetDevice().IsOpen())
        return; // the device went first, and its objects with it
    VkDevice device = renderer->GetDevice().GetDevice();
    renderer->DeferDestroy([renderer, device, buffer, memory]() mutable {
        if (buffer)
            vkDestroyBuffer(device, buffer, nullptr);
        renderer->GetDevice().GetMemory().Free(memory);
    });
}

uint8* VulkanBufferMemory::BeginDynamicWrite()
{
    if (!IsDynamic() || !m_memory.Mapped)
        return nullptr;
    m_writing = (m_current + 1) % m_copies;
    return m_memory.Mapped + uint64(m_writing) * m_size;
}

void VulkanBufferMemory::EndDynamicWrite()
{
    if (IsDynamic())
        m_current = m_writing;
}

bool VulkanBufferMemory::Refresh(GraphicsBuffer& owner)
{
    GraphicsStream* stream = owner.GetStream().Get();
    if (!IsDynamic() || !stream)
        return true;
    GraphicsStream* read = stream->GetGpuReadStream();
    if (!read || !read->GetPointer(0))
        read = stream;
    if (!read->IsDirty())
        return true;
    if (!Write(read->GetPointer(0), read->GetLength()))
        return false;
    read->MakeClean();
    return true;
}

bool VulkanBufferMemory::Write(const void* data, uint32 size)
{
    if (!m_buffer || !data)
        return false;
    if (size > m_size)
        size = m_size;
    if (IsDynamic())
    {
        uint8* target = BeginDynamicWrite();
        if (!target)
            return false;
        memcpy(target, data, size);
        EndDynamicWrite();
        return true;
    }
    VulkanRenderer* renderer = VulkanRenderer::Get();
    if (!renderer)
        return false;
    return renderer->Upload(data, size, [&](VkCommandBuffer cmd, VkBuffer staging) {
        // Earlier draws finish reading the buffer before the copy; later ones
        // see what it wrote.
        VkMemoryBarrier barrier = {VK_STRUCTURE_TYPE_MEMORY_BARRIER};
        barrier.srcAccessMask = VK_ACCESS_MEMORY_READ_BIT | VK_ACCESS_MEMORY_WRITE_BIT;
        barrier.dstAccessMask = VK_ACCESS_TRANSFER_WRITE_BIT;
        vkCmdPipelineBarrier(cmd, VK_PIPELINE_STAGE_ALL_COMMANDS_BIT, VK_PIPELINE_STAGE_TRANSFER_BIT, 0, 1, &barrier,
                             0, nullptr, 0, nullptr);
        VkBufferCopy region = {0, 0, size};
        vkCmdCopyBuffer(cmd, staging, m_buffer, 1, &region);
        barrier.srcAccessMask = VK_ACCESS_TRANSFER_WRITE_BIT;
        barrier.dstAccessMask = VK_ACCESS_MEMORY_READ_BIT;
        vkCmdPipelineBarrier(cmd, VK_PIPELINE_STAGE_TRANSFER_BIT, VK_PIPELINE_STAGE_ALL_COMMANDS_BIT, 0, 1, &barrier,
                             0, nullptr, 0, nullptr);
    });
}

} // namespace KovexEngine
