// Bounded stress of the shader layer's threaded paths: compile commands on
// different frameworks at once, and concurrent include loads.

#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "graphics/GraphicsThread.h"
#include "shaders/AsyncCompileProgram.h"
#include "shaders/PGCode.h"
#include "shaders/Program.h"
#include "shaders/ProgramManager.h"
#include "shaders/ShaderTestSupport.h"
#include "support/NullEngine.h"
#include "support/TempDir.h"

using namespace KovexEngine;

namespace {

constexpr unsigned kFrameworks = 4;
constexpr unsigned kAttributes = 3;
constexpr unsigned kMaterials = 3;
constexpr unsigned kRounds = 3;

void Done(AsyncCompileProgramCommand*, void* user) { static_cast<std::atomic<int>*>(user)->fetch_add(1); }

} // namespace

TEST(ProgramThreads, CompileCommandsOnDifferentFrameworksRunTogether)
{
    KovexTest::NullEngine engine;
    KovexTest::CountingCompiler compiler;
    {
        Ptr<PGAttribute> attribute(new PGAttribute(u"", u"", "struct VSInput {};"));
        Ptr<PGMaterial> material(new PGMaterial(u"", u"", "float4 Surface() { return 1; }"));
        std::vector<PGConfAB*> abs;
        std::vector<PGConfMT*> mts;
        for (unsigned i = 0; i < kAttributes; ++i)
            abs.push_back(attribute->CreateConfig(WString(u"AB") + WString(int(i))));
        for (unsigned i = 0; i < kMaterials; ++i)
            mts.push_back(material->CreateConfig(WString(u"MT") + WString(int(i))));

        std::vector<Ptr<PGFramework>> frameworks;
        std::vector<Ptr<AsyncCompileProgramCommand>> commands;
        std::atomic<int> finished{0};
        for (unsigned f = 0; f < kFrameworks; ++f)
        {
            Ptr<PGFramework> fw(new PGFramework(u"", u"", "void VS() {}"));
            PGConfFW* conf = fw->CreateConfig(u"DEFAULT");
            Ptr<AsyncCompileProgramCommand> command(new AsyncCompileProgramCommand());
            // Every pair, several times over: later rounds must find the
            // programs of the first.
            for (unsigned round = 0; round < kRounds; ++round)
                for (PGConfAB* ab : abs)
                {
                    command->AddJob(Ptr<AsyncCompileFW>(new AsyncCompileFW_Handle(conf, ab, nullptr)));
                    for (PGConfMT* mt : mts)
                        command->AddJob(Ptr<AsyncCompileFW>(new AsyncCompileFW_Handle(conf, ab, mt)));
                }
            command->AddJob(Ptr<AsyncCompileFW>(new AsyncCompileFW_Compute(conf)));
            command->SetCallback(&Done, &finished);
            frameworks.push_back(fw);
            commands.push_back(command);
        }

        std::vector<std::thread> workers;
        for (unsigned f = 0; f < kFrameworks; ++f)
            workers.emplace_back([&commands, f] { commands[f]->Process(); });
        for (std::thread& worker : workers)
            worker.join();
        // The programs' device creation was posted to the graphics side.
        GraphicsThread::Ins()->ProcessMTCommandList();

        const unsigned perFramework = kAttributes * (kMaterials + 1);
        EXPECT_EQ(compiler.compiles.load(), int(kFrameworks * perFramework));
        EXPECT_EQ(compiler.computeCompiles.load(), int(kFrameworks));
        for (unsigned f = 0; f < kFrameworks; ++f)
        {
            EXPECT_EQ(frameworks[f]->GetNumPrograms(), perFramework + 1);
            EXPECT_EQ(commands[f]->GetNumCompiled(), kRounds * perFramework + 1);
            EXPECT_FALSE(commands[f]->IsDone());
            EXPECT_TRUE(commands[f]->AfterProcess());
            EXPECT_TRUE(commands[f]->IsDone());
            // Once only, however often the render side asks.
            commands[f]->AfterProcess();
            Program* program = frameworks[f]->GetConfig(u"DEFAULT")->GetProgram(abs[0], mts[0]);
            ASSERT_NE(program, nullptr);
            EXPECT_TRUE(program->IsCreated());
        }
        EXPECT_EQ(finished.load(), int(kFrameworks));
    }
}

TEST(ProgramThreads, ConcurrentIncludeLoadsAgreeOnOneText)
{
    KovexTest::TempDir dir;
    constexpr unsigned kFiles = 6;
    constexpr unsigned kThreads = 4;
    for (unsigned i = 0; i < kFiles; ++i)
        dir.Write("inc" + std::to_string(i) + ".ksl", "float A" + std::to_string(i) + "; // note\n");
    ProgramManager* manager = ProgramManager::Ins();
    manager->ClearIncludes();

    std::vector<std::vector<const AString*>> seen(kThreads, std::vector<const AString*>(kFiles + 1));
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (unsigned round = 0; round < 20; ++round)
                for (unsigned i = 0; i <= kFiles; ++i)
                {
                    // The last one is missing: a null text, cached too.
                    const AString* text = manager->OpenInclude(dir.W("inc" + std::to_string(i) + ".ksl"));
                    if (round == 0)
                        seen[t][i] = text;
                    else if (seen[t][i] != text)
                        seen[t][i] = reinterpret_cast<const AString*>(1);
                }
        });
    for (std::thread& thread : threads)
        thread.join();
    for (unsigned i = 0; i < kFiles; ++i)
    {
        ASSERT_NE(seen[0][i], nullptr);
        for (unsigned t = 0; t < kThreads; ++t)
            EXPECT_EQ(seen[t][i], seen[0][i]) << t << " " << i;
        EXPECT_TRUE(seen[0][i]->StartsWith((AString("float A") + AString(std::to_string(i).c_str()) + ";")()));
        EXPECT_EQ(seen[0][i]->IndexOf("note"), kNotFound);
    }
    for (unsigned t = 0; t < kThreads; ++t)
        EXPECT_EQ(seen[t][kFiles], nullptr);
    manager->ClearIncludes();
}
