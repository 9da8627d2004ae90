#include "io/FileStream.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstring>

#include "io/FileIo.h"
#include "kernel/Log.h"
#include "kernel/StringConv.h"

namespace KovexEngine {
namespace {

AString NativePath(const WString& path)
{
    AString utf8;
    StringConvFuncs::UTF16toUTF8(utf8, path(), path.Length());
    return utf8;
}

// Maps [offset, offset + size) of a descriptor: the view starts at the
// offset brought down to the granularity.
void* MapView(int fd, bool writeable, int64 offset, unsigned size, void*& view, size_t& viewLength)
{
    unsigned granularity = FileStream::GetAllocationGranularity();
    int64 aligned = offset - offset % granularity;
    size_t remainder = size_t(offset - aligned);
    size_t length = remainder + (size ? size : 1);
    // Large views are read whole soon after: fault their pages in at once
    // rather than one by one on first touch.
    int flags = MAP_SHARED | (length >= (256u << 10) ? MAP_POPULATE : 0);
    void* base = ::mmap(nullptr, length, PROT_READ | (writeable ? PROT_WRITE : 0), flags, fd, off_t(aligned));
    if (base == MAP_FAILED)
        return nullptr;
    view = base;
    viewLength = length;
    return static_cast<uint8*>(base) + remainder;
}

void UnmapView(void*& view, size_t& viewLength)
{
    if (view)
        ::munmap(view, viewLength);
    view = nullptr;
    viewLength = 0;
}

std::atomic<unsigned> s_granularity{0};

} // namespace

unsigned int FileStream::GetAllocationGranularity()
{
    unsigned value = s_granularity.load(std::memory_order_relaxed);
    if (!value)
    {
        long page = ::sysconf(_SC_PAGESIZE);
        value = page > 0 ? unsigned(page) : 4096u;
        s_granularity.store(value, std::memory_order_relaxed);
    }
    return value;
}

FileStream::FileStream(const WString& path) : Stream(path) {}

FileStream::FileStream(void* handle, bool readable, bool writeable) : Stream(WString())
{
    m_fd = int(reinterpret_cast<intptr_t>(handle));
    m_flags = (readable ? Readable : 0u) | (writeable ? Writeable : 0u) | Attached | AccessFixed;
}

FileStream::~FileStream()
{
    if (IsOpenned())
        FileStream::InternalClose();
    else if (m_view)
        UnmapView(m_view, m_viewLength);
}

bool FileStream::InternalOpen()
{
    if (m_flags & Attached)
        return m_fd >= 0;
    bool read = IsReadable(), write = IsWriteable();
    int flags = O_CLOEXEC;
    if (read && write)
        flags |= O_RDWR | O_CREAT;
    else if (write)
        flags |= O_WRONLY | O_CREAT | O_TRUNC;
    else
        flags |= O_RDONLY;
    AString path = NativePath(m_path);
    int fd = ::open(path(), flags, 0666);
    int firstError = fd < 0 ? errno : 0;
    if (fd < 0 && firstError == ENOENT && write && m_path.IsValid())
    {
        // The directory may be missing: make it and try once more.
        WString directory(m_path);
        ValidateDirectory(directory);
        fd = ::open(path(), flags, 0666);
    }
    if (fd < 0)
    {
        Log::Format(LOG_WARNING, u"Create File %s failed, error = %d.\n", m_path(), firstError);
        return false;
    }
    m_fd = fd;
    m_mappedSize = -1;
    return true;
}

void FileStream::InternalClose()
{
    UnmapView(m_view, m_viewLength);
    m_mappedSize = -1;
    if (!(m_flags & Attached) && m_fd >= 0)
    {
        ::close(m_fd);
        m_fd = -1;
    }
}

int64 FileStream::GetSize() const
{
    struct stat info;
    if (m_fd < 0 || ::fstat(m_fd, &info) != 0)
        return -1;
    return int64(info.st_size);
}

int64 FileStream::GetPosition() const
{
    if (m_fd < 0)
    {
        Log::Print(LOG_INFO, u"FileStream: GetPosition() failed, because the stream is not openned.\n");
        return 0;
    }
    off_t position = ::lseek(m_fd, 0, SEEK_CUR);
    return position < 0 ? 0 : int64(position);
}

bool FileStream::InternalRead(void* data, int size)
{
    if (size <= 0 || !data || m_fd < 0)
        return false;
    return FileIo::ReadFully(m_fd, data, size_t(size));
}

bool FileStream::InternalWrite(const void* data, int size)
{
    if (size <= 0 || !data || m_fd < 0)
        return false;
    return FileIo::WriteFully(m_fd, data, size_t(size));
}

void FileStream::InternalSeek(int64 offset, SeekOrigin origin)
{
    int whence = origin == Begin ? SEEK_SET : (origin == Current ? SEEK_CUR : SEEK_END);
    if (m_fd < 0 || ::lseek(m_fd, off_t(offset), whence) < 0)
        Log::Format(LOG_WARNING, u"Seek file stream failed, error = %d.\n", m_fd < 0 ? EBADF : errno);
}

Stream::DateTime FileStream::GetDateTime()
{
    if (IsOpenned())
    {
        struct stat info;
        if (m_fd < 0 || ::fstat(m_fd, &info) != 0)
            return DateTime::Invalid;
        return DateTime::FromUnix(info.st_mtim.tv_sec, info.st_mtim.tv_nsec);
    }
    uint32 saved = m_flags;
    m_flags |= Readable;
    DateTime result = DateTime::Invalid;
    if (Open())
    {
        result = GetDateTime();
        Close();
    }
    m_flags = (m_flags & ~uint32(Readable)) | (saved & Readable);
    return result;
}

bool FileStream::SetDateTime(DateTime time)
{
    if (IsOpenned())
    {
        if (!IsWriteable() || m_fd < 0)
            return false;
        uint64 ticks = time.Ticks();
        timespec times[2];
        int64 seconds = int64(ticks / 10000000ull) - 11644473600LL;
        times[0].tv_sec = times[1].tv_sec = time_t(seconds);
        times[0].tv_nsec = times[1].tv_nsec = long((ticks % 10000000ull) * 100);
        return ::futimens(m_fd, times) == 0;
    }
    // As it always has, a closed stream opens for writing here: a write-only
    // stream truncates its file.
    uint32 saved = m_flags;
    m_flags |= Writeable;
    bool result = false;
    if (Open())
    {
        result = SetDateTime(time);
        Close();
    }
    m_flags = (m_flags & ~uint32(Writeable)) | (saved & Writeable);
    return result;
}

bool FileStream::InternalCreateFileMapping()
{
    m_mappedSize = GetSize();
    return m_mappedSize >= 0;
}

void* FileStream::InternalMap(int64 offset, unsigned int size)
{
    if (m_fd < 0 || offset < 0)
        return nullptr;
    if (m_mappedSize < 0 || offset + int64(size) > m_mappedSize)
        if (!InternalCreateFileMapping())
            return nullptr;
    // Mapping past the end of a file faults on access: refuse it here.
    if (offset + int64(size) > m_mappedSize || m_mappedSize == 0)
        return nullptr;
    // One view per stream: a new one replaces the old rather than leaking it.
    UnmapView(m_view, m_viewLength);
    return MapView(m_fd, IsWriteable(), offset, size, m_view, m_viewLength);
}

void FileStream::InternalUnmap() { UnmapView(m_view, m_viewLength); }

bool FileStream::FileExists(const WString& path)
{
    struct stat info;
    return ::stat(NativePath(path)(), &info) == 0 && S_ISREG(info.st_mode);
}

bool FileStream::DirectoryExists(const WString& path)
{
    struct stat info;
    return ::stat(NativePath(path)(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool FileStream::ValidateDirectory(WString& path)
{
    path.ConvertSlashes();
    path.FormatDir();
    AString native = NativePath(path);
    for (unsigned i = 1; i < native.Length(); ++i)
    {
        if (native[i] != '/' || native[i - 1] == ':')
            continue;
        AString directory(native(), i);
        if (::mkdir(directory(), 0777) != 0 && errno != EEXIST)
        {
            if (errno == ENOENT)
                return false;
        }
    }
    return true;
}

// --- FileMappingStream -------------------------------------------------------------------

bool FileMappingStream::InternalRead(void* data, int size)
{
    if (size <= 0 || !data)
        return false;
    void* view = InternalMap(m_position, unsigned(size));
    if (!view)
        return false;
    std::memcpy(data, view, size_t(size));
    InternalUnmap();
    return true;
}

bool FileMappingStream::InternalWrite(const void* data, int size)
{
    if (size <= 0 || !data || m_fd < 0)
        return false;
    if (m_position >= 0 && m_position + size <= GetSize())
    {
        void* view = InternalMap(m_position, unsigned(size));
        if (!view)
            return false;
        std::memcpy(view, data, size_t(size));
        InternalUnmap();
        return true;
    }
    // Beyond the end the file grows by a direct write at the logical
    // position (never at the descriptor's own, which this stream does not move).
    return m_position >= 0 && FileIo::PWriteFully(m_fd, data, size_t(size), m_position);
}

void FileMappingStream::InternalSeek(int64 offset, SeekOrigin origin)
{
    if (origin == Begin)
        m_position = offset;
    else if (origin == Current)
        m_position += offset;
    else
        m_position = GetSize() + offset;
}

// --- ProcessSharedStream -----------------------------------------------------------------

namespace {
AString SharedName(const WString& name)
{
    AString native = NativePath(name);
    if (!native.StartsWith("/"))
        native = AString("/") + native;
    return native;
}
} // namespace

ProcessSharedStream::ProcessSharedStream(const char16_t* name, int64 size, bool readable, bool writeable,
                                         bool createAlways)
    : Stream(name), m_size(size < 0 ? 0 : size)
{
    m_flags = (readable ? Readable : 0u) | (writeable ? Writeable : 0u) | (createAlways ? CreateAlways : 0u);
    FileStream::GetAllocationGranularity();
}

ProcessSharedStream::~ProcessSharedStream()
{
    if (IsOpenned())
        ProcessSharedStream::InternalClose();
}

bool ProcessSharedStream::Unlink(const char16_t* name) { return ::shm_unlink(SharedName(WString(name))()) == 0; }

bool ProcessSharedStream::InternalOpen()
{
    AString name = SharedName(m_path);
    int access = IsWriteable() ? O_RDWR : O_RDONLY;
    int fd = ::shm_open(name(), access | O_CLOEXEC, 0600);
    if (fd < 0 && (m_flags & CreateAlways))
    {
        fd = ::shm_open(name(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (fd >= 0 && ::ftruncate(fd, off_t(m_size)) != 0)
        {
            ::close(fd);
            fd = -1;
        }
    }
    if (fd < 0)
        return false;
    Log::Format(LOG_INFO, u"******FILE MAPPING %s = %u*******************.\n", m_path(), unsigned(fd));
    m_fd = fd;
    m_position = 0;
    return true;
}

void ProcessSharedStream::InternalClose()
{
    UnmapView(m_view, m_viewLength);
    if (m_fd >= 0)
        ::close(m_fd);
    m_fd = -1;
}

void* ProcessSharedStream::InternalMap(int64 offset, unsigned int size)
{
    if (m_fd < 0 || offset < 0 || offset + int64(size) > m_size)
        return nullptr;
    // Another process may have made the block smaller than this one trusts.
    struct stat info;
    if (::fstat(m_fd, &info) != 0 || offset + int64(size) > int64(info.st_size))
    {
        Log::Format(LOG_INFO, u"MapViewOfFile failed: %u.\n", unsigned(EINVAL));
        return nullptr;
    }
    UnmapView(m_view, m_viewLength);
    void* view = MapView(m_fd, IsWriteable(), offset, size, m_view, m_viewLength);
    if (!view)
        Log::Format(LOG_INFO, u"MapViewOfFile failed: %u.\n", unsigned(errno));
    return view;
}

void ProcessSharedStream::InternalUnmap() { UnmapView(m_view, m_viewLength); }

bool ProcessSharedStream::InternalRead(void* data, int size)
{
    if (size < 0 || !data)
        return false;
    void* view = InternalMap(m_position, unsigned(size));
    if (!view)
        return false;
    std::memcpy(data, view, size_t(size));
    m_position += size;
    InternalUnmap();
    return true;
}

bool ProcessSharedStream::InternalWrite(const void* data, int size)
{
    if (size < 0 || !data || !IsWriteable())
        return false;
    void* view = InternalMap(m_position, unsigned(size));
    if (!view)
        return false;
    std::memcpy(view, data, size_t(size));
    m_position += size;
    InternalUnmap();
    return true;
}

void ProcessSharedStream::InternalSeek(int64 offset, SeekOrigin origin)
{
    if (origin == Begin)
    {
        if (offset <= m_size)
            m_position = offset;
    }
    else if (origin == Current)
    {
        if (m_position + offset <= m_size)
            m_position += offset;
    }
    else if (offset < 0 && m_size + offset > 0)
        m_position = m_size + offset;
}

} // namespace KovexEngine
