#pragma once

// Device objects and the factories that create and dispose of them.
//
// A GraphicsObject is usable by its Ptr as soon as its factory posts it; its
// device side is created on the graphics side (the started GraphicsThread,
// or the main thread when none is started) and drawing code tests
// IsCreated. Its last Release hands it back to its factory, which releases
// the device handle and deletes the object at its next OnTick, on the side
// that ticks it: so a device handle is never released under a user's feet,
// whichever thread dropped the last reference.
//
// Threads: M_PostObject, CreateObject, Release (through Ptr) and the state
// getters are safe from any thread. OnTick, ProcessDisposing, OnExit and
// Cleanup belong to the graphics side. Hold a graphics object by a Ptr of
// its own type (or a graphics base): a Ptr<Object> would skip the hand-back.

#include "commands/CommandThread.h"
#include "kernel/CriticalSection.h"
#include "reflection/EngineEnums.h"
#include "reflection/Object.h"

namespace KovexEngine {

class GraphicsFactory;

// X(name, class): the factory slots, in the order of the factory array.
#define KOVEX_GRAPHICS_FACTORY_SLOTS(X)                  \
    X(BlendStateFactory, BlendStateFactory)              \
    X(SamplerStateFactory, SamplerStateFactory)          \
    X(RasterizerStateFactory, RasterizerStateFactory)    \
    X(DepthStencilStateFactory, DepthStencilStateFactory) \
    X(VertexBufferFactory, VertexBufferFactory)              \
    X(IndexBufferFactory, IndexBufferFactory)               \
    X(ConstantBufferFactory, ConstantBufferFactory)      \
    X(RWBufferFactory, RWBufferFactory)                  \
    X(ShaderFactory, GraphicsFactory)                    \
    X(WindowFactory, GraphicsWindowFactory)              \
    X(InputLayoutFactory, InputLayoutFactory)            \
    X(ProgramCompiler, GraphicsFactory)                  \
    X(TextureFactory, TextureFactory)

enum class FactoryType : unsigned
{
#define KOVEX_FACTORY_ENUM(name, cls) name,
    KOVEX_GRAPHICS_FACTORY_SLOTS(KOVEX_FACTORY_ENUM)
#undef KOVEX_FACTORY_ENUM
    COUNT
};

class KOVEX_API GraphicsObject : public Object
{
    KOVEX_CLASS(GraphicsObject)

public:
    enum ObjectState : int
    {
        None = 0,
        Created = 1,
        Pending = 2,
        Failed = 3,
        Disposing = 4,
    };

    GraphicsObject() = default;
    ~GraphicsObject() override;

    // The last reference goes to the factory's dispose list (state
    // Disposing) instead of deleting; the factory's second Release, or a
    // release when no factory is left, deletes.
    virtual void Release() const;
    virtual void SetDebugName(const char*) {}
    virtual bool CreateDeviceHandle() = 0;
    virtual void ReleaseDeviceHandle() = 0;

    ObjectState GetState() const { return ObjectState(m_state.load(std::memory_order_acquire)); }
    void SetState(ObjectState state) { m_state.store(int(state), std::memory_order_release); }
    bool IsCreated() const { return GetState() == Created; }
    bool IsPending() const { return GetState() == Pending; }
    bool IsFailed() const { return GetState() == Failed; }
    GraphicsFactory* GetFactory() const { return m_factory.load(std::memory_order_acquire); }

private:
    friend class GraphicsFactory;
    std::atomic<GraphicsFactory*> m_factory{nullptr};
    mutable std::atomic<int> m_state{None};
    // Links in the factory's object list, under its list lock.
    GraphicsObject* m_prev = nullptr;
    GraphicsObject* m_next = nullptr;
    bool m_linked = false;
};

struct MappedSubresource
{
    void* pData = nullptr;
    uint32 RowPitch = 0;
    uint32 DepthPitch = 0;
};

struct MappedBox
{
    uint32 left = 0, top = 0, front = 0, right = 0, bottom = 0, back = 0;
};

class KOVEX_API GraphicsResource : public GraphicsObject
{
    KOVEX_CLASS(GraphicsResource)

public:
    uint32 GetCpuAccessFlags() const { return m_cpuAccess; }
    GraphicsResourceUsage GetResourceUsage() const { return m_usage; }
    bool IsDefaultResource() const { return m_usage == GraphicsResourceUsage::Default; }
    bool IsDynamicResource() const { return m_usage == GraphicsResourceUsage::Dynamic; }
    bool IsImmutableResoruce() const { return m_usage == GraphicsResourceUsage::Immutable; }
    bool IsStagingResource() const { return m_usage == GraphicsResourceUsage::Staging; }
    bool IsMapped() const { return m_mapped; }

    // Checks the map type against the usage and CPU access first; each
    // refusal logs its line and leaves the mapped flag as it was.
    bool Map(MappedSubresource& out, MapType type, uint32 subresource);
    void Unmap(uint32 subresource);
    bool CopyResource(GraphicsResource* dst);
    bool CopySubresourceRegion(GraphicsResource* dst, uint32 dstSub, uint32 x, uint32 y, uint32 z, uint32 srcSub,
                               const MappedBox* box);

    virtual void* GetDeviceResource() { return nullptr; }
    // Another, non-null resource of exactly the same native class.
    virtual bool CanCopyTo(GraphicsResource* dst);
    virtual bool CanCopyToSubresourceRegion(GraphicsResource* dst, uint32 dstSub, uint32 x, uint32 y, uint32 z,
                                            uint32 srcSub, const MappedBox* box);
    virtual uint32 CalculateDataSize(uint32, const MappedSubresource&, const MappedBox*) { return 0; }

protected:
    virtual bool DeviceCopyResource(GraphicsResource*) { return true; }
    virtual bool DeviceCopySubresourceRegion(GraphicsResource*, uint32, uint32, uint32, uint32, uint32,
                                             const MappedBox*)
    {
        return true;
    }
    virtual bool DeviceMap(MappedSubresource&, MapType, uint32) = 0;
    virtual void DeviceUnmap(uint32) = 0;

private:
    friend class GraphicsFactory;
    uint32 m_cpuAccess = 0;
    bool m_mapped = false;
    GraphicsResourceUsage m_usage = GraphicsResourceUsage::Default;
};

class KOVEX_API GraphicsFactory : public HeapObject
{
public:
    // A factory made for a slot is that slot's singleton (GetSlot) until its
    // Cleanup; a factory without a slot is no singleton.
    explicit GraphicsFactory(FactoryType slot = FactoryType::COUNT);
    GraphicsFactory(const GraphicsFactory&) = delete;
    GraphicsFactory& operator=(const GraphicsFactory&) = delete;
    virtual ~GraphicsFactory();

    // Appends to the dispose list; the object keeps its last reference.
    virtual void M_Dispose(const GraphicsObject* object);
    // Runs ProcessDisposing.
    virtual void OnTick();
    virtual void M_Precache() {}
    virtual void OnInit() {}
    // ProcessDisposing, then the device handle of every object still linked.
    virtual void OnExit();
    virtual void OnDeviceCreated() {}
    virtual void OnDeviceLost() {}
    virtual void OnDeviceReset() {}
    // Detaches every object still linked (a later release deletes it at
    // once); a concrete factory also clears its singleton pointer.
    virtual void Cleanup();
    virtual void M_OnPosting(const Ptr<GraphicsObject>&) {}
    virtual void OnCreated(const Ptr<GraphicsObject>&) {}

    // Links the object and creates its device side now when the caller is
    // the graphics side, else posts a CreateCommand to the graphics thread.
    // A pending counter, when given, counts up now and down once created.
    void M_PostObject(const Ptr<GraphicsObject>& object, std::atomic<int32>* pending);
    // Creation now, on whatever thread the caller is.
    void CreateObject(const Ptr<GraphicsObject>& object, std::atomic<int32>* pending);
    // Device handles released and objects deleted, on the calling thread.
    void ProcessDisposing();

    static void SetCpuAccessFlags(GraphicsResource* resource, uint32 flags) { resource->m_cpuAccess = flags; }
    static void SetResourceUsage(GraphicsResource* resource, GraphicsResourceUsage usage)
    {
        resource->m_usage = usage;
    }

    static GraphicsFactory* GetSlot(FactoryType slot);

    // Objects linked now (diagnostics and tests).
    unsigned GetNumObjects();
    unsigned GetNumDisposing();

    class KOVEX_API CreateCommand : public ThreadCommand
    {
        KOVEX_CLASS(CreateCommand)

    public:
        CreateCommand() = default;
        CreateCommand(GraphicsFactory* factory, const Ptr<GraphicsObject>& object, std::atomic<int32>* pending)
            : m_factory(factory), m_object(object), m_pending(pending)
        {
        }
        void Process() override;

    private:
        GraphicsFactory* m_factory = nullptr;
        Ptr<GraphicsObject> m_object;
        std::atomic<int32>* m_pending = nullptr;
    };

protected:
    void Link(GraphicsObject* object);
    void Unlink(GraphicsObject* object);

private:
    TArray<const GraphicsObject*> m_disposeList;
    TArray<const GraphicsObject*> m_processingList;
    CriticalSection m_disposeLock;
    CriticalSection m_listLock;
    GraphicsObject* m_head = nullptr;
    GraphicsObject* m_tail = nullptr;
    unsigned m_count = 0;
    FactoryType m_slot;
};

} // namespace KovexEngine
