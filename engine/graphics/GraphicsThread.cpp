#include "graphics/GraphicsThread.h"

#include "kernel/EngineGlobals.h"
#include "kernel/Log.h"
#include "kernel/Spin.h"
#include "kernel/Timer.h"

namespace KovexEngine {

namespace {
std::atomic<GraphicsThread*> s_graphicsThread{nullptr};
CriticalSection s_insLock;
// Spins without work before the thread goes back to its semaphore; a frame
// handed over within this window is picked up without a wake-up.
constexpr unsigned kIdleSpinsBeforeSleep = 4096;
} // namespace

GraphicsThread* GraphicsThread::Ins()
{
    GraphicsThread* thread = s_graphicsThread.load(std::memory_order_acquire);
    if (thread)
        return thread;
    CriticalSection::Scope lock(s_insLock);
    thread = s_graphicsThread.load(std::memory_order_acquire);
    if (!thread)
    {
        thread = new FinalThread<GraphicsThread>();
        s_graphicsThread.store(thread, std::memory_order_release);
    }
    return thread;
}

bool GraphicsThread::Exists() { return s_graphicsThread.load(std::memory_order_acquire) != nullptr; }

void GraphicsThread::Destroy()
{
    GraphicsThread* thread = s_graphicsThread.exchange(nullptr, std::memory_order_acq_rel);
    if (!thread)
        return;
    // What is still posted runs here, so no created object is left pending.
    thread->Term();
    thread->ProcessMTCommandList();
    delete thread;
}

bool GraphicsThread::Start() { return Init(); }

bool GraphicsThread::IsGraphicsThread() const
{
    if (IsStarted())
        return IsCurrentThread();
    return Kovex_GetCurrentThreadId() == g_kovexMainThreadId;
}

void GraphicsThread::OnInit() { SetName(AString("Graphics Thread")); }

void GraphicsThread::BeginRender()
{
    g_GraphicsCommandCounter = 0;
    if (IsStarted())
    {
        m_framesToRender.fetch_add(1, std::memory_order_seq_cst);
        if (m_sleeping.exchange(false, std::memory_order_seq_cst))
            Signal();
    }
    ProcessATCommandList();
    if (!IsStarted())
        ProcessMTCommandList();
}

void GraphicsThread::EndRender()
{
    if (!IsStarted())
        return;
    SpinWait spin;
    for (;;)
    {
        uint32 rendered = m_renderedFrames.load(std::memory_order_acquire);
        if (rendered != 0 &&
            m_renderedFrames.compare_exchange_weak(rendered, rendered - 1, std::memory_order_acq_rel))
            return;
        spin.Pause();
    }
}

void GraphicsThread::Procedure()
{
    SpinWait spin;
    unsigned idle = 0;
    while (!IsExitNotified())
    {
        uint32 frames = m_framesToRender.load(std::memory_order_acquire);
        if (frames != 0)
        {
            if (!m_framesToRender.compare_exchange_weak(frames, frames - 1, std::memory_order_acq_rel))
                continue;
            int64 start = Timer::GetCPUTicks();
            ProcessMTCommandList();
            double ms = Timer::TicksToSeconds(Timer::GetCPUTicks() - start) * 1000.0;
            Log::Format(LOG_INFO, u"Graphics thread time = %f.\n", ms);
            m_renderedFrames.fetch_add(1, std::memory_order_acq_rel);
            idle = 0;
            continue;
        }
        if (++idle > kIdleSpinsBeforeSleep)
        {
            // Announce the sleep, then look again: a frame counted before
            // the announcement was not signalled, so take it back and go on.
            m_sleeping.store(true, std::memory_order_seq_cst);
            if (m_framesToRender.load(std::memory_order_seq_cst) == 0)
                return; // back to the semaphore; BeginRender signals it
            if (!m_sleeping.exchange(false, std::memory_order_seq_cst))
                return; // BeginRender took the flag and signalled
            idle = 0;
            continue;
        }
        spin.Pause();
    }
}

} // namespace KovexEngine
