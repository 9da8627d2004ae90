#include "graphics/VertexBuffer.h"

#include <cmath>
#include <cstring>
#include <memory>

#include "graphics/Renderer.h"
#include "kernel/Log.h"
#include "serialization/Serializer.h"

namespace KovexEngine {

KOVEX_REGISTER_CLASS(VertexBuffer, u"Engine", GraphicsBuffer)
KOVEX_REGISTER_CLASS(VertexBuffer::Stream, u"Engine", GraphicsStream2)
KOVEX_REGISTER_CLASS(VertexBuffer::DynamicStream, u"Engine", VertexBuffer::Stream)

namespace {
constexpr FourCC VXSM = FourCCs::Make("VXSM");
constexpr FourCC VXSZ = FourCCs::Make("VXSZ");
constexpr FourCC EMSZ = FourCCs::Make("EMSZ");
constexpr FourCC VXEM = FourCCs::Make("VXEM");
constexpr FourCC BUF = FourCCs::Make("BUF");
// More elements than any layout has: a count above it is forged.
constexpr uint32 kMaxElements = 64;
} // namespace

uint32 VertexBuffer::Stream::CalcVertexStride(const VertexElement* elements, uint32 count)
{
    if (!elements || count == 0)
        return 0;
    uint32 stride = 0;
    for (uint32 i = 0; i < count; ++i)
    {
        if (elements[i].InputSlot != elements[0].InputSlot)
        {
            Log::Print(LOG_ERROR, u"VertexBuffer: the elements of one stream must share one input slot.\n");
            return 0;
        }
        stride += elements[i].GetStride();
    }
    return stride;
}

bool VertexBuffer::Stream::Init(const VertexElement* elements, uint32 count, uint32 vertexCount, bool allocate)
{
    if (!elements || count == 0 || vertexCount == 0)
        return false;
    uint32 stride = CalcVertexStride(elements, count);
    uint64 total = uint64(stride) * vertexCount;
    if (stride == 0 || total > DataStream::kMaxSize)
        return false;
    if (allocate && !ExtendTo(uint32(total), false))
        return false;
    m_stride = stride;
    m_totalSize = uint32(total);
    m_vertexCount = vertexCount;
    m_elements.Clear();
    for (uint32 i = 0; i < count; ++i)
        m_elements.Add(elements[i]);
    return true;
}

Ptr<VertexBuffer::Stream> VertexBuffer::Stream::Create(const VertexElement* elements, uint32 count,
                                                       uint32 vertexCount, bool allocate)
{
    Ptr<Stream> stream(new Stream());
    return stream->Init(elements, count, vertexCount, allocate) ? stream : Ptr<Stream>();
}

Ptr<VertexBuffer::DynamicStream> VertexBuffer::DynamicStream::Create(const VertexElement* elements, uint32 count,
                                                                     uint32 vertexCount, bool allocate)
{
    Ptr<DynamicStream> stream(new DynamicStream());
    return stream->Init(elements, count, vertexCount, allocate) ? stream : Ptr<DynamicStream>();
}

const VertexElement* VertexBuffer::Stream::GetElementBySemantic(GraphicsSemantic semantic) const
{
    for (const VertexElement& e : m_elements)
        if (e.SemanticName == semantic)
            return &e;
    return nullptr;
}

void VertexBuffer::Stream::SetStreamSlot(uint32 slot)
{
    for (VertexElement& e : m_elements)
        e.InputSlot = slot;
}

void VertexBuffer::Stream::GetMemLayout(SerializeMemLayout& layout) const
{
    using L = SerializeMemLayout;
    struct Kind
    {
        L::SerializeMemType type;
        uint32 count;
    };
    // By GraphicsLayoutFormat: the kind and number of its components.
    static const Kind kinds[14] = {{L::Float, 1},  {L::Float, 2},  {L::Float, 3},  {L::Float, 4},  {L::UInt16, 2},
                                   {L::UInt16, 4}, {L::UInt8, 4},  {L::Int16, 2},  {L::Int16, 4},  {L::UInt8, 4},
                                   {L::Int16, 2},  {L::Int16, 4},  {L::UInt16, 2}, {L::UInt16, 4}};
    for (const VertexElement& e : m_elements)
    {
        if (uint32(e.Format.value) >= 14)
            continue;
        const Kind& kind = kinds[e.Format.value];
        uint32 size = L::GetTypeSize(kind.type);
        for (uint32 c = 0; c < kind.count; ++c)
        {
            uint64 offset = uint64(e.AlignedByteOffset) + uint64(c) * size;
            // Components the stride does not cover (the formats sized 0) are
            // not part of a vertex.
            if (offset + size <= m_stride)
                layout.Add(kind.type, uint32(offset));
        }
    }
}

namespace {
float HalfToFloat(uint16 half)
{
    uint32 sign = uint32(half >> 15) << 31;
    uint32 exponent = (half >> 10) & 0x1Fu;
    uint32 mantissa = half & 0x3FFu;
    uint32 bits;
    if (exponent == 0x1F)
        bits = sign | 0x7F800000u | (mantissa << 13);
    else if (exponent != 0)
        bits = sign | ((exponent + 112) << 23) | (mantissa << 13);
    else if (mantissa == 0)
        bits = sign;
    else
    {
        // A subnormal half is a normal float.
        exponent = 113;
        while (!(mantissa & 0x400u))
        {
            mantissa <<= 1;
            --exponent;
        }
        bits = sign | (exponent << 23) | ((mantissa & 0x3FFu) << 13);
    }
    float value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

int16 HalfToSNorm(uint16 half)
{
    float scaled = std::round(HalfToFloat(half) * 32767.0f);
    // Out-of-range values saturate instead of wrapping; NaN becomes 0.
    if (!(scaled == scaled))
        return 0;
    return int16(scaled > 32767.0f ? 32767.0f : scaled < -32768.0f ? -32768.0f : scaled);
}
} // namespace

void VertexBuffer::Stream::ValidateElementFp16()
{
    const Ptr<Renderer>& renderer = Renderer::Get();
    if (renderer && renderer->GetHWCapability() && !renderer->GetHWCapability()->SupportLayoutFormatHalfFloat)
        ConvertElementFp16();
}

void VertexBuffer::Stream::ConvertElementFp16()
{
    TArray<unsigned> halves;
    for (unsigned i = 0; i < m_elements.Count(); ++i)
    {
        const VertexElement& e = m_elements[i];
        if (e.Format != GraphicsLayoutFormat::Half2 && e.Format != GraphicsLayoutFormat::Half4)
            continue;
        if (e.SemanticName != GraphicsSemantic::Normal && e.SemanticName != GraphicsSemantic::Tangent &&
            e.SemanticName != GraphicsSemantic::Binormal && e.SemanticName != GraphicsSemantic::BlendWeight)
            return;
        halves.Add(i);
    }
    if (halves.IsEmpty())
        return;
    uint8* data = GetPointer();
    uint32 vertices = m_stride ? GetLength() / m_stride : 0;
    for (unsigned index : halves)
    {
        VertexElement& e = m_elements[index];
        uint32 components = e.Format == GraphicsLayoutFormat::Half2 ? 2 : 4;
        // An element the stride does not hold has no data to convert.
        if (data && uint64(e.AlignedByteOffset) + components * 2 <= m_stride)
            for (uint32 v = 0; v < vertices; ++v)
            {
                uint8* at = data + uint64(v) * m_stride + e.AlignedByteOffset;
                for (uint32 c = 0; c < components; ++c)
                {
                    uint16 half;
                    std::memcpy(&half, at + c * 2, 2);
                    int16 value = HalfToSNorm(half);
                    std::memcpy(at + c * 2, &value, 2);
                }
            }
        e.Format = components == 2 ? GraphicsLayoutFormat::Short2N : GraphicsLayoutFormat::Short4N;
    }
    MakeDirty(0, GetLength());
}

bool VertexBuffer::Stream::Duplicate(Object* destination, unsigned int flags) const
{
    if (!GraphicsStream2::Duplicate(destination, flags))
        return false;
    auto* copy = static_cast<Stream*>(destination);
    copy->m_vertexCount = m_vertexCount;
    copy->m_stride = m_stride;
    copy->m_totalSize = m_totalSize;
    copy->m_elements = m_elements;
    return true;
}

bool VertexBuffer::Stream::Save(Serializer* s) const
{
    if (!s || !s->Enter(VXSM))
        return false;
    bool ok = s->Write(VXSZ, m_vertexCount) && s->Write(EMSZ, uint32(m_elements.Count())) && s->Enter(VXEM);
    if (ok)
    {
        for (const VertexElement& e : m_elements)
            ok = ok && e.Save(*s);
        s->Leave();
    }
    if (ok && (ok = s->Enter(BUF)))
    {
        SerializeMemLayout layout(m_stride);
        GetMemLayout(layout);
        uint32 stored = m_stride ? GetLength() / m_stride : 0;
        ok = s->Write(FourCCs::DATA, GetPointer(), stored, layout);
        s->Leave();
    }
    s->Leave();
    return ok;
}

bool VertexBuffer::Stream::Load(Serializer* s)
{
    if (!s || !s->Enter(VXSM))
    {
        Log::Print(LOG_ERROR, u"VertexBuffer: no VXSM section.\n");
        return false;
    }
    uint32 vertexCount = 0, elementCount = 0;
    bool ok = s->Read(VXSZ, vertexCount) && s->Read(EMSZ, elementCount) && elementCount > 0 &&
              elementCount <= kMaxElements && s->Enter(VXEM);
    VertexElement elements[kMaxElements];
    if (ok)
    {
        for (uint32 i = 0; ok && i < elementCount; ++i)
            ok = elements[i].Load(*s);
        s->Leave();
    }
    Ptr<Stream> loaded(new Stream());
    ok = ok && loaded->Init(elements, elementCount, vertexCount, false);
    void* records = nullptr;
    unsigned stored = 0;
    if (ok && (ok = s->Enter(BUF)))
    {
        SerializeMemLayout layout(loaded->m_stride);
        loaded->GetMemLayout(layout);
        ok = s->Read(FourCCs::DATA, records, stored, layout, true);
        s->Leave();
    }
    s->Leave();
    std::unique_ptr<uint8[]> owned(static_cast<uint8*>(records));
    if (!ok || stored != vertexCount)
    {
        Log::Format(LOG_ERROR, u"VertexBuffer: bad VXSM section (%u vertices, %u elements, %u stored).\n",
                    vertexCount, elementCount, stored);
        return false;
    }
    DataStream data(loaded->m_totalSize);
    if (!data.GetPointer())
        return false;
    std::memcpy(data.GetPointer(), records, loaded->m_totalSize);
    m_data.Swap(data);
    m_vertexCount = loaded->m_vertexCount;
    m_stride = loaded->m_stride;
    m_totalSize = loaded->m_totalSize;
    m_elements.Swap(loaded->m_elements);
    MakeDirty(0, GetLength());
    return true;
}

bool VertexBuffer::AllowReleaseStream() const
{
    return GetCpuAccessFlags() == 0 || GetResourceUsage() == GraphicsResourceUsage::Immutable;
}

Ptr<VertexBuffer> VertexBufferFactory::Create(const Ptr<VertexBuffer::Stream>& stream, uint32 cpuAccess,
                                              GraphicsResourceUsage usage, std::atomic<int32>* pending)
{
    Ptr<GraphicsBuffer> buffer =
        PostBuffer(NewVertexBuffer(), stream.Get(), cpuAccess, usage, pending,
                   u"Create vertex buffer failed, invalid stream or stream size is zero !\n",
                   u"Create vertex buffer failed, dynamic usage is not match.\n");
    return Ptr<VertexBuffer>(static_cast<VertexBuffer*>(buffer.Get()));
}

} // namespace KovexEngine
