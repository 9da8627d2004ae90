// A command's round trip through a CommandThread (posted on the main thread,
// processed on the worker, its second half run back on the main thread)
// beside a plain std::mutex + std::condition_variable queue doing the same.
// Both main sides poll for the result without yielding, as a frame loop
// that processes its AT list would; the workers sleep until woken.

#include <benchmark/benchmark.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include "commands/CommandThread.h"

using namespace KovexEngine;

namespace {

struct Echo : ThreadCommand2
{
    int value = 0;
    void Process() override { ++value; }
};

using Worker = FinalThread<CommandThread>;

// The baseline: jobs go to the worker through one locked queue, results come
// back through another.
class PlainQueue
{
public:
    PlainQueue()
        : m_thread([this] {
              for (;;)
              {
                  int* job;
                  {
                      std::unique_lock<std::mutex> lock(m_mutex);
                      m_ready.wait(lock, [this] { return m_stop || !m_jobs.empty(); });
                      if (m_stop)
                          return;
                      job = m_jobs.front();
                      m_jobs.pop_front();
                  }
                  ++*job;
                  {
                      std::lock_guard<std::mutex> lock(m_doneMutex);
                      m_done.push_back(job);
                  }
              }
          })
    {
    }
    ~PlainQueue()
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_stop = true;
        }
        m_ready.notify_one();
        m_thread.join();
    }
    void Post(int* job)
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_jobs.push_back(job);
        }
        m_ready.notify_one();
    }
    // The main thread's side: takes what is done, as a frame would.
    unsigned TakeDone()
    {
        std::lock_guard<std::mutex> lock(m_doneMutex);
        unsigned n = unsigned(m_done.size());
        m_done.clear();
        return n;
    }

private:
    std::mutex m_mutex, m_doneMutex;
    std::condition_variable m_ready;
    std::deque<int*> m_jobs, m_done;
    bool m_stop = false;
    std::thread m_thread;
};

} // namespace

static void BM_CommandThread_RoundTrip(benchmark::State& state)
{
    Worker worker;
    worker.Init();
    Ptr<Echo> command(new Echo());
    for (auto _ : state)
    {
        worker.MT_PostCommand(command.Get());
        worker.Signal();
        while (command->GetState() != ThreadCommand::STATE_FINISHED)
            worker.ProcessATCommandList();
    }
    worker.Term();
}
BENCHMARK(BM_CommandThread_RoundTrip)->Repetitions(5)->ReportAggregatesOnly(true)->UseRealTime();

static void BM_MutexCondvarQueue_RoundTrip(benchmark::State& state)
{
    PlainQueue queue;
    int job = 0;
    for (auto _ : state)
    {
        queue.Post(&job);
        while (queue.TakeDone() == 0)
        {
        }
    }
}
BENCHMARK(BM_MutexCondvarQueue_RoundTrip)->Repetitions(5)->ReportAggregatesOnly(true)->UseRealTime();

static void BM_CommandThread_Throughput(benchmark::State& state)
{
    Worker worker;
    worker.Init();
    const unsigned batch = 1000;
    std::deque<Ptr<Echo>> commands;
    for (unsigned i = 0; i < batch; ++i)
        commands.push_back(Ptr<Echo>(new Echo()));
    for (auto _ : state)
    {
        for (auto& c : commands)
            worker.MT_PostCommand(c.Get());
        worker.Signal();
        while (commands.back()->GetState() != ThreadCommand::STATE_FINISHED ||
               commands.front()->GetState() != ThreadCommand::STATE_FINISHED)
            worker.ProcessATCommandList();
        worker.ProcessATCommandList();
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * batch);
    worker.Term();
}
BENCHMARK(BM_CommandThread_Throughput)->UseRealTime();

static void BM_MutexCondvarQueue_Throughput(benchmark::State& state)
{
    PlainQueue queue;
    const unsigned batch = 1000;
    std::deque<int> jobs(batch);
    for (auto _ : state)
    {
        for (auto& j : jobs)
            queue.Post(&j);
        unsigned done = 0;
        while (done < batch)
            done += queue.TakeDone();
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * batch);
}
BENCHMARK(BM_MutexCondvarQueue_Throughput)->UseRealTime();
