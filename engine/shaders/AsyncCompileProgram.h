#pragma once

// Compiling programs on a worker thread. A command carries a list of jobs;
// each job asks a framework for programs, which compiles what is missing and
// keeps it in the framework's maps. AfterProcess, on the main thread, marks
// the command done and calls its completion callback, for the render side to
// start using the programs.
//
// Threads: Process runs on the worker the command is posted to; AfterProcess
// on the main thread. GetProgram has no lock, so the poster must not let two
// commands, or a command and the render side, work on one framework at the
// same time; commands on different frameworks may run together. IsDone is
// safe from any thread.

#include <atomic>

#include "commands/CommandThread.h"
#include "kernel/Containers.h"

namespace KovexEngine {

class PGConfFW;
class PGConfAB;
class PGConfMT;

// One compile job.
class KOVEX_API AsyncCompileFW : public ReferenceObj
{
public:
    explicit AsyncCompileFW(const PGConfFW* fw) : m_fw(fw) {}
    ~AsyncCompileFW() override;
    const PGConfFW* GetConfFW() const { return m_fw; }
    // Compiles what the job names; the number of programs it got that are
    // not Failed.
    virtual unsigned Compile() = 0;

protected:
    const PGConfFW* m_fw;
};

// One fixed attribute and material configuration.
class KOVEX_API AsyncCompileFW_Handle : public AsyncCompileFW
{
public:
    AsyncCompileFW_Handle(const PGConfFW* fw, const PGConfAB* ab, const PGConfMT* mt)
        : AsyncCompileFW(fw), m_ab(ab), m_mt(mt)
    {
    }
    unsigned Compile() override;

private:
    const PGConfAB* m_ab;
    const PGConfMT* m_mt;
};

// The framework configuration's compute program.
class KOVEX_API AsyncCompileFW_Compute : public AsyncCompileFW
{
public:
    explicit AsyncCompileFW_Compute(const PGConfFW* fw) : AsyncCompileFW(fw) {}
    unsigned Compile() override;
};

// Runs its jobs in Process.
class KOVEX_API AsyncCompileProgramCommandBase : public ThreadCommand2
{
    KOVEX_CLASS(AsyncCompileProgramCommandBase)

public:
    AsyncCompileProgramCommandBase();
    ~AsyncCompileProgramCommandBase() override;
    // Before posting only.
    void AddJob(const Ptr<AsyncCompileFW>& job);
    unsigned GetNumJobs() const { return m_jobs.Count(); }
    void Process() override;
    // Programs compiled (not Failed) by the last Process.
    unsigned GetNumCompiled() const { return m_compiled.load(std::memory_order_acquire); }

private:
    TArray<Ptr<AsyncCompileFW>> m_jobs;
    std::atomic<unsigned> m_compiled{0};
};

class KOVEX_API AsyncCompileProgramCommand : public AsyncCompileProgramCommandBase
{
    KOVEX_CLASS(AsyncCompileProgramCommand)

public:
    using Callback = void (*)(AsyncCompileProgramCommand* command, void* user);

    // Called once, on the main thread, from AfterProcess.
    void SetCallback(Callback callback, void* user)
    {
        m_callback = callback;
        m_user = user;
    }
    bool AfterProcess() override;
    bool IsDone() const { return m_done.load(std::memory_order_acquire); }

private:
    Callback m_callback = nullptr;
    void* m_user = nullptr;
    std::atomic<bool> m_done{false};
};

} // namespace KovexEngine
