#include "graphics/GraphicsFormat.h"

#include <initializer_list>

#include "reflection/EnumClass.h"

namespace KovexEngine {

KOVEX_IMPLEMENT_ENUM(GraphicsFormat, KOVEX_ENUM_TABLE_GraphicsFormat)

namespace {

struct FormatRow
{
    bool isSigned;
    bool isCompressed;
    GraphicsFormatType::TYPE type;
    GraphicsFormatLayout::TYPE layout;
    unsigned bits;
};

#define KOVEX_GRAPHICS_FORMAT_ROW(P, name, value, type, layout, bits, sign, compressed) \
    {sign, compressed, GraphicsFormatType::type, GraphicsFormatLayout::layout, bits},
constexpr FormatRow kRows[] = {KOVEX_GRAPHICS_FORMAT_TABLE(KOVEX_GRAPHICS_FORMAT_ROW, _)};
#undef KOVEX_GRAPHICS_FORMAT_ROW

// The table is indexed by value: every row must sit at its own number.
#define KOVEX_GRAPHICS_FORMAT_VALUE(P, name, value, type, layout, bits, sign, compressed) value,
constexpr int kValues[] = {KOVEX_GRAPHICS_FORMAT_TABLE(KOVEX_GRAPHICS_FORMAT_VALUE, _)};
#undef KOVEX_GRAPHICS_FORMAT_VALUE
constexpr bool RowsSitAtTheirValues()
{
    for (unsigned i = 0; i < sizeof(kValues) / sizeof(kValues[0]); ++i)
        if (kValues[i] != int(i))
            return false;
    return sizeof(kValues) / sizeof(kValues[0]) == GraphicsFormat::COUNT;
}
static_assert(RowsSitAtTheirValues());

const FormatRow& Row(int format)
{
    return kRows[unsigned(format) < GraphicsFormat::COUNT ? unsigned(format) : 0u];
}

} // namespace

bool GraphicsFormat::IsFloat(int f) { return Row(f).type == GraphicsFormatType::Float; }
bool GraphicsFormat::IsInt(int f) { return Row(f).type == GraphicsFormatType::Int; }
bool GraphicsFormat::IsNorm(int f) { return Row(f).type == GraphicsFormatType::Norm; }
bool GraphicsFormat::IsTypeless(int f) { return Row(f).type == GraphicsFormatType::Typeless; }
bool GraphicsFormat::IsSigned(int f) { return Row(f).isSigned; }
bool GraphicsFormat::IsCompressed(int f) { return Row(f).isCompressed; }
GraphicsFormatType GraphicsFormat::GetType(int f) { return Row(f).type; }
GraphicsFormatLayout GraphicsFormat::GetLayout(int f) { return Row(f).layout; }
unsigned GraphicsFormat::GetFormatBits(int f) { return Row(f).bits; }
unsigned GraphicsFormat::GetFormatBytes(int f) { return Row(f).bits / 8; }
bool GraphicsFormat::IsFormatBitsEqual(int a, int b) { return Row(a).bits == Row(b).bits; }

// Block rows and columns round up, so the last partial row and column of a
// size that is not a multiple of 4 have their blocks. GRAY_SCALE_UNORM is
// flagged compressed in the table but its pixels are plain bytes, one per
// pixel, as its converter reads and writes them.
void GraphicsFormat::GetFormatInfo(unsigned& rowBytes, unsigned& rows, unsigned width, unsigned height, int f)
{
    const FormatRow& row = Row(f);
    if (f == GRAY_SCALE_UNORM)
    {
        rowBytes = width;
        rows = height;
    }
    else if (row.isCompressed)
    {
        unsigned blocksWide = width > 4 ? unsigned((uint64(width) + 3) / 4) : 1;
        rowBytes = row.bits * blocksWide;
        rows = height > 4 ? unsigned((uint64(height) + 3) / 4) : 1;
    }
    else
    {
        rowBytes = row.bits / 8 * width;
        rows = height;
    }
}

uint64 GraphicsFormat::GetFormatSize(unsigned width, unsigned height, int f)
{
    const FormatRow& row = Row(f);
    if (f == GRAY_SCALE_UNORM)
        return uint64(width) * height;
    if (row.isCompressed)
    {
        uint64 blocksWide = width > 4 ? (uint64(width) + 3) / 4 : 1;
        uint64 blocksHigh = height > 4 ? (uint64(height) + 3) / 4 : 1;
        return uint64(row.bits) * blocksWide * blocksHigh;
    }
    // Saturates: a width and height near 2^32 with 16-byte pixels would wrap.
    uint64 size = 0;
    if (__builtin_mul_overflow(uint64(row.bits / 8) * width, uint64(height), &size))
        return ~uint64(0);
    return size;
}

unsigned GetCompatibleFormatCandidates(GraphicsFormat format, GraphicsFormat (&out)[8])
{
    using F = GraphicsFormat;
    unsigned n = 0;
    auto put = [&](std::initializer_list<F::TYPE> list) {
        for (F::TYPE f : list)
            out[n++] = f;
    };
    switch (format.value)
    {
    case F::GRAY_SCALE_UNORM: put({F::R8G8B8A8_UNORM, F::B8G8R8A8_UNORM}); return n;
    case F::BC1_UNORM:
    case F::ATC_RGB:
    case F::ETC_RGB:
    case F::PVRTC_RGB_2BPP:
    case F::PVRTC_RGB_4BPP:
        put({F::R8G8B8_UNORM, F::B8G8R8_UNORM, F::R8G8B8A8_UNORM, F::B8G8R8A8_UNORM});
        return n;
    case F::BC4_UNORM: put({F::R8_UNORM}); [[fallthrough]];
    case F::BC5_UNORM:
        put({F::R8G8_UNORM, F::R8G8B8_UNORM, F::B8G8R8_UNORM, F::R8G8B8A8_UNORM, F::B8G8R8A8_UNORM});
        return n;
    default: break;
    }
    if (F::IsCompressed(format))
    {
        put({F::R8G8B8A8_UNORM, F::B8G8R8A8_UNORM});
        return n;
    }
    if (!F::IsNorm(format))
        return 0;
    GraphicsFormatLayout::TYPE layout = F::GetLayout(format);
    auto isOneOf = [layout](std::initializer_list<GraphicsFormatLayout::TYPE> list) {
        for (auto l : list)
            if (l == layout)
                return true;
        return false;
    };
    using L = GraphicsFormatLayout;
    switch (F::GetFormatBits(format))
    {
    case 16:
        if (F::IsSigned(format))
        {
            if (isOneOf({L::RG, L::RGB, L::BGR, L::RGBA, L::BGRA, L::RGBX, L::BGRX}))
                put({F::R8G8B8A8_SNORM});
        }
        else if (isOneOf({L::RGBA, L::BGRA}))
            put({F::B8G8R8A8_UNORM});
        else if (isOneOf({L::RG, L::RGB, L::BGR, L::RGBX, L::BGRX}))
            put({F::B8G8R8_UNORM, F::B8G8R8A8_UNORM});
        return n;
    case 24: put({F::B8G8R8_UNORM, F::R8G8B8A8_UNORM, F::B8G8R8A8_UNORM}); return n;
    case 32:
        if (isOneOf({L::RGBA, L::BGRA, L::RGBX, L::BGRX}))
            put({F::R8G8B8A8_UNORM, F::B8G8R8A8_UNORM});
        return n;
    default: return 0;
    }
}

} // namespace KovexEngine
