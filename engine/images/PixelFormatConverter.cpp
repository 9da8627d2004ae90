#include "images/PixelFormatConverter.h"

#include <cmath>
#include <cstring>
#include <type_traits>

#include "graphics/GraphicsFormat.h"
#include "math/Vector.h"

namespace KovexEngine {

namespace {

struct uint24
{
    uint8 bytes[3];
};

struct Half4
{
    uint16 halves[4];
};

// Float to integer by truncation; NaN and values beyond int range give
// something defined, since a file's half floats may hold anything.
inline int32 Truncate(float f)
{
    if (!(f == f))
        return 0;
    if (f >= 2147483520.0f)
        return 2147483520;
    if (f <= -2147483648.0f)
        return int32(-2147483647 - 1);
    return int32(f);
}

template <typename T>
inline T LoadRaw(const uint8* p)
{
    T value;
    std::memcpy(&value, p, sizeof(T));
    return value;
}

template <typename T>
inline void StoreRaw(uint8* p, T value)
{
    std::memcpy(p, &value, sizeof(T));
}

// A packed format: each channel a bit field of the stored word. Bits 0 means
// the channel is absent; XAlpha means the alpha field is padding (X), which
// reads as opaque and is written from the word's alpha as it stands.
template <typename Storage, unsigned RS, unsigned RB, unsigned GS, unsigned GB, unsigned BS, unsigned BB, unsigned AS,
          unsigned AB, bool XAlpha>
struct PackedCodec
{
    static constexpr uint32 kStride = sizeof(Storage);

    static inline uint32 LoadWord(const uint8* p)
    {
        if constexpr (std::is_same_v<Storage, uint24>)
            return uint32(p[0]) | uint32(p[1]) << 8 | uint32(p[2]) << 16;
        else
            return uint32(LoadRaw<Storage>(p));
    }
    static inline void StoreWord(uint8* p, uint32 w)
    {
        if constexpr (std::is_same_v<Storage, uint24>)
        {
            p[0] = uint8(w);
            p[1] = uint8(w >> 8);
            p[2] = uint8(w >> 16);
        }
        else
            StoreRaw<Storage>(p, Storage(w));
    }

    template <unsigned Bits>
    static constexpr uint32 Mask() { return Bits ? (1u << Bits) - 1u : 0u; }

    // n-bit value to 8 bits, rounded to the nearest.
    template <unsigned Bits>
    static inline uint32 Expand(uint32 v)
    {
        if constexpr (Bits == 8)
            return v;
        else
            return (v * 255u + Mask<Bits>() / 2) / Mask<Bits>();
    }

    static inline uint32 ToInt(const uint8* p)
    {
        uint32 w = LoadWord(p);
        uint32 r = Expand<RB>((w >> RS) & Mask<RB>());
        uint32 g = Expand<GB>((w >> GS) & Mask<GB>());
        uint32 b = Expand<BB>((w >> BS) & Mask<BB>());
        uint32 a = 0xFFu;
        if constexpr (AB != 0 && !XAlpha)
            a = Expand<AB>((w >> AS) & Mask<AB>());
        return r | g << 8 | b << 16 | a << 24;
    }

    static inline void FromInt(uint8* p, uint32 word)
    {
        uint32 w = ((word & 0xFFu) >> (8 - RB)) << RS | (((word >> 8) & 0xFFu) >> (8 - GB)) << GS |
                   (((word >> 16) & 0xFFu) >> (8 - BB)) << BS;
        if constexpr (AB != 0)
            w |= ((word >> 24) >> (8 - AB)) << AS;
        StoreWord(p, w);
    }

    static inline Vector4 ToFloat(const uint8* p)
    {
        uint32 w = LoadWord(p);
        Vector4 v(float((w >> RS) & Mask<RB>()) / float(Mask<RB>()), float((w >> GS) & Mask<GB>()) / float(Mask<GB>()),
                  float((w >> BS) & Mask<BB>()) / float(Mask<BB>()), 1.0f);
        if constexpr (XAlpha)
            v.w = 255.0f; // as the engine always had it: not 1.0
        else if constexpr (AB != 0)
            v.w = float((w >> AS) & Mask<AB>()) / float(Mask<AB>());
        return v;
    }

    static inline void FromFloat(uint8* p, const Vector4& v)
    {
        uint32 w = (uint32(Truncate(v.x * float(Mask<RB>()))) & Mask<RB>()) << RS |
                   (uint32(Truncate(v.y * float(Mask<GB>()))) & Mask<GB>()) << GS |
                   (uint32(Truncate(v.z * float(Mask<BB>()))) & Mask<BB>()) << BS;
        if constexpr (XAlpha)
            w |= Mask<AB>() << AS;
        else if constexpr (AB != 0)
            w |= (uint32(Truncate(v.w * float(Mask<AB>()))) & Mask<AB>()) << AS;
        StoreWord(p, w);
    }
};

// IEEE half floats by hand: not every compiler has a 16-bit float type.
inline float HalfToFloat(uint16 h)
{
    const uint32 sign = uint32(h & 0x8000u) << 16;
    const uint32 exponent = (h >> 10) & 0x1Fu;
    uint32 mantissa = h & 0x3FFu;
    uint32 bits;
    if (exponent == 0 && mantissa == 0)
        bits = sign;
    else if (exponent == 0) // subnormal: normalise
    {
        uint32 shifts = 0;
        while (!(mantissa & 0x400u))
        {
            mantissa <<= 1;
            ++shifts;
        }
        bits = sign | (113u - shifts) << 23 | (mantissa & 0x3FFu) << 13;
    }
    else if (exponent == 31)
        bits = sign | 0x7F800000u | mantissa << 13;
    else
        bits = sign | (exponent + 112u) << 23 | mantissa << 13;
    float f;
    std::memcpy(&f, &bits, 4);
    return f;
}

// Rounded to nearest, ties to even.
inline uint16 FloatToHalf(float f)
{
    uint32 x;
    std::memcpy(&x, &f, 4);
    const uint32 sign = (x >> 16) & 0x8000u;
    const uint32 magnitude = x & 0x7FFFFFFFu;
    if (magnitude >= 0x7F800000u)
        return uint16(sign | 0x7C00u | (magnitude > 0x7F800000u ? 0x200u : 0u));
    if (magnitude >= 0x477FF000u) // 65520 and up round to infinity
        return uint16(sign | 0x7C00u);
    if (magnitude < 0x38800000u) // below the smallest normal half
    {
        if (magnitude < 0x33000000u)
            return uint16(sign);
        const uint32 mantissa = (magnitude & 0x7FFFFFu) | 0x800000u;
        const uint32 shift = 126u - (magnitude >> 23);
        uint32 r = mantissa >> shift;
        const uint32 rest = mantissa & ((1u << shift) - 1), half = 1u << (shift - 1);
        if (rest > half || (rest == half && (r & 1)))
            ++r;
        return uint16(sign | r);
    }
    uint32 r = (magnitude - 0x38000000u) >> 13;
    const uint32 rest = magnitude & 0x1FFFu;
    if (rest > 0x1000u || (rest == 0x1000u && (r & 1)))
        ++r;
    return uint16(sign | r);
}

struct HalfCodec
{
    static constexpr uint32 kStride = sizeof(Half4);

    static inline Vector4 ToFloat(const uint8* p)
    {
        uint16 h[4];
        std::memcpy(h, p, sizeof(h));
        return Vector4(HalfToFloat(h[0]), HalfToFloat(h[1]), HalfToFloat(h[2]), HalfToFloat(h[3]));
    }
    static inline void FromFloat(uint8* p, const Vector4& v)
    {
        const uint16 h[4] = {FloatToHalf(v.x), FloatToHalf(v.y), FloatToHalf(v.z), FloatToHalf(v.w)};
        std::memcpy(p, h, sizeof(h));
    }
    static inline uint32 ToInt(const uint8* p)
    {
        Vector4 v = ToFloat(p);
        return (uint32(Truncate(v.x * 255.0f)) & 0xFFu) | (uint32(Truncate(v.y * 255.0f)) & 0xFFu) << 8 |
               (uint32(Truncate(v.z * 255.0f)) & 0xFFu) << 16 | (uint32(Truncate(v.w * 255.0f)) & 0xFFu) << 24;
    }
    static inline void FromInt(uint8* p, uint32 w)
    {
        FromFloat(p, Vector4(float(w & 0xFFu) / 255.0f, float((w >> 8) & 0xFFu) / 255.0f,
                             float((w >> 16) & 0xFFu) / 255.0f, float(w >> 24) / 255.0f));
    }
};

// One byte of luminance; colour in is weighted 299/587/114 (per mille).
struct GrayCodec
{
    static constexpr uint32 kStride = 1;

    static inline uint32 ToInt(const uint8* p) { return uint32(*p) * 0x010101u | 0xFF000000u; }
    static inline void FromInt(uint8* p, uint32 w)
    {
        *p = uint8(((w & 0xFFu) * 299u + ((w >> 8) & 0xFFu) * 587u + ((w >> 16) & 0xFFu) * 114u) / 1000u);
    }
    static inline Vector4 ToFloat(const uint8* p)
    {
        float g = float(*p) / 255.0f;
        return Vector4(g, g, g, 1.0f);
    }
    static inline void FromFloat(uint8* p, const Vector4& v)
    {
        *p = uint8(uint32(Truncate((0.299f * v.x + 0.587f * v.y + 0.114f * v.z) * 255.0f)) & 0xFFu);
    }
};

template <int Format> struct CodecOf;
// The table of the fourteen: format, storage, codec. Packed fields give
// (shift, bits) for red, green, blue, alpha, then whether alpha is padding.
#define KOVEX_PLAIN_FORMATS(X)                                                                           \
    X(R8G8B8A8_UNORM, uint32, (PackedCodec<uint32, 0, 8, 8, 8, 16, 8, 24, 8, false>))                     \
    X(B8G8R8A8_UNORM, uint32, (PackedCodec<uint32, 16, 8, 8, 8, 0, 8, 24, 8, false>))                     \
    X(B8G8R8X8_UNORM, uint32, (PackedCodec<uint32, 16, 8, 8, 8, 0, 8, 24, 8, true>))                      \
    X(R8G8B8X8_UNORM, uint32, (PackedCodec<uint32, 0, 8, 8, 8, 16, 8, 24, 8, true>))                      \
    X(B8G8R8_UNORM, uint24, (PackedCodec<uint24, 16, 8, 8, 8, 0, 8, 0, 0, false>))                        \
    X(R8G8B8_UNORM, uint24, (PackedCodec<uint24, 0, 8, 8, 8, 16, 8, 0, 0, false>))                        \
    X(R16G16B16A16_FLOAT, Half4, (HalfCodec))                                                             \
    X(B5G6R5_UNORM, uint16, (PackedCodec<uint16, 11, 5, 5, 6, 0, 5, 0, 0, false>))                        \
    X(B5G5R5A1_UNORM, uint16, (PackedCodec<uint16, 10, 5, 5, 5, 0, 5, 15, 1, false>))                     \
    X(B5G5R5X1_UNORM, uint16, (PackedCodec<uint16, 10, 5, 5, 5, 0, 5, 15, 1, true>))                      \
    X(B4G4R4A4_UNORM, uint16, (PackedCodec<uint16, 8, 4, 4, 4, 0, 4, 12, 4, false>))                      \
    X(B4G4R4X4_UNORM, uint16, (PackedCodec<uint16, 8, 4, 4, 4, 0, 4, 12, 4, true>))                       \
    X(B2G3R3A8_UNORM, uint16, (PackedCodec<uint16, 5, 3, 2, 3, 0, 2, 8, 8, false>))                       \
    X(GRAY_SCALE_UNORM, uint8, (GrayCodec))

#define KOVEX_UNPAREN(...) __VA_ARGS__
#define KOVEX_CODEC_OF(name, storage, codec) \
    template <> struct CodecOf<GraphicsFormat::name> { using type = KOVEX_UNPAREN codec; };
KOVEX_PLAIN_FORMATS(KOVEX_CODEC_OF)
#undef KOVEX_CODEC_OF

template <typename Storage, int Format>
struct PixelFormatConverterT final : PixelFormatConverter
{
    using Codec = typename CodecOf<Format>::type;
    static_assert(sizeof(Storage) == Codec::kStride);
    static constexpr uint32 kStride = sizeof(Storage);
    static constexpr bool kIsHalf = Format == GraphicsFormat::R16G16B16A16_FLOAT;

    void ToInt(uint32& word, const void* s) const override { word = Codec::ToInt(static_cast<const uint8*>(s)); }
    void ToFloat(Vector4& v, const void* s) const override { v = Codec::ToFloat(static_cast<const uint8*>(s)); }
    void FromInt(void* t, uint32 word) const override { Codec::FromInt(static_cast<uint8*>(t), word); }
    void FromFloat(void* t, const Vector4& v) const override { Codec::FromFloat(static_cast<uint8*>(t), v); }
    uint32 GetStride() const override { return kStride; }
};

// One class per ordered pair; Intermediate is uint32 (the canonical word) or
// Vector4 (when either side holds half floats).
template <typename Target, typename Source, typename Intermediate>
struct ImageFormatConverterT final : ImageFormatConverter
{
    static inline void Pixel(uint8* t, const uint8* s)
    {
        if constexpr (std::is_same_v<Intermediate, Vector4>)
            Target::Codec::FromFloat(t, Source::Codec::ToFloat(s));
        else
            Target::Codec::FromInt(t, Source::Codec::ToInt(s));
    }
    void ExecuteS(void* t, const void* s) const override
    {
        Pixel(static_cast<uint8*>(t), static_cast<const uint8*>(s));
    }
    void ExecuteM(void* t, const void* s, uint32 count) const override
    {
        uint8* to = static_cast<uint8*>(t);
        const uint8* from = static_cast<const uint8*>(s);
        if constexpr (std::is_same_v<Target, Source>)
            std::memmove(to, from, size_t(count) * Target::kStride);
        else
            for (uint32 i = 0; i < count; ++i)
                Pixel(to + size_t(i) * Target::kStride, from + size_t(i) * Source::kStride);
    }
    uint32 GetTargetStride() const override { return Target::kStride; }
    uint32 GetSourceStride() const override { return Source::kStride; }
};

template <typename Target, typename Source>
ImageFormatConverter* MakePair()
{
    using Intermediate = std::conditional_t<Target::kIsHalf || Source::kIsHalf, Vector4, uint32>;
    return new ImageFormatConverterT<Target, Source, Intermediate>();
}

#define KOVEX_CONVERTER_T(name, storage, codec) PixelFormatConverterT<storage, GraphicsFormat::name>

template <typename Target>
ImageFormatConverter* CreateForTarget(int source)
{
    switch (source)
    {
#define KOVEX_SOURCE_CASE(name, storage, codec) \
    case GraphicsFormat::name: return MakePair<Target, KOVEX_CONVERTER_T(name, storage, codec)>();
        KOVEX_PLAIN_FORMATS(KOVEX_SOURCE_CASE)
#undef KOVEX_SOURCE_CASE
    default: return nullptr;
    }
}

bool InPlainRange(int format)
{
    return format >= GraphicsFormat::R8G8B8A8_UNORM && format <= GraphicsFormat::GRAY_SCALE_UNORM;
}

} // namespace

PixelFormatConverter::~PixelFormatConverter() = default;

PixelFormatConverter* PixelFormatConverter::Create(int format)
{
    if (!InPlainRange(format))
        return nullptr;
    switch (format)
    {
#define KOVEX_PIXEL_CASE(name, storage, codec) \
    case GraphicsFormat::name: return new KOVEX_CONVERTER_T(name, storage, codec)();
        KOVEX_PLAIN_FORMATS(KOVEX_PIXEL_CASE)
#undef KOVEX_PIXEL_CASE
    default: return nullptr;
    }
}

bool PixelFormatConverter::IsPlainFormat(int format)
{
    switch (format)
    {
#define KOVEX_PLAIN_CASE(name, storage, codec) case GraphicsFormat::name:
        KOVEX_PLAIN_FORMATS(KOVEX_PLAIN_CASE)
#undef KOVEX_PLAIN_CASE
        return true;
    default: return false;
    }
}

ImageFormatConverter::~ImageFormatConverter() = default;

ImageFormatConverter* ImageFormatConverter::Create(int target, int source)
{
    if (!InPlainRange(target) || !InPlainRange(source))
        return nullptr;
    switch (target)
    {
#define KOVEX_TARGET_CASE(name, storage, codec) \
    case GraphicsFormat::name: return CreateForTarget<KOVEX_CONVERTER_T(name, storage, codec)>(source);
        KOVEX_PLAIN_FORMATS(KOVEX_TARGET_CASE)
#undef KOVEX_TARGET_CASE
    default: return nullptr;
    }
}

void ImageFormatConverter::Execute(void* target, const void* source, uint32 targetPitch, uint32 sourcePitch,
                                   uint32 width, uint32 height) const
{
    size_t tp = targetPitch ? targetPitch : size_t(width) * GetTargetStride();
    size_t sp = sourcePitch ? sourcePitch : size_t(width) * GetSourceStride();
    for (uint32 y = 0; y < height; ++y)
        ExecuteM(static_cast<uint8*>(target) + tp * y, static_cast<const uint8*>(source) + sp * y, width);
}

void ImageFormatConverter::ExecuteFlip(void* target, const void* source, uint32 targetPitch, uint32 sourcePitch,
                                       uint32 width, uint32 height) const
{
    size_t tp = targetPitch ? targetPitch : size_t(width) * GetTargetStride();
    size_t sp = sourcePitch ? sourcePitch : size_t(width) * GetSourceStride();
    for (uint32 y = 0; y < height; ++y)
        ExecuteM(static_cast<uint8*>(target) + tp * y, static_cast<const uint8*>(source) + sp * (height - 1 - y), width);
}

ImageFormatConverterI::ImageFormatConverterI(PixelFormatConverter* target, PixelFormatConverter* source)
    : m_target(target), m_source(source)
{
}

ImageFormatConverterI::~ImageFormatConverterI()
{
    delete m_target;
    delete m_source;
}

void ImageFormatConverterI::ExecuteS(void* target, const void* source) const
{
    uint32 word = 0;
    m_source->ToInt(word, source);
    m_target->FromInt(target, word);
}

void ImageFormatConverterI::ExecuteM(void* target, const void* source, uint32 count) const
{
    for (uint32 i = 0; i < count; ++i)
        ExecuteS(static_cast<uint8*>(target) + size_t(i) * m_target->GetStride(),
                 static_cast<const uint8*>(source) + size_t(i) * m_source->GetStride());
}

uint32 ImageFormatConverterI::GetTargetStride() const { return m_target->GetStride(); }
uint32 ImageFormatConverterI::GetSourceStride() const { return m_source->GetStride(); }

void ImageFormatConverterF::ExecuteS(void* target, const void* source) const
{
    Vector4 v;
    m_source->ToFloat(v, source);
    m_target->FromFloat(target, v);
}

void ImageFormatConverterF::ExecuteM(void* target, const void* source, uint32 count) const
{
    for (uint32 i = 0; i < count; ++i)
        ExecuteS(static_cast<uint8*>(target) + size_t(i) * m_target->GetStride(),
                 static_cast<const uint8*>(source) + size_t(i) * m_source->GetStride());
}

} // namespace KovexEngine
