#pragma once

#include "kernel/RefCount.h"
#include "kernel/Strings.h"

namespace KovexEngine {

// An interned, immutable string: equal texts share one proxy, so two shared
// strings compare by pointer.
template <typename S>
class TSharedString
{
public:
    class Proxy : public ReferenceObj
    {
    public:
        explicit Proxy(const S& text) : m_text(text) {}
        const S& Text() const { return m_text; }

    private:
        S m_text;
    };

    TSharedString() = default;
    TSharedString(const typename S::CharType* text);
    explicit TSharedString(const S& text);

    const S& Get() const { return m_proxy ? m_proxy->Text() : S::EmptyString; }
    const S& operator*() const { return Get(); }
    const S* operator->() const { return &Get(); }
    const typename S::CharType* c_str() const { return Get()(); }
    bool IsEmpty() const { return Get().IsEmpty(); }
    const Proxy* GetProxy() const { return m_proxy.Get(); }

    bool operator==(const TSharedString& other) const { return m_proxy.Get() == other.m_proxy.Get(); }
    bool operator!=(const TSharedString& other) const { return m_proxy.Get() != other.m_proxy.Get(); }

private:
    Ptr<Proxy> m_proxy;
};

// The two tables of interned strings, each sorted by text and guarded by a
// spinning lock. Safe from any thread.
class KOVEX_API SharedStringPool
{
public:
    template <typename S>
    static void InitProxy(Ptr<typename TSharedString<S>::Proxy>& proxy, const S& text);

    // Drops every entry that only the table still refers to.
    static void PerformGarbageCollection();
    // Deletes the tables and their locks; interning afterwards builds new ones.
    static void Destroy();
    // Entries in a table (for diagnostics and tests).
    static unsigned GetCount(bool wide);
};

extern template KOVEX_API void SharedStringPool::InitProxy<AString>(Ptr<TSharedString<AString>::Proxy>&, const AString&);
extern template KOVEX_API void SharedStringPool::InitProxy<WString>(Ptr<TSharedString<WString>::Proxy>&, const WString&);

template <typename S>
TSharedString<S>::TSharedString(const typename S::CharType* text)
{
    SharedStringPool::InitProxy<S>(m_proxy, S(text));
}

template <typename S>
TSharedString<S>::TSharedString(const S& text)
{
    SharedStringPool::InitProxy<S>(m_proxy, text);
}

} // namespace KovexEngine
