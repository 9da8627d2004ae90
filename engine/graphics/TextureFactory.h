#pragma once

// Creation, pooling and sharing of textures. A backend supplies NewTexture;
// everything else is device-independent.
//
// Threads: Create (every form), FindTexture, LoadSharedResource,
// AddSharedResource, CheckTextureDesc and the Create2D* forms are safe from
// any thread (the texture is posted as every graphics object is). The pools
// (Require*, Recycle, CleaupRT) belong to the thread that draws, one at a
// time, as render targets are taken and given back within a frame. OnInit,
// OnTick (with UpdateStreaming) and OnExit belong to the thread that ticks
// the factories. Streaming: see graphics/TextureStreaming.h.

#include <functional>
#include <map>
#include <vector>

#include "graphics/Texture.h"

namespace KovexEngine {

class Stream;
class StreamingThread;
struct GraphicsParameters;

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

// A texture's load that goes on in the background, made by the image layer.
// Step, GetFirstResidentMip and IsCompleted run on the "Texture Thread"
// only; Upload on the ticking thread only, for levels already published.
class KOVEX_API TextureStreamingLoad : public ReferenceObj
{
public:
    // Reads the next larger level; false on a read failure.
    virtual bool Step() = 0;
    virtual bool IsCompleted() const = 0;
    // The lowest level read so far.
    virtual uint32 GetFirstResidentMip() const = 0;
    // Writes levels [firstMip, firstMip + count) into the texture.
    virtual bool Upload(Texture* texture, uint32 firstMip, uint32 count) = 0;
};

// How the layer that knows images turns them into texture sources; graphics
// lies below it and reaches it only through these. Either may be null.
struct TextureImageSource
{
    // An image object as it stands; false when it is none or has no pixels.
    bool (*FromImage)(const Ptr<Object>& image, TextureSource& out);
    // Decodes a stream, converted to a format the device takes.
    bool (*FromStream)(const Ptr<Stream>& stream, TextureSource& out);
    // Starts a background load of a stream worth streaming: `out` describes
    // the whole texture with its smallest levels filled, `load` goes on.
    // False when the stream is not one to stream; the caller loads it whole.
    bool (*BeginStream)(const Ptr<Stream>& stream, TextureSource& out, Ptr<TextureStreamingLoad>& load) = nullptr;
};

class KOVEX_API TextureFactory : public GraphicsFactory
{
public:
    TextureFactory();
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
    // A typeless 2D texture whose views see it through the two formats;
    // `viewFlags` holds TextureViewFlags bits.
    Ptr<Texture> Create2DTypelessRT(uint32 width, uint32 height, GraphicsFormat format,
                                    GraphicsFormat typelessRtvDsvFormat, GraphicsFormat typelessSrvUavFormat,
                                    uint32 viewFlags);

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
    // The shared texture of a path: found, or loaded and shared.
    Ptr<Texture> LoadSharedResource(const WString& path, std::atomic<int32>* pending);
    void AddSharedResource(const WString& path, const Ptr<Texture>& texture);
    // The depth buffer of a window of these parameters.
    Ptr<Texture> CreateDepthBuffer(const GraphicsParameters& parameters);

    // Streams whose level 0 holds at least this many bytes (all array
    // slices) load in the background; 0 streams nothing. 4 MiB to start.
    static void SetStreamingThreshold(uint32 bytes);
    static uint32 GetStreamingThreshold();
    // Uploads what the Texture Thread has read since the last call.
    void UpdateStreaming();
    // Streams in flight (diagnostics and tests).
    size_t GetNumStreaming();

    TexturePool& GetTexturePool(GraphicsResourceUsage usage) { return m_pools[unsigned(usage) & 3]; }
    // From the usage's pool, else newly created.
    Ptr<Texture> Require(const TextureDesc& desc, GraphicsResourceUsage usage, bool findClosest);
    Ptr<Texture> Require2DRT(uint32 width, uint32 height, GraphicsFormat format);
    Ptr<Texture> Require2DRT(GraphicsFormat format, uint32 nthOfScreen);
    Ptr<Texture> Require2DDepth(uint32 width, uint32 height, GraphicsFormat format);
    Ptr<Texture> Require2DDepth(GraphicsFormat format, uint32 nthOfScreen);
    Ptr<Texture> Require2DStaging(uint32 width, uint32 height, GraphicsFormat format, bool findClosest);
    Ptr<Texture> Require2DTypelessRT(uint32 width, uint32 height, GraphicsFormat format,
                                     GraphicsFormat typelessRtvDsvFormat, GraphicsFormat typelessSrvUavFormat,
                                     uint32 viewFlags);
    Ptr<Texture> Require2DTypelessRT(GraphicsFormat format, GraphicsFormat typelessRtvDsvFormat,
                                     GraphicsFormat typelessSrvUavFormat, uint32 viewFlags, uint32 nthOfScreen);
    Ptr<Texture> RequireCubeRT(uint32 size, GraphicsFormat format);
    // Back to its usage's pool; null is ignored.
    void Recycle(Texture* texture);
    void Recycle(TArray<Ptr<Texture>>& textures);
    void CleaupRT(const std::function<bool(Texture*)>& select) { GetTexturePool(GraphicsResourceUsage::Default).Cleanup(select); }
    // The back buffer's size shifted right by nthOfScreen (0 to 4), at least 1.
    void GetScreenSize(uint32& width, uint32& height, uint32 nthOfScreen) const;

    // Forgets a streaming thread of an earlier life of the factory.
    void OnInit() override;
    // UpdateStreaming, then the disposals.
    void OnTick() override;
    // The streaming thread is stopped first (loads in flight are dropped),
    // then the shared table is cleared, the pools, the disposals, and the
    // objects still linked.
    void OnExit() override;

    static TextureDesc Make2DDesc(uint32 width, uint32 height, GraphicsFormat format, uint32 viewFlags);
    static TextureDesc MakeTypelessDesc(uint32 width, uint32 height, GraphicsFormat format,
                                        GraphicsFormat typelessRtvDsvFormat, GraphicsFormat typelessSrvUavFormat,
                                        uint32 viewFlags);
    static TextureDesc MakeCubeDesc(uint32 size, GraphicsFormat format);

protected:
    virtual Texture* NewTexture() = 0;

private:
    Ptr<Texture> CreateFromSource(TextureSource& source, GraphicsResourceUsage usage, const WString& path,
                                  std::atomic<int32>* pending);
    // The Texture Thread, made and started on the first streamed load.
    StreamingThread* GetStreamingThread();
    void StopStreaming();

    TexturePool m_pools[4];
    CriticalSection m_streamingLock;
    StreamingThread* m_streaming = nullptr;
    CriticalSection m_sharedLock;
    std::map<WString, Ptr<Texture>> m_shared;
};

} // namespace KovexEngine
