#include "graphics/GraphicsStream.h"

#include <cstring>
#include <memory>

#include "kernel/Log.h"
#include "serialization/Serializer.h"

namespace KovexEngine {

KOVEX_REGISTER_CLASS(GraphicsStream, u"Engine", Object)
KOVEX_REGISTER_CLASS(GraphicsStream2, u"Engine", GraphicsStream)
KOVEX_REGISTER_CLASS(GraphicsStream3, u"Engine", GraphicsStream)

namespace {
constexpr FourCC GSSM = FourCCs::Make("GSSM");
}

uint8* GraphicsStream::GetPointer(uint32 offset) const
{
    return m_data.IsEmpty() ? nullptr : m_data.GetPointer(offset);
}

bool GraphicsStream::InternalRead(void* data, uint32 size)
{
    if (uint64(m_data.GetPosition()) + size > m_data.GetLength())
        return false;
    return m_data.Read(data, size);
}

bool GraphicsStream::InternalWrite(const void* data, uint32 size)
{
    uint32 position = m_data.GetPosition();
    if (!m_data.Write(data, size))
        return false;
    MakeDirty(position, size);
    return true;
}

bool GraphicsStream::Save(Serializer* serializer) const
{
    if (!serializer || !serializer->Enter(GSSM))
        return false;
    bool ok = serializer->Write(FourCCs::DATA, m_data.GetPointer(), m_data.GetLength());
    serializer->Leave();
    return ok;
}

bool GraphicsStream::Load(Serializer* serializer)
{
    if (!serializer || !serializer->Enter(GSSM))
    {
        Log::Print(LOG_ERROR, u"GraphicsStream: no GSSM section.\n");
        return false;
    }
    uint8* bytes = nullptr;
    unsigned count = 0;
    bool ok = serializer->Read(FourCCs::DATA, bytes, count, true);
    serializer->Leave();
    std::unique_ptr<uint8[]> owned(bytes);
    if (!ok)
    {
        Log::Print(LOG_ERROR, u"GraphicsStream: missing or truncated DATA.\n");
        return false;
    }
    DataStream loaded(count);
    if (count && (!loaded.GetPointer() || loaded.GetLength() != count))
    {
        Log::Print(LOG_ERROR, u"GraphicsStream: no memory for DATA.\n");
        return false;
    }
    if (count)
        std::memcpy(loaded.GetPointer(), bytes, count);
    loaded.SetAutoExtend(m_data.GetAutoExtend());
    m_data.Swap(loaded);
    MakeDirty(0, count);
    return true;
}

void GraphicsStream2::MakeDirty(uint32, uint32)
{
    if (m_regions.IsEmpty())
        m_regions.Add(Region{0, GetLength()});
}

bool GraphicsStream2::Duplicate(Object* destination, unsigned int flags) const
{
    if (!destination || destination->GetNativeClass() != GetNativeClass())
        return false;
    auto* copy = static_cast<GraphicsStream2*>(destination);
    if (!Object::Duplicate(destination, flags))
        return false;
    copy->m_data = m_data;
    copy->m_regions.Clear();
    return true;
}

bool GraphicsStream3::Duplicate(Object* destination, unsigned int flags) const
{
    if (!destination || destination->GetNativeClass() != GetNativeClass())
        return false;
    auto* copy = static_cast<GraphicsStream3*>(destination);
    if (!Object::Duplicate(destination, flags))
        return false;
    copy->m_data = m_data;
    copy->m_dirty = m_dirty;
    return true;
}

} // namespace KovexEngine
