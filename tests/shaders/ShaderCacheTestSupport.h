#pragma once

#include <sys/stat.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "kernel/StringConv.h"
#include "shaders/ProgramCachedLibrary.h"

// A reader of "shader.cache" written from the file's layout alone (it shares
// no code with the library), and helpers to point the library at a file.
namespace KovexTest {

inline std::string ReadWhole(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void WriteWhole(const std::string& path, const std::string& bytes)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

inline long long FileSize(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? (long long)st.st_size : -1;
}

struct CacheFile
{
    struct Stage
    {
        std::string tag; // as stored, four bytes
        std::string code;
    };
    struct Program
    {
        unsigned key[4] = {};
        unsigned offset = 0, size = 0, mask = 0, reserved = 0;
        std::vector<Stage> stages;
    };
    bool ok = false;
    unsigned count = 0, tableOffset = 0;
    std::map<unsigned, std::string> tables[4]; // id -> text
    std::vector<Program> programs;

    static unsigned U32(const std::string& b, size_t at)
    {
        return unsigned((unsigned char)b[at]) | unsigned((unsigned char)b[at + 1]) << 8 |
               unsigned((unsigned char)b[at + 2]) << 16 | unsigned((unsigned char)b[at + 3]) << 24;
    }

    // Assumes a sound file (the tests write it); `ok` false otherwise.
    static CacheFile Read(const std::string& b)
    {
        CacheFile f;
        if (b.size() < 12 || b.compare(b.size() - 12, 4, "CCPC") != 0)
            return f;
        f.count = U32(b, b.size() - 8);
        f.tableOffset = U32(b, b.size() - 4);
        size_t at = f.tableOffset;
        for (auto& table : f.tables)
        {
            if (at + 12 > b.size() || b.compare(at, 4, "TCPC") != 0)
                return f;
            unsigned n = U32(b, at + 4), blob = U32(b, at + 8);
            size_t names = at + 12, entries = names + blob - size_t(n) * 24;
            for (unsigned i = 0; i < n; ++i)
            {
                size_t e = entries + i * 24;
                table[U32(b, e + 8)] = b.substr(names + U32(b, e + 16), U32(b, e + 20));
            }
            at = names + blob;
        }
        if (at + size_t(f.count) * 32 + 12 != b.size())
            return f;
        for (unsigned i = 0; i < f.count; ++i, at += 32)
        {
            Program p;
            for (unsigned w = 0; w < 4; ++w)
                p.key[w] = U32(b, at + 4 * w);
            p.offset = U32(b, at + 16);
            p.size = U32(b, at + 20);
            p.mask = U32(b, at + 24);
            p.reserved = U32(b, at + 28);
            size_t c = p.offset;
            for (unsigned s = 0; s < 6; ++s)
                if (p.mask & (1u << s))
                {
                    Stage stage;
                    stage.tag = b.substr(c, 4);
                    unsigned size = U32(b, c + 4);
                    stage.code = b.substr(c + 8, size);
                    c += 8 + size;
                    p.stages.push_back(stage);
                }
            f.programs.push_back(p);
        }
        f.ok = true;
        return f;
    }
};

// Code of `words` words, different per seed.
inline std::string FakeCode(unsigned seed, unsigned words)
{
    std::string out;
    for (unsigned i = 0; i < words; ++i)
    {
        unsigned v = seed * 2654435761u + i * 40503u;
        out.append(reinterpret_cast<const char*>(&v), 4);
    }
    return out;
}

// Caches stages given as strings (empty = absent) under a key.
inline const KovexEngine::ProgramCachedLibrary::Record* CacheStrings(const KovexEngine::ProgramCachedLibrary::Key& key,
                                                                   const std::string (&stages)[6])
{
    const void* codes[6] = {};
    KovexEngine::uint32 sizes[6] = {};
    for (unsigned s = 0; s < 6; ++s)
        if (!stages[s].empty())
        {
            codes[s] = stages[s].data();
            sizes[s] = KovexEngine::uint32(stages[s].size());
        }
    return KovexEngine::ProgramCachedLibrary::Ins()->CacheStages(key, codes, sizes);
}

// Points a fresh library at a file (a new run).
inline void Reopen(const std::string& path)
{
    KovexEngine::ProgramCachedLibrary::Destroy();
    KovexEngine::ProgramCachedLibrary::Ins()->SetFilePath(KovexEngine::StringConvFuncs::ToWString(path.c_str()));
}

inline KovexEngine::ProgramCachedLibrary::Key MakeKey(const std::string& macro, const std::string& fw,
                                                    const std::string& ab, const std::string& mt)
{
    using namespace KovexEngine;
    ProgramCachedLibrary* lib = ProgramCachedLibrary::Ins();
    ProgramCachedLibrary::Key key;
    key.Words[3] = lib->GetNameId(0, AString(macro.c_str()));
    key.Words[1] = lib->GetNameId(1, AString(fw.c_str()));
    key.Words[0] = ab.empty() ? 0 : lib->GetNameId(2, AString(ab.c_str()));
    key.Words[2] = mt.empty() ? 0 : lib->GetNameId(3, AString(mt.c_str()));
    return key;
}

} // namespace KovexTest
