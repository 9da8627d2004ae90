// The pools of blocked buffers and the vertex and index factories' use of
// them.

#include "graphics/IndexBuffer.h"
#include "graphics/VertexBuffer.h"
#include "graphics/VertexDecl.h"

namespace KovexEngine {

namespace {
uint64 KeyOrder(const Ptr<VertexDecl>& key) { return uint64(reinterpret_cast<uintptr_t>(key.Get())); }
uint64 KeyOrder(IndexBuffer::IndexFormat key) { return uint64(key); }
} // namespace

template <typename Key>
uint32 GraphicsBufferFactory::TBlockedBufferPool<Key>::ms_defaultSize = 131072;

template <typename Key>
GraphicsBufferFactory::TBlockedBufferPool<Key>::~TBlockedBufferPool() = default;

template <typename Key>
bool GraphicsBufferFactory::TBlockedBufferPool<Key>::M_Require(GraphicsBufferBlock& out, const Key& key, uint32 count,
                                                              uint32 sizeClass)
{
    uint32 required = GetRequiredSize(key, count);
    if (required == 0)
        return false;
    if (!m_classes.Contains(sizeClass))
        m_classes.Insert(sizeClass, TMap<uint64, KeyBuffers>());
    TMap<uint64, KeyBuffers>& keys = *m_classes.FindValue(sizeClass);
    uint64 order = KeyOrder(key);
    if (!keys.Contains(order))
    {
        KeyBuffers entry;
        entry.key = key;
        keys.Insert(order, entry);
    }
    TArray<Ptr<BlockedGraphicsBuffer>>& buffers = keys.FindValue(order)->buffers;
    for (Ptr<BlockedGraphicsBuffer>& buffer : buffers)
        if (buffer->M_Require(out, required))
            return true;
    Ptr<GraphicsBuffer> device = CreateBuffer(key, count, GetBufferSize(sizeClass));
    if (!device)
        return false;
    Ptr<BlockedGraphicsBuffer> blocked = BlockedGraphicsBuffer::Create(device);
    if (!blocked || !blocked->M_Require(out, required))
        return false;
    buffers.Add(blocked);
    return true;
}

template <typename Key>
void GraphicsBufferFactory::TBlockedBufferPool<Key>::M_Destroy()
{
    m_classes.Clear();
}

template <typename Key>
uint32 GraphicsBufferFactory::TBlockedBufferPool<Key>::GetBufferSize(uint32 sizeClass) const
{
    const uint32* size = m_sizes.FindValue(sizeClass);
    return size ? *size : ms_defaultSize;
}

template <typename Key>
void GraphicsBufferFactory::TBlockedBufferPool<Key>::SetBufferSize(uint32 sizeClass, uint32 size)
{
    if (size == 0)
        m_sizes.Remove(sizeClass);
    else
        m_sizes.Set(sizeClass, size);
}

template <typename Key>
unsigned GraphicsBufferFactory::TBlockedBufferPool<Key>::GetNumBuffers() const
{
    unsigned count = 0;
    for (const auto& sizeClass : m_classes)
        for (const auto& key : sizeClass.value)
            count += key.value.buffers.Count();
    return count;
}

template <typename Key>
uint32 GraphicsBufferFactory::TBlockedBufferPool<Key>::GetDefaultSize()
{
    return ms_defaultSize;
}

template <typename Key>
void GraphicsBufferFactory::TBlockedBufferPool<Key>::SetDefaultSize(uint32 size)
{
    ms_defaultSize = size;
}

template <typename Key>
uint32 GraphicsBufferFactory::TBlockedBufferPool<Key>::GetAllocatedCount(const Key& key, uint32 count,
                                                                        uint32 bufferSize) const
{
    uint32 stride = GetRequiredSize(key, 1);
    if (stride == 0)
        return 0;
    // A buffer smaller than one element still holds one.
    uint32 perBuffer = bufferSize / stride ? bufferSize / stride : 1;
    if (perBuffer >= count)
        return perBuffer;
    uint64 rounded = (uint64(count) + perBuffer - 1) / perBuffer * perBuffer;
    return rounded > 0xFFFFFFFFu ? 0 : uint32(rounded);
}

template class GraphicsBufferFactory::TBlockedBufferPool<Ptr<VertexDecl>>;
template class GraphicsBufferFactory::TBlockedBufferPool<IndexBuffer::IndexFormat>;

namespace {
uint32 BoundedSize(uint64 bytes) { return bytes > DataStream::kMaxSize ? 0 : uint32(bytes); }
} // namespace

// --- Vertex pools -----------------------------------------------------------------------------

uint32 VertexBufferFactory::VBBlockedPool::GetRequiredSize(const Ptr<VertexDecl>& key, uint32 count) const
{
    return key ? BoundedSize(uint64(key->GetFirstStride()[0]) * count) : 0;
}

Ptr<GraphicsBuffer> VertexBufferFactory::VBBlockedPool::MakeBuffer(const Ptr<VertexDecl>& key, uint32 count,
                                                                   uint32 bufferSize, bool dynamic)
{
    uint32 vertices = GetAllocatedCount(key, count, bufferSize);
    if (!key || vertices == 0)
        return Ptr<GraphicsBuffer>();
    const VertexElement* elements = key->FirstElement();
    Ptr<VertexBuffer::Stream> stream =
        dynamic ? Ptr<VertexBuffer::Stream>(VertexBuffer::DynamicStream::Create(elements, key->ElementCount(),
                                                                                 vertices, true))
                : VertexBuffer::Stream::Create(elements, key->ElementCount(), vertices, true);
    if (!stream)
        return Ptr<GraphicsBuffer>();
    return Ptr<GraphicsBuffer>(
        m_factory->Create(stream, dynamic ? uint32(GraphicsResourceCpuAccess::Write) : 0,
                          dynamic ? GraphicsResourceUsage::Dynamic : GraphicsResourceUsage::Default, nullptr)
            .Get());
}

Ptr<GraphicsBuffer> VertexBufferFactory::VBBlockedPool::CreateBuffer(const Ptr<VertexDecl>& key, uint32 count,
                                                                     uint32 bufferSize)
{
    return MakeBuffer(key, count, bufferSize, false);
}

Ptr<GraphicsBuffer> VertexBufferFactory::DynamicVBBlockedPool::CreateBuffer(const Ptr<VertexDecl>& key,
                                                                            uint32 count, uint32 bufferSize)
{
    return MakeBuffer(key, count, bufferSize, true);
}

VertexBufferFactory::VertexBufferFactory()
    : GraphicsBufferFactory(FactoryType::VertexBufferFactory), m_pools(new VBBlockedPool(this), new DynamicVBBlockedPool(this))
{
}


bool VertexBufferFactory::M_RequireBlock(GraphicsBufferBlock& out, const Ptr<VertexDecl>& decl, uint32 count,
                                         bool dynamic, uint32 sizeClass)
{
    return GetPool(dynamic).M_Require(out, decl, count, sizeClass);
}

bool VertexBufferFactory::M_RequireBlock(GraphicsBufferBlock& out, const VertexElement* elements,
                                         uint32 elementCount, uint32 count, bool dynamic, uint32 sizeClass)
{
    Ptr<VertexDecl> decl = VertexDeclManager::Ins()->Create(elements, elementCount);
    return decl && M_RequireBlock(out, decl, count, dynamic, sizeClass);
}

uint32 VertexBufferFactory::GetBlockedBufferDefSize() { return Pool::GetDefaultSize(); }
void VertexBufferFactory::SetBlockedBufferDefSize(uint32 size) { Pool::SetDefaultSize(size); }

uint32 VertexBufferFactory::M_GetBlockedBufferSize(bool dynamic, uint32 sizeClass) const
{
    return m_pools.Get(dynamic).GetBufferSize(sizeClass);
}
void VertexBufferFactory::M_SetBlockedBufferSize(bool dynamic, uint32 sizeClass, uint32 size)
{
    m_pools.Get(dynamic).SetBufferSize(sizeClass, size);
}
void VertexBufferFactory::OnExit()
{
    m_pools.Destroy();
    GraphicsBufferFactory::OnExit();
}

// --- Index pools ------------------------------------------------------------------------------

uint32 IndexBufferFactory::IBBlockedPool::GetRequiredSize(const IndexBuffer::IndexFormat& key, uint32 count) const
{
    if (key != IndexBuffer::Index16 && key != IndexBuffer::Index32)
        return 0;
    return BoundedSize(uint64(IndexBuffer::kIndexSize[key]) * count);
}

Ptr<GraphicsBuffer> IndexBufferFactory::IBBlockedPool::MakeBuffer(IndexBuffer::IndexFormat key, uint32 count,
                                                                  uint32 bufferSize, bool dynamic)
{
    uint32 indices = GetAllocatedCount(key, count, bufferSize);
    if (indices == 0)
        return Ptr<GraphicsBuffer>();
    Ptr<IndexBuffer::Stream> stream =
        dynamic ? Ptr<IndexBuffer::Stream>(IndexBuffer::DynamicStream::Create(indices, key, true))
                : IndexBuffer::Stream::Create(indices, key, true);
    if (!stream)
        return Ptr<GraphicsBuffer>();
    return Ptr<GraphicsBuffer>(
        m_factory->Create(stream, dynamic ? uint32(GraphicsResourceCpuAccess::Write) : 0,
                          dynamic ? GraphicsResourceUsage::Dynamic : GraphicsResourceUsage::Default, nullptr)
            .Get());
}

Ptr<GraphicsBuffer> IndexBufferFactory::IBBlockedPool::CreateBuffer(const IndexBuffer::IndexFormat& key,
                                                                    uint32 count, uint32 bufferSize)
{
    return MakeBuffer(key, count, bufferSize, false);
}

Ptr<GraphicsBuffer> IndexBufferFactory::DynamicIBBlockedPool::CreateBuffer(const IndexBuffer::IndexFormat& key,
                                                                           uint32 count, uint32 bufferSize)
{
    return MakeBuffer(key, count, bufferSize, true);
}

IndexBufferFactory::IndexBufferFactory()
    : GraphicsBufferFactory(FactoryType::IndexBufferFactory), m_pools(new IBBlockedPool(this), new DynamicIBBlockedPool(this))
{
    Pool::SetDefaultSize(16384);
}


bool IndexBufferFactory::M_RequireBlock(GraphicsBufferBlock& out, IndexBuffer::IndexFormat format, uint32 count,
                                        bool dynamic, uint32 sizeClass)
{
    return GetPool(dynamic).M_Require(out, format, count, sizeClass);
}

bool IndexBufferFactory::M_RequireBlock(GraphicsBufferBlock& out, bool index32, uint32 count, bool dynamic,
                                        uint32 sizeClass)
{
    return M_RequireBlock(out, index32 ? IndexBuffer::Index32 : IndexBuffer::Index16, count, dynamic, sizeClass);
}

uint32 IndexBufferFactory::GetBlockedBufferDefSize() { return Pool::GetDefaultSize(); }
void IndexBufferFactory::SetBlockedBufferDefSize(uint32 size) { Pool::SetDefaultSize(size); }

uint32 IndexBufferFactory::M_GetBlockedBufferSize(bool dynamic, uint32 sizeClass) const
{
    return m_pools.Get(dynamic).GetBufferSize(sizeClass);
}
void IndexBufferFactory::M_SetBlockedBufferSize(bool dynamic, uint32 sizeClass, uint32 size)
{
    m_pools.Get(dynamic).SetBufferSize(sizeClass, size);
}
void IndexBufferFactory::OnExit()
{
    m_pools.Destroy();
    GraphicsBufferFactory::OnExit();
}

} // namespace KovexEngine
