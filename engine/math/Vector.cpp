#include "math/Vector.h"

namespace KovexEngine {
namespace {

template <typename V>
float NormalizeInPlace(V& v)
{
    float length = v.Length();
    if (length > 0.0f)
        v = v * (1.0f / length);
    return length;
}

uint32 ToByte(float c)
{
    if (!(c > 0.0f))
        return 0;
    if (c >= 1.0f)
        return 255;
    return uint32(c * 255.0f + 0.5f);
}

} // namespace

float Vector2::Normalize() { return NormalizeInPlace(*this); }
float Vector3::Normalize() { return NormalizeInPlace(*this); }
float Vector4::Normalize() { return NormalizeInPlace(*this); }

uint32 Vector4::ToRGBA() const { return ToByte(x) | ToByte(y) << 8 | ToByte(z) << 16 | ToByte(w) << 24; }
uint32 Vector4::ToBGRA() const { return ToByte(z) | ToByte(y) << 8 | ToByte(x) << 16 | ToByte(w) << 24; }

Vector4 Vector4::FromRGBA(uint32 word)
{
    constexpr float k = 1.0f / 255.0f;
    return {float(word & 0xFF) * k, float((word >> 8) & 0xFF) * k, float((word >> 16) & 0xFF) * k, float(word >> 24) * k};
}

Vector4 Vector4::FromBGRA(uint32 word)
{
    constexpr float k = 1.0f / 255.0f;
    return {float((word >> 16) & 0xFF) * k, float((word >> 8) & 0xFF) * k, float(word & 0xFF) * k, float(word >> 24) * k};
}

} // namespace KovexEngine
