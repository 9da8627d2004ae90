#include "kernel/SharedString.h"

#include <atomic>
#include <mutex>

#include "kernel/Containers.h"
#include "kernel/CriticalSection.h"

namespace KovexEngine {
namespace {

template <typename S>
struct Table
{
    using Proxy = typename TSharedString<S>::Proxy;
    // Each entry holds one reference of its own.
    TArray<Proxy*> entries{256};
    CriticalSection lock;

    // Position of the text, or where it would go.
    unsigned LowerBound(const S& text, bool& found) const
    {
        unsigned low = 0, high = entries.Count();
        while (low < high)
        {
            unsigned mid = low + (high - low) / 2;
            int order = entries[mid]->Text().Compare(text);
            if (order == 0)
            {
                found = true;
                return mid;
            }
            if (order < 0)
                low = mid + 1;
            else
                high = mid;
        }
        found = false;
        return low;
    }

    ~Table()
    {
        for (Proxy* proxy : entries)
            proxy->Release();
    }
};

// Creation of a table is guarded, so that two threads interning their first
// strings at once cannot both build one.
std::mutex s_creation;
std::atomic<Table<AString>*> s_narrow{nullptr};
std::atomic<Table<WString>*> s_wide{nullptr};

template <typename S> std::atomic<Table<S>*>& Slot();
template <> std::atomic<Table<AString>*>& Slot<AString>() { return s_narrow; }
template <> std::atomic<Table<WString>*>& Slot<WString>() { return s_wide; }

template <typename S>
Table<S>& GetTable()
{
    auto& slot = Slot<S>();
    Table<S>* table = slot.load(std::memory_order_acquire);
    if (table)
        return *table;
    std::lock_guard<std::mutex> guard(s_creation);
    table = slot.load(std::memory_order_relaxed);
    if (!table)
    {
        table = new Table<S>();
        slot.store(table, std::memory_order_release);
    }
    return *table;
}

template <typename S>
void Collect()
{
    std::lock_guard<std::mutex> guard(s_creation);
    Table<S>* table = Slot<S>().load(std::memory_order_acquire);
    if (!table)
        return;
    CriticalSection::Scope scope(table->lock);
    auto& entries = table->entries;
    for (unsigned i = 0; i < entries.Count();)
    {
        if (entries[i]->GetRefCount() == 1)
        {
            entries[i]->Release();
            entries.RemoveAt(i);
        }
        else
            ++i;
    }
}

template <typename S>
void DestroyTable()
{
    std::lock_guard<std::mutex> guard(s_creation);
    delete Slot<S>().exchange(nullptr, std::memory_order_acq_rel);
}

} // namespace

template <typename S>
void SharedStringPool::InitProxy(Ptr<typename TSharedString<S>::Proxy>& proxy, const S& text)
{
    Table<S>& table = GetTable<S>();
    CriticalSection::Scope scope(table.lock);
    bool found;
    unsigned position = table.LowerBound(text, found);
    if (found)
    {
        proxy = table.entries[position];
        return;
    }
    auto* created = new typename TSharedString<S>::Proxy(text);
    created->AddRef();
    if (!table.entries.Insert(position, created))
    {
        // The table could not grow: the string still works, un-interned.
        proxy = created;
        created->Release();
        return;
    }
    proxy = created;
}

template KOVEX_API void SharedStringPool::InitProxy<AString>(Ptr<TSharedString<AString>::Proxy>&, const AString&);
template KOVEX_API void SharedStringPool::InitProxy<WString>(Ptr<TSharedString<WString>::Proxy>&, const WString&);

void SharedStringPool::PerformGarbageCollection()
{
    Collect<AString>();
    Collect<WString>();
}

void SharedStringPool::Destroy()
{
    DestroyTable<AString>();
    DestroyTable<WString>();
}

unsigned SharedStringPool::GetCount(bool wide)
{
    std::lock_guard<std::mutex> guard(s_creation);
    if (wide)
    {
        Table<WString>* table = s_wide.load();
        return table ? table->entries.Count() : 0;
    }
    Table<AString>* table = s_narrow.load();
    return table ? table->entries.Count() : 0;
}

} // namespace KovexEngine
