#pragma once

// One element of a vertex layout, and its serial form: a section "ELEM" with
// the tagged fields "NAME", "INDX", "FMT", "SLOT", "OFS", "CLS", "RATE"
// (enum fields as their integers). A plain value.

#include "kernel/ReflectedStruct.h"
#include "reflection/EngineEnums.h"

namespace KovexEngine {

class Serializer;

struct KOVEX_API VertexElement
{
    KOVEX_STRUCT(VertexElement)
    GraphicsSemantic SemanticName = GraphicsSemantic::Position;
    uint32 SemanticIndex = 0;
    GraphicsLayoutFormat Format = GraphicsLayoutFormat::Float1;
    uint32 InputSlot = 0;
    uint32 AlignedByteOffset = 0;
    GraphicsInputClass InputSlotClass = GraphicsInputClass::PerVertex;
    uint32 InstanceDataStepRate = 0;

    // Bytes per GraphicsLayoutFormat. UShort2N and UShort4N have 0 here, as
    // the layouts of the engine have always been built with.
    static const uint32 ElementSize[14];

    void Assign(GraphicsSemantic name, uint32 index, GraphicsLayoutFormat format, uint32 slot, uint32 offset,
                GraphicsInputClass inputClass, uint32 step);
    // The table entry of the element's format; 0 for a value out of range.
    uint32 GetStride() const;
    bool operator==(const VertexElement& o) const;
    bool operator!=(const VertexElement& o) const { return !(*this == o); }

    // Writes one "ELEM" section (entered with EnterNext, so a run of
    // elements is written and read in order).
    bool Save(Serializer& s) const;
    // Reads the next "ELEM" section; false, with a log line and this element
    // untouched, when it is missing, incomplete or names no member.
    bool Load(Serializer& s);
};

} // namespace KovexEngine
