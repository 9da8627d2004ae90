#pragma once

// Vertex buffers: the device object and its CPU stream, serialised as
// "VXSM": "VXSZ" (vertices), "EMSZ" (elements), "VXEM" with the "ELEM"
// sections, then "BUF" with the vertices in "DATA", component by component
// (4-byte floats, 2-byte halves and shorts, single bytes), so that any
// serializer form can convert each value.
//
// Threads: as GraphicsObject and GraphicsStream.

#include "graphics/GraphicsBuffer.h"
#include "graphics/VertexElement.h"

namespace KovexEngine {

class SerializeMemLayout;

class KOVEX_API VertexBuffer : public GraphicsBuffer
{
    KOVEX_CLASS(VertexBuffer)

public:
    class KOVEX_API Stream : public GraphicsStream2
    {
        KOVEX_CLASS(Stream)

    public:
        // Null when elements, count or vertex count is missing, or the
        // elements have no stride.
        static Ptr<Stream> Create(const VertexElement* elements, uint32 count, uint32 vertexCount, bool allocate);
        // Sum of the element sizes; 0 for none, and 0 with a log line when
        // the elements do not all share the first one's input slot.
        static uint32 CalcVertexStride(const VertexElement* elements, uint32 count);

        uint32 GetVertexCount() const { return m_vertexCount; }
        uint32 GetStride() const { return m_stride; }
        uint32 GetTotalSize() const { return m_totalSize; }
        const TArray<VertexElement>& GetElements() const { return m_elements; }
        bool HasSemantic(GraphicsSemantic semantic) const { return GetElementBySemantic(semantic) != nullptr; }
        const VertexElement* GetElementBySemantic(GraphicsSemantic semantic) const;
        void SetStreamSlot(uint32 slot);
        // Each component of one vertex, by kind and offset.
        void GetMemLayout(SerializeMemLayout& layout) const;

        bool Save(Serializer* serializer) const override;
        // A failed load logs and leaves the stream as it was.
        bool Load(Serializer* serializer) override;

    protected:
        bool Init(const VertexElement* elements, uint32 count, uint32 vertexCount, bool allocate);

    private:
        uint32 m_vertexCount = 0;
        uint32 m_stride = 0;
        uint32 m_totalSize = 0;
        TArray<VertexElement> m_elements;
    };

    class KOVEX_API DynamicStream : public Stream
    {
        KOVEX_CLASS(DynamicStream)

    public:
        static Ptr<DynamicStream> Create(const VertexElement* elements, uint32 count, uint32 vertexCount,
                                         bool allocate);
        bool IsDynamic() const override { return true; }
        GraphicsStream* GetGpuReadStream() override { return m_gpuRead.Get(); }
        void SetGpuReadStream(const Ptr<GraphicsStream>& stream) override { m_gpuRead = stream; }

    private:
        Ptr<GraphicsStream> m_gpuRead;
    };

    const Stream* GetVertexStream() const { return static_cast<const Stream*>(GetStream().Get()); }
    bool AllowReleaseStream() const override;
};

class KOVEX_API VertexBufferFactory : public GraphicsBufferFactory
{
public:
    VertexBufferFactory() : GraphicsBufferFactory(FactoryType::VertexBufferFactory) {}
    static VertexBufferFactory* Get()
    {
        return static_cast<VertexBufferFactory*>(GetSlot(FactoryType::VertexBufferFactory));
    }
    // Null, with its line, for a missing or empty stream or one whose
    // dynamic kind does not match the usage.
    Ptr<VertexBuffer> Create(const Ptr<VertexBuffer::Stream>& stream, uint32 cpuAccess, GraphicsResourceUsage usage,
                             std::atomic<int32>* pending);

protected:
    virtual VertexBuffer* NewVertexBuffer() = 0;
};

} // namespace KovexEngine
