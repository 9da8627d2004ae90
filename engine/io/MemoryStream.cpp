#include "io/MemoryStream.h"

#include <cstring>
#include <mutex>

#include "kernel/Containers.h"
#include "kernel/Log.h"

namespace KovexEngine {

// --- MemoryStream ---------------------------------------------------------------------------

MemoryStream::MemoryStream(unsigned int initialSize) : m_initialSize(initialSize), m_data(new DataStream())
{
    m_flags = Readable | Writeable | AccessFixed;
}

MemoryStream::MemoryStream(DataStream* data, bool takeOwnership) : m_data(data)
{
    m_flags = Readable | (takeOwnership ? 0u : uint32(Attached));
}

MemoryStream::~MemoryStream()
{
    if (!(m_flags & Attached))
        delete m_data;
}

bool MemoryStream::InternalOpen()
{
    if (!m_data)
        return false;
    if (m_data->IsEmpty() && m_initialSize > 0 && !m_data->SetLength(m_initialSize, false))
        return false;
    m_data->SetPosition(0);
    m_data->SetAutoExtend(IsWriteable());
    return true;
}

bool MemoryStream::InternalWrite(const void* data, int size)
{
    return m_data && size >= 0 && m_data->Write(data, unsigned(size));
}

bool MemoryStream::InternalRead(void* data, int size)
{
    return m_data && size >= 0 && m_data->Read(data, unsigned(size));
}

void MemoryStream::InternalSeek(int64 offset, SeekOrigin origin)
{
    if (!m_data)
        return;
    int64 base = origin == Begin ? 0 : (origin == Current ? int64(m_data->GetPosition()) : int64(m_data->GetLength()));
    int64 target = base + offset;
    if (target >= 0 && target <= int64(m_data->GetLength()))
        m_data->SetPosition(unsigned(target));
}

void* MemoryStream::InternalMap(int64 offset, unsigned int size)
{
    // The size is not checked against the length, as before; the offset is.
    (void)size;
    if (!m_data || !m_data->GetPointer() || offset < 0 || offset > int64(m_data->GetCapacity()))
        return nullptr;
    return m_data->GetPointer(unsigned(offset));
}

// --- ProxyStream ------------------------------------------------------------------------------

ProxyStream::ProxyStream(const Ptr<Stream>& source, int64 offset, int64 size)
    : Stream(source ? source->GetPath() : WString()), m_source(source), m_offset(offset < 0 ? 0 : offset),
      m_size(size < 0 ? 0 : size)
{
    if (m_source)
        m_flags = (m_flags & ~uint32(Readable | Writeable | NotMappable)) |
                  (m_source->GetFlags() & (Readable | Writeable | NotMappable));
}

ProxyStream::~ProxyStream()
{
    if (IsOpenned())
        ProxyStream::InternalClose();
}

bool ProxyStream::InternalOpen()
{
    if (!m_source)
        return false;
    m_position = 0;
    if (m_source->IsOpenned())
    {
        m_flags |= SourceWasOpen;
        return true;
    }
    m_flags &= ~uint32(SourceWasOpen);
    m_source->SetAccess(m_flags & (Readable | Writeable));
    return m_source->Open();
}

void ProxyStream::InternalClose()
{
    if (m_source && !(m_flags & SourceWasOpen))
        m_source->Close();
}

// The stretch may claim more than the source holds (a corrupt package
// table): nothing past the source's end is ever touched.
bool ProxyStream::InSource(int64 offset, int64 size) const
{
    int64 sourceSize = m_source->GetSize();
    return offset >= 0 && size >= 0 && (sourceSize < 0 || m_offset + offset <= sourceSize - size);
}

bool ProxyStream::InternalWrite(const void* data, int size)
{
    if (!m_source || size < 0 || !data)
        return false;
    if (m_position < 0 || m_position + size > m_size || !InSource(m_position, size))
    {
        Log::Print(LOG_INFO, u"Write data to ProxyStream failed, can't extend length automatic.\n");
        return false;
    }
    void* view = m_source->Map(m_offset + m_position, unsigned(size));
    if (!view)
        return false;
    std::memcpy(view, data, size_t(size));
    m_source->Unmap();
    m_position += size;
    return true;
}

bool ProxyStream::InternalRead(void* data, int size)
{
    if (!m_source || size < 0 || !data)
        return false;
    // Reads stay inside the proxy's stretch and the source.
    if (m_position < 0 || m_position + size > m_size || !InSource(m_position, size))
        return false;
    if (m_source->IsMappable())
    {
        void* view = m_source->Map(m_offset + m_position, unsigned(size));
        if (!view)
            return false;
        std::memcpy(data, view, size_t(size));
        m_source->Unmap();
        m_position += size;
        return true;
    }
    int64 target = m_offset + m_position;
    if (target <= m_source->GetSize() && target != m_source->GetPosition())
        m_source->SetPosition(target);
    m_position += size;
    return m_source->Read(data, size);
}

void ProxyStream::InternalSeek(int64 offset, SeekOrigin origin)
{
    if (origin == Begin)
        m_position = offset;
    else if (origin == Current)
        m_position += offset;
    else
        m_position = m_size + offset;
}

void* ProxyStream::InternalMap(int64 offset, unsigned int size)
{
    if (!m_source || offset < 0 || offset + int64(size) > m_size || !InSource(offset, int64(size)))
        return nullptr;
    return m_source->Map(m_offset + offset, size);
}

void ProxyStream::InternalUnmap()
{
    if (m_source)
        m_source->Unmap();
}

// --- ResourceStream ---------------------------------------------------------------------------

namespace {

struct Blob
{
    const uint8* data;
    uint32 size;
};

std::mutex s_resourceLock;

TMap<WString, Blob>& Resources()
{
    static TMap<WString, Blob> table;
    return table;
}

WString KeyOf(const WString& name, const WString& type)
{
    WString key(type);
    key.Append(u'\x1F');
    key.Append(name);
    return key;
}

WString NumberText(unsigned int value)
{
    WString text;
    text.Format(u"#%u", value);
    return text;
}

} // namespace

bool ResourceStream::Register(const char16_t* name, const char16_t* type, const void* data, unsigned int size)
{
    if (!name || !type || !data)
        return false;
    std::lock_guard<std::mutex> guard(s_resourceLock);
    return Resources().Set(KeyOf(WString(name), WString(type)), Blob{static_cast<const uint8*>(data), size});
}

bool ResourceStream::Register(unsigned int name, unsigned int type, const void* data, unsigned int size)
{
    WString n = NumberText(name), t = NumberText(type);
    return Register(n(), t(), data, size);
}

void ResourceStream::Find(const WString& key)
{
    std::lock_guard<std::mutex> guard(s_resourceLock);
    if (const Blob* blob = Resources().FindValue(key))
    {
        m_data = blob->data;
        m_size = blob->size;
    }
}

ResourceStream::ResourceStream(void*, const char16_t* name, const char16_t* type) : Stream(name)
{
    m_flags = Readable | AccessFixed;
    if (name && type)
        Find(KeyOf(WString(name), WString(type)));
}

ResourceStream::ResourceStream(void*, unsigned int name, unsigned int type)
{
    m_flags = Readable | AccessFixed;
    Find(KeyOf(NumberText(name), NumberText(type)));
}

bool ResourceStream::InternalRead(void* data, int size)
{
    if (!data || size < 0 || m_position < 0 || m_position + size > int64(m_size))
        return false;
    std::memcpy(data, m_data + m_position, size_t(size));
    m_position += size;
    return true;
}

void ResourceStream::InternalSeek(int64 offset, SeekOrigin origin)
{
    if (origin == Begin)
        m_position = offset;
    else if (origin == Current)
        m_position += offset;
    else
        m_position = int64(m_size) + offset;
}

void* ResourceStream::InternalMap(int64 offset, unsigned int size)
{
    if (!m_data || offset < 0 || offset + int64(size) > int64(m_size))
        return nullptr;
    return const_cast<uint8*>(m_data + offset);
}

} // namespace KovexEngine
