#include "graphics/TextureStreaming.h"

#include <vector>

#include "kernel/Log.h"

namespace KovexEngine {

StreamingThread::StreamingThread() = default;
StreamingThread::~StreamingThread() = default;

void StreamingThread::Add(const Ptr<TextureStreamingLoad>& load, const Ptr<Texture>& texture, uint32 firstMip)
{
    if (!load || !texture)
        return;
    {
        CriticalSection::Scope lock(m_lock);
        Item& item = m_items.emplace_back();
        item.load = load;
        item.texture = texture;
        item.published = firstMip;
        item.uploaded = firstMip;
        item.finished = firstMip == 0;
    }
    m_wake.Release();
}

size_t StreamingThread::GetNumItems()
{
    CriticalSection::Scope lock(m_lock);
    return m_items.size();
}

void StreamingThread::Update()
{
    struct Work
    {
        Ptr<TextureStreamingLoad> load;
        Ptr<Texture> texture;
        uint32 first, count;
    };
    std::vector<Work> work;
    {
        CriticalSection::Scope lock(m_lock);
        for (auto it = m_items.begin(); it != m_items.end();)
        {
            if (it->published < it->uploaded)
            {
                work.push_back({it->load, it->texture, it->published, it->uploaded - it->published});
                it->uploaded = it->published;
            }
            if (!it->busy && (it->failed || (it->finished && it->uploaded == 0)))
                it = m_items.erase(it);
            else
                ++it;
        }
    }
    // The levels are the thread's no more once published: uploaded here
    // without the lock, so that the thread goes on reading meanwhile.
    for (const Work& w : work)
    {
        if (!w.load->Upload(w.texture.Get(), w.first, w.count))
            Log::Format(LOG_WARNING, u"Texture streaming upload failed, path = '%s'\n", w.texture->GetPath().c_str());
        w.texture->SetFirstResidentMip(w.first);
    }
}

bool StreamingThread::StepOne()
{
    Item* chosen = nullptr;
    {
        CriticalSection::Scope lock(m_lock);
        for (Item& item : m_items)
        {
            if (item.finished || item.failed || item.busy)
                continue;
            // The device side reads the smallest levels from the same buffer
            // when it is made: nothing is written into it before that.
            const GraphicsObject::ObjectState state = item.texture->GetState();
            if (state == GraphicsObject::Failed || state == GraphicsObject::Disposing)
            {
                item.failed = true;
                continue;
            }
            if (state != GraphicsObject::Created)
                continue;
            item.busy = true;
            chosen = &item;
            // Round robin: the item goes to the back of the list.
            break;
        }
    }
    if (!chosen)
        return false;
    const bool ok = chosen->load->Step();
    const uint32 resident = chosen->load->GetFirstResidentMip();
    const bool completed = chosen->load->IsCompleted();
    CriticalSection::Scope lock(m_lock);
    chosen->published = resident;
    chosen->failed = !ok;
    chosen->finished = completed;
    chosen->busy = false;
    // Others get their turn before this one's next level.
    for (auto it = m_items.begin(); it != m_items.end(); ++it)
        if (&*it == chosen)
        {
            m_items.splice(m_items.end(), m_items, it);
            break;
        }
    return true;
}

unsigned int StreamingThread::ThreadProc()
{
    while (!m_exit.load(std::memory_order_acquire))
    {
        if (!StepOne())
            m_wake.Wait(2); // textures still being made are looked at again soon
    }
    return 0;
}

void StreamingThread::RequestExit()
{
    m_exit.store(true, std::memory_order_release);
    m_wake.Release();
}

} // namespace KovexEngine
