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
// A loaded resource enters its factory's cache only once it is complete (its
// graphics side done and PostLoad run); until then a Load of the same path
// loads an object of its own.
//
// Threads: posting is safe from any thread, before Init too; each wake runs
// every pending command. ProcessATCommandList, Ins, Destroy and Exists
// belong to the main thread.
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
        Ptr<Resource> m_loaded; // what the cache takes: an instanced load's origin
        unsigned int m_flags;
        WString m_path;
        Stream::DateTime m_date;
        ResourceFactory* m_factory;
        // Set by LoadGraphicsObjects while another thread (the graphics
        // thread) finishes the device objects; cleared there with release.
        std::atomic<int> m_pending{0};
        bool m_published = false;
        ResourceSucceedDelegate m_succeed;
        ResourceFailedDelegate m_failed;
    };

    static ResourceThread* Ins();
    // Stops the thread (a command under way finishes) and drops what is queued.
    static void Destroy();
    static bool Exists();

    // Releases the semaphore whether or not the thread runs yet, so that
    // what is posted before Init runs as soon as the thread starts.
    bool MT_InternalPostCommand(const Ptr<ThreadCommand>& command) override;
    // Everything pending per wake, one command at a time, so that a stop
    // waits only for the command under way.
    void Procedure() override;
    void OnInit() override;

    static void ProcessSucceed(const Ptr<Resource>& resource, const ResourceSucceedDelegate& succeed);
    static void ProcessFailed(const WString& path, const ResourceFailedDelegate& failed);

private:
    friend class FinalThread<ResourceThread>;
    ResourceThread() = default;
};

} // namespace KovexEngine
