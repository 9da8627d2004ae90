// "shader.cache": the file as an outside reader sees it, what happens to torn
// and corrupt files, and programs found again on a second run.

#include <sys/stat.h>

#include <algorithm>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "graphics/BaseProgram.h"
#include "graphics/HWCapability.h"
#include "graphics/Renderer.h"
#include "graphics/Shader.h"
#include "io/FileStream.h"
#include "kernel/EngineGlobals.h"
#include "shaders/PGCode.h"
#include "shaders/PGCodeConf.h"
#include "shaders/Program.h"
#include "shaders/ProgramCompiler.h"
#include "shaders/ProgramManager.h"
#include "graphics/ShaderReflection.h"
#include "shaders/ProgramCachedLibrary.h"
#include "support/LogCapture.h"
#include "support/NullEngine.h"
#include "support/TempDir.h"
#include "shaders/ShaderCacheTestSupport.h"

using namespace KovexEngine;
using namespace KovexTest;

namespace {

class ShaderCacheFile : public ::testing::Test
{
protected:
    void SetUp() override
    {
        path = dir.path + "/shader.cache";
        Reopen(path);
    }
    void TearDown() override { ProgramCachedLibrary::Destroy(); }

    TempDir dir;
    std::string path;
};

unsigned CountDamaged(const CaptureProxy& log)
{
    unsigned n = 0;
    for (const auto& e : log.entries)
        if (e.text.IndexOf(u"is damaged") != kNotFound)
            ++n;
    return n;
}

} // namespace

TEST_F(ShaderCacheFile, WrittenFileAgreesWithAnIndependentReader)
{
    auto a = MakeKey("[PLATFORM=4];[SM5];", "Opaque@Shaders/Fw.ksl#01", "Static@Shaders/Ab.ksl#02", "Red@Shaders/Mt.ksl#03");
    auto b = MakeKey("[PLATFORM=4];[SM5];", "Opaque@Shaders/Fw.ksl#01", "", "Blue@Shaders/Mt.ksl#04");
    auto c = MakeKey("[PLATFORM=4];[SM5];", "Particles@Shaders/Cs.ksl#05", "", "");
    std::string sa[6] = {FakeCode(1, 10), FakeCode(2, 7), FakeCode(3, 3), "", "", ""};
    std::string sb[6] = {FakeCode(4, 5), FakeCode(5, 6), "", "", "", ""};
    std::string sc[6] = {"", "", "", "", "", FakeCode(6, 9)};
    ASSERT_NE(CacheStrings(a, sa), nullptr);
    ASSERT_NE(CacheStrings(b, sb), nullptr);
    ASSERT_NE(CacheStrings(c, sc), nullptr);
    // Caching a listed key again returns the record and writes nothing.
    long long size = FileSize(path);
    EXPECT_EQ(CacheStrings(a, sb)->Offset, 0u);
    EXPECT_EQ(FileSize(path), size);

    CacheFile f = CacheFile::Read(ReadWhole(path));
    ASSERT_TRUE(f.ok);
    ASSERT_EQ(f.count, 3u);
    ASSERT_EQ(f.tables[0].size(), 1u);
    EXPECT_EQ(f.tables[0].begin()->second, "[PLATFORM=4];[SM5];");
    EXPECT_EQ(f.tables[1].size(), 2u);
    EXPECT_EQ(f.tables[2].size(), 1u);
    EXPECT_EQ(f.tables[3].size(), 2u);
    // Chunks in the order written, from 0; the tables right behind them.
    EXPECT_EQ(f.tableOffset, (8 + 40 + 8 + 28 + 8 + 12) + (8 + 20 + 8 + 24) + (8 + 36u));
    for (size_t i = 1; i < f.programs.size(); ++i)
        EXPECT_TRUE(std::lexicographical_compare(f.programs[i - 1].key, f.programs[i - 1].key + 4, f.programs[i].key,
                                                 f.programs[i].key + 4));
    for (const auto& p : f.programs)
    {
        const std::string* expected = nullptr;
        if (p.key[1] == a.Words[1] && p.key[2] == a.Words[2])
            expected = sa;
        else if (p.key[2] == b.Words[2])
            expected = sb;
        else
            expected = sc;
        EXPECT_EQ(f.tables[0].at(p.key[3]), "[PLATFORM=4];[SM5];");
        EXPECT_EQ(p.reserved, 0u);
        unsigned k = 0;
        for (unsigned s = 0; s < 6; ++s)
        {
            if (expected[s].empty())
            {
                EXPECT_FALSE(p.mask & (1u << s));
                continue;
            }
            ASSERT_TRUE(p.mask & (1u << s));
            ASSERT_LT(k, p.stages.size());
            const char tags[6][3] = {"SV", "SP", "SG", "SH", "SD", "SC"};
            EXPECT_EQ(p.stages[k].tag, std::string(tags[s], 2) + std::string(2, '\0'));
            EXPECT_EQ(p.stages[k].code, expected[s]);
            ++k;
        }
    }
    EXPECT_EQ(f.tables[1].at(c.Words[1]), "Particles@Shaders/Cs.ksl#05");
    EXPECT_EQ(c.Words[0], 0u);
    EXPECT_EQ(c.Words[2], 0u);

    // A later run finds all, reads the same bytes, and numbers new names on
    // from the largest id.
    Reopen(path);
    ProgramCachedLibrary* lib = ProgramCachedLibrary::Ins();
    EXPECT_EQ(lib->GetCount(), 3u);
    const ProgramCachedLibrary::Record* r = lib->Find(a);
    ASSERT_NE(r, nullptr);
    TArray<uint8> codes[6];
    ASSERT_TRUE(lib->ReadStages(*r, codes));
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(codes[2].Data()), codes[2].Count()), sa[2]);
    EXPECT_EQ(codes[3].Count(), 0u);
    EXPECT_EQ(lib->GetNameId(3, "Green@Shaders/Mt.ksl#07"), 3u);
    EXPECT_EQ(lib->GetNameId(1, "Opaque@Shaders/Fw.ksl#01"), a.Words[1]);
}

TEST_F(ShaderCacheFile, ANewProgramOverwritesTheOldTablesAndAppendsThemBehindItsChunk)
{
    auto a = MakeKey("[PLATFORM=4];", "A@a.ksl#1", "", "");
    std::string sa[6] = {FakeCode(1, 4), FakeCode(2, 4), "", "", "", ""};
    ASSERT_NE(CacheStrings(a, sa), nullptr);
    CacheFile first = CacheFile::Read(ReadWhole(path));
    ASSERT_TRUE(first.ok);
    EXPECT_EQ(first.tableOffset, 2 * 8 + 32u);
    std::string firstBytes = ReadWhole(path);

    auto b = MakeKey("[PLATFORM=4];", "B@b.ksl#2", "", "");
    std::string sb[6] = {FakeCode(3, 2), FakeCode(4, 3), "", "", "", ""};
    const ProgramCachedLibrary::Record* rb = CacheStrings(b, sb);
    ASSERT_NE(rb, nullptr);
    EXPECT_EQ(rb->Offset, first.tableOffset);
    std::string bytes = ReadWhole(path);
    EXPECT_EQ(bytes.compare(first.tableOffset, 4, std::string("SV\0\0", 4)), 0);
    EXPECT_EQ(bytes.compare(0, first.tableOffset, firstBytes, 0, first.tableOffset), 0);
    CacheFile second = CacheFile::Read(bytes);
    ASSERT_TRUE(second.ok);
    EXPECT_EQ(second.tableOffset, first.tableOffset + rb->Size);
    EXPECT_EQ(rb->Size, 2 * 8 + 20u);
    EXPECT_EQ(second.count, 2u);

    // SaveHeader writes the same tail at the write position.
    Reopen(path);
    ProgramCachedLibrary* lib = ProgramCachedLibrary::Ins();
    ASSERT_EQ(lib->GetCount(), 2u);
    std::string copyPath = dir.path + "/copy";
    WriteWhole(copyPath, bytes.substr(0, second.tableOffset));
    {
        Ptr<FileStream> out(new FileStream(StringConvFuncs::ToWString(copyPath.c_str())));
        out->SetReadWrite();
        ASSERT_TRUE(out->Open());
        ASSERT_TRUE(lib->SaveHeader(*out));
    }
    EXPECT_EQ(ReadWhole(copyPath), bytes);
}

TEST_F(ShaderCacheFile, FindAnswersEveryKeyAndNoOther)
{
    std::mt19937 rng(7);
    std::vector<ProgramCachedLibrary::Key> keys;
    for (unsigned i = 0; i < 60; ++i)
        keys.push_back(MakeKey("[M" + std::to_string(i % 3) + "];", "F" + std::to_string(rng() % 5) + "@f#0",
                               "A" + std::to_string(i) + "@a#0", i % 2 ? "M@m#0" : ""));
    std::vector<unsigned> order(keys.size());
    for (unsigned i = 0; i < order.size(); ++i)
        order[i] = i;
    std::shuffle(order.begin(), order.end(), rng);
    for (unsigned i : order)
    {
        std::string s[6] = {FakeCode(i, 1 + i % 4), FakeCode(i + 100, 2), "", "", "", ""};
        ASSERT_NE(CacheStrings(keys[i], s), nullptr);
    }
    Reopen(path);
    ProgramCachedLibrary* lib = ProgramCachedLibrary::Ins();
    ASSERT_EQ(lib->GetCount(), 60u);
    for (unsigned i = 0; i < keys.size(); ++i)
    {
        const ProgramCachedLibrary::Record* r = lib->Find(keys[i]);
        ASSERT_NE(r, nullptr) << i;
        TArray<uint8> codes[6];
        ASSERT_TRUE(lib->ReadStages(*r, codes));
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(codes[0].Data()), codes[0].Count()),
                  FakeCode(i, 1 + i % 4));
    }
    ProgramCachedLibrary::Key missing = keys[5];
    missing.Words[3] += 100;
    EXPECT_EQ(lib->Find(missing), nullptr);
    missing = keys[5];
    missing.Words[0] = 0;
    EXPECT_EQ(lib->Find(missing), nullptr);
}

// A run that dies anywhere inside an append leaves a file the next run
// either reads whole or refuses and replaces; never one it misreads.
TEST_F(ShaderCacheFile, AnAppendCutAtAnyByteIsNeverMisread)
{
    auto a = MakeKey("[P];", "A@a#1", "", "");
    auto b = MakeKey("[P];", "B@b#2", "", "");
    std::string sa[6] = {FakeCode(1, 6), FakeCode(2, 5), "", "", "", ""};
    std::string sb[6] = {FakeCode(3, 4), FakeCode(4, 3), FakeCode(5, 2), "", "", ""};
    ASSERT_NE(CacheStrings(a, sa), nullptr);
    std::string before = ReadWhole(path);
    ASSERT_NE(CacheStrings(b, sb), nullptr);
    std::string after = ReadWhole(path);
    ProgramCachedLibrary::Destroy();
    const size_t start = CacheFile::Read(before).tableOffset;
    ASSERT_GT(after.size(), before.size());

    unsigned whole = 0, refused = 0;
    for (size_t cut = start; cut <= after.size(); ++cut)
    {
        // What was on disk when the writer stopped: the old file with the
        // new bytes written over it up to `cut`.
        std::string torn = after.substr(0, cut);
        if (torn.size() < before.size())
            torn += before.substr(torn.size());
        WriteWhole(path, torn);
        LogCapture log;
        Reopen(path);
        ProgramCachedLibrary* lib = ProgramCachedLibrary::Ins();
        unsigned count = lib->GetCount();
        // Nothing of the append written yet: the old file, whole.
        if (cut == start)
        {
            EXPECT_EQ(count, 1u);
            EXPECT_EQ(lib->Find(b), nullptr);
        }
        if (count == 0)
        {
            ++refused;
            EXPECT_EQ(CountDamaged(*log.proxy), 1u) << cut;
            EXPECT_EQ(FileSize(path), 0) << cut;
            continue;
        }
        ++whole;
        EXPECT_EQ(CountDamaged(*log.proxy), 0u) << cut;
        for (auto* pair : {&a, &b})
        {
            const ProgramCachedLibrary::Record* r = lib->Find(*pair);
            if (!r)
                continue;
            TArray<uint8> codes[6];
            ASSERT_TRUE(lib->ReadStages(*r, codes)) << cut;
            const std::string* expected = pair == &a ? sa : sb;
            for (unsigned s = 0; s < 6; ++s)
                EXPECT_EQ(std::string(reinterpret_cast<const char*>(codes[s].Data()), codes[s].Count()), expected[s])
                    << cut;
        }
    }
    // Only the old and the complete file read; every torn one is refused.
    EXPECT_EQ(whole, 2u);
    EXPECT_EQ(refused, after.size() - start - 1);
}

TEST_F(ShaderCacheFile, ACorruptFileIsReplacedWholeWithOneLogLine)
{
    auto a = MakeKey("[P];", "A@a#1", "", "");
    auto b = MakeKey("[P];", "B@b#1", "", "");
    std::string sa[6] = {FakeCode(1, 2), FakeCode(2, 2), "", "", "", ""};
    ASSERT_NE(CacheStrings(a, sa), nullptr);
    ASSERT_NE(CacheStrings(b, sa), nullptr);
    ProgramCachedLibrary::Destroy();
    const std::string good = ReadWhole(path);
    const CacheFile f = CacheFile::Read(good);
    ASSERT_TRUE(f.ok);
    const size_t foot = good.size() - 12, recs = foot - 64, tables = f.tableOffset;
    auto put = [](std::string s, size_t at, unsigned v) {
        for (unsigned i = 0; i < 4; ++i)
            s[at + i] = char((v >> (8 * i)) & 0xFF);
        return s;
    };
    struct Case
    {
        const char* what;
        std::string bytes;
    };
    std::vector<Case> cases = {
        {"short", std::string("CCPC\0", 5)},
        {"foreign", std::string(100, 'x')},
        {"footer magic", put(good, foot, 0x43504343u + 1)},
        {"absurd count", put(good, foot + 4, 0x7FFFFFFFu)},
        {"count one more", put(good, foot + 4, 3)},
        {"table offset beyond", put(good, foot + 8, unsigned(good.size()))},
        {"table tag", put(good, tables, 0x12345678u)},
        {"absurd table entries", put(good, tables + 4, 0x10000000u)},
        {"blob beyond", put(good, tables + 8, 0x7FFFFFF0u)},
        {"chunk tag", put(good, 0, 0x00005853u)},
        {"chunk beyond tables", put(good, recs + 16, unsigned(tables - 4))},
        {"chunk size wrong", put(good, recs + 20, 8)},
        {"overlapping chunks", put(good, recs + 32 + 16, 0)},
        {"unknown framework id", put(good, recs + 4, 99)},
        {"stage mask", put(good, recs + 24, 0x80000003u)},
        {"records out of order", put(put(good, recs + 4, f.programs[1].key[1]), recs + 32 + 4, f.programs[0].key[1])},
        {"truncated", good.substr(0, good.size() - 1)},
        {"trailing byte", good + "x"},
    };
    for (const Case& c : cases)
    {
        WriteWhole(path, c.bytes);
        struct stat before;
        ASSERT_EQ(stat(path.c_str(), &before), 0);
        // The inspection sees a fault too.
        ProgramCachedLibrary::Inspection inspection;
        ProgramCachedLibrary::InspectBytes(reinterpret_cast<const uint8*>(c.bytes.data()), c.bytes.size(), inspection);
        EXPECT_FALSE(inspection.Problems.IsEmpty()) << c.what;

        LogCapture log;
        Reopen(path);
        ProgramCachedLibrary* lib = ProgramCachedLibrary::Ins();
        EXPECT_EQ(lib->GetCount(), 0u) << c.what;
        EXPECT_EQ(CountDamaged(*log.proxy), 1u) << c.what;
        struct stat now;
        ASSERT_EQ(stat(path.c_str(), &now), 0);
        EXPECT_EQ(now.st_size, 0) << c.what;
        EXPECT_NE(now.st_ino, before.st_ino) << c.what << ": not replaced by a new file";
        // The new file takes programs again.
        ASSERT_NE(CacheStrings(MakeKey("[P];", "C@c#1", "", ""), sa), nullptr) << c.what;
        Reopen(path);
        EXPECT_EQ(ProgramCachedLibrary::Ins()->GetCount(), 1u) << c.what;
    }
    // Every fault is reported, not just the first.
    std::string twoFaults = put(put(good, 0, 0x00005853u), recs + 32 + 24, 0x40u);
    ProgramCachedLibrary::Inspection both;
    ProgramCachedLibrary::InspectBytes(reinterpret_cast<const uint8*>(twoFaults.data()), twoFaults.size(), both);
    ASSERT_EQ(both.Problems.Count(), 2u);
    EXPECT_NE(both.Problems[0].IndexOf("stage tag"), kNotFound);
    EXPECT_NE(both.Problems[1].IndexOf("stage mask"), kNotFound);
    // The sound file itself has no problem and is not replaced.
    ProgramCachedLibrary::Inspection inspection;
    ProgramCachedLibrary::InspectBytes(reinterpret_cast<const uint8*>(good.data()), good.size(), inspection);
    EXPECT_TRUE(inspection.Problems.IsEmpty());
    ASSERT_EQ(inspection.Records.Count(), 2u);
    EXPECT_EQ(inspection.Records[0].Framework, AString("A@a#1"));
    EXPECT_EQ(inspection.Records[0].MacroString, AString("[P];"));
    ASSERT_EQ(inspection.Records[0].StageSizes.Count(), 2u);
    EXPECT_EQ(inspection.Records[0].StageSizes[1], 8u);
}

TEST_F(ShaderCacheFile, LoadHeaderTakesASoundStreamAndRefusesOthers)
{
    auto a = MakeKey("[P];", "A@a#1", "", "");
    std::string sa[6] = {FakeCode(1, 2), FakeCode(2, 2), "", "", "", ""};
    ASSERT_NE(CacheStrings(a, sa), nullptr);
    const std::string good = ReadWhole(path);
    ProgramCachedLibrary* lib = ProgramCachedLibrary::Ins();
    std::string other = dir.path + "/other";
    WriteWhole(other, good);
    {
        Ptr<FileStream> in(new FileStream(StringConvFuncs::ToWString(other.c_str())));
        ASSERT_TRUE(in->Open());
        EXPECT_TRUE(lib->LoadHeader(*in));
        EXPECT_NE(lib->Find(a), nullptr);
    }
    WriteWhole(other, good.substr(0, good.size() - 3));
    {
        Ptr<FileStream> in(new FileStream(StringConvFuncs::ToWString(other.c_str())));
        ASSERT_TRUE(in->Open());
        EXPECT_FALSE(lib->LoadHeader(*in));
        EXPECT_EQ(lib->Find(a), nullptr);
    }
}

// --- Programs ----------------------------------------------------------------

namespace {

class ShaderCachePrograms : public ::testing::Test
{
protected:
    void SetUp() override
    {
        path = dir.path + "/shader.cache";
        Reopen(path);
        static int serial = 0;
        suffix = std::to_string(++serial);
        root = g_kovexRootPath;
        fw = new PGFramework(W("Fw" + suffix), root + u"Shaders/Fw.ksl", "float4 VS() {}");
        ab = new PGAttribute(W("Ab" + suffix), root + u"Shaders/Ab.ksl", "struct A {};");
        mt = new PGMaterial(W("Mt" + suffix), root + u"Shaders/Mt.ksl", "float4 Colour;");
        fwConf = fw->CreateConfig(u"DEFAULT");
        abConf = ab->CreateConfig(u"DEFAULT");
        mtConf = mt->CreateConfig(u"DEFAULT");
    }
    void TearDown() override { ProgramCachedLibrary::Destroy(); }

    static WString W(const std::string& s) { return StringConvFuncs::ToWString(s.c_str()); }

    // A compiled program as the compiler leaves it: code per stage.
    Ptr<Program> Compiled(const std::vector<ShaderType>& stages, unsigned seed)
    {
        Ptr<Program> p(new Program(fwConf, abConf, mtConf));
        for (ShaderType type : stages)
            p->SetShader(type, MakeShader(type, seed + unsigned(type)));
        return p;
    }
    static Ptr<Shader> MakeShader(ShaderType type, unsigned seed)
    {
        std::string code = FakeCode(seed, 3 + seed % 5);
        void* bytes = malloc(code.size());
        memcpy(bytes, code.data(), code.size());
        return ShaderFactory::Get()->CreateShader(type, bytes, uint32(code.size()));
    }
    static std::string CodeOf(BaseProgram* p, ShaderType type)
    {
        Shader* s = p->GetShader(type);
        return s ? std::string(static_cast<const char*>(s->GetShaderCode()), s->GetShaderCodeSize()) : std::string();
    }

    NullEngine engine;
    TempDir dir;
    std::string path, suffix;
    WString root;
    Ptr<PGFramework> fw;
    Ptr<PGAttribute> ab;
    Ptr<PGMaterial> mt;
    PGConfFW* fwConf = nullptr;
    PGConfAB* abConf = nullptr;
    PGConfMT* mtConf = nullptr;
};

} // namespace

TEST_F(ShaderCachePrograms, ASecondRunFindsAProgramWithAGeometryStage)
{
    fwConf->SetUsesGeometryStage(true);
    Ptr<Program> first = Compiled({ShaderType::Vertex, ShaderType::Pixel, ShaderType::Geometry}, 10);
    const ProgramCachedLibrary::Record* r = ProgramCachedLibrary::Ins()->Cache(first.Get(), 0x1234);
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->StageMask, 0x7u);

    Reopen(path);
    Ptr<Program> second(new Program(fwConf, abConf, mtConf));
    ASSERT_TRUE(ProgramCachedLibrary::Ins()->LoadFromCache(second.Get(), 0x1234));
    for (ShaderType type : {ShaderType::Vertex, ShaderType::Pixel, ShaderType::Geometry})
        EXPECT_EQ(CodeOf(second.Get(), type), CodeOf(first.Get(), type));
    EXPECT_EQ(second->GetShader(ShaderType::Hull), nullptr);

    // The key texts as a tool shows them: name, template path, hash.
    ProgramCachedLibrary::Inspection inspection;
    ASSERT_TRUE(ProgramCachedLibrary::InspectFile(StringConvFuncs::ToWString(path.c_str()), inspection));
    ASSERT_EQ(inspection.Records.Count(), 1u);
    EXPECT_EQ(inspection.Records[0].Framework, AString("DEFAULT@Shaders/Fw.ksl#0000000000001234"));
    EXPECT_EQ(inspection.Records[0].MacroString.IndexOf("[PLATFORM=1];"), 0u);
}

TEST_F(ShaderCachePrograms, AMissWhenTheStagesOrTheUnitDiffer)
{
    Ptr<Program> first = Compiled({ShaderType::Vertex, ShaderType::Pixel}, 20);
    ASSERT_NE(ProgramCachedLibrary::Ins()->Cache(first.Get(), 7), nullptr);
    Reopen(path);
    Ptr<Program> other(new Program(fwConf, abConf, mtConf));
    // Another unit text (an edited include, other macros): another key.
    EXPECT_FALSE(ProgramCachedLibrary::Ins()->LoadFromCache(other.Get(), 8));
    // The framework now says it has a geometry stage: the record's two
    // stages are not what the program expects.
    fwConf->SetUsesGeometryStage(true);
    EXPECT_FALSE(ProgramCachedLibrary::Ins()->LoadFromCache(other.Get(), 7));
    EXPECT_EQ(other->GetShader(ShaderType::Vertex), nullptr);
    fwConf->SetUsesGeometryStage(false);
    EXPECT_TRUE(ProgramCachedLibrary::Ins()->LoadFromCache(other.Get(), 7));
    // An edited attribute or material template is another key text.
    ab->SetCode("struct A { float x; };");
    Ptr<Program> edited(new Program(fwConf, abConf, mtConf));
    EXPECT_FALSE(ProgramCachedLibrary::Ins()->LoadFromCache(edited.Get(), 7));
    AString before = ProgramCachedLibrary::MakeConfigText(mtConf, 1);
    mt->SetCode("float4 Colour; float4 Tint;");
    EXPECT_EQ(ProgramCachedLibrary::MakeConfigText(mtConf, 1), before) << "the hash is the caller's";
    ProgramCachedLibrary::Key k1, k2;
    ASSERT_TRUE(ProgramCachedLibrary::Ins()->GetKey(k1, edited.Get(), 7));
    mt->SetCode("float4 Colour;");
    ASSERT_TRUE(ProgramCachedLibrary::Ins()->GetKey(k2, edited.Get(), 7));
    EXPECT_NE(k1.Words[2], k2.Words[2]);
    EXPECT_EQ(k1.Words[0], k2.Words[0]);
}

TEST_F(ShaderCachePrograms, RefusesWhatCannotBeCached)
{
    ProgramCachedLibrary* lib = ProgramCachedLibrary::Ins();
    EXPECT_EQ(lib->Cache(nullptr, 1), nullptr);
    Ptr<Program> failed = Compiled({ShaderType::Vertex, ShaderType::Pixel}, 30);
    failed->SetState(GraphicsObject::Failed);
    EXPECT_EQ(lib->Cache(failed.Get(), 1), nullptr);
    EXPECT_EQ(lib->Cache(Compiled({ShaderType::Vertex}, 31).Get(), 1), nullptr);
    EXPECT_EQ(lib->Cache(Compiled({ShaderType::Pixel, ShaderType::Geometry}, 32).Get(), 1), nullptr);
    EXPECT_EQ(lib->GetCount(), 0u);

    // A loose template outside the root keys by its path as given.
    Ptr<PGFramework> outside(new PGFramework(W("Outside" + suffix), dir.W("Outside.ksl"), "x"));
    EXPECT_EQ(ProgramCachedLibrary::MakeConfigText(outside->CreateConfig(u"DEFAULT"), 0xAB),
              AString(("DEFAULT@" + dir.path + "/Outside.ksl#00000000000000ab").c_str()));
    // A template with no path has no key text.
    Ptr<PGFramework> loose(new PGFramework(W("Loose" + suffix), WString(), "x"));
    Ptr<Program> p(new Program(loose->CreateConfig(u"DEFAULT"), nullptr, nullptr));
    p->SetShader(ShaderType::Vertex, MakeShader(ShaderType::Vertex, 1));
    p->SetShader(ShaderType::Pixel, MakeShader(ShaderType::Pixel, 2));
    LogCapture log;
    EXPECT_EQ(lib->Cache(p.Get(), 1), nullptr);
    EXPECT_TRUE(log->Contains(u"Shader cache: configuration DEFAULT has no template path to key it by.\n"));
}

TEST_F(ShaderCachePrograms, ComputeProgramsAreKeyedByTheirOneConfiguration)
{
    Ptr<ComputeProgram> cp(new ComputeProgram(fwConf));
    cp->SetShader(ShaderType::Compute, MakeShader(ShaderType::Compute, 40));
    const ProgramCachedLibrary::Record* r = ProgramCachedLibrary::Ins()->Cache(cp.Get(), 99);
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->StageMask, 1u << 5);
    EXPECT_EQ(r->ProgramKey.Words[0], 0u);
    EXPECT_EQ(r->ProgramKey.Words[2], 0u);
    EXPECT_NE(r->ProgramKey.Words[1], 0u);
    Reopen(path);
    Ptr<ComputeProgram> again(new ComputeProgram(fwConf));
    ASSERT_TRUE(ProgramCachedLibrary::Ins()->LoadFromCache(again.Get(), 99));
    EXPECT_EQ(CodeOf(again.Get(), ShaderType::Compute), CodeOf(cp.Get(), ShaderType::Compute));
}

TEST_F(ShaderCachePrograms, DevicesLiveSideBySide)
{
    HWCapability* capability = Renderer::Get()->GetHWCapability().Get();
    Ptr<Program> p1 = Compiled({ShaderType::Vertex, ShaderType::Pixel}, 50);
    ASSERT_NE(ProgramCachedLibrary::Ins()->Cache(p1.Get(), 5), nullptr);
    capability->MakeMacro("KOVEX_TEST_DEVICE", "2");
    Ptr<Program> probe(new Program(fwConf, abConf, mtConf));
    EXPECT_FALSE(ProgramCachedLibrary::Ins()->LoadFromCache(probe.Get(), 5));
    Ptr<Program> p2 = Compiled({ShaderType::Vertex, ShaderType::Pixel}, 60);
    ASSERT_NE(ProgramCachedLibrary::Ins()->Cache(p2.Get(), 5), nullptr);
    Reopen(path);
    EXPECT_EQ(ProgramCachedLibrary::Ins()->GetCount(), 2u);
    Ptr<Program> on2(new Program(fwConf, abConf, mtConf));
    ASSERT_TRUE(ProgramCachedLibrary::Ins()->LoadFromCache(on2.Get(), 5));
    EXPECT_EQ(CodeOf(on2.Get(), ShaderType::Vertex), CodeOf(p2.Get(), ShaderType::Vertex));
    capability->UnmakeMacro("KOVEX_TEST_DEVICE");
    Ptr<Program> on1(new Program(fwConf, abConf, mtConf));
    ASSERT_TRUE(ProgramCachedLibrary::Ins()->LoadFromCache(on1.Get(), 5));
    EXPECT_EQ(CodeOf(on1.Get(), ShaderType::Vertex), CodeOf(p1.Get(), ShaderType::Vertex));
}

// Byte code the compiler made, read back on a later run, reflects and links
// as the compiled program did.
TEST_F(ShaderCachePrograms, CompiledByteCodeReflectsAndLinksAfterLoading)
{
    ProgramCompiler* compiler = ProgramCompiler::Get();
    ASSERT_NE(compiler, nullptr);
    Ptr<PGFramework> cfw(new PGFramework(W("CacheFw" + suffix), u"fw/Cached.ksl", AString(R"(
cbuffer PerFrame : register(b0) { float4x4 ViewProj; };
#include "Attribute"
#include "Material"
struct VOut { float4 pos : SV_Position; float2 uv : TEXCOORD0; };
VOut VS(VIn i) { VOut o; o.pos = mul(float4(i.position, 1), ViewProj); o.uv = i.uv; return o; }
float4 PS(VOut i) : SV_Target { return float4(Surface(i.uv), 1); }
[maxvertexcount(3)]
void GS(triangle VOut input[3], inout TriangleStream<VOut> output)
{
    for (int v = 0; v < 3; ++v)
        output.Append(input[v]);
}
)")));
    Ptr<PGAttribute> cab(new PGAttribute(W("CacheAb" + suffix), u"ab/Cached.ksl",
                                         "struct VIn { float3 position : POSITION; float2 uv : TEXCOORD0; };\n"));
    Ptr<PGMaterial> cmt(new PGMaterial(W("CacheMt" + suffix), u"mt/Cached.ksl", AString(R"(
Texture2D kovex_t_Diffuse : register(t0);
SamplerState kovex_s_Diffuse : register(s0);
float4 Tint = float4(1, 0, 0, 1);
float3 Surface(float2 uv) { return kovex_t_Diffuse.Sample(kovex_s_Diffuse, uv).rgb * Tint.rgb; }
)")));
    PGConfFW* f = cfw->CreateConfig(u"DEFAULT");
    PGConfAB* a = cab->CreateConfig(u"DEFAULT");
    PGConfMT* m = cmt->CreateConfig(u"DEFAULT");
    f->SetUsesGeometryStage(true);
    Ptr<Program> compiled = ProgramManager::Ins()->BuildProgram(f, a, m);
    ASSERT_TRUE(compiled && compiled->IsCreated());
    ASSERT_NE(compiled->GetShader(ShaderType::Geometry), nullptr);
    const ProgramCachedLibrary::Record* r = ProgramCachedLibrary::Ins()->Cache(compiled.Get(), 0x77);
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->StageMask, 0x7u);

    Reopen(path);
    Ptr<Program> loaded(new Program(f, a, m));
    ASSERT_TRUE(ProgramCachedLibrary::Ins()->LoadFromCache(loaded.Get(), 0x77));
    for (ShaderType type : {ShaderType::Vertex, ShaderType::Pixel, ShaderType::Geometry})
        EXPECT_EQ(CodeOf(loaded.Get(), type), CodeOf(compiled.Get(), type));
    ASSERT_TRUE(compiler->ReflectShaders(loaded.Get()));
    ASSERT_TRUE(compiler->Link(loaded.Get()));
    EXPECT_EQ(loaded->GetShader(ShaderType::Vertex)->GetReflection().Inputs.size(),
              compiled->GetShader(ShaderType::Vertex)->GetReflection().Inputs.size());
    EXPECT_NE(loaded->FindConstant(u"ViewProj"), nullptr);
    EXPECT_NE(loaded->FindConstant(u"Tint"), nullptr);
    EXPECT_NE(loaded->FindTexture(u"Diffuse"), nullptr);
}
