#pragma once

// The material feature word: one 32-bit word that says how a material
// configuration blends and what its surface needs. PGConfMT keeps it, the
// program cache key and the render phases read it; this table is the only
// place that says where each part lives.
//
//   bits  0-3   BlendMode                 (signed 4-bit reads; values < 8)
//   bits  4-7   BlendAlphaMode
//   bits  8-11  TranslucentDepthMode
//   bits 12-15  TwoSideMode
//   bits 16-19  TessellationScheme
//   bit  20     ambient
//   bit  21     lit by scene lights ("lighting")
//   bit  22     needs the forward lighting path
//   bit  23     reads scene depth
//   bit  24     reads scene colour
//   bit  25     tessellation enabled
//   bit  26     diffuse
//   bit  27     distorted
//   bit  28     ambient used as transmission: an engine addition, taken from
//               the first free bit so that the fixed ones keep their places
//   bits 29-31  free (a word read from a file keeps them as they were)
//
// Each field and flag is written once below; the constants, the field table
// and the mask of known bits are generated from it.

#include "kernel/Types.h"

namespace KovexEngine {
namespace MaterialFeature {

// X(Name, first bit, number of members of its enumeration)
#define KOVEX_MATERIAL_FEATURE_FIELDS(X)                                                                             \
    X(BlendMode, 0, 8)                                                                                                 \
    X(BlendAlphaMode, 4, 3)                                                                                            \
    X(TranslucentDepthMode, 8, 4)                                                                                      \
    X(TwoSideMode, 12, 3)                                                                                              \
    X(TessellationScheme, 16, 3)

// X(Name, bit)
#define KOVEX_MATERIAL_FEATURE_FLAGS(X)                                                                              \
    X(Ambient, 20)                                                                                                     \
    X(LitBySceneLights, 21)                                                                                            \
    X(ForwardLighting, 22)                                                                                             \
    X(ReadsSceneDepth, 23)                                                                                             \
    X(ReadsSceneColor, 24)                                                                                             \
    X(Tessellation, 25)                                                                                                \
    X(Diffuse, 26)                                                                                                     \
    X(Distorted, 27)                                                                                                   \
    X(Transmission, 28)

constexpr unsigned kFieldBits = 4;
constexpr uint32 kFieldValueMask = (1u << kFieldBits) - 1;

// k<Field>Shift, k<Field>Mask (the field's bits in place), k<Field>Count.
#define KOVEX_MF_FIELD_CONSTANTS(name, shift, count)                                                                   \
    constexpr unsigned k##name##Shift = shift;                                                                         \
    constexpr uint32 k##name##Mask = kFieldValueMask << shift;                                                        \
    constexpr int k##name##Count = count;
KOVEX_MATERIAL_FEATURE_FIELDS(KOVEX_MF_FIELD_CONSTANTS)
#undef KOVEX_MF_FIELD_CONSTANTS

// k<Flag>Bit and k<Flag> (the flag's mask).
#define KOVEX_MF_FLAG_CONSTANTS(name, bit)                                                                             \
    constexpr unsigned k##name##Bit = bit;                                                                             \
    constexpr uint32 k##name = 1u << bit;
KOVEX_MATERIAL_FEATURE_FLAGS(KOVEX_MF_FLAG_CONSTANTS)
#undef KOVEX_MF_FLAG_CONSTANTS

// The fields in table order, for code that walks them all (validation).
struct FieldInfo
{
    const char* Name;
    unsigned Shift;
    int Count;
};
#define KOVEX_MF_FIELD_INFO(name, shift, count) FieldInfo{#name, shift, count},
constexpr FieldInfo kFields[] = {KOVEX_MATERIAL_FEATURE_FIELDS(KOVEX_MF_FIELD_INFO)};
#undef KOVEX_MF_FIELD_INFO
constexpr unsigned kNumFields = sizeof(kFields) / sizeof(kFields[0]);

#define KOVEX_MF_COUNT_FLAG(name, bit) +1
constexpr unsigned kNumFlags = 0 KOVEX_MATERIAL_FEATURE_FLAGS(KOVEX_MF_COUNT_FLAG);
#undef KOVEX_MF_COUNT_FLAG

// Every bit the table gives a meaning.
#define KOVEX_MF_FIELD_MASK(name, shift, count) | k##name##Mask
#define KOVEX_MF_FLAG_MASK(name, bit) | k##name
constexpr uint32 kKnownBits = 0u KOVEX_MATERIAL_FEATURE_FIELDS(KOVEX_MF_FIELD_MASK)
    KOVEX_MATERIAL_FEATURE_FLAGS(KOVEX_MF_FLAG_MASK);
#undef KOVEX_MF_FIELD_MASK
#undef KOVEX_MF_FLAG_MASK

// No two entries share a bit.
static_assert(__builtin_popcount(kKnownBits) == int(kNumFields * kFieldBits + kNumFlags),
              "material feature fields and flags overlap");

// The field at `shift`, read as a signed 4-bit number.
constexpr int GetField(uint32 word, unsigned shift)
{
    return int(int32(word << (32 - kFieldBits - shift)) >> (32 - kFieldBits));
}

// `word` with the field at `shift` replaced by the low 4 bits of `value`.
constexpr uint32 SetField(uint32 word, unsigned shift, int value)
{
    return (word & ~(kFieldValueMask << shift)) | ((uint32(value) & kFieldValueMask) << shift);
}

constexpr uint32 SetFlag(uint32 word, uint32 flag, bool on) { return on ? (word | flag) : (word & ~flag); }

// True when every field holds a member of its enumeration.
constexpr bool FieldsValid(uint32 word)
{
    for (const FieldInfo& field : kFields)
    {
        int value = GetField(word, field.Shift);
        if (value < 0 || value >= field.Count)
            return false;
    }
    return true;
}

} // namespace MaterialFeature
} // namespace KovexEngine
