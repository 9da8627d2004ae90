#include "resources/ResourceThread.h"

#include "kernel/EngineGlobals.h"
#include "kernel/Log.h"
#include "resources/Resource.h"

namespace KovexEngine {

namespace {
ResourceThread* s_resourceThread = nullptr;
}

ResourceThread* ResourceThread::Ins()
{
    if (!s_resourceThread)
        s_resourceThread = new ResourceThread();
    return s_resourceThread;
}

bool ResourceThread::Exists() { return s_resourceThread != nullptr; }

void ResourceThread::Destroy()
{
    if (!s_resourceThread)
        return;
    s_resourceThread->Term();
    delete s_resourceThread;
    s_resourceThread = nullptr;
}

void ResourceThread::PostLoadFor(ResourceFactory* factory, Ptr<Resource>& resource, unsigned int flags)
{
    factory->PostLoad(resource, flags);
}

void ResourceThread::OnInit() { SetName(AString("Resource Thread")); }

bool ResourceThread::MT_InternalPostCommand(const Ptr<ThreadCommand>& command)
{
    if (!CommandThread::MT_InternalPostCommand(command))
        return false;
    if (IsCreated())
        Signal();
    return true;
}

void ResourceThread::ProcessSucceed(const Ptr<Resource>& resource, const ResourceSucceedDelegate& succeed)
{
    if (succeed.IsEmpty())
        Log::Format(LOG_WARNING, u"Warning: Async load resource [%s] Succeed, but no delegate assigned.\n",
                    resource ? resource->GetResPath()() : u"");
    else
        succeed(resource);
}

void ResourceThread::ProcessFailed(const WString& path, const ResourceFailedDelegate& failed)
{
    if (failed.IsEmpty())
        Log::Format(LOG_WARNING, u"Warning: Async load resource [%s] failed.\n", path());
    else
        failed(path);
}

ResourceThread::LoadingCommand::LoadingCommand(ResourceFactory* factory, const WString& path, const Stream::DateTime& date,
                                               unsigned int flags, const ResourceSucceedDelegate& succeed,
                                               const ResourceFailedDelegate& failed)
    : m_flags(flags), m_path(path), m_date(date), m_factory(factory), m_succeed(succeed), m_failed(failed)
{
}

void ResourceThread::LoadingCommand::Process()
{
    m_result = m_factory->InternalLoad(m_path, m_flags);
    if (m_result && !m_result->GetClass()->IsKindOf(m_factory->GetObjClass()))
        m_result = nullptr;
    if (!m_result)
        return;
    m_factory->AddCached(m_result.Get(), m_date);
    if (!g_IsNullRenderer || (m_flags & ResourceLoadFlags::GRAPHICS_WITH_NULL_RENDERER))
        m_result->LoadGraphicsObjects(&m_pending);
    PostLoadFor(m_factory, m_result, m_flags);
}

bool ResourceThread::LoadingCommand::AfterProcess()
{
    if (m_result && m_pending != 0)
        return false; // the graphics side is still under way
    if (m_result)
        ProcessSucceed(m_result, m_succeed);
    else
        ProcessFailed(m_path, m_failed);
    // The delegates may hold the last references to objects of the caller.
    m_succeed = ResourceSucceedDelegate();
    m_failed = ResourceFailedDelegate();
    return true;
}

} // namespace KovexEngine
