#pragma once

// A vertex layout, and the manager that makes each layout once so that
// layouts compare by pointer (which is what lets them key buffer pools).
//
// Threads: a VertexDecl is immutable once made, readable from any thread.
// VertexDeclManager::Create and Count are safe from any thread (one lock);
// Destroy belongs to the renderer's teardown, when nobody creates.

#include "graphics/VertexElement.h"
#include "kernel/Containers.h"
#include "kernel/CriticalSection.h"
#include "kernel/RefCount.h"

namespace KovexEngine {

class KOVEX_API VertexDecl : public ReferenceObj
{
public:
    static constexpr unsigned kMaxSlots = 16;

    VertexDecl(const VertexElement* elements, unsigned count);

    const TArray<VertexElement>& GetElements() const { return m_elements; }
    const VertexElement& GetElement(unsigned index) const { return m_elements[index]; }
    const VertexElement* FirstElement() const { return m_elements.IsEmpty() ? nullptr : &m_elements[0]; }
    unsigned ElementCount() const { return m_elements.Count(); }
    // Bytes per vertex of each input slot (0..15).
    const uint32* GetFirstStride() const { return m_strides; }
    // First element with this semantic and index, or null.
    const VertexElement* FindElement(GraphicsSemantic semantic, uint32 index) const;
    // Element for element, order counting.
    bool Equal(const VertexElement* elements, unsigned count) const;

private:
    // Sum of VertexElement::ElementSize per slot; elements of a slot above
    // 15 count nowhere.
    void CalcStreamStride();

    TArray<VertexElement> m_elements;
    uint32 m_strides[kMaxSlots] = {};
};

class KOVEX_API VertexDeclManager
{
public:
    static VertexDeclManager* Ins();
    static void Destroy();

    // The one declaration of these elements; null for no elements.
    Ptr<VertexDecl> Create(const VertexElement* elements, unsigned count);
    Ptr<VertexDecl> Create(const TArray<VertexElement>& elements) { return Create(elements.begin(), elements.Count()); }
    unsigned Count();

private:
    VertexDeclManager() = default;
    TArray<Ptr<VertexDecl>> m_decls;
    CriticalSection m_lock;
};

} // namespace KovexEngine
