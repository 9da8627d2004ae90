#pragma once

#include <atomic>
#include <shared_mutex>

#include "io/Package.h"
#include "reflection/EngineEnums.h"

namespace KovexEngine {

// The one way from a path to a stream: plain files, "[alias]rest" paths,
// packages and the loose directories that stand for them.
//
// Threads: every call is safe from any thread. Loader threads open streams,
// read dates and convert paths while the main thread mounts and unmounts:
// Mount and Unmount change the package list under the exclusive lock, and
// what a loader opened stays readable after its package is unmounted (the
// member stream holds the package's file). SetSource and SetPkgWritable are
// settings for start-up, before loaders run.
class KOVEX_API StreamManager : public HeapObject
{
public:
    enum PathError
    {
        PATH_OK = 0,
        PATH_EMPTY = 1,
        PATH_NO_PACKAGE = 2,
        PATH_UNKNOWN_ALIAS = 3,
    };

    // Ins creates the manager on first use from any thread; Destroy belongs
    // to the shutdown, after every loader has stopped.
    static StreamManager* Ins();
    static void Destroy();
    static std::atomic<StreamManager*> ms_singleton;

    StreamSource GetSource() const { return m_source; }
    void SetSource(StreamSource source) { m_source = source; }
    bool IsPkgWritable() const { return m_packagesWritable; }
    void SetPkgWritable(bool writable) { m_packagesWritable = writable; }

    // An open stream, or null.
    Ptr<Stream> OpenStream(const WString& path);
    Stream::DateTime GetFileDateTime(const WString& path);

    // "[alias]rest" and relative paths become absolute; absolute paths are
    // normalised. `error` (may be null) receives a PathError.
    bool MakeAbsolutePath(WString& path, int* error);
    // A path inside a package (or a loose package directory) becomes
    // "[alias]rest"; naming such a path makes its alias known.
    bool MakeRelativePath(WString& path, int* error);
    static bool GetPackageName(WString& name, WString& rest, const WString& path);

    Ptr<Package> CreatePackage(const WString& path);
    Ptr<Package> CreatePackage(const Ptr<Stream>& stream, const WString& name);
    Ptr<Package> GetPackage(const WString& path);
    void RemovePackage(const WString& path);
    void RemovePackage(Package* package);
    bool Mount(const WString& packagePath, const WString& mountDir);
    bool Mount(const Ptr<Package>& package, const WString& mountDir);
    void Unmount(const WString& packagePath);
    void UnmountAll();
    unsigned int GetPackageCount() const;

    bool SetPackagePath(const WString& name, const WString& path);
    void UnsetPackagePath(const WString& name);
    // The empty string for an unknown key.
    WString GetPackagePath(const WString& name) const;
    WString FindPackageNameByPath(const WString& path) const;

    // Makes every loose package directory below `rootDir` known, and mounts
    // the package files directly in it.
    void InitPackagePaths(const WString& rootDir, bool scanDirectories, bool scanPackages);

    static bool IsAbsolute(const WString& path);

private:
    StreamManager() = default;
    ~StreamManager();

    Ptr<Stream> OpenFromDisk(const WString& path);
    Ptr<Stream> OpenFromPackage(const WString& path);
    Stream::DateTime PackageDateTime(const WString& path);
    bool SetPackagePathLocked(const WString& name, const WString& absolutePath);
    void UnsetPackagePathLocked(const WString& name);
    static WString AliasOf(const WString& packagePath);
    void InitPackagePathsWalk(const WString& root, unsigned depth);

    StreamSource m_source = StreamSource::File_Package;
    bool m_packagesWritable = false;
    TArray<Ptr<Package>> m_packages;
    TMap<WString, WString> m_aliasToPath;
    TMap<WString, WString> m_pathToAlias;
    // Loader threads read the tables and open streams while the main thread
    // works; registering an alias on the way writes them.
    mutable std::shared_mutex m_lock;
};

} // namespace KovexEngine
