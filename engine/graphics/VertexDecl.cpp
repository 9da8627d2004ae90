#include "graphics/VertexDecl.h"

#include <atomic>

namespace KovexEngine {

VertexDecl::VertexDecl(const VertexElement* elements, unsigned count)
{
    m_elements.Reserve(count);
    for (unsigned i = 0; i < count; ++i)
        m_elements.Add(elements[i]);
    CalcStreamStride();
}

void VertexDecl::CalcStreamStride()
{
    for (uint32& stride : m_strides)
        stride = 0;
    for (const VertexElement& e : m_elements)
        if (e.InputSlot < kMaxSlots)
            m_strides[e.InputSlot] += e.GetStride();
}

const VertexElement* VertexDecl::FindElement(GraphicsSemantic semantic, uint32 index) const
{
    for (const VertexElement& e : m_elements)
        if (e.SemanticName == semantic && e.SemanticIndex == index)
            return &e;
    return nullptr;
}

bool VertexDecl::Equal(const VertexElement* elements, unsigned count) const
{
    if (count != m_elements.Count())
        return false;
    for (unsigned i = 0; i < count; ++i)
        if (m_elements[i] != elements[i])
            return false;
    return true;
}

namespace {
std::atomic<VertexDeclManager*> s_manager{nullptr};
CriticalSection s_managerLock;
} // namespace

VertexDeclManager* VertexDeclManager::Ins()
{
    VertexDeclManager* manager = s_manager.load(std::memory_order_acquire);
    if (manager)
        return manager;
    CriticalSection::Scope lock(s_managerLock);
    manager = s_manager.load(std::memory_order_acquire);
    if (!manager)
    {
        manager = new VertexDeclManager();
        s_manager.store(manager, std::memory_order_release);
    }
    return manager;
}

void VertexDeclManager::Destroy()
{
    CriticalSection::Scope lock(s_managerLock);
    delete s_manager.exchange(nullptr, std::memory_order_acq_rel);
}

Ptr<VertexDecl> VertexDeclManager::Create(const VertexElement* elements, unsigned count)
{
    if (!elements || count == 0)
        return Ptr<VertexDecl>();
    CriticalSection::Scope lock(m_lock);
    for (const Ptr<VertexDecl>& decl : m_decls)
        if (decl->Equal(elements, count))
            return decl;
    Ptr<VertexDecl> decl(new VertexDecl(elements, count));
    m_decls.Add(decl);
    return decl;
}

unsigned VertexDeclManager::Count()
{
    CriticalSection::Scope lock(m_lock);
    return m_decls.Count();
}

} // namespace KovexEngine
