#include "graphics/ConstantBuffer.h"

#include <cstring>

#include "graphics/Renderer.h"
#include "kernel/Log.h"

namespace KovexEngine {

KOVEX_REGISTER_CLASS(ConstantBuffer, u"Engine", GraphicsBuffer)
KOVEX_REGISTER_CLASS(ConstantBuffer::Stream, u"Engine", GraphicsStream3)

ConstantBuffer::ConstantBuffer() = default;
ConstantBuffer::~ConstantBuffer() = default;

bool ConstantBuffer::CreateDeviceHandle()
{
    if (!DeviceCreateBuffer())
    {
        Log::Print(LOG_INFO, u"Create constant buffer failed !\n");
        return false;
    }
    if (const Ptr<GraphicsStream>& stream = GetStream())
    {
        stream->SetPosition(0);
        stream->ExtendTo(GetByteWidth(), true);
    }
    return true;
}

bool ConstantBuffer::WriteConstant(uint32 offset, const void* data, uint32 size, uint32 rowStride)
{
    GraphicsStream* stream = GetStream().Get();
    if (!stream || !data || uint64(offset) + size > stream->GetLength())
    {
        Log::Print(LOG_WARNING, u"Write Constant failed.\n");
        return false;
    }
    uint8* dst = stream->GetPointer(offset);
    const uint8* src = static_cast<const uint8*>(data);
    if (rowStride == 16)
        std::memcpy(dst, src, size);
    else if (rowStride == 0)
    {
        Log::Print(LOG_WARNING, u"Write Constant failed.\n");
        return false;
    }
    else if (rowStride > 16)
    {
        Log::Print(LOG_INFO, u"Write Constant failed, 'RowStride' must less equal to 16.\n");
        return false;
    }
    else
    {
        // The destination runs ahead of the source, so bounding the row by
        // the destination also keeps the read inside the source.
        for (uint32 d = 0, s = 0; d < size && s < size; d += 16, s += rowStride)
            std::memcpy(dst + d, src + s, rowStride < size - d ? rowStride : size - d);
    }
    stream->MakeDirty(offset, size);
    return true;
}

bool ConstantBuffer::WriteConstant(uint32 offset, ConstantWriter writer, void* userData, uint32 size)
{
    GraphicsStream* stream = GetStream().Get();
    if (!stream || !writer || uint64(offset) + size > stream->GetLength())
    {
        Log::Print(LOG_WARNING, u"Write Constant failed.\n");
        return false;
    }
    uint32 written = size;
    if (!writer(stream->GetPointer(offset), &written, userData))
    {
        Log::Print(LOG_WARNING, u"Write Constant failed.\n");
        return false;
    }
    stream->MakeDirty(offset, written < size ? written : size);
    return true;
}

void ConstantBuffer::CopyConstant(void* dst, const void* src, uint32 size, uint32 rowStride)
{
    if (!dst || !src)
        return;
    if (rowStride == 16)
    {
        std::memcpy(dst, src, size);
        return;
    }
    uint8* out = static_cast<uint8*>(dst);
    const uint8* in = static_cast<const uint8*>(src);
    for (uint32 d = 0, s = 0; rowStride && rowStride < 16 && s < size; d += rowStride, s += 16)
        std::memcpy(out + d, in + s, rowStride < size - s ? rowStride : size - s);
}

bool ConstantBuffer::CommitConstant(ShaderConstant* constant, const void* data, uint32 size, uint32 rowStride)
{
    return constant && WriteConstant(constant->Location[0], data, size, rowStride);
}

ConstantBufferFactory::~ConstantBufferFactory() = default;

Ptr<ConstantBuffer> ConstantBufferFactory::Create(uint32 size, std::atomic<int32>* pending)
{
    // The rounding must not wrap, and the stream must be able to hold it.
    if (size == 0 || size > DataStream::kMaxSize - 15)
        return Ptr<ConstantBuffer>();
    uint32 rounded = ConstantBuffer::RoundSize(size);
    Ptr<ConstantBuffer::Stream> stream(new ConstantBuffer::Stream());
    if (!stream->ExtendTo(rounded, false))
        return Ptr<ConstantBuffer>();
    // Registers a shader reads but nobody wrote are zeros, not old heap.
    std::memset(stream->GetPointer(), 0, rounded);
    Ptr<ConstantBuffer> buffer(NewConstantBuffer());
    buffer->SetStream(Ptr<GraphicsStream>(stream.Get()));
    buffer->SetByteWidth(rounded);
    SetCpuAccessFlags(buffer.Get(), uint32(GraphicsResourceCpuAccess::Write));
    SetResourceUsage(buffer.Get(), GraphicsResourceUsage::Dynamic);
    M_PostObject(Ptr<GraphicsObject>(buffer.Get()), pending);
    return buffer;
}

Ptr<ConstantBuffer> ConstantBufferFactory::Create(const Ptr<ShaderCBuffer>& cbuffer, uint32 size,
                                                  std::atomic<int32>* pending)
{
    const Ptr<Renderer>& renderer = Renderer::Get();
    if (!renderer || !renderer->GetHWCapability() || !renderer->GetHWCapability()->SupportNamedConstantBuffer ||
        !cbuffer || cbuffer->GetName().IsEmpty())
        return Ptr<ConstantBuffer>();
    Ptr<ConstantBuffer> buffer = Create(size, pending);
    if (!buffer)
        return buffer;
    buffer->SetShaderCBuffer(cbuffer);
    CriticalSection::Scope lock(m_namedLock);
    m_named.Insert(cbuffer.Get(), buffer);
    return buffer;
}

Ptr<ConstantBuffer> ConstantBufferFactory::Find(const Ptr<ShaderCBuffer>& cbuffer)
{
    CriticalSection::Scope lock(m_namedLock);
    const Ptr<ConstantBuffer>* found = m_named.FindValue(cbuffer.Get());
    return found ? *found : Ptr<ConstantBuffer>();
}

void ConstantBufferFactory::OnExit()
{
    TMap<const ShaderCBuffer*, Ptr<ConstantBuffer>> named;
    {
        CriticalSection::Scope lock(m_namedLock);
        named.Swap(m_named);
    }
    named.Clear();
    GraphicsFactory::OnExit();
}

} // namespace KovexEngine
