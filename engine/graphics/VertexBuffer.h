#pragma once

// Vertex buffers: the device object and its CPU stream, serialised as
// "VXSM": "VXSZ" (vertices), "EMSZ" (elements), "VXEM" with the "ELEM"
// sections, then "BUF" with the vertices in "DATA", component by component
// (4-byte floats, 2-byte halves and shorts, single bytes), so that any
// serializer form can convert each value.
//
// Threads: as GraphicsObject and GraphicsStream.

#include "graphics/GraphicsBuffer.h"
#include "graphics/VertexDecl.h"
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
        // On a device without half-float vertex formats (capability
        // SupportLayoutFormatHalfFloat false), ConvertElementFp16.
        void ValidateElementFp16();
        // Half2/Half4 normals, tangents, binormals and blend weights become
        // Short2N/Short4N (rounded value * 32767) in place, the stride kept.
        // Does nothing when any half element has another semantic: half
        // positions and texture coordinates are left alone, as designed.
        void ConvertElementFp16();
        bool Duplicate(Object* destination, unsigned int flags) const override;

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

extern template class GraphicsBufferFactory::TBlockedBufferPool<Ptr<VertexDecl>>;

class KOVEX_API VertexBufferFactory : public GraphicsBufferFactory
{
public:
    using Pool = TBlockedBufferPool<Ptr<VertexDecl>>;
    // Stride of the layout's first slot times the count; buffers of usage
    // Default without CPU access, over allocated plain streams.
    class KOVEX_API VBBlockedPool : public Pool
    {
    public:
        explicit VBBlockedPool(VertexBufferFactory* factory) : m_factory(factory) {}
        uint32 GetRequiredSize(const Ptr<VertexDecl>& key, uint32 count) const override;
        Ptr<GraphicsBuffer> CreateBuffer(const Ptr<VertexDecl>& key, uint32 count, uint32 bufferSize) override;

    protected:
        Ptr<GraphicsBuffer> MakeBuffer(const Ptr<VertexDecl>& key, uint32 count, uint32 bufferSize, bool dynamic);
        VertexBufferFactory* m_factory;
    };
    // Usage Dynamic with CPU write, over dynamic streams.
    class KOVEX_API DynamicVBBlockedPool : public VBBlockedPool
    {
    public:
        using VBBlockedPool::VBBlockedPool;
        Ptr<GraphicsBuffer> CreateBuffer(const Ptr<VertexDecl>& key, uint32 count, uint32 bufferSize) override;
    };

    VertexBufferFactory();
    static VertexBufferFactory* Get()
    {
        return static_cast<VertexBufferFactory*>(GetSlot(FactoryType::VertexBufferFactory));
    }
    // Null, with its line, for a missing or empty stream or one whose
    // dynamic kind does not match the usage.
    Ptr<VertexBuffer> Create(const Ptr<VertexBuffer::Stream>& stream, uint32 cpuAccess, GraphicsResourceUsage usage,
                             std::atomic<int32>* pending);

    // A range for `count` vertices from the plain or the dynamic pool
    // (main thread only). The element form goes through VertexDeclManager.
    bool M_RequireBlock(GraphicsBufferBlock& out, const Ptr<VertexDecl>& decl, uint32 count, bool dynamic,
                        uint32 sizeClass = 0);
    bool M_RequireBlock(GraphicsBufferBlock& out, const VertexElement* elements, uint32 elementCount, uint32 count,
                        bool dynamic, uint32 sizeClass = 0);
    static uint32 GetBlockedBufferDefSize();
    static void SetBlockedBufferDefSize(uint32 size);
    uint32 M_GetBlockedBufferSize(bool dynamic, uint32 sizeClass) const;
    void M_SetBlockedBufferSize(bool dynamic, uint32 sizeClass, uint32 size);
    Pool& GetPool(bool dynamic) { return m_pools.Get(dynamic); }

    // Both pools forget their buffers, then the base work.
    void OnExit() override;

protected:
    virtual VertexBuffer* NewVertexBuffer() = 0;

private:
    TPoolPair<Ptr<VertexDecl>> m_pools;
};

} // namespace KovexEngine
