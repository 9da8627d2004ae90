#pragma once

#include "reflection/Class.h"

namespace KovexEngine {

// A depth-first walk over a tree whose nodes hold their children in a
// container. `Children` maps a node to (count, child at index).
template <typename Node, typename Children>
class TCompositeIterator
{
public:
    TCompositeIterator(Node start, bool includeStart)
    {
        if (includeStart)
            m_pending = start, m_hasPending = true;
        else
            Push(start);
    }

    bool hasNext()
    {
        if (m_hasPending)
            return true;
        while (!m_stack.IsEmpty() && m_stack.Last().position >= Children::Count(m_stack.Last().node))
            m_stack.Pop();
        return !m_stack.IsEmpty();
    }

    Node Next()
    {
        Node result;
        if (m_hasPending)
        {
            result = m_pending;
            m_hasPending = false;
        }
        else
        {
            if (!hasNext())
                return Node();
            Level& top = m_stack.Last();
            result = Children::At(top.node, top.position++);
        }
        Push(result);
        return result;
    }

private:
    struct Level
    {
        Node node{};
        unsigned position = 0;
    };

    void Push(Node node)
    {
        if (node && Children::Count(node))
            m_stack.Add(Level{node, 0});
    }

    TArray<Level> m_stack{8};
    Node m_pending{};
    bool m_hasPending = false;
};

struct BaseClassChildren
{
    static unsigned Count(const Class* c) { return c->GetBaseClasses().Count(); }
    static const Class* At(const Class* c, unsigned i) { return c->GetBaseClasses()[i].key; }
};

struct DerivedClassChildren
{
    static unsigned Count(const Class* c) { return c->GetDerivedClasses().Count(); }
    static const Class* At(const Class* c, unsigned i) { return c->GetDerivedClasses()[i]; }
};

// Walks the bases above a class, depth first (the class itself first when asked).
using BaseClassIterator = TCompositeIterator<const Class*, BaseClassChildren>;
// Walks the classes derived from a class, depth first.
using DerivedClassIterator = TCompositeIterator<const Class*, DerivedClassChildren>;

// Walks the members of a class and then those of each base (depth first),
// reading each class's members through `getter`, for instance
//   TFieldIterator<const Property, TArray<const Property*>> it(cls, &Class::GetPropertyArray);
template <typename Member, typename Container>
class TFieldIterator
{
public:
    using Getter = const Container& (Class::*)() const;

    TFieldIterator(const Class* cls, Getter getter) : m_classes(cls, true), m_getter(getter) {}

    bool hasNext()
    {
        while (!m_members || m_index >= m_members->Count())
        {
            if (!m_classes.hasNext())
                return false;
            const Class* next = m_classes.Next();
            m_members = next ? &(next->*m_getter)() : nullptr;
            m_index = 0;
        }
        return true;
    }

    Member* Next() { return hasNext() ? At(*m_members, m_index++) : nullptr; }

private:
    template <typename T>
    static Member* At(const TArray<T*>& members, unsigned index) { return members[index]; }
    template <typename K, typename T>
    static Member* At(const TMap<K, T*>& members, unsigned index) { return members[index].value; }

    BaseClassIterator m_classes;
    Getter m_getter;
    const Container* m_members = nullptr;
    unsigned m_index = 0;
};

using PropertyIterator = TFieldIterator<const Property, TArray<const Property*>>;
using FunctionIterator = TFieldIterator<const Function, TMap<WString, const Function*>>;

} // namespace KovexEngine
