#pragma once

#include <pthread.h>
#include <semaphore.h>

#include <atomic>

#include "kernel/Containers.h"
#include "kernel/CriticalSection.h"
#include "kernel/RefCount.h"
#include "kernel/Strings.h"

namespace KovexEngine {

// Atomic operations on plain integers shared between threads.
class KOVEX_API Interlocked
{
public:
    // Both return the new value.
    static int Increment(int volatile& value) { return __atomic_add_fetch(&value, 1, __ATOMIC_SEQ_CST); }
    static int Decrement(int volatile& value) { return __atomic_sub_fetch(&value, 1, __ATOMIC_SEQ_CST); }
    // Returns the value before the addition.
    static int Add(int volatile& value, int amount) { return __atomic_fetch_add(&value, amount, __ATOMIC_SEQ_CST); }
    // Returns the value before the exchange.
    static int Exchange(int volatile& value, int replacement)
    {
        return __atomic_exchange_n(&value, replacement, __ATOMIC_SEQ_CST);
    }
};

// A recursive lock that spins briefly before it sleeps (an adaptive mutex
// with an owner and a depth on top). Like Semaphore and Interlocked, it is
// made to be shared: every call is safe from any thread.
class KOVEX_API Mutex
{
public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void Lock();
    bool TryLock();
    void Unlock();

private:
    CriticalSection m_section;
    std::atomic<uint32> m_owner{0};
    uint32 m_depth = 0;
};

class MutexLock
{
public:
    explicit MutexLock(Mutex& mutex) : m_mutex(mutex) { m_mutex.Lock(); }
    ~MutexLock() { m_mutex.Unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    Mutex& m_mutex;
};

// A counting semaphore with no upper limit to speak of.
class KOVEX_API Semaphore
{
public:
    explicit Semaphore(int initial = 0, const char* name = nullptr);
    ~Semaphore();
    Semaphore(const Semaphore&) = delete;
    Semaphore& operator=(const Semaphore&) = delete;

    // Waits with no time limit.
    bool Wait();
    // Waits at most `milliseconds`; false on time-out.
    bool Wait(unsigned milliseconds);
    void Release();

private:
    sem_t m_semaphore;
};

// A thread of the engine. Stopping is cooperative: Term runs OnTerm, asks
// the thread to leave its loop (RequestExit) and joins it.
//
// Every thread object is made as a FinalThread<T> (see below): a class
// derived from ThreadBase stays abstract until FinalThread completes it, and
// FinalThread's destructor stops the thread before any part of the object
// is torn down. A thread stopped only by a base destructor would go on
// calling the virtual functions of a half-destroyed object.
//
// Threads: Init and Term belong to the thread that owns the object; any
// thread may ask IsCreated, GetThreadID and IsCurrentThread meanwhile.
class KOVEX_API ThreadBase : public HeapObject
{
public:
    ThreadBase() = default;
    ThreadBase(const ThreadBase&) = delete;
    ThreadBase& operator=(const ThreadBase&) = delete;
    virtual ~ThreadBase();
    virtual void OnInit();
    virtual void OnTerm();
    virtual unsigned int ThreadProc() = 0;

    // Starts the thread if it is not running and calls OnInit on the calling
    // thread. False when the thread could not be created.
    bool Init();
    void Term();
    bool IsCreated() const { return m_created.load(std::memory_order_acquire); }
    uint32 GetThreadID() const { return m_threadId.load(std::memory_order_acquire); }
    bool IsCurrentThread() const;
    // Names the running thread (cut to 15 characters, as the system allows).
    void SetName(const AString& name);
    static void SetName(uint32 threadId, const AString& name);

protected:
    // Makes ThreadProc return; called by Term after OnTerm.
    virtual void RequestExit();
    // Undoes RequestExit before a stopped thread starts again; called by
    // Init before the new thread exists.
    virtual void ClearExitRequest();

private:
    template <typename T> friend class FinalThread;
    // Implemented by FinalThread alone, which makes every other thread class
    // abstract: a thread object that would not stop before its destruction
    // cannot be made.
    virtual void StopsBeforeDestruction() = 0;
    static void* Entry(void* self);

    pthread_t m_handle{};
    std::atomic<bool> m_created{false};
    std::atomic<uint32> m_threadId{0};
};

// The most derived part of every thread object: `new FinalThread<MyThread>(...)`
// or a FinalThread<MyThread> member. Its destructor runs first, so the thread
// is stopped while the whole object still stands.
template <typename T>
class FinalThread final : public T
{
public:
    using T::T;
    ~FinalThread() override { this->Term(); }

private:
    void StopsBeforeDestruction() override {}
};

// A thread that sleeps on a semaphore and runs Procedure each time it is
// signalled, until told to exit. Signal and NotifyExit are safe from any
// thread while the object lives.
class KOVEX_API Thread : public ThreadBase
{
public:
    Thread();
    // Shares a semaphore owned by someone else (a pool).
    explicit Thread(Semaphore* shared);
    ~Thread() override;

    unsigned int ThreadProc() override;
    virtual void Procedure() = 0;

    void Signal();
    void NotifyExit() { m_exit.store(true, std::memory_order_release); }
    bool IsExitNotified() const { return m_exit.load(std::memory_order_acquire); }
    Semaphore* GetSemaphore() const { return m_semaphore; }

protected:
    void RequestExit() override;
    void ClearExitRequest() override;

private:
    Semaphore* m_semaphore;
    bool m_ownsSemaphore;
    std::atomic<bool> m_exit{false};
};

// Threads that share one semaphore. Init and Term belong to the owning
// thread; Signal and NotifyExit are safe from any thread between them.
class KOVEX_API ThreadPool : public HeapObject
{
public:
    ThreadPool() = default;
    ThreadPool(const ThreadPool&) = delete;
    ThreadPool& operator=(const ThreadPool&) = delete;
    virtual ~ThreadPool();

    // Makes one thread of the pool; null on failure.
    virtual Thread* Create(Semaphore* semaphore, unsigned int index) = 0;

    // Creates threads until the pool holds `count`.
    bool Init(unsigned int count);
    void Term();
    void Signal();
    void NotifyExit();
    unsigned int GetThreadCount() const { return m_threads.Count(); }
    Thread* GetThread(unsigned int index) const { return m_threads[index]; }

protected:
    TArray<Thread*> m_threads;
    Semaphore m_semaphore;
};

} // namespace KovexEngine
