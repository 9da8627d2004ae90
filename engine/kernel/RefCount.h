#pragma once

#include <atomic>
#include <type_traits>

#include "kernel/Types.h"

namespace KovexEngine {

// Root of the engine's classes: objects that own their allocation.
class HeapObject
{
};

// An object that counts its own references. A new object has a count of 0
// and belongs to the first Ptr that takes it, which deletes it at the end:
// so it must come from `new`. In debug builds (no NDEBUG) the first
// reference to an object that lies on the calling thread's stack ends the
// process with a message, instead of a later free of a non-heap address.
class KOVEX_API ReferenceObj : public HeapObject
{
public:
    ReferenceObj() = default;
    // A copy is a new object: it starts unowned, whatever the source's count.
    ReferenceObj(const ReferenceObj&) : m_refCount(0) {}
    // Assignment copies the value of a derived object, never its owners.
    ReferenceObj& operator=(const ReferenceObj&) { return *this; }
    virtual ~ReferenceObj();

    void AddRef() const
    {
#ifdef NDEBUG
        m_refCount.fetch_add(1, std::memory_order_relaxed);
#else
        if (m_refCount.fetch_add(1, std::memory_order_relaxed) == 0)
            CheckNotOnStack();
#endif
    }
    // Ends the process with a message when this object lies on the calling
    // thread's stack, where no Ptr may own it. Safe from any thread.
    void CheckNotOnStack() const;
    void Release() const
    {
        if (m_refCount.fetch_sub(1, std::memory_order_acq_rel) == 1)
            delete this;
    }
    int32 GetRefCount() const { return m_refCount.load(std::memory_order_relaxed); }
    // Drops a reference unless it is the last one: true when dropped, false
    // (count untouched) when the caller holds the only reference. Lets an
    // owner decide what the last release does (graphics objects hand
    // themselves to their factory) without a race between two releasers.
    bool ReleaseUnlessLast() const
    {
        int32 count = m_refCount.load(std::memory_order_relaxed);
        while (count > 1)
            if (m_refCount.compare_exchange_weak(count, count - 1, std::memory_order_acq_rel))
                return true;
        return false;
    }
    // Takes a reference only while another still exists: how a weak table
    // (a cache of raw pointers) hands out an object that may be dying.
    bool TryAddRef() const
    {
        int32 count = m_refCount.load(std::memory_order_relaxed);
        while (count > 0)
            if (m_refCount.compare_exchange_weak(count, count + 1, std::memory_order_acq_rel))
                return true;
        return false;
    }

private:
    mutable std::atomic<int32> m_refCount{0};
};

// Intrusive owning pointer. Assignment takes the new reference before it lets
// the old one go, so assigning an object that only the old one kept alive is
// safe.
template <typename T>
class Ptr
{
public:
    Ptr() = default;
    Ptr(T* object) : m_object(object) { if (m_object) m_object->AddRef(); }
    Ptr(const Ptr& other) : Ptr(other.m_object) {}
    Ptr(Ptr&& other) noexcept : m_object(other.m_object) { other.m_object = nullptr; }
    template <typename U> requires std::is_convertible_v<U*, T*>
    Ptr(const Ptr<U>& other) : Ptr(other.Get()) {}
    ~Ptr() { if (m_object) m_object->Release(); }

    Ptr& operator=(T* object)
    {
        if (object != m_object)
        {
            if (object)
                object->AddRef();
            T* old = m_object;
            m_object = object;
            if (old)
                old->Release();
        }
        return *this;
    }
    Ptr& operator=(const Ptr& other) { return *this = other.m_object; }
    Ptr& operator=(Ptr&& other) noexcept
    {
        if (this != &other)
        {
            T* old = m_object;
            m_object = other.m_object;
            other.m_object = nullptr;
            if (old)
                old->Release();
        }
        return *this;
    }

    // Takes over a reference that the caller already holds, without adding one.
    static Ptr Adopt(T* object)
    {
        Ptr p;
        p.m_object = object;
        return p;
    }
    // Gives up the reference without releasing it; the caller now holds it.
    T* Detach()
    {
        T* object = m_object;
        m_object = nullptr;
        return object;
    }

    T* Get() const { return m_object; }
    T* operator->() const { return m_object; }
    T& operator*() const { return *m_object; }
    T* operator()() const { return m_object; }
    operator T*() const { return m_object; }

private:
    T* m_object = nullptr;
};

// Owning pointer to an object that is only read through it.
template <typename T>
using ConstPtr = Ptr<const T>;

} // namespace KovexEngine
