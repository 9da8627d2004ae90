#pragma once

// Read-write (unordered-access) buffers: elements of one format, with an
// optional CPU stream (a dynamic one, double-buffered against the graphics
// thread, for usage Dynamic).
//
// Threads: RWBufferFactory::Create is safe from any thread; the rest as
// GraphicsObject and GraphicsStream.

#include "graphics/GraphicsBuffer.h"
#include "graphics/GraphicsFormat.h"

namespace KovexEngine {

class KOVEX_API RWBuffer : public GraphicsBuffer
{
    KOVEX_CLASS(RWBuffer)

public:
    class KOVEX_API Stream : public GraphicsStream3
    {
        KOVEX_CLASS(Stream)
    };

    // A stream the main thread writes while the device reads its twin.
    class KOVEX_API DynamicStream : public Stream
    {
        KOVEX_CLASS(DynamicStream)

    public:
        bool IsDynamic() const override { return true; }
        GraphicsStream* GetGpuReadStream() override { return m_gpuRead.Get(); }
        void SetGpuReadStream(const Ptr<GraphicsStream>& stream) override { m_gpuRead = stream; }

    private:
        Ptr<GraphicsStream> m_gpuRead;
    };

    uint32 GetView() const { return m_view; }
    GraphicsFormat GetFormat() const { return m_format; }
    // Byte width over the bytes of the format.
    uint32 NumElements() const;

private:
    friend class RWBufferFactory;
    uint32 m_view = 0;
    GraphicsFormat m_format = GraphicsFormat::UNKNOWN;
};

class KOVEX_API RWBufferFactory : public GraphicsBufferFactory
{
public:
    RWBufferFactory() : GraphicsBufferFactory(FactoryType::RWBufferFactory) {}
    static RWBufferFactory* Get() { return static_cast<RWBufferFactory*>(GetSlot(FactoryType::RWBufferFactory)); }

    // Null, with "Create RW Buffer failed, invalid args.", for a zero count,
    // view or format, a format without a byte size, usage Immutable or a
    // size past what a stream holds. With `allocate`, a stream of the size
    // (dynamic for usage Dynamic); without, no stream.
    Ptr<RWBuffer> Create(GraphicsFormat format, uint32 elementCount, uint32 view, uint32 cpuAccess,
                         GraphicsResourceUsage usage, bool allocate, std::atomic<int32>* pending = nullptr);

protected:
    virtual RWBuffer* NewRWBuffer() = 0;
};

} // namespace KovexEngine
