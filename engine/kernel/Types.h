#pragma once

#include <cstddef>
#include <cstdint>

#include "kernel/Export.h"

namespace KovexEngine {

using int8 = std::int8_t;
using uint8 = std::uint8_t;
using int16 = std::int16_t;
using uint16 = std::uint16_t;
using int32 = std::int32_t;
using uint32 = std::uint32_t;
using int64 = std::int64_t;
using uint64 = std::uint64_t;

// The all-ones index: "not found" for searches, "to the end" for counts.
inline constexpr unsigned int kNotFound = 0xFFFFFFFFu;

// A 32-bit chunk tag of four characters, first character in the low byte.
using FourCC = uint32;
constexpr FourCC MakeFourCC(char a, char b, char c, char d)
{
    return FourCC(uint8(a)) | (FourCC(uint8(b)) << 8) | (FourCC(uint8(c)) << 16) | (FourCC(uint8(d)) << 24);
}

class Vector2;
class Vector3;
class Vector4;
class Quaternion;
class Matrix2;
class Matrix3;
class Matrix4;

} // namespace KovexEngine
