#pragma once

// Device objects of the Vulkan backend: textures (images with their views,
// or host-visible buffers for staging textures), and vertex and index
// buffers, all in sub-allocated memory.
//
// A texture tracks the layout of its whole image; every transition goes
// through VulkanRenderer::Transition while the device lock is held, in the
// order the commands reach the queue.
//
// Threads: CreateDeviceHandle and ReleaseDeviceHandle run on the graphics
// side, as for every graphics object; they take the device lock, so the
// main thread may record frame commands meanwhile. Map/Unmap belong to the
// thread that records frames.
//
// Mapping: a staging texture maps its own memory (after waiting for the
// device). A dynamic texture maps with WriteDiscard only: each map hands out
// a fresh host buffer for that subresource (rows packed as GetRowPitch
// gives them) and Unmap records its copy into the frame's commands; the
// buffer goes once that frame is complete, so nothing waits for the device.

#include <string>
#include <vector>

#include <vulkan/vulkan.h>

#include "graphics/ConstantBuffer.h"
#include "graphics/IndexBuffer.h"
#include "graphics/RWBuffer.h"
#include "graphics/TextureFactory.h"
#include "graphics/VertexBuffer.h"
#include "graphics/vulkan/VulkanMemory.h"

namespace KovexEngine {

class KOVEX_API VulkanTexture : public Texture
{
    KOVEX_CLASS(VulkanTexture)

public:
    ~VulkanTexture() override;
    bool CreateDeviceHandle() override;
    void ReleaseDeviceHandle() override;
    // Mips 1 and up from mip 0, each a linear 2x reduction of the one above,
    // recorded into the frame; a format the device cannot blit and filter
    // logs and leaves the chain as it is.
    void GenerateMips() override;
    // Renames the image, its views (or a staging texture's buffer) in
    // captures and validation messages; without one, a texture is named by
    // VulkanTextureName.
    void SetDebugName(const char* name) override;
    // The name its Vulkan objects carry.
    std::string GetDebugName() const;

    VkImage GetImage() const { return m_image; }
    VkFormat GetVkFormat() const { return m_format; }
    VkImageView GetSampledView() const { return m_sampledView; }
    // The render-target or depth-stencil view of mip 0 of one array slice
    // (made on first use; call with the device lock held), and the format
    // it writes. Null for a texture without such views or a slice beyond
    // its array.
    VkImageView GetTargetView(uint32 slice);
    VkFormat GetTargetFormat() const { return m_targetFormat; }
    VkImageLayout GetLayout() const { return m_layout; }
    void SetLayout(VkImageLayout layout) { m_layout = layout; }
    // A staging texture is a buffer of its subresources one after the
    // other, as TextureDesc::GetDataOffset lays them out.
    VkBuffer GetStagingBuffer() const { return m_buffer; }
    uint32 GetNumSubresources() const;

    // Samples per pixel, set before the device handle is made (the renderer
    // does it for the back and depth buffer). A multisampled depth target
    // is itself multisampled; a multisampled colour target draws into a
    // twin image of that many samples, which each draw resolves into this
    // one, so copies and read-backs see resolved pixels.
    void SetSampleCount(uint32 samples) { m_samples = samples ? samples : 1; }
    uint32 GetSampleCount() const { return m_samples; }
    VkImage GetMultisampleImage() const { return m_msaaImage; }
    VkImageView GetMultisampleView() const { return m_msaaView; }
    VkImageLayout& MultisampleLayout() { return m_msaaLayout; }

protected:
    bool DeviceMap(MappedSubresource& out, MapType type, uint32 subresource) override;
    void DeviceUnmap(uint32 subresource) override;
    bool DeviceCopyResource(GraphicsResource* dst) override;
    // Rows of `data` (its row and depth pitch) into the box of one
    // subresource, through a staging buffer within the frame's commands.
    bool DeviceUpdateSubresource(uint32 subresource, const MappedSubresource& data, const MappedBox* box) override;

private:
    bool CreateImage();
    bool CreateMultisampleTwin();
    bool CreateStaging();
    bool MapForDiscard(MappedSubresource& out, uint32 subresource);
    void ApplyDebugName();
    std::string m_debugName;
    VkImage m_image = VK_NULL_HANDLE;
    VkBuffer m_buffer = VK_NULL_HANDLE;
    VkImageView m_sampledView = VK_NULL_HANDLE;
    std::vector<VkImageView> m_targetViews; // by slice
    VkFormat m_format = VK_FORMAT_UNDEFINED;
    VkFormat m_targetFormat = VK_FORMAT_UNDEFINED;
    VkImageLayout m_layout = VK_IMAGE_LAYOUT_UNDEFINED;
    VulkanAllocation m_memory;
    uint32 m_samples = 1;
    VkImage m_msaaImage = VK_NULL_HANDLE;
    VkImageView m_msaaView = VK_NULL_HANDLE;
    VkImageLayout m_msaaLayout = VK_IMAGE_LAYOUT_UNDEFINED;
    VulkanAllocation m_msaaMemory;
    // The open write-discard map of a dynamic texture.
    VkBuffer m_mapBuffer = VK_NULL_HANDLE;
    VulkanAllocation m_mapMemory;
    uint32 m_mapSubresource = 0;
};

class KOVEX_API VulkanTextureFactory : public TextureFactory
{
protected:
    Texture* NewTexture() override { return new VulkanTexture(); }
};

// The device side shared by vertex and index buffers. Default and immutable
// buffers live in device-local memory, filled from their stream through a
// staging buffer. Dynamic ones hold kFramesInFlight copies in host-visible
// memory: each write goes to the copy that no frame in flight reads, so no
// write waits for the device.
class KOVEX_API VulkanBufferMemory
{
public:
    bool Create(GraphicsBuffer& owner, VkBufferUsageFlags usage);
    void Release();
    // Bytes into the next copy of a dynamic buffer (made current), or
    // through a staging copy otherwise.
    bool Write(const void* data, uint32 size);
    VkBuffer GetBuffer() const { return m_buffer; }
    // Where the current copy starts in the buffer.
    uint64 GetOffset() const { return uint64(m_current) * m_size; }
    uint32 GetSize() const { return m_size; }
    bool IsDynamic() const { return m_copies > 1; }
    uint8* BeginDynamicWrite();
    void EndDynamicWrite();
    // Before a draw: a dynamic buffer whose stream the device reads (its
    // GPU-read twin once the frame swapped them) has changed takes it into
    // its next copy, and the stream is clean again.
    bool Refresh(GraphicsBuffer& owner);

private:
    VkBuffer m_buffer = VK_NULL_HANDLE;
    VulkanAllocation m_memory;
    uint32 m_size = 0;
    uint32 m_copies = 1;
    uint32 m_current = 0;
    uint32 m_writing = 0;
};

template <typename BASE>
class TVulkanBuffer : public BASE
{
public:
    ~TVulkanBuffer() override { m_device.Release(); }
    void ReleaseDeviceHandle() override { m_device.Release(); }
    VulkanBufferMemory& GetDeviceMemory() { return m_device; }

protected:
    bool DeviceMap(MappedSubresource& out, MapType type, uint32) override
    {
        // A discarding map hands out the copy no frame reads; other maps of
        // device memory are not offered.
        if (type != MapType::WriteDiscard || !m_device.IsDynamic())
            return false;
        out.pData = m_device.BeginDynamicWrite();
        out.RowPitch = out.DepthPitch = m_device.GetSize();
        return out.pData != nullptr;
    }
    void DeviceUnmap(uint32) override { m_device.EndDynamicWrite(); }
    VulkanBufferMemory m_device;
};

class KOVEX_API VulkanVertexBuffer : public TVulkanBuffer<VertexBuffer>
{
    KOVEX_CLASS(VulkanVertexBuffer)
public:
    bool CreateDeviceHandle() override { return m_device.Create(*this, VK_BUFFER_USAGE_VERTEX_BUFFER_BIT); }
};

class KOVEX_API VulkanIndexBuffer : public TVulkanBuffer<IndexBuffer>
{
    KOVEX_CLASS(VulkanIndexBuffer)
public:
    bool CreateDeviceHandle() override { return m_device.Create(*this, VK_BUFFER_USAGE_INDEX_BUFFER_BIT); }
};

// Constant buffers are dynamic: each change goes to the next copy.
class KOVEX_API VulkanConstantBuffer : public TVulkanBuffer<ConstantBuffer>
{
    KOVEX_CLASS(VulkanConstantBuffer)
public:
    // Where program draws of the frame being recorded read its content (a
    // copy in VulkanProgramBinder's ring, made when the content changed or
    // the frame did).
    struct RingCopy
    {
        uint64 Begun = 0; // VulkanRenderer::GetFrameBegun at the copy
        VkBuffer Buffer = VK_NULL_HANDLE;
        uint64 Offset = 0;
    };
    RingCopy& GetRingCopy() { return m_ring; }

private:
    RingCopy m_ring;

protected:
    bool DeviceCreateBuffer() override { return m_device.Create(*this, VK_BUFFER_USAGE_UNIFORM_BUFFER_BIT); }
};

class KOVEX_API VulkanRWBuffer : public TVulkanBuffer<RWBuffer>
{
    KOVEX_CLASS(VulkanRWBuffer)
public:
    bool CreateDeviceHandle() override
    {
        return m_device.Create(*this, VK_BUFFER_USAGE_STORAGE_BUFFER_BIT | VK_BUFFER_USAGE_STORAGE_TEXEL_BUFFER_BIT);
    }
};

class KOVEX_API VulkanConstantBufferFactory : public ConstantBufferFactory
{
protected:
    ConstantBuffer* NewConstantBuffer() override { return new VulkanConstantBuffer(); }
};

class KOVEX_API VulkanRWBufferFactory : public RWBufferFactory
{
protected:
    RWBuffer* NewRWBuffer() override { return new VulkanRWBuffer(); }
};

class KOVEX_API VulkanVertexBufferFactory : public VertexBufferFactory
{
protected:
    VertexBuffer* NewVertexBuffer() override { return new VulkanVertexBuffer(); }
};

class KOVEX_API VulkanIndexBufferFactory : public IndexBufferFactory
{
protected:
    IndexBuffer* NewIndexBuffer() override { return new VulkanIndexBuffer(); }
};

} // namespace KovexEngine
