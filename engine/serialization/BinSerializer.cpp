#include "serialization/BinSerializer.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <memory>
#include <new>
#include <type_traits>
#include <vector>

#include "kernel/Log.h"
#include "reflection/ContainerClass.h"
#include "reflection/FunctionRegistration.h"
#include "reflection/Struct.h"
#include "serialization/StructCodec.h"

namespace KovexEngine {

static_assert(std::endian::native == std::endian::little, "the binary form is stored as the machine holds it");

KOVEX_REGISTER_CLASS_EX(BinSerializer, u"Engine")

void BinSerializer::StaticConstructor(Class* cls)
{
    RegisterBases<BinSerializer, Serializer>(cls);
    AddFunction(cls, u"GetSelfHdrCode", &BinSerializer::GetSelfHdrCode);
    cls->ProcessClass();
}

AString BinSerializer::GetSelfHdrCode() { return AString("BIN"); }

struct BinSerializer::Node
{
    Node* parent = nullptr;
    Node* next = nullptr; // the next sibling
    Node* firstChild = nullptr;
    Node* lastChild = nullptr;
    uint32 childCount = 0;
    FourCC id = 0;
    uint64 offset = 0;
    uint64 end = 0;
    uint64 savedPosition = 0;
    DataStream data;

    void Append(Node* child)
    {
        child->parent = this;
        if (lastChild)
            lastChild->next = child;
        else
            firstChild = child;
        lastChild = child;
        ++childCount;
    }
    // The node after this one in pre-order, or null; `depth` follows the moves.
    Node* NextInPreOrder(int& depth)
    {
        if (firstChild)
        {
            ++depth;
            return firstChild;
        }
        Node* node = this;
        while (node && !node->next)
        {
            node = node->parent;
            --depth;
        }
        return node ? node->next : nullptr;
    }
};

// A file has a node per section, often a million of them: they come from
// chunks rather than one allocation each, and go all at once. Chunks grow
// from small, so that a file of a few sections costs a few nodes.
struct BinSerializer::NodePool
{
    static constexpr unsigned kFirstChunk = 16;
    static constexpr unsigned kLargestChunk = 4096;
    std::vector<std::unique_ptr<Node[]>> chunks;
    unsigned size = 0; // of the last chunk
    unsigned used = 0;

    Node* New()
    {
        if (used == size)
        {
            size = size ? std::min(size * 2, kLargestChunk) : kFirstChunk;
            chunks.emplace_back(new Node[size]);
            used = 0;
        }
        return &chunks.back()[used++];
    }
    void Clear()
    {
        chunks.clear();
        size = used = 0;
    }
};

namespace {

struct BinPos : Serializer::_Pos
{
    BinSerializer::Node* node = nullptr;
    BinSerializer::Node* lastLeft = nullptr;
    int64 offset = -1;
};

// Limits that a hostile table cannot talk past.
constexpr unsigned kMaxTreeDepth = 1024;

} // namespace

BinSerializer::BinSerializer() : m_nodes(new NodePool()), m_root(nullptr), m_current(nullptr) { ClearTree(); }

BinSerializer::~BinSerializer()
{
    if (m_stream)
        InternalClose();
    delete m_nodes;
}

BinSerializer::Node* BinSerializer::NewNode(Node* parent, FourCC id)
{
    Node* node = m_nodes->New();
    node->id = id;
    if (parent)
        parent->Append(node);
    return node;
}

void BinSerializer::ClearTree()
{
    m_nodes->Clear();
    m_root = NewNode(nullptr, 0);
    m_current = m_root;
    m_lastLeft = nullptr;
}

Serializer::_Pos* BinSerializer::CreatePos() { return new BinPos(); }

void BinSerializer::GetPos(_Pos* position)
{
    auto* p = static_cast<BinPos*>(position);
    if (!p)
        return;
    p->node = m_current;
    p->lastLeft = m_lastLeft;
    p->offset = m_mode == MODE_WRITE ? int64(m_current->data.GetPosition()) : int64(m_position);
}

bool BinSerializer::SetPos(const _Pos* position)
{
    auto* p = static_cast<const BinPos*>(position);
    if (!p || !p->node || p->offset < 0)
        return false;
    m_current = p->node;
    m_lastLeft = p->lastLeft;
    if (m_mode == MODE_WRITE)
    {
        if (uint64(p->offset) <= m_current->data.GetLength())
            m_current->data.SetPosition(unsigned(p->offset));
    }
    else if (uint64(p->offset) <= m_current->end)
        m_position = uint64(p->offset);
    return true;
}

// --- Opening and closing -----------------------------------------------------------------------

bool BinSerializer::Open(const Ptr<Stream>& stream, SerializeMode mode)
{
    if (!AttachStream(stream, mode))
        return false;
    ClearTree();
    if (mode == MODE_WRITE)
        return true;
    if (!PopHdr() || !LoadTable())
    {
        stream->Close();
        m_stream = nullptr;
        return false;
    }
    return true;
}

bool BinSerializer::LoadTable()
{
    // The file comes into memory whole: every read is then bounded by its
    // section's block, and a block is never read through the stream twice.
    int64 size = m_stream->GetSize();
    if (size < 8 + 16 || size > int64(DataStream::kMaxSize))
        return false;
    m_stream->Seek(0, Stream::Begin);
    if (!m_file.SetLength(unsigned(size), false) || !m_stream->Read(m_file.GetPointer(), int(size)))
        return false;
    const uint8* bytes = m_file.GetPointer();
    uint64 maxNodes = (uint64(size) - 8) / 16;

    // Pre-order records: each node, then its children. An explicit stack of
    // (node, children still to read) instead of recursion.
    struct Pending
    {
        Node* node;
        uint32 remaining;
    };
    TArray<Pending> stack;
    TArray<Node*> order;
    uint64 at = 8;
    auto readRecord = [&](Node* node, uint32& children) {
        if (at + 16 > uint64(size) || order.Count() >= maxNodes)
            return false;
        std::memcpy(&node->id, bytes + at, 4);
        std::memcpy(&node->offset, bytes + at + 4, 8);
        std::memcpy(&children, bytes + at + 12, 4);
        at += 16;
        order.Add(node);
        return true;
    };
    uint32 rootChildren = 0;
    if (!readRecord(m_root, rootChildren) || m_root->id != 0)
        return false;
    stack.Add(Pending{m_root, rootChildren});
    while (!stack.IsEmpty())
    {
        Pending& top = stack.Last();
        if (top.remaining == 0)
        {
            stack.Pop();
            continue;
        }
        --top.remaining;
        if (stack.Count() > kMaxTreeDepth)
            return false;
        Node* child = NewNode(top.node, 0);
        uint32 children = 0;
        if (!readRecord(child, children))
            return false;
        stack.Add(Pending{child, children});
    }
    // Blocks follow the table in pre-order, each ending where the next begins.
    uint64 tableEnd = at;
    for (unsigned i = 0; i < order.Count(); ++i)
    {
        Node* node = order[i];
        uint64 next = i + 1 < order.Count() ? order[i + 1]->offset : uint64(size);
        if (node->offset < tableEnd || node->offset > next || next > uint64(size))
            return false;
        node->end = next;
    }
    m_position = m_root->offset;
    return true;
}

void BinSerializer::InternalClose()
{
    if (m_mode == MODE_WRITE && m_stream)
    {
        // The whole file is laid out in one block and written at once.
        uint64 count = 0, dataSize = 0;
        int depth = 0;
        for (Node* node = m_root; node; node = node->NextInPreOrder(depth))
        {
            ++count;
            dataSize += node->data.GetPosition();
        }
        uint64 offset = 8 + count * 16;
        uint64 total = offset + dataSize;
        DataStream file;
        if (total <= DataStream::kMaxSize && file.SetLength(unsigned(total), false))
        {
            uint8* record = file.GetPointer(8);
            uint8* block = file.GetPointer(unsigned(offset));
            for (Node* node = m_root; node; node = node->NextInPreOrder(depth))
            {
                unsigned size = node->data.GetPosition();
                node->offset = offset;
                std::memcpy(record, &node->id, 4);
                std::memcpy(record + 4, &node->offset, 8);
                std::memcpy(record + 12, &node->childCount, 4);
                record += 16;
                if (size)
                    std::memcpy(block, node->data.GetPointer(), size);
                block += size;
                offset += size;
            }
            PushHdr();
            m_stream->Write(file.GetPointer(8), int(total - 8));
        }
        else
            Log::Print(LOG_ERROR, u"BinSerializer: the file would exceed 2 GiB.\n");
    }
    ClearTree();
    m_file.ReleaseData();
    if (m_stream)
        m_stream->Close();
    m_stream = nullptr;
}

// --- Sections ------------------------------------------------------------------------------------

bool BinSerializer::InternalEnter(FourCC tag)
{
    if (tag == 0 || !m_current || !m_stream)
        return false;
    if (m_mode == MODE_WRITE)
    {
        Node* child = NewNode(m_current, tag);
        child->data.SetAutoExtend(true);
        m_current = child;
        return true;
    }
    // After a child was left, the next sibling of this id, as the XML form
    // finds it: sections of one id with others between them are then read
    // in turn, never the first of them again and again.
    Node* found = nullptr;
    Node* after = m_lastLeft && m_lastLeft->parent == m_current ? m_lastLeft->next : nullptr;
    for (Node* child = after; child && !found; child = child->next)
        if (child->id == tag)
            found = child;
    for (Node* child = m_current->firstChild; child && !found; child = child->next)
        if (child->id == tag)
            found = child;
    if (!found)
        return false;
    m_current->savedPosition = m_position;
    m_lastLeft = nullptr;
    m_current = found;
    m_position = found->offset;
    return true;
}

bool BinSerializer::InternalEnterNext(FourCC tag)
{
    // After a section was left only its next sibling may follow: no wrapping
    // back to the first.
    if (m_mode == MODE_READ && m_lastLeft && (!m_lastLeft->next || m_lastLeft->next->id != tag))
        return false;
    return InternalEnter(tag);
}

unsigned int BinSerializer::CountSections(FourCC tag) const
{
    unsigned count = 0;
    if (m_mode == MODE_READ && m_current)
        for (const Node* child = m_current->firstChild; child; child = child->next)
            count += child->id == tag;
    return count;
}

void BinSerializer::InternalLeave()
{
    if (!m_current || m_current == m_root)
        return;
    Node* left = m_current;
    m_current = m_current->parent;
    if (m_mode == MODE_READ)
    {
        m_lastLeft = left;
        m_position = m_current->savedPosition;
    }
}

// --- Values ----------------------------------------------------------------------------------------

bool BinSerializer::BeginWrite(FourCC tag)
{
    if (m_mode != MODE_WRITE || !m_current || m_current == m_root)
        return false;
    // Most sections hold a few short values: one block of this size spares
    // the early regrowths.
    if (m_current->data.GetCapacity() == 0)
        m_current->data.Reserve(64, false);
    return m_current->data.Write(&tag, 4);
}

bool BinSerializer::BeginRead(FourCC tag)
{
    if (m_mode != MODE_READ || !m_current || m_current == m_root)
        return false;
    if (m_position + 4 > m_current->end)
        return false;
    FourCC found;
    std::memcpy(&found, m_file.GetPointer(unsigned(m_position)), 4);
    if (found != tag)
        return false;
    m_position += 4;
    return true;
}

class BinSerializer::Cursor final : public StructCodec::Source
{
public:
    Cursor(const uint8* base, uint64& position, uint64 end) : m_base(base), m_position(position), m_end(end) {}
    bool Take(void* out, uint64 size) override
    {
        if (size > m_end - m_position)
            return false;
        if (size)
            std::memcpy(out, m_base + m_position, size_t(size));
        m_position += size;
        return true;
    }
    uint64 Remaining() const override { return m_end - m_position; }

private:
    const uint8* m_base;
    uint64& m_position;
    uint64 m_end;
};

namespace {
struct DataSink final : StructCodec::Sink
{
    explicit DataSink(DataStream& data) : data(data) {}
    bool Put(const void* bytes, uint64 size) override { return size <= 0x7FFFFFFF && data.Write(bytes, unsigned(size)); }
    DataStream& data;
};
} // namespace

template <typename T>
bool BinSerializer::WritePlain(FourCC tag, const T& value)
{
    return BeginWrite(tag) && m_current->data.Write(&value, sizeof(T));
}

template <typename T>
bool BinSerializer::ReadPlain(FourCC tag, T& value)
{
    uint64 start = m_position;
    if (!BeginRead(tag))
        return false;
    if (m_position + sizeof(T) > m_current->end)
    {
        m_position = start;
        return false;
    }
    if constexpr (std::is_same_v<T, bool>)
        value = *m_file.GetPointer(unsigned(m_position)) != 0; // any byte a file holds is a valid bool
    else
        std::memcpy(&value, m_file.GetPointer(unsigned(m_position)), sizeof(T));
    m_position += sizeof(T);
    return true;
}

template <typename T>
bool BinSerializer::WriteArray(FourCC tag, const T* values, unsigned int count)
{
    if (!values && count)
        return false;
    return BeginWrite(tag) && m_current->data.Write(&count, 4) &&
           (count == 0 || (uint64(count) * sizeof(T) <= 0x7FFFFFFF && m_current->data.Write(values, count * unsigned(sizeof(T)))));
}

// A count, then that many items of `itemSize` bytes (a whole number of T).
template <typename T>
bool BinSerializer::ReadCounted(FourCC tag, T*& values, unsigned int& count, bool allocate, unsigned itemSize)
{
    if (!values && !allocate)
        return false;
    uint64 start = m_position;
    uint32 stored = 0;
    if (!BeginRead(tag))
        return false;
    Cursor cursor(m_file.GetPointer(), m_position, m_current->end);
    // The count must fit in the block; a caller's buffer holds `count`.
    uint64 bytes = 0;
    if (!cursor.Take(&stored, 4) || (bytes = uint64(stored) * itemSize) > cursor.Remaining() ||
        (!allocate && stored > count))
    {
        m_position = start;
        return false;
    }
    count = stored;
    if (stored == 0)
        return true;
    T* target = allocate ? new (std::nothrow) T[bytes / sizeof(T)] : values;
    if (!target)
    {
        m_position = start;
        return false;
    }
    cursor.Take(target, bytes);
    values = target;
    return true;
}

#define KOVEX_BIN_SCALAR(T) \
    bool BinSerializer::Read(FourCC tag, T& value) { return ReadPlain(tag, value); } \
    bool BinSerializer::Write(FourCC tag, const T& value) { return WritePlain(tag, value); }
#define KOVEX_BIN_ARRAY(T) \
    bool BinSerializer::Read(FourCC tag, T*& values, unsigned int& count, bool allocate) { return ReadCounted(tag, values, count, allocate, sizeof(T)); } \
    bool BinSerializer::Write(FourCC tag, const T* values, unsigned int count) { return WriteArray(tag, values, count); }
KOVEX_SERIALIZER_SCALARS(KOVEX_BIN_SCALAR)
KOVEX_SERIALIZER_ARRAYS(KOVEX_BIN_ARRAY)
#undef KOVEX_BIN_SCALAR
#undef KOVEX_BIN_ARRAY

bool BinSerializer::Write(FourCC tag, const AString& value)
{
    uint32 length = value.Length();
    return BeginWrite(tag) && m_current->data.Write(&length, 4) && (length == 0 || m_current->data.Write(value(), length));
}

bool BinSerializer::Read(FourCC tag, AString& value)
{
    uint64 start = m_position;
    if (!BeginRead(tag))
        return false;
    Cursor cursor(m_file.GetPointer(), m_position, m_current->end);
    uint32 length = 0;
    if (!cursor.Take(&length, 4) || length > cursor.Remaining() || !value.SetLength(length))
    {
        m_position = start;
        return false;
    }
    cursor.Take(value(), length);
    return true;
}

bool BinSerializer::Write(FourCC tag, const void* record, const SerializeMemLayout& layout)
{
    return Write(tag, record, 1u, layout);
}

bool BinSerializer::Write(FourCC tag, const void* records, unsigned int count, const SerializeMemLayout& layout)
{
    if (!BeginWrite(tag) || !m_current->data.Write(&count, 4))
        return false;
    if (!records || count == 0 || layout.GetSize() == 0)
        return false;
    uint64 bytes = uint64(count) * layout.GetSize();
    return bytes <= 0x7FFFFFFF && m_current->data.Write(records, unsigned(bytes));
}

bool BinSerializer::Read(FourCC tag, void* record, const SerializeMemLayout& layout)
{
    unsigned count = 1;
    void* p = record;
    return Read(tag, p, count, layout, false) && count == 1;
}

bool BinSerializer::Read(FourCC tag, void*& records, unsigned int& count, const SerializeMemLayout& layout, bool allocate)
{
    if (layout.GetSize() == 0)
        return false;
    uint8* bytes = static_cast<uint8*>(records);
    if (!ReadCounted(tag, bytes, count, allocate, layout.GetSize()))
        return false;
    records = bytes;
    return true;
}

bool BinSerializer::Write(FourCC tag, const void* value, const Struct* type)
{
    if (!value || !type || !BeginWrite(tag))
        return false;
    DataSink sink(m_current->data);
    return StructCodec::EncodeBinary(sink, static_cast<const uint8*>(value), type, 0);
}

bool BinSerializer::Read(FourCC tag, void* value, const Struct* type)
{
    if (!value || !type)
        return false;
    uint64 start = m_position;
    if (!BeginRead(tag))
        return false;
    Cursor cursor(m_file.GetPointer(), m_position, m_current->end);
    if (!StructCodec::DecodeBinary(cursor, static_cast<uint8*>(value), type, 0))
    {
        m_position = start;
        return false;
    }
    return true;
}

bool BinSerializer::Write(FourCC tag, const void* values, unsigned int count, const Struct* type)
{
    if (!type || (!values && count) || !BeginWrite(tag) || !m_current->data.Write(&count, 4))
        return false;
    DataSink sink(m_current->data);
    for (unsigned i = 0; i < count; ++i)
        if (!StructCodec::EncodeBinary(sink, static_cast<const uint8*>(values) + uint64(i) * type->GetSize(), type, 0))
            return false;
    return true;
}

bool BinSerializer::Read(FourCC tag, void*& values, unsigned int& count, const Struct* type, bool allocate)
{
    if (!type || (!values && !allocate) || type->GetSize() == 0)
        return false;
    uint64 start = m_position;
    if (!BeginRead(tag))
        return false;
    Cursor cursor(m_file.GetPointer(), m_position, m_current->end);
    uint32 stored = 0;
    // Each element takes at least its fewest encoded bytes (one, for a struct
    // that encodes to nothing): a count beyond the block is a lie.
    uint64 least = std::max<uint64>(1, StructCodec::MinEncodedSize(type));
    if (!cursor.Take(&stored, 4) || uint64(stored) * least > cursor.Remaining() || (!allocate && stored > count))
    {
        m_position = start;
        return false;
    }
    void* target = values;
    if (allocate && stored)
    {
        target = type->NewArray(stored);
        if (!target)
        {
            m_position = start;
            return false;
        }
    }
    for (unsigned i = 0; i < stored; ++i)
        if (!StructCodec::DecodeBinary(cursor, static_cast<uint8*>(target) + uint64(i) * type->GetSize(), type, 0))
        {
            if (allocate)
                type->DeleteArray(target);
            m_position = start;
            return false;
        }
    count = stored;
    if (stored)
        values = target;
    return true;
}

// --- Inspection ------------------------------------------------------------------------------------

bool BinSerializer::DumpTree(AString& out, unsigned int bytesShown) const
{
    if (m_mode != MODE_READ || !m_stream)
        return false;
    int depth = 0;
    for (Node* node = m_root; node; node = node->NextInPreOrder(depth))
    {
        AString indent;
        for (int i = 0; i < depth; ++i)
            indent.Append("  ");
        uint64 size = node->end - node->offset;
        out.AppendFormat("%s%s  (%I64u bytes)", indent(), node == m_root ? "<root>" : FourCCs::ToString(node->id)(),
                         (unsigned long long)size);
        const uint8* bytes = m_file.GetPointer(unsigned(node->offset));
        uint64 shown = size < bytesShown ? size : bytesShown;
        for (uint64 i = 0; i < shown; ++i)
            out.AppendFormat(i ? " %02x" : "  %02x", bytes[i]);
        if (shown < size)
            out.Append(" ...");
        out.Append('\n');
    }
    return true;
}

} // namespace KovexEngine
