#pragma once

// Creation, pooling and sharing of textures. A backend supplies NewTexture;
// everything else is device-independent.
//
// Threads: Create (every form), FindTexture, CheckTextureDesc and the
// Create2D* forms are safe from any thread (the texture is posted as every graphics object is). The pools
// (Require*, Recycle, CleaupRT) belong to the thread that draws, one at a
// time, as render targets are taken and given back within a frame. OnTick
// and OnExit belong to the graphics side.

#include <functional>
#include <map>
#include <vector>

#include "graphics/Texture.h"

namespace KovexEngine {

class Stream;

// Pixels a texture is made from: the description and one buffer laid out as
// TextureDesc::GetDataOffset says, kept alive by Owner.
struct KOVEX_API TextureSource
{
    TextureDesc Desc;
    const uint8* Data = nullptr;
    uint32 Size = 0;
    Ptr<Object> Owner;
    WString Reason; // why a decode failed
};

// How the layer that knows images turns them into texture sources; graphics
// lies below it and reaches it only through these. Either may be null.
struct TextureImageSource
{
    // An image object as it stands; false when it is none or has no pixels.
    bool (*FromImage)(const Ptr<Object>& image, TextureSource& out);
    // Decodes a stream, converted to a format the device takes.
    bool (*FromStream)(const Ptr<Stream>& stream, TextureSource& out);
};

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

    // Installed once by the image layer, before textures are loaded.
    static void SetImageSource(const TextureImageSource& source);
    static TextureImageSource GetImageSource();
    // Null, with "Load texture failed, %s, path = '%s'", when the source
    // cannot be decoded or the device refuses its description.
    Ptr<Texture> Create(const Ptr<Object>& image, GraphicsResourceUsage usage, std::atomic<int32>* pending);
    Ptr<Texture> Create(const Ptr<Stream>& stream, std::atomic<int32>* pending);
    // One texture per path: a path already loaded gives the same texture.
    Ptr<Texture> Create(const WString& path, std::atomic<int32>* pending);
    Ptr<Texture> FindTexture(const WString& path);
    void AddSharedResource(const WString& path, const Ptr<Texture>& texture);

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
    Ptr<Texture> CreateFromSource(TextureSource& source, GraphicsResourceUsage usage, const WString& path,
                                  std::atomic<int32>* pending);
    TexturePool m_pools[4];
    CriticalSection m_sharedLock;
    std::map<WString, Ptr<Texture>> m_shared;
};

} // namespace KovexEngine
