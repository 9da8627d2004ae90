#include "graphics/IndexBuffer.h"

#include <cstring>
#include <memory>

#include "kernel/Log.h"
#include "serialization/Serializer.h"

namespace KovexEngine {

KOVEX_REGISTER_CLASS(IndexBuffer, u"Engine", GraphicsBuffer)
KOVEX_REGISTER_CLASS(IndexBuffer::Stream, u"Engine", GraphicsStream2)
KOVEX_REGISTER_CLASS(IndexBuffer::DynamicStream, u"Engine", IndexBuffer::Stream)

namespace {
constexpr FourCC IXSM = FourCCs::Make("IXSM");
constexpr FourCC SIZE = FourCCs::Make("SIZE");
constexpr FourCC FMT = FourCCs::Make("FMT");
constexpr FourCC BUF = FourCCs::Make("BUF");
} // namespace

bool IndexBuffer::Stream::Init(uint32 count, IndexFormat format, bool allocate)
{
    if (count == 0 || (format != Index16 && format != Index32))
        return false;
    uint64 bytes = uint64(count) * kIndexSize[format];
    if (bytes > DataStream::kMaxSize)
        return false;
    if (allocate && !ExtendTo(uint32(bytes), false))
        return false;
    m_count = count;
    m_format = format;
    return true;
}

Ptr<IndexBuffer::Stream> IndexBuffer::Stream::Create(uint32 count, IndexFormat format, bool allocate)
{
    Ptr<Stream> stream(new Stream());
    return stream->Init(count, format, allocate) ? stream : Ptr<Stream>();
}

Ptr<IndexBuffer::DynamicStream> IndexBuffer::DynamicStream::Create(uint32 count, IndexFormat format, bool allocate)
{
    Ptr<DynamicStream> stream(new DynamicStream());
    return stream->Init(count, format, allocate) ? stream : Ptr<DynamicStream>();
}

bool IndexBuffer::Stream::Duplicate(Object* destination, unsigned int flags) const
{
    if (!GraphicsStream2::Duplicate(destination, flags))
        return false;
    auto* copy = static_cast<Stream*>(destination);
    copy->m_count = m_count;
    copy->m_format = m_format;
    return true;
}

bool IndexBuffer::Stream::Save(Serializer* s) const
{
    if (!s || !s->Enter(IXSM))
        return false;
    bool ok = s->Write(SIZE, m_count) && s->Write(FMT, int32(m_format)) && s->Enter(BUF);
    if (ok)
    {
        uint32 stored = GetLength() / kIndexSize[m_format];
        ok = m_format == Index16 ? s->Write(FourCCs::DATA, reinterpret_cast<const uint16*>(GetPointer()), stored)
                                 : s->Write(FourCCs::DATA, reinterpret_cast<const uint32*>(GetPointer()), stored);
        s->Leave();
    }
    s->Leave();
    return ok;
}

bool IndexBuffer::Stream::Load(Serializer* s)
{
    if (!s || !s->Enter(IXSM))
    {
        Log::Print(LOG_ERROR, u"IndexBuffer: no IXSM section.\n");
        return false;
    }
    uint32 count = 0;
    int32 format = -1;
    bool ok = s->Read(SIZE, count) && s->Read(FMT, format) && (format == Index16 || format == Index32);
    void* data = nullptr;
    unsigned stored = 0;
    if (ok && (ok = s->Enter(BUF)))
    {
        if (format == Index16)
        {
            uint16* values = nullptr;
            ok = s->Read(FourCCs::DATA, values, stored, true);
            data = values;
        }
        else
        {
            uint32* values = nullptr;
            ok = s->Read(FourCCs::DATA, values, stored, true);
            data = values;
        }
        s->Leave();
    }
    s->Leave();
    std::unique_ptr<uint8[]> owned(static_cast<uint8*>(data));
    // The stored indices must be the count the header claims.
    if (!ok || count == 0 || stored != count)
    {
        Log::Format(LOG_ERROR, u"IndexBuffer: bad IXSM section (count %u, format %d, %u stored).\n", count, format,
                    stored);
        return false;
    }
    DataStream loaded(count * kIndexSize[format]);
    if (!loaded.GetPointer())
        return false;
    std::memcpy(loaded.GetPointer(), data, loaded.GetLength());
    m_data.Swap(loaded);
    m_count = count;
    m_format = IndexFormat(format);
    MakeDirty(0, GetLength());
    return true;
}

bool IndexBuffer::AllowReleaseStream() const
{
    return GetCpuAccessFlags() == 0 || GetResourceUsage() == GraphicsResourceUsage::Immutable;
}

Ptr<IndexBuffer> IndexBufferFactory::Create(const Ptr<IndexBuffer::Stream>& stream, uint32 cpuAccess,
                                            GraphicsResourceUsage usage, std::atomic<int32>* pending)
{
    Ptr<GraphicsBuffer> buffer =
        PostBuffer(NewIndexBuffer(), stream.Get(), cpuAccess, usage, pending,
                   u"Create index buffer failed, invalid stream or stream size is zero !\n",
                   u"Create index buffer failed, dynamic usage is not match.\n");
    return Ptr<IndexBuffer>(static_cast<IndexBuffer*>(buffer.Get()));
}

} // namespace KovexEngine
