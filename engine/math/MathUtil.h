#pragma once

#include <cmath>

#include "kernel/Types.h"

namespace KovexEngine {

class KOVEX_API Math
{
public:
    static constexpr float PI = 3.14159265358979323846f;
    static constexpr float TWO_PI = 2.0f * PI;
    static constexpr float HALF_PI = 0.5f * PI;
    static constexpr float DEG_TO_RAD = PI / 180.0f;
    static constexpr float RAD_TO_DEG = 180.0f / PI;
    static constexpr float EPSILON = 1e-6f;

    // Builds the table behind FastInvSqrt, once per process.
    static void Init();
    static bool IsInited();

    // 1 / sqrt(x) from a table of the mantissa's top bits and one Newton
    // step: about 22 correct bits. 0 for x <= 0 or before Init.
    static float FastInvSqrt(float x);
    static float FastSqrt(float x) { return x * FastInvSqrt(x); }

    static constexpr float DegToRad(float degrees) { return degrees * DEG_TO_RAD; }
    static constexpr float RadToDeg(float radians) { return radians * RAD_TO_DEG; }
    template <typename T> static constexpr T Clamp(T v, T lo, T hi) { return v < lo ? lo : (hi < v ? hi : v); }
    template <typename T> static constexpr T Min(T a, T b) { return b < a ? b : a; }
    template <typename T> static constexpr T Max(T a, T b) { return a < b ? b : a; }
    static constexpr float Lerp(float a, float b, float t) { return a + (b - a) * t; }
    static bool NearlyEqual(float a, float b, float epsilon = 1e-5f) { return std::fabs(a - b) <= epsilon; }
    static constexpr bool IsPowerOfTwo(uint32 v) { return v && !(v & (v - 1)); }
    static uint32 NextPowerOfTwo(uint32 v);
};

} // namespace KovexEngine
