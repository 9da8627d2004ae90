#pragma once

// Internal: whole transfers on a descriptor, retried across interruptions
// and short counts. Not installed.

#include <errno.h>
#include <unistd.h>

#include <cstddef>
#include <type_traits>

#include "kernel/Types.h"

namespace KovexEngine::FileIo {

// `step(pointer, count, offset)` moves at most `count` bytes and returns how
// many (or a negative value on error).
template <typename Step, typename P>
bool Transfer(P* data, size_t size, int64 offset, Step&& step)
{
    auto* p = reinterpret_cast<std::conditional_t<std::is_const_v<P>, const uint8*, uint8*>>(data);
    while (size)
    {
        ssize_t n = step(p, size, offset);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        p += n;
        offset += n;
        size -= size_t(n);
    }
    return true;
}

inline bool ReadFully(int fd, void* data, size_t size)
{
    return Transfer(data, size, 0, [fd](uint8* p, size_t n, int64) { return ::read(fd, p, n); });
}

inline bool WriteFully(int fd, const void* data, size_t size)
{
    return Transfer(data, size, 0, [fd](const uint8* p, size_t n, int64) { return ::write(fd, p, n); });
}

inline bool PReadFully(int fd, void* data, size_t size, int64 offset)
{
    return Transfer(data, size, offset, [fd](uint8* p, size_t n, int64 at) { return ::pread(fd, p, n, off_t(at)); });
}

inline bool PWriteFully(int fd, const void* data, size_t size, int64 offset)
{
    return Transfer(data, size, offset,
                    [fd](const uint8* p, size_t n, int64 at) { return ::pwrite(fd, p, n, off_t(at)); });
}

} // namespace KovexEngine::FileIo
