#include "io/StreamManager.h"

#include <mutex>

#include "io/FileStream.h"
#include "kernel/EngineGlobals.h"
#include "kernel/Log.h"

namespace KovexEngine {

std::atomic<StreamManager*> StreamManager::ms_singleton{nullptr};

namespace {

const char16_t* const kExtensions[] = {u".kpk", u".kovex"};
const char16_t* const kDirectorySuffixes[] = {u".kpk/", u".kovex/"};

// Log files take their paths the way every other file does; the log lies
// below this layer and asks through the hook it offers.
bool ResolveLogPath(WString& path) { return StreamManager::Ins()->MakeAbsolutePath(path, nullptr); }
[[maybe_unused]] const bool s_logPathsResolved = (LogProxy_File::SetPathResolver(&ResolveLogPath), true);

WString Normalised(const WString& path)
{
    WString out(path);
    out.ConvertSlashes();
    out.FormatDir();
    return out;
}

} // namespace

StreamManager* StreamManager::Ins()
{
    StreamManager* manager = ms_singleton.load(std::memory_order_acquire);
    if (manager)
        return manager;
    // Loader threads may be the first to ask: exactly one manager is made.
    auto* made = new StreamManager();
    if (ms_singleton.compare_exchange_strong(manager, made, std::memory_order_acq_rel, std::memory_order_acquire))
        return made;
    delete made;
    return manager;
}

void StreamManager::Destroy()
{
    delete ms_singleton.exchange(nullptr, std::memory_order_acq_rel);
}

StreamManager::~StreamManager() { UnmountAll(); }

bool StreamManager::IsAbsolute(const WString& path)
{
    return path.StartsWith(u"/") || (path.Length() > 2 && path()[1] == u':');
}

bool StreamManager::GetPackageName(WString& name, WString& rest, const WString& path)
{
    if (path.Length() < 4 || path()[0] != u'[')
        return false;
    unsigned close = path.IndexOf(u']', 2);
    if (close == kNotFound)
        return false;
    path.SubString(name, 1, close - 1);
    path.SubString(rest, close + 1);
    return true;
}

WString StreamManager::AliasOf(const WString& packagePath)
{
    WString name = packagePath.ExtractFileName();
    unsigned dot = name.LastIndexOf(u'.');
    if (dot != kNotFound)
        name.TerminateAtIndex(dot);
    return name;
}

// --- Paths --------------------------------------------------------------------------------------

bool StreamManager::MakeAbsolutePath(WString& path, int* error)
{
    auto fail = [&](int code) {
        if (error)
            *error = code;
        return false;
    };
    if (path.IsEmpty())
        return fail(PATH_EMPTY);
    if (path()[0] == u'[')
    {
        WString name, rest;
        if (!GetPackageName(name, rest, path))
            return fail(PATH_NO_PACKAGE);
        WString base = GetPackagePath(name);
        if (base.IsEmpty())
        {
            Log::Format(LOG_WARNING, u"Can't find path of package [%s] !\n", name());
            return fail(PATH_UNKNOWN_ALIAS);
        }
        path = base + rest;
    }
    else if (!IsAbsolute(path))
        path = g_kovexRootPath + path;
    path = Normalised(path);
    if (error)
        *error = PATH_OK;
    return true;
}

bool StreamManager::MakeRelativePath(WString& path, int* error)
{
    auto fail = [&](int code) {
        if (error)
            *error = code;
        return false;
    };
    if (path.IsEmpty())
        return fail(PATH_EMPTY);
    if (path()[0] == u'[')
        return true;
    if (!IsAbsolute(path))
        path = g_kovexRootPath + path;
    path = Normalised(path);
    unsigned at = kNotFound, suffixLength = 0;
    for (const char16_t* suffix : kDirectorySuffixes)
    {
        at = path.IndexOf(suffix);
        if (at != kNotFound)
        {
            suffixLength = WString::TextLength(suffix);
            break;
        }
    }
    if (at == kNotFound)
        return fail(PATH_NO_PACKAGE);
    WString prefix = path.SubString(0, at + suffixLength);
    WString rest = path.SubString(at + suffixLength);
    WString alias = FindPackageNameByPath(prefix);
    if (alias.IsEmpty())
    {
        // Naming a file inside a package directory makes its alias known.
        WString directory(prefix);
        directory.TerminateAtIndex(directory.Length() - 1);
        alias = AliasOf(directory);
        SetPackagePath(alias, prefix);
    }
    path = u"[" + alias + u"]" + rest;
    if (error)
        *error = PATH_OK;
    return true;
}

bool StreamManager::SetPackagePathLocked(const WString& name, const WString& absolutePath)
{
    if (const WString* existing = m_aliasToPath.FindValue(name))
    {
        if (*existing != absolutePath)
        {
            Log::Format(LOG_WARNING, u"Can't set path '%s' to package '%s', the path is assigned to %s !\n",
                        absolutePath(), name(), (*existing)());
            return false;
        }
    }
    else
        m_aliasToPath.Insert(name, absolutePath);
    m_pathToAlias.Set(absolutePath, name);
    Log::Format(LOG_INFO, u"Package mounted: name = %s, path = %s\n", name(), absolutePath());
    return true;
}

namespace {

WString AbsoluteDirectory(const WString& path)
{
    WString absolute(path);
    if (!StreamManager::IsAbsolute(absolute))
        absolute = g_kovexRootPath + absolute;
    absolute = Normalised(absolute);
    if (!absolute.EndsWith(u"/"))
        absolute.Append(u'/');
    return absolute;
}

} // namespace

bool StreamManager::SetPackagePath(const WString& name, const WString& path)
{
    WString absolute = AbsoluteDirectory(path);
    std::unique_lock<std::shared_mutex> lock(m_lock);
    return SetPackagePathLocked(name, absolute);
}

void StreamManager::UnsetPackagePath(const WString& name)
{
    std::unique_lock<std::shared_mutex> lock(m_lock);
    UnsetPackagePathLocked(name);
}

void StreamManager::UnsetPackagePathLocked(const WString& name)
{
    unsigned index = m_aliasToPath.Find(name);
    if (index == kNotFound)
        return;
    m_pathToAlias.Remove(m_aliasToPath[index].value);
    m_aliasToPath.RemoveAt(index);
}

WString StreamManager::GetPackagePath(const WString& name) const
{
    std::shared_lock<std::shared_mutex> lock(m_lock);
    const WString* path = m_aliasToPath.FindValue(name);
    return path ? *path : WString();
}

WString StreamManager::FindPackageNameByPath(const WString& path) const
{
    std::shared_lock<std::shared_mutex> lock(m_lock);
    const WString* name = m_pathToAlias.FindValue(path);
    return name ? *name : WString();
}

// --- Opening ------------------------------------------------------------------------------------

Ptr<Stream> StreamManager::OpenFromDisk(const WString& path)
{
    WString absolute(path);
    if (!MakeAbsolutePath(absolute, nullptr) || !FileStream::FileExists(absolute))
        return Ptr<Stream>();
    Ptr<Stream> stream(new FileStream(absolute));
    stream->SetReadOnly();
    if (!stream->Open())
        return Ptr<Stream>();
    return stream;
}

Ptr<Stream> StreamManager::OpenFromPackage(const WString& path)
{
    WString relative(path), name, rest;
    MakeRelativePath(relative, nullptr);
    if (!GetPackageName(name, rest, relative))
        return Ptr<Stream>();
    WString directory = GetPackagePath(name);
    Ptr<Stream> stream;
    {
        std::shared_lock<std::shared_mutex> lock(m_lock);
        // Every package on that directory is asked; the last one decides.
        for (const Ptr<Package>& package : m_packages)
            if (package->IsMountedOn(directory))
                stream = package->CreateStream(rest);
    }
    if (stream && !stream->IsOpenned() && !stream->Open())
        return Ptr<Stream>();
    return stream;
}

Ptr<Stream> StreamManager::OpenStream(const WString& path)
{
    switch (m_source)
    {
    case StreamSource::File: return OpenFromDisk(path);
    case StreamSource::Package: return OpenFromPackage(path);
    case StreamSource::Package_File:
        if (Ptr<Stream> stream = OpenFromPackage(path))
            return stream;
        return OpenFromDisk(path);
    case StreamSource::File_Package:
        if (Ptr<Stream> stream = OpenFromDisk(path))
            return stream;
        return OpenFromPackage(path);
    default: return Ptr<Stream>();
    }
}

Stream::DateTime StreamManager::PackageDateTime(const WString& path)
{
    WString relative(path), name, rest;
    MakeRelativePath(relative, nullptr);
    if (!GetPackageName(name, rest, relative))
        return Stream::DateTime::Invalid;
    WString directory = GetPackagePath(name);
    std::shared_lock<std::shared_mutex> lock(m_lock);
    for (const Ptr<Package>& package : m_packages)
        if (package->IsMountedOn(directory))
            return package->GetFileDateTime(directory + rest);
    return Stream::DateTime::Invalid;
}

Stream::DateTime StreamManager::GetFileDateTime(const WString& path)
{
    auto fileDate = [](const WString& p) {
        Ptr<FileStream> file(new FileStream(p));
        file->SetReadOnly();
        return file->GetDateTime();
    };
    auto absoluteDate = [&](const WString& p) {
        WString absolute(p);
        return MakeAbsolutePath(absolute, nullptr) ? fileDate(absolute) : Stream::DateTime::Invalid;
    };
    switch (m_source)
    {
    case StreamSource::File: return fileDate(path); // the path as given, as it always was
    case StreamSource::Package: return PackageDateTime(path);
    case StreamSource::Package_File:
    {
        Stream::DateTime date = PackageDateTime(path);
        return date == Stream::DateTime::Invalid ? absoluteDate(path) : date;
    }
    case StreamSource::File_Package:
    {
        Stream::DateTime date = absoluteDate(path);
        return date == Stream::DateTime::Invalid ? PackageDateTime(path) : date;
    }
    default: return Stream::DateTime::Invalid;
    }
}

// --- Packages -------------------------------------------------------------------------------------

Ptr<Package> StreamManager::GetPackage(const WString& path)
{
    std::shared_lock<std::shared_mutex> lock(m_lock);
    for (const Ptr<Package>& package : m_packages)
        if (package->GetPath() == path)
            return package;
    return Ptr<Package>();
}

Ptr<Package> StreamManager::CreatePackage(const WString& path)
{
    if (Ptr<Package> existing = GetPackage(path))
        return existing;
    Ptr<Package> package(new Package(path));
    package->SetWritable(m_packagesWritable);
    std::unique_lock<std::shared_mutex> lock(m_lock);
    m_packages.Add(package);
    return package;
}

Ptr<Package> StreamManager::CreatePackage(const Ptr<Stream>& stream, const WString& name)
{
    if (Ptr<Package> existing = GetPackage(name))
        return existing;
    Ptr<Package> package(new Package(stream, name));
    package->SetWritable(stream && stream->IsWriteable());
    std::unique_lock<std::shared_mutex> lock(m_lock);
    m_packages.Add(package);
    return package;
}

void StreamManager::RemovePackage(const WString& path)
{
    std::unique_lock<std::shared_mutex> lock(m_lock);
    for (unsigned i = m_packages.Count(); i-- > 0;)
        if (m_packages[i]->GetPath() == path)
            m_packages.RemoveAt(i);
}

void StreamManager::RemovePackage(Package* package)
{
    std::unique_lock<std::shared_mutex> lock(m_lock);
    for (unsigned i = m_packages.Count(); i-- > 0;)
        if (m_packages[i].Get() == package)
            m_packages.RemoveAt(i);
}

unsigned int StreamManager::GetPackageCount() const
{
    std::shared_lock<std::shared_mutex> lock(m_lock);
    return m_packages.Count();
}

bool StreamManager::Mount(const WString& packagePath, const WString& mountDir)
{
    return Mount(CreatePackage(packagePath), mountDir);
}

bool StreamManager::Mount(const Ptr<Package>& package, const WString& mountDir)
{
    if (!package)
        return false;
    WString alias = AliasOf(package->GetPath());
    WString directory(mountDir);
    if (directory.IsValid() && !directory.EndsWith(u"/") && !directory.EndsWith(u"\\"))
        directory.Append(u'/');
    // Loaders look at the packages under the shared lock: they never see one
    // half mounted.
    std::unique_lock<std::shared_mutex> lock(m_lock);
    if (package->IsMounted())
    {
        if (package->GetMountDir() == directory)
            return true;
        package->Unmount();
    }
    if (!package->Mount(mountDir))
        return false;
    SetPackagePathLocked(alias, AbsoluteDirectory(package->GetMountDir()));
    return true;
}

void StreamManager::Unmount(const WString& packagePath)
{
    Ptr<Package> package; // destroyed, if this was the last reference, outside the lock
    std::unique_lock<std::shared_mutex> lock(m_lock);
    for (unsigned i = m_packages.Count(); i-- > 0;)
        if (m_packages[i]->GetPath() == packagePath)
        {
            if (!package)
                package = m_packages[i];
            m_packages.RemoveAt(i);
        }
    if (!package)
        return;
    package->Unmount();
    UnsetPackagePathLocked(AliasOf(packagePath));
}

void StreamManager::UnmountAll()
{
    TArray<Ptr<Package>> packages;
    std::unique_lock<std::shared_mutex> lock(m_lock);
    for (const Ptr<Package>& package : m_packages)
        package->Unmount();
    packages.Swap(m_packages);
}

void StreamManager::InitPackagePaths(const WString& rootDir, bool scanDirectories, bool scanPackages)
{
    WString root = Normalised(rootDir);
    if (root.IsValid() && !root.EndsWith(u"/"))
        root.Append(u'/');
    if (scanDirectories)
        InitPackagePathsWalk(root, 0);
    if (scanPackages)
    {
        FindFile find;
        for (const char16_t* extension : kExtensions)
            find.AddInclude(WString(u"*") + extension, root, 0);
        find.Execute();
        TArray<Ptr<FindFile::File>> found;
        find.GetResults(found);
        for (const Ptr<FindFile::File>& file : found)
        {
            WString mountDir = file->fullPath + u"/";
            mountDir.ConvertSlashes();
            Mount(CreatePackage(file->fullPath), mountDir);
        }
    }
}

void StreamManager::InitPackagePathsWalk(const WString& root, unsigned depth)
{
    if (depth > 32)
        return;
    FindFile walker;
    TArray<WString> directories;
    walker.GetSubDirs(directories, root);
    for (const WString& directory : directories)
    {
        WString withoutSlash(directory);
        withoutSlash.TerminateAtIndex(withoutSlash.Length() - 1);
        WString extension = withoutSlash.GetFileExt();
        WString name = AliasOf(withoutSlash);
        if (extension == u".kpk" || extension == u".kovex")
            SetPackagePath(name, directory);
        else if (name.IsValid() && !name.StartsWith(u"."))
        {
            InitPackagePathsWalk(directory, depth + 1);
            // Packages below the root are found by the recursive scan too.
            FindFile find;
            for (const char16_t* ext : kExtensions)
                find.AddInclude(WString(u"*") + ext, directory, 0);
            find.Execute();
            TArray<Ptr<FindFile::File>> found;
            find.GetResults(found);
            for (const Ptr<FindFile::File>& file : found)
                Mount(CreatePackage(file->fullPath), file->fullPath + u"/");
        }
    }
}

} // namespace KovexEngine
