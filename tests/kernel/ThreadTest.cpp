#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "commands/CommandThread.h"
#include "lifecycle/Engine.h"

using namespace KovexEngine;
using namespace std::chrono_literals;

namespace {

std::string ThreadName(uint32 tid)
{
    std::ifstream in("/proc/self/task/" + std::to_string(tid) + "/comm");
    std::string name;
    std::getline(in, name);
    return name;
}

// Waits (boundedly) for a condition another thread makes true.
template <typename F>
bool Eventually(F&& condition)
{
    for (int i = 0; i < 5000; ++i)
    {
        if (condition())
            return true;
        std::this_thread::sleep_for(1ms);
    }
    return condition();
}

struct Counting : Thread
{
    std::atomic<int> procedures{0};
    std::atomic<int> inits{0};
    std::atomic<int> terms{0};
    void Procedure() override { ++procedures; }
    void OnInit() override { ++inits; }
    void OnTerm() override { ++terms; }
};
using CountingThread = FinalThread<Counting>;

// Records where and in which state it ran.
struct Probe : ThreadCommand2
{
    std::atomic<int> stateDuringProcess{-1};
    std::atomic<uint32> processThread{0};
    std::atomic<int> afterCalls{0};
    int failuresBeforeDone = 0;
    void Process() override
    {
        stateDuringProcess = GetState();
        processThread = Kovex_GetCurrentThreadId();
    }
    bool AfterProcess() override { return ++afterCalls > failuresBeforeDone; }
};

struct Plain : ThreadCommand
{
    std::atomic<int> runs{0};
    void Process() override { ++runs; }
};

// A worker whose commands run only when the test says so.
using ManualThread = FinalThread<CommandThread>;

struct Recorder : UpdateCommand
{
    std::atomic<uint32> ranOn{0};
    std::atomic<int> runs{0};
    void Process() override
    {
        ranOn = Kovex_GetCurrentThreadId();
        ++runs;
    }
};

struct Blocker : UpdateCommand
{
    std::atomic<bool> release{false};
    std::atomic<bool> started{false};
    void Process() override
    {
        started = true;
        while (!release)
            std::this_thread::yield();
    }
};

} // namespace

TEST(Threads, InterlockedMutexAndSemaphore)
{
    int volatile value = 5;
    EXPECT_EQ(Interlocked::Increment(value), 6);
    EXPECT_EQ(Interlocked::Decrement(value), 5);
    EXPECT_EQ(Interlocked::Add(value, 10), 5);
    EXPECT_EQ(Interlocked::Exchange(value, 1), 15);
    EXPECT_EQ(value, 1);

    Mutex mutex;
    mutex.Lock();
    EXPECT_TRUE(mutex.TryLock()) << "the mutex is recursive";
    mutex.Unlock();
    mutex.Unlock();

    Semaphore semaphore(1);
    EXPECT_TRUE(semaphore.Wait());
    EXPECT_FALSE(semaphore.Wait(10u)) << "times out when nothing is released";
    std::thread releaser([&] { semaphore.Release(); });
    EXPECT_TRUE(semaphore.Wait());
    releaser.join();

    int counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 10000; ++i)
            {
                MutexLock lock(mutex);
                ++counter;
            }
        });
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(counter, 40000);
}

TEST(Threads, ThreadRunsOnSignalAndStopsCooperatively)
{
    CountingThread thread;
    EXPECT_FALSE(thread.IsCreated());
    ASSERT_TRUE(thread.Init());
    EXPECT_TRUE(thread.IsCreated());
    EXPECT_EQ(thread.inits.load(), 1);
    EXPECT_NE(thread.GetThreadID(), 0u);
    EXPECT_NE(thread.GetThreadID(), Kovex_GetCurrentThreadId());
    EXPECT_FALSE(thread.IsCurrentThread());
    thread.SetName(AString("a very long thread name"));
    EXPECT_EQ(ThreadName(thread.GetThreadID()), "a very long thr") << "cut to 15 characters";
    ThreadBase::SetName(thread.GetThreadID(), AString("renamed"));
    EXPECT_EQ(ThreadName(thread.GetThreadID()), "renamed");
    thread.Signal();
    thread.Signal();
    EXPECT_TRUE(Eventually([&] { return thread.procedures.load() == 2; }));
    EXPECT_TRUE(thread.Init()) << "a running thread is not started twice";
    thread.Term();
    EXPECT_EQ(thread.terms.load(), 1);
    EXPECT_FALSE(thread.IsCreated());
    EXPECT_EQ(thread.GetThreadID(), 0u);
    thread.Term();
    EXPECT_EQ(thread.terms.load(), 1) << "a stopped thread is not stopped again";

    // A stopped thread starts again and serves signals as before, rather than
    // leaving at once on the exit request of its last stop.
    ASSERT_TRUE(thread.Init());
    const int before = thread.procedures.load();
    thread.Signal();
    EXPECT_TRUE(Eventually([&] { return thread.procedures.load() >= before + 1; }));
    EXPECT_TRUE(thread.IsCreated());
    thread.Term();
    EXPECT_EQ(thread.terms.load(), 2);
}

TEST(CommandThread, SecondHalfRunsOnTheMainThreadAfterProcess)
{
    ManualThread worker;
    Ptr<Probe> probe(new Probe());
    EXPECT_EQ(probe->GetState(), ThreadCommand::STATE_FINISHED) << "a new command is finished";
    ASSERT_TRUE(worker.MT_PostCommand(probe.Get()));
    EXPECT_EQ(probe->GetState(), ThreadCommand::STATE_PENDING);
    EXPECT_EQ(probe->GetOwner(), &worker);
    EXPECT_EQ(worker.MT_GetCommandCount(), 1u);
    EXPECT_FALSE(worker.MT_PostCommand(probe.Get())) << "a queued command cannot be queued twice";

    ASSERT_TRUE(worker.Init());
    worker.Signal();
    ASSERT_TRUE(Eventually([&] { return probe->GetState() == ThreadCommand::STATE_AFTER_PROCESS; }));
    EXPECT_EQ(probe->stateDuringProcess.load(), int(ThreadCommand::STATE_PROCESSING));
    EXPECT_EQ(probe->processThread.load(), worker.GetThreadID());
    EXPECT_EQ(probe->afterCalls.load(), 0) << "AfterProcess waits for the main thread";
    EXPECT_EQ(worker.AT_GetCommandCount(), 1u);

    worker.ProcessATCommandList();
    EXPECT_EQ(probe->afterCalls.load(), 1);
    EXPECT_EQ(probe->GetState(), ThreadCommand::STATE_FINISHED);
    EXPECT_EQ(probe->GetRefCount(), 1) << "the lists let go of it";
    worker.Term();
}

TEST(CommandThread, AfterProcessRetriesOncePerPass)
{
    ManualThread worker;
    Ptr<Probe> probe(new Probe());
    probe->failuresBeforeDone = 2;
    worker.MT_PostCommand(probe.Get());
    worker.ProcessMTCommandList(); // inline: the worker thread was never started
    EXPECT_EQ(probe->GetState(), ThreadCommand::STATE_AFTER_PROCESS);
    worker.ProcessATCommandList();
    EXPECT_EQ(probe->afterCalls.load(), 1) << "not called again within the same pass";
    EXPECT_EQ(probe->GetState(), ThreadCommand::STATE_AFTER_PROCESS);
    worker.ProcessATCommandList();
    EXPECT_EQ(probe->afterCalls.load(), 2);
    worker.ProcessATCommandList();
    EXPECT_EQ(probe->afterCalls.load(), 3);
    EXPECT_EQ(probe->GetState(), ThreadCommand::STATE_FINISHED);
    worker.ProcessATCommandList();
    EXPECT_EQ(probe->afterCalls.load(), 3);
}

TEST(CommandThread, PlainCommandsFinishAndKeepTheirOrder)
{
    ManualThread worker;
    std::vector<int> order;
    struct Ordered : ThreadCommand
    {
        Ordered(std::vector<int>* o, int n) : order(o), n(n) {}
        void Process() override { order->push_back(n); }
        std::vector<int>* order;
        int n;
    };
    std::vector<Ptr<Ordered>> commands;
    for (int i = 0; i < 5; ++i)
    {
        commands.push_back(Ptr<Ordered>(new Ordered(&order, i)));
        worker.MT_PostCommand(commands.back().Get());
    }
    worker.ProcessMTCommandSingle();
    EXPECT_EQ(order, (std::vector<int>{0}));
    EXPECT_EQ(commands[0]->GetState(), ThreadCommand::STATE_FINISHED);
    EXPECT_EQ(commands[1]->GetState(), ThreadCommand::STATE_PENDING);
    worker.ProcessMTCommandList();
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));
    for (auto& c : commands)
        EXPECT_EQ(c->GetState(), ThreadCommand::STATE_FINISHED);
    EXPECT_EQ(worker.AT_GetCommandCount(), 0u);
}

TEST(CommandThread, CancelTakesOnlyPendingCommands)
{
    ManualThread worker;
    Ptr<Plain> a(new Plain()), b(new Plain());
    EXPECT_FALSE(a->Cancel()) << "not in any list";
    worker.MT_PostCommand(a.Get());
    worker.MT_PostCommand(b.Get());
    EXPECT_TRUE(a->Cancel());
    EXPECT_EQ(a->GetOwner(), nullptr);
    EXPECT_EQ(a->GetState(), ThreadCommand::STATE_PENDING) << "a cancelled command keeps its state";
    EXPECT_FALSE(a->Cancel());
    EXPECT_EQ(worker.MT_GetCommandCount(), 1u);
    worker.ProcessMTCommandList();
    EXPECT_EQ(a->runs.load(), 0);
    EXPECT_EQ(b->runs.load(), 1);
    EXPECT_EQ(a->GetRefCount(), 1);

    // Once processing has begun, a command cannot be cancelled.
    struct SelfCancel : ThreadCommand
    {
        bool result = true;
        void Process() override { result = Cancel(); }
    };
    Ptr<SelfCancel> self(new SelfCancel());
    worker.MT_PostCommand(self.Get());
    worker.ProcessMTCommandList();
    EXPECT_FALSE(self->result);
}

TEST(UpdateThreadPool, WithoutThreadsEverythingRunsInline)
{
    UpdateThreadPool* pool = UpdateThreadPool::Ins();
    ASSERT_EQ(pool->GetThreadCount(), 0u);
    Ptr<Recorder> command(new Recorder());
    command->Submit();
    EXPECT_EQ(command->GetState(), ThreadCommand::STATE_FINISHED);
    EXPECT_EQ(command->ranOn.load(), Kovex_GetCurrentThreadId());
    pool->Submit(Ptr<UpdateCommand>());
    UpdateThreadPool::Destroy();
}

TEST(UpdateThreadPool, RoundRobinOverTheCallerAndTheThreads)
{
    UpdateThreadPool* pool = UpdateThreadPool::Ins();
    ASSERT_TRUE(pool->Init(2));
    ASSERT_EQ(pool->GetThreadCount(), 2u);
    EXPECT_EQ(ThreadName(pool->GetThread(0)->GetThreadID()), "Update Thread #");
    std::vector<Ptr<Recorder>> commands;
    for (int i = 0; i < 4; ++i)
    {
        commands.push_back(Ptr<Recorder>(new Recorder()));
        commands.back()->Submit();
    }
    // Let the workers take theirs: Wait would run a still-pending one here.
    for (auto& c : commands)
        ASSERT_TRUE(Eventually([&] { return c->GetState() == ThreadCommand::STATE_FINISHED; }));
    uint32 self = Kovex_GetCurrentThreadId();
    EXPECT_EQ(commands[0]->ranOn.load(), self);
    EXPECT_EQ(commands[1]->ranOn.load(), pool->GetThread(0)->GetThreadID());
    EXPECT_EQ(commands[2]->ranOn.load(), pool->GetThread(1)->GetThreadID());
    EXPECT_EQ(commands[3]->ranOn.load(), self);
    for (auto& c : commands)
    {
        EXPECT_EQ(c->GetState(), ThreadCommand::STATE_FINISHED);
        EXPECT_EQ(c->runs.load(), 1);
    }
    pool->Tick();
    UpdateThreadPool::Destroy();
}

TEST(UpdateThreadPool, WaitRunsAPendingCommandOnTheCaller)
{
    UpdateThreadPool* pool = UpdateThreadPool::Ins();
    ASSERT_TRUE(pool->Init(1));
    auto* worker = static_cast<UpdateThread*>(pool->GetThread(0));
    // Keep the worker busy so the next command stays pending.
    Ptr<Blocker> blocker(new Blocker());
    blocker->Submit(worker);
    ASSERT_TRUE(Eventually([&] { return blocker->started.load(); }));
    Ptr<Recorder> pending(new Recorder());
    pending->Submit(worker);
    EXPECT_EQ(pending->GetState(), ThreadCommand::STATE_PENDING);
    pending->Wait();
    EXPECT_EQ(pending->ranOn.load(), Kovex_GetCurrentThreadId()) << "taken back and run here";
    EXPECT_EQ(pending->GetState(), ThreadCommand::STATE_FINISHED);
    blocker->release = true;
    blocker->Wait();
    EXPECT_EQ(blocker->GetState(), ThreadCommand::STATE_FINISHED);
    EXPECT_EQ(pending->runs.load(), 1);
    UpdateThreadPool::Destroy();
}

TEST(UpdateThreadPool, WaitOnACommandCancelledElsewhereReturnsWithoutRunningIt)
{
    UpdateThreadPool* pool = UpdateThreadPool::Ins();
    ASSERT_TRUE(pool->Init(1));
    auto* worker = static_cast<UpdateThread*>(pool->GetThread(0));
    Ptr<Blocker> blocker(new Blocker());
    blocker->Submit(worker);
    ASSERT_TRUE(Eventually([&] { return blocker->started.load(); }));
    Ptr<Recorder> cancelled(new Recorder());
    cancelled->Submit(worker);
    ASSERT_TRUE(cancelled->Cancel());
    std::thread waiter([&] { cancelled->Wait(); });
    // Wait must not spin on a command that nobody will run: give it time,
    // then, if it is still waiting, post the command again so the test ends.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    std::atomic<bool> done{false};
    std::thread watch([&] {
        waiter.join();
        done = true;
    });
    while (!done && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_TRUE(done.load()) << "Wait spun on a cancelled command";
    EXPECT_EQ(cancelled->runs.load(), 0) << "a cancelled command never runs";
    if (!done)
        cancelled->Submit(worker);
    blocker->release = true;
    watch.join();
    blocker->Wait();
    UpdateThreadPool::Destroy();
}

TEST(UpdateThreadPool, ManyCommandsFromTheMainThreadAllComplete)
{
    UpdateThreadPool* pool = UpdateThreadPool::Ins();
    ASSERT_TRUE(pool->Init(2));
    std::vector<Ptr<Recorder>> commands;
    for (int i = 0; i < 3000; ++i)
    {
        commands.push_back(Ptr<Recorder>(new Recorder()));
        commands.back()->Submit();
    }
    for (auto& c : commands)
        c->Wait();
    for (auto& c : commands)
        ASSERT_EQ(c->runs.load(), 1);
    UpdateThreadPool::Destroy();
}

// --- Several threads at once ---------------------------------------------------------------

TEST(UpdateThreadPool, SubmittingFromSeveralThreadsRunsEachCommandOnce)
{
    UpdateThreadPool* pool = UpdateThreadPool::Ins();
    ASSERT_TRUE(pool->Init(2));
    constexpr int kPerThread = 20000;
    std::vector<Ptr<Recorder>> submitted[2];
    auto submitter = [&](std::vector<Ptr<Recorder>>* mine) {
        mine->reserve(kPerThread);
        for (int i = 0; i < kPerThread; ++i)
        {
            mine->push_back(Ptr<Recorder>(new Recorder()));
            mine->back()->Submit();
        }
        for (auto& c : *mine)
            c->Wait();
    };
    std::thread a(submitter, &submitted[0]), b(submitter, &submitted[1]);
    a.join();
    b.join();
    int wrong = 0;
    for (auto& list : submitted)
        for (auto& c : list)
            wrong += c->runs.load() != 1 || c->GetState() != ThreadCommand::STATE_FINISHED;
    EXPECT_EQ(wrong, 0) << "every command ran exactly once before its Wait returned";
    UpdateThreadPool::Destroy();
}

TEST(CommandThread, WaitAndCancelRaceTheWorkerCleanly)
{
    UpdateThreadPool* pool = UpdateThreadPool::Ins();
    ASSERT_TRUE(pool->Init(1));
    auto* worker = static_cast<UpdateThread*>(pool->GetThread(0));
    // Submit then Wait: Wait cancels and runs whatever the worker has not
    // taken yet, while the worker takes commands from the same list.
    for (int i = 0; i < 5000; ++i)
    {
        Ptr<Recorder> command(new Recorder());
        command->Submit(worker);
        command->Wait();
        ASSERT_EQ(command->runs.load(), 1);
        EXPECT_EQ(command->GetOwner(), nullptr) << "a finished command has no owner";
    }
    UpdateThreadPool::Destroy();
}

TEST(CommandThread, ADroppedCommandForgetsItsThread)
{
    Ptr<Plain> finished(new Plain()), dropped(new Plain());
    {
        ManualThread worker;
        worker.MT_PostCommand(finished.Get());
        worker.ProcessMTCommandList();
        EXPECT_EQ(finished->GetOwner(), nullptr) << "out of the pending list, no owner";
        worker.MT_PostCommand(dropped.Get());
    }
    EXPECT_EQ(dropped->GetOwner(), nullptr) << "the thread that dropped it is gone";
    EXPECT_FALSE(dropped->Cancel());
    EXPECT_EQ(dropped->runs.load(), 0);
}

TEST(Threads, PostersSignalWhileTheThreadStartsAndStops)
{
    CountingThread thread;
    std::atomic<bool> running{true};
    auto poster = [&] {
        for (int i = 0; i < 20000 || running.load(); ++i)
        {
            thread.Signal();
            (void)thread.IsCreated();
        }
    };
    std::thread a(poster), b(poster);
    for (int i = 0; i < 200; ++i)
    {
        ASSERT_TRUE(thread.Init());
        thread.Term();
    }
    running = false;
    a.join();
    b.join();
    EXPECT_FALSE(thread.IsCreated());
}

namespace {

// Polls as an update thread does, and has no destructor of its own.
struct Poller : CommandThread
{
    std::atomic<int> polls{0};
    void Procedure() override
    {
        while (!IsExitNotified())
            polls.fetch_add(1, std::memory_order_relaxed);
    }
};

} // namespace

TEST(Threads, AThreadStopsBeforeAnyPartOfItIsTornDown)
{
    static_assert(std::is_abstract_v<Poller>, "a thread class is made only as a FinalThread");
    for (int i = 0; i < 200; ++i)
    {
        auto* poller = new FinalThread<Poller>();
        ASSERT_TRUE(poller->Init());
        poller->Signal();
        while (poller->polls.load() == 0)
            std::this_thread::yield();
        delete poller;
    }
}
