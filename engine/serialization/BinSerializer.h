#pragma once

#include "serialization/Serializer.h"

namespace KovexEngine {

// The binary form: "<BIN />\n", a table of 16-byte node records in pre-order
// (id, offset of the data block, number of children), then the data blocks.
// Writing builds the tree in memory and writes the file once at Close.
// Reading takes the file into memory and reads each value within the extent
// of its section's block.
class KOVEX_API BinSerializer : public Serializer
{
    KOVEX_CLASS(BinSerializer)

public:
    BinSerializer();
    ~BinSerializer() override;

    static AString GetSelfHdrCode();
    const char* GetHdrCode() const override { return "BIN"; }

    _Pos* CreatePos() override;
    void GetPos(_Pos* position) override;
    bool SetPos(const _Pos* position) override;
    bool Open(const Ptr<Stream>& stream, SerializeMode mode) override;

#define KOVEX_BIN_SCALAR(T) \
    bool Read(FourCC tag, T& value) override; \
    bool Write(FourCC tag, const T& value) override;
#define KOVEX_BIN_ARRAY(T) \
    bool Read(FourCC tag, T*& values, unsigned int& count, bool allocate) override; \
    bool Write(FourCC tag, const T* values, unsigned int count) override;
    KOVEX_SERIALIZER_SCALARS(KOVEX_BIN_SCALAR)
    KOVEX_SERIALIZER_ARRAYS(KOVEX_BIN_ARRAY)
#undef KOVEX_BIN_SCALAR
#undef KOVEX_BIN_ARRAY
    bool Read(FourCC tag, AString& value) override;
    bool Write(FourCC tag, const AString& value) override;
    bool Read(FourCC tag, void* record, const SerializeMemLayout& layout) override;
    bool Write(FourCC tag, const void* record, const SerializeMemLayout& layout) override;
    bool Read(FourCC tag, void*& records, unsigned int& count, const SerializeMemLayout& layout, bool allocate) override;
    bool Write(FourCC tag, const void* records, unsigned int count, const SerializeMemLayout& layout) override;
    bool Read(FourCC tag, void* value, const Struct* type) override;
    bool Write(FourCC tag, const void* value, const Struct* type) override;
    bool Read(FourCC tag, void*& values, unsigned int& count, const Struct* type, bool allocate) override;
    bool Write(FourCC tag, const void* values, unsigned int count, const Struct* type) override;
    using Serializer::Read;
    using Serializer::Write;
    unsigned int CountSections(FourCC tag) const override;

    // An indented listing of the section tree with the size of each block
    // and its first `bytesShown` bytes in hex, for tools.
    bool DumpTree(AString& out, unsigned int bytesShown = 24) const;

    struct Node;
    struct NodePool;
    class Cursor;

protected:
    void InternalClose() override;
    bool InternalEnter(FourCC tag) override;
    bool InternalEnterNext(FourCC tag) override;
    void InternalLeave() override;

private:
    template <typename T> bool WritePlain(FourCC tag, const T& value);
    template <typename T> bool ReadPlain(FourCC tag, T& value);
    template <typename T> bool ReadCounted(FourCC tag, T*& values, unsigned int& count, bool allocate, unsigned itemSize);
    template <typename T> bool WriteArray(FourCC tag, const T* values, unsigned int count);
    bool BeginRead(FourCC tag);
    bool BeginWrite(FourCC tag);
    void ClearTree();
    bool LoadTable();
    Node* NewNode(Node* parent, FourCC id);

    NodePool* m_nodes;
    Node* m_root;
    Node* m_current;
    Node* m_lastLeft = nullptr;
    DataStream m_file;  // the whole file, while reading
    uint64 m_position = 0; // the read position in m_file
};

} // namespace KovexEngine
