#pragma once

// Textures that fill in the background, from their smallest level up.
//
// Which loads stream: TextureFactory::Create(stream) asks the image layer
// first; it streams a file whose loader can (DDS holding its whole chain),
// whose format the device takes as it is, and whose level 0 (all array
// slices) holds at least TextureFactory::GetStreamingThreshold() bytes. The
// caller gets the texture at once, holding the smallest levels (those of at
// most 64 KiB, leaving at least level 0 to stream); the "Texture Thread"
// reads one larger level of each item per pass and publishes it;
// UpdateStreaming, from TextureFactory::OnTick, uploads what was published.
// Streamed textures have Default usage so that the device takes updates.
//
// Threads: Add and GetNumItems are safe from any thread. Update belongs to
// the thread that ticks the texture factory; uploads happen only there.
// Step, GetFirstResidentMip and IsCompleted of a load run only on the
// Texture Thread; Upload only on the ticking thread, and only for levels
// the thread has published (a level is written once, before it is
// published, and never again). Term (through the owner's delete) joins the
// thread; loads still in flight are dropped with their textures' last
// levels missing.

#include <list>

#include "graphics/TextureFactory.h"
#include "kernel/Thread.h"

namespace KovexEngine {

class KOVEX_API StreamingThread : public ThreadBase
{
public:
    StreamingThread();
    ~StreamingThread() override;

    // Queues a load whose texture already holds the levels from `firstMip`.
    void Add(const Ptr<TextureStreamingLoad>& load, const Ptr<Texture>& texture, uint32 firstMip);
    // Uploads the levels published since the last call and gives each
    // texture its first resident mip; drops the finished and failed items.
    void Update();
    size_t GetNumItems();

    unsigned int ThreadProc() override;

protected:
    void RequestExit() override;

private:
    struct Item
    {
        Ptr<TextureStreamingLoad> load;
        Ptr<Texture> texture;
        uint32 published = 0; // lowest level read, as the thread last said
        uint32 uploaded = 0;  // lowest level in the texture
        bool finished = false;
        bool failed = false;
        bool busy = false; // the thread is reading a level of it
    };
    // One level of one item whose texture is made; false when none had work.
    bool StepOne();

    CriticalSection m_lock;
    std::list<Item> m_items;
    Semaphore m_wake;
    std::atomic<bool> m_exit{false};
};

} // namespace KovexEngine
