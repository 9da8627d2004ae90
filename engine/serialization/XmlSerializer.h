#pragma once

#include "serialization/Serializer.h"

namespace KovexEngine {

// The readable form: "<XML />\n", then an XML document in which each section
// is an element named by its tag and each value an attribute of it. Values
// are found by name, so their order is free when reading.
class KOVEX_API XmlSerializer : public Serializer
{
    KOVEX_CLASS(XmlSerializer)

public:
    XmlSerializer();
    ~XmlSerializer() override;

    static AString GetSelfHdrCode();
    const char* GetHdrCode() const override { return "XML"; }

    _Pos* CreatePos() override;
    void GetPos(_Pos* position) override;
    bool SetPos(const _Pos* position) override;
    bool Open(const Ptr<Stream>& stream, SerializeMode mode) override;

#define KOVEX_XML_SCALAR(T) \
    bool Read(FourCC tag, T& value) override; \
    bool Write(FourCC tag, const T& value) override;
#define KOVEX_XML_ARRAY(T) \
    bool Read(FourCC tag, T*& values, unsigned int& count, bool allocate) override; \
    bool Write(FourCC tag, const T* values, unsigned int count) override;
    KOVEX_SERIALIZER_SCALARS(KOVEX_XML_SCALAR)
    KOVEX_SERIALIZER_ARRAYS(KOVEX_XML_ARRAY)
#undef KOVEX_XML_SCALAR
#undef KOVEX_XML_ARRAY
    bool Read(FourCC tag, AString& value) override;
    bool Write(FourCC tag, const AString& value) override;
    bool Read(FourCC tag, void* record, const SerializeMemLayout& layout) override;
    bool Write(FourCC tag, const void* record, const SerializeMemLayout& layout) override;
    bool Read(FourCC tag, void*& records, unsigned int& count, const SerializeMemLayout& layout, bool allocate) override;
    bool Write(FourCC tag, const void* records, unsigned int count, const SerializeMemLayout& layout) override;
    // Structs are written field by field as text; reading them back is left
    // to a struct's own load function, so these reads always fail.
    bool Read(FourCC tag, void* value, const Struct* type) override;
    bool Write(FourCC tag, const void* value, const Struct* type) override;
    bool Read(FourCC tag, void*& values, unsigned int& count, const Struct* type, bool allocate) override;
    bool Write(FourCC tag, const void* values, unsigned int count, const Struct* type) override;
    using Serializer::Read;
    using Serializer::Write;
    unsigned int CountSections(FourCC tag) const override;

    // Deepest element nesting a document may have; checked before parsing,
    // since the parser descends recursively.
    static constexpr unsigned kMaxNesting = 1024;

    struct State;

protected:
    void InternalClose() override;
    bool InternalEnter(FourCC tag) override;
    bool InternalEnterNext(FourCC tag) override;
    void InternalLeave() override;

private:
    bool WriteText(FourCC tag, const char* text, unsigned length);
    // The attribute's text, or null.
    const char* FindText(FourCC tag, unsigned* length = nullptr) const;
    template <typename T> bool ReadArray(FourCC tag, T*& values, unsigned int& count, bool allocate);
    template <typename T> bool WriteArray(FourCC tag, const T* values, unsigned int count);

    State* m_state;
};

} // namespace KovexEngine
