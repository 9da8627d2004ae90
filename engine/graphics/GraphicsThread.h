#pragma once

// The thread that alone touches the device, when the application starts it.
//
// Not started: the MT list (device creation and other device commands) runs
// on the main thread inside Kovex_FrameBegin / BeginRender.
// Started: BeginRender counts a frame to render; the thread runs the MT list
// for it and counts it rendered; EndRender spins (pausing, then yielding)
// until that frame is done. The main thread records frame N+1 while nothing
// overlaps the device, and the hand-over is a full join each frame.
//
// Threads: Ins, IsGraphicsThread and MT_PostCommand are safe from any
// thread. BeginRender, EndRender, Start, Stop and Destroy belong to the main
// thread. Between frames the thread waits on its semaphore instead of
// spinning, so an idle application costs no core.

#include <atomic>

#include "commands/CommandThread.h"

namespace KovexEngine {

class KOVEX_API GraphicsThread : public CommandThread
{
public:
    static GraphicsThread* Ins();
    static bool Exists();
    // Stops the thread if started and deletes the singleton.
    static void Destroy();

    // Starts the thread (named "Graphics Thread"); true when running.
    bool Start();
    bool IsStarted() const { return GetThreadID() != 0 && IsCreated(); }
    // The caller is the started thread, or no thread is started and the
    // caller is the main thread.
    bool IsGraphicsThread() const;

    void BeginRender();
    void EndRender();

    void OnInit() override;
    void Procedure() override;

    // Frames handed over and not yet joined, for tests.
    uint32 GetFramesToRender() const { return m_framesToRender.load(std::memory_order_acquire); }

protected:
    GraphicsThread() = default;

private:
    std::atomic<uint32> m_framesToRender{0};
    std::atomic<uint32> m_renderedFrames{0};
    // Set by the thread before it goes back to its semaphore; BeginRender
    // signals only a sleeping thread, so a spinning one collects no stale
    // wake-ups.
    std::atomic<bool> m_sleeping{true};
};

} // namespace KovexEngine
