#pragma once

// Index buffers: the device object, its CPU stream ("IXSM": "SIZE", "FMT",
// then "BUF" with the indices as 16- or 32-bit integers in "DATA"), and the
// factory that checks a stream before it posts the buffer.
//
// Threads: as GraphicsObject and GraphicsStream; IndexBufferFactory::Create
// is safe from any thread.

#include "graphics/GraphicsBuffer.h"

namespace KovexEngine {

class KOVEX_API IndexBuffer : public GraphicsBuffer
{
    KOVEX_CLASS(IndexBuffer)

public:
    enum IndexFormat : int
    {
        Index16 = 0,
        Index32 = 1,
    };
    static constexpr uint32 kIndexSize[2] = {2, 4};

    class KOVEX_API Stream : public GraphicsStream2
    {
        KOVEX_CLASS(Stream)

    public:
        // Null for a zero count; with `allocate`, the data sized to the count.
        static Ptr<Stream> Create(uint32 count, IndexFormat format, bool allocate);
        // 32-bit exactly when an index can exceed 65535.
        static IndexFormat GetIndexFormat(uint32 maxIndexCount) { return maxIndexCount > 65535 ? Index32 : Index16; }
        uint32 GetIndexCount() const { return m_count; }
        IndexFormat GetFormat() const { return m_format; }
        bool Save(Serializer* serializer) const override;
        // A failed load logs and leaves the stream as it was.
        bool Load(Serializer* serializer) override;
        bool Duplicate(Object* destination, unsigned int flags) const override;

    protected:
        bool Init(uint32 count, IndexFormat format, bool allocate);
        uint32 m_count = 0;
        IndexFormat m_format = Index16;
    };

    // A stream the main thread writes while the device reads its twin.
    class KOVEX_API DynamicStream : public Stream
    {
        KOVEX_CLASS(DynamicStream)

    public:
        static Ptr<DynamicStream> Create(uint32 count, IndexFormat format, bool allocate);
        bool IsDynamic() const override { return true; }
        GraphicsStream* GetGpuReadStream() override { return m_gpuRead.Get(); }
        void SetGpuReadStream(const Ptr<GraphicsStream>& stream) override { m_gpuRead = stream; }

    private:
        Ptr<GraphicsStream> m_gpuRead;
    };

    const Stream* GetIndexStream() const { return static_cast<const Stream*>(GetStream().Get()); }
    bool AllowReleaseStream() const override;
};

extern template class GraphicsBufferFactory::TBlockedBufferPool<IndexBuffer::IndexFormat>;

class KOVEX_API IndexBufferFactory : public GraphicsBufferFactory
{
public:
    using Pool = TBlockedBufferPool<IndexBuffer::IndexFormat>;
    // Index size times the count; buffers of usage Default without CPU
    // access, over allocated plain streams.
    class KOVEX_API IBBlockedPool : public Pool
    {
    public:
        explicit IBBlockedPool(IndexBufferFactory* factory) : m_factory(factory) {}
        uint32 GetRequiredSize(const IndexBuffer::IndexFormat& key, uint32 count) const override;
        Ptr<GraphicsBuffer> CreateBuffer(const IndexBuffer::IndexFormat& key, uint32 count,
                                         uint32 bufferSize) override;

    protected:
        Ptr<GraphicsBuffer> MakeBuffer(IndexBuffer::IndexFormat key, uint32 count, uint32 bufferSize, bool dynamic);
        IndexBufferFactory* m_factory;
    };
    // Usage Dynamic with CPU write, over dynamic streams.
    class KOVEX_API DynamicIBBlockedPool : public IBBlockedPool
    {
    public:
        using IBBlockedPool::IBBlockedPool;
        Ptr<GraphicsBuffer> CreateBuffer(const IndexBuffer::IndexFormat& key, uint32 count,
                                         uint32 bufferSize) override;
    };

    // Sets the index pools' default buffer size to 16384 bytes.
    IndexBufferFactory();
    static IndexBufferFactory* Get()
    {
        return static_cast<IndexBufferFactory*>(GetSlot(FactoryType::IndexBufferFactory));
    }
    // Null, with its line, for a missing or empty stream or one whose
    // dynamic kind does not match the usage.
    Ptr<IndexBuffer> Create(const Ptr<IndexBuffer::Stream>& stream, uint32 cpuAccess, GraphicsResourceUsage usage,
                            std::atomic<int32>* pending);

    // A range for `count` indices from the plain or the dynamic pool (main
    // thread only); by format, or 32-bit or not.
    bool M_RequireBlock(GraphicsBufferBlock& out, IndexBuffer::IndexFormat format, uint32 count, bool dynamic,
                        uint32 sizeClass = 0);
    bool M_RequireBlock(GraphicsBufferBlock& out, bool index32, uint32 count, bool dynamic, uint32 sizeClass = 0);
    static uint32 GetBlockedBufferDefSize();
    static void SetBlockedBufferDefSize(uint32 size);
    uint32 M_GetBlockedBufferSize(bool dynamic, uint32 sizeClass) const;
    void M_SetBlockedBufferSize(bool dynamic, uint32 sizeClass, uint32 size);
    Pool& GetPool(bool dynamic) { return m_pools.Get(dynamic); }

    // Both pools forget their buffers, then the base work.
    void OnExit() override;

protected:
    virtual IndexBuffer* NewIndexBuffer() = 0;

private:
    TPoolPair<IndexBuffer::IndexFormat> m_pools;
};

} // namespace KovexEngine
