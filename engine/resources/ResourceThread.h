#pragma once

#include "io/Stream.h"
#include "commands/CommandThread.h"
#include "reflection/Delegate.h"

namespace KovexEngine {

class Resource;
class ResourceFactory;

using ResourceSucceedDelegate = DelegateS<void(const Ptr<Resource>&)>;
using ResourceFailedDelegate = DelegateS<void(const WString&)>;

// Loads resources in the background. The finished command travels back to
// the main thread in the AT list that Kovex_FrameBegin runs, so the caller's
// delegates run there, once, when the load and its graphics side are done.
class KOVEX_API ResourceThread : public CommandThread
{
public:
    class KOVEX_API LoadingCommand : public ThreadCommand2
    {
    public:
        LoadingCommand(ResourceFactory* factory, const WString& path, const Stream::DateTime& date, unsigned int flags,
                       const ResourceSucceedDelegate& succeed, const ResourceFailedDelegate& failed);
        void Process() override;
        bool AfterProcess() override;

    private:
        Ptr<Resource> m_result;
        unsigned int m_flags;
        WString m_path;
        Stream::DateTime m_date;
        ResourceFactory* m_factory;
        volatile int m_pending = 0;
        ResourceSucceedDelegate m_succeed;
        ResourceFailedDelegate m_failed;
    };

    static ResourceThread* Ins();
    // Stops the thread (a command under way finishes) and drops what is queued.
    static void Destroy();
    static bool Exists();

    bool MT_InternalPostCommand(const Ptr<ThreadCommand>& command) override;
    // One command per wake: each post releases the semaphore once.
    void Procedure() override { ProcessMTCommandSingle(); }
    void OnInit() override;

    static void ProcessSucceed(const Ptr<Resource>& resource, const ResourceSucceedDelegate& succeed);
    static void ProcessFailed(const WString& path, const ResourceFailedDelegate& failed);

private:
    ResourceThread() = default;
    static void PostLoadFor(ResourceFactory* factory, Ptr<Resource>& resource, unsigned int flags);
};

} // namespace KovexEngine
