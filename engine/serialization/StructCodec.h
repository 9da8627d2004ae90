#pragma once

#include "kernel/Export.h"
#include "kernel/Types.h"

namespace KovexEngine {

class Struct;

// Field-by-field binary encoding of reflected structs, shared by the
// serializers. Plain fields are their in-memory bytes; strings carry a
// length; nested structs recurse; a struct whose fields are all plain and
// lie back to back goes out as one stretch.
namespace StructCodec {

struct Sink
{
    virtual ~Sink() = default;
    virtual bool Put(const void* bytes, uint64 size) = 0;
};

struct Source
{
    virtual ~Source() = default;
    virtual bool Take(void* out, uint64 size) = 0;
    virtual uint64 Remaining() const = 0;
};

// Deep enough for any real nesting; a bound so that a cyclic or absurd
// description cannot exhaust the stack.
constexpr unsigned kMaxDepth = 32;

KOVEX_API bool EncodeBinary(Sink& sink, const uint8* data, const Struct* type, unsigned depth);
KOVEX_API bool DecodeBinary(Source& source, uint8* data, const Struct* type, unsigned depth);
// The fewest bytes one value of the struct takes encoded: what bounds a
// count of them read from a file.
KOVEX_API uint64 MinEncodedSize(const Struct* type);
// True when every field is a plain value or a nested struct of plain values.
KOVEX_API bool IsPlain(const Struct* type);

} // namespace StructCodec
} // namespace KovexEngine
