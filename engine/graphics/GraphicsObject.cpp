#include "graphics/GraphicsObject.h"

#include "graphics/GraphicsThread.h"
#include "kernel/Log.h"

namespace KovexEngine {

KOVEX_REGISTER_CLASS(GraphicsObject, u"Engine", Object)
KOVEX_REGISTER_CLASS(GraphicsResource, u"Engine", GraphicsObject)
KOVEX_REGISTER_CLASS(GraphicsFactory::CreateCommand, u"Engine", ThreadCommand)

// --- GraphicsObject ---------------------------------------------------------------

GraphicsObject::~GraphicsObject() = default;

void GraphicsObject::Release() const
{
    if (ReleaseUnlessLast())
        return;
    // The caller holds the only reference: nobody else can reach the object
    // but its factory, which holds it by a raw link.
    GraphicsFactory* factory = m_factory.load(std::memory_order_acquire);
    if (m_state.load(std::memory_order_acquire) != Disposing && factory)
    {
        m_state.store(Disposing, std::memory_order_release);
        factory->M_Dispose(this);
        return;
    }
    ReferenceObj::Release();
}

// --- GraphicsResource ---------------------------------------------------------------

bool GraphicsResource::Map(MappedSubresource& out, MapType type, uint32 subresource)
{
    bool writes = type == MapType::Write || type == MapType::ReadWrite || type == MapType::WriteDiscard ||
                  type == MapType::WriteNoOverwrite;
    if (writes && !(m_cpuAccess & unsigned(GraphicsResourceCpuAccess::Write)))
    {
        Log::Print(LOG_INFO, u"ERROR: Can't map a resource without CPU_ACCESS_WRITE flags.\n");
        return false;
    }
    if (writes && IsImmutableResoruce())
    {
        Log::Print(LOG_INFO, u"ERROR: Can't map or write an immutable resource.\n");
        return false;
    }
    if ((type == MapType::WriteDiscard || type == MapType::WriteNoOverwrite) && !IsDynamicResource())
    {
        Log::Print(LOG_INFO, u"ERROR: can't map or write data to a non-dynamic resource.\n");
        return false;
    }
    if ((type == MapType::Read || type == MapType::ReadWrite) &&
        !(m_cpuAccess & unsigned(GraphicsResourceCpuAccess::Read)))
    {
        Log::Print(LOG_INFO, u"ERROR: Can't read a resource without CPU_ACCESS_READ flags.\n");
        return false;
    }
    m_mapped = DeviceMap(out, type, subresource);
    return m_mapped;
}

void GraphicsResource::Unmap(uint32 subresource)
{
    m_mapped = false;
    DeviceUnmap(subresource);
}

bool GraphicsResource::CanCopyTo(GraphicsResource* dst)
{
    return dst && dst != this && dst->GetNativeClass() == GetNativeClass();
}

bool GraphicsResource::CanCopyToSubresourceRegion(GraphicsResource* dst, uint32 dstSub, uint32, uint32, uint32,
                                                  uint32 srcSub, const MappedBox*)
{
    return dst && dst->GetNativeClass() == GetNativeClass() && (dst != this || dstSub != srcSub);
}

bool GraphicsResource::CopyResource(GraphicsResource* dst)
{
    return CanCopyTo(dst) && DeviceCopyResource(dst);
}

bool GraphicsResource::CopySubresourceRegion(GraphicsResource* dst, uint32 dstSub, uint32 x, uint32 y, uint32 z,
                                             uint32 srcSub, const MappedBox* box)
{
    return CanCopyToSubresourceRegion(dst, dstSub, x, y, z, srcSub, box) &&
           DeviceCopySubresourceRegion(dst, dstSub, x, y, z, srcSub, box);
}

// --- GraphicsFactory -------------------------------------------------------------------

namespace {
std::atomic<GraphicsFactory*> s_slots[unsigned(FactoryType::COUNT)];
}

GraphicsFactory::GraphicsFactory(FactoryType slot) : m_slot(slot)
{
    if (slot < FactoryType::COUNT)
        s_slots[unsigned(slot)].store(this, std::memory_order_release);
}

GraphicsFactory* GraphicsFactory::GetSlot(FactoryType slot)
{
    return slot < FactoryType::COUNT ? s_slots[unsigned(slot)].load(std::memory_order_acquire) : nullptr;
}

GraphicsFactory::~GraphicsFactory()
{
    // Whatever is still linked outlives us; it must not call back.
    Cleanup();
}

void GraphicsFactory::Link(GraphicsObject* object)
{
    CriticalSection::Scope lock(m_listLock);
    if (object->m_linked)
        return;
    object->m_prev = m_tail;
    object->m_next = nullptr;
    if (m_tail)
        m_tail->m_next = object;
    else
        m_head = object;
    m_tail = object;
    object->m_linked = true;
    ++m_count;
    object->m_factory.store(this, std::memory_order_release);
}

void GraphicsFactory::Unlink(GraphicsObject* object)
{
    CriticalSection::Scope lock(m_listLock);
    if (!object->m_linked)
        return;
    (object->m_prev ? object->m_prev->m_next : m_head) = object->m_next;
    (object->m_next ? object->m_next->m_prev : m_tail) = object->m_prev;
    object->m_prev = object->m_next = nullptr;
    object->m_linked = false;
    --m_count;
}

unsigned GraphicsFactory::GetNumObjects()
{
    CriticalSection::Scope lock(m_listLock);
    return m_count;
}

unsigned GraphicsFactory::GetNumDisposing()
{
    CriticalSection::Scope lock(m_disposeLock);
    return m_disposeList.Count();
}

void GraphicsFactory::M_Dispose(const GraphicsObject* object)
{
    CriticalSection::Scope lock(m_disposeLock);
    m_disposeList.Add(object);
}

void GraphicsFactory::OnTick() { ProcessDisposing(); }

void GraphicsFactory::ProcessDisposing()
{
    {
        CriticalSection::Scope lock(m_disposeLock);
        if (m_disposeList.IsEmpty())
            return;
        m_processingList.Swap(m_disposeList);
    }
    for (const GraphicsObject* object : m_processingList)
    {
        auto* mutableObject = const_cast<GraphicsObject*>(object);
        mutableObject->ReleaseDeviceHandle();
        Unlink(mutableObject);
        object->Release(); // the second release: deletes
    }
    m_processingList.Clear();
}

void GraphicsFactory::OnExit()
{
    ProcessDisposing();
    CriticalSection::Scope lock(m_listLock);
    for (GraphicsObject* object = m_head; object; object = object->m_next)
        object->ReleaseDeviceHandle();
}

void GraphicsFactory::Cleanup()
{
    if (m_slot < FactoryType::COUNT)
    {
        GraphicsFactory* self = this;
        s_slots[unsigned(m_slot)].compare_exchange_strong(self, nullptr, std::memory_order_acq_rel);
    }
    ProcessDisposing();
    CriticalSection::Scope lock(m_listLock);
    while (m_head)
    {
        GraphicsObject* object = m_head;
        m_head = object->m_next;
        object->m_prev = object->m_next = nullptr;
        object->m_linked = false;
        object->m_factory.store(nullptr, std::memory_order_release);
    }
    m_tail = nullptr;
    m_count = 0;
}

void GraphicsFactory::CreateObject(const Ptr<GraphicsObject>& object, std::atomic<int32>* pending)
{
    object->SetState(object->CreateDeviceHandle() ? GraphicsObject::Created : GraphicsObject::Failed);
    if (pending)
        pending->fetch_sub(1, std::memory_order_acq_rel);
    OnCreated(object);
}

void GraphicsFactory::M_PostObject(const Ptr<GraphicsObject>& object, std::atomic<int32>* pending)
{
    if (!object)
        return;
    if (pending)
        pending->fetch_add(1, std::memory_order_acq_rel);
    if (object->GetState() == GraphicsObject::None)
        object->SetState(GraphicsObject::Pending);
    Link(object.Get());
    M_OnPosting(object);
    GraphicsThread* thread = GraphicsThread::Ins();
    if (thread->IsGraphicsThread())
    {
        CreateObject(object, pending);
        return;
    }
    thread->MT_InternalPostCommand(Ptr<ThreadCommand>(new CreateCommand(this, object, pending)));
}

void GraphicsFactory::CreateCommand::Process()
{
    if (m_factory && m_object)
        m_factory->CreateObject(m_object, m_pending);
    m_object = nullptr;
}

} // namespace KovexEngine
