#pragma once

// Creation, pooling and sharing of textures. A backend supplies NewTexture;
// everything else is device-independent.
//
// Threads: Create, CheckTextureDesc and the Create2D* forms are safe from
// any thread (the texture is posted as every graphics object is). The pools
// (Require*, Recycle, CleaupRT) belong to the thread that draws, one at a
// time, as render targets are taken and given back within a frame. OnTick
// and OnExit belong to the graphics side.

#include <functional>
#include <map>
#include <vector>

#include "graphics/Texture.h"

namespace KovexEngine {

class KOVEX_API TextureFactory : public GraphicsFactory
{
public:
    TextureFactory() : GraphicsFactory(FactoryType::TextureFactory) {}
    ~TextureFactory() override;
    static TextureFactory* Get() { return static_cast<TextureFactory*>(GetSlot(FactoryType::TextureFactory)); }

    // The pool key. Wider than one 64-bit word so that sizes above 65535
    // never share a stack with a smaller size; ordered formats first.
    struct PoolKey
    {
        uint64 High = 0; // RTV/DSV-typeless 8, SRV/UAV-typeless 8, format 8, view flags 4, dimension 4 bits
        uint64 Low = 0;  // width 32, height 32 bits
        bool operator<(const PoolKey& o) const { return High != o.High ? High < o.High : Low < o.Low; }
        bool operator==(const PoolKey& o) const { return High == o.High && Low == o.Low; }
    };

    // Pooled textures of one usage by key; a stack holds a reference to
    // each texture in it.
    class KOVEX_API TexturePool
    {
    public:
        static PoolKey Compress(const TextureDesc& desc);
        // Depth, array size and mip levels are left as they were.
        static void Decompress(const PoolKey& key, TextureDesc& desc);
        // The stack of the key, made empty when `create`; null otherwise.
        std::vector<Ptr<Texture>>* FindStack(const PoolKey& key, bool create);
        // Exact key first; with findClosest, the first pooled texture in key
        // order (narrowest, then lowest) of the same formats, views and
        // dimension that is not smaller than asked. Null when none fits.
        Ptr<Texture> Require(const TextureDesc& desc, bool findClosest);
        void Recycle(Texture* texture);
        void Cleanup();
        // Drops every pooled texture the predicate selects.
        void Cleanup(const std::function<bool(Texture*)>& select);
        // Textures pooled now.
        size_t GetNumPooled() const;

    private:
        std::map<PoolKey, std::vector<Ptr<Texture>>> m_stacks;
    };

    // The checks before a texture is made, each failure with its line.
    bool CheckTextureDesc(const TextureDesc& desc, GraphicsResourceUsage usage);
    // The dimension's size rules, then the limits a device has: no zero
    // side, no side above kMaxTextureSize, no more mips than the chain.
    virtual bool CheckTextureSize(const TextureDesc& desc);
    static constexpr uint32 kMaxTextureSize = 16384;
    static constexpr uint32 kMaxArraySize = 2048;

    // Null, with the check's line, for a description the device cannot make.
    // A mip count of 0 asks for the whole chain.
    Ptr<Texture> Create(const TextureDesc& desc, GraphicsResourceUsage usage, std::atomic<int32>* pending);
    Ptr<Texture> Create2DRT(uint32 width, uint32 height, GraphicsFormat format);
    Ptr<Texture> Create2DDepth(uint32 width, uint32 height, GraphicsFormat format);
    Ptr<Texture> Create2DStaging(uint32 width, uint32 height, GraphicsFormat format);
    Ptr<Texture> CreateCubeRT(uint32 size, GraphicsFormat format);

    TexturePool& GetTexturePool(GraphicsResourceUsage usage) { return m_pools[unsigned(usage) & 3]; }
    // From the usage's pool, else newly created.
    Ptr<Texture> Require(const TextureDesc& desc, GraphicsResourceUsage usage, bool findClosest);
    Ptr<Texture> Require2DRT(uint32 width, uint32 height, GraphicsFormat format);
    Ptr<Texture> Require2DRT(GraphicsFormat format, uint32 nthOfScreen);
    Ptr<Texture> Require2DDepth(uint32 width, uint32 height, GraphicsFormat format);
    Ptr<Texture> Require2DDepth(GraphicsFormat format, uint32 nthOfScreen);
    Ptr<Texture> Require2DStaging(uint32 width, uint32 height, GraphicsFormat format, bool findClosest);
    // Back to its usage's pool; null is ignored.
    void Recycle(Texture* texture);
    void Recycle(TArray<Ptr<Texture>>& textures);
    void CleaupRT(const std::function<bool(Texture*)>& select) { GetTexturePool(GraphicsResourceUsage::Default).Cleanup(select); }
    // The back buffer's size shifted right by nthOfScreen (0 to 4), at least 1.
    void GetScreenSize(uint32& width, uint32& height, uint32 nthOfScreen) const;

    void OnExit() override;

    static TextureDesc Make2DDesc(uint32 width, uint32 height, GraphicsFormat format, uint32 viewFlags);

protected:
    virtual Texture* NewTexture() = 0;

private:
    TexturePool m_pools[4];
};

} // namespace KovexEngine
