#include "io/Package.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>

#include "io/FileIo.h"
#include "io/FileStream.h"
#include "kernel/Log.h"
#include "kernel/StringConv.h"

namespace KovexEngine {
namespace {

// Limits that keep a corrupt or hostile file from asking for absurd memory.
constexpr uint64 kMaxTableSize = 256ull << 20;
// Deflate cannot expand data by more than about 1032 to 1.
constexpr uint64 kMaxInflateRatio = 1032;
constexpr unsigned kMinRecordSize = Package::kRecordSize + 4;

template <typename T>
void PutLE(uint8* p, T value)
{
    for (unsigned i = 0; i < sizeof(T); ++i)
        p[i] = uint8(uint64(value) >> (8 * i));
}

template <typename T>
T GetLE(const uint8* p)
{
    uint64 v = 0;
    for (unsigned i = 0; i < sizeof(T); ++i)
        v |= uint64(p[i]) << (8 * i);
    return T(v);
}

uint64 InflateLimit(uint64 compressed) { return compressed * kMaxInflateRatio + 1024; }

// --- Proxies ----------------------------------------------------------------------------------

class FileUncompressProxy final : public Package::IUncompressProxy
{
public:
    Ptr<Stream> CreateMemberStream(const ConstPtr<Package::File>& file, Stream* package) override
    {
        // A stream object of its own over the same descriptor: its views and
        // position are this reader's alone. The package's stream object is
        // held too: it owns the descriptor, which must outlive the member.
        Ptr<Stream> source(new FileStream(static_cast<FileStream*>(package)->GetHandle(), true, false));
        return Ptr<Stream>(new PackageStream(file, source, Ptr<Stream>(package)));
    }
    Stream* GetReadStream(Stream* package) override
    {
        return new FileMappingStream(static_cast<FileStream*>(package)->GetHandle(), true, false);
    }
};

class StreamUncompressProxy final : public Package::IUncompressProxy
{
public:
    Ptr<Stream> CreateMemberStream(const ConstPtr<Package::File>& file, Stream* package) override
    {
        return Ptr<Stream>(new PackageStream(file, Ptr<Stream>(package), Ptr<Stream>()));
    }
    Stream* GetReadStream(Stream* package) override { return package; }
};

FileUncompressProxy s_fileUncompress;
StreamUncompressProxy s_streamUncompress;

AString Native(const WString& path)
{
    AString out;
    StringConvFuncs::UTF16toUTF8(out, path(), path.Length());
    return out;
}

// Puts a finished file in another's place: its data reaches the disk
// before the rename, so that the name never stands for a partial file.
bool MoveIntoPlace(const AString& from, const AString& to)
{
    int fd = ::open(from(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    bool synced = ::fsync(fd) == 0;
    ::close(fd);
    if (!synced || ::rename(from(), to()) != 0)
        return false;
    AString directory(to);
    unsigned slash = directory.LastIndexOf('/');
    directory = slash == kNotFound ? AString(".") : (slash == 0 ? AString("/") : directory.SubString(0, slash));
    int dirFd = ::open(directory(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dirFd >= 0)
    {
        ::fsync(dirFd);
        ::close(dirFd);
    }
    return true;
}

class FilePackageProxy final : public Package::IPackageProxy
{
public:
    explicit FilePackageProxy(const WString& path) : m_path(path) {}
    const WString& GetPath() override { return m_path; }
    Stream* CreateStream() override { return m_path.IsEmpty() ? nullptr : new FileStream(m_path); }
    Stream* CreateTempStream() override { return m_path.IsEmpty() ? nullptr : new FileStream(m_path + u".tmp"); }
    bool DeleteStream(Stream* stream) override { return stream && ::unlink(Native(stream->GetPath())()) == 0; }
    bool ReplaceStream(Stream* from, Stream* to) override
    {
        return from && to && MoveIntoPlace(Native(from->GetPath()), Native(to->GetPath()));
    }
    bool SetEndOfStream(Stream* stream) override
    {
        if (!stream || !stream->IsFileStream())
            return false;
        int fd = int(reinterpret_cast<intptr_t>(static_cast<FileStream*>(stream)->GetHandle()));
        return fd >= 0 && ::ftruncate(fd, off_t(stream->GetPosition())) == 0;
    }
    Package::IUncompressProxy* GetUncompressProxy() override { return &s_fileUncompress; }

private:
    WString m_path;
};

class StreamPackageProxy final : public Package::IPackageProxy
{
public:
    StreamPackageProxy(const Ptr<Stream>& stream, const WString& name) : m_stream(stream), m_path(name) {}
    const WString& GetPath() override { return m_path; }
    Stream* CreateStream() override { return m_stream.Get(); }
    Stream* CreateTempStream() override { return new MemoryStream(0u); }
    bool DeleteStream(Stream*) override { return true; }
    // The rebuilt data becomes the package. (Holding the old stream instead
    // would keep the package as it was before the rebuild.)
    bool ReplaceStream(Stream* from, Stream*) override
    {
        m_stream = from;
        return from != nullptr;
    }
    // Only the memory streams this proxy makes can be cut short.
    bool SetEndOfStream(Stream* stream) override
    {
        auto* memory = dynamic_cast<MemoryStream*>(stream);
        int64 end = memory ? memory->GetPosition() : -1;
        return memory && memory->GetDataStream() && end >= 0 && end <= int64(DataStream::kMaxSize) &&
               memory->GetDataStream()->SetLength(unsigned(end), true);
    }
    Package::IUncompressProxy* GetUncompressProxy() override { return &s_streamUncompress; }

private:
    Ptr<Stream> m_stream;
    WString m_path;
};

} // namespace

Package::State::~State() = default;
void Package::State::OnProcessFile(const File*) {}
Package::IUncompressProxy::~IUncompressProxy() = default;
Package::IPackageProxy::~IPackageProxy() = default;

// --- Header and records --------------------------------------------------------------------

void Package::HEADER::Write(uint8 (&b)[kHeaderSize]) const
{
    std::memset(b, 0, sizeof b);
    PutLE<uint32>(b + 0, version);
    PutLE<uint32>(b + 4, magic);
    PutLE<uint64>(b + 8, numFiles & 0xFFFFFFFFull);
    PutLE<uint32>(b + 16, tableSize);
    PutLE<uint32>(b + 20, tableCompressedSize);
    b[24] = compressionType;
    b[25] = compressionLevel;
}

void Package::HEADER::Read(const uint8 (&b)[kHeaderSize])
{
    version = GetLE<uint32>(b + 0);
    magic = GetLE<uint32>(b + 4);
    numFiles = GetLE<uint64>(b + 8);
    tableSize = GetLE<uint32>(b + 16);
    tableCompressedSize = GetLE<uint32>(b + 20);
    compressionType = b[24];
    compressionLevel = b[25];
}

bool Package::File::Load(Stream* stream, const WString& mountDir)
{
    uint8 record[kRecordSize + 4];
    if (!stream || !stream->Read(record, sizeof record))
        return false;
    offset = GetLE<uint64>(record + 8);
    size = GetLE<uint64>(record + 16);
    compressedSize = GetLE<uint64>(record + 24);
    compressionType = record[32];
    compressionLevel = record[33];
    date.low = GetLE<uint32>(record + 56);
    date.high = GetLE<uint32>(record + 60);
    uint32 length = GetLE<uint32>(record + 64);
    if (length > 0x7FFFFFFFu || int64(length) > stream->GetSize() - stream->GetPosition())
        return false;
    if (length == 0)
        name.Clear();
    else
    {
        AString utf8;
        if (!utf8.SetLength(length) || !stream->Read(utf8(), int(length)))
            return false;
        StringConvFuncs::UTF8toUTF16(name, utf8(), length);
        name.Replace(u'\\', u'/');
    }
    path = mountDir.IsValid() ? mountDir + name : name;
    return true;
}

bool Package::File::Save(Stream* stream) const
{
    if (!stream || offset == ~0ull || size == ~0ull || compressedSize == ~0ull)
        return false;
    AString utf8;
    StringConvFuncs::UTF16toUTF8(utf8, name(), name.Length());
    uint8 record[kRecordSize + 4] = {};
    PutLE<uint64>(record + 8, offset);
    PutLE<uint64>(record + 16, size);
    PutLE<uint64>(record + 24, compressedSize);
    record[32] = compressionType;
    record[33] = compressionLevel;
    PutLE<uint32>(record + 56, date.low);
    PutLE<uint32>(record + 60, date.high);
    PutLE<uint32>(record + 64, utf8.Length());
    return stream->Write(record, sizeof record) && (utf8.IsEmpty() || stream->Write(utf8(), int(utf8.Length())));
}

bool Package::IsSafeName(const WString& name)
{
    if (name.IsEmpty() || name.StartsWith(u"/") || (name.Length() > 1 && name()[1] == u':'))
        return false;
    unsigned start = 0;
    for (unsigned i = 0; i <= name.Length(); ++i)
    {
        char16_t c = i < name.Length() ? name()[i] : u'/';
        if (c < 0x20)
            return false;
        if (c != u'/')
            continue;
        unsigned length = i - start;
        if (length == 0)
            return false;
        if (length == 2 && name()[start] == u'.' && name()[start + 1] == u'.')
            return false;
        start = i + 1;
    }
    return true;
}

// --- Construction and mounting -------------------------------------------------------------

Package::Package(const WString& path)
    : m_proxy(new FilePackageProxy(path)), m_path(path), m_streamCount(new StreamCount())
{
}

Package::Package(const Ptr<Stream>& stream, const WString& name)
    : m_proxy(new StreamPackageProxy(stream, name)), m_path(name), m_streamCount(new StreamCount())
{
}

Package::~Package()
{
    Unmount();
    delete m_proxy;
}

ConstPtr<Package::File> Package::GetFile(const WString& name) const
{
    std::shared_lock<std::shared_mutex> lock(m_lock);
    return GetFileLocked(name);
}

ConstPtr<Package::File> Package::GetFileLocked(const WString& name) const
{
    const ConstPtr<File>* found = m_files.FindValue(name);
    return found ? *found : ConstPtr<File>();
}

bool Package::IsMountedOn(const WString& mountDir) const
{
    std::shared_lock<std::shared_mutex> lock(m_lock);
    return m_stream && m_mountDir == mountDir;
}

TArray<Ptr<Package::File>> Package::MembersInMapOrder() const
{
    TArray<Ptr<File>> all;
    all.Reserve(m_files.Count());
    for (const auto& pair : m_files)
        all.Add(Ptr<File>(const_cast<File*>(pair.value.Get())));
    return all;
}

bool Package::Mount(const WString& mountDir)
{
    std::unique_lock<std::shared_mutex> lock(m_lock);
    return MountLocked(mountDir);
}

bool Package::MountLocked(const WString& mountDir)
{
    if (m_stream)
        return true;
    Ptr<Stream> stream(m_proxy->CreateStream());
    if (!stream)
    {
        Log::Format(LOG_WARNING, u"Package: Mount package %s failed.\n", m_path());
        return false;
    }
    stream->SetReadable(true);
    stream->SetWriteable(m_writable);
    if (!stream->IsOpenned() && !stream->Open())
    {
        Log::Format(LOG_WARNING, u"Package: Mount package %s failed.\n", m_path());
        return false;
    }
    int64 fileSize = stream->GetSize();
    auto invalid = [&]() {
        Log::Format(LOG_WARNING, u"Package: %s is not a valid package.\n", m_path());
        stream->Close();
        return false;
    };
    if (fileSize < int64(kHeaderSize))
        return invalid();
    uint8 bytes[kHeaderSize];
    stream->Seek(fileSize - kHeaderSize, Stream::Begin);
    HEADER header;
    if (!stream->Read(bytes, kHeaderSize))
        return invalid();
    header.Read(bytes);
    uint64 tableInPackage = header.GetSizeInPackage();
    if (tableInPackage > uint64(fileSize - kHeaderSize) || header.magic != kMagic || header.version > kVersion)
        return invalid();
    if (header.tableSize > kMaxTableSize ||
        (header.compressionType && header.tableSize > InflateLimit(header.tableCompressedSize)) ||
        header.numFiles > header.tableSize / kMinRecordSize)
        return invalid();

    WString dir(mountDir);
    if (dir.IsValid() && !dir.EndsWith(u"/") && !dir.EndsWith(u"\\"))
        dir.Append(u'/');

    // The whole table comes into memory: its size is bounded by the file's.
    uint64 tableStart = uint64(fileSize) - kHeaderSize - tableInPackage;
    stream->Seek(int64(tableStart), Stream::Begin);
    auto* table = new DataStream();
    Ptr<MemoryStream> reader(new MemoryStream(table, true));
    bool ok = table->SetLength(header.tableSize, false);
    if (ok && header.tableSize)
    {
        if (header.compressionType == 0)
            ok = stream->Read(table->GetPointer(), int(header.tableSize));
        else
        {
            Ptr<Compressor> compressor = Compressor::CreateCompressor(Compressor::TYPE(header.compressionType));
            std::unique_ptr<uint8[]> packed(new (std::nothrow) uint8[header.tableCompressedSize ? header.tableCompressedSize : 1]);
            unsigned length = header.tableSize;
            if (!compressor)
                Log::Print(LOG_ERROR, u"Mount package failed, can't create compressor !");
            ok = compressor && packed && stream->Read(packed.get(), int(header.tableCompressedSize)) &&
                 compressor->Uncompress(table->GetPointer(), length, packed.get(), header.tableCompressedSize);
            if (ok)
                table->SetLength(length, true);
        }
    }
    if (ok)
        ok = reader->Open() && ReadTable(reader.Get(), dir, header.numFiles);
    if (!ok)
    {
        Log::Format(LOG_WARNING, u"Package: %s load package file table failed.\n", m_path());
        m_files.Clear();
        stream->Close();
        return false;
    }
    // Every member must lie in the data area, before the table.
    for (const auto& pair : m_files)
    {
        const File* file = pair.value.Get();
        uint64 inPackage = file->GetSizeInPackage();
        bool inflateOk = !file->IsCompressed() ||
                         (file->size <= DataStream::kMaxSize && file->size <= InflateLimit(file->compressedSize));
        // A type without a compressor would be read as raw, at its
        // uncompressed size, past the block that was checked.
        bool typeKnown = !file->IsCompressed() ||
                         Compressor::CreateCompressor(Compressor::TYPE(file->compressionType)).Get() != nullptr;
        if (file->offset > tableStart || inPackage > tableStart - file->offset || !inflateOk || !typeKnown)
        {
            Log::Format(LOG_WARNING, u"Package: %s load package file table failed.\n", m_path());
            m_files.Clear();
            stream->Close();
            return false;
        }
    }
    m_header = header;
    m_mountDir = dir;
    m_stream = stream;
    return true;
}

bool Package::ReadTable(Stream* reader, const WString& mountDir, uint64 count)
{
    m_files.Clear();
    m_files.Reserve(unsigned(count));
    // Appended as read, sorted once at the end: mounting is O(n log n).
    m_files.SetUnsorted(true);
    bool ok = true;
    for (uint64 i = 0; i < count; ++i)
    {
        Ptr<File> file(new File());
        file->owner = this;
        if (!file->Load(reader, mountDir) || !IsSafeName(file->name))
        {
            ok = false;
            break;
        }
        m_files.Insert(file->name, ConstPtr<File>(file.Get()));
    }
    std::stable_sort(m_files.begin(), m_files.end(),
                     [](const TPair<WString, ConstPtr<File>>& a, const TPair<WString, ConstPtr<File>>& b) {
                         return a.key < b.key;
                     });
    m_files.SetUnsorted(false);
    return ok;
}

void Package::Unmount()
{
    std::unique_lock<std::shared_mutex> lock(m_lock);
    UnmountLocked();
}

void Package::UnmountLocked()
{
    for (auto& pair : m_files)
        const_cast<File*>(pair.value.Get())->owner = nullptr;
    m_files.Clear();
    m_mountDir.Clear();
    // A file package's stream object is only let go: open member streams
    // hold it, and with it the descriptor they read, which it closes when the
    // last of them is gone. A stream given from outside is closed when no
    // member reads it.
    if (m_stream && m_proxy->GetUncompressProxy() != &s_fileUncompress && GetOpenStreamCount() == 0)
        m_stream->Close();
    m_stream = nullptr;
}

// --- Member streams ---------------------------------------------------------------------------

Stream::DateTime Package::GetFileDateTime(const WString& path) const
{
    std::shared_lock<std::shared_mutex> lock(m_lock);
    WString name;
    if (m_mountDir.IsEmpty())
        name = path;
    else if (path.Length() > m_mountDir.Length() && path.StartsWith(m_mountDir()))
        path.SubString(name, m_mountDir.Length());
    else
        return Stream::DateTime::Invalid;
    const ConstPtr<File>* found = m_files.FindValue(name);
    return found ? (*found)->date : Stream::DateTime::Invalid;
}

Ptr<Stream> Package::CreateStream(const WString& path)
{
    std::shared_lock<std::shared_mutex> lock(m_lock);
    WString name(path);
    if (m_mountDir.IsValid() && path.StartsWith(m_mountDir()))
        path.SubString(name, m_mountDir.Length());
    const ConstPtr<File>* found = m_files.FindValue(name);
    if (!found || !m_stream)
    {
        Log::Format(LOG_INFO, 256u, u"Package::CreateStream failed, path=%s\n", path());
        return Ptr<Stream>();
    }
    return UncompressStream(found->Get(), m_stream.Get(), m_proxy->GetUncompressProxy());
}

Ptr<Stream> Package::UncompressStream(const File* file, Stream* package)
{
    if (!package)
        return Ptr<Stream>();
    IUncompressProxy* proxy = package->IsFileStream() ? static_cast<IUncompressProxy*>(&s_fileUncompress)
                                                      : static_cast<IUncompressProxy*>(&s_streamUncompress);
    return UncompressStream(file, package, proxy);
}

Ptr<Stream> Package::UncompressStream(const File* file, Stream* package, IUncompressProxy* proxy)
{
    if (!file || !proxy || !package || file->GetSizeInPackage() == 0)
        return Ptr<Stream>();
    Ptr<Compressor> compressor = Compressor::CreateCompressor(Compressor::TYPE(file->compressionType));
    if (!compressor)
        return proxy->CreateMemberStream(ConstPtr<File>(file), package);

    // A compressed member is inflated whole into memory.
    if (file->size > DataStream::kMaxSize || file->compressedSize > 0x7FFFFFFFull)
    {
        Log::Format(LOG_INFO, 512u, u"Decompress stream failed, internal error, %s\n", file->path());
        return Ptr<Stream>();
    }
    Ptr<Stream> reader(proxy->GetReadStream(package));
    bool openedHere = false;
    if (!reader->IsOpenned())
    {
        if (!reader->Open())
        {
            Log::Format(LOG_INFO, 512u, u"Decompress stream failed, can't open a temp stream, %s\n", file->path());
            return Ptr<Stream>();
        }
        openedHere = true;
    }
    unsigned packed = unsigned(file->compressedSize);
    const uint8* source = nullptr;
    std::unique_ptr<uint8[]> block;
    if (reader->IsMappable())
    {
        source = static_cast<const uint8*>(reader->Map(int64(file->offset), packed));
        if (!source)
        {
            Log::Format(LOG_INFO, 512u, u"Decompress stream failed, can't map temp stream, %s\n", file->path());
            if (openedHere)
                reader->Close();
            return Ptr<Stream>();
        }
    }
    else
    {
        block.reset(new (std::nothrow) uint8[packed ? packed : 1]);
        reader->SetPosition(int64(file->offset));
        if (!block || reader->GetPosition() != int64(file->offset) || !reader->Read(block.get(), int(packed)))
        {
            if (openedHere)
                reader->Close();
            return Ptr<Stream>();
        }
        source = block.get();
    }
    auto* data = new DataStream();
    unsigned length = unsigned(file->size);
    bool ok = data->SetLength(length, false) &&
              (length == 0 || compressor->Uncompress(data->GetPointer(), length, source, packed)) &&
              length == file->size;
    if (reader->IsMapped())
        reader->Unmap();
    if (openedHere)
        reader->Close();
    if (!ok)
    {
        delete data;
        Log::Format(LOG_INFO, 512u, u"Decompress stream failed, internal error, %s\n", file->path());
        return Ptr<Stream>();
    }
    Ptr<MemoryStream> memory(new MemoryStream(data, true));
    memory->SetPath(file->path);
    return Ptr<Stream>(memory.Get());
}

PackageStream::PackageStream(const ConstPtr<Package::File>& file, const Ptr<Stream>& source,
                             const Ptr<Stream>& packageFile)
    : ProxyStream(source, file && !file->IsCompressed() ? int64(file->offset) : 0, file ? int64(file->size) : 0),
      m_file(file), m_packageFile(packageFile)
{
    m_flags &= ~uint32(Writeable);
    if (file)
    {
        m_path = file->path;
        m_date = file->date;
        if (file->owner)
            m_count = file->owner->m_streamCount;
    }
}

PackageStream::~PackageStream()
{
    if (IsOpenned())
        PackageStream::InternalClose();
}

bool PackageStream::InternalOpen()
{
    // A member that belonged to no package when this stream was made.
    if (!m_file || !m_count)
        return false;
    if (!ProxyStream::InternalOpen())
        return false;
    m_count->open.fetch_add(1, std::memory_order_relaxed);
    m_counted = true;
    // A file read with positioned reads: no shared file pointer, no page
    // faults of a view, and as fast as reading the file itself.
    m_fd = m_packageFile && m_source->IsFileStream()
               ? int(reinterpret_cast<intptr_t>(static_cast<FileStream*>(m_source.Get())->GetHandle()))
               : -1;
    return true;
}

void PackageStream::InternalClose()
{
    ProxyStream::InternalClose();
    if (m_counted)
        m_count->open.fetch_sub(1, std::memory_order_relaxed);
    m_counted = false;
    m_fd = -1;
}

bool PackageStream::InternalRead(void* data, int size)
{
    if (m_fd < 0)
        return ProxyStream::InternalRead(data, size);
    if (!data || size < 0 || m_position < 0 || m_position + size > m_size)
        return false;
    if (!FileIo::PReadFully(m_fd, data, size_t(size), m_offset + m_position))
        return false;
    m_position += size;
    return true;
}

bool PackageStream::InternalWrite(const void*, int) { return false; }

// --- Building ----------------------------------------------------------------------------------

unsigned int Package::GetGranularity() { return FileStream::GetAllocationGranularity(); }

bool Package::CopyStream(Stream* destination, Stream* source, State* state, DataStream* buffer)
{
    bool writeFailed = false;
    return CopyStream(destination, source, state, buffer, writeFailed);
}

bool Package::CopyStream(Stream* destination, Stream* source, State* state, DataStream* buffer, bool& writeFailed)
{
    writeFailed = false;
    if (!destination || !source)
        return false;
    int64 remaining = source->GetSize() - source->GetPosition();
    if (remaining < 0)
        return false;
    if (state && state->total == 0)
        state->total = uint64(remaining);
    DataStream local;
    DataStream* block = buffer ? buffer : &local;
    if (block->GetLength() == 0 && !block->SetLength(GetGranularity(), false))
        return false;
    unsigned blockSize = block->GetLength();
    auto move = [&](unsigned count) {
        if (!source->Read(block->GetPointer(), int(count)))
            return false;
        writeFailed = !destination->Write(block->GetPointer(), int(count));
        return !writeFailed;
    };
    while (remaining >= int64(blockSize))
    {
        if (!move(blockSize))
            return false;
        remaining -= blockSize;
        if (state)
        {
            if (state->cancel)
                return false;
            state->done += blockSize;
        }
    }
    if (remaining > 0)
    {
        if (!move(unsigned(remaining)))
            return false;
        if (state)
            state->done += uint64(remaining);
    }
    return true;
}

Ptr<Stream> Package::CompressStream(File* file)
{
    Ptr<FileStream> source(new FileStream(file->path));
    source->SetReadOnly();
    Ptr<Compressor> compressor = Compressor::CreateCompressor(Compressor::TYPE(file->compressionType));
    if (compressor && source->Open())
    {
        int64 size = source->GetSize();
        file->size = uint64(size);
        unsigned bound = size >= 0 && size < 0x7FFF0000 ? compressor->CompressBound(unsigned(size)) : 0;
        const uint8* data = size > 0 && bound ? static_cast<const uint8*>(source->Map(0, unsigned(size))) : nullptr;
        if (data || (size == 0 && bound))
        {
            Ptr<MemoryStream> memory(new MemoryStream(bound));
            unsigned length = bound;
            bool ok = memory->Open() &&
                      compressor->Compress(memory->GetDataStream()->GetPointer(), length, data, unsigned(size),
                                           file->compressionLevel);
            if (data)
                source->Unmap();
            source->Close();
            // Data that deflate cannot shrink is stored as it is.
            if (ok && uint64(length) < uint64(size))
            {
                file->compressedSize = length;
                memory->GetDataStream()->SetLength(length, true);
                memory->GetDataStream()->SetPosition(0);
                return Ptr<Stream>(memory.Get());
            }
        }
        else
            source->Close();
    }
    // Stored raw.
    file->compressionType = 0;
    file->compressedSize = 0;
    return Ptr<Stream>(source.Get());
}

DataStream* Package::MakeTableData(HEADER& header, const TArray<Ptr<File>>& files)
{
    auto* raw = new DataStream();
    raw->SetAutoExtend(true);
    {
        Ptr<MemoryStream> writer(new MemoryStream(raw, false));
        writer->SetReadWrite();
        writer->Open();
        raw->SetAutoExtend(true);
        for (const Ptr<File>& file : files)
            if (!file->Save(writer.Get()))
            {
                delete raw;
                return nullptr;
            }
    }
    header.numFiles = files.Count();
    header.tableSize = raw->GetLength();
    header.version = kVersion;
    header.magic = kMagic;
    Ptr<Compressor> compressor = Compressor::CreateCompressor(Compressor::TYPE(header.compressionType));
    if (raw->GetLength() && compressor)
    {
        auto* packed = new DataStream(compressor->CompressBound(raw->GetLength()));
        unsigned length = packed->GetLength();
        if (packed->GetPointer() &&
            compressor->Compress(packed->GetPointer(), length, raw->GetPointer(), raw->GetLength(), header.compressionLevel))
        {
            packed->SetLength(length, true);
            header.tableCompressedSize = length;
            delete raw;
            return packed;
        }
        delete packed;
    }
    header.tableCompressedSize = 0;
    header.compressionType = 0;
    header.compressionLevel = 0;
    return raw;
}

bool Package::WriteTableAndHeader(HEADER& header, const TArray<Ptr<File>>& files, Stream* stream)
{
    std::unique_ptr<DataStream> table(MakeTableData(header, files));
    if (!table || !stream)
        return false;
    unsigned size = header.GetSizeInPackage();
    if (size && !stream->Write(table->GetPointer(), int(size)))
        return false;
    uint8 bytes[kHeaderSize];
    header.Write(bytes);
    return stream->Write(bytes, kHeaderSize);
}

void Package::Convert(TArray<Ptr<File>>& out, const TArray<Ptr<KovexEngine::FindFile::File>>& found,
                      const DelegateC<bool(File*)>& filter)
{
    for (const auto& source : found)
    {
        Ptr<File> file(new File());
        file->path = source->fullPath;
        file->name = source->relativePath;
        file->size = source->size;
        file->date = source->lastWrite;
        if (filter(file.Get()))
            out.Add(file);
    }
}

bool Package::MakeNewPackage(const WString& path, KovexEngine::FindFile& find, const DelegateC<bool(File*)>& filter,
                             State* state)
{
    find.Execute();
    TArray<Ptr<KovexEngine::FindFile::File>> found;
    find.GetResults(found);
    if (found.IsEmpty())
    {
        Log::Print(LOG_WARNING, u"Package: Make new package failed, because there're no files included.\n");
        return false;
    }
    if (filter.IsEmpty())
        return false;
    if (state)
        state->phase = 1;
    TArray<Ptr<File>> files;
    Convert(files, found, filter);
    return MakeNewPackage(path, files, state);
}

bool Package::MakeNewPackage(const WString& path, const TArray<Ptr<File>>& files, State* state)
{
    if (state)
        state->phase = 1;
    uint64 total = 0;
    for (const Ptr<File>& file : files)
    {
        file->offset = ~0ull;
        if (file->size != ~0ull)
            total += file->size;
    }
    if (state && state->total == 0)
    {
        state->total = total;
        state->done = 0;
    }
    // Written beside the target and moved over it only when complete.
    WString temporary = path + u".tmp";
    Ptr<FileStream> package(new FileStream(temporary));
    package->SetWriteOnly();
    if (!package->Open())
        return false;
    DataStream buffer(GetGranularity() * 10);
    if (state)
        state->phase = 2;
    uint64 position = 0;
    for (const Ptr<File>& file : files)
    {
        if (state)
            state->OnProcessFile(file.Get());
        Ptr<Stream> source = CompressStream(file.Get());
        if (!source->IsOpenned() && !source->Open())
        {
            Log::Format(LOG_WARNING, u"Package: Open File %s failed.\n", file->path());
            continue;
        }
        if (!file->IsCompressed())
            file->size = uint64(source->GetSize()); // what is really copied

        if (CopyStream(package.Get(), source.Get(), state, &buffer))
        {
            file->offset = position;
            position += file->GetSizeInPackage();
            // Progress counts what the member is, not what it packed down to.
            if (state && file->IsCompressed())
                state->done = state->done - file->compressedSize + file->size;
        }
        else
        {
            package->Seek(int64(position), Stream::Begin);
            Log::Format(LOG_WARNING, u"Package: Copy File %s failed.\n", file->path());
        }
        source->Close();
    }
    if (state)
        state->phase = 3;
    HEADER header;
    bool ok = WriteTableAndHeader(header, files, package.Get());
    package->Close();
    if (state)
        state->phase = 0;
    AString from = Native(temporary), to = Native(path);
    if (!ok || !MoveIntoPlace(from, to))
    {
        ::unlink(from());
        return false;
    }
    return true;
}

// --- Changing a mounted package ------------------------------------------------------------------

Ptr<Stream> Package::BeginChange(uint64& dataEnd)
{
    dataEnd = uint64(m_stream->GetSize()) - kHeaderSize - m_header.GetSizeInPackage();
    Ptr<Stream> temp(m_proxy->CreateTempStream());
    if (!temp)
        return Ptr<Stream>();
    temp->SetWriteOnly();
    if (!temp->Open())
        return Ptr<Stream>();
    if (dataEnd == 0)
        return temp;
    DataStream buffer(GetGranularity() * 16);
    Ptr<Stream> data(new ProxyStream(m_stream, 0, int64(dataEnd)));
    bool ok = data->Open() && CopyStream(temp.Get(), data.Get(), nullptr, &buffer);
    data->Close();
    if (!ok)
    {
        AbandonChange(temp);
        return Ptr<Stream>();
    }
    return temp;
}

void Package::AbandonChange(const Ptr<Stream>& temp)
{
    temp->Close();
    m_proxy->DeleteStream(temp.Get());
}

bool Package::ReopenStream(uint32 access)
{
    Ptr<Stream> fresh(m_proxy->CreateStream());
    if (fresh)
    {
        fresh->SetReadable((access & Stream::Readable) != 0);
        fresh->SetWriteable((access & Stream::Writeable) != 0);
    }
    if (!fresh || (!fresh->IsOpenned() && !fresh->Open()))
    {
        UnmountLocked();
        return false;
    }
    m_stream = fresh;
    return true;
}

bool Package::CommitChange(const Ptr<Stream>& temp, const TArray<Ptr<File>>& members, HEADER& header)
{
    // The new file ends with its header whatever was written before it.
    if (!WriteTableAndHeader(header, members, temp.Get()) || !m_proxy->SetEndOfStream(temp.Get()))
    {
        AbandonChange(temp);
        return false;
    }
    temp->Close();
    // The old stream object is let go, not closed: open member streams read
    // the old file through it.
    if (!m_proxy->ReplaceStream(temp.Get(), m_stream.Get()))
    {
        m_proxy->DeleteStream(temp.Get());
        return false;
    }
    m_header = header;
    return ReopenStream(m_stream->GetFlags() & (Stream::Readable | Stream::Writeable));
}

bool Package::AddFiles(const TArray<Ptr<File>>& files, State* state)
{
    std::unique_lock<std::shared_mutex> lock(m_lock);
    if (!IsMounted() || !m_writable)
    {
        WString dir(m_mountDir);
        UnmountLocked();
        m_writable = true;
        if (!MountLocked(dir))
        {
            Log::Print(LOG_INFO, u"Package: Add files failed.\n");
            return false;
        }
    }
    uint64 position = 0;
    Ptr<Stream> temp = BeginChange(position);
    if (!temp)
    {
        Log::Print(LOG_INFO, u"Package: Add files failed.\n");
        return false;
    }
    // The new table, as copies: the members change only once the new file
    // has taken the old one's place.
    TMap<WString, Ptr<File>> records;
    for (const auto& pair : m_files)
        records.Insert(pair.key, Ptr<File>(new File(*pair.value)));
    TMap<WString, ConstPtr<File>> kept(m_files); // members whose object lives on
    DataStream buffer(GetGranularity() * 10);
    for (const Ptr<File>& file : files)
    {
        if (state)
            state->OnProcessFile(file.Get());
        Ptr<Stream> source = CompressStream(file.Get());
        if (!source->IsOpenned() && !source->Open())
        {
            Log::Format(LOG_WARNING, u"Package: Open %s failed.\n", file->path());
            continue;
        }
        if (!file->IsCompressed())
            file->size = uint64(source->GetSize());
        // Only a block of the old file is taken over; one added by this call
        // is not, so that a failed copy can always be undone from the old file.
        Ptr<File>* existing = records.FindValue(file->name);
        bool inPlace = existing && kept.Contains(file->name) &&
                       (*existing)->GetSizeInPackage() >= file->GetSizeInPackage();
        int64 target = inPlace ? int64((*existing)->offset) : int64(position);
        temp->Seek(target, Stream::Begin);
        bool writeFailed = temp->GetPosition() != target;
        bool copied = !writeFailed && CopyStream(temp.Get(), source.Get(), state, &buffer, writeFailed);
        source->Close();
        if (!copied)
        {
            Log::Format(LOG_WARNING, u"Package: Copy file %s failed.\n", file->path());
            // A file that cannot be read is left out; a package that cannot
            // be written (a full disk) is left as it was.
            if (writeFailed)
            {
                AbandonChange(temp);
                return false;
            }
            // What the copy left in the new file is either past the end that
            // counts or inside the old member's block: put that block back.
            if (inPlace)
            {
                Ptr<Stream> old(new ProxyStream(m_stream, target, int64((*existing)->GetSizeInPackage())));
                temp->Seek(target, Stream::Begin);
                bool restored = old->Open() && temp->GetPosition() == target &&
                                CopyStream(temp.Get(), old.Get(), nullptr, &buffer);
                old->Close();
                if (!restored)
                {
                    AbandonChange(temp);
                    return false;
                }
            }
            continue;
        }
        if (inPlace)
        {
            File* member = existing->Get();
            member->size = file->size;
            member->compressedSize = file->compressedSize;
            member->compressionType = file->compressionType;
            member->compressionLevel = file->compressionLevel;
            continue;
        }
        // The member is recorded at the start of its block.
        Ptr<File> member(new File(*file));
        member->offset = position;
        member->owner = this;
        member->path = m_mountDir + member->name;
        position += member->GetSizeInPackage();
        kept.Remove(member->name);
        records.Set(member->name, member);
    }
    temp->Seek(int64(position), Stream::Begin);
    TArray<Ptr<File>> table;
    for (auto& pair : records)
        table.Add(pair.value);
    HEADER header = m_header;
    if (temp->GetPosition() != int64(position) || !CommitChange(temp, table, header))
    {
        Log::Print(LOG_INFO, u"Package: write file header failed.\n");
        return false;
    }
    // The new file is in place: the members follow it.
    for (auto& pair : m_files)
        if (!kept.Contains(pair.key))
            const_cast<File*>(pair.value.Get())->owner = nullptr;
    TMap<WString, ConstPtr<File>> members;
    for (auto& pair : records)
    {
        const ConstPtr<File>* old = kept.FindValue(pair.key);
        if (!old)
        {
            members.Insert(pair.key, ConstPtr<File>(pair.value.Get()));
            continue;
        }
        *const_cast<File*>(old->Get()) = *pair.value;
        members.Insert(pair.key, *old);
    }
    m_files = members;
    return true;
}

bool Package::Rename(const ConstPtr<File>& file, const WString& newName)
{
    std::unique_lock<std::shared_mutex> lock(m_lock);
    if (!file || file->owner != this || !m_stream || m_stream->IsReadOnly())
    {
        Log::Format(LOG_WARNING, u"Package: Rename file '%s' failed.\n", file ? file->name() : u"");
        return false;
    }
    if (m_files.Contains(newName))
    {
        Log::Format(LOG_WARNING, u"Package: Rename file '%s' failed, new name '%s' has already exist.\n", file->name(),
                    newName());
        return false;
    }
    ConstPtr<File> keep(file);
    m_files.Remove(file->name);
    File* member = const_cast<File*>(file.Get());
    member->path = m_mountDir + newName;
    member->name = newName;
    m_files.Insert(newName, keep);
    return true;
}

bool Package::Delete(const ConstPtr<File>& file)
{
    std::unique_lock<std::shared_mutex> lock(m_lock);
    if (!file || file->owner != this || !m_stream || m_stream->IsReadOnly())
    {
        Log::Format(LOG_WARNING, u"Package: Rename file %s failed.\n", file ? file->name() : u"");
        return false;
    }
    unsigned index = m_files.Find(file->name);
    if (index == kNotFound || m_files[index].value.Get() != file.Get())
        return false;
    ConstPtr<File> keep(file);
    m_files.RemoveAt(index);
    File* member = const_cast<File*>(file.Get());
    member->owner = nullptr;
    member->offset = member->size = member->compressedSize = ~0ull;
    return true;
}

bool Package::RebuildFileTable()
{
    std::unique_lock<std::shared_mutex> lock(m_lock);
    if (!m_stream || m_stream->IsReadOnly())
    {
        Log::Print(LOG_INFO, u"Package: Rebuild File Table failed.\n");
        return false;
    }
    // The data blocks are kept as they lie, holes included.
    uint64 dataEnd = 0;
    Ptr<Stream> temp = BeginChange(dataEnd);
    HEADER header;
    if (!temp || !CommitChange(temp, MembersInMapOrder(), header))
    {
        Log::Print(LOG_INFO, u"Package: Rebuild File Table failed.\n");
        return false;
    }
    return true;
}

bool Package::RebuildPackage(State* state)
{
    std::unique_lock<std::shared_mutex> lock(m_lock);
    auto fail = [&]() {
        Log::Format(LOG_WARNING, u"Package: Rebuild Package %s failed.\n", m_path());
        return false;
    };
    if (!IsMounted())
    {
        m_writable = true;
        if (!MountLocked(WString()))
            return fail();
    }
    // The package file itself is never written, so a read-only stream stays
    // as it is.
    if (state)
        state->phase = 1;
    Ptr<Stream> temp(m_proxy->CreateTempStream());
    if (!temp)
        return fail();
    temp->SetWriteOnly();
    if (!temp->Open())
        return fail();

    TArray<ConstPtr<File>> ordered;
    for (auto& pair : m_files)
        ordered.Add(pair.value);
    std::stable_sort(ordered.begin(), ordered.end(),
                     [](const ConstPtr<File>& a, const ConstPtr<File>& b) { return a->offset < b->offset; });
    TArray<Ptr<File>> copies;
    uint64 position = 0;
    for (const ConstPtr<File>& file : ordered)
    {
        Ptr<File> copy(new File(*file));
        copy->offset = position;
        position += copy->GetSizeInPackage();
        copies.Add(copy);
    }
    if (state && state->total == 0)
        state->total = position;

    auto abandon = [&]() {
        AbandonChange(temp);
        return fail();
    };
    if (state)
        state->phase = 2;
    DataStream buffer(GetGranularity() * 10);
    for (unsigned i = 0; i < ordered.Count(); ++i)
    {
        Ptr<ProxyStream> block(new ProxyStream(m_stream, int64(ordered[i]->offset), int64(ordered[i]->GetSizeInPackage())));
        if (!block->Open() || !CopyStream(temp.Get(), block.Get(), state, &buffer))
            return abandon();
        block->Close();
    }
    if (state)
        state->phase = 3;
    HEADER header;
    // Phase 4, replacing the file, is the rename at the end of the commit.
    if (state)
        state->phase = 4;
    if (!CommitChange(temp, copies, header))
    {
        if (state)
            state->phase = 0;
        return fail();
    }
    for (unsigned i = 0; i < ordered.Count(); ++i)
    {
        File* member = const_cast<File*>(ordered[i].Get());
        Package* owner = member->owner;
        *member = *copies[i];
        member->owner = owner;
    }
    if (state)
        state->phase = 0;
    return true;
}

bool Package::File::Extract(const Ptr<Stream>& target, State* state) const
{
    if (!target || target->IsOpenned() || !owner)
        return false;
    Ptr<Stream> source;
    {
        std::shared_lock<std::shared_mutex> lock(owner->m_lock);
        if (!owner->m_stream)
            return false;
        if (GetSizeInPackage() != 0)
            source = UncompressStream(this, owner->m_stream.Get(), owner->m_proxy->GetUncompressProxy());
    }
    target->SetWriteOnly();
    if (GetSizeInPackage() == 0)
    {
        // An empty member has no stream: the target is simply made empty.
        bool ok = target->Open();
        target->Close();
        return ok;
    }
    if (!source || !source->Open())
        return false;
    if (!target->Open())
    {
        source->Close();
        return false;
    }
    if (state)
        state->phase = 2;
    bool ok = CopyStream(target.Get(), source.Get(), state, nullptr);
    target->Close();
    source->Close();
    return ok;
}

} // namespace KovexEngine
