#pragma once

#include <atomic>
#include <shared_mutex>

#include "io/Compressor.h"
#include "io/FindFile.h"
#include "io/MemoryStream.h"
#include "kernel/Containers.h"
#include "reflection/Delegate.h"

namespace KovexEngine {

// One file that holds many: the data blocks first, then the table of
// members, then a 64-byte header at the very end.
//
// Threads: CreateStream, GetFileDateTime, GetFile and the member streams are
// safe from any thread at any time, Mount and Unmount included. Mount,
// Unmount and the changes (AddFiles, Rename, Delete, the rebuilds) lock the
// package against one another and against those readers. The accessors that
// return references (GetFiles, GetMountDir, GetPackage, GetHeader) and the
// member objects' fields belong to the thread that mounts and changes the
// package. A member stream holds the package's file open by itself: it reads
// the same bytes after an unmount, a change or the package's destruction. A
// package made over a stream that is not a file or memory (the stream form)
// shares that stream among its members: read them from one thread.
//
// A change never writes over bytes that the current table refers to: the
// changed package is written beside the old one (path + ".tmp") and renamed
// over it, so a failure or a crash leaves the old package whole.
class KOVEX_API Package : public ReferenceObj
{
public:
    static constexpr uint32 kVersion = 1000;
    static constexpr uint32 kMagic = 0x4650564B; // "KVPF"
    static constexpr unsigned kHeaderSize = 64;
    static constexpr unsigned kRecordSize = 64;

    struct KOVEX_API HEADER
    {
        uint32 version = kVersion;
        uint32 magic = kMagic;
        uint64 numFiles = 0;
        uint32 tableSize = 0;           // all records, uncompressed
        uint32 tableCompressedSize = 0; // 0 when stored raw
        uint8 compressionType = Compressor::ZLIB;
        uint8 compressionLevel = 0;

        uint32 GetSizeInPackage() const { return compressionType ? tableCompressedSize : tableSize; }
        void Write(uint8 (&bytes)[kHeaderSize]) const;
        void Read(const uint8 (&bytes)[kHeaderSize]);
    };

    class File;

    // Progress of a long operation; phases 0 idle, 1 preparing, 2 copying,
    // 3 writing the table, 4 replacing the file.
    class KOVEX_API State
    {
    public:
        virtual ~State();
        virtual void OnProcessFile(const File* file);

        uint64 total = 0;
        uint64 done = 0;
        bool cancel = false;
        int phase = 0;
    };

    class KOVEX_API File : public ReferenceObj
    {
    public:
        WString name; // the key in the package, "/"-separated
        WString path; // mount directory + name, or the source path to add
        uint64 offset = ~0ull;
        uint64 size = ~0ull;
        uint64 compressedSize = ~0ull;
        uint8 compressionType = 0;
        uint8 compressionLevel = 0;
        Stream::DateTime date;
        Package* owner = nullptr;

        uint64 GetSizeInPackage() const { return compressionType ? compressedSize : size; }
        bool IsCompressed() const { return compressionType != 0; }
        // Writes the member's contents into `target` (not open beforehand).
        bool Extract(const Ptr<Stream>& target, State* state) const;
        // Reads one record.
        bool Load(Stream* stream, const WString& mountDir);
        bool Save(Stream* stream) const;
    };

    class KOVEX_API IUncompressProxy
    {
    public:
        virtual ~IUncompressProxy();
        virtual Ptr<Stream> CreateMemberStream(const ConstPtr<File>& file, Stream* package) = 0;
        virtual Stream* GetReadStream(Stream* package) = 0;
    };

    class KOVEX_API IPackageProxy
    {
    public:
        virtual ~IPackageProxy();
        virtual const WString& GetPath() = 0;
        virtual Stream* CreateStream() = 0;
        virtual Stream* CreateTempStream() = 0;
        virtual bool DeleteStream(Stream* stream) = 0;
        virtual bool ReplaceStream(Stream* from, Stream* to) = 0;
        virtual bool SetEndOfStream(Stream* stream) = 0;
        virtual IUncompressProxy* GetUncompressProxy() = 0;
    };

    explicit Package(const WString& path);
    Package(const Ptr<Stream>& stream, const WString& name);
    ~Package();
    Package(const Package&) = delete;
    Package& operator=(const Package&) = delete;

    bool Mount(const WString& mountDir);
    void Unmount();
    bool IsMounted() const { return m_stream.Get() != nullptr; }
    const WString& GetMountDir() const { return m_mountDir; }
    const WString& GetPath() const { return m_path; }
    const Ptr<Stream>& GetPackage() const { return m_stream; }
    int64 GetPackageSize() const { return m_stream ? m_stream->GetSize() : 0; }
    const TMap<WString, ConstPtr<File>>& GetFiles() const { return m_files; }
    const HEADER& GetHeader() const { return m_header; }
    bool IsWritable() const { return m_writable; }
    void SetWritable(bool writable) { m_writable = writable; }

    Ptr<Stream> CreateStream(const WString& path);
    Stream::DateTime GetFileDateTime(const WString& path) const;
    // Mounted, on exactly this directory.
    bool IsMountedOn(const WString& mountDir) const;
    // The member stored under exactly this name, or null.
    ConstPtr<File> GetFile(const WString& name) const;

    bool AddFiles(const TArray<Ptr<File>>& files, State* state);
    bool Rename(const ConstPtr<File>& file, const WString& newName);
    bool Delete(const ConstPtr<File>& file);
    bool RebuildPackage(State* state);
    bool RebuildFileTable();

    // The count of open member streams. Member streams hold it by reference,
    // so it outlives the package.
    class KOVEX_API StreamCount : public ReferenceObj
    {
    public:
        std::atomic<int> open{0};
    };
    void AddFileRef() { m_streamCount->open.fetch_add(1, std::memory_order_relaxed); }
    void DelFileRef() { m_streamCount->open.fetch_sub(1, std::memory_order_relaxed); }
    int GetOpenStreamCount() const { return m_streamCount->open.load(std::memory_order_relaxed); }

    static Ptr<Stream> CompressStream(File* file);
    static Ptr<Stream> UncompressStream(const File* file, Stream* package);
    static Ptr<Stream> UncompressStream(const File* file, Stream* package, IUncompressProxy* proxy);

    // Writes a new package at `path` (through a temporary file, so an
    // existing package there is replaced only by a complete one).
    static bool MakeNewPackage(const WString& path, const TArray<Ptr<File>>& files, State* state);
    static bool MakeNewPackage(const WString& path, KovexEngine::FindFile& find,
                               const DelegateC<bool(File*)>& filter, State* state);
    // Members from found files; the filter names them, picks compression,
    // and returns false to leave a file out.
    static void Convert(TArray<Ptr<File>>& out, const TArray<Ptr<KovexEngine::FindFile::File>>& found,
                        const DelegateC<bool(File*)>& filter);
    static bool WriteTableAndHeader(HEADER& header, const TArray<Ptr<File>>& files, Stream* stream);
    static DataStream* MakeTableData(HEADER& header, const TArray<Ptr<File>>& files);
    static unsigned int GetGranularity();

    // Whether a member name is safe to stand for a path: relative, no ".."
    // step, no empty component, no control characters.
    static bool IsSafeName(const WString& name);

protected:
    static bool CopyStream(Stream* destination, Stream* source, State* state, DataStream* buffer);
    // The same, telling a failed write (the destination's fault) apart.
    static bool CopyStream(Stream* destination, Stream* source, State* state, DataStream* buffer, bool& writeFailed);

private:
    bool ReadTable(Stream* reader, const WString& mountDir, uint64 count);
    bool MountLocked(const WString& mountDir);
    void UnmountLocked();
    ConstPtr<File> GetFileLocked(const WString& name) const;
    TArray<Ptr<File>> MembersInMapOrder() const;
    // A change: a new file beside the package receives the package's data
    // area (the result is open and placed at its end); the change writes
    // there; the commit adds the table and moves the new file over the old.
    Ptr<Stream> BeginChange(uint64& dataEnd);
    bool CommitChange(const Ptr<Stream>& temp, const TArray<Ptr<File>>& members, HEADER& header);
    void AbandonChange(const Ptr<Stream>& temp);
    bool ReopenStream(uint32 access);
    friend class PackageStream;

    bool m_writable = false;
    Ptr<Stream> m_stream;
    IPackageProxy* m_proxy;
    WString m_path;
    WString m_mountDir;
    HEADER m_header;
    TMap<WString, ConstPtr<File>> m_files;
    Ptr<StreamCount> m_streamCount;
    mutable std::shared_mutex m_lock;
};

// A member of a package, as a stream: raw members read straight from the
// package file; compressed ones are inflated into memory by the package.
// Everything it reads is fixed when it is made: later changes to the member
// or the package do not reach it. One stream belongs to one thread at a time.
class KOVEX_API PackageStream : public ProxyStream
{
public:
    // `packageFile`, when given, is the package's own file stream, which
    // `source` (an attached FileStream over its descriptor, this member's
    // alone) reads through: it is held so that the descriptor stays open, and
    // reads go to the file at their offset.
    PackageStream(const ConstPtr<Package::File>& file, const Ptr<Stream>& source, const Ptr<Stream>& packageFile);
    ~PackageStream() override;

    const ConstPtr<Package::File>& GetFile() const { return m_file; }
    DateTime GetDateTime() override { return m_date; }
    bool SetDateTime(DateTime) override { return false; }

protected:
    bool InternalOpen() override;
    void InternalClose() override;
    bool InternalRead(void* data, int size) override;
    bool InternalWrite(const void* data, int size) override;

private:
    ConstPtr<Package::File> m_file;
    Ptr<Package::StreamCount> m_count; // null for a member without a package
    Ptr<Stream> m_packageFile;
    DateTime m_date = DateTime::Invalid;
    bool m_counted = false;
    int m_fd = -1; // the package file's descriptor, while open
};

} // namespace KovexEngine
