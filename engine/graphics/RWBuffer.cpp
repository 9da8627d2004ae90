#include "graphics/RWBuffer.h"

#include "kernel/Log.h"

namespace KovexEngine {

KOVEX_REGISTER_CLASS(RWBuffer, u"Engine", GraphicsBuffer)
KOVEX_REGISTER_CLASS(RWBuffer::Stream, u"Engine", GraphicsStream3)
KOVEX_REGISTER_CLASS(RWBuffer::DynamicStream, u"Engine", RWBuffer::Stream)

uint32 RWBuffer::NumElements() const
{
    uint32 bytes = GraphicsFormat::GetFormatBytes(m_format);
    return bytes ? GetByteWidth() / bytes : 0;
}

Ptr<RWBuffer> RWBufferFactory::Create(GraphicsFormat format, uint32 elementCount, uint32 view, uint32 cpuAccess,
                                      GraphicsResourceUsage usage, bool allocate, std::atomic<int32>* pending)
{
    uint32 bytes = format == GraphicsFormat::UNKNOWN ? 0 : GraphicsFormat::GetFormatBytes(format);
    uint64 size = uint64(elementCount) * bytes;
    if (elementCount == 0 || view == 0 || bytes == 0 || usage == GraphicsResourceUsage::Immutable ||
        size > DataStream::kMaxSize)
    {
        Log::Print(LOG_INFO, u"Create RW Buffer failed, invalid args.\n");
        return Ptr<RWBuffer>();
    }
    Ptr<GraphicsStream> stream;
    if (allocate)
    {
        stream = usage == GraphicsResourceUsage::Dynamic ? Ptr<GraphicsStream>(new RWBuffer::DynamicStream())
                                                         : Ptr<GraphicsStream>(new RWBuffer::Stream());
        if (!stream->ExtendTo(uint32(size), false))
        {
            Log::Print(LOG_INFO, u"Create RW Buffer failed, invalid args.\n");
            return Ptr<RWBuffer>();
        }
    }
    Ptr<RWBuffer> buffer(NewRWBuffer());
    buffer->m_view = view;
    buffer->m_format = format;
    buffer->SetStream(stream);
    buffer->SetByteWidth(uint32(size));
    SetCpuAccessFlags(buffer.Get(), cpuAccess);
    SetResourceUsage(buffer.Get(), usage);
    M_PostObject(Ptr<GraphicsObject>(buffer.Get()), pending);
    return buffer;
}

} // namespace KovexEngine
