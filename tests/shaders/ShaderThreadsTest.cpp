// Bounded stress of the shader layer's threaded paths: compile commands on
// different frameworks at once, and concurrent include loads.

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "commands/CommandThread.h"
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

        // One worker per framework: the pipeline never lets two commands
        // work on one framework at once.
        std::vector<std::unique_ptr<FinalThread<CommandThread>>> workers;
        for (unsigned f = 0; f < kFrameworks; ++f)
        {
            workers.emplace_back(new FinalThread<CommandThread>());
            ASSERT_TRUE(workers[f]->MT_PostCommand(commands[f].Get()));
        }
        for (auto& worker : workers)
        {
            ASSERT_TRUE(worker->Init());
            worker->Signal();
        }
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        for (auto& command : commands)
            while (command->GetState() != ThreadCommand::STATE_AFTER_PROCESS &&
                   std::chrono::steady_clock::now() < deadline)
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
        for (auto& command : commands)
            ASSERT_EQ(command->GetState(), ThreadCommand::STATE_AFTER_PROCESS);
        EXPECT_EQ(finished.load(), 0) << "completion is reported on the main thread";
        for (auto& worker : workers)
            worker->ProcessATCommandList();
        EXPECT_EQ(finished.load(), int(kFrameworks));
        for (auto& worker : workers)
            worker->Term();
        // The programs' device creation was posted to the graphics side.
        GraphicsThread::Ins()->ProcessMTCommandList();

        const unsigned perFramework = kAttributes * (kMaterials + 1);
        EXPECT_EQ(compiler.compiles.load(), int(kFrameworks * perFramework));
        EXPECT_EQ(compiler.computeCompiles.load(), int(kFrameworks));
        for (unsigned f = 0; f < kFrameworks; ++f)
        {
            EXPECT_EQ(frameworks[f]->GetNumPrograms(), perFramework + 1);
            EXPECT_EQ(commands[f]->GetNumCompiled(), kRounds * perFramework + 1);
            EXPECT_TRUE(commands[f]->IsDone());
            EXPECT_EQ(commands[f]->GetState(), ThreadCommand::STATE_FINISHED);
            // The callback runs once, however often AfterProcess is called.
            EXPECT_TRUE(commands[f]->AfterProcess());
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
