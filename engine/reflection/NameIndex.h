#pragma once

#include "kernel/Containers.h"
#include "kernel/Strings.h"

namespace KovexEngine {

// A hash index from member names to members, beside the sorted maps: one
// hash of the asked name and usually one comparison. T has GetName().
template <typename T>
class TNameIndex
{
public:
    void Add(const T* item)
    {
        if ((m_count + 1) * 2 > m_slots.Count())
            Grow();
        Place(item, item->GetName().HashCode());
        ++m_count;
    }

    // The first member added under this name, or null.
    const T* Find(const WString& name) const
    {
        if (m_slots.IsEmpty())
            return nullptr;
        unsigned hash = name.HashCode();
        unsigned mask = m_slots.Count() - 1;
        for (unsigned i = hash & mask;; i = (i + 1) & mask)
        {
            const Slot& slot = m_slots[i];
            if (!slot.item)
                return nullptr;
            if (slot.hash == hash && slot.item->GetName() == name)
                return slot.item;
        }
    }

private:
    struct Slot
    {
        unsigned hash = 0;
        const T* item = nullptr;
    };

    void Place(const T* item, unsigned hash)
    {
        unsigned mask = m_slots.Count() - 1;
        unsigned i = hash & mask;
        while (m_slots[i].item)
            i = (i + 1) & mask;
        m_slots[i] = Slot{hash, item};
    }

    void Grow()
    {
        TArray<Slot> old;
        old.Swap(m_slots);
        unsigned size = old.Count() ? old.Count() * 2 : 16;
        m_slots.SetCount(size);
        for (const Slot& slot : old)
            if (slot.item)
                Place(slot.item, slot.hash);
    }

    TArray<Slot> m_slots;
    unsigned m_count = 0;
};

} // namespace KovexEngine
