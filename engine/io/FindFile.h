#pragma once

#include "io/Stream.h"
#include "kernel/Containers.h"

namespace KovexEngine {

// Walks directories for files matching patterns, with excludes. Results are
// keyed by the upper-cased full path, so each file stands once.
class KOVEX_API FindFile
{
public:
    enum : unsigned int
    {
        Recursive = 0x1,
        FirstOnly = 0x2,
    };

    class KOVEX_API File : public ReferenceObj
    {
    public:
        WString fullPath;
        WString relativePath; // after the include's directory
        uint64 size = 0;
        Stream::DateTime lastWrite;
    };

    // `name` is a pattern with * and ?, `dir` the directory to search.
    bool AddInclude(const WString& name, const WString& dir, unsigned int options);
    // An empty `dir` excludes the pattern in every directory.
    bool AddExclude(const WString& name, const WString& dir);
    void Clear();
    void Execute();
    void GetResults(TArray<Ptr<File>>& out) const;
    const TMap<WString, Ptr<File>>& GetResultMap() const { return m_results; }
    void GetSubDirs(TArray<WString>& out, const WString& dir) const;
    bool IsExclude(const WString& name, const WString& dir) const;

    // Case-insensitive; "*" any run, "?" any one character but ".".
    static bool IsWildMatch(const char16_t* text, const char16_t* pattern);

private:
    struct Entry
    {
        WString name;
        WString dir;
        WString dirUpper;
        unsigned int options = 0;
    };

    void Walk(const WString& name, const WString& dir, const WString& root, unsigned depth);

    unsigned int m_options = 0;
    TMap<WString, Ptr<File>> m_results;
    TArray<Entry> m_includes;
    TArray<Entry> m_excludes;
};

} // namespace KovexEngine
