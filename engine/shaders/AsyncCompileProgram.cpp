#include "shaders/AsyncCompileProgram.h"

#include "shaders/PGCodeConf.h"
#include "shaders/Program.h"

namespace KovexEngine {

KOVEX_REGISTER_CLASS(AsyncCompileProgramCommandBase, u"Engine", ThreadCommand2)
KOVEX_REGISTER_CLASS(AsyncCompileProgramCommand, u"Engine", AsyncCompileProgramCommandBase)

AsyncCompileFW::~AsyncCompileFW() = default;

unsigned AsyncCompileFW_Handle::Compile()
{
    Program* program = m_fw ? m_fw->GetProgram(m_ab, m_mt) : nullptr;
    return program && !program->IsFailed() ? 1 : 0;
}

unsigned AsyncCompileFW_Compute::Compile()
{
    ComputeProgram* program = m_fw ? m_fw->GetComputeProgram() : nullptr;
    return program && !program->IsFailed() ? 1 : 0;
}

AsyncCompileProgramCommandBase::AsyncCompileProgramCommandBase() = default;
AsyncCompileProgramCommandBase::~AsyncCompileProgramCommandBase() = default;

void AsyncCompileProgramCommandBase::AddJob(const Ptr<AsyncCompileFW>& job)
{
    if (job)
        m_jobs.Add(job);
}

void AsyncCompileProgramCommandBase::Process()
{
    unsigned compiled = 0;
    for (const Ptr<AsyncCompileFW>& job : m_jobs)
        compiled += job->Compile();
    m_compiled.store(compiled, std::memory_order_release);
}

bool AsyncCompileProgramCommand::AfterProcess()
{
    if (!m_done.exchange(true, std::memory_order_acq_rel) && m_callback)
        m_callback(this, m_user);
    return true;
}

} // namespace KovexEngine
