// "shader.cache": programs cached in one run are found in the next, the
// file is what its layout says (read here by a reader of its own), a cut or
// damaged file is never misread, and compile workers share one file.

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <atomic>
#include <algorithm>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "graphics/HWCapability.h"
#include "graphics/Renderer.h"
#include "graphics/Shader.h"
#include "kernel/EngineGlobals.h"
#include "kernel/StringConv.h"
#include "shaders/PGCode.h"
#include "shaders/Program.h"
#include "shaders/ProgramCachedLibrary.h"
#include "shaders/ProgramCompiler.h"
#include "shaders/ProgramManager.h"
#include "support/LogCapture.h"
#include "support/NullEngine.h"
#include "support/TempDir.h"

using namespace KovexEngine;

namespace {

using Bytes = std::vector<uint8_t>;

Bytes ReadAll(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void WriteAll(const std::string& path, const Bytes& bytes)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc).write(reinterpret_cast<const char*>(bytes.data()),
                                                                   std::streamsize(bytes.size()));
}

// --- A reader of the file written from its layout alone -----------------------

uint32_t U32(const Bytes& b, size_t at)
{
    return uint32_t(b.at(at)) | uint32_t(b.at(at + 1)) << 8 | uint32_t(b.at(at + 2)) << 16 |
           uint32_t(b.at(at + 3)) << 24;
}

struct FileRecord
{
    uint32_t attribute, framework, material, macro, offset, size, mask, reserved;
    std::map<int, Bytes> stages; // by stage number
};

struct FileView
{
    uint32_t count = 0, tableOffset = 0;
    std::map<uint32_t, std::string> tables[4]; // id -> name
    std::vector<FileRecord> records;
};

// Throws (std::out_of_range) on anything outside the file; the tests expect
// it not to.
FileView ReadView(const Bytes& b)
{
    FileView v;
    size_t end = b.size();
    EXPECT_GE(end, 12u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&b.at(end - 12)), 4), "CCPC");
    v.count = U32(b, end - 8);
    v.tableOffset = U32(b, end - 4);
    size_t at = v.tableOffset;
    for (auto& table : v.tables)
    {
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(&b.at(at)), 4), "TCPC");
        uint32_t entries = U32(b, at + 4), blob = U32(b, at + 8);
        size_t start = at + 12;
        size_t entryStart = start + blob - size_t(entries) * 24;
        for (uint32_t e = 0; e < entries; ++e)
        {
            size_t p = entryStart + e * 24;
            EXPECT_EQ(U32(b, p), 0u);
            EXPECT_EQ(U32(b, p + 4), 0u);
            uint32_t id = U32(b, p + 8), offset = U32(b, p + 16), length = U32(b, p + 20);
            table[id] = std::string(reinterpret_cast<const char*>(&b.at(start + offset)), length);
        }
        at = start + blob;
    }
    EXPECT_EQ(at + size_t(v.count) * 32 + 12, end);
    static const char* tags[] = {"SV", "SP", "SG", "SH", "SD", "SC"};
    for (uint32_t r = 0; r < v.count; ++r, at += 32)
    {
        FileRecord rec{U32(b, at), U32(b, at + 4), U32(b, at + 8), U32(b, at + 12),
                       U32(b, at + 16), U32(b, at + 20), U32(b, at + 24), U32(b, at + 28), {}};
        size_t c = rec.offset;
        for (int s = 0; s < 6; ++s)
            if (rec.mask & (1u << s))
            {
                EXPECT_EQ(std::string(reinterpret_cast<const char*>(&b.at(c)), 2), tags[s]);
                EXPECT_EQ(b.at(c + 2), 0);
                EXPECT_EQ(b.at(c + 3), 0);
                uint32_t size = U32(b, c + 4);
                rec.stages[s] = Bytes(b.begin() + long(c + 8), b.begin() + long(c + 8 + size));
                c += 8 + size;
            }
        EXPECT_EQ(c, size_t(rec.offset) + rec.size);
        EXPECT_LE(c, v.tableOffset);
        v.records.push_back(std::move(rec));
    }
    return v;
}

// --- Programs ----------------------------------------------------------------------

// Stand-in byte code: whole words, different per program and stage.
Ptr<Shader> MakeShader(ShaderType type, uint32_t seed, uint32_t words)
{
    uint32_t* code = static_cast<uint32_t*>(std::malloc(words * 4));
    for (uint32_t i = 0; i < words; ++i)
        code[i] = seed * 2654435761u + i * 40503u + uint32_t(type.value);
    return ShaderFactory::Get()->CreateShader(type, code, words * 4);
}

Bytes CodeOf(const Shader* shader)
{
    const uint8_t* p = static_cast<const uint8_t*>(shader->GetShaderCode());
    return Bytes(p, p + shader->GetShaderCodeSize());
}

// One framework, attribute and material code; programs join their
// configurations by name.
struct Codes
{
    Ptr<PGFramework> fw;
    Ptr<PGAttribute> ab;
    Ptr<PGMaterial> mt;

    explicit Codes(const std::string& tag, const std::string& abText = "attribute", const std::string& mtText = "material")
    {
        WString t = StringConvFuncs::ToWString(tag.c_str());
        fw = new PGFramework(u"CacheTest.FW." + t, u"", "framework");
        ab = new PGAttribute(u"CacheTest.AB." + t, u"", AString(abText.c_str()));
        mt = new PGMaterial(u"CacheTest.MT." + t, u"", AString(mtText.c_str()));
        fw->ValidateDefault();
        ab->ValidateDefault();
        mt->ValidateDefault();
    }
    PGConfFW* FW(const WString& name = u"DEFAULT")
    {
        PGCodeConf* c = fw->GetConfig(name);
        return static_cast<PGConfFW*>(c ? c : fw->CreateConfig(name));
    }
    PGConfAB* AB() { return static_cast<PGConfAB*>(ab->GetCurConf()); }
    PGConfMT* MT() { return static_cast<PGConfMT*>(mt->GetCurConf()); }
};

Ptr<Program> MakeProgram(const PGConfFW* fw, const PGConfAB* ab, const PGConfMT* mt, uint32_t seed, bool geometry = false,
                         uint32_t words = 16)
{
    Ptr<Program> p(new Program(fw, ab, mt));
    p->SetShader(ShaderType::Vertex, MakeShader(ShaderType::Vertex, seed, words));
    p->SetShader(ShaderType::Pixel, MakeShader(ShaderType::Pixel, seed, words));
    if (geometry)
        p->SetShader(ShaderType::Geometry, MakeShader(ShaderType::Geometry, seed, words));
    return p;
}

class ProgramCacheFixture : public ::testing::Test
{
protected:
    KovexTest::NullEngine engine;
    KovexTest::TempDir dir;
    std::string file;

    void SetUp() override
    {
        file = dir.path + "/shader.cache";
        NewRun();
    }
    void TearDown() override { ProgramCachedLibrary::Destroy(); }
    // What a new start of the engine sees: the library read again.
    ProgramCachedLibrary* NewRun()
    {
        ProgramCachedLibrary::Destroy();
        ProgramCachedLibrary* library = ProgramCachedLibrary::Ins();
        library->SetFilePath(dir.W("shader.cache"));
        return library;
    }
    ProgramCachedLibrary* Lib() { return ProgramCachedLibrary::Ins(); }
};

using ProgramCache = ProgramCacheFixture;

} // namespace

TEST_F(ProgramCache, ProgramsCachedInOneRunLoadInTheNext)
{
    // The null renderer compiles to SPIR-V as Vulkan does, and caches.
    EXPECT_TRUE(Renderer::Get()->AllowCacheShaders());
    Codes codes("Runs");
    PGConfFW* plain = codes.FW();
    PGConfFW* withGS = codes.FW(u"GS");
    withGS->SetUsesGeometryStage(true);
    Ptr<Program> a = MakeProgram(plain, codes.AB(), codes.MT(), 1);
    Ptr<Program> b = MakeProgram(withGS, codes.AB(), nullptr, 2, true);
    Ptr<ComputeProgram> c(new ComputeProgram(codes.FW(u"CS")));
    c->SetShader(ShaderType::Compute, MakeShader(ShaderType::Compute, 3, 8));

    ASSERT_NE(Lib()->Cache(a.Get(), 0x11), nullptr);
    ASSERT_NE(Lib()->Cache(b.Get(), 0x22), nullptr);
    ASSERT_NE(Lib()->Cache(c.Get(), 0x33), nullptr);
    // A second Cache of a listed key answers the record already there.
    EXPECT_EQ(Lib()->Cache(a.Get(), 0x11), Lib()->Find(a.Get(), 0x11));
    EXPECT_EQ(Lib()->GetCount(), 3u);

    ProgramCachedLibrary* library = NewRun();
    EXPECT_EQ(library->GetCount(), 3u);
    Ptr<Program> a2(new Program(plain, codes.AB(), codes.MT()));
    Ptr<Program> b2(new Program(withGS, codes.AB(), nullptr));
    Ptr<ComputeProgram> c2(new ComputeProgram(codes.FW(u"CS")));
    ASSERT_TRUE(library->LoadFromCache(a2.Get(), 0x11));
    // A geometry stage that the framework's flag announces is found.
    ASSERT_TRUE(library->LoadFromCache(b2.Get(), 0x22));
    ASSERT_TRUE(library->LoadFromCache(c2.Get(), 0x33));
    // Ids go on from the largest read: three framework texts so far.
    ProgramCachedLibrary::Key next;
    Ptr<Program> unseen(new Program(codes.FW(u"Unseen"), nullptr, nullptr));
    ASSERT_TRUE(library->GetKey(next, unseen.Get(), 0x44));
    EXPECT_EQ(next.Framework(), 4u);
    for (int s : {0, 1})
        EXPECT_EQ(CodeOf(a2->GetShader(ShaderType(s))), CodeOf(a->GetShader(ShaderType(s))));
    for (int s : {0, 1, 2})
        EXPECT_EQ(CodeOf(b2->GetShader(ShaderType(s))), CodeOf(b->GetShader(ShaderType(s))));
    EXPECT_EQ(a2->GetShader(ShaderType::Geometry), nullptr);
    EXPECT_EQ(CodeOf(c2->GetShader(ShaderType::Compute)), CodeOf(c->GetShader(ShaderType::Compute)));
    EXPECT_EQ(b2->GetShader(ShaderType::Geometry)->GetType(), ShaderType::Geometry);

    // Misses: another unit hash; stages other than the framework announces.
    Ptr<Program> other(new Program(plain, codes.AB(), codes.MT()));
    EXPECT_FALSE(library->LoadFromCache(other.Get(), 0x12));
    withGS->SetUsesGeometryStage(false);
    EXPECT_FALSE(library->LoadFromCache(other.Get(), 0x22) && other->GetShader(ShaderType::Vertex));
    Ptr<Program> b3(new Program(withGS, codes.AB(), nullptr));
    EXPECT_FALSE(library->LoadFromCache(b3.Get(), 0x22));
    EXPECT_EQ(b3->GetShader(ShaderType::Vertex), nullptr);
}

TEST_F(ProgramCache, RefusesProgramsItCannotKeep)
{
    Codes codes("Refuse");
    EXPECT_EQ(Lib()->Cache(nullptr, 1), nullptr);
    EXPECT_FALSE(Lib()->LoadFromCache(nullptr, 1));
    Ptr<Program> failed = MakeProgram(codes.FW(), codes.AB(), codes.MT(), 1);
    failed->SetState(GraphicsObject::Failed);
    EXPECT_EQ(Lib()->Cache(failed.Get(), 1), nullptr);
    // Vertex and Pixel come first, or nothing is kept.
    Ptr<Program> noPixel(new Program(codes.FW(), codes.AB(), codes.MT()));
    noPixel->SetShader(ShaderType::Vertex, MakeShader(ShaderType::Vertex, 1, 4));
    noPixel->SetShader(ShaderType::Geometry, MakeShader(ShaderType::Geometry, 1, 4));
    KovexTest::LogCapture log;
    EXPECT_EQ(Lib()->Cache(noPixel.Get(), 1), nullptr);
    EXPECT_TRUE(log->Contains(u"Shader cache: a program without its first stages is not cached.\n"));
    Ptr<ComputeProgram> emptyCompute(new ComputeProgram(codes.FW(u"CS")));
    EXPECT_EQ(Lib()->Cache(emptyCompute.Get(), 1), nullptr);
    // A program without configurations has no key.
    Ptr<Program> bare(new Program());
    bare->SetShader(ShaderType::Vertex, MakeShader(ShaderType::Vertex, 1, 4));
    bare->SetShader(ShaderType::Pixel, MakeShader(ShaderType::Pixel, 1, 4));
    EXPECT_EQ(Lib()->Cache(bare.Get(), 1), nullptr);
    EXPECT_TRUE(log->Contains(u"Shader cache: a program without configurations has no key.\n"));
    EXPECT_EQ(Lib()->GetCount(), 0u);
}

TEST_F(ProgramCache, AnIndependentReaderFindsWhatWasWritten)
{
    Codes codes("Reader", "attribute text", "material text");
    Ptr<Program> a = MakeProgram(codes.FW(), codes.AB(), codes.MT(), 7, false, 5);
    Ptr<Program> b = MakeProgram(codes.FW(), nullptr, nullptr, 8, false, 9);
    ASSERT_NE(Lib()->Cache(a.Get(), 0xABCDEF0123456789ull), nullptr);
    ASSERT_NE(Lib()->Cache(b.Get(), 0x5ull), nullptr);

    FileView v = ReadView(ReadAll(file));
    ASSERT_EQ(v.count, 2u);
    // The device: platform first, then the capability macros.
    ASSERT_EQ(v.tables[0].size(), 1u);
    const std::string& macros = v.tables[0].begin()->second;
    EXPECT_EQ(macros.rfind("[PLATFORM=", 0), 0u) << macros;
    AString capability;
    Renderer::Get()->GetHWCapability()->GetMacroString(capability);
    EXPECT_NE(macros.find(capability()), std::string::npos);
    // Framework texts carry the unit hash; attribute and material their own.
    std::vector<std::string> fwNames;
    for (auto& [id, name] : v.tables[1])
        fwNames.push_back(name);
    EXPECT_NE(std::find(fwNames.begin(), fwNames.end(), "DEFAULT@#abcdef0123456789"), fwNames.end());
    EXPECT_NE(std::find(fwNames.begin(), fwNames.end(), "DEFAULT@#0000000000000005"), fwNames.end());
    ASSERT_EQ(v.tables[2].size(), 1u);
    ASSERT_EQ(v.tables[3].size(), 1u);
    EXPECT_EQ(v.tables[2].begin()->second.rfind("DEFAULT@#", 0), 0u);
    // Records in key order; b has neither attribute nor material.
    auto key = [](const FileRecord& r) { return std::vector<uint32_t>{r.attribute, r.framework, r.material, r.macro}; };
    EXPECT_LT(key(v.records[0]), key(v.records[1]));
    const FileRecord& rb = v.records[0];
    const FileRecord& ra = v.records[1];
    EXPECT_EQ(rb.attribute, 0u);
    EXPECT_EQ(rb.material, 0u);
    EXPECT_EQ(v.tables[1].at(ra.framework), "DEFAULT@#abcdef0123456789");
    EXPECT_EQ(ra.mask, 3u);
    EXPECT_EQ(ra.stages.at(0), CodeOf(a->GetShader(ShaderType::Vertex)));
    EXPECT_EQ(ra.stages.at(1), CodeOf(a->GetShader(ShaderType::Pixel)));
    EXPECT_EQ(rb.stages.at(1), CodeOf(b->GetShader(ShaderType::Pixel)));
    // Chunks from 0, one after the other.
    EXPECT_EQ(ra.offset, 0u);
    EXPECT_EQ(rb.offset, ra.size);

    // The lower-level calls a tool uses: ids of texts, stages by key.
    EXPECT_EQ(Lib()->GetNameId(1, "DEFAULT@#abcdef0123456789"), ra.framework);
    EXPECT_EQ(Lib()->GetNameId(4, "x"), 0u);
    const ProgramCachedLibrary::Record* found = Lib()->Find(a.Get(), 0xABCDEF0123456789ull);
    ASSERT_NE(found, nullptr);
    TArray<uint8> read[6];
    ASSERT_TRUE(Lib()->ReadStages(*found, read));
    EXPECT_EQ(Bytes(read[1].begin(), read[1].end()), ra.stages.at(1));
    EXPECT_TRUE(read[2].IsEmpty());
    ProgramCachedLibrary::Key byHand;
    byHand.Words[1] = Lib()->GetNameId(1, "Tool@#01");
    byHand.Words[3] = found->ProgramKey.MacroString();
    const uint32 words[2] = {0x07230203u, 7u};
    const void* stageCodes[6] = {words, words, nullptr, nullptr, nullptr, nullptr};
    const uint32 sizes[6] = {8, 8, 0, 0, 0, 0};
    const void* pixelOnly[6] = {nullptr, words, nullptr, nullptr, nullptr, nullptr};
    EXPECT_EQ(Lib()->CacheStages(byHand, pixelOnly, sizes), nullptr);
    ASSERT_NE(Lib()->CacheStages(byHand, stageCodes, sizes), nullptr);
    EXPECT_EQ(ReadView(ReadAll(file)).count, 3u);

    // The tool's inspection says the same and finds nothing wrong.
    ProgramCachedLibrary::Inspection in;
    ASSERT_TRUE(ProgramCachedLibrary::InspectFile(dir.W("shader.cache"), in));
    EXPECT_TRUE(in.Problems.IsEmpty());
    ASSERT_EQ(in.Records.Count(), 3u);
    // In key order: b, the one by hand (framework id 3), a.
    EXPECT_EQ(in.Records[1].Framework, AString("Tool@#01"));
    EXPECT_EQ(in.Records[2].Framework, AString("DEFAULT@#abcdef0123456789"));
    EXPECT_EQ(in.Records[2].MacroString, AString(macros.c_str()));
    ASSERT_EQ(in.Records[2].StageTags.Count(), 2u);
    EXPECT_EQ(in.Records[2].StageTags[1], AString("SP"));
    EXPECT_EQ(in.Records[2].StageSizes[0], 20u);
}

TEST_F(ProgramCache, ANewProgramOverwritesTheOldTablesAndAppendsThemBehindItsChunk)
{
    Codes codes("Append");
    Ptr<Program> first = MakeProgram(codes.FW(), codes.AB(), codes.MT(), 1);
    ASSERT_NE(Lib()->Cache(first.Get(), 1), nullptr);
    Bytes before = ReadAll(file);
    FileView v1 = ReadView(before);

    // A large program: its chunk lies where the tables stood.
    Ptr<Program> second = MakeProgram(codes.FW(u"Second"), codes.AB(), codes.MT(), 2, false, 400);
    const ProgramCachedLibrary::Record* rec = Lib()->Cache(second.Get(), 2);
    ASSERT_NE(rec, nullptr);
    EXPECT_EQ(rec->Offset, v1.tableOffset);
    Bytes after = ReadAll(file);
    FileView v2 = ReadView(after);
    EXPECT_EQ(v2.tableOffset, v1.tableOffset + rec->Size);
    EXPECT_NE(std::string(reinterpret_cast<const char*>(&after[v1.tableOffset]), 4), "TCPC");
    // What came before is untouched.
    EXPECT_TRUE(std::equal(before.begin(), before.begin() + v1.tableOffset, after.begin()));

    // A small one: its chunk starts where the tables stood, the tables go
    // behind the chunk and behind the file as it stood, so the old footer
    // is never the one cut.
    Ptr<Program> third = MakeProgram(codes.FW(u"Third"), codes.AB(), codes.MT(), 3, false, 1);
    rec = Lib()->Cache(third.Get(), 3);
    ASSERT_NE(rec, nullptr);
    EXPECT_EQ(rec->Offset, v2.tableOffset);
    FileView v3 = ReadView(ReadAll(file));
    EXPECT_GE(v3.tableOffset, rec->Offset + rec->Size);
    EXPECT_GE(v3.tableOffset, after.size());
    EXPECT_EQ(v3.count, 3u);
}

TEST_F(ProgramCache, DevicesLiveSideBySideAndTemplateEditsMiss)
{
    Codes codes("Devices");
    Ptr<Program> p = MakeProgram(codes.FW(), codes.AB(), codes.MT(), 1);
    ASSERT_NE(Lib()->Cache(p.Get(), 9), nullptr);
    HWCapability* capability = Renderer::Get()->GetHWCapability().Get();
    capability->MakeMacro("CACHE_TEST_DEVICE", "2");
    Ptr<Program> q = MakeProgram(codes.FW(), codes.AB(), codes.MT(), 2);
    Ptr<Program> probe(new Program(codes.FW(), codes.AB(), codes.MT()));
    EXPECT_FALSE(Lib()->LoadFromCache(probe.Get(), 9));
    ASSERT_NE(Lib()->Cache(q.Get(), 9), nullptr);
    EXPECT_EQ(Lib()->GetCount(), 2u);

    NewRun();
    Ptr<Program> onSecond(new Program(codes.FW(), codes.AB(), codes.MT()));
    ASSERT_TRUE(Lib()->LoadFromCache(onSecond.Get(), 9));
    EXPECT_EQ(CodeOf(onSecond->GetShader(ShaderType::Vertex)), CodeOf(q->GetShader(ShaderType::Vertex)));
    capability->UnmakeMacro("CACHE_TEST_DEVICE");
    Ptr<Program> onFirst(new Program(codes.FW(), codes.AB(), codes.MT()));
    ASSERT_TRUE(Lib()->LoadFromCache(onFirst.Get(), 9));
    EXPECT_EQ(CodeOf(onFirst->GetShader(ShaderType::Vertex)), CodeOf(p->GetShader(ShaderType::Vertex)));
    EXPECT_EQ(ReadView(ReadAll(file)).tables[0].size(), 2u);

    // An edited attribute or material text, or another unit, is another key.
    ProgramCachedLibrary::Key k1, k2, k3, k4;
    ASSERT_TRUE(Lib()->GetKey(k1, onFirst.Get(), 9));
    codes.ab->SetCode("attribute, edited");
    ASSERT_TRUE(Lib()->GetKey(k2, onFirst.Get(), 9));
    EXPECT_NE(k1.Attribute(), k2.Attribute());
    EXPECT_EQ(k1.Material(), k2.Material());
    codes.mt->SetCode("material, edited");
    ASSERT_TRUE(Lib()->GetKey(k3, onFirst.Get(), 9));
    EXPECT_NE(k2.Material(), k3.Material());
    ASSERT_TRUE(Lib()->GetKey(k4, onFirst.Get(), 10));
    EXPECT_NE(k3.Framework(), k4.Framework());
    EXPECT_EQ(k3.MacroString(), k4.MacroString());
    Ptr<Program> edited(new Program(codes.FW(), codes.AB(), codes.MT()));
    EXPECT_FALSE(Lib()->LoadFromCache(edited.Get(), 9));
    // The text itself.
    EXPECT_EQ(ProgramCachedLibrary::MakeConfigText(codes.FW(), 0x2a), AString("DEFAULT@#000000000000002a"));
    EXPECT_EQ(ProgramCachedLibrary::MakeConfigText(nullptr, 1), AString());
}

namespace {

// Opens the file as a new run and checks that every program it offers is
// exactly one that was cached; returns how many load.
int LoadableAfterReopen(const std::vector<std::pair<Ptr<Program>, uint64>>& programs,
                        ProgramCachedLibrary* library)
{
    int loaded = 0;
    for (const auto& [original, hash] : programs)
    {
        Ptr<Program> probe(new Program(original->GetConfFW(), original->GetConfAB(), original->GetConfMT()));
        if (!library->LoadFromCache(probe.Get(), hash))
            continue;
        ++loaded;
        for (int s : {0, 1})
            EXPECT_EQ(CodeOf(probe->GetShader(ShaderType(s))), CodeOf(original->GetShader(ShaderType(s))));
    }
    return loaded;
}

} // namespace

TEST_F(ProgramCache, AnAppendCutAtAnyPointLosesAtMostTheNewProgram)
{
    Codes codes("Cut");
    std::vector<std::pair<Ptr<Program>, uint64>> programs;
    for (uint32_t i = 0; i < 4; ++i)
    {
        programs.emplace_back(MakeProgram(codes.FW(WString(u"C") + WString(int(i))), codes.AB(), codes.MT(), i, false,
                                          i == 3 ? 3 : 24),
                              100 + i);
        if (i < 3)
            ASSERT_NE(Lib()->Cache(programs.back().first.Get(), 100 + i), nullptr);
    }
    Bytes old = ReadAll(file);
    ASSERT_NE(Lib()->Cache(programs.back().first.Get(), 103), nullptr);
    Bytes full = ReadAll(file);
    FileView v = ReadView(full);
    const FileRecord* added = nullptr;
    // The new chunk follows the last one.
    for (const FileRecord& r : v.records)
        if (!added || r.offset > added->offset)
            added = &r;
    ASSERT_NE(added, nullptr);

    // The writes in their order: tables and records, the footer, then the
    // chunk. Every state a crash can leave, byte by byte.
    std::vector<std::pair<size_t, uint8_t>> writes;
    for (size_t i = v.tableOffset; i < full.size(); ++i)
        writes.emplace_back(i, full[i]);
    for (size_t i = added->offset; i < size_t(added->offset) + added->size; ++i)
        writes.emplace_back(i, full[i]);
    KovexTest::LogCapture log;
    for (size_t k = 0; k <= writes.size(); k += (k < 40 || writes.size() - k < 40) ? 1 : 7)
    {
        Bytes state = old;
        for (size_t w = 0; w < k; ++w)
        {
            if (writes[w].first >= state.size())
                state.resize(writes[w].first + 1);
            state[writes[w].first] = writes[w].second;
        }
        if (k == writes.size())
            ASSERT_EQ(state, full);
        ProgramCachedLibrary::Destroy();
        WriteAll(file, state);
        ProgramCachedLibrary* library = NewRun();
        int loaded = LoadableAfterReopen(programs, library);
        EXPECT_GE(loaded, 3) << "crash after " << k << " of " << writes.size() << " bytes";
        if (k == writes.size())
            EXPECT_EQ(loaded, 4);
    }
    // A file cut short at any length is never misread (at worst it is
    // replaced) and caching goes on.
    for (size_t cut = 0; cut < full.size(); cut += 1 + full.size() / 300)
    {
        ProgramCachedLibrary::Destroy();
        WriteAll(file, Bytes(full.begin(), full.begin() + long(cut)));
        ProgramCachedLibrary* library = NewRun();
        LoadableAfterReopen(programs, library);
        EXPECT_NE(library->Cache(programs[0].first.Get(), 100), nullptr);
    }
}

TEST_F(ProgramCache, ADamagedFileIsReplacedWithOneLogLine)
{
    Codes codes("Damage");
    Ptr<Program> p = MakeProgram(codes.FW(), codes.AB(), codes.MT(), 1);
    ASSERT_NE(Lib()->Cache(p.Get(), 1), nullptr);
    ASSERT_NE(Lib()->Cache(MakeProgram(codes.FW(u"B"), codes.AB(), codes.MT(), 2).Get(), 2), nullptr);
    ProgramCachedLibrary::Destroy();
    const Bytes good = ReadAll(file);
    FileView v = ReadView(good);
    const size_t end = good.size();
    auto put = [](Bytes& b, size_t at, uint32_t value) {
        for (int i = 0; i < 4; ++i)
            b[at + i] = uint8_t(value >> (8 * i));
    };
    const size_t records = end - 12 - 64;
    struct Case
    {
        const char* what;
        std::function<void(Bytes&)> damage;
    };
    std::vector<Case> cases = {
        {"foreign bytes", [](Bytes& b) { b.assign(300, 'x'); }},
        {"shorter than a footer", [](Bytes& b) { b.assign(5, 0); }},
        {"footer tag", [&](Bytes& b) { b[end - 12] = 'X'; }},
        {"absurd count", [&](Bytes& b) { put(b, end - 8, 0xFFFFFFFFu); }},
        {"tables past the footer", [&](Bytes& b) { put(b, end - 4, uint32_t(end)); }},
        {"table tag", [&](Bytes& b) { b[v.tableOffset] = 'Z'; }},
        {"table blob past the file", [&](Bytes& b) { put(b, v.tableOffset + 8, 0x7FFFFFF0u); }},
        {"table entry count beyond its blob", [&](Bytes& b) { put(b, v.tableOffset + 4, 0x10000000u); }},
        {"chunk past the tables", [&](Bytes& b) { put(b, records + 20, v.tableOffset + 100); }},
        {"chunks overlap", [&](Bytes& b) { put(b, records + 32 + 16, 4); }},
        {"records out of order", [&](Bytes& b) { std::swap_ranges(b.begin() + long(records), b.begin() + long(records) + 32, b.begin() + long(records) + 32); }},
        {"stage mask", [&](Bytes& b) { put(b, records + 24, 0x40); }},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(c.what);
        Bytes bad = good;
        c.damage(bad);
        WriteAll(file, bad);
        KovexTest::LogCapture log;
        ProgramCachedLibrary* library = NewRun();
        EXPECT_EQ(library->GetCount(), 0u);
        unsigned lines = 0;
        for (const auto& e : log->entries)
            if (e.text.StartsWith(u"Shader cache ") && e.text.IndexOf(u" is damaged (") != kNotFound)
                ++lines;
        EXPECT_EQ(lines, 1u);
        EXPECT_EQ(log->entries.Count(), 1u);
        // Replaced whole: an empty file, which takes programs again.
        EXPECT_EQ(std::filesystem::file_size(file), 0u);
        EXPECT_FALSE(std::filesystem::exists(file + ".new"));
        ASSERT_NE(library->Cache(p.Get(), 1), nullptr);
        ProgramCachedLibrary::Destroy();
    }
    // The inspection reports a forged file's faults without a library.
    Bytes forged = good;
    put(forged, records + 24, 0x40);
    put(forged, records + 32 + 16, 4);
    ProgramCachedLibrary::Inspection in;
    ProgramCachedLibrary::InspectBytes(forged.data(), forged.size(), in);
    EXPECT_GE(in.Problems.Count(), 2u);
}

TEST_F(ProgramCache, ADamagedChunkMissesAndIsWrittenAgain)
{
    Codes codes("Chunk");
    Ptr<Program> p = MakeProgram(codes.FW(), codes.AB(), codes.MT(), 1);
    ASSERT_NE(Lib()->Cache(p.Get(), 1), nullptr);
    ProgramCachedLibrary::Destroy();
    Bytes b = ReadAll(file);
    b[12] ^= 0x5A; // inside the vertex stage's code
    WriteAll(file, b);
    KovexTest::LogCapture log;
    NewRun();
    Ptr<Program> probe(new Program(codes.FW(), codes.AB(), codes.MT()));
    EXPECT_FALSE(Lib()->LoadFromCache(probe.Get(), 1));
    EXPECT_TRUE(log->Contains(u"Shader cache: the entry at 0 is damaged (its bytes do not match their hash); the "
                              u"program compiles.\n"));
    EXPECT_EQ(probe->GetShader(ShaderType::Vertex), nullptr);
    ASSERT_NE(Lib()->Cache(p.Get(), 1), nullptr);
    NewRun();
    ASSERT_TRUE(Lib()->LoadFromCache(probe.Get(), 1));
    EXPECT_EQ(CodeOf(probe->GetShader(ShaderType::Vertex)), CodeOf(p->GetShader(ShaderType::Vertex)));
}

TEST(ProgramCacheThreads, WorkersCacheAndLoadIntoOneFile)
{
    KovexTest::NullEngine engine;
    KovexTest::TempDir dir;
    ProgramCachedLibrary::Destroy();
    ProgramCachedLibrary::Ins()->SetFilePath(dir.W("shader.cache"));
    constexpr int kThreads = 4, kPerThread = 12;
    Codes codes("Threads");
    std::vector<PGConfFW*> confs;
    for (int i = 0; i < kThreads * kPerThread; ++i)
        confs.push_back(codes.FW(WString(u"T") + WString(i)));
    std::vector<Ptr<Program>> programs;
    for (int i = 0; i < kThreads * kPerThread; ++i)
        programs.push_back(MakeProgram(confs[i], codes.AB(), codes.MT(), uint32_t(i), false, 4 + i % 7));
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int i = t * kPerThread; i < (t + 1) * kPerThread; ++i)
            {
                ProgramCachedLibrary* library = ProgramCachedLibrary::Ins();
                if (!library->Cache(programs[i].Get(), uint64(i)))
                    failures.fetch_add(1);
                Ptr<Program> probe(new Program(confs[i], codes.AB(), codes.MT()));
                if (!library->LoadFromCache(probe.Get(), uint64(i)) ||
                    CodeOf(probe->GetShader(ShaderType::Pixel)) != CodeOf(programs[i]->GetShader(ShaderType::Pixel)))
                    failures.fetch_add(1);
                // Another worker's program, maybe not there yet: must not matter.
                Ptr<Program> other(new Program(confs[(i + kPerThread) % confs.size()], codes.AB(), codes.MT()));
                library->LoadFromCache(other.Get(), uint64((i + kPerThread) % confs.size()));
            }
        });
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(failures.load(), 0);

    ProgramCachedLibrary::Destroy();
    ProgramCachedLibrary* library = ProgramCachedLibrary::Ins();
    library->SetFilePath(dir.W("shader.cache"));
    EXPECT_EQ(library->GetCount(), unsigned(kThreads * kPerThread));
    for (size_t i = 0; i < programs.size(); ++i)
    {
        Ptr<Program> probe(new Program(confs[i], codes.AB(), codes.MT()));
        ASSERT_TRUE(library->LoadFromCache(probe.Get(), uint64(i))) << i;
        EXPECT_EQ(CodeOf(probe->GetShader(ShaderType::Vertex)), CodeOf(programs[i]->GetShader(ShaderType::Vertex)));
    }
    ProgramCachedLibrary::Inspection in;
    ASSERT_TRUE(ProgramCachedLibrary::InspectFile(dir.W("shader.cache"), in));
    EXPECT_TRUE(in.Problems.IsEmpty());
    ProgramCachedLibrary::Destroy();
}

TEST_F(ProgramCache, ManySmallProgramsKeepTheFileCompact)
{
    // Small chunks leave the old tables behind as dead bytes; the file is
    // written anew before they outweigh the live ones.
    Codes codes("Compact");
    constexpr int kPrograms = 160;
    std::vector<Ptr<Program>> programs;
    uint64 chunkBytes = 0;
    for (int i = 0; i < kPrograms; ++i)
    {
        programs.push_back(MakeProgram(codes.FW(WString(u"Small.Configuration.") + WString(i)), codes.AB(), codes.MT(),
                                       uint32_t(i), false, 1));
        const ProgramCachedLibrary::Record* rec = Lib()->Cache(programs.back().Get(), uint64(i));
        ASSERT_NE(rec, nullptr);
        chunkBytes += rec->Size;
    }
    Bytes bytes = ReadAll(file);
    FileView v = ReadView(bytes);
    const uint64 tail = bytes.size() - v.tableOffset;
    const uint64 live = chunkBytes + tail;
    // Without compaction the dead tables alone come to the sum of every
    // earlier tail, about kPrograms / 2 times the last one.
    EXPECT_GT(tail * kPrograms / 2, uint64(256u << 10) + live);
    EXPECT_LE(bytes.size(), 2 * live + (256u << 10));
    NewRun();
    for (int i = 0; i < kPrograms; ++i)
    {
        Ptr<Program> probe(new Program(programs[i]->GetConfFW(), codes.AB(), codes.MT()));
        ASSERT_TRUE(Lib()->LoadFromCache(probe.Get(), uint64(i))) << i;
        EXPECT_EQ(CodeOf(probe->GetShader(ShaderType::Pixel)), CodeOf(programs[i]->GetShader(ShaderType::Pixel)));
    }
    EXPECT_FALSE(std::filesystem::exists(file + ".new"));
}

namespace {

const char* kCachedFramework = R"(#include "Attribute"
#include "Material"
struct VOut { float4 pos : SV_Position; };
VOut VS(VIn i) { VOut o; o.pos = float4(i.position * Scale, 1); return o; }
float4 PS(VOut i) : SV_Target { return Colour(); }
#ifdef WITH_GS
[maxvertexcount(3)]
void GS(triangle VOut input[3], inout TriangleStream<VOut> output)
{
    for (int v = 0; v < 3; ++v)
        output.Append(input[v]);
}
#endif
)";

} // namespace

// Through the compiler: the first run with the cache switch compiles and
// writes, the second with the load switch compiles nothing and gets the
// same byte code, geometry stage included; an edited material compiles
// again.
TEST(ProgramCacheCompile, ASecondRunCompilesNothing)
{
    KovexTest::TempDir dir;
    std::map<int, Bytes> firstCode;
    auto run = [&](bool write, bool load, const char* material, uint64& compiles, std::map<int, Bytes>& code) {
        KovexTest::NullEngine engine;
        ProgramCachedLibrary::Ins()->SetFilePath(dir.W("shader.cache"));
        g_kovexCacheShaders = write;
        g_kovexLoadShadersFromCache = load;
        ProgramCompiler* compiler = ProgramCompiler::Get();
        ASSERT_NE(compiler, nullptr);
        const uint64 before = compiler->GetCompileCount();
        {
            Ptr<PGFramework> fw(new PGFramework(u"CacheE2E.FW", u"", AString(kCachedFramework)));
            Ptr<PGAttribute> ab(new PGAttribute(u"CacheE2E.AB", u"",
                                                "struct VIn { float3 position : POSITION; };\nfloat Scale = 2;\n"));
            Ptr<PGMaterial> mt(new PGMaterial(u"CacheE2E.MT", u"", AString(material)));
            PGConfFW* conf = static_cast<PGConfFW*>(fw->CreateConfig(u"DEFAULT"));
            conf->SetMacro("WITH_GS", "1");
            conf->SetUsesGeometryStage(true);
            Ptr<Program> p = ProgramManager::Ins()->BuildProgram(conf, static_cast<PGConfAB*>(ab->CreateConfig(u"DEFAULT")),
                                                                static_cast<PGConfMT*>(mt->CreateConfig(u"DEFAULT")));
            ASSERT_TRUE(p && !p->IsFailed());
            for (int s : {0, 1, 2})
            {
                ASSERT_NE(p->GetShader(ShaderType(s)), nullptr) << s;
                code[s] = CodeOf(p->GetShader(ShaderType(s)));
            }
            // Reflection comes back from cached byte code too.
            EXPECT_NE(p->FindConstant(u"Scale"), nullptr);
        }
        compiles = compiler->GetCompileCount() - before;
        g_kovexCacheShaders = false;
        g_kovexLoadShadersFromCache = false;
        ProgramCachedLibrary::Destroy();
    };
    const char* red = "float4 Colour() { return float4(1, 0, 0, 1); }\n";
    uint64 first = 0, second = 0, edited = 0;
    std::map<int, Bytes> secondCode, editedCode;
    run(true, false, red, first, firstCode);
    EXPECT_EQ(first, 1u);
    run(false, true, red, second, secondCode);
    EXPECT_EQ(second, 0u);
    EXPECT_EQ(secondCode, firstCode);
    run(true, true, "float4 Colour() { return float4(0, 1, 0, 1); }\n", edited, editedCode);
    EXPECT_EQ(edited, 1u);
    EXPECT_NE(editedCode[1], firstCode[1]);
}
