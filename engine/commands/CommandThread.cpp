#include "commands/CommandThread.h"

#include "kernel/Spin.h"
#include "kernel/TimeAnalyzer.h"

namespace KovexEngine {

KOVEX_REGISTER_CLASS(ThreadCommand, u"Engine", Object)
KOVEX_REGISTER_CLASS(ThreadCommand2, u"Engine", ThreadCommand)
KOVEX_REGISTER_CLASS(UpdateCommand, u"Engine", ThreadCommand)

// --- Commands -------------------------------------------------------------------------

ThreadCommand::~ThreadCommand() = default;

bool ThreadCommand::Cancel()
{
    CommandThread* owner = GetOwner();
    if (GetState() != STATE_PENDING || !owner)
        return false;
    // The list holds a reference: keep the command alive past its removal.
    Ptr<ThreadCommand> keep(this);
    MutexLock lock(owner->m_mtLock);
    // Under the lock the owner's word holds: it may have taken the command
    // for processing since.
    if (GetOwner() != owner || GetState() != STATE_PENDING || !m_hasNode)
        return false;
    owner->m_mtPending.Remove(this);
    m_hasNode = false;
    m_owner.store(nullptr, std::memory_order_release);
    return true;
}

bool ThreadCommand2::AfterProcess() { return true; }

// --- Lists ------------------------------------------------------------------------------

bool CommandList::PushBack(ThreadCommand* command)
{
    if (!command || command->m_linked)
        return false;
    command->AddRef();
    command->m_linked = true;
    command->m_previous = m_tail;
    command->m_next = nullptr;
    if (m_tail)
        m_tail->m_next = command;
    else
        m_head = command;
    m_tail = command;
    m_count.fetch_add(1, std::memory_order_release);
    return true;
}

ThreadCommand* CommandList::Unlink(ThreadCommand* command)
{
    if (command->m_previous)
        command->m_previous->m_next = command->m_next;
    else
        m_head = command->m_next;
    if (command->m_next)
        command->m_next->m_previous = command->m_previous;
    else
        m_tail = command->m_previous;
    command->m_previous = command->m_next = nullptr;
    command->m_linked = false;
    m_count.fetch_sub(1, std::memory_order_release);
    return command;
}

void CommandList::Remove(ThreadCommand* command)
{
    if (command && command->m_linked)
        Unlink(command)->Release();
}

Ptr<ThreadCommand> CommandList::PopFront()
{
    // The list's reference passes to the caller as it is.
    return m_head ? Ptr<ThreadCommand>::Adopt(Unlink(m_head)) : Ptr<ThreadCommand>();
}

void CommandList::Swap(CommandList& other)
{
    std::swap(m_head, other.m_head);
    std::swap(m_tail, other.m_tail);
    unsigned mine = m_count.load(std::memory_order_relaxed);
    m_count.store(other.m_count.load(std::memory_order_relaxed), std::memory_order_release);
    other.m_count.store(mine, std::memory_order_release);
}

void CommandList::Splice(CommandList& other)
{
    while (Ptr<ThreadCommand> command = other.PopFront())
        PushBack(command.Get());
}

void CommandList::Clear()
{
    while (m_head)
        Remove(m_head);
}

// --- CommandThread ---------------------------------------------------------------------

CommandThread::~CommandThread()
{
    // Dropped commands forget this thread, so that a later Cancel fails
    // instead of reaching for a lock that is gone.
    MutexLock lock(m_mtLock);
    for (ThreadCommand* c = m_mtPending.First(); c; c = CommandList::Next(c))
    {
        c->m_hasNode = false;
        c->m_owner.store(nullptr, std::memory_order_release);
    }
    m_mtPending.Clear();
}

void CommandThread::Procedure() { ProcessMTCommandList(); }

bool CommandThread::MT_PostCommand(ThreadCommand* command) { return MT_InternalPostCommand(Ptr<ThreadCommand>(command)); }

bool CommandThread::AT_PostCommand(ThreadCommand2* command) { return AT_InternalPostCommand(Ptr<ThreadCommand2>(command)); }

bool CommandThread::MT_InternalPostCommand(const Ptr<ThreadCommand>& command)
{
    if (!command)
        return false;
    MutexLock lock(m_mtLock);
    // A command already queued somewhere cannot be queued twice.
    if (command->m_linked)
        return false;
    command->SetState(ThreadCommand::STATE_PENDING);
    command->m_owner.store(this, std::memory_order_release);
    m_mtPending.PushBack(command.Get());
    command->m_hasNode = true;
    return true;
}

bool CommandThread::AT_InternalPostCommand(const Ptr<ThreadCommand2>& command)
{
    if (!command)
        return false;
    MutexLock lock(m_atLock);
    if (command->m_linked)
        return false;
    m_atPending.PushBack(command.Get());
    command->SetState(ThreadCommand::STATE_AFTER_PROCESS);
    return true;
}

unsigned int CommandThread::MT_GetCommandCount()
{
    MutexLock lock(m_mtLock);
    return m_mtPending.Count();
}

void CommandThread::Finish(const Ptr<ThreadCommand>& command)
{
    if (command->GetClass()->IsKindOf(ThreadCommand2::StaticGetClass()))
        AT_InternalPostCommand(Ptr<ThreadCommand2>(static_cast<ThreadCommand2*>(command.Get())));
    else
        command->SetState(ThreadCommand::STATE_FINISHED);
}

void CommandThread::ProcessMTCommandList()
{
    if (m_mtPending.IsEmpty())
        return;
    {
        MutexLock lock(m_mtLock);
        m_mtPending.Swap(m_mtProcessing);
        // Every command is marked before the first one runs: none can be
        // cancelled from here on.
        for (ThreadCommand* c = m_mtProcessing.First(); c; c = CommandList::Next(c))
        {
            c->SetState(ThreadCommand::STATE_PROCESSING);
            c->m_hasNode = false;
            c->m_owner.store(nullptr, std::memory_order_release);
        }
    }
    while (Ptr<ThreadCommand> command = m_mtProcessing.PopFront())
    {
        command->Process();
        Finish(command);
    }
}

void CommandThread::ProcessMTCommandSingle()
{
    if (m_mtPending.IsEmpty())
        return;
    Ptr<ThreadCommand> command;
    {
        MutexLock lock(m_mtLock);
        command = m_mtPending.PopFront();
        if (!command)
            return;
        command->SetState(ThreadCommand::STATE_PROCESSING);
        command->m_hasNode = false;
        command->m_owner.store(nullptr, std::memory_order_release);
    }
    command->Process();
    Finish(command);
}

void CommandThread::ProcessATCommandList()
{
    if (m_atPending.IsEmpty())
        return;
    {
        MutexLock lock(m_atLock);
        m_atPending.Swap(m_atProcessing);
    }
    while (Ptr<ThreadCommand> command = m_atProcessing.PopFront())
    {
        auto* second = static_cast<ThreadCommand2*>(command.Get());
        if (second->AfterProcess())
            second->SetState(ThreadCommand::STATE_FINISHED);
        else
            m_atRetry.PushBack(second);
    }
    if (!m_atRetry.IsEmpty())
    {
        // Tried again next frame, not in this pass.
        MutexLock lock(m_atLock);
        m_atPending.Splice(m_atRetry);
    }
}

// --- Update threads ---------------------------------------------------------------------

void UpdateCommand::Submit() { UpdateThreadPool::Ins()->Submit(Ptr<UpdateCommand>(this)); }

void UpdateCommand::Submit(UpdateThread* thread)
{
    if (thread)
        thread->MT_PostCommand(this);
}

void UpdateCommand::Wait()
{
    // Keep the command alive even if its queue lets go of it meanwhile.
    Ptr<UpdateCommand> keep(this);
    STATE state = GetState();
    if (state == STATE_PENDING && Cancel())
    {
        SetState(STATE_PROCESSING);
        Process();
        SetState(STATE_FINISHED);
        return;
    }
    if (GetState() != STATE_PENDING && GetState() != STATE_PROCESSING)
        return;
    g_TimeAnalyzer.Begin(1, "Wait Update Thread");
    SpinWait spin;
    for (STATE now = GetState(); now != STATE_FINISHED && now != STATE_AFTER_PROCESS; now = GetState())
    {
        // Pending in no list: cancelled by someone else or dropped with its
        // thread. Processing marks the state before it lets go of the owner,
        // so this never mistakes a command being taken for a lost one.
        if (now == STATE_PENDING && !GetOwner())
            break;
        spin.Pause();
    }
    g_TimeAnalyzer.End(1);
}

void UpdateThread::Procedure()
{
    // Poll for work for as long as the thread lives; pause and yield while
    // idle, so that a two-core machine keeps its other core.
    SpinWait spin;
    while (!IsExitNotified())
    {
        if (MT_HasPending())
            ProcessMTCommandSingle();
        else
            spin.Pause();
    }
    ProcessMTCommandList();
}

UpdateThreadPool* UpdateThreadPool::ms_singleton = nullptr;

UpdateThreadPool* UpdateThreadPool::Ins()
{
    if (!ms_singleton)
        ms_singleton = new UpdateThreadPool();
    return ms_singleton;
}

void UpdateThreadPool::Destroy()
{
    delete ms_singleton;
    ms_singleton = nullptr;
}

UpdateThreadPool::~UpdateThreadPool() { Term(); }

Thread* UpdateThreadPool::Create(Semaphore* semaphore, unsigned int index)
{
    auto* thread = new FinalThread<UpdateThread>(semaphore);
    if (!thread->Init())
    {
        delete thread;
        return nullptr;
    }
    AString name;
    name.Format("Update Thread #%.2u", index + 1);
    thread->SetName(name);
    semaphore->Release();
    return thread;
}

void UpdateThreadPool::Submit(const Ptr<UpdateCommand>& command)
{
    if (!command)
        return;
    bool here = true;
    {
        // The index is taken and advanced in one step, so that submitters on
        // several threads each get a slot that exists.
        MutexLock lock(m_lock);
        unsigned index = m_nextIndex;
        m_nextIndex = index + 1 > m_threads.Count() ? 0 : index + 1;
        if (index != 0 && index <= m_threads.Count())
        {
            here = false;
            static_cast<UpdateThread*>(m_threads[index - 1])->MT_InternalPostCommand(Ptr<ThreadCommand>(command.Get()));
        }
    }
    if (here)
    {
        command->SetState(ThreadCommand::STATE_PROCESSING);
        command->Process();
        command->SetState(ThreadCommand::STATE_FINISHED);
    }
}

void UpdateThreadPool::Tick()
{
    MutexLock lock(m_lock);
    for (Thread* thread : m_threads)
        static_cast<UpdateThread*>(thread)->ProcessATCommandList();
}

} // namespace KovexEngine
