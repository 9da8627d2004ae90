#include "shaders/ProgramCachedLibrary.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "graphics/BaseProgram.h"
#include "graphics/HWCapability.h"
#include "graphics/Renderer.h"
#include "graphics/Shader.h"
#include "io/CacheDirectory.h"
#include "io/FileStream.h"
#include "io/StreamManager.h"
#include "kernel/CriticalSection.h"
#include "kernel/EngineGlobals.h"
#include "kernel/Log.h"
#include "kernel/StringConv.h"
#include "shaders/PGCode.h"
#include "shaders/Program.h"

namespace KovexEngine {

namespace {

constexpr uint32 kFooterSize = 12;
constexpr uint32 kRecordSize = 32;
constexpr uint32 kTableHeader = 12;
constexpr uint32 kTableEntry = 24;
constexpr unsigned kTables = 4;
// Tables and records of more than this are not a cache this engine wrote.
constexpr uint64 kMaxTail = 64u << 20;
// How far back from a damaged end a whole earlier footer is looked for.
constexpr uint64 kMaxRecoveryScan = 16u << 20;
constexpr unsigned kMaxRecoveryCandidates = 32;
// Dead bytes tolerated before the file is written anew.
constexpr uint64 kCompactSlack = 256u << 10;
const char kFooterMagic[4] = {'C', 'C', 'P', 'C'};
const char kTableMagic[4] = {'T', 'C', 'P', 'C'};
const char kStageTags[BaseProgram::kStages][3] = {"SV", "SP", "SG", "SH", "SD", "SC"};
constexpr uint32 kComputeMask = 1u << ShaderType::Compute;
constexpr uint32 kAllStages = (1u << BaseProgram::kStages) - 1;

uint32 GetU32(const uint8* p) { return uint32(p[0]) | uint32(p[1]) << 8 | uint32(p[2]) << 16 | uint32(p[3]) << 24; }
void PutU32(std::vector<uint8>& out, uint32 v)
{
    uint8 b[4] = {uint8(v), uint8(v >> 8), uint8(v >> 16), uint8(v >> 24)};
    out.insert(out.end(), b, b + 4);
}

std::string Printf(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Printf(const char* format, ...)
{
    char buffer[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(buffer, sizeof buffer, format, args);
    va_end(args);
    return buffer;
}

std::string ToUtf8(const WString& text)
{
    AString out;
    StringConvFuncs::UTF16toUTF8(out, text(), text.Length());
    return std::string(out(), out.Length());
}

struct NameEntry
{
    std::string Name;
    uint32 Id = 0;
    uint32 Spare = 0;
};

// What the tables and records behind a footer say.
struct ParsedTail
{
    std::vector<NameEntry> Tables[kTables];
    // Per table, id to index in Tables.
    std::map<uint32, uint32> Ids[kTables];
    std::vector<ProgramCachedLibrary::Record> Records;

    const NameEntry* Name(unsigned table, uint32 id) const
    {
        auto it = Ids[table].find(id);
        return it == Ids[table].end() ? nullptr : &Tables[table][it->second];
    }
};

// Parses tables and records (`n` bytes at `p`, the file's bytes from
// tableOffset to the footer) and checks them against the file. Every
// inconsistency goes to `problems`; parsing stops where nothing further can
// be trusted.
void ParseTail(const uint8* p, uint64 n, uint32 count, uint32 tableOffset, ParsedTail& out,
               std::vector<std::string>& problems)
{
    uint64 at = 0;
    for (unsigned t = 0; t < kTables; ++t)
    {
        if (n - at < kTableHeader)
        {
            problems.push_back(Printf("name table %u is cut short", t));
            return;
        }
        if (std::memcmp(p + at, kTableMagic, 4) != 0)
        {
            problems.push_back(Printf("name table %u has no \"TCPC\" tag", t));
            return;
        }
        uint32 entries = GetU32(p + at + 4), blob = GetU32(p + at + 8);
        at += kTableHeader;
        if (blob > n - at)
        {
            problems.push_back(Printf("name table %u claims %u bytes, %llu are left", t, blob,
                                      (unsigned long long)(n - at)));
            return;
        }
        if (entries > blob / kTableEntry)
        {
            problems.push_back(Printf("name table %u claims %u entries in %u bytes", t, entries, blob));
            return;
        }
        const uint8* b = p + at;
        uint32 namesSize = blob - entries * kTableEntry;
        std::map<std::string, uint32> names;
        std::map<uint32, uint32>& ids = out.Ids[t];
        out.Tables[t].reserve(entries);
        for (uint32 e = 0; e < entries; ++e)
        {
            const uint8* entry = b + namesSize + uint64(e) * kTableEntry;
            NameEntry ne;
            ne.Id = GetU32(entry + 8);
            ne.Spare = GetU32(entry + 12);
            uint32 offset = GetU32(entry + 16), length = GetU32(entry + 20);
            if (GetU32(entry) != 0 || GetU32(entry + 4) != 0)
                problems.push_back(Printf("name table %u entry %u: its first two words are not zero", t, e));
            if (offset > namesSize || length > namesSize - offset)
            {
                problems.push_back(Printf("name table %u entry %u: its name lies outside the names", t, e));
                continue;
            }
            ne.Name.assign(reinterpret_cast<const char*>(b + offset), length);
            if (ne.Id == 0)
                problems.push_back(Printf("name table %u entry %u: id 0", t, e));
            if (!ids.emplace(ne.Id, uint32(out.Tables[t].size())).second)
                problems.push_back(Printf("name table %u: id %u appears twice", t, ne.Id));
            if (!names.emplace(ne.Name, e).second)
                problems.push_back(Printf("name table %u: name \"%s\" appears twice", t, ne.Name.c_str()));
            out.Tables[t].push_back(std::move(ne));
        }
        at += blob;
    }
    if (n - at != uint64(count) * kRecordSize)
    {
        problems.push_back(Printf("%u records need %llu bytes, %llu stand between the tables and the footer", count,
                                  (unsigned long long)count * kRecordSize, (unsigned long long)(n - at)));
        return;
    }
    auto known = [&](unsigned t, uint32 id) { return out.Name(t, id) != nullptr; };
    out.Records.reserve(count);
    for (uint32 r = 0; r < count; ++r)
    {
        const uint8* q = p + at + uint64(r) * kRecordSize;
        ProgramCachedLibrary::Record rec;
        for (unsigned w = 0; w < 4; ++w)
            rec.ProgramKey.Words[w] = GetU32(q + 4 * w);
        rec.Offset = GetU32(q + 16);
        rec.Size = GetU32(q + 20);
        rec.StageMask = GetU32(q + 24);
        rec.Hash = GetU32(q + 28);
        const ProgramCachedLibrary::Key& k = rec.ProgramKey;
        if (r > 0 && !(out.Records.back().ProgramKey < k))
            problems.push_back(Printf("record %u is not in key order", r));
        if (!known(0, k.MacroString()) || !known(1, k.Framework()) || (k.Attribute() && !known(2, k.Attribute())) ||
            (k.Material() && !known(3, k.Material())))
            problems.push_back(Printf("record %u names an id no table holds", r));
        uint32 mask = rec.StageMask;
        bool compute = mask == kComputeMask;
        if ((mask & ~kAllStages) != 0 || (!compute && ((mask & 3u) != 3u || (mask & kComputeMask))))
            problems.push_back(Printf("record %u: stage mask 0x%x is not one a program has", r, mask));
        else if (compute && (k.Attribute() || k.Material()))
            problems.push_back(Printf("record %u: a compute program with attribute or material ids", r));
        unsigned stages = __builtin_popcount(mask & kAllStages);
        if (rec.Offset > tableOffset || rec.Size > tableOffset - rec.Offset)
            problems.push_back(Printf("record %u: chunk %u+%u reaches past the tables at %u", r, rec.Offset, rec.Size,
                                      tableOffset));
        else if (rec.Size < stages * 8u)
            problems.push_back(Printf("record %u: chunk of %u bytes cannot hold %u stages", r, rec.Size, stages));
        out.Records.push_back(rec);
    }
    // Chunks never share bytes.
    std::vector<std::pair<uint32, uint32>> ranges;
    for (const auto& rec : out.Records)
        ranges.emplace_back(rec.Offset, rec.Size);
    std::sort(ranges.begin(), ranges.end());
    for (size_t i = 1; i < ranges.size(); ++i)
        if (uint64(ranges[i - 1].first) + ranges[i - 1].second > ranges[i].first)
            problems.push_back(Printf("chunks at %u and %u overlap", ranges[i - 1].first, ranges[i].first));
}

// Walks one chunk: its stages' tags and sizes against the record. Empty
// when it holds together.
std::string CheckChunk(const uint8* chunk, const ProgramCachedLibrary::Record& rec, std::vector<uint32>* sizes)
{
    uint64 at = 0;
    for (unsigned s = 0; s < BaseProgram::kStages; ++s)
    {
        if (!(rec.StageMask & (1u << s)))
            continue;
        if (rec.Size - at < 8)
            return Printf("stage %s is cut short", kStageTags[s]);
        const uint8* tag = chunk + at;
        if (tag[0] != uint8(kStageTags[s][0]) || tag[1] != uint8(kStageTags[s][1]) || tag[2] || tag[3])
            return Printf("stage %s has a wrong tag", kStageTags[s]);
        uint32 size = GetU32(chunk + at + 4);
        at += 8;
        if (size == 0 || size % 4 != 0 || size > rec.Size - at)
            return Printf("stage %s claims %u bytes", kStageTags[s], size);
        if (sizes)
            sizes->push_back(size);
        at += size;
    }
    if (at != rec.Size)
        return Printf("%llu bytes follow its stages", (unsigned long long)(rec.Size - at));
    if (ProgramCachedLibrary::HashBytes(chunk, rec.Size) != rec.Hash)
        return "its bytes do not match their hash";
    return std::string();
}

bool ReadAt(Stream& stream, uint64 offset, void* data, uint64 size)
{
    uint8* out = static_cast<uint8*>(data);
    stream.Seek(int64(offset), Stream::Begin);
    while (size > 0)
    {
        int step = int(std::min<uint64>(size, 1u << 30));
        if (!stream.Read(out, step))
            return false;
        out += step;
        size -= uint64(step);
    }
    return true;
}

bool WriteAt(Stream& stream, uint64 offset, const void* data, uint64 size)
{
    stream.Seek(int64(offset), Stream::Begin);
    return size == 0 || stream.Write(data, int(size));
}

struct Entry
{
    std::unique_ptr<ProgramCachedLibrary::Record> Rec;
    bool Damaged = false;
};

struct NameTable
{
    std::map<std::string, NameEntry> Names;
    uint32 NextId = 1;

    uint32 Get(const std::string& name)
    {
        auto it = Names.find(name);
        if (it != Names.end())
            return it->second.Id;
        NameEntry e;
        e.Name = name;
        e.Id = NextId++;
        Names.emplace(name, e);
        return e.Id;
    }
    void Append(std::vector<uint8>& out) const
    {
        std::vector<uint8> names;
        std::vector<uint8> entries;
        for (const auto& [name, e] : Names)
        {
            PutU32(entries, 0);
            PutU32(entries, 0);
            PutU32(entries, e.Id);
            PutU32(entries, e.Spare);
            PutU32(entries, uint32(names.size()));
            PutU32(entries, uint32(name.size()));
            names.insert(names.end(), name.begin(), name.end());
        }
        out.insert(out.end(), kTableMagic, kTableMagic + 4);
        PutU32(out, uint32(Names.size()));
        PutU32(out, uint32(names.size() + entries.size()));
        out.insert(out.end(), names.begin(), names.end());
        out.insert(out.end(), entries.begin(), entries.end());
    }
};

enum class HeaderState
{
    Empty,
    Whole,
    Damaged,
};

} // namespace

struct ProgramCachedLibrary::Impl
{
    CriticalSection Lock;
    WString Path;
    bool PathSet = false;
    Ptr<FileStream> File;
    bool OpenFailed = false;
    NameTable Tables[kTables];
    std::map<Key, Entry> Records;
    // Records replaced after their chunk was found damaged: a pointer handed
    // out stays valid until Destroy.
    std::vector<std::unique_ptr<Record>> Replaced;
    uint64 ChunkEnd = 0; // behind the last chunk
    uint64 FileEnd = 0;  // the footer's end
    uint64 TailPos = 0;  // where SaveHeader writes the tables

    void Clear()
    {
        for (NameTable& t : Tables)
            t = NameTable();
        Records.clear();
        ChunkEnd = FileEnd = TailPos = 0;
    }

    void Close()
    {
        if (File)
            File->Close();
        File = nullptr;
        Clear();
    }

    HeaderState Load(Stream& stream, std::string& why);
    bool Adopt(const ParsedTail& tail, uint32 tableOffset, uint64 end);
    bool Recover(Stream& stream, uint64 size, uint64& end);
    bool Open();
    bool ReplaceWhole();
    bool Save(Stream& stream);
    bool KeyOf(Key& key, BaseProgram* program, uint64 unitHash);
    void CompactIfSparse();
    const Record* Append(const Key& key, const void* const codes[], const uint32 sizes[], uint32 mask);
    const Record* FindKey(const Key& key)
    {
        auto it = Records.find(key);
        return it == Records.end() || it->second.Damaged ? nullptr : it->second.Rec.get();
    }
};

// --- Key -------------------------------------------------------------------------

bool ProgramCachedLibrary::Key::operator<(const Key& other) const
{
    return std::lexicographical_compare(Words, Words + 4, other.Words, other.Words + 4);
}

bool ProgramCachedLibrary::Key::operator==(const Key& other) const
{
    return std::equal(Words, Words + 4, other.Words);
}

uint32 ProgramCachedLibrary::HashBytes(const void* data, uint64 size, uint32 seed)
{
    // Eight bytes a step: every step is a bijection of the state, so one
    // changed word always changes the result. Words are read little-endian
    // (the host's order on every platform the engine builds for).
    const uint8* p = static_cast<const uint8*>(data);
    uint64 h = uint64(seed) ^ (size * 0x9E3779B97F4A7C15ull);
    uint64 i = 0;
    for (; i + 8 <= size; i += 8)
    {
        uint64 w;
        std::memcpy(&w, p + i, 8);
        h = (h ^ w) * 0x100000001B3ull;
        h ^= h >> 32;
    }
    uint64 last = 0;
    for (unsigned k = 0; i + k < size; ++k)
        last |= uint64(p[i + k]) << (8 * k);
    h = (h ^ last) * 0x100000001B3ull;
    h ^= h >> 29;
    h *= 0xBF58476D1CE4E5B9ull;
    h ^= h >> 32;
    return uint32(h);
}

// --- Singleton ---------------------------------------------------------------------

namespace {
ProgramCachedLibrary* g_library = nullptr;
CriticalSection g_libraryLock;
} // namespace

ProgramCachedLibrary::ProgramCachedLibrary() : m_impl(new Impl) {}
ProgramCachedLibrary::~ProgramCachedLibrary()
{
    m_impl->Close();
    delete m_impl;
}

ProgramCachedLibrary* ProgramCachedLibrary::Ins()
{
    CriticalSection::Scope scope(g_libraryLock);
    if (!g_library)
        g_library = new ProgramCachedLibrary();
    return g_library;
}

void ProgramCachedLibrary::Destroy()
{
    CriticalSection::Scope scope(g_libraryLock);
    delete g_library;
    g_library = nullptr;
}

void ProgramCachedLibrary::SetFilePath(const WString& path)
{
    CriticalSection::Scope scope(m_impl->Lock);
    m_impl->Close();
    m_impl->Replaced.clear();
    m_impl->Path = path;
    m_impl->PathSet = !path.IsEmpty();
    m_impl->OpenFailed = false;
}

WString ProgramCachedLibrary::GetFilePath()
{
    CriticalSection::Scope scope(m_impl->Lock);
    if (m_impl->PathSet)
        return m_impl->Path;
    WString dir = GetEngineCacheDirectory();
    return dir.IsEmpty() ? dir : dir + u"shader.cache";
}

// --- Reading -----------------------------------------------------------------------

bool ProgramCachedLibrary::Impl::Adopt(const ParsedTail& tail, uint32 tableOffset, uint64 end)
{
    Clear();
    for (unsigned t = 0; t < kTables; ++t)
        for (const NameEntry& e : tail.Tables[t])
        {
            Tables[t].Names.emplace(e.Name, e);
            Tables[t].NextId = std::max(Tables[t].NextId, e.Id + 1);
        }
    for (const Record& rec : tail.Records)
    {
        Entry entry;
        entry.Rec.reset(new Record(rec));
        Records.emplace(rec.ProgramKey, std::move(entry));
        ChunkEnd = std::max<uint64>(ChunkEnd, uint64(rec.Offset) + rec.Size);
    }
    FileEnd = end;
    (void)tableOffset;
    return true;
}

// Footer and tail at `end` (the end of the whole library, footer included).
static bool ParseAt(Stream& stream, uint64 end, ParsedTail& tail, uint32& tableOffset, std::string& why)
{
    uint8 footer[kFooterSize];
    if (!ReadAt(stream, end - kFooterSize, footer, kFooterSize))
    {
        why = "its footer cannot be read";
        return false;
    }
    if (std::memcmp(footer, kFooterMagic, 4) != 0)
    {
        why = "no \"CCPC\" footer";
        return false;
    }
    uint32 count = GetU32(footer + 4);
    tableOffset = GetU32(footer + 8);
    uint64 body = end - kFooterSize;
    if (tableOffset > body)
    {
        why = Printf("its tables would start at %u, past the footer at %llu", tableOffset, (unsigned long long)body);
        return false;
    }
    uint64 tailSize = body - tableOffset;
    if (uint64(count) * kRecordSize > tailSize)
    {
        why = Printf("%u records cannot fit in %llu bytes", count, (unsigned long long)tailSize);
        return false;
    }
    if (tailSize > kMaxTail)
    {
        why = Printf("%llu bytes of tables", (unsigned long long)tailSize);
        return false;
    }
    std::vector<uint8> bytes(tailSize);
    if (!ReadAt(stream, tableOffset, bytes.data(), tailSize))
    {
        why = "its tables cannot be read";
        return false;
    }
    std::vector<std::string> problems;
    ParseTail(bytes.data(), tailSize, count, tableOffset, tail, problems);
    if (!problems.empty())
    {
        why = problems.front();
        return false;
    }
    return true;
}

// An append cut short leaves junk behind the previous footer, which is
// whole: look back for the last footer whose library holds together.
bool ProgramCachedLibrary::Impl::Recover(Stream& stream, uint64 size, uint64& end)
{
    uint64 low = size > kMaxRecoveryScan ? size - kMaxRecoveryScan : 0;
    unsigned candidates = 0;
    const uint64 block = 1u << 16;
    std::vector<uint8> buf(block + 3);
    uint64 hi = size - kFooterSize; // a candidate footer starts below this
    while (hi > low && candidates < kMaxRecoveryCandidates)
    {
        uint64 start = hi > low + block ? hi - block : low;
        uint64 len = std::min<uint64>(hi - start + 3, size - start);
        if (!ReadAt(stream, start, buf.data(), len))
            return false;
        for (uint64 i = hi - start; i-- > 0 && candidates < kMaxRecoveryCandidates;)
        {
            if (i + 4 > len || std::memcmp(buf.data() + i, kFooterMagic, 4) != 0)
                continue;
            ++candidates;
            uint64 candidateEnd = start + i + kFooterSize;
            ParsedTail tail;
            uint32 tableOffset = 0;
            std::string ignored;
            if (ParseAt(stream, candidateEnd, tail, tableOffset, ignored))
            {
                Adopt(tail, tableOffset, candidateEnd);
                end = candidateEnd;
                return true;
            }
        }
        hi = start;
    }
    return false;
}

HeaderState ProgramCachedLibrary::Impl::Load(Stream& stream, std::string& why)
{
    Clear();
    int64 size = stream.GetSize();
    if (size < int64(kFooterSize))
    {
        if (size > 0)
        {
            why = Printf("%lld bytes, shorter than a footer", (long long)size);
            return HeaderState::Damaged;
        }
        return HeaderState::Empty;
    }
    if (uint64(size) > 0xFFFFFFFFull)
    {
        why = "larger than 4 GiB";
        return HeaderState::Damaged;
    }
    ParsedTail tail;
    uint32 tableOffset = 0;
    if (ParseAt(stream, uint64(size), tail, tableOffset, why))
    {
        Adopt(tail, tableOffset, uint64(size));
        return HeaderState::Whole;
    }
    return HeaderState::Damaged;
}

bool ProgramCachedLibrary::LoadHeader(Stream& stream)
{
    CriticalSection::Scope scope(m_impl->Lock);
    std::string why;
    return m_impl->Load(stream, why) == HeaderState::Whole;
}

// Writes an empty file beside the damaged one and renames it over it.
bool ProgramCachedLibrary::Impl::ReplaceWhole()
{
    if (File)
        File->Close();
    File = nullptr;
    Clear();
    std::string path = ToUtf8(Path);
    std::string fresh = path + ".new";
    int fd = ::open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0)
        return false;
    ::close(fd);
    if (std::rename(fresh.c_str(), path.c_str()) != 0)
    {
        ::unlink(fresh.c_str());
        return false;
    }
    Ptr<FileStream> file(new FileStream(Path));
    file->SetReadWrite();
    if (!file->Open())
        return false;
    File = file;
    return true;
}

bool ProgramCachedLibrary::Impl::Open()
{
    if (File)
        return true;
    if (OpenFailed)
        return false;
    if (!PathSet)
    {
        WString dir = GetEngineCacheDirectory();
        if (dir.IsEmpty())
        {
            OpenFailed = true;
            return false;
        }
        Path = dir + u"shader.cache";
    }
    Ptr<FileStream> file(new FileStream(Path));
    file->SetReadWrite();
    if (!file->Open())
    {
        Log::Format(LOG_WARNING, u"Can't open shader cache %s.\n", Path());
        OpenFailed = true;
        return false;
    }
    File = file;
    std::string why;
    HeaderState state = Load(*File, why);
    if (state == HeaderState::Damaged)
    {
        uint64 end = 0;
        int64 size = File->GetSize();
        if (size >= int64(kFooterSize) && Recover(*File, uint64(size), end))
        {
            Log::Format(LOG_WARNING, u"Shader cache %s: its last write was cut short; %u programs kept.\n", Path(),
                        unsigned(Records.size()));
            ::ftruncate(int(intptr_t(File->GetHandle())), off_t(end));
        }
        else
        {
            Log::Format(LOG_WARNING, u"Shader cache %s is damaged (%hs); a new one replaces it.\n", Path(),
                        why.c_str());
            if (!ReplaceWhole())
            {
                Log::Format(LOG_WARNING, u"Can't replace shader cache %s.\n", Path());
                Clear();
                File = nullptr;
                OpenFailed = true;
                return false;
            }
        }
    }
    return true;
}

// --- Writing -----------------------------------------------------------------------

bool ProgramCachedLibrary::Impl::Save(Stream& stream)
{
    std::vector<uint8> tail;
    for (const NameTable& t : Tables)
        t.Append(tail);
    for (const auto& [key, entry] : Records)
    {
        const Record& r = *entry.Rec;
        for (uint32 w : r.ProgramKey.Words)
            PutU32(tail, w);
        PutU32(tail, r.Offset);
        PutU32(tail, r.Size);
        PutU32(tail, r.StageMask);
        PutU32(tail, r.Hash);
    }
    uint64 end = TailPos + tail.size() + kFooterSize;
    if (end > 0xFFFFFFFFull || tail.size() > kMaxTail)
    {
        Log::Print(LOG_WARNING, u"Shader cache is full.\n");
        return false;
    }
    std::vector<uint8> footer(kFooterMagic, kFooterMagic + 4);
    PutU32(footer, uint32(Records.size()));
    PutU32(footer, uint32(TailPos));
    // The footer last: until it stands, the file's end is not a library.
    if (!WriteAt(stream, TailPos, tail.data(), tail.size()) ||
        !WriteAt(stream, TailPos + tail.size(), footer.data(), footer.size()))
    {
        Log::Print(LOG_WARNING, u"Can't write shader cache.\n");
        return false;
    }
    if (stream.IsFileStream() && uint64(stream.GetSize()) > end)
        ::ftruncate(int(intptr_t(static_cast<FileStream&>(stream).GetHandle())), off_t(end));
    FileEnd = end;
    return true;
}

bool ProgramCachedLibrary::SaveHeader(Stream& stream)
{
    CriticalSection::Scope scope(m_impl->Lock);
    m_impl->TailPos = std::max(m_impl->ChunkEnd, m_impl->TailPos);
    return m_impl->Save(stream);
}

// --- Keys --------------------------------------------------------------------------

AString ProgramCachedLibrary::MakeConfigText(const PGCodeConf* conf, uint64 hash)
{
    if (!conf)
        return AString();
    WString path;
    if (const PGCode* code = conf->GetParent())
        path = code->GetPath();
    if (!path.IsEmpty())
    {
        WString relative(path);
        if (!StreamManager::Ins()->MakeRelativePath(relative, nullptr))
        {
            // A template outside every package: relative to the root, else
            // as given (the text hash keeps a moved template apart anyway).
            if (!g_kovexRootPath.IsEmpty() && path.StartsWith(g_kovexRootPath()))
                relative = path.SubString(g_kovexRootPath.Length());
        }
        path = relative;
    }
    char hex[24];
    std::snprintf(hex, sizeof hex, "#%016llx", (unsigned long long)hash);
    std::string text = ToUtf8(conf->GetName().Get()) + "@" + ToUtf8(path) + hex;
    return AString(text.c_str(), unsigned(text.size()));
}

AString ProgramCachedLibrary::MakeMacroString()
{
    const Ptr<Renderer>& renderer = Renderer::Get();
    AString out;
    out.Format("[PLATFORM=%d];", renderer ? int(renderer->GetPlatform()) : -1);
    if (renderer && renderer->GetHWCapability())
    {
        AString macros;
        renderer->GetHWCapability()->GetMacroString(macros);
        out += macros;
    }
    return out;
}

static uint64 HashText(const AString& text)
{
    uint64 h = 1469598103934665603ull;
    for (unsigned i = 0; i < text.Length(); ++i)
        h = (h ^ uint8(text()[i])) * 1099511628211ull;
    return h;
}

bool ProgramCachedLibrary::GetKey(Key& key, BaseProgram* program, uint64 unitHash)
{
    CriticalSection::Scope scope(m_impl->Lock);
    return m_impl->KeyOf(key, program, unitHash);
}

bool ProgramCachedLibrary::Impl::KeyOf(Key& key, BaseProgram* program, uint64 unitHash)
{
    if (!program)
        return false;
    const PGCodeConf* configs[3] = {nullptr, nullptr, nullptr};
    unsigned count = 0;
    program->GetConfigs(configs, count);
    if (count == 0)
    {
        Log::Print(LOG_WARNING, u"Shader cache: a program without configurations has no key.\n");
        return false;
    }
    const PGCodeConf* fw = configs[0];
    const PGCodeConf* ab = nullptr;
    const PGCodeConf* mt = nullptr;
    if (!program->IsCompute())
    {
        const Program* drawing = dynamic_cast<const Program*>(program);
        if (!drawing)
        {
            Log::Print(LOG_WARNING, u"Shader cache: a program without configurations has no key.\n");
            return false;
        }
        fw = drawing->GetConfFW();
        ab = drawing->GetConfAB();
        mt = drawing->GetConfMT();
    }
    auto id = [&](unsigned table, const PGCodeConf* conf, uint64 hash, uint32& out) {
        if (!conf)
        {
            out = 0;
            return true;
        }
        AString text = MakeConfigText(conf, hash);
        if (text.IsEmpty())
        {
            Log::Format(LOG_WARNING, u"Shader cache: the template path of configuration %s can't be made relative.\n",
                        conf->GetName().Get()());
            return false;
        }
        out = Tables[table].Get(std::string(text(), text.Length()));
        return true;
    };
    Key k;
    AString macros = MakeMacroString();
    k.Words[3] = Tables[0].Get(std::string(macros(), macros.Length()));
    if (!id(1, fw, unitHash, k.Words[1]) || !id(2, ab, ab ? HashText(ab->GetCode()) : 0, k.Words[0]) ||
        !id(3, mt, mt ? HashText(mt->GetCode()) : 0, k.Words[2]))
        return false;
    key = k;
    return true;
}

const ProgramCachedLibrary::Record* ProgramCachedLibrary::Find(const Key& key)
{
    CriticalSection::Scope scope(m_impl->Lock);
    return m_impl->Open() ? m_impl->FindKey(key) : nullptr;
}

const ProgramCachedLibrary::Record* ProgramCachedLibrary::Find(BaseProgram* program, uint64 unitHash)
{
    CriticalSection::Scope scope(m_impl->Lock);
    Key key;
    if (!m_impl->Open() || !m_impl->KeyOf(key, program, unitHash))
        return nullptr;
    return m_impl->FindKey(key);
}

unsigned ProgramCachedLibrary::GetCount()
{
    CriticalSection::Scope scope(m_impl->Lock);
    return m_impl->Open() ? unsigned(m_impl->Records.size()) : 0u;
}

// --- Programs ----------------------------------------------------------------------

const ProgramCachedLibrary::Record* ProgramCachedLibrary::Cache(BaseProgram* program, uint64 unitHash)
{
    CriticalSection::Scope scope(m_impl->Lock);
    if (!program || program->GetState() == GraphicsObject::Failed)
        return nullptr;
    Shader* stages[BaseProgram::kStages] = {};
    uint32 mask = 0;
    if (program->IsCompute())
    {
        Shader* shader = program->GetShader(ShaderType::Compute);
        if (shader && shader->GetShaderCode() && shader->GetShaderCodeSize())
        {
            stages[ShaderType::Compute] = shader;
            mask = kComputeMask;
        }
    }
    else
    {
        for (unsigned s = 0; s < ShaderType::Compute; ++s)
        {
            Shader* shader = program->GetShader(ShaderType(int(s)));
            if (shader && shader->GetShaderCode() && shader->GetShaderCodeSize())
            {
                stages[s] = shader;
                mask |= 1u << s;
            }
        }
        if ((mask & 3u) != 3u)
            mask = 0;
    }
    if (!mask)
    {
        Log::Print(LOG_NOTICE, u"Shader cache: a program without its first stages is not cached.\n");
        return nullptr;
    }
    Key key;
    if (!m_impl->Open() || !m_impl->KeyOf(key, program, unitHash))
        return nullptr;
    auto found = m_impl->Records.find(key);
    if (found != m_impl->Records.end() && !found->second.Damaged)
        return found->second.Rec.get();

    const void* codes[BaseProgram::kStages] = {};
    uint32 sizes[BaseProgram::kStages] = {};
    for (unsigned s = 0; s < BaseProgram::kStages; ++s)
        if (stages[s])
        {
            codes[s] = stages[s]->GetShaderCode();
            sizes[s] = stages[s]->GetShaderCodeSize();
        }
    return m_impl->Append(key, codes, sizes, mask);
}

// Writes a chunk of the given stages under `key` (a damaged entry of that
// key is replaced) and the header behind it.
const ProgramCachedLibrary::Record* ProgramCachedLibrary::Impl::Append(const Key& key, const void* const codes[],
                                                                       const uint32 sizes[], uint32 mask)
{
    auto found = Records.find(key);
    std::vector<uint8> chunk;
    for (unsigned s = 0; s < BaseProgram::kStages; ++s)
    {
        if (!(mask & (1u << s)))
            continue;
        chunk.insert(chunk.end(), {uint8(kStageTags[s][0]), uint8(kStageTags[s][1]), 0, 0});
        PutU32(chunk, sizes[s]);
        const uint8* code = static_cast<const uint8*>(codes[s]);
        chunk.insert(chunk.end(), code, code + sizes[s]);
    }
    Impl& im = *this;
    uint64 chunkPos = im.ChunkEnd;
    if (chunkPos + chunk.size() > 0xFFFFFFFFull)
    {
        Log::Print(LOG_WARNING, u"Shader cache is full.\n");
        return nullptr;
    }
    std::unique_ptr<Record> rec(new Record);
    rec->ProgramKey = key;
    rec->Offset = uint32(chunkPos);
    rec->Size = uint32(chunk.size());
    rec->StageMask = mask;
    rec->Hash = HashBytes(chunk.data(), chunk.size());
    const Record* result = rec.get();
    if (found != im.Records.end())
    {
        im.Replaced.push_back(std::move(found->second.Rec));
        found->second.Rec = std::move(rec);
        found->second.Damaged = false;
    }
    else
    {
        Entry entry;
        entry.Rec = std::move(rec);
        found = im.Records.emplace(key, std::move(entry)).first;
    }
    // The tables go behind both the new chunk and the file as it stands, so
    // the old library stays whole until the new footer is written; the
    // chunk is written after, over the old tables, checked by its hash.
    uint64 oldChunkEnd = im.ChunkEnd;
    im.ChunkEnd = chunkPos + chunk.size();
    im.TailPos = std::max(im.ChunkEnd, im.FileEnd);
    if (!im.Save(*im.File) || !WriteAt(*im.File, chunkPos, chunk.data(), chunk.size()))
    {
        Log::Print(LOG_WARNING, u"Can't write shader cache.\n");
        im.Records.erase(found);
        im.ChunkEnd = oldChunkEnd;
        return nullptr;
    }
    im.CompactIfSparse();
    return result;
}

// Appends leave the old tables behind as dead bytes when the new chunk is
// smaller than they are. When those outweigh what is alive, the library is
// written whole beside the file and renamed over it (a crash leaves one or
// the other). Damaged entries are dropped on the way.
void ProgramCachedLibrary::Impl::CompactIfSparse()
{
    uint64 live = FileEnd - TailPos;
    for (const auto& [key, entry] : Records)
        live += entry.Damaged ? 0 : entry.Rec->Size;
    if (FileEnd - live <= std::max<uint64>(kCompactSlack, live))
        return;
    std::vector<uint8> chunks;
    std::map<Key, uint32> offsets;
    for (const auto& [key, entry] : Records)
    {
        if (entry.Damaged)
            continue;
        size_t at = chunks.size();
        chunks.resize(at + entry.Rec->Size);
        if (!ReadAt(*File, entry.Rec->Offset, chunks.data() + at, entry.Rec->Size))
            return;
        offsets[key] = uint32(at);
    }
    std::string path = ToUtf8(Path);
    WString freshPath = Path + u".new";
    Ptr<FileStream> fresh(new FileStream(freshPath));
    fresh->SetWriteOnly();
    if (!fresh->Open())
        return;
    // Save writes the records as they stand: give them their new places
    // first, and take them back when the file cannot be made.
    std::map<Key, uint32> before;
    for (auto& [key, entry] : Records)
        before[key] = entry.Rec->Offset;
    for (auto it = Records.begin(); it != Records.end();)
    {
        if (it->second.Damaged)
        {
            Replaced.push_back(std::move(it->second.Rec));
            it = Records.erase(it);
            continue;
        }
        it->second.Rec->Offset = offsets[it->first];
        ++it;
    }
    uint64 oldTail = TailPos, oldEnd = FileEnd;
    TailPos = chunks.size();
    bool written = WriteAt(*fresh, 0, chunks.data(), chunks.size()) && Save(*fresh);
    fresh->Close();
    if (!written || std::rename(ToUtf8(freshPath).c_str(), path.c_str()) != 0)
    {
        ::unlink(ToUtf8(freshPath).c_str());
        for (auto& [key, entry] : Records)
            entry.Rec->Offset = before[key];
        TailPos = oldTail;
        FileEnd = oldEnd;
        return;
    }
    Ptr<FileStream> file(new FileStream(Path));
    file->SetReadWrite();
    File->Close();
    File = file->Open() ? file : Ptr<FileStream>();
    ChunkEnd = chunks.size();
    if (!File)
    {
        Log::Format(LOG_WARNING, u"Can't open shader cache %s.\n", Path());
        Clear();
        OpenFailed = true;
    }
}

static uint32 ExpectedMask(BaseProgram* program)
{
    if (program->IsCompute())
        return kComputeMask;
    uint32 mask = 3u;
    const Program* drawing = dynamic_cast<const Program*>(program);
    const PGConfFW* fw = drawing ? drawing->GetConfFW() : nullptr;
    if (fw && fw->UsesGeometryStage())
        mask |= 1u << ShaderType::Geometry;
    const Ptr<Renderer>& renderer = Renderer::Get();
    bool tessellation = renderer && renderer->GetHWCapability() && renderer->GetHWCapability()->SupportTessellation;
    if (fw && drawing->GetConfMT() && drawing->GetConfMT()->IsTessellation() && tessellation &&
        fw->IsTessellationAware())
        mask |= (1u << ShaderType::Hull) | (1u << ShaderType::Domain);
    return mask;
}

bool ProgramCachedLibrary::LoadFromCache(BaseProgram* program, uint64 unitHash)
{
    CriticalSection::Scope scope(m_impl->Lock);
    if (!program)
        return false;
    Key key;
    if (!m_impl->Open() || !m_impl->KeyOf(key, program, unitHash))
        return false;
    auto found = m_impl->Records.find(key);
    if (found == m_impl->Records.end() || found->second.Damaged)
        return false;
    const Record& rec = *found->second.Rec;
    if (rec.StageMask != ExpectedMask(program))
        return false;
    std::vector<uint8> chunk(rec.Size);
    std::string why;
    if (!ReadAt(*m_impl->File, rec.Offset, chunk.data(), rec.Size))
        why = "it cannot be read";
    else
        why = CheckChunk(chunk.data(), rec, nullptr);
    if (!why.empty())
    {
        Log::Format(LOG_WARNING, u"Shader cache: the entry at %u is damaged (%hs); the program compiles.\n", rec.Offset,
                    why.c_str());
        found->second.Damaged = true;
        return false;
    }
    ShaderFactory* factory = ShaderFactory::Get();
    if (!factory)
        return false;
    Ptr<Shader> shaders[BaseProgram::kStages];
    uint64 at = 0;
    for (unsigned s = 0; s < BaseProgram::kStages; ++s)
    {
        if (!(rec.StageMask & (1u << s)))
            continue;
        uint32 size = GetU32(chunk.data() + at + 4);
        void* code = std::malloc(size);
        if (!code)
            return false;
        std::memcpy(code, chunk.data() + at + 8, size);
        shaders[s] = factory->CreateShader(ShaderType(int(s)), code, size);
        if (!shaders[s])
            return false;
        at += 8 + uint64(size);
    }
    for (unsigned s = 0; s < BaseProgram::kStages; ++s)
        if (shaders[s])
            program->SetShader(ShaderType(int(s)), shaders[s]);
    return true;
}

uint32 ProgramCachedLibrary::GetNameId(unsigned table, const AString& text)
{
    CriticalSection::Scope scope(m_impl->Lock);
    if (table >= kTables || !m_impl->Open())
        return 0;
    return m_impl->Tables[table].Get(std::string(text(), text.Length()));
}

const ProgramCachedLibrary::Record* ProgramCachedLibrary::CacheStages(const Key& key, const void* const codes[6],
                                                                      const uint32 sizes[6])
{
    CriticalSection::Scope scope(m_impl->Lock);
    uint32 mask = 0;
    for (unsigned s = 0; s < BaseProgram::kStages; ++s)
        if (codes[s] && sizes[s])
        {
            if (sizes[s] % 4 != 0)
                return nullptr;
            mask |= 1u << s;
        }
    bool compute = mask == kComputeMask;
    if (!compute && ((mask & 3u) != 3u || (mask & kComputeMask)))
        return nullptr;
    if (!m_impl->Open())
        return nullptr;
    if (const Record* listed = m_impl->FindKey(key))
        return listed;
    return m_impl->Append(key, codes, sizes, mask);
}

bool ProgramCachedLibrary::ReadStages(const Record& record, TArray<uint8> codes[6])
{
    CriticalSection::Scope scope(m_impl->Lock);
    for (unsigned s = 0; s < BaseProgram::kStages; ++s)
        codes[s].Clear();
    if (!m_impl->Open() || record.Size == 0)
        return false;
    std::vector<uint8> chunk(record.Size);
    if (!ReadAt(*m_impl->File, record.Offset, chunk.data(), record.Size) ||
        !CheckChunk(chunk.data(), record, nullptr).empty())
        return false;
    uint64 at = 0;
    for (unsigned s = 0; s < BaseProgram::kStages; ++s)
    {
        if (!(record.StageMask & (1u << s)))
            continue;
        uint32 size = GetU32(chunk.data() + at + 4);
        if (!codes[s].SetCount(size))
            return false;
        std::memcpy(codes[s].begin(), chunk.data() + at + 8, size);
        at += 8 + uint64(size);
    }
    return true;
}

// --- Inspection --------------------------------------------------------------------

void ProgramCachedLibrary::InspectBytes(const uint8* data, uint64 size, Inspection& out)
{
    out = Inspection();
    out.FileSize = size;
    auto problem = [&](const std::string& text) { out.Problems.Add(AString(text.c_str(), unsigned(text.size()))); };
    if (size < kFooterSize)
    {
        out.Empty = size == 0;
        if (size)
            problem(Printf("%llu bytes, shorter than a footer", (unsigned long long)size));
        return;
    }
    const uint8* footer = data + size - kFooterSize;
    if (std::memcmp(footer, kFooterMagic, 4) != 0)
    {
        problem("no \"CCPC\" footer");
        return;
    }
    out.Count = GetU32(footer + 4);
    out.TableOffset = GetU32(footer + 8);
    uint64 body = size - kFooterSize;
    if (out.TableOffset > body)
    {
        problem(Printf("its tables would start at %u, past the footer at %llu", out.TableOffset,
                       (unsigned long long)body));
        return;
    }
    ParsedTail tail;
    std::vector<std::string> problems;
    ParseTail(data + out.TableOffset, body - out.TableOffset, out.Count, out.TableOffset, tail, problems);
    for (const std::string& p : problems)
        problem(p);
    auto nameOf = [&](unsigned t, uint32 id) {
        const NameEntry* e = tail.Name(t, id);
        return e ? AString(e->Name.c_str(), unsigned(e->Name.size())) : AString();
    };
    for (unsigned t = 0; t < kTables; ++t)
    {
        for (const NameEntry& e : tail.Tables[t])
        {
            AString line;
            line.Format("%u ", e.Id);
            line += AString(e.Name.c_str(), unsigned(e.Name.size()));
            out.TableNames[t].Add(line);
        }
    }
    uint64 checked = 0;
    for (unsigned r = 0; r < tail.Records.size(); ++r)
    {
        const Record& rec = tail.Records[r];
        InspectedRecord ir;
        ir.Entry = rec;
        ir.MacroString = nameOf(0, rec.ProgramKey.MacroString());
        ir.Framework = nameOf(1, rec.ProgramKey.Framework());
        ir.Attribute = nameOf(2, rec.ProgramKey.Attribute());
        ir.Material = nameOf(3, rec.ProgramKey.Material());
        // Overlapping chunks could make the checks read the file many times
        // over: they stop once they have read as much as it holds.
        if (rec.Offset <= out.TableOffset && rec.Size <= out.TableOffset - rec.Offset &&
            (rec.StageMask & ~kAllStages) == 0 && (checked += rec.Size) <= size)
        {
            std::vector<uint32> sizes;
            std::string why = CheckChunk(data + rec.Offset, rec, &sizes);
            if (!why.empty())
                problem(Printf("record %u: chunk at %u: %s", r, rec.Offset, why.c_str()));
            unsigned i = 0;
            for (unsigned s = 0; s < BaseProgram::kStages; ++s)
                if ((rec.StageMask & (1u << s)) && i < sizes.size())
                {
                    ir.StageTags.Add(AString(kStageTags[s]));
                    ir.StageSizes.Add(sizes[i++]);
                }
        }
        out.Records.Add(std::move(ir));
    }
}

bool ProgramCachedLibrary::InspectFile(const WString& path, Inspection& out)
{
    out = Inspection();
    std::string native = ToUtf8(path);
    std::FILE* file = std::fopen(native.c_str(), "rb");
    if (!file)
    {
        Log::Format(LOG_WARNING, u"Can't open shader cache %s.\n", path());
        return false;
    }
    std::vector<uint8> bytes;
    uint8 buffer[1 << 16];
    size_t got;
    while ((got = std::fread(buffer, 1, sizeof buffer, file)) > 0)
    {
        if (bytes.size() + got > 0xFFFFFFFFull)
            break;
        bytes.insert(bytes.end(), buffer, buffer + got);
    }
    bool failed = std::ferror(file) != 0;
    std::fclose(file);
    if (failed)
    {
        Log::Format(LOG_WARNING, u"Can't read shader cache %s.\n", path());
        return false;
    }
    InspectBytes(bytes.data(), bytes.size(), out);
    return true;
}

} // namespace KovexEngine
