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

class KOVEX_API IndexBufferFactory : public GraphicsBufferFactory
{
public:
    IndexBufferFactory() : GraphicsBufferFactory(FactoryType::IndexBufferFactory) {}
    static IndexBufferFactory* Get()
    {
        return static_cast<IndexBufferFactory*>(GetSlot(FactoryType::IndexBufferFactory));
    }
    // Null, with its line, for a missing or empty stream or one whose
    // dynamic kind does not match the usage.
    Ptr<IndexBuffer> Create(const Ptr<IndexBuffer::Stream>& stream, uint32 cpuAccess, GraphicsResourceUsage usage,
                            std::atomic<int32>* pending);

protected:
    virtual IndexBuffer* NewIndexBuffer() = 0;
};

} // namespace KovexEngine
