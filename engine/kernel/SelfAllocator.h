#pragma once

#include <new>

#include "kernel/Containers.h"

namespace KovexEngine {

// A free list of raw blocks for one type: after warm-up, New and Delete cost
// no allocation. No constructor or destructor runs; callers place and
// destroy objects themselves. Not thread-safe: one thread only.
template <typename T>
class TSelfAllocator
{
public:
    static T* New()
    {
        State& state = GetState();
        if (!state.free.IsEmpty())
        {
            T* block = state.free.Last();
            state.free.Pop();
            return block;
        }
        T* block = static_cast<T*>(::operator new(sizeof(T), std::align_val_t(alignof(T)), std::nothrow));
        if (block && state.all.Add(block) == kNotFound)
        {
            ::operator delete(block, std::align_val_t(alignof(T)));
            return nullptr;
        }
        return block;
    }

    static void Delete(T* block)
    {
        if (block)
            GetState().free.Add(block);
    }

    static unsigned GetBlockCount() { return GetState().all.Count(); }
    static unsigned GetFreeCount() { return GetState().free.Count(); }

private:
    struct State
    {
        TArray<T*> all;
        TArray<T*> free;
        // Every block ever made goes back at process exit.
        ~State()
        {
            for (T* block : all)
                ::operator delete(block, std::align_val_t(alignof(T)));
        }
    };

    static State& GetState()
    {
        static State state;
        return state;
    }
};

} // namespace KovexEngine
