#pragma once

namespace KovexEngine {

// The classification of a reflected type; it also tags a Variable.
enum KOVEX_BASE_TYPE : int
{
    KOVEX_TYPE_UNKNOWN = 0,
    KOVEX_TYPE_BOOL = 1,
    KOVEX_TYPE_INT32 = 2,
    KOVEX_TYPE_UINT32 = 3,
    KOVEX_TYPE_FLOAT = 4,
    KOVEX_TYPE_VECTOR2 = 5,
    KOVEX_TYPE_VECTOR3 = 6,
    KOVEX_TYPE_VECTOR4 = 7,
    KOVEX_TYPE_QUATERNION = 8,
    KOVEX_TYPE_MATRIX2 = 9,
    KOVEX_TYPE_MATRIX3 = 10,
    KOVEX_TYPE_MATRIX4 = 11,
    KOVEX_TYPE_ASTRING = 12,
    KOVEX_TYPE_WSTRING = 13,
    KOVEX_TYPE_OBJECT = 14,   // a class derived from Object, held by pointer
    KOVEX_TYPE_CUSTOM = 15,   // a Struct: a plain value type described by fields
    // The display names of these two stand swapped: 16 shows as "Delegate"
    // and 17 as "Enum". The values are what counts.
    KOVEX_TYPE_ENUM = 16,     // an EnumClass value
    KOVEX_TYPE_DELEGATE = 17, // a DelegateClass value
    KOVEX_TYPE_TARRAY = 18,
    KOVEX_TYPE_TMAP = 19,
    KOVEX_TYPE_VOID = 20,     // return types only
    KOVEX_TYPE_COUNT = 21,
};

} // namespace KovexEngine
