#include "graphics/GraphicsBuffer.h"

#include "graphics/GraphicsThread.h"
#include "kernel/Log.h"

namespace KovexEngine {

KOVEX_REGISTER_CLASS(GraphicsBuffer, u"Engine", GraphicsResource)

bool GraphicsBuffer::CheckByteWidth(uint32 size, const GraphicsStream* stream)
{
    return size != 0 || (stream && stream->GetLength() != 0);
}

GraphicsStream* GraphicsBuffer::GetDeviceStream() const
{
    if (!m_stream)
        return nullptr;
    GraphicsStream* gpu = m_stream->GetGpuReadStream();
    return gpu ? gpu : m_stream.Get();
}

bool GraphicsBuffer::AllowPrecache() const
{
    return m_stream && m_stream->GetGpuReadStream() != m_stream.Get() && GraphicsThread::Exists() &&
           GraphicsThread::Ins()->IsStarted();
}

bool GraphicsBuffer::Precache()
{
    if (!m_stream)
        return false;
    Ptr<GraphicsStream> finished = m_stream;
    Ptr<GraphicsStream> twin(finished->GetGpuReadStream());
    if (!twin)
    {
        Ptr<Object> clone = finished->Clone(0);
        if (!clone)
            return false;
        twin = static_cast<GraphicsStream*>(clone.Get());
    }
    if (twin == finished)
        return false;
    // The finished stream becomes the twin's GPU-read stream, and the twin
    // the one the main thread writes next.
    finished->SetGpuReadStream(Ptr<GraphicsStream>());
    twin->SetGpuReadStream(finished);
    m_stream = twin;
    return true;
}

GraphicsBufferFactory::~GraphicsBufferFactory() = default;

void GraphicsBufferFactory::M_OnPosting(const Ptr<GraphicsObject>& object)
{
    // Only buffers are posted through these factories.
    auto* buffer = static_cast<GraphicsBuffer*>(object.Get());
    if (!buffer || !buffer->AllowPrecache())
        return;
    CriticalSection::Scope lock(m_precacheLock);
    m_precache.Add(buffer);
}

void GraphicsBufferFactory::M_Dispose(const GraphicsObject* object)
{
    {
        CriticalSection::Scope lock(m_precacheLock);
        for (unsigned i = 0; i < m_precache.Count(); ++i)
            if (m_precache[i] == object)
            {
                m_precache.RemoveAt(i);
                break;
            }
    }
    GraphicsFactory::M_Dispose(object);
}

void GraphicsBufferFactory::M_Precache()
{
    CriticalSection::Scope lock(m_precacheLock);
    for (GraphicsBuffer* buffer : m_precache)
        if (buffer->GetStream() && buffer->GetStream()->IsDirty())
            buffer->Precache();
}

unsigned GraphicsBufferFactory::GetNumPrecached()
{
    CriticalSection::Scope lock(m_precacheLock);
    return m_precache.Count();
}

Ptr<GraphicsBuffer> GraphicsBufferFactory::PostBuffer(GraphicsBuffer* made, GraphicsStream* stream, uint32 cpuAccess,
                                                      GraphicsResourceUsage usage, std::atomic<int32>* pending,
                                                      const char16_t* invalidLine, const char16_t* dynamicLine)
{
    Ptr<GraphicsBuffer> buffer(made);
    if (!stream || stream->GetLength() == 0)
    {
        Log::Print(LOG_INFO, invalidLine);
        return Ptr<GraphicsBuffer>();
    }
    if (stream->IsDynamic() != (usage == GraphicsResourceUsage::Dynamic))
    {
        Log::Print(LOG_INFO, dynamicLine);
        return Ptr<GraphicsBuffer>();
    }
    buffer->SetStream(Ptr<GraphicsStream>(stream));
    buffer->SetByteWidth(stream->GetLength());
    SetCpuAccessFlags(buffer.Get(), cpuAccess);
    SetResourceUsage(buffer.Get(), usage);
    M_PostObject(Ptr<GraphicsObject>(buffer.Get()), pending);
    return buffer;
}

namespace {
TArray<Ptr<BlockedGraphicsBuffer>>& Instances()
{
    static TArray<Ptr<BlockedGraphicsBuffer>> instances;
    return instances;
}
} // namespace

BlockedGraphicsBuffer::BlockedGraphicsBuffer(const Ptr<GraphicsBuffer>& buffer) : m_buffer(buffer)
{
    m_free.SetGrowSize(16);
    m_used.SetGrowSize(16);
    m_recycled.SetGrowSize(16);
    Reset();
}

Ptr<BlockedGraphicsBuffer> BlockedGraphicsBuffer::Create(const Ptr<GraphicsBuffer>& buffer)
{
    if (!buffer)
        return Ptr<BlockedGraphicsBuffer>();
    Ptr<BlockedGraphicsBuffer> blocked(new BlockedGraphicsBuffer(buffer));
    Instances().Add(blocked);
    return blocked;
}

void BlockedGraphicsBuffer::Reset()
{
    m_free.Clear();
    m_used.Clear();
    m_recycled.Clear();
    uint32 width = m_buffer ? m_buffer->GetByteWidth() : 0;
    if (width)
        m_free.Add(Block{0, width});
}

uint32 BlockedGraphicsBuffer::M_Require(uint32 size)
{
    // A zero-size range is refused: its used pair could never be recycled
    // (M_Recycle ignores size 0) and repeated requests would pile up.
    if (size == 0)
        return kNone;
    uint32 result = kNone;
    for (unsigned i = 0; i < m_free.Count();)
    {
        Block& block = m_free[i];
        if (block.size < size)
        {
            ++i;
            continue;
        }
        result = block.offset;
        m_used.Add(Block{block.offset, size});
        block.offset += size;
        block.size -= size;
        if (block.size == 0)
            m_free.RemoveAt(i);
        else
            ++i;
    }
    if (result != kNone && m_buffer && m_buffer->GetStream())
        m_buffer->GetStream()->MakeDirty(result, size);
    return result;
}

bool BlockedGraphicsBuffer::M_Require(GraphicsBufferBlock& out, uint32 size)
{
    uint32 offset = M_Require(size);
    if (offset == kNone)
        return false;
    out.Offset = offset;
    out.Size = size;
    out.Owner = this;
    return true;
}

bool BlockedGraphicsBuffer::M_Recycle(uint32 offset, uint32 size)
{
    if (offset == kNone || size == 0)
        return false;
    for (unsigned i = 0; i < m_used.Count(); ++i)
        if (m_used[i].offset == offset && m_used[i].size == size)
        {
            m_used.RemoveAt(i);
            AppendToBlocks(m_recycled, offset, size);
            return true;
        }
    return false;
}

void BlockedGraphicsBuffer::AppendToBlocks(TArray<Block>& list, uint32 offset, uint32 size)
{
    uint32 end = offset + size;
    for (unsigned i = 0; i < list.Count(); ++i)
    {
        Block& entry = list[i];
        if (offset == entry.offset + entry.size)
        {
            entry.size += size;
            if (i + 1 < list.Count() && list[i + 1].offset == end)
            {
                entry.size += list[i + 1].size;
                list.RemoveAt(i + 1);
            }
            return;
        }
        if (end < entry.offset)
        {
            list.Insert(i, Block{offset, size});
            return;
        }
        if (end == entry.offset)
        {
            entry.offset = offset;
            entry.size += size;
            return;
        }
    }
    list.Add(Block{offset, size});
}

void BlockedGraphicsBuffer::M_Precache()
{
    for (const Block& block : m_recycled)
        AppendToBlocks(m_free, block.offset, block.size);
    m_recycled.Clear();
}

void BlockedGraphicsBuffer::M_Tick()
{
    TArray<Ptr<BlockedGraphicsBuffer>>& instances = Instances();
    bool dropped = false;
    for (Ptr<BlockedGraphicsBuffer>& instance : instances)
        if (instance && instance->GetRefCount() == 1)
        {
            instance = nullptr;
            dropped = true;
        }
    if (dropped)
    {
        TArray<Ptr<BlockedGraphicsBuffer>> kept;
        for (Ptr<BlockedGraphicsBuffer>& instance : instances)
            if (instance)
                kept.Add(instance);
        instances.Swap(kept);
    }
    for (Ptr<BlockedGraphicsBuffer>& instance : instances)
        instance->M_Precache();
}

void BlockedGraphicsBuffer::Destroy() { Instances().Free(); }

unsigned BlockedGraphicsBuffer::GetNumInstances() { return Instances().Count(); }

} // namespace KovexEngine
