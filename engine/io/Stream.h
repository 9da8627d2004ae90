#pragma once

#include "kernel/RefCount.h"
#include "kernel/Strings.h"

namespace KovexEngine {

class DataStream;

// The one interface of every byte source and sink: a path, a word of state
// flags, 64-bit sizes and positions, a file time and mapping of contents.
class KOVEX_API Stream : public ReferenceObj
{
public:
    enum SeekOrigin : int
    {
        Begin = 0,
        Current = 1,
        End = 2,
    };

    enum : uint32
    {
        Readable = 0x1,
        Writeable = 0x2,
        NotMappable = 0x4,
        AccessFixed = 0x8,
        Openned = 0x100,
        Mapped = 0x200,
        Attached = 0x1000,
        SourceWasOpen = 0x2000,
        CreateAlways = 0x8000,
    };

    // A file time: 100-nanosecond ticks since 1601-01-01 UTC, low word first.
    struct KOVEX_API DateTime
    {
        uint32 low = 0;
        uint32 high = 0;

        static const DateTime Invalid;
        static const DateTime Zero;

        uint64 Ticks() const { return (uint64(high) << 32) | low; }
        static DateTime FromTicks(uint64 ticks) { return DateTime{uint32(ticks), uint32(ticks >> 32)}; }
        // From Unix seconds and nanoseconds.
        static DateTime FromUnix(int64 seconds, int64 nanoseconds);
        bool operator==(const DateTime& o) const { return low == o.low && high == o.high; }
        bool operator!=(const DateTime& o) const { return !(*this == o); }
        bool operator<(const DateTime& o) const { return high != o.high ? high < o.high : low < o.low; }
        bool operator>(const DateTime& o) const { return o < *this; }
        // "%hu-%.2hu-%.2hu %.2hu:%.2hu:%.2hu", or "Error Time".
        void ToString(WString& out) const;
    };

    explicit Stream(const WString& path);
    explicit Stream(const char16_t* path = nullptr);
    ~Stream() override;

    virtual int64 GetSize() const = 0;
    virtual int64 GetPosition() const = 0;
    virtual bool EndOfStream() const = 0;
    virtual DateTime GetDateTime() = 0;
    virtual bool SetDateTime(DateTime time);
    virtual bool IsFileStream() const;

    bool Open();
    void Close();
    bool Read(void* data, int size) { return InternalRead(data, size); }
    bool Write(const void* data, int size) { return InternalWrite(data, size); }
    void Seek(int64 offset, SeekOrigin origin) { InternalSeek(offset, origin); }
    void SetPosition(int64 position);
    void* Map(int64 offset, unsigned int size);
    void Unmap();
    const WString& GetPath() const { return m_path; }
    // Reads from the position to the end, as bytes.
    bool LoadText(AString& out);

    uint32 GetFlags() const { return m_flags; }
    void SetReadable(bool on) { SetAccessBit(Readable, on); }
    void SetWriteable(bool on) { SetAccessBit(Writeable, on); }
    void SetReadOnly() { SetAccess(Readable); }
    void SetWriteOnly() { SetAccess(Writeable); }
    void SetReadWrite() { SetAccess(Readable | Writeable); }
    bool IsReadable() const { return (m_flags & Readable) != 0; }
    bool IsWriteable() const { return (m_flags & Writeable) != 0; }
    bool IsReadWrite() const { return (m_flags & (Readable | Writeable)) == (Readable | Writeable); }
    bool IsReadOnly() const { return (m_flags & (Readable | Writeable)) == Readable; }
    bool IsWriteOnly() const { return (m_flags & (Readable | Writeable)) == Writeable; }
    bool IsOpenned() const { return (m_flags & Openned) != 0; }
    bool IsMapped() const { return (m_flags & Mapped) != 0; }
    bool IsMappable() const { return (m_flags & NotMappable) == 0; }

protected:
    virtual bool InternalOpen() = 0;
    virtual void InternalClose() = 0;
    virtual bool InternalWrite(const void* data, int size) = 0;
    virtual bool InternalRead(void* data, int size) = 0;
    virtual void InternalSeek(int64 offset, SeekOrigin origin) = 0;
    virtual void* InternalMap(int64 offset, unsigned int size) = 0;
    virtual void InternalUnmap() = 0;

    void SetMappable(bool on)
    {
        if (!(m_flags & (Openned | AccessFixed)))
            m_flags = on ? (m_flags & ~uint32(NotMappable)) : (m_flags | NotMappable);
    }
    // Access bits change only while the stream is closed and not fixed.
    void SetAccessBit(uint32 bit, bool on)
    {
        if (!(m_flags & (Openned | AccessFixed)))
            m_flags = on ? (m_flags | bit) : (m_flags & ~bit);
    }
    void SetAccess(uint32 bits)
    {
        if (!(m_flags & (Openned | AccessFixed)))
            m_flags = (m_flags & ~uint32(Readable | Writeable)) | bits;
    }

    WString m_path;
    uint32 m_flags = Readable;

    friend class ProxyStream;
};

// A growable byte buffer with a position. Not a Stream, but MemoryStream
// wraps one.
class KOVEX_API DataStream
{
public:
    DataStream() = default;
    explicit DataStream(unsigned int length);
    DataStream(const DataStream& other);
    DataStream& operator=(const DataStream& other);
    ~DataStream();

    // Grows the block to `size` bytes (never shrinks); with `keep`, the bytes
    // before the position survive. False when the block cannot be had.
    bool Reserve(unsigned int size, bool keep);
    bool SetLength(unsigned int size, bool keep);
    bool SetPosition(unsigned int position);
    unsigned int GetPosition() const { return m_position; }
    unsigned int GetLength() const { return m_length; }
    unsigned int GetCapacity() const { return m_capacity; }
    bool Read(void* data, unsigned int size);
    bool Write(const void* data, unsigned int size);
    void Swap(DataStream& other);
    // Frees the block.
    void ReleaseData();
    void SetAutoExtend(bool on) { m_autoExtend = on; }
    bool GetAutoExtend() const { return m_autoExtend; }
    bool IsValid() const { return m_length > 0; }
    bool IsEmpty() const { return m_length == 0; }
    uint8* GetPointer(unsigned int offset = 0) const { return m_data ? m_data + offset : nullptr; }
    uint8* GetCurPtr() const { return GetPointer(m_position); }

    // Largest block a DataStream will hold.
    static constexpr unsigned int kMaxSize = 0x7FFFFFFFu;

private:
    bool m_autoExtend = false;
    unsigned int m_position = 0;
    unsigned int m_length = 0;
    unsigned int m_capacity = 0;
    uint8* m_data = nullptr;
};

} // namespace KovexEngine
