#include "math/MathUtil.h"

#include <atomic>
#include <cstring>

namespace KovexEngine {
namespace {

// Float bits of 1/sqrt at the middle of each cell; the key is the exponent's
// lowest bit and the mantissa's top 11 bits.
constexpr unsigned kTableBits = 12;
uint32 s_invSqrtTable[1u << kTableBits];
std::atomic<bool> s_mathInited{false};

uint32 Bits(float f) { uint32 b; std::memcpy(&b, &f, 4); return b; }
float FromBits(uint32 b) { float f; std::memcpy(&f, &b, 4); return f; }

// The biased exponent of the sample that stands for a key: 127 for odd
// exponents, 128 for even ones.
uint32 KeyExponent(uint32 key) { return (key >> 11) ? 127u : 128u; }

} // namespace

void Math::Init()
{
    if (s_mathInited.load(std::memory_order_acquire))
        return;
    for (uint32 key = 0; key < (1u << kTableBits); ++key)
    {
        uint32 mantissa = ((key & 0x7FFu) << 12) | (1u << 11);
        float sample = FromBits((KeyExponent(key) << 23) | mantissa);
        s_invSqrtTable[key] = Bits(float(1.0 / std::sqrt(double(sample))));
    }
    s_mathInited.store(true, std::memory_order_release);
}

bool Math::IsInited() { return s_mathInited.load(std::memory_order_acquire); }

float Math::FastInvSqrt(float x)
{
    uint32 bits = Bits(x);
    uint32 exponent = (bits >> 23) & 0xFF;
    if (!(x > 0.0f) || exponent == 0xFF || !s_mathInited.load(std::memory_order_relaxed))
        return x != x ? x : 0.0f; // NaN stays NaN; zero, negatives, infinity give 0
    if (exponent == 0)
        return 1.0f / std::sqrt(x); // subnormal: the table does not cover it
    uint32 key = (bits >> 12) & ((1u << kTableBits) - 1);
    int32 shift = (int32(exponent) - int32(KeyExponent(key))) / 2;
    float y = FromBits(uint32(int32(s_invSqrtTable[key]) - (shift << 23)));
    return y * (1.5f - 0.5f * x * y * y);
}

uint32 Math::NextPowerOfTwo(uint32 v)
{
    if (v <= 1)
        return 1;
    if (v > 0x80000000u)
        return 0;
    --v;
    v |= v >> 1; v |= v >> 2; v |= v >> 4; v |= v >> 8; v |= v >> 16;
    return v + 1;
}

} // namespace KovexEngine
