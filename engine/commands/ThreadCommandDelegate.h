#pragma once

#include "commands/CommandThread.h"
#include "reflection/Delegate.h"

namespace KovexEngine {

// A command whose work is a delegate. The delegate runs on whichever thread
// processes the command; what it touches must be safe from there. Posting
// and cancelling are as for any ThreadCommand.
class KOVEX_API ThreadCommand_Delegate : public ThreadCommand
{
    KOVEX_CLASS(ThreadCommand_Delegate)

public:
    ThreadCommand_Delegate() = default;
    explicit ThreadCommand_Delegate(const DelegateC<void()>& work) : m_work(work) {}

    void Process() override { m_work(); }
    const DelegateC<void()>& GetDelegate() const { return m_work; }
    void SetDelegate(const DelegateC<void()>& work) { m_work = work; }

private:
    DelegateC<void()> m_work;
};

} // namespace KovexEngine
