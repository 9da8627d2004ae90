#include "kernel/Thread.h"

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>

#include "kernel/EngineGlobals.h"
#include "kernel/Spin.h"

namespace KovexEngine {

// --- Mutex --------------------------------------------------------------------------

namespace {
// The calling thread's identifier, read once per thread.
uint32 CurrentThread()
{
    static thread_local uint32 id = Kovex_GetCurrentThreadId();
    return id;
}
} // namespace

void Mutex::Lock()
{
    uint32 self = CurrentThread();
    if (m_owner.load(std::memory_order_relaxed) == self)
    {
        ++m_depth;
        return;
    }
    m_section.Enter();
    m_owner.store(self, std::memory_order_relaxed);
    m_depth = 1;
}

bool Mutex::TryLock()
{
    uint32 self = CurrentThread();
    if (m_owner.load(std::memory_order_relaxed) == self)
    {
        ++m_depth;
        return true;
    }
    if (!m_section.TryEnter())
        return false;
    m_owner.store(self, std::memory_order_relaxed);
    m_depth = 1;
    return true;
}

void Mutex::Unlock()
{
    if (--m_depth == 0)
    {
        m_owner.store(0, std::memory_order_relaxed);
        m_section.Leave();
    }
}

// --- Semaphore ----------------------------------------------------------------------

Semaphore::Semaphore(int initial, const char*) { sem_init(&m_semaphore, 0, unsigned(initial < 0 ? 0 : initial)); }

Semaphore::~Semaphore() { sem_destroy(&m_semaphore); }

bool Semaphore::Wait()
{
    while (sem_wait(&m_semaphore) != 0)
        if (errno != EINTR)
            return false;
    return true;
}

bool Semaphore::Wait(unsigned milliseconds)
{
    timespec deadline;
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += milliseconds / 1000;
    deadline.tv_nsec += long(milliseconds % 1000) * 1000000L;
    if (deadline.tv_nsec >= 1000000000L)
    {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= 1000000000L;
    }
    while (sem_timedwait(&m_semaphore, &deadline) != 0)
        if (errno != EINTR)
            return false;
    return true;
}

void Semaphore::Release() { sem_post(&m_semaphore); }

// --- ThreadBase ---------------------------------------------------------------------

ThreadBase::~ThreadBase()
{
    // FinalThread has stopped the thread already; this is the last resort of
    // a thread that stops itself from its own destructor.
    if (m_created.load(std::memory_order_acquire))
    {
        if (pthread_equal(m_handle, pthread_self()))
            pthread_detach(m_handle);
        else
            pthread_join(m_handle, nullptr);
    }
}

void ThreadBase::OnInit() {}
void ThreadBase::OnTerm() {}
void ThreadBase::RequestExit() {}
void ThreadBase::ClearExitRequest() {}

void* ThreadBase::Entry(void* self)
{
    auto* thread = static_cast<ThreadBase*>(self);
    thread->m_threadId.store(Kovex_GetCurrentThreadId(), std::memory_order_release);
    thread->ThreadProc();
    return nullptr;
}

bool ThreadBase::Init()
{
    if (IsCreated())
        return true;
    m_threadId.store(0, std::memory_order_relaxed);
    ClearExitRequest();
    if (pthread_create(&m_handle, nullptr, &ThreadBase::Entry, this) != 0)
        return false;
    m_created.store(true, std::memory_order_release);
    // The identifier is the new thread's to tell; it does so at once.
    SpinWait spin;
    while (m_threadId.load(std::memory_order_acquire) == 0)
        spin.Pause();
    OnInit();
    return true;
}

void ThreadBase::Term()
{
    if (!IsCreated())
        return;
    OnTerm();
    RequestExit();
    if (pthread_equal(m_handle, pthread_self()))
        pthread_detach(m_handle); // a thread cannot wait for itself
    else
        pthread_join(m_handle, nullptr);
    m_created.store(false, std::memory_order_release);
    m_handle = pthread_t{};
    m_threadId.store(0, std::memory_order_release);
}

bool ThreadBase::IsCurrentThread() const { return IsCreated() && GetThreadID() == Kovex_GetCurrentThreadId(); }

void ThreadBase::SetName(const AString& name)
{
    if (!IsCreated())
        return;
    AString cut(name);
    cut.TerminateAtIndex(15);
    pthread_setname_np(m_handle, cut());
}

void ThreadBase::SetName(uint32 threadId, const AString& name)
{
    if (!threadId)
        return;
    // Any thread of the process can be named through its comm file.
    AString path;
    path.Format("/proc/self/task/%u/comm", threadId);
    int fd = ::open(path(), O_WRONLY | O_CLOEXEC);
    if (fd < 0)
        return;
    AString cut(name);
    cut.TerminateAtIndex(15);
    ssize_t ignored = ::write(fd, cut(), cut.Length());
    (void)ignored;
    ::close(fd);
}

// --- Thread -------------------------------------------------------------------------

Thread::Thread() : m_semaphore(new Semaphore(0)), m_ownsSemaphore(true) {}

Thread::Thread(Semaphore* shared) : m_semaphore(shared), m_ownsSemaphore(false) {}

Thread::~Thread()
{
    if (m_ownsSemaphore)
        delete m_semaphore;
}

unsigned int Thread::ThreadProc()
{
    if (IsExitNotified())
        return 0;
    do
    {
        if (m_semaphore->Wait())
            Procedure();
    } while (!IsExitNotified());
    return 0;
}

void Thread::Signal()
{
    if (IsCreated())
        m_semaphore->Release();
}

void Thread::RequestExit()
{
    NotifyExit();
    m_semaphore->Release();
}

void Thread::ClearExitRequest() { m_exit.store(false, std::memory_order_release); }

// --- ThreadPool ---------------------------------------------------------------------

ThreadPool::~ThreadPool() { Term(); }

bool ThreadPool::Init(unsigned int count)
{
    while (m_threads.Count() < count)
    {
        Thread* thread = Create(&m_semaphore, m_threads.Count());
        if (!thread)
            return false;
        m_threads.Add(thread);
    }
    return true;
}

void ThreadPool::Term()
{
    // Every thread is told first, and the shared semaphore is released once
    // for each, so that whichever thread a release wakes finds its exit flag.
    NotifyExit();
    for (unsigned i = 0; i < m_threads.Count(); ++i)
        m_semaphore.Release();
    for (Thread* thread : m_threads)
    {
        thread->Term();
        delete thread;
    }
    m_threads.Free();
}

void ThreadPool::Signal()
{
    if (!m_threads.IsEmpty())
        m_semaphore.Release();
}

void ThreadPool::NotifyExit()
{
    for (Thread* thread : m_threads)
        thread->NotifyExit();
}

} // namespace KovexEngine
