#pragma once

#include "io/Stream.h"
#include "kernel/Containers.h"

namespace KovexEngine {

// Where a resource factory keeps what it has loaded, by path. The cache does
// not own its values: a resource leaves its cache when it is destroyed.
// Threads: a cache has no lock of its own; its factory calls it under the
// factory's lock.
template <typename K, typename V>
class CacheInterface
{
public:
    using DateTime = Stream::DateTime;
    // Gives `stored` the contents of `value`, so that every holder of the
    // cached object sees a replacement; true when it did. `context` is the
    // one given to Replace.
    using CopyFunction = bool (*)(V stored, V value, void* context);
    using EachFunction = void (*)(V value, void* context);

    virtual ~CacheInterface() = default;
    virtual void Add(V value, const K& key, const DateTime& date) = 0;
    // Only the entry of that very value goes.
    virtual void Remove(V value, const K& key) = 0;
    virtual V Find(const K& key, const DateTime& date) const = 0;
    // Hands every value to `each`, then forgets them all.
    virtual void Clear(EachFunction each, void* context) = 0;
    virtual bool Replace(const K& key, V value, void* context) = 0;

    void SetCopyFunction(CopyFunction copy) { m_copy = copy; }

protected:
    CopyFunction m_copy = nullptr;
};

// One value per key; dates are ignored.
template <typename K, typename V>
class DefaultCacheInterface final : public CacheInterface<K, V>
{
public:
    using typename CacheInterface<K, V>::DateTime;
    using typename CacheInterface<K, V>::EachFunction;

    void Add(V value, const K& key, const DateTime&) override { m_table.Set(key, value); }
    void Remove(V value, const K& key) override
    {
        const V* stored = m_table.FindValue(key);
        if (stored && *stored == value)
            m_table.Remove(key);
    }
    V Find(const K& key, const DateTime&) const override
    {
        const V* stored = m_table.FindValue(key);
        return stored ? *stored : V();
    }
    void Clear(EachFunction each, void* context) override
    {
        TMap<K, V> taken;
        taken.Swap(m_table);
        if (each)
            for (auto& pair : taken)
                each(pair.value, context);
    }
    bool Replace(const K& key, V value, void* context) override
    {
        const V* stored = m_table.FindValue(key);
        return stored && value && this->m_copy && this->m_copy(*stored, value, context);
    }
    unsigned Count() const { return m_table.Count(); }

private:
    TMap<K, V> m_table;
};

// Several versions per key, by the file date each was loaded from: a file
// changed on disk misses and is loaded anew, while objects of the older
// version stay valid for those who hold them. A look-up without a date gets
// the newest.
template <typename K, typename V>
class TimeMaskedCacheInterface final : public CacheInterface<K, V>
{
public:
    using typename CacheInterface<K, V>::DateTime;
    using typename CacheInterface<K, V>::EachFunction;

    void Add(V value, const K& key, const DateTime& date) override
    {
        TArray<Version>* versions = m_versions.FindValue(key);
        if (!versions)
        {
            m_versions.Set(key, TArray<Version>());
            versions = m_versions.FindValue(key);
        }
        unsigned at = 0;
        while (at < versions->Count() && !(date < (*versions)[at].date))
            ++at;
        versions->Insert(at, Version{date, value});
        Head* head = m_heads.FindValue(key);
        if (!head)
            m_heads.Set(key, Head{date, value});
        else if (head->date < date)
            *head = Head{date, value};
    }

    void Remove(V value, const K& key) override
    {
        TArray<Version>* versions = m_versions.FindValue(key);
        if (!versions)
            return;
        for (unsigned i = 0; i < versions->Count(); ++i)
            if ((*versions)[i].value == value)
            {
                versions->RemoveAt(i);
                break;
            }
        if (versions->IsEmpty())
        {
            m_versions.Remove(key);
            m_heads.Remove(key);
            return;
        }
        Head* head = m_heads.FindValue(key);
        if (head && head->value == value)
            *head = Head{versions->Last().date, versions->Last().value};
    }

    V Find(const K& key, const DateTime& date) const override
    {
        if (date == DateTime::Invalid)
        {
            const Head* head = m_heads.FindValue(key);
            return head ? head->value : V();
        }
        if (const TArray<Version>* versions = m_versions.FindValue(key))
            for (const Version& version : *versions)
                if (version.date == date)
                    return version.value;
        return V();
    }

    void Clear(EachFunction each, void* context) override
    {
        TMap<K, TArray<Version>> taken;
        taken.Swap(m_versions);
        m_heads.Clear();
        if (each)
            for (auto& pair : taken)
                for (const Version& version : pair.value)
                    each(version.value, context);
    }

    // Versions that take the new contents are re-dated to Zero, so that no
    // file date matches them again; the newest remaining becomes the head.
    bool Replace(const K& key, V value, void* context) override
    {
        TArray<Version>* versions = m_versions.FindValue(key);
        Head* head = m_heads.FindValue(key);
        if (!value || !this->m_copy || !versions || !head || versions->Count() < 2)
            return false;
        TArray<Version> kept, copied;
        for (const Version& version : *versions)
            (this->m_copy(version.value, value, context) ? copied : kept).Add(version);
        if (copied.IsEmpty())
            return false;
        for (Version& version : copied)
            version.date = DateTime::Zero;
        for (const Version& version : kept)
            copied.Add(version); // Zero sorts before any real date
        versions->Swap(copied);
        *head = Head{versions->Last().date, versions->Last().value};
        return true;
    }

    unsigned VersionCount(const K& key) const
    {
        const TArray<Version>* versions = m_versions.FindValue(key);
        return versions ? versions->Count() : 0;
    }

private:
    struct Head
    {
        DateTime date;
        V value;
    };
    struct Version
    {
        DateTime date;
        V value;
    };
    TMap<K, Head> m_heads;
    TMap<K, TArray<Version>> m_versions;
};

} // namespace KovexEngine
