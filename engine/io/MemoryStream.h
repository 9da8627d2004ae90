#pragma once

#include "io/Stream.h"

namespace KovexEngine {

// A stream over a DataStream in memory.
class KOVEX_API MemoryStream : public Stream
{
public:
    // Readable, writeable and fixed; owns a new DataStream.
    explicit MemoryStream(unsigned int initialSize = 0);
    // Over an existing DataStream: read-only to start with. Without
    // `takeOwnership` the DataStream stays the caller's.
    MemoryStream(DataStream* data, bool takeOwnership);
    ~MemoryStream() override;

    int64 GetSize() const override { return m_data ? m_data->GetLength() : 0; }
    int64 GetPosition() const override { return m_data ? m_data->GetPosition() : 0; }
    bool EndOfStream() const override { return GetPosition() == GetSize(); }
    DateTime GetDateTime() override { return DateTime::Invalid; }

    DataStream* GetDataStream() const { return m_data; }
    void SetPath(const WString& path) { m_path = path; }

protected:
    bool InternalOpen() override;
    void InternalClose() override {}
    bool InternalWrite(const void* data, int size) override;
    bool InternalRead(void* data, int size) override;
    void InternalSeek(int64 offset, SeekOrigin origin) override;
    void* InternalMap(int64 offset, unsigned int size) override;
    void InternalUnmap() override {}

private:
    unsigned int m_initialSize = 0;
    DataStream* m_data;
};

// The stretch [offset, offset + size) of another stream, shown as a stream.
class KOVEX_API ProxyStream : public Stream
{
public:
    ProxyStream(const Ptr<Stream>& source, int64 offset, int64 size);
    ~ProxyStream() override;

    int64 GetSize() const override { return m_size; }
    int64 GetPosition() const override { return m_position; }
    bool EndOfStream() const override { return m_position == m_size; }
    DateTime GetDateTime() override { return m_source ? m_source->GetDateTime() : DateTime::Invalid; }
    bool SetDateTime(DateTime time) override { return m_source && m_source->SetDateTime(time); }
    const Ptr<Stream>& GetSource() const { return m_source; }
    int64 GetOffset() const { return m_offset; }

protected:
    bool InternalOpen() override;
    void InternalClose() override;
    bool InternalWrite(const void* data, int size) override;
    bool InternalRead(void* data, int size) override;
    void InternalSeek(int64 offset, SeekOrigin origin) override;
    void* InternalMap(int64 offset, unsigned int size) override;
    void InternalUnmap() override;

    bool InSource(int64 offset, int64 size) const;

    Ptr<Stream> m_source;
    int64 m_position = 0;
    int64 m_offset;
    int64 m_size;
};

// A blob compiled into the program, found by name and type.
class KOVEX_API ResourceStream : public Stream
{
public:
    // `module` is for the module that holds the resource; the engine keeps
    // one table for the process, so any value finds the same blobs.
    ResourceStream(void* module, const char16_t* name, const char16_t* type);
    ResourceStream(void* module, unsigned int name, unsigned int type);

    // Adds a blob to the table (normally done by generated code at load).
    static bool Register(const char16_t* name, const char16_t* type, const void* data, unsigned int size);
    static bool Register(unsigned int name, unsigned int type, const void* data, unsigned int size);

    int64 GetSize() const override { return m_size; }
    int64 GetPosition() const override { return m_position; }
    bool EndOfStream() const override { return m_position == m_size; }
    DateTime GetDateTime() override { return DateTime::Invalid; }

protected:
    bool InternalOpen() override { return m_size > 0; }
    void InternalClose() override {}
    bool InternalWrite(const void*, int) override { return false; }
    bool InternalRead(void* data, int size) override;
    void InternalSeek(int64 offset, SeekOrigin origin) override;
    void* InternalMap(int64 offset, unsigned int size) override;
    void InternalUnmap() override {}

private:
    void Find(const WString& key);

    const uint8* m_data = nullptr;
    uint32 m_size = 0;
    int64 m_position = 0;
};

} // namespace KovexEngine
