#include "shaders/ProgramCachedLibrary.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "graphics/BaseProgram.h"
#include "graphics/HWCapability.h"
#include "graphics/Renderer.h"
#include "graphics/Shader.h"
#include "io/CacheDirectory.h"
#include "io/Stream.h"
#include "io/StreamManager.h"
#include "kernel/EngineGlobals.h"
#include "kernel/Log.h"
#include "kernel/StringConv.h"
#include "shaders/PGCode.h"
#include "shaders/PGCodeConf.h"

namespace KovexEngine {

namespace {

constexpr uint32 kFooterSize = 12;
constexpr uint32 kTableHeaderSize = 12;
constexpr uint32 kEntrySize = 24;
constexpr uint32 kRecordSize = 32;
constexpr uint32 kStageHeaderSize = 8;
constexpr unsigned kTables = 4;
constexpr unsigned kStages = 6;
constexpr uint32 kAllStages = (1u << kStages) - 1;
// Beyond this many lines an inspection only counts.
constexpr size_t kMaxProblems = 200;
const char kFooterMagic[4] = {'C', 'C', 'P', 'C'};
const char kTableMagic[4] = {'T', 'C', 'P', 'C'};
const char kStageTags[kStages][4] = {{'S', 'V', 0, 0}, {'S', 'P', 0, 0}, {'S', 'G', 0, 0},
                                     {'S', 'H', 0, 0}, {'S', 'D', 0, 0}, {'S', 'C', 0, 0}};
const char* const kTableNames[kTables] = {"hardware macro strings", "framework", "attribute", "material"};

uint32 ReadU32(const uint8* p) { return uint32(p[0]) | uint32(p[1]) << 8 | uint32(p[2]) << 16 | uint32(p[3]) << 24; }

void PutU32(std::string& out, uint32 v)
{
    char b[4] = {char(v & 0xFF), char((v >> 8) & 0xFF), char((v >> 16) & 0xFF), char(v >> 24)};
    out.append(b, 4);
}

uint64 Fnv64(const void* data, size_t size)
{
    uint64 h = 14695981039346656037ull;
    const uint8* p = static_cast<const uint8*>(data);
    for (size_t i = 0; i < size; ++i)
        h = (h ^ p[i]) * 1099511628211ull;
    return h;
}

std::string Printf(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Printf(const char* format, ...)
{
    char buffer[512];
    va_list args;
    va_start(args, format);
    vsnprintf(buffer, sizeof(buffer), format, args);
    va_end(args);
    return buffer;
}

std::string ToUtf8(const WString& text)
{
    AString out = StringConvFuncs::ToAString(text.c_str());
    return std::string(out.c_str(), out.Length());
}

// One table of name texts and their ids; ids in the order they were entered.
struct NameTable
{
    std::map<std::string, uint32> ids;
    std::vector<std::pair<uint32, std::string>> entries;
    uint32 next = 1;

    bool Contains(uint32 id) const
    {
        for (const auto& e : entries)
            if (e.first == id)
                return true;
        return false;
    }
    const std::string* Text(uint32 id) const
    {
        for (const auto& e : entries)
            if (e.first == id)
                return &e.second;
        return nullptr;
    }
    uint32 Enter(const std::string& text)
    {
        auto it = ids.find(text);
        if (it != ids.end())
            return it->second;
        uint32 id = next++;
        ids.emplace(text, id);
        entries.emplace_back(id, text);
        return id;
    }
};

// Reads `size` bytes at `offset`; false when they are not all there.
using ReadAt = std::function<bool(uint64 offset, uint32 size, void* out)>;

struct Parsed
{
    NameTable tables[kTables];
    std::vector<ProgramCachedLibrary::Record> records;
    uint32 tableOffset = 0;
    uint32 count = 0;
    // Per record: stage tags and sizes as read (inspection).
    std::vector<std::vector<std::pair<std::string, uint32>>> stages;
};

struct Problems
{
    std::vector<std::string> lines;
    size_t total = 0;
    void Add(std::string line)
    {
        if (lines.size() < kMaxProblems)
            lines.push_back(std::move(line));
        ++total;
    }
    bool Any() const { return total != 0; }
};

bool KeyLess(const ProgramCachedLibrary::Key& a, const ProgramCachedLibrary::Key& b)
{
    return std::lexicographical_compare(a.Words, a.Words + 4, b.Words, b.Words + 4);
}

// Walks a record's chunk: a tag and a size per stage of the mask, the sizes
// adding up to the chunk.
void CheckChunk(const ReadAt& read, const ProgramCachedLibrary::Record& r, size_t index, Problems& problems,
                std::vector<std::pair<std::string, uint32>>& stagesOut)
{
    uint64 pos = r.Offset;
    const uint64 end = uint64(r.Offset) + r.Size;
    for (unsigned stage = 0; stage < kStages; ++stage)
    {
        if (!(r.StageMask & (1u << stage)))
            continue;
        uint8 header[kStageHeaderSize];
        if (end - pos < kStageHeaderSize || !read(pos, kStageHeaderSize, header))
        {
            problems.Add(Printf("record %zu: chunk ends before stage %s", index, kStageTags[stage]));
            return;
        }
        std::string tag(reinterpret_cast<const char*>(header), strnlen(reinterpret_cast<const char*>(header), 4));
        uint32 codeSize = ReadU32(header + 4);
        stagesOut.emplace_back(tag, codeSize);
        if (memcmp(header, kStageTags[stage], 4) != 0)
            problems.Add(Printf("record %zu: stage tag \"%s\" where \"%s\" belongs", index, tag.c_str(),
                                kStageTags[stage]));
        pos += kStageHeaderSize;
        if (codeSize > end - pos)
        {
            problems.Add(Printf("record %zu: stage %s code of %u bytes runs past its chunk", index, kStageTags[stage],
                                codeSize));
            return;
        }
        if (codeSize == 0 || codeSize % 4 != 0)
            problems.Add(Printf("record %zu: stage %s code of %u bytes is no whole number of words", index,
                                kStageTags[stage], codeSize));
        pos += codeSize;
    }
    if (pos != end)
        problems.Add(Printf("record %zu: %llu bytes of its chunk belong to no stage", index,
                            static_cast<unsigned long long>(end - pos)));
}

// The whole check of a cache file of `size` bytes. Nothing is allocated
// beyond what the file's own bytes hold.
void Parse(const ReadAt& read, uint64 size, Parsed& out, Problems& problems)
{
    if (size < kFooterSize)
    {
        problems.Add(Printf("%llu bytes, shorter than a footer", static_cast<unsigned long long>(size)));
        return;
    }
    if (size > 0xFFFFFFFFull)
    {
        problems.Add("larger than 32-bit offsets address");
        return;
    }
    uint8 footer[kFooterSize];
    if (!read(size - kFooterSize, kFooterSize, footer))
    {
        problems.Add("footer cannot be read");
        return;
    }
    if (memcmp(footer, kFooterMagic, 4) != 0)
    {
        problems.Add("no \"CCPC\" footer");
        return;
    }
    out.count = ReadU32(footer + 4);
    out.tableOffset = ReadU32(footer + 8);
    const uint32 end = uint32(size - kFooterSize);
    if (out.tableOffset > end)
    {
        problems.Add(Printf("table offset %u beyond the file's %u bytes before the footer", out.tableOffset, end));
        return;
    }
    std::vector<uint8> header(end - out.tableOffset);
    if (!header.empty() && !read(out.tableOffset, uint32(header.size()), header.data()))
    {
        problems.Add("tables cannot be read");
        return;
    }
    const uint8* p = header.data();
    uint32 pos = 0;
    const uint32 avail = uint32(header.size());
    for (unsigned t = 0; t < kTables; ++t)
    {
        if (avail - pos < kTableHeaderSize)
        {
            problems.Add(Printf("table %u (%s) cut short at %u", t, kTableNames[t], out.tableOffset + pos));
            return;
        }
        if (memcmp(p + pos, kTableMagic, 4) != 0)
        {
            problems.Add(Printf("table %u (%s) has no \"TCPC\" tag at %u", t, kTableNames[t], out.tableOffset + pos));
            return;
        }
        uint32 entries = ReadU32(p + pos + 4);
        uint32 blob = ReadU32(p + pos + 8);
        pos += kTableHeaderSize;
        if (blob > avail - pos)
        {
            problems.Add(Printf("table %u (%s): blob of %u bytes beyond the %u left", t, kTableNames[t], blob,
                                avail - pos));
            return;
        }
        if (entries > blob / kEntrySize)
        {
            problems.Add(Printf("table %u (%s): %u entries cannot fit a blob of %u bytes", t, kTableNames[t], entries,
                                blob));
            return;
        }
        const uint8* names = p + pos;
        const uint32 namesSize = blob - entries * kEntrySize;
        NameTable& table = out.tables[t];
        for (uint32 i = 0; i < entries; ++i)
        {
            const uint8* e = names + namesSize + i * kEntrySize;
            uint32 id = ReadU32(e + 8), offset = ReadU32(e + 16), length = ReadU32(e + 20);
            if (ReadU32(e) != 0 || ReadU32(e + 4) != 0)
                problems.Add(Printf("table %u (%s) entry %u: leading words not zero", t, kTableNames[t], i));
            if (id == 0)
            {
                problems.Add(Printf("table %u (%s) entry %u: id 0", t, kTableNames[t], i));
                continue;
            }
            if (uint64(offset) + length > namesSize)
            {
                problems.Add(Printf("table %u (%s) entry %u: name at %u+%u beyond the %u bytes of names", t,
                                    kTableNames[t], i, offset, length, namesSize));
                continue;
            }
            std::string text(reinterpret_cast<const char*>(names + offset), length);
            if (table.ids.count(text) || table.Contains(id))
            {
                problems.Add(Printf("table %u (%s) entry %u: id %u or its text listed twice", t, kTableNames[t], i, id));
                continue;
            }
            table.ids.emplace(text, id);
            table.entries.emplace_back(id, std::move(text));
            table.next = std::max(table.next, id == 0xFFFFFFFFu ? id : id + 1);
        }
        pos += blob;
    }
    const uint32 left = avail - pos;
    if (out.count > left / kRecordSize)
    {
        problems.Add(Printf("count %u records beyond the %u bytes behind the tables", out.count, left));
        return;
    }
    if (left != out.count * kRecordSize)
        problems.Add(Printf("%u stray bytes between the records and the footer", left - out.count * kRecordSize));
    out.records.reserve(out.count);
    out.stages.resize(out.count);
    for (uint32 i = 0; i < out.count; ++i)
    {
        const uint8* r = p + pos + i * kRecordSize;
        ProgramCachedLibrary::Record rec;
        for (unsigned w = 0; w < 4; ++w)
            rec.ProgramKey.Words[w] = ReadU32(r + 4 * w);
        rec.Offset = ReadU32(r + 16);
        rec.Size = ReadU32(r + 20);
        rec.StageMask = ReadU32(r + 24);
        rec.Reserved = ReadU32(r + 28);
        const uint32* k = rec.ProgramKey.Words;
        if (!out.tables[0].Contains(k[3]))
            problems.Add(Printf("record %u: macro-string id %u not in its table", i, k[3]));
        if (!out.tables[1].Contains(k[1]))
            problems.Add(Printf("record %u: framework id %u not in its table", i, k[1]));
        if (k[0] != 0 && !out.tables[2].Contains(k[0]))
            problems.Add(Printf("record %u: attribute id %u not in its table", i, k[0]));
        if (k[2] != 0 && !out.tables[3].Contains(k[2]))
            problems.Add(Printf("record %u: material id %u not in its table", i, k[2]));
        if (i > 0 && !KeyLess(out.records.back().ProgramKey, rec.ProgramKey))
            problems.Add(Printf("record %u: key not above the one before it", i));
        if (rec.StageMask == 0 || (rec.StageMask & ~kAllStages) != 0)
            problems.Add(Printf("record %u: stage mask 0x%x", i, rec.StageMask));
        if (uint64(rec.Offset) + rec.Size > out.tableOffset)
            problems.Add(Printf("record %u: chunk at %u+%u runs into the tables at %u", i, rec.Offset, rec.Size,
                                out.tableOffset));
        else if ((rec.StageMask & ~kAllStages) == 0)
            CheckChunk(read, rec, i, problems, out.stages[i]);
        out.records.push_back(rec);
    }
    // Chunks never share bytes.
    std::vector<std::pair<uint32, uint32>> spans;
    for (const auto& r : out.records)
        spans.emplace_back(r.Offset, r.Size);
    std::sort(spans.begin(), spans.end());
    for (size_t i = 1; i < spans.size(); ++i)
        if (uint64(spans[i - 1].first) + spans[i - 1].second > spans[i].first)
            problems.Add(Printf("chunks at %u and %u overlap", spans[i - 1].first, spans[i].first));
}

std::string BuildHeader(const NameTable (&tables)[kTables],
                        const std::vector<std::unique_ptr<ProgramCachedLibrary::Record>>& records)
{
    std::string out;
    for (const NameTable& table : tables)
    {
        uint32 namesSize = 0;
        for (const auto& e : table.entries)
            namesSize += uint32(e.second.size());
        out.append(kTableMagic, 4);
        PutU32(out, uint32(table.entries.size()));
        PutU32(out, namesSize + uint32(table.entries.size()) * kEntrySize);
        for (const auto& e : table.entries)
            out += e.second;
        uint32 offset = 0;
        for (const auto& e : table.entries)
        {
            PutU32(out, 0);
            PutU32(out, 0);
            PutU32(out, e.first);
            PutU32(out, 0);
            PutU32(out, offset);
            PutU32(out, uint32(e.second.size()));
            offset += uint32(e.second.size());
        }
    }
    for (const auto& r : records)
    {
        for (uint32 w : r->ProgramKey.Words)
            PutU32(out, w);
        PutU32(out, r->Offset);
        PutU32(out, r->Size);
        PutU32(out, r->StageMask);
        PutU32(out, r->Reserved);
    }
    return out;
}

std::string BuildFooter(uint32 count, uint32 tableOffset)
{
    std::string out(kFooterMagic, 4);
    PutU32(out, count);
    PutU32(out, tableOffset);
    return out;
}

// The whole of a pread or pwrite, over short transfers.
template <typename Byte, typename Io>
bool TransferAll(int fd, Byte* data, size_t size, uint64 offset, Io io)
{
    while (size > 0)
    {
        ssize_t n = io(fd, data, size, off_t(offset));
        if (n <= 0)
            return false;
        data += n;
        size -= size_t(n);
        offset += uint64(n);
    }
    return true;
}

bool PWriteAll(int fd, const void* data, size_t size, uint64 offset)
{
    return TransferAll(fd, static_cast<const char*>(data), size, offset, ::pwrite);
}

bool PReadAll(int fd, void* data, size_t size, uint64 offset)
{
    return TransferAll(fd, static_cast<char*>(data), size, offset, ::pread);
}

ReadAt FdReader(int fd)
{
    return [fd](uint64 offset, uint32 size, void* out) { return PReadAll(fd, out, size, offset); };
}

std::string MakeKeyText(const PGCodeConf* conf, const WString& path, uint64 hash)
{
    return ToUtf8(conf->GetName().Get()) + "@" + ToUtf8(path) + Printf("#%016llx", static_cast<unsigned long long>(hash));
}

uint32 ExpectedStages(BaseProgram* program)
{
    if (program->IsCompute())
        return 1u << unsigned(ShaderType::Compute);
    const PGCodeConf* configs[3] = {};
    unsigned count = 0;
    program->GetConfigs(configs, count);
    const PGConfFW* fw = nullptr;
    const PGConfMT* mt = nullptr;
    for (unsigned i = 0; i < count && i < 3; ++i)
    {
        if (!fw)
            fw = dynamic_cast<const PGConfFW*>(configs[i]);
        if (!mt)
            mt = dynamic_cast<const PGConfMT*>(configs[i]);
    }
    uint32 mask = (1u << unsigned(ShaderType::Vertex)) | (1u << unsigned(ShaderType::Pixel));
    // The compiler refuses a program whose text and flag disagree on the
    // geometry stage, so the flag alone tells what was compiled.
    if (fw && fw->UsesGeometryStage())
        mask |= 1u << unsigned(ShaderType::Geometry);
    const Ptr<Renderer>& renderer = Renderer::Get();
    bool support = renderer && renderer->GetHWCapability() && renderer->GetHWCapability()->SupportTessellation;
    if (fw && mt && support && mt->IsTessellation() && fw->IsTessellationAware())
        mask |= (1u << unsigned(ShaderType::Hull)) | (1u << unsigned(ShaderType::Domain));
    return mask;
}

} // namespace

bool ProgramCachedLibrary::Key::operator<(const Key& other) const { return KeyLess(*this, other); }
bool ProgramCachedLibrary::Key::operator==(const Key& other) const
{
    return memcmp(Words, other.Words, sizeof(Words)) == 0;
}

struct ProgramCachedLibrary::Impl
{
    std::mutex lock;
    WString path;
    int fd = -1;
    // Opening failed, or a write did: the cache sits out the rest of the run.
    bool unusable = false;
    uint32 writePos = 0;
    NameTable tables[kTables];
    std::vector<std::unique_ptr<Record>> records;

    ~Impl() { Close(); }

    void Close()
    {
        if (fd >= 0)
            close(fd);
        fd = -1;
    }

    void Clear()
    {
        for (NameTable& t : tables)
            t = NameTable();
        records.clear();
        writePos = 0;
    }

    void Adopt(Parsed& parsed)
    {
        Clear();
        for (unsigned t = 0; t < kTables; ++t)
            tables[t] = std::move(parsed.tables[t]);
        for (const Record& r : parsed.records)
            records.push_back(std::make_unique<Record>(r));
        writePos = parsed.tableOffset;
    }

    const Record* Find(const Key& key) const
    {
        auto it = std::lower_bound(records.begin(), records.end(), key,
                                   [](const std::unique_ptr<Record>& r, const Key& k) { return KeyLess(r->ProgramKey, k); });
        return it != records.end() && (*it)->ProgramKey == key ? it->get() : nullptr;
    }

    // An empty file written beside the one in use and renamed over it.
    bool Replace(const std::string& file)
    {
        Close();
        std::string temp = file + Printf(".%d.new", int(getpid()));
        int out = open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (out < 0)
            return false;
        close(out);
        if (rename(temp.c_str(), file.c_str()) != 0)
        {
            unlink(temp.c_str());
            return false;
        }
        fd = open(file.c_str(), O_RDWR | O_CLOEXEC);
        return fd >= 0;
    }

    bool Open()
    {
        if (fd >= 0)
            return true;
        if (unusable)
            return false;
        if (path.IsEmpty())
        {
            WString dir = GetEngineCacheDirectory();
            if (dir.IsEmpty())
            {
                unusable = true;
                return false;
            }
            path = dir + u"shader.cache";
        }
        std::string file = ToUtf8(path);
        fd = open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        struct stat st;
        if (fd < 0 || fstat(fd, &st) != 0)
        {
            Log::Format(LOG_WARNING, u"Can't open shader cache %s.\n", path.c_str());
            Close();
            unusable = true;
            return false;
        }
        Clear();
        if (st.st_size == 0)
            return true;
        Parsed parsed;
        Problems problems;
        Parse(FdReader(fd), uint64(st.st_size), parsed, problems);
        if (!problems.Any())
        {
            Adopt(parsed);
            return true;
        }
        Log::Format(LOG_WARNING, u"Shader cache %s is damaged (%S); a new one replaces it.\n", path.c_str(),
                    problems.lines.front().c_str());
        if (!Replace(file))
        {
            Log::Format(LOG_WARNING, u"Can't replace shader cache %s.\n", path.c_str());
            Close();
            unusable = true;
            return false;
        }
        return true;
    }

    uint32 EnterName(unsigned table, const std::string& text) { return tables[table].Enter(text); }

    bool MakeKey(Key& key, BaseProgram* program, uint64 unitHash)
    {
        key = Key();
        const PGCodeConf* configs[3] = {};
        unsigned count = 0;
        program->GetConfigs(configs, count);
        if (count == 0)
        {
            Log::Format(LOG_WARNING, u"Shader cache: a program without configurations has no key.\n");
            return false;
        }
        AString macros = ProgramCachedLibrary::MakeMacroString();
        key.Words[3] = EnterName(0, std::string(macros.c_str(), macros.Length()));
        for (unsigned i = 0; i < count && i < 3; ++i)
        {
            const PGCodeConf* conf = configs[i];
            unsigned slot = 1; // framework, and a compute program's one configuration
            uint64 hash = unitHash;
            if (!program->IsCompute())
            {
                if (dynamic_cast<const PGConfAB*>(conf))
                    slot = 0;
                else if (dynamic_cast<const PGConfMT*>(conf))
                    slot = 2;
                else if (!dynamic_cast<const PGConfFW*>(conf))
                    continue;
                if (slot != 1)
                {
                    const AString& code = conf->GetCode();
                    hash = Fnv64(code.c_str(), code.Length());
                }
            }
            AString text = ProgramCachedLibrary::MakeConfigText(conf, hash);
            if (text.IsEmpty())
            {
                Log::Format(LOG_WARNING, u"Shader cache: configuration %s has no template path to key it by.\n",
                            conf ? conf->GetName().Get().c_str() : u"");
                return false;
            }
            static const unsigned kTableOfSlot[3] = {2, 1, 3};
            key.Words[slot] = EnterName(kTableOfSlot[slot], std::string(text.c_str(), text.Length()));
            if (program->IsCompute())
                break;
        }
        if (key.Words[1] == 0)
        {
            Log::Format(LOG_WARNING, u"Shader cache: a program without a framework configuration has no key.\n");
            return false;
        }
        return true;
    }

    // Chunk, then tables and records, then the footer; a failed write makes
    // the cache sit out the run (the next run refuses the torn file).
    const Record* Append(const Key& key, const void* const codes[kStages], const uint32 sizes[kStages])
    {
        std::string chunk;
        uint32 mask = 0;
        for (unsigned s = 0; s < kStages; ++s)
        {
            if (!codes[s] || sizes[s] == 0)
                continue;
            mask |= 1u << s;
            chunk.append(kStageTags[s], 4);
            PutU32(chunk, sizes[s]);
            chunk.append(static_cast<const char*>(codes[s]), sizes[s]);
        }
        if (mask == 0)
            return nullptr;
        auto record = std::make_unique<Record>();
        record->ProgramKey = key;
        record->Offset = writePos;
        record->Size = uint32(chunk.size());
        record->StageMask = mask;
        auto at = std::lower_bound(records.begin(), records.end(), key,
                                   [](const std::unique_ptr<Record>& r, const Key& k) { return KeyLess(r->ProgramKey, k); });
        const Record* result = record.get();
        records.insert(at, std::move(record));
        std::string header = BuildHeader(tables, records);
        const uint64 tableOffset = uint64(writePos) + chunk.size();
        const uint64 end = tableOffset + header.size() + kFooterSize;
        if (end > 0xFFFFFFFFull)
        {
            Log::Format(LOG_WARNING, u"Shader cache %s is full.\n", path.c_str());
            records.erase(std::find_if(records.begin(), records.end(),
                                       [&](const std::unique_ptr<Record>& r) { return r.get() == result; }));
            return nullptr;
        }
        std::string footer = BuildFooter(uint32(records.size()), uint32(tableOffset));
        struct stat st;
        bool ok = PWriteAll(fd, chunk.data(), chunk.size(), writePos) &&
                  PWriteAll(fd, header.data(), header.size(), tableOffset) && fstat(fd, &st) == 0 &&
                  (uint64(st.st_size) <= end || ftruncate(fd, off_t(end)) == 0) &&
                  PWriteAll(fd, footer.data(), footer.size(), end - kFooterSize);
        if (!ok)
        {
            Log::Format(LOG_WARNING, u"Can't write shader cache %s.\n", path.c_str());
            Close();
            Clear();
            unusable = true;
            return nullptr;
        }
        writePos = uint32(tableOffset);
        return result;
    }

    // A record's stages read back in one read, tags checked. `out` holds
    // the chunk; each stage is its first index and a span of it.
    struct Span
    {
        unsigned stage;
        uint32 offset, size;
    };
    bool ReadStages(const Record& record, std::vector<uint8>& chunk, std::vector<Span>& spans)
    {
        spans.clear();
        chunk.resize(record.Size);
        if (!PReadAll(fd, chunk.data(), chunk.size(), record.Offset))
            return false;
        uint32 pos = 0;
        for (unsigned s = 0; s < kStages; ++s)
        {
            if (!(record.StageMask & (1u << s)))
                continue;
            if (record.Size - pos < kStageHeaderSize || memcmp(chunk.data() + pos, kStageTags[s], 4) != 0)
                return false;
            uint32 size = ReadU32(chunk.data() + pos + 4);
            pos += kStageHeaderSize;
            if (size > record.Size - pos)
                return false;
            spans.push_back(Span{s, pos, size});
            pos += size;
        }
        return true;
    }
};

namespace {
std::mutex g_insLock;
std::atomic<ProgramCachedLibrary*> g_library{nullptr};
} // namespace

ProgramCachedLibrary::ProgramCachedLibrary() : m_impl(new Impl()) {}
ProgramCachedLibrary::~ProgramCachedLibrary() { delete m_impl; }

ProgramCachedLibrary* ProgramCachedLibrary::Ins()
{
    ProgramCachedLibrary* library = g_library.load(std::memory_order_acquire);
    if (library)
        return library;
    std::lock_guard<std::mutex> guard(g_insLock);
    library = g_library.load(std::memory_order_relaxed);
    if (!library)
    {
        library = new ProgramCachedLibrary();
        g_library.store(library, std::memory_order_release);
    }
    return library;
}

void ProgramCachedLibrary::Destroy()
{
    std::lock_guard<std::mutex> guard(g_insLock);
    delete g_library.exchange(nullptr);
}

void ProgramCachedLibrary::SetFilePath(const WString& path)
{
    std::lock_guard<std::mutex> guard(m_impl->lock);
    m_impl->Close();
    m_impl->Clear();
    m_impl->unusable = false;
    m_impl->path = path;
}

WString ProgramCachedLibrary::GetFilePath()
{
    std::lock_guard<std::mutex> guard(m_impl->lock);
    return m_impl->path;
}

bool ProgramCachedLibrary::GetKey(Key& key, BaseProgram* program, uint64 unitHash)
{
    if (!program)
        return false;
    std::lock_guard<std::mutex> guard(m_impl->lock);
    m_impl->Open();
    return m_impl->MakeKey(key, program, unitHash);
}

const ProgramCachedLibrary::Record* ProgramCachedLibrary::Find(const Key& key)
{
    std::lock_guard<std::mutex> guard(m_impl->lock);
    if (!m_impl->Open())
        return nullptr;
    return m_impl->Find(key);
}

const ProgramCachedLibrary::Record* ProgramCachedLibrary::Find(BaseProgram* program, uint64 unitHash)
{
    if (!program)
        return nullptr;
    std::lock_guard<std::mutex> guard(m_impl->lock);
    Key key;
    if (!m_impl->Open() || !m_impl->MakeKey(key, program, unitHash))
        return nullptr;
    return m_impl->Find(key);
}

unsigned ProgramCachedLibrary::GetCount()
{
    std::lock_guard<std::mutex> guard(m_impl->lock);
    m_impl->Open();
    return unsigned(m_impl->records.size());
}

uint32 ProgramCachedLibrary::GetNameId(unsigned table, const AString& text)
{
    if (table >= kTables || text.IsEmpty())
        return 0;
    std::lock_guard<std::mutex> guard(m_impl->lock);
    // Ids are the file's: its tables come first.
    m_impl->Open();
    return m_impl->EnterName(table, std::string(text.c_str(), text.Length()));
}

const ProgramCachedLibrary::Record* ProgramCachedLibrary::CacheStages(const Key& key, const void* const codes[6],
                                                                      const uint32 sizes[6])
{
    std::lock_guard<std::mutex> guard(m_impl->lock);
    if (!m_impl->Open())
        return nullptr;
    if (const Record* found = m_impl->Find(key))
        return found;
    return m_impl->Append(key, codes, sizes);
}

bool ProgramCachedLibrary::ReadStages(const Record& record, TArray<uint8> codes[6])
{
    std::vector<uint8> chunk;
    std::vector<Impl::Span> spans;
    {
        std::lock_guard<std::mutex> guard(m_impl->lock);
        if (!m_impl->Open() || !m_impl->ReadStages(record, chunk, spans))
            return false;
    }
    for (unsigned s = 0; s < kStages; ++s)
        codes[s].Clear();
    for (const Impl::Span& span : spans)
    {
        if (!codes[span.stage].SetCount(span.size))
            return false;
        memcpy(codes[span.stage].Data(), chunk.data() + span.offset, span.size);
    }
    return true;
}

const ProgramCachedLibrary::Record* ProgramCachedLibrary::Cache(BaseProgram* program, uint64 unitHash)
{
    if (!program || program->IsFailed())
        return nullptr;
    const void* codes[kStages] = {};
    uint32 sizes[kStages] = {};
    if (program->IsCompute())
    {
        Shader* cs = program->GetShader(ShaderType::Compute);
        if (!cs || !cs->GetShaderCode() || cs->GetShaderCodeSize() == 0)
            return nullptr;
        codes[unsigned(ShaderType::Compute)] = cs->GetShaderCode();
        sizes[unsigned(ShaderType::Compute)] = cs->GetShaderCodeSize();
    }
    else
    {
        for (unsigned s = 0; s < unsigned(ShaderType::Compute); ++s)
        {
            Shader* shader = program->GetShader(ShaderType(s));
            if (shader && shader->GetShaderCode() && shader->GetShaderCodeSize() != 0)
            {
                codes[s] = shader->GetShaderCode();
                sizes[s] = shader->GetShaderCodeSize();
            }
        }
        if (!codes[unsigned(ShaderType::Vertex)] || !codes[unsigned(ShaderType::Pixel)])
            return nullptr;
    }
    std::lock_guard<std::mutex> guard(m_impl->lock);
    Key key;
    if (!m_impl->Open() || !m_impl->MakeKey(key, program, unitHash))
        return nullptr;
    if (const Record* found = m_impl->Find(key))
        return found;
    return m_impl->Append(key, codes, sizes);
}

bool ProgramCachedLibrary::LoadFromCache(BaseProgram* program, uint64 unitHash)
{
    if (!program)
        return false;
    const uint32 expected = ExpectedStages(program);
    std::vector<uint8> chunk;
    std::vector<Impl::Span> spans;
    {
        std::lock_guard<std::mutex> guard(m_impl->lock);
        Key key;
        if (!m_impl->Open() || !m_impl->MakeKey(key, program, unitHash))
            return false;
        const Record* record = m_impl->Find(key);
        if (!record || record->StageMask != expected || !m_impl->ReadStages(*record, chunk, spans))
            return false;
    }
    ShaderFactory* factory = ShaderFactory::Get();
    if (!factory)
        return false;
    // Every stage made before any is set, so a failure leaves the program as
    // it was.
    Ptr<Shader> shaders[kStages];
    for (const Impl::Span& span : spans)
    {
        void* code = malloc(span.size ? span.size : 1);
        if (!code)
            return false;
        memcpy(code, chunk.data() + span.offset, span.size);
        shaders[span.stage] = factory->CreateShader(ShaderType(span.stage), code, span.size);
        if (!shaders[span.stage])
            return false;
    }
    for (unsigned s = 0; s < kStages; ++s)
        if (shaders[s])
            program->SetShader(ShaderType(s), shaders[s]);
    return true;
}

bool ProgramCachedLibrary::LoadHeader(Stream& stream)
{
    const int64 size = stream.GetSize();
    ReadAt read = [&stream](uint64 offset, uint32 count, void* out) {
        if (count > 0x7FFFFFFFu)
            return false;
        stream.Seek(int64(offset), Stream::Begin);
        return stream.Read(out, int(count));
    };
    Parsed parsed;
    Problems problems;
    if (size >= 0)
        Parse(read, uint64(size), parsed, problems);
    std::lock_guard<std::mutex> guard(m_impl->lock);
    if (size < 0 || problems.Any())
    {
        m_impl->Clear();
        return false;
    }
    m_impl->Adopt(parsed);
    return true;
}

bool ProgramCachedLibrary::SaveHeader(Stream& stream)
{
    std::lock_guard<std::mutex> guard(m_impl->lock);
    std::string header = BuildHeader(m_impl->tables, m_impl->records);
    std::string footer = BuildFooter(uint32(m_impl->records.size()), m_impl->writePos);
    stream.Seek(m_impl->writePos, Stream::Begin);
    return stream.Write(header.data(), int(header.size())) && stream.Write(footer.data(), int(footer.size()));
}

AString ProgramCachedLibrary::MakeConfigText(const PGCodeConf* conf, uint64 hash)
{
    if (!conf || !conf->GetParent() || conf->GetParent()->GetPath().IsEmpty())
        return AString();
    WString path = conf->GetParent()->GetPath();
    if (!StreamManager::Ins()->MakeRelativePath(path, nullptr))
    {
        // Loose templates: the path from the root when below it, else as
        // given (the text's hash keeps it honest either way).
        path = conf->GetParent()->GetPath();
        const unsigned rootLength = g_kovexRootPath.Length();
        if (rootLength != 0 && path.Length() > rootLength && path.SubString(0, rootLength) == g_kovexRootPath)
            path = path.SubString(rootLength);
    }
    return AString(MakeKeyText(conf, path, hash).c_str());
}

AString ProgramCachedLibrary::MakeMacroString()
{
    const Ptr<Renderer>& renderer = Renderer::Get();
    if (!renderer)
        return AString("[PLATFORM=none];");
    std::string text = Printf("[PLATFORM=%d];", int(renderer->GetPlatform()));
    if (renderer->GetHWCapability())
    {
        AString macros;
        renderer->GetHWCapability()->GetMacroString(macros);
        text.append(macros.c_str(), macros.Length());
    }
    return AString(text.c_str());
}

namespace {

void FillInspection(const ReadAt& read, uint64 size, ProgramCachedLibrary::Inspection& out)
{
    out = ProgramCachedLibrary::Inspection();
    out.FileSize = size;
    if (size == 0)
    {
        out.Empty = true;
        return;
    }
    Parsed parsed;
    Problems problems;
    Parse(read, size, parsed, problems);
    out.Count = parsed.count;
    out.TableOffset = parsed.tableOffset;
    for (unsigned t = 0; t < kTables; ++t)
        for (const auto& e : parsed.tables[t].entries)
            out.TableNames[t].Add(AString(Printf("%u\t", e.first).c_str()) + AString(e.second.c_str()));
    auto text = [&](unsigned table, uint32 id) {
        const std::string* s = id ? parsed.tables[table].Text(id) : nullptr;
        return s ? AString(s->c_str()) : AString();
    };
    for (size_t i = 0; i < parsed.records.size(); ++i)
    {
        ProgramCachedLibrary::InspectedRecord rec;
        rec.Entry = parsed.records[i];
        const uint32* k = rec.Entry.ProgramKey.Words;
        rec.MacroString = text(0, k[3]);
        rec.Framework = text(1, k[1]);
        rec.Attribute = text(2, k[0]);
        rec.Material = text(3, k[2]);
        for (const auto& stage : parsed.stages[i])
        {
            rec.StageTags.Add(AString(stage.first.c_str()));
            rec.StageSizes.Add(stage.second);
        }
        out.Records.Add(rec);
    }
    for (const std::string& line : problems.lines)
        out.Problems.Add(AString(line.c_str()));
    if (problems.total > problems.lines.size())
        out.Problems.Add(AString(Printf("%zu more", problems.total - problems.lines.size()).c_str()));
}

} // namespace

void ProgramCachedLibrary::InspectBytes(const uint8* data, uint64 size, Inspection& out)
{
    ReadAt read = [data, size](uint64 offset, uint32 count, void* dst) {
        if (offset > size || count > size - offset)
            return false;
        memcpy(dst, data + offset, count);
        return true;
    };
    FillInspection(read, size, out);
}

bool ProgramCachedLibrary::InspectFile(const WString& path, Inspection& out)
{
    out = Inspection();
    int fd = open(ToUtf8(path).c_str(), O_RDONLY | O_CLOEXEC);
    struct stat st;
    if (fd < 0 || fstat(fd, &st) != 0)
    {
        if (fd >= 0)
            close(fd);
        return false;
    }
    // Only the tables, records and stage headers are read.
    FillInspection(FdReader(fd), uint64(st.st_size), out);
    close(fd);
    return true;
}

} // namespace KovexEngine
