#pragma once

// The texture object: a graphics resource with its description and the path
// it was loaded from. TextureFactory creates, pools and shares them.
//
// Threads: as GraphicsObject; the description is set before the texture is
// posted and read-only afterwards.

#include "graphics/GraphicsFormat.h"
#include "graphics/GraphicsObject.h"
#include "graphics/TextureDesc.h"
#include "kernel/Strings.h"

namespace KovexEngine {

class KOVEX_API Texture : public GraphicsResource
{
    KOVEX_CLASS(Texture)

public:
    GraphicsFormat GetFormat() const { return GraphicsFormat(GraphicsFormat::TYPE(m_desc.Format)); }
    uint32 GetWidth() const { return m_desc.Width; }
    uint32 GetHeight() const { return m_desc.Height; }
    // A plain 2D texture of this size (the buffers of a swap chain).
    void SetSize(GraphicsFormat format, uint32 width, uint32 height);
    const TextureDesc& GetDesc() const { return m_desc; }
    void SetDesc(const TextureDesc& desc) { m_desc = desc; }
    const WString& GetPath() const { return m_path; }
    void SetPath(const WString& path) { m_path = path; }

    bool IsRenderTarget() const { return m_desc.ViewFlags & TextureViewFlags::RENDER_TARGET; }
    bool IsDepthStencil() const { return m_desc.ViewFlags & TextureViewFlags::DEPTH_STENCIL; }
    bool IsShaderResource() const { return m_desc.ViewFlags & TextureViewFlags::SHADER_RESOURCE; }
    bool IsUnorderedAccessView() const { return m_desc.ViewFlags & TextureViewFlags::UNORDERED_ACCESS; }
    virtual void GenerateMips() {}

    // Writes a box of one subresource (mip + MipLevels * arrayIndex) from
    // memory laid out as `data` says. False for a subresource out of range
    // or a device side that takes no updates. Called on the ticking thread.
    bool UpdateSubresource(uint32 subresource, const MappedSubresource& data, const MappedBox* box);
    // While a stream fills the texture from its smallest level up: the
    // lowest mip it holds. 0 for a complete texture.
    uint32 GetFirstResidentMip() const { return m_firstResidentMip.load(std::memory_order_acquire); }
    void SetFirstResidentMip(uint32 mip) { m_firstResidentMip.store(mip, std::memory_order_release); }

    // Only between textures of the same class, size, mip chain and bit layout.
    bool CanCopyTo(GraphicsResource* dst) override;
    // Bytes of the mapped subresource's rows (of the box, when given).
    uint32 CalculateDataSize(uint32 subresource, const MappedSubresource& mapped, const MappedBox* box) override;

    // The texture factory's front; null without a renderer.
    static Ptr<Texture> LoadFromPath(const WString& path);
    static Ptr<Texture> FindByPath(const WString& path);
    static Ptr<Texture> Create(const TextureDesc& desc, GraphicsResourceUsage usage);
    static Ptr<Texture> Create2DRT(uint32 width, uint32 height, GraphicsFormat format);
    static Ptr<Texture> Create2DDepth(uint32 width, uint32 height, GraphicsFormat format);
    static Ptr<Texture> Create2DTypelessRT(uint32 width, uint32 height, GraphicsFormat format,
                                           GraphicsFormat typelessRtvDsvFormat, GraphicsFormat typelessSrvUavFormat,
                                           uint32 viewFlags);
    static Ptr<Texture> Create2DStaging(uint32 width, uint32 height, GraphicsFormat format);
    static Ptr<Texture> CreateCubeRT(uint32 size, GraphicsFormat format);
    static Ptr<Texture> Require(const TextureDesc& desc, GraphicsResourceUsage usage, bool findClosest);
    static Ptr<Texture> Require2DRT(uint32 width, uint32 height, GraphicsFormat format);
    static Ptr<Texture> Require2DDepth(uint32 width, uint32 height, GraphicsFormat format);
    static Ptr<Texture> Require2DTypelessRT(uint32 width, uint32 height, GraphicsFormat format,
                                            GraphicsFormat typelessRtvDsvFormat, GraphicsFormat typelessSrvUavFormat,
                                            uint32 viewFlags);
    static Ptr<Texture> RequireCubeRT(uint32 size, GraphicsFormat format);
    static Ptr<Texture> Require2DStaging(uint32 width, uint32 height, GraphicsFormat format, bool findClosest);
    static void Recycle(Texture* texture);

    // Pixels for the device side to take when it is created; dropped then.
    void SetInitialData(const Ptr<Object>& owner, const uint8* data, uint32 size)
    {
        m_initialOwner = owner;
        m_initialData = data;
        m_initialSize = size;
    }
    const uint8* GetInitialData() const { return m_initialData; }
    uint32 GetInitialDataSize() const { return m_initialSize; }
    void DropInitialData() { SetInitialData(Ptr<Object>(), nullptr, 0); }

protected:
    virtual bool DeviceUpdateSubresource(uint32, const MappedSubresource&, const MappedBox*) { return false; }

private:
    std::atomic<uint32> m_firstResidentMip{0};
    TextureDesc m_desc;
    WString m_path;
    Ptr<Object> m_initialOwner;
    const uint8* m_initialData = nullptr;
    uint32 m_initialSize = 0;
};

// Up to eight colour targets and a depth buffer, each with an array index,
// bound as one; ClearOnApply asks the device to clear them when applied.
struct KOVEX_API RenderTargetGroup
{
    KOVEX_STRUCT(RenderTargetGroup)
    static constexpr unsigned kMaxTargets = 8;
    Ptr<Texture> RenderTargets[kMaxTargets];
    uint32 ArrayIndices[kMaxTargets] = {};
    Ptr<Texture> DepthBuffer;
    uint32 DepthArrayIndex = 0;
    bool ClearOnApply = false;

    // Drops every target and resets the indices.
    void Clear();
    // False, changing nothing, for a slot beyond the eight.
    bool SetRenderTarget(uint32 slot, const Ptr<Texture>& texture, uint32 arrayIndex);
    void SetDepthStencil(const Ptr<Texture>& texture, uint32 arrayIndex)
    {
        DepthBuffer = texture;
        DepthArrayIndex = arrayIndex;
    }
    // Slots holding a target, counted from slot 0 to the first empty one.
    uint32 GetNumTargets() const;
    bool operator==(const RenderTargetGroup& other) const;
    bool operator!=(const RenderTargetGroup& other) const { return !(*this == other); }
};

} // namespace KovexEngine
