#pragma once

#include "io/Stream.h"

namespace KovexEngine {

// A file of the file system. Views map parts of it; a view never reaches
// past the end of the file.
class KOVEX_API FileStream : public Stream
{
public:
    explicit FileStream(const WString& path);
    // Wraps a descriptor opened elsewhere; the stream never closes it.
    FileStream(void* handle, bool readable, bool writeable);
    ~FileStream() override;

    int64 GetSize() const override;
    int64 GetPosition() const override;
    bool EndOfStream() const override { return GetPosition() == GetSize(); }
    DateTime GetDateTime() override;
    bool SetDateTime(DateTime time) override;
    bool IsFileStream() const override { return true; }

    void* GetHandle() const { return reinterpret_cast<void*>(intptr_t(m_fd)); }
    void* GetMappingHandle() const { return m_view; }

    static bool FileExists(const WString& path);
    static bool DirectoryExists(const WString& path);
    // Normalises the path and creates each directory along it; the last
    // component (after the last "/") is not created.
    static bool ValidateDirectory(WString& path);
    // The system's allocation granularity (the page size), asked once.
    static unsigned int GetAllocationGranularity();

protected:
    bool InternalOpen() override;
    void InternalClose() override;
    bool InternalWrite(const void* data, int size) override;
    bool InternalRead(void* data, int size) override;
    void InternalSeek(int64 offset, SeekOrigin origin) override;
    void* InternalMap(int64 offset, unsigned int size) override;
    void InternalUnmap() override;
    virtual bool InternalCreateFileMapping();

    int m_fd = -1;
    // The file's size when the mapping was last made: a view beyond it
    // makes the mapping again, so a file that has grown can be mapped.
    int64 m_mappedSize = -1;
    void* m_view = nullptr;
    size_t m_viewLength = 0;
};

// A file read and written through views, with a position of its own.
class KOVEX_API FileMappingStream : public FileStream
{
public:
    explicit FileMappingStream(const WString& path) : FileStream(path) {}
    FileMappingStream(void* handle, bool readable, bool writeable) : FileStream(handle, readable, writeable) {}

    int64 GetPosition() const override { return m_position; }

protected:
    bool InternalRead(void* data, int size) override;
    bool InternalWrite(const void* data, int size) override;
    void InternalSeek(int64 offset, SeekOrigin origin) override;

private:
    int64 m_position = 0;
};

// A named block of memory shared between processes (a POSIX shared-memory
// object). The name is that of the block; a leading "/" is added when it is
// missing, as the system requires.
class KOVEX_API ProcessSharedStream : public Stream
{
public:
    ProcessSharedStream(const char16_t* name, int64 size, bool readable, bool writeable, bool createAlways);
    ~ProcessSharedStream() override;

    void SetCreateAlways(bool on) { m_flags = on ? (m_flags | CreateAlways) : (m_flags & ~uint32(CreateAlways)); }
    int64 GetSize() const override { return m_size; }
    int64 GetPosition() const override { return m_position; }
    bool EndOfStream() const override { return m_position == m_size; }
    DateTime GetDateTime() override { return DateTime::Invalid; }
    // Removes a block's name from the system (the memory lives on while mapped).
    static bool Unlink(const char16_t* name);

protected:
    bool InternalOpen() override;
    void InternalClose() override;
    bool InternalWrite(const void* data, int size) override;
    bool InternalRead(void* data, int size) override;
    void InternalSeek(int64 offset, SeekOrigin origin) override;
    void* InternalMap(int64 offset, unsigned int size) override;
    void InternalUnmap() override;

private:
    int m_fd = -1;
    int64 m_size;
    int64 m_position = 0;
    void* m_view = nullptr;
    size_t m_viewLength = 0;
};

} // namespace KovexEngine
