#pragma once

// A device buffer with its CPU stream, and the large shared buffers whose
// sub-ranges serve small dynamic allocations.
//
// Threads: a GraphicsBuffer as GraphicsObject. BlockedGraphicsBuffer is
// main-thread only: ranges are taken and given back while recording a
// frame, and M_Tick frees the recycled ones at frame start, when the
// graphics thread is idle by the hand-over.

#include "graphics/GraphicsObject.h"
#include "graphics/GraphicsStream.h"

namespace KovexEngine {

class KOVEX_API GraphicsBuffer : public GraphicsResource
{
    KOVEX_CLASS(GraphicsBuffer)

public:
    uint32 GetByteWidth() const { return m_byteWidth; }
    void SetByteWidth(uint32 width) { m_byteWidth = width; }
    uint32 GetBindFlags() const { return m_bind; }
    void SetBindFlags(uint32 bind) { m_bind = bind; }
    // The stream the main thread writes.
    const Ptr<GraphicsStream>& GetStream() const { return m_stream; }
    void SetStream(const Ptr<GraphicsStream>& stream) { m_stream = stream; }
    // The stream the device reads: a dynamic stream's GPU-read twin once
    // there is one, else the stream itself.
    GraphicsStream* GetDeviceStream() const;
    virtual bool AllowReleaseStream() const { return false; }
    // A non-zero size, or a stream with data.
    static bool CheckByteWidth(uint32 size, const GraphicsStream* stream);

    // Double buffering applies: the stream reads the device from another
    // stream than itself, and a graphics thread is started.
    bool AllowPrecache() const;
    // The stream and its GPU-read twin (a clone, the first time) change
    // places: the device reads what the main thread finished, the main
    // thread writes the other. Main thread, while the graphics side is idle.
    bool Precache();

private:
    uint32 m_byteWidth = 0;
    uint32 m_bind = 0;
    Ptr<GraphicsStream> m_stream;
};

struct GraphicsBufferBlock;
class BlockedGraphicsBuffer;

// Base of the vertex, index and read-write buffer factories: the checks a
// stream passes before its buffer is posted, the double buffering of
// dynamic streams, and the pools of blocked buffers.
//
// Threads: the precache list has its own lock (M_OnPosting and M_Dispose
// run on any thread that posts or releases); M_Precache runs at frame
// begin on the main thread. Pools are main-thread only.
class KOVEX_API GraphicsBufferFactory : public GraphicsFactory
{
public:
    using GraphicsFactory::GraphicsFactory;
    ~GraphicsBufferFactory() override;

    // Buffers whose streams are double-buffered join the precache list.
    void M_OnPosting(const Ptr<GraphicsObject>& object) override;
    void M_Dispose(const GraphicsObject* object) override;
    // Every listed buffer whose stream is dirty swaps with its twin.
    void M_Precache() override;
    unsigned GetNumPrecached();

    // Large shared buffers per size class and key (a vertex layout or an
    // index format), handing out ranges as GraphicsBufferBlocks.
    template <typename Key>
    class KOVEX_API TBlockedBufferPool
    {
    public:
        TBlockedBufferPool() = default;
        TBlockedBufferPool(const TBlockedBufferPool&) = delete;
        TBlockedBufferPool& operator=(const TBlockedBufferPool&) = delete;
        virtual ~TBlockedBufferPool();

        // A range for `count` elements from the first buffer of the class
        // and key with room, else from a new buffer; false only when the
        // key is unusable or the device buffer cannot be made.
        bool M_Require(GraphicsBufferBlock& out, const Key& key, uint32 count, uint32 sizeClass);
        // Forgets every buffer; each goes at the M_Tick that finds it unused.
        void M_Destroy();
        // Bytes of a new buffer of the class; the default for an unset one.
        uint32 GetBufferSize(uint32 sizeClass) const;
        // 0 unsets the class.
        void SetBufferSize(uint32 sizeClass, uint32 size);
        unsigned GetNumBuffers() const;
        static uint32 GetDefaultSize();
        static void SetDefaultSize(uint32 size);

        // Bytes of `count` elements; 0 for an unusable key or a size past
        // what a stream holds.
        virtual uint32 GetRequiredSize(const Key& key, uint32 count) const = 0;
        virtual Ptr<GraphicsBuffer> CreateBuffer(const Key& key, uint32 count, uint32 bufferSize) = 0;
        // Elements a new buffer gets: what bufferSize holds, or the smallest
        // multiple of that which reaches `count`; 0 when that overflows.
        virtual uint32 GetAllocatedCount(const Key& key, uint32 count, uint32 bufferSize) const;

    private:
        struct KeyBuffers
        {
            KeyBuffers() : key(), buffers() {}
            Key key;
            TArray<Ptr<BlockedGraphicsBuffer>> buffers;
        };
        TMap<uint32, TMap<uint64, KeyBuffers>> m_classes;
        TMap<uint32, uint32> m_sizes;
        static uint32 ms_defaultSize;
    };

    // A factory's plain and dynamic pool of one key, owned.
    template <typename Key>
    struct TPoolPair
    {
        TBlockedBufferPool<Key>* plain;
        TBlockedBufferPool<Key>* dynamic;
        TPoolPair(TBlockedBufferPool<Key>* p, TBlockedBufferPool<Key>* d) : plain(p), dynamic(d) {}
        TPoolPair(const TPoolPair&) = delete;
        TPoolPair& operator=(const TPoolPair&) = delete;
        ~TPoolPair()
        {
            delete plain;
            delete dynamic;
        }
        TBlockedBufferPool<Key>& Get(bool isDynamic) const { return isDynamic ? *dynamic : *plain; }
        void Destroy()
        {
            plain->M_Destroy();
            dynamic->M_Destroy();
        }
    };

protected:
    // Null, with `invalidLine` for a missing or empty stream and
    // `dynamicLine` when the stream's dynamic kind does not match the usage;
    // else fills `made` (which it owns from here) and posts it.
    Ptr<GraphicsBuffer> PostBuffer(GraphicsBuffer* made, GraphicsStream* stream, uint32 cpuAccess,
                                   GraphicsResourceUsage usage, std::atomic<int32>* pending,
                                   const char16_t* invalidLine, const char16_t* dynamicLine);

private:
    TArray<GraphicsBuffer*> m_precache;
    CriticalSection m_precacheLock;
};

class BlockedGraphicsBuffer;

// A range of a blocked buffer. Dropping it gives nothing back: the owner
// calls M_Recycle.
struct KOVEX_API GraphicsBufferBlock
{
    uint32 Offset = 0xFFFFFFFFu;
    uint32 Size = 0;
    Ptr<BlockedGraphicsBuffer> Owner;
    bool IsValid() const { return Size > 0; }
};

class KOVEX_API BlockedGraphicsBuffer : public ReferenceObj
{
public:
    static constexpr uint32 kNone = 0xFFFFFFFFu;
    struct Block
    {
        uint32 offset;
        uint32 size;
    };

    // A new instance over the buffer, all free, kept in the static list.
    static Ptr<BlockedGraphicsBuffer> Create(const Ptr<GraphicsBuffer>& buffer);
    // Drops instances only the static list holds; frees recycled ranges.
    static void M_Tick();
    static void Destroy();
    static unsigned GetNumInstances();

    // Takes `size` bytes off every free block that has them (with one free
    // block, a first fit); the offset of the last slice, or kNone.
    uint32 M_Require(uint32 size);
    bool M_Require(GraphicsBufferBlock& out, uint32 size);
    // Gives a used range back; it becomes free at the next M_Tick, so a
    // frame in flight never sees it reused. False for a range not in use.
    bool M_Recycle(uint32 offset, uint32 size);
    // Recycled ranges become free.
    void M_Precache();
    // Everything free again.
    void Reset();

    const Ptr<GraphicsBuffer>& GetBuffer() const { return m_buffer; }
    const TArray<Block>& GetFreeBlocks() const { return m_free; }
    const TArray<Block>& GetUsedBlocks() const { return m_used; }
    const TArray<Block>& GetRecycledBlocks() const { return m_recycled; }

    // Inserts a range into a list sorted by offset, merging it with the
    // neighbours it touches.
    static void AppendToBlocks(TArray<Block>& list, uint32 offset, uint32 size);

private:
    explicit BlockedGraphicsBuffer(const Ptr<GraphicsBuffer>& buffer);

    Ptr<GraphicsBuffer> m_buffer;
    TArray<Block> m_free;
    TArray<Block> m_used;
    TArray<Block> m_recycled;
};

} // namespace KovexEngine
