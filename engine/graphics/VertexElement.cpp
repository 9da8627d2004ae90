#include "graphics/VertexElement.h"

#include "kernel/Log.h"
#include "reflection/FunctionRegistration.h"
#include "reflection/Struct.h"
#include "serialization/Serializer.h"

namespace KovexEngine {

namespace {
namespace Tags {
constexpr FourCC ELEM = FourCCs::Make("ELEM");
constexpr FourCC NAME = FourCCs::Make("NAME");
constexpr FourCC INDX = FourCCs::Make("INDX");
constexpr FourCC FMT = FourCCs::Make("FMT");
constexpr FourCC SLOT = FourCCs::Make("SLOT");
constexpr FourCC OFS = FourCCs::Make("OFS");
constexpr FourCC CLS = FourCCs::Make("CLS");
constexpr FourCC RATE = FourCCs::Make("RATE");
} // namespace Tags
} // namespace

const uint32 VertexElement::ElementSize[14] = {4, 8, 12, 16, 4, 8, 4, 4, 8, 4, 4, 8, 0, 0};

void VertexElement::Assign(GraphicsSemantic name, uint32 index, GraphicsLayoutFormat format, uint32 slot,
                           uint32 offset, GraphicsInputClass inputClass, uint32 step)
{
    SemanticName = name;
    SemanticIndex = index;
    Format = format;
    InputSlot = slot;
    AlignedByteOffset = offset;
    InputSlotClass = inputClass;
    InstanceDataStepRate = step;
}

uint32 VertexElement::GetStride() const
{
    return uint32(Format.value) < 14 ? ElementSize[Format.value] : 0;
}

bool VertexElement::operator==(const VertexElement& o) const
{
    return SemanticName.value == o.SemanticName.value && SemanticIndex == o.SemanticIndex &&
           Format.value == o.Format.value && InputSlot == o.InputSlot && AlignedByteOffset == o.AlignedByteOffset &&
           InputSlotClass.value == o.InputSlotClass.value && InstanceDataStepRate == o.InstanceDataStepRate;
}

bool VertexElement::Save(Serializer& s) const
{
    if (!s.EnterNext(Tags::ELEM))
        return false;
    bool ok = s.Write(Tags::NAME, int32(SemanticName.value)) && s.Write(Tags::INDX, SemanticIndex) &&
              s.Write(Tags::FMT, int32(Format.value)) && s.Write(Tags::SLOT, InputSlot) &&
              s.Write(Tags::OFS, AlignedByteOffset) && s.Write(Tags::CLS, int32(InputSlotClass.value)) &&
              s.Write(Tags::RATE, InstanceDataStepRate);
    s.Leave();
    return ok;
}

bool VertexElement::Load(Serializer& s)
{
    if (!s.EnterNext(Tags::ELEM))
    {
        Log::Print(LOG_ERROR, u"VertexElement: missing ELEM section.\n");
        return false;
    }
    int32 name = 0, format = 0, inputClass = 0;
    VertexElement e;
    bool ok = s.Read(Tags::NAME, name) && s.Read(Tags::INDX, e.SemanticIndex) && s.Read(Tags::FMT, format) &&
              s.Read(Tags::SLOT, e.InputSlot) && s.Read(Tags::OFS, e.AlignedByteOffset) &&
              s.Read(Tags::CLS, inputClass) && s.Read(Tags::RATE, e.InstanceDataStepRate);
    s.Leave();
    if (!ok)
    {
        Log::Print(LOG_ERROR, u"VertexElement: incomplete ELEM section.\n");
        return false;
    }
    if (!GraphicsSemantic::GetEnumMember(name) || !GraphicsLayoutFormat::GetEnumMember(format) ||
        !GraphicsInputClass::GetEnumMember(inputClass))
    {
        Log::Format(LOG_ERROR, u"VertexElement: unknown semantic %d, format %d or class %d.\n", name, format,
                    inputClass);
        return false;
    }
    e.SemanticName = name;
    e.Format = format;
    e.InputSlotClass = inputClass;
    *this = e;
    return true;
}

KOVEX_REGISTER_STRUCT(VertexElement, u"Engine", KOVEX_TYPE_CUSTOM)
void VertexElement::StaticConstructor(Class* cls)
{
    using E = VertexElement;
    AddStructField(cls, u"SemanticName", &E::SemanticName);
    AddStructField(cls, u"SemanticIndex", &E::SemanticIndex);
    AddStructField(cls, u"Format", &E::Format);
    AddStructField(cls, u"InputSlot", &E::InputSlot);
    AddStructField(cls, u"AlignedByteOffset", &E::AlignedByteOffset);
    AddStructField(cls, u"InputSlotClass", &E::InputSlotClass);
    AddStructField(cls, u"InstanceDataStepRate", &E::InstanceDataStepRate);
    AddFunction(cls, u"Assign", &E::Assign, {u"name", u"index", u"format", u"slot", u"offset", u"inputClass", u"step"});
    cls->ProcessClass();
}

} // namespace KovexEngine
