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
    const Ptr<GraphicsStream>& GetStream() const { return m_stream; }
    void SetStream(const Ptr<GraphicsStream>& stream) { m_stream = stream; }
    virtual bool AllowReleaseStream() const { return false; }
    // A non-zero size, or a stream with data.
    static bool CheckByteWidth(uint32 size, const GraphicsStream* stream);

private:
    uint32 m_byteWidth = 0;
    uint32 m_bind = 0;
    Ptr<GraphicsStream> m_stream;
};

// Base of the vertex, index and read-write buffer factories: the checks a
// stream passes before its buffer is posted.
class KOVEX_API GraphicsBufferFactory : public GraphicsFactory
{
public:
    using GraphicsFactory::GraphicsFactory;

protected:
    // Null, with `invalidLine` for a missing or empty stream and
    // `dynamicLine` when the stream's dynamic kind does not match the usage;
    // else fills `made` (which it owns from here) and posts it.
    Ptr<GraphicsBuffer> PostBuffer(GraphicsBuffer* made, GraphicsStream* stream, uint32 cpuAccess,
                                   GraphicsResourceUsage usage, std::atomic<int32>* pending,
                                   const char16_t* invalidLine, const char16_t* dynamicLine);
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
