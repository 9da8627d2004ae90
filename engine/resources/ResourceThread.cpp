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
        s_resourceThread = new FinalThread<ResourceThread>();
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

void ResourceThread::OnInit() { SetName(AString("Resource Thread")); }

void ResourceThread::Procedure()
{
    while (MT_HasPending() && !IsExitNotified())
        ProcessMTCommandSingle();
}

bool ResourceThread::MT_InternalPostCommand(const Ptr<ThreadCommand>& command)
{
    if (!CommandThread::MT_InternalPostCommand(command))
        return false;
    GetSemaphore()->Release();
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
    m_loaded = m_result;
    if (!g_IsNullRenderer || (m_flags & ResourceLoadFlags::GRAPHICS_WITH_NULL_RENDERER))
        m_loaded->LoadGraphicsObjects(&m_pending);
    // With its graphics side still under way elsewhere, the resource is
    // published from the main thread once that is done.
    m_published = m_pending.load(std::memory_order_acquire) == 0;
    m_factory->CompleteLoad(m_result, m_date, m_flags, m_published);
}

bool ResourceThread::LoadingCommand::AfterProcess()
{
    if (m_loaded && m_pending.load(std::memory_order_acquire) != 0)
        return false; // the graphics side is still under way
    if (m_loaded && !m_published)
        m_factory->AddCached(m_loaded.Get(), m_date);
    m_published = true;
    m_loaded = nullptr;
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
