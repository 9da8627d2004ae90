#pragma once

#include <new>
#include <type_traits>
#include <utility>

#include "kernel/Types.h"

namespace KovexEngine {

// Contiguous growing array. Storage is made with new T[], so every slot up to
// the capacity holds a constructed element; elements are assigned, never
// copied as raw memory, so strings and Ptr keep their counts right.
template <typename T>
class TArray
{
public:
    // Largest element count an array accepts; a request beyond it fails
    // instead of attempting an absurd allocation.
    static constexpr unsigned kMaxCount = 0x7FFFFFFFu / (sizeof(T) < 16 ? 1u : unsigned(sizeof(T) / 16));

    explicit TArray(unsigned growSize = 16) : m_growSize(growSize ? growSize : 16) {}
    TArray(const TArray& other) : m_growSize(other.m_growSize) { *this = other; }
    TArray(TArray&& other) noexcept { Swap(other); m_growSize = other.m_growSize; }
    ~TArray() { delete[] m_data; }

    TArray& operator=(const TArray& other)
    {
        if (this != &other)
        {
            Clear();
            if (Reserve(other.m_count))
            {
                for (unsigned i = 0; i < other.m_count; ++i)
                    m_data[i] = other.m_data[i];
                m_count = other.m_count;
            }
        }
        return *this;
    }
    TArray& operator=(TArray&& other) noexcept
    {
        if (this != &other)
        {
            Free();
            Swap(other);
        }
        return *this;
    }

    void Swap(TArray& other) noexcept
    {
        std::swap(m_data, other.m_data);
        std::swap(m_count, other.m_count);
        std::swap(m_growSize, other.m_growSize);
        std::swap(m_capacity, other.m_capacity);
    }

    unsigned Count() const { return m_count; }
    unsigned Capacity() const { return m_capacity; }
    unsigned GrowSize() const { return m_growSize; }
    void SetGrowSize(unsigned growSize) { m_growSize = growSize ? growSize : 16; }
    bool IsEmpty() const { return m_count == 0; }

    T& operator[](unsigned index) { return m_data[index]; }
    const T& operator[](unsigned index) const { return m_data[index]; }
    T* Data() { return m_data; }
    const T* Data() const { return m_data; }
    T* begin() { return m_data; }
    T* end() { return m_data + m_count; }
    const T* begin() const { return m_data; }
    const T* end() const { return m_data + m_count; }
    T& Last() { return m_data[m_count - 1]; }
    const T& Last() const { return m_data[m_count - 1]; }

    // Makes the capacity exactly `count` when it is larger than now. False,
    // with nothing changed, when the storage cannot be had.
    bool Reserve(unsigned count)
    {
        if (count <= m_capacity)
            return true;
        if (count > kMaxCount)
            return false;
        T* data = new (std::nothrow) T[count];
        if (!data)
            return false;
        for (unsigned i = 0; i < m_count; ++i)
            data[i] = std::move(m_data[i]);
        delete[] m_data;
        m_data = data;
        m_capacity = count;
        return true;
    }

    // Appends and returns the new index, or kNotFound if the array could not grow.
    unsigned Add(const T& value)
    {
        if (m_count == m_capacity)
        {
            // `value` may live in this array: keep a copy across the growth.
            T copy(value);
            if (!Grow())
                return kNotFound;
            m_data[m_count] = std::move(copy);
        }
        else
            m_data[m_count] = value;
        return m_count++;
    }
    unsigned Add(T&& value)
    {
        if (m_count == m_capacity && !Grow())
            return kNotFound;
        m_data[m_count] = std::move(value);
        return m_count++;
    }
    // Appends a default element and returns it; the array must be able to grow.
    T* AddNew()
    {
        if (m_count == m_capacity && !Grow())
            return nullptr;
        m_data[m_count] = T();
        return &m_data[m_count++];
    }

    // Inserts before `index` (at the end when index >= count).
    bool Insert(unsigned index, const T& value)
    {
        if (index >= m_count)
            return Add(value) != kNotFound;
        T copy(value);
        if (!MoveTail(index, index + 1))
            return false;
        m_data[index] = std::move(copy);
        return true;
    }

    // Moves everything from `from` on so that it starts at `to`, growing by
    // doubling as needed and clearing the slots left behind when moving down;
    // the count becomes count + to - from.
    bool MoveTail(unsigned from, unsigned to)
    {
        if (from > m_count || from == to)
            return from <= m_count;
        if (to > from)
        {
            unsigned shift = to - from;
            if (shift > kMaxCount - m_count)
                return false;
            unsigned needed = m_count + shift;
            unsigned capacity = m_capacity ? m_capacity : m_growSize;
            while (capacity < needed)
                capacity = capacity > kMaxCount / 2 ? kMaxCount : capacity * 2;
            if (!Reserve(capacity))
                return false;
            for (unsigned i = m_count; i-- > from;)
                m_data[i + shift] = std::move(m_data[i]);
            m_count = needed;
        }
        else
        {
            unsigned shift = from - to;
            for (unsigned i = from; i < m_count; ++i)
                m_data[i - shift] = std::move(m_data[i]);
            for (unsigned i = m_count - shift; i < m_count; ++i)
                m_data[i] = T();
            m_count -= shift;
        }
        return true;
    }

    void RemoveAt(unsigned index)
    {
        if (index >= m_count)
            return;
        if (index + 1 == m_count)
            m_data[--m_count] = T();
        else
            MoveTail(index + 1, index);
    }
    void RemoveRange(unsigned index, unsigned count)
    {
        if (index >= m_count || count == 0)
            return;
        if (count > m_count - index)
            count = m_count - index;
        MoveTail(index + count, index);
    }
    // Removes the first element equal to `value`.
    bool Remove(const T& value)
    {
        unsigned index = Find(value);
        if (index == kNotFound)
            return false;
        RemoveAt(index);
        return true;
    }
    unsigned Find(const T& value) const
    {
        for (unsigned i = 0; i < m_count; ++i)
            if (m_data[i] == value)
                return i;
        return kNotFound;
    }
    void Pop()
    {
        if (m_count)
            m_data[--m_count] = T();
    }

    // Grows (to exactly `count` slots if needed) or shrinks, clearing
    // elements that fall off the end.
    bool SetCount(unsigned count)
    {
        if (count > m_capacity && !Reserve(count))
            return false;
        for (unsigned i = count; i < m_count; ++i)
            m_data[i] = T();
        m_count = count;
        return true;
    }

    // Empties every element and keeps the storage.
    void Clear()
    {
        for (unsigned i = 0; i < m_count; ++i)
            m_data[i] = T();
        m_count = 0;
    }
    // Destroys the elements and releases the storage.
    void Free()
    {
        delete[] m_data;
        m_data = nullptr;
        m_count = 0;
        m_capacity = 0;
    }

private:
    bool Grow()
    {
        unsigned capacity = m_capacity ? (m_capacity > kMaxCount / 2 ? kMaxCount : m_capacity * 2) : m_growSize;
        return capacity > m_capacity && Reserve(capacity);
    }

    T* m_data = nullptr;
    unsigned m_count = 0;
    unsigned m_growSize = 16;
    unsigned m_capacity = 0;
};

// An array used at its end.
template <typename T>
class TStack : public TArray<T>
{
public:
    void Push(const T& value) { this->Add(value); }
    T& Top() { return this->Last(); }
    const T& Top() const { return this->Last(); }
    void Pop() { TArray<T>::Pop(); }
};

template <typename K, typename V>
struct TPair
{
    K key{};
    V value{};
};

// A sorted array of pairs with binary search; duplicates are allowed and an
// insertion never overwrites. Cheap to iterate and dense in memory, with
// insertion linear in the count: meant for maps filled once.
template <typename K, typename V>
class TMap
{
public:
    using Pair = TPair<K, V>;

    unsigned Count() const { return m_pairs.Count(); }
    bool IsEmpty() const { return m_pairs.IsEmpty(); }
    Pair& operator[](unsigned index) { return m_pairs[index]; }
    const Pair& operator[](unsigned index) const { return m_pairs[index]; }
    Pair* begin() { return m_pairs.begin(); }
    Pair* end() { return m_pairs.end(); }
    const Pair* begin() const { return m_pairs.begin(); }
    const Pair* end() const { return m_pairs.end(); }

    // When set, insertions append without regard to order (and searches are
    // then meaningless until the map is rebuilt).
    void SetUnsorted(bool unsorted) { m_unsorted = unsorted; }
    bool IsUnsorted() const { return m_unsorted; }
    void Swap(TMap& other) noexcept
    {
        m_pairs.Swap(other.m_pairs);
        bool unsorted = m_unsorted;
        m_unsorted = other.m_unsorted;
        other.m_unsorted = unsorted;
    }

    // Index of a pair with this key, or kNotFound. With a run of equal keys
    // any one of them may be found.
    unsigned Find(const K& key) const
    {
        if (m_pairs.IsEmpty())
            return kNotFound;
        unsigned low = 0, high = m_pairs.Count() - 1;
        for (;;)
        {
            unsigned n = high - low + 1;
            unsigned mid = low + n / 2 - ((n & 1) ? 0 : 1);
            const K& probe = m_pairs[mid].key;
            if (key == probe)
                return mid;
            if (key < probe)
            {
                if (mid == low)
                    return kNotFound;
                high = mid - 1;
            }
            else
            {
                if (mid == high)
                    return kNotFound;
                low = mid + 1;
            }
        }
    }
    V* FindValue(const K& key)
    {
        unsigned index = Find(key);
        return index == kNotFound ? nullptr : &m_pairs[index].value;
    }
    const V* FindValue(const K& key) const
    {
        unsigned index = Find(key);
        return index == kNotFound ? nullptr : &m_pairs[index].value;
    }
    bool Contains(const K& key) const { return Find(key) != kNotFound; }

    // Inserts behind any pairs of an equal key. True when the key was new.
    bool Insert(const K& key, const V& value)
    {
        Pair pair{key, value};
        if (m_unsorted)
        {
            m_pairs.Add(std::move(pair));
            return true;
        }
        unsigned position = UpperBound(key);
        bool isNew = position == 0 || !(m_pairs[position - 1].key == key);
        m_pairs.Insert(position, pair);
        return isNew;
    }
    // Sets the value of a present key (the one a search reaches) or inserts.
    bool Set(const K& key, const V& value)
    {
        unsigned index = Find(key);
        if (index == kNotFound)
        {
            unsigned count = m_pairs.Count();
            Insert(key, value);
            return m_pairs.Count() != count;
        }
        m_pairs[index].value = value;
        return true;
    }
    bool Remove(const K& key)
    {
        unsigned index = Find(key);
        if (index == kNotFound)
            return false;
        m_pairs.RemoveAt(index);
        return true;
    }
    void RemoveAt(unsigned index) { m_pairs.RemoveAt(index); }
    void Clear() { m_pairs.Clear(); }
    void Free() { m_pairs.Free(); }
    bool Reserve(unsigned count) { return m_pairs.Reserve(count); }

private:
    unsigned UpperBound(const K& key) const
    {
        unsigned low = 0, high = m_pairs.Count();
        while (low < high)
        {
            unsigned mid = low + (high - low) / 2;
            if (key < m_pairs[mid].key)
                high = mid;
            else
                low = mid + 1;
        }
        return low;
    }

    TArray<Pair> m_pairs;
    bool m_unsorted = false;
};

// Named objects in their given order, with a name index rebuilt on demand.
// T is a pointer-like type whose target has GetName() returning the name
// (a WString). Any change to the order or the set of items drops the index.
template <typename T, typename Name = decltype(std::declval<T&>()->GetName())>
class TResNamedMap
{
public:
    using NameType = std::remove_cv_t<std::remove_reference_t<Name>>;

    unsigned Count() const { return m_items.Count(); }
    T& operator[](unsigned index) { return m_items[index]; }
    const T& operator[](unsigned index) const { return m_items[index]; }
    const T* begin() const { return m_items.begin(); }
    const T* end() const { return m_items.end(); }
    const TArray<T>& Items() const { return m_items; }

    unsigned Add(const T& item)
    {
        m_index.Clear();
        return m_items.Add(item);
    }
    bool Insert(unsigned index, const T& item)
    {
        m_index.Clear();
        return m_items.Insert(index, item);
    }
    void RemoveAt(unsigned index)
    {
        m_index.Clear();
        m_items.RemoveAt(index);
    }
    bool Remove(const T& item)
    {
        m_index.Clear();
        return m_items.Remove(item);
    }
    void Clear()
    {
        m_index.Clear();
        m_items.Clear();
    }

    // Drops the index: an item's name has changed.
    void Invalidate() { m_index.Clear(); }

    // Position of an item of this name, or kNotFound.
    unsigned FindIndex(const NameType& name) const
    {
        if (m_index.Count() != m_items.Count())
            Rebuild();
        const unsigned* position = m_index.FindValue(name);
        return position ? *position : kNotFound;
    }
    T* Find(const NameType& name)
    {
        unsigned index = FindIndex(name);
        return index == kNotFound ? nullptr : &m_items[index];
    }

private:
    void Rebuild() const
    {
        m_index.Clear();
        m_index.Reserve(m_items.Count());
        for (unsigned i = 0; i < m_items.Count(); ++i)
            m_index.Insert(m_items[i]->GetName(), i);
    }

    TArray<T> m_items;
    mutable TMap<NameType, unsigned> m_index;
};

} // namespace KovexEngine
