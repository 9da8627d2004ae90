#pragma once

#include "kernel/Thread.h"
#include "reflection/Object.h"

namespace KovexEngine {

class CommandThread;

// A unit of deferred work. Process runs on a worker thread (the "MT" side).
//
// Threads: GetState, GetOwner and Cancel are safe from any thread, as long
// as the thread the command was posted to still exists.
class KOVEX_API ThreadCommand : public Object
{
    KOVEX_CLASS(ThreadCommand)

public:
    enum STATE : int
    {
        STATE_PENDING = 0,        // in a pending MT list
        STATE_PROCESSING = 1,     // Process is running or about to run
        STATE_AFTER_PROCESS = 2,  // waiting in an AT list
        STATE_FINISHED = 3,       // done; also the state of a new command
    };

    ThreadCommand() = default;
    ~ThreadCommand() override;

    virtual void Process() = 0;

    STATE GetState() const { return STATE(m_state.load(std::memory_order_acquire)); }
    void SetState(STATE state) { m_state.exchange(int(state), std::memory_order_acq_rel); }
    // The thread whose pending list holds the command; null once it is out
    // of that list (taken for processing, cancelled or dropped).
    CommandThread* GetOwner() const { return m_owner.load(std::memory_order_acquire); }
    // Takes a command that has not started out of its pending list. False
    // once Process has begun, or when the command is in no pending list.
    bool Cancel();

private:
    friend class CommandList;
    friend class CommandThread;

    std::atomic<int> m_state{STATE_FINISHED};
    // Written under the owner's MT lock; read anywhere.
    std::atomic<CommandThread*> m_owner{nullptr};
    // Links of the one list that holds the command, and whether that is a
    // pending MT list (the handle Cancel needs): the owner's MT lock guards
    // them while the command is pending.
    ThreadCommand* m_previous = nullptr;
    ThreadCommand* m_next = nullptr;
    bool m_linked = false;
    bool m_hasNode = false;
};

// A command with a second half that runs on the main thread (the "AT" side)
// in Kovex_FrameBegin.
class KOVEX_API ThreadCommand2 : public ThreadCommand
{
    KOVEX_CLASS(ThreadCommand2)

public:
    // True when done; false to be called again in the next frame.
    virtual bool AfterProcess();
};

// A chain of commands that holds a reference to each. A command stands in at
// most one list at a time; its links live in the command itself.
class KOVEX_API CommandList
{
public:
    CommandList() = default;
    ~CommandList() { Clear(); }
    CommandList(const CommandList&) = delete;
    CommandList& operator=(const CommandList&) = delete;

    bool IsEmpty() const { return m_count.load(std::memory_order_acquire) == 0; }
    unsigned int Count() const { return m_count.load(std::memory_order_acquire); }
    // False when the command already stands in a list.
    bool PushBack(ThreadCommand* command);
    // Hands over the list's reference to the first command.
    Ptr<ThreadCommand> PopFront();
    // The command must stand in this list.
    void Remove(ThreadCommand* command);
    ThreadCommand* First() const { return m_head; }
    static ThreadCommand* Next(const ThreadCommand* command) { return command->m_next; }
    void Swap(CommandList& other);
    // Moves all of `other` to the end of this list.
    void Splice(CommandList& other);
    void Clear();

private:
    // Takes a command out of the chain and keeps its reference for the caller.
    ThreadCommand* Unlink(ThreadCommand* command);

    ThreadCommand* m_head = nullptr;
    ThreadCommand* m_tail = nullptr;
    std::atomic<unsigned> m_count{0};
};

// A thread with MT and AT command lists. Posting swaps nothing and waits
// only for a pointer operation; processing swaps the pending list out under
// the lock and runs the commands with no lock held. Made as
// FinalThread<CommandThread> or FinalThread of a subclass.
//
// Threads: MT_PostCommand, AT_PostCommand and MT_GetCommandCount are safe
// from any thread. The MT list is processed by one thread at a time (the
// worker, or the owner while the worker is not running); the AT list by the
// main thread.
class KOVEX_API CommandThread : public Thread
{
public:
    CommandThread() = default;
    explicit CommandThread(Semaphore* shared) : Thread(shared) {}
    // Drops what is still pending; the thread is stopped by then.
    ~CommandThread() override;

    // Runs the pending MT commands.
    void Procedure() override;

    bool MT_PostCommand(ThreadCommand* command);
    bool AT_PostCommand(ThreadCommand2* command);
    virtual bool MT_InternalPostCommand(const Ptr<ThreadCommand>& command);
    virtual bool AT_InternalPostCommand(const Ptr<ThreadCommand2>& command);

    unsigned int MT_GetCommandCount();
    // Reads a moving list with no lock: for diagnostics.
    unsigned int AT_GetCommandCount() const { return m_atPending.Count(); }

    void ProcessMTCommandList();
    void ProcessMTCommandSingle();
    // Main thread only.
    void ProcessATCommandList();

protected:
    bool MT_HasPending() const { return !m_mtPending.IsEmpty(); }

private:
    friend class ThreadCommand;
    // What happens after Process: a ThreadCommand2 goes to the AT list,
    // anything else is finished.
    void Finish(const Ptr<ThreadCommand>& command);

    CommandList m_mtPending;
    CommandList m_mtProcessing;
    CommandList m_atPending;
    CommandList m_atProcessing;
    CommandList m_atRetry;
    Mutex m_mtLock;
    Mutex m_atLock;
};

class UpdateThread;

// Per-frame work for the update thread pool.
class KOVEX_API UpdateCommand : public ThreadCommand
{
    KOVEX_CLASS(UpdateCommand)

public:
    // Hands the command to the pool (which may run it at once on the caller).
    void Submit();
    // Posts it to one thread.
    void Submit(UpdateThread* thread);
    // Returns when the command is done. A command still pending is taken
    // back and run here; a running one is waited for; one cancelled by
    // someone else, or dropped with its thread, never runs and is not
    // waited for.
    void Wait();
};

// A worker of the update pool. It polls for work for as long as it lives.
class KOVEX_API UpdateThread : public CommandThread
{
public:
    using UpdateCommand = KovexEngine::UpdateCommand;

    explicit UpdateThread(Semaphore* shared) : CommandThread(shared) {}
    void Procedure() override;
};

// The update threads, fed round-robin together with the calling thread.
// A pool without threads runs every command inline; Init is the switch.
//
// Threads: Submit is safe from any thread; Init, Term, Tick and Destroy
// belong to the main thread, while nobody submits.
class KOVEX_API UpdateThreadPool : public ThreadPool
{
public:
    static UpdateThreadPool* Ins();
    static void Destroy();

    Thread* Create(Semaphore* semaphore, unsigned int index) override;
    void Submit(const Ptr<UpdateCommand>& command);
    // Runs each thread's AT list; main thread only.
    void Tick();

    static UpdateThreadPool* ms_singleton;

private:
    UpdateThreadPool() = default;
    ~UpdateThreadPool() override;

    Mutex m_lock;
    unsigned int m_nextIndex = 0; // under m_lock
};

} // namespace KovexEngine
