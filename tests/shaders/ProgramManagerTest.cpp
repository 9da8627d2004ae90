// The code tables, loading codes and includes, and the way from three
// configurations to a compiled program.

#include <gtest/gtest.h>

#include "graphics/GraphicsThread.h"
#include "io/StreamManager.h"
#include "shaders/PGCode.h"
#include "shaders/Program.h"
#include "shaders/ProgramManager.h"
#include "shaders/ShaderTestSupport.h"
#include "support/LogCapture.h"
#include "support/NullEngine.h"
#include "support/TempDir.h"

using namespace KovexEngine;

TEST(ProgramManager, CodesAreNamedAndRegisteredOncePerName)
{
    KovexTest::LogCapture log;
    ProgramManager* manager = ProgramManager::Ins();
    const unsigned before = manager->GetNumCodes(PGCode::Attribute);
    {
        Ptr<PGAttribute> a(new PGAttribute(u"", u"", "a"));
        Ptr<PGAttribute> b(new PGAttribute(u"", u"", "b"));
        // "%d_%d": type number, then the type's running counter.
        ASSERT_TRUE(a->GetName().StartsWith(u"1_"));
        ASSERT_TRUE(b->GetName().StartsWith(u"1_"));
        EXPECT_EQ(b->GetName().SubString(2).AsInt(), a->GetName().SubString(2).AsInt() + 1);
        EXPECT_TRUE(a->IsRegistered());
        EXPECT_EQ(manager->FindCode(PGCode::Attribute, a->GetName()), a.Get());
        EXPECT_EQ(manager->FindCode(PGCode::Material, a->GetName()), nullptr);
        EXPECT_EQ(manager->GetNumCodes(PGCode::Attribute), before + 2);

        // A taken name: logged, not replaced, the newcomer unregistered.
        Ptr<PGAttribute> named(new PGAttribute(u"ManagerTest.Skin", u"", "x"));
        Ptr<PGAttribute> twin(new PGAttribute(u"ManagerTest.Skin", u"", "y"));
        EXPECT_TRUE(log->Contains(u"Attribute [ManagerTest.Skin] already exists.\n"));
        EXPECT_FALSE(twin->IsRegistered());
        EXPECT_EQ(manager->FindCode(PGCode::Attribute, u"ManagerTest.Skin"), named.Get());
        // The same name in another table is no conflict.
        Ptr<PGMaterial> material(new PGMaterial(u"ManagerTest.Skin", u"", "z"));
        EXPECT_TRUE(material->IsRegistered());

        // Removing: once, then the log line; a twin never takes the place of
        // the registered code.
        EXPECT_FALSE(manager->RemoveCode(twin.Get()));
        EXPECT_TRUE(log->Contains(u"Can't find template Attribute [ManagerTest.Skin] !"));
        EXPECT_EQ(manager->FindCode(PGCode::Attribute, u"ManagerTest.Skin"), named.Get());
        EXPECT_TRUE(manager->RemoveCode(named.Get()));
        EXPECT_EQ(manager->FindCode(PGCode::Attribute, u"ManagerTest.Skin"), nullptr);
        EXPECT_FALSE(named->IsRegistered());
    }
    // Destroyed codes leave their table.
    EXPECT_EQ(manager->GetNumCodes(PGCode::Attribute), before);
    EXPECT_EQ(manager->FindCode(PGCode::Material, u"ManagerTest.Skin"), nullptr);
}

TEST(ProgramManager, LoadCodeReadsAFileOnceAndLogsFailures)
{
    KovexTest::LogCapture log;
    KovexTest::TempDir dir;
    dir.Write("fw.ksl", "void VS() {}\nvoid PS() {}\n");
    dir.Write("empty.ksl", "");
    ProgramManager* manager = ProgramManager::Ins();

    Ptr<PGFramework> fw = manager->LoadFramework(dir.W("fw.ksl"));
    ASSERT_TRUE(fw);
    EXPECT_EQ(fw->GetCode(), AString("void VS() {}\nvoid PS() {}\n"));
    EXPECT_EQ(fw->GetPath(), dir.W("fw.ksl"));
    // The default configuration exists at once.
    ASSERT_NE(fw->GetCurConf(), nullptr);
    EXPECT_EQ(fw->GetCurConf()->GetName(), SSTR_CFG_DEFAULT());
    // A second load of the path answers the same code.
    EXPECT_EQ(manager->LoadFramework(dir.W("fw.ksl")).Get(), fw.Get());
    EXPECT_EQ(manager->FindCode(PGCode::Framework, dir.W("fw.ksl")), fw.Get());

    EXPECT_FALSE(manager->LoadMaterial(dir.W("missing.ksl")));
    EXPECT_TRUE(log->Contains((u"Load " + dir.W("missing.ksl") + u" Failed.\n")()));
    EXPECT_FALSE(manager->LoadAttribute(dir.W("empty.ksl")));
    EXPECT_TRUE(log->Contains((u"Load " + dir.W("empty.ksl") + u" Failed.\n")()));
}

TEST(ProgramManager, IncludesAreCachedWithoutCommentsAndMissingOnesLoggedOnce)
{
    KovexTest::LogCapture log;
    KovexTest::TempDir dir;
    dir.Write("common.ksl", "float4 Tint; // the tint\n/* block */float Scale;\n");
    ProgramManager* manager = ProgramManager::Ins();

    const AString* text = manager->OpenInclude(dir.W("common.ksl"));
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(text->IndexOf("the tint"), kNotFound);
    EXPECT_EQ(text->IndexOf("block"), kNotFound);
    EXPECT_NE(text->IndexOf("float4 Tint;"), kNotFound);
    EXPECT_NE(text->IndexOf("float Scale;"), kNotFound);
    // Cached: a changed file is not read again.
    dir.Write("common.ksl", "changed");
    EXPECT_EQ(manager->OpenInclude(dir.W("common.ksl")), text);

    const WString missing = dir.W("nothere.ksl");
    const WString line = u"Open Shader include [" + missing + u"] failed.\n";
    EXPECT_EQ(manager->OpenInclude(missing), nullptr);
    EXPECT_EQ(manager->OpenInclude(missing), nullptr);
    unsigned reported = 0;
    for (const auto& entry : log->entries)
        if (entry.text == line)
        {
            ++reported;
            EXPECT_EQ(entry.level, 3u);
        }
    EXPECT_EQ(reported, 1u);

    manager->ClearIncludes();
    text = manager->OpenInclude(dir.W("common.ksl"));
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(*text, AString("changed"));
    manager->ClearIncludes();
}

// --- From configurations to programs -----------------------------------------------------

namespace {

struct Codes
{
    Ptr<PGFramework> fw{new PGFramework(u"", u"", "void VS() {}")};
    Ptr<PGAttribute> ab{new PGAttribute(u"", u"", "struct VSInput {};")};
    Ptr<PGMaterial> mt{new PGMaterial(u"", u"", "float4 Surface() { return 1; }")};
    PGConfFW* fwConf = fw->CreateConfig(u"DEFAULT");
    PGConfAB* abConf = ab->CreateConfig(u"DEFAULT");
    PGConfMT* mtConf = mt->CreateConfig(u"DEFAULT");
};

} // namespace

TEST(ProgramLookup, NoCompilerNoFrameworkNoProgram)
{
    Codes codes;
    ProgramManager* manager = ProgramManager::Ins();
    // No renderer, so no compiler: nothing is built, and nothing is kept, so
    // the combination compiles once a compiler exists.
    ASSERT_EQ(ProgramCompiler::Get(), nullptr);
    EXPECT_FALSE(manager->BuildProgram(codes.fwConf, codes.abConf, codes.mtConf));
    EXPECT_EQ(codes.fwConf->GetProgram(codes.abConf, codes.mtConf), nullptr);
    EXPECT_EQ(codes.fw->GetNumPrograms(), 0u);
    {
        KovexTest::CountingCompiler compiler;
        Ptr<Program> program(codes.fwConf->GetProgram(codes.abConf, codes.mtConf));
        EXPECT_TRUE(program);
        EXPECT_EQ(compiler.compiles.load(), 1);
        codes.fw->RemovePGMaterial(codes.mt.Get());
        // Whatever was posted for the graphics side runs before the compiler goes.
        GraphicsThread::Ins()->ProcessMTCommandList();
        EXPECT_FALSE(program->IsFailed());
    }
    EXPECT_FALSE(manager->BuildProgram(nullptr, codes.abConf, codes.mtConf));
    // A configuration that belongs to no code.
    Ptr<PGConfFW> orphan(new PGConfFW());
    KovexTest::CountingCompiler compiler;
    EXPECT_FALSE(manager->BuildProgram(orphan.Get(), nullptr, nullptr));
    EXPECT_EQ(orphan->GetProgram(nullptr, nullptr), nullptr);
    // Another framework's configuration is not this framework's.
    Codes other;
    EXPECT_EQ(codes.fw->GetProgram(other.fwConf, nullptr, nullptr), nullptr);
    EXPECT_EQ(compiler.compiles.load(), 0);
}

TEST(ProgramLookup, EachCombinationCompilesOnceFailedOrNot)
{
    KovexTest::NullEngine engine;
    KovexTest::CountingCompiler compiler;
    Codes codes;

    Program* program = codes.fwConf->GetProgram(codes.abConf, codes.mtConf);
    ASSERT_NE(program, nullptr);
    EXPECT_FALSE(program->IsFailed());
    EXPECT_EQ(program->GetConfFW(), codes.fwConf);
    EXPECT_EQ(program->GetConfAB(), codes.abConf);
    EXPECT_EQ(program->GetConfMT(), codes.mtConf);
    EXPECT_EQ(codes.fwConf->GetProgram(codes.abConf, codes.mtConf), program);
    EXPECT_EQ(codes.fw->GetProgram(codes.abConf, codes.mtConf), program);
    EXPECT_EQ(compiler.compiles.load(), 1);

    // Every other combination is a program of its own.
    PGConfMT* second = codes.mt->CreateConfig(u"DEFAULT[Additive]");
    Program* withoutMaterial = codes.fwConf->GetProgram(codes.abConf, nullptr);
    Program* withoutBoth = codes.fw->GetProgram();
    Program* otherMaterial = codes.fwConf->GetProgram(codes.abConf, second);
    Program* noAttribute = codes.fwConf->GetProgram(nullptr, codes.mtConf);
    Program* all[] = {program, withoutMaterial, withoutBoth, otherMaterial, noAttribute};
    for (unsigned i = 0; i < 5; ++i)
        for (unsigned j = i + 1; j < 5; ++j)
            EXPECT_NE(all[i], all[j]) << i << " " << j;
    EXPECT_EQ(compiler.compiles.load(), 5);
    EXPECT_EQ(codes.fw->GetNumPrograms(), 5u);

    // A failed compile is kept and never retried.
    compiler.fail = true;
    PGConfFW* broken = codes.fw->CreateConfig(u"BROKEN");
    Program* failed = broken->GetProgram(codes.abConf, codes.mtConf);
    ASSERT_NE(failed, nullptr);
    EXPECT_TRUE(failed->IsFailed());
    compiler.fail = false;
    EXPECT_EQ(broken->GetProgram(codes.abConf, codes.mtConf), failed);
    EXPECT_TRUE(failed->IsFailed());
    EXPECT_EQ(compiler.compiles.load(), 6);
}

TEST(ProgramLookup, RemovingAMaterialDropsOnlyItsPrograms)
{
    KovexTest::NullEngine engine;
    KovexTest::CountingCompiler compiler;
    Codes codes;
    Ptr<PGMaterial> otherMaterial(new PGMaterial(u"", u"", "float4 Surface() { return 0; }"));
    PGConfMT* otherConf = otherMaterial->CreateConfig(u"DEFAULT");

    Ptr<Program> kept(codes.fwConf->GetProgram(codes.abConf, otherConf));
    Ptr<Program> dropped(codes.fwConf->GetProgram(codes.abConf, codes.mtConf));
    Ptr<Program> plain(codes.fwConf->GetProgram(codes.abConf, nullptr));
    EXPECT_EQ(codes.fw->GetNumPrograms(), 3u);

    codes.fw->RemovePGMaterial(codes.mt.Get());
    EXPECT_EQ(codes.fw->GetNumPrograms(), 2u);
    // The map no longer holds it: our reference is the last.
    EXPECT_EQ(dropped->GetRefCount(), 1);
    EXPECT_EQ(codes.fwConf->GetProgram(codes.abConf, otherConf), kept.Get());
    EXPECT_EQ(codes.fwConf->GetProgram(codes.abConf, nullptr), plain.Get());
    EXPECT_EQ(compiler.compiles.load(), 3);
    // Asked again, the material's program is compiled anew.
    EXPECT_NE(codes.fwConf->GetProgram(codes.abConf, codes.mtConf), nullptr);
    EXPECT_EQ(compiler.compiles.load(), 4);
}

TEST(ProgramLookup, ComputeProgramsOncePerConfiguration)
{
    KovexTest::NullEngine engine;
    KovexTest::CountingCompiler compiler;
    Codes codes;
    ComputeProgram* program = codes.fwConf->GetComputeProgram();
    ASSERT_NE(program, nullptr);
    EXPECT_TRUE(program->IsCompute());
    EXPECT_EQ(program->GetConf(), codes.fwConf);
    EXPECT_EQ(codes.fw->GetComputeProgram(), program);
    EXPECT_EQ(compiler.computeCompiles.load(), 1);
    EXPECT_EQ(compiler.compiles.load(), 0);
    EXPECT_EQ(ProgramManager::Ins()->BuildComputeProgram(nullptr), nullptr);
}
