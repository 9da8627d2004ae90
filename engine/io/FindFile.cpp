#include "io/FindFile.h"

#include <dirent.h>
#include <sys/stat.h>

#include "kernel/CLocale.h"
#include "kernel/Log.h"
#include "kernel/StringConv.h"

namespace KovexEngine {
namespace {

// Directory trees deeper than this are not followed (a loop of links, or a
// tree made to exhaust the stack).
constexpr unsigned kMaxDepth = 64;

char16_t Lower(char16_t c) { return CLocale::ToLower(c); }

bool HasSlash(const WString& s) { return s.IndexOf(u'/') != kNotFound || s.IndexOf(u'\\') != kNotFound; }

WString Upper(const WString& s)
{
    WString upper(s);
    upper.ToUpper();
    return upper;
}

struct DirEntry
{
    WString name;
    bool isDirectory = false;
    bool isFile = false;
    uint64 size = 0;
    Stream::DateTime time;
};

// Lists a directory; false when it cannot be read.
bool ListDirectory(const WString& dir, TArray<DirEntry>& out)
{
    AString native;
    StringConvFuncs::UTF16toUTF8(native, dir(), dir.Length());
    DIR* handle = ::opendir(native.IsEmpty() ? "." : native());
    if (!handle)
        return false;
    while (dirent* entry = ::readdir(handle))
    {
        DirEntry item;
        StringConvFuncs::UTF8toUTF16(item.name, entry->d_name);
        AString full = native;
        full.Append(entry->d_name);
        struct stat info;
        if (::stat(full(), &info) == 0)
        {
            item.isDirectory = S_ISDIR(info.st_mode);
            item.isFile = S_ISREG(info.st_mode);
            item.size = uint64(info.st_size);
            item.time = Stream::DateTime::FromUnix(info.st_mtim.tv_sec, info.st_mtim.tv_nsec);
        }
        out.Add(item);
    }
    ::closedir(handle);
    return true;
}

} // namespace

bool FindFile::IsWildMatch(const char16_t* text, const char16_t* pattern)
{
    if (!text || !pattern)
        return false;
    const char16_t* star = nullptr;
    const char16_t* resume = nullptr;
    while (*text)
    {
        if (*pattern == u'*')
        {
            star = pattern++;
            resume = text;
            if (!*pattern)
                return true;
            continue;
        }
        if ((*pattern == u'?' && *text != u'.') || (*pattern && Lower(*pattern) == Lower(*text)))
        {
            ++pattern;
            ++text;
            continue;
        }
        if (!star)
            return false;
        // Back to the last star, one character further in the text.
        pattern = star + 1;
        text = ++resume;
    }
    return !*pattern || (pattern[0] == u'*' && !pattern[1]);
}

bool FindFile::AddInclude(const WString& name, const WString& dir, unsigned int options)
{
    if (name.IsEmpty() || dir.IsEmpty())
    {
        Log::Print(LOG_INFO, u"FindFile: add include failed, strName and strDir can't be empty.\n");
        return false;
    }
    if (HasSlash(name))
    {
        Log::Print(LOG_INFO, u"FindFile: add include failed, strName can't include '\\' or '/'.\n");
        return false;
    }
    Entry entry;
    entry.name = name;
    entry.dir = dir;
    entry.dir.ConvertSlashes();
    if (!entry.dir.EndsWith(u"/"))
        entry.dir.Append(u'/');
    entry.dirUpper = Upper(entry.dir);
    entry.options = options;
    m_includes.Add(entry);
    return true;
}

bool FindFile::AddExclude(const WString& name, const WString& dir)
{
    if (name.IsEmpty() && dir.IsEmpty())
    {
        Log::Print(LOG_INFO, u"FindFile: add exclude failed, name or dir can't be empty.\n");
        return false;
    }
    if (HasSlash(name))
    {
        Log::Print(LOG_INFO, u"FndFile: add exclude failed, name can't include '\\' or '/'.\n");
        return false;
    }
    Entry entry;
    entry.name = name;
    entry.dir = dir;
    entry.dir.ConvertSlashes();
    if (entry.dir.IsValid() && !entry.dir.EndsWith(u"/"))
        entry.dir.Append(u'/');
    entry.dirUpper = Upper(entry.dir);
    m_excludes.Add(entry);
    return true;
}

void FindFile::Clear()
{
    m_results.Clear();
    m_includes.Clear();
    m_excludes.Clear();
}

bool FindFile::IsExclude(const WString& name, const WString& dir) const
{
    WString dirUpper;
    for (const Entry& exclude : m_excludes)
    {
        if (exclude.dir.IsEmpty() || dir.IsEmpty())
        {
            if (exclude.dir.IsEmpty() && IsWildMatch(name(), exclude.name()))
                return true;
            continue;
        }
        if (dir.Length() < exclude.dir.Length())
            continue;
        if (dirUpper.IsEmpty())
            dirUpper = Upper(dir);
        if (dirUpper.IndexOf(exclude.dirUpper) != kNotFound && IsWildMatch(name(), exclude.name()))
            return true;
    }
    return false;
}

void FindFile::GetSubDirs(TArray<WString>& out, const WString& dir) const
{
    TArray<DirEntry> entries;
    if (!ListDirectory(dir, entries))
        return;
    for (const DirEntry& entry : entries)
    {
        if (!entry.isDirectory || entry.name == u"." || entry.name == u"..")
            continue;
        if (IsExclude(entry.name, dir))
            continue;
        out.Add(dir + entry.name + u"/");
    }
}

void FindFile::Execute()
{
    if (m_includes.IsEmpty())
        return;
    m_results.Clear();
    for (const Entry& include : m_includes)
    {
        m_options = include.options & (Recursive | FirstOnly);
        Walk(include.name, include.dir, include.dir, 0);
        m_options = 0;
    }
}

void FindFile::Walk(const WString& name, const WString& dir, const WString& root, unsigned depth)
{
    if (depth > kMaxDepth)
        return;
    TArray<DirEntry> entries;
    bool listed = ListDirectory(dir, entries);
    TArray<WString> subDirs;
    if (m_options & Recursive)
        GetSubDirs(subDirs, dir);
    else if (!listed)
        return;
    for (const DirEntry& entry : entries)
    {
        if (entry.name == u"." || entry.name == u".." || !entry.isFile)
            continue;
        if (!IsWildMatch(entry.name(), name()) || IsExclude(entry.name, dir))
            continue;
        WString full = dir + entry.name;
        WString key = Upper(full);
        if (m_results.Contains(key))
            continue;
        unsigned at = full.IndexOf(root);
        if (at == kNotFound)
            continue;
        Ptr<File> file(new File());
        file->fullPath = full;
        full.SubString(file->relativePath, at + root.Length());
        file->size = entry.size;
        file->lastWrite = entry.time;
        m_results.Insert(key, file);
        if (m_options & FirstOnly)
            break;
    }
    for (const WString& sub : subDirs)
    {
        if ((m_options & FirstOnly) && !m_results.IsEmpty())
            break;
        Walk(name, sub, root, depth + 1);
    }
}

void FindFile::GetResults(TArray<Ptr<File>>& out) const
{
    for (const auto& pair : m_results)
        out.Add(pair.value);
}

} // namespace KovexEngine
