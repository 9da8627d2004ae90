#include "io/Stream.h"

#include <time.h>

#include <cstdlib>
#include <cstring>

#include "kernel/Log.h"

namespace KovexEngine {

const Stream::DateTime Stream::DateTime::Invalid{0xFFFFFFFFu, 0xFFFFFFFFu};
const Stream::DateTime Stream::DateTime::Zero{0, 0};

namespace {
// Seconds from 1601-01-01 to 1970-01-01.
constexpr int64 kEpochDifference = 11644473600LL;
} // namespace

Stream::DateTime Stream::DateTime::FromUnix(int64 seconds, int64 nanoseconds)
{
    int64 since1601 = seconds + kEpochDifference;
    if (since1601 < 0)
        return Zero;
    return FromTicks(uint64(since1601) * 10000000ull + uint64(nanoseconds / 100));
}

void Stream::DateTime::ToString(WString& out) const
{
    uint64 ticks = Ticks();
    int64 seconds = int64(ticks / 10000000ull) - kEpochDifference;
    time_t unixTime = time_t(seconds);
    tm calendar;
    if (*this == Invalid || !gmtime_r(&unixTime, &calendar))
    {
        out = u"Error Time";
        return;
    }
    out.Format(u"%hu-%.2hu-%.2hu %.2hu:%.2hu:%.2hu", (unsigned short)(calendar.tm_year + 1900),
               (unsigned short)(calendar.tm_mon + 1), (unsigned short)calendar.tm_mday,
               (unsigned short)calendar.tm_hour, (unsigned short)calendar.tm_min, (unsigned short)calendar.tm_sec);
}

// --- Stream ------------------------------------------------------------------------------

Stream::Stream(const WString& path) : m_path(path) {}
Stream::Stream(const char16_t* path) : m_path(path) {}
Stream::~Stream() = default;

bool Stream::SetDateTime(DateTime) { return false; }
bool Stream::IsFileStream() const { return false; }

bool Stream::Open()
{
    if (InternalOpen())
        m_flags |= Openned;
    return IsOpenned();
}

void Stream::Close()
{
    if (!IsOpenned())
        return;
    InternalClose();
    m_flags &= ~uint32(Openned);
}

void Stream::SetPosition(int64 position)
{
    if (position > GetSize())
        return;
    int64 move = position - GetPosition();
    if (move != 0)
        InternalSeek(move, Current);
}

void* Stream::Map(int64 offset, unsigned int size)
{
    void* view = InternalMap(offset, size);
    if (view)
        m_flags |= Mapped;
    return view;
}

void Stream::Unmap()
{
    InternalUnmap();
    m_flags &= ~uint32(Mapped);
}

bool Stream::LoadText(AString& out)
{
    bool wasOpen = IsOpenned();
    if (!wasOpen && !Open())
        return false;
    int64 remaining = GetSize() - GetPosition();
    bool ok = true;
    if (remaining < 0 || remaining >= 0xFFFFFFFFll || remaining > int64(AString::kMaxLength))
    {
        Log::Print(LOG_ERROR, u"stream is too big to open !\n");
        ok = false;
    }
    else if (remaining == 0)
        out.Clear();
    else if (!out.SetLength(unsigned(remaining)) || !Read(out(), int(remaining)))
    {
        out.Clear();
        ok = false;
    }
    if (!wasOpen)
        Close();
    return ok;
}

// --- DataStream ------------------------------------------------------------------------------

DataStream::DataStream(unsigned int length)
{
    SetLength(length, false);
}

DataStream::DataStream(const DataStream& other) { *this = other; }

DataStream& DataStream::operator=(const DataStream& other)
{
    if (this == &other)
        return *this;
    ReleaseData();
    m_autoExtend = other.m_autoExtend;
    if (other.m_length && Reserve(other.m_length, false))
    {
        std::memcpy(m_data, other.m_data, other.m_length);
        m_length = other.m_length;
        m_position = other.m_position;
    }
    return *this;
}

DataStream::~DataStream() { std::free(m_data); }

bool DataStream::Reserve(unsigned int size, bool keep)
{
    if (size <= m_capacity)
        return true;
    if (size > kMaxSize)
        return false;
    if (keep && m_position > 0)
    {
        auto* block = static_cast<uint8*>(std::malloc(size));
        if (!block)
            return false;
        std::memcpy(block, m_data, m_position);
        std::free(m_data);
        m_data = block;
    }
    else
    {
        auto* block = static_cast<uint8*>(std::malloc(size));
        if (!block)
            return false;
        std::free(m_data);
        m_data = block;
        // Nothing of the old contents is kept: no byte of it is valid now.
        if (m_length > 0 && !keep)
            m_length = m_position = 0;
    }
    m_capacity = size;
    if (m_length > m_position && keep)
        m_length = m_position; // only the bytes before the position were kept
    return true;
}

bool DataStream::SetLength(unsigned int size, bool keep)
{
    if (!Reserve(size, keep))
        return false;
    if (size < m_position)
        m_position = size;
    m_length = size;
    return true;
}

bool DataStream::SetPosition(unsigned int position)
{
    if (position > m_length)
        return false;
    m_position = position;
    return true;
}

bool DataStream::Read(void* data, unsigned int size)
{
    if (uint64(m_position) + size > m_length || (size && !data))
        return false;
    if (size)
        std::memcpy(data, m_data + m_position, size);
    m_position += size;
    return true;
}

bool DataStream::Write(const void* data, unsigned int size)
{
    uint64 end = uint64(m_position) + size;
    if (end > m_length)
    {
        if (!m_autoExtend || end > kMaxSize)
            return false;
        if (end > m_capacity)
        {
            uint64 capacity = end * 2 > kMaxSize ? kMaxSize : end * 2;
            if (!Reserve(unsigned(capacity), true))
                return false;
        }
        m_length = unsigned(end);
    }
    if (size)
        std::memcpy(m_data + m_position, data, size);
    m_position = unsigned(end);
    return true;
}

void DataStream::Swap(DataStream& other)
{
    std::swap(m_autoExtend, other.m_autoExtend);
    std::swap(m_position, other.m_position);
    std::swap(m_length, other.m_length);
    std::swap(m_capacity, other.m_capacity);
    std::swap(m_data, other.m_data);
}

void DataStream::ReleaseData()
{
    std::free(m_data);
    m_data = nullptr;
    m_position = m_length = m_capacity = 0;
}

} // namespace KovexEngine
