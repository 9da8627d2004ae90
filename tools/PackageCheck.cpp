#include "PackageCheck.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include "KovexEngine.h"

using namespace KovexEngine;

namespace KovexTools {

namespace {

uint32_t Le32(const uint8_t* p) { return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24; }
uint64_t Le64(const uint8_t* p) { return Le32(p) | uint64_t(Le32(p + 4)) << 32; }

class Fd
{
public:
    explicit Fd(int fd) : m_fd(fd) {}
    ~Fd()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    int Get() const { return m_fd; }

private:
    int m_fd;
};

bool ReadAt(int fd, void* into, size_t size, uint64_t offset)
{
    auto* out = static_cast<uint8_t*>(into);
    while (size)
    {
        ssize_t n = ::pread(fd, out, size, off_t(offset));
        if (n <= 0)
            return false;
        out += n;
        size -= size_t(n);
        offset += uint64_t(n);
    }
    return true;
}

// The bytes a header starts with: its version and its magic, little-endian.
void HeaderPrefix(uint8_t (&prefix)[8])
{
    uint32_t version = Package::kVersion, magic = Package::kMagic;
    for (int i = 0; i < 4; ++i)
    {
        prefix[i] = uint8_t(version >> (8 * i));
        prefix[4 + i] = uint8_t(magic >> (8 * i));
    }
}

std::string Reason(int error) { return std::strerror(error); }

} // namespace

std::string DiagnosePackage(const std::string& path, bool forWriting)
{
    struct stat info;
    if (::stat(path.c_str(), &info) != 0)
        return errno == ENOENT ? "does not exist" : "cannot be looked at: " + Reason(errno);
    if (S_ISDIR(info.st_mode))
        return "is a directory, not a package";
    Fd fd(::open(path.c_str(), O_RDONLY));
    if (fd.Get() < 0)
        return "cannot be read: " + Reason(errno);
    if (forWriting && ::access(path.c_str(), W_OK) != 0)
        return "cannot be changed: " + Reason(errno);

    uint64_t fileSize = uint64_t(info.st_size);
    uint8_t prefix[8];
    HeaderPrefix(prefix);
    uint8_t tail[Package::kHeaderSize] = {};
    size_t tailSize = size_t(fileSize < Package::kHeaderSize ? fileSize : Package::kHeaderSize);
    if (tailSize && !ReadAt(fd.Get(), tail, tailSize, fileSize - tailSize))
        return "cannot be read: " + Reason(errno ? errno : EIO);
    // A package ends with its header: a header's start among the last bytes,
    // too close to the end to be whole, means the file was cut short.
    bool whole = tailSize == Package::kHeaderSize && std::memcmp(tail, prefix, sizeof prefix) == 0;
    for (size_t at = 0; !whole && at + sizeof prefix <= tailSize; ++at)
        if (tailSize - at < Package::kHeaderSize && std::memcmp(tail + at, prefix, sizeof prefix) == 0)
            return "is truncated: its header is cut off " + std::to_string(Package::kHeaderSize - (tailSize - at)) +
                   " bytes short";
    if (fileSize < Package::kHeaderSize)
        return "is not a package: it is shorter than a package header (" + std::to_string(fileSize) + " bytes)";

    Package::HEADER header;
    header.Read(tail);
    if (header.magic != Package::kMagic)
        return "is not a package: it does not end with a package header (a package cut short loses its header too)";
    if (header.version > Package::kVersion)
        return "was written by a newer version of the package format (" + std::to_string(header.version) + ")";
    uint64_t tableInPackage = header.GetSizeInPackage();
    uint64_t dataEnd = fileSize - Package::kHeaderSize;
    if (tableInPackage > dataEnd)
        return "is truncated: its table of members reaches " + std::to_string(tableInPackage - dataEnd) +
               " bytes before the start of the file";

    // The table: records of 68 bytes, each followed by its name.
    uint64_t tableStart = dataEnd - tableInPackage;
    if (header.tableSize > (256u << 20) || tableInPackage > (256u << 20))
        return "is damaged: its table of members claims an absurd size";
    std::vector<uint8_t> stored(static_cast<size_t>(tableInPackage));
    if (!stored.empty() && !ReadAt(fd.Get(), stored.data(), stored.size(), tableStart))
        return "cannot be read: " + Reason(errno ? errno : EIO);
    std::vector<uint8_t> table;
    if (header.compressionType)
    {
        if (header.tableSize > 1024 + uint64_t(tableInPackage) * 1032)
            return "is damaged: its table of members claims an absurd size";
        table.resize(header.tableSize);
        uLongf length = uLongf(table.size());
        int result = ::uncompress(table.data(), &length, stored.data(), uLong(stored.size()));
        if (result != Z_OK)
            return std::string("is damaged: its table of members does not inflate (zlib: ") + zError(result) + ")";
        table.resize(length);
    }
    else
        table.swap(stored);

    constexpr size_t kRecord = Package::kRecordSize + 4;
    size_t at = 0;
    for (uint64_t i = 0; i < header.numFiles; ++i)
    {
        if (table.size() - at < kRecord)
            return "is damaged: its table ends after " + std::to_string(i) + " of " + std::to_string(header.numFiles) +
                   " members";
        const uint8_t* record = table.data() + at;
        uint64_t offset = Le64(record + 8), size = Le64(record + 16), packed = Le64(record + 24);
        uint32_t nameLength = Le32(record + 64);
        at += kRecord;
        if (nameLength > table.size() - at)
            return "is damaged: a member name runs past the end of its table";
        std::string name(reinterpret_cast<const char*>(table.data() + at), nameLength);
        at += nameLength;
        if (!Package::IsSafeName(StringConvFuncs::ToWString(name.c_str())))
            return "holds an unsafe member name '" + name + "' (absolute, empty, with \"..\" or control characters)";
        uint64_t inPackage = record[32] ? packed : size;
        if (offset > tableStart || inPackage > tableStart - offset)
            return "is truncated or damaged: member '" + name + "' lies outside the file's data";
    }
    return std::string();
}

std::string DiagnoseMemberData(const std::string& packagePath, uint64_t offset, uint64_t compressedSize, uint64_t size)
{
    Fd fd(::open(packagePath.c_str(), O_RDONLY));
    if (fd.Get() < 0)
        return Reason(errno);
    if (compressedSize > (1ull << 31) || size > (1ull << 31))
        return "the member is too large to check";
    std::vector<uint8_t> packed(static_cast<size_t>(compressedSize)), out(static_cast<size_t>(size ? size : 1));
    if (!packed.empty() && !ReadAt(fd.Get(), packed.data(), packed.size(), offset))
        return "its data cannot be read: " + Reason(errno ? errno : EIO);
    uLongf length = uLongf(size);
    int result = ::uncompress(out.data(), &length, packed.data(), uLong(packed.size()));
    if (result == Z_OK && length == size)
        return std::string();
    if (result == Z_OK)
        return "zlib: inflates to " + std::to_string(length) + " bytes instead of " + std::to_string(size);
    return std::string("zlib: ") + zError(result);
}

} // namespace KovexTools
