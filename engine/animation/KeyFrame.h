#pragma once

// Keys: plain time-stamped records without virtual functions, held by value
// in blocks whose stride is a run-time number. KeyFrame's tables, indexed by
// [KOVEX_BASE_TYPE][KeyInterpolationType], say how to make, process and
// interpolate each kind of block.
//
// Threads: the tables are filled once (StaticInit, guarded) and only read
// afterwards, so every reader is safe from any thread. The key statics touch
// only the keys they are given.

#include "kernel/ReflectedStruct.h"
#include "kernel/Types.h"
#include "math/Quaternion.h"
#include "math/Vector.h"
#include "reflection/BaseType.h"

namespace KovexEngine {

class SerializeMemLayout;

struct KOVEX_API KeyFrame
{
    KOVEX_STRUCT(KeyFrame)

    using ProcessKeysFunc = void (*)(KeyFrame* keys, unsigned count);
    using InterpolateFunc = void (*)(void* out, const KeyFrame* k0, const KeyFrame* k1, float t);
    using CreateKeysFunc = KeyFrame* (*)(unsigned count);
    using DeleteKeysFunc = void (*)(KeyFrame* keys);

    // Interpolation types, as KeyInterpolationType numbers them.
    enum : int
    {
        INTERP_LINEAR = 0,
        INTERP_BEZIER = 1,
        INTERP_TCB = 2,
        INTERP_STEP = 3,
        kNumInterpTypes = 4,
        kNumKeyTypes = KOVEX_TYPE_QUATERNION + 1,
    };

    float time = 0.0f;

    float GetTime() const { return time; }
    void SetTime(float t) { time = t; }

    static KeyFrame* GetKey(KeyFrame* keys, unsigned index, unsigned stride)
    {
        return reinterpret_cast<KeyFrame*>(reinterpret_cast<uint8*>(keys) + size_t(index) * stride);
    }
    static const KeyFrame* GetKey(const KeyFrame* keys, unsigned index, unsigned stride)
    {
        return reinterpret_cast<const KeyFrame*>(reinterpret_cast<const uint8*>(keys) + size_t(index) * stride);
    }

    // Whether a key type registered this pair; every reader below gives
    // null or 0 for a pair that did not.
    static bool HasKeyType(int type, int interp);
    static ProcessKeysFunc GetProcessKeysFunc(int type, int interp);
    static InterpolateFunc GetInterpolateFunc(int type, int interp);
    static CreateKeysFunc GetCreateKeysFunc(int type, int interp);
    static DeleteKeysFunc GetDeleteKeysFunc(int type, int interp);
    static unsigned GetKeySize(int type, int interp);
    static const Class* GetKeyStruct(int type, int interp);
    // Lists time, value and the authored fields; cached coefficients are
    // left out and rebuilt by ProcessKeys.
    static const SerializeMemLayout* GetMemLayout(int type, int interp);

    // A block of `count` default keys, or null (unknown pair, no memory).
    static KeyFrame* CreateKeys(int type, int interp, unsigned count);
    static void DeleteKeys(int type, int interp, KeyFrame* keys);

    // Fills the tables once; every reader calls it, so explicit calls only
    // move the cost to start-up.
    static void StaticInit();
    // Frees the memory layouts; a later StaticInit fills the tables again.
    static void StaticDestroy();

protected:
    static void SetProcessKeysFunc(int type, int interp, ProcessKeysFunc func);
    static void SetInterpolateFunc(int type, int interp, InterpolateFunc func);
    static void SetCreateKeysFunc(int type, int interp, CreateKeysFunc func);
    static void SetDeleteKeysFunc(int type, int interp, DeleteKeysFunc func);
    static void SetKeySize(int type, int interp, unsigned size);
    static void SetKeyStruct(int type, int interp, const Class* keyStruct);
    static void SetMemLayout(int type, int interp, SerializeMemLayout* layout);
};

template <typename T, int BaseType>
struct KOVEX_API TKeyFrame : KeyFrame
{
    using ValueType = T;
    static constexpr int kKeyType = BaseType;
    T value{};
};

using FloatKey = TKeyFrame<float, KOVEX_TYPE_FLOAT>;
using Vector2Key = TKeyFrame<Vector2, KOVEX_TYPE_VECTOR2>;
using Vector3Key = TKeyFrame<Vector3, KOVEX_TYPE_VECTOR3>;
using Vector4Key = TKeyFrame<Vector4, KOVEX_TYPE_VECTOR4>;

struct KOVEX_API QuatKey : TKeyFrame<Quaternion, KOVEX_TYPE_QUATERNION>
{
    // Negates each key whose dot product with the (already adjusted) key
    // before it is negative, so the sequence stays in one hemisphere.
    static void _ProcessKeys(KeyFrame* keys, unsigned count, unsigned stride);
};

// The statics every concrete key offers; what they do is the key's own.
#define KOVEX_KEY_STATICS()                                                            \
    static int GetInterpType();                                                        \
    static const Class* GetSelfStruct();                                               \
    static void Interpolate(void* out, const KeyFrame* k0, const KeyFrame* k1, float t); \
    static void ProcessKeys(KeyFrame* keys, unsigned count);                           \
    static KeyFrame* CreateKeys(unsigned count);                                       \
    static void DeleteKeys(KeyFrame* keys);                                            \
    static void RegisterFunctions();

template <class K>
struct KOVEX_API TLinearKey : K
{
    KOVEX_KEY_STATICS()
};

template <class K>
struct KOVEX_API TStepKey : K
{
    KOVEX_KEY_STATICS()
};

template <class K>
struct KOVEX_API TBezierKey : K
{
    using T = typename K::ValueType;
    T inTangent{}, outTangent{};
    T A{}, B{}; // cached by ProcessKeys

    const T& GetInTangent() const { return inTangent; }
    void SetInTangent(const T& v) { inTangent = v; }
    const T& GetOutTangent() const { return outTangent; }
    void SetOutTangent(const T& v) { outTangent = v; }
    const T& GetA() const { return A; }
    void SetA(const T& v) { A = v; }
    const T& GetB() const { return B; }
    void SetB(const T& v) { B = v; }
    KOVEX_KEY_STATICS()
};

template <class K>
struct KOVEX_API TTCBKey : K
{
    float tension = 0.0f, continuity = 0.0f, bias = 0.0f;

    float GetTension() const { return tension; }
    void SetTension(float v) { tension = v; }
    float GetContinuity() const { return continuity; }
    void SetContinuity(float v) { continuity = v; }
    float GetBias() const { return bias; }
    void SetBias(float v) { bias = v; }
};

// Only tension, continuity, bias and value are authored; the coefficients
// and both tangents are rebuilt by ProcessKeys.
template <class K>
struct KOVEX_API TTCBKey2 : TTCBKey<K>
{
    using T = typename K::ValueType;
    T A{}, B{};
    T outTangent{}, inTangent{};
    KOVEX_KEY_STATICS()
};

struct KOVEX_API QuatBezierKey : QuatKey
{
    Quaternion intermediate; // rebuilt by ProcessKeys
    KOVEX_KEY_STATICS()
};

struct KOVEX_API QuatTCBKey : TTCBKey<QuatKey>
{
    Quaternion A, B; // rebuilt by ProcessKeys
    // The outgoing (A) and incoming (B) controls of this key between its
    // neighbours; an end key stands in for its missing neighbour.
    void CalcAB(const QuatTCBKey& prev, const QuatTCBKey& next);
    KOVEX_KEY_STATICS()
};

using FloatLinearKey = TLinearKey<FloatKey>;
using FloatStepKey = TStepKey<FloatKey>;
using FloatBezierKey = TBezierKey<FloatKey>;
using FloatTCBKey = TTCBKey2<FloatKey>;
using Vector2LinearKey = TLinearKey<Vector2Key>;
using Vector2StepKey = TStepKey<Vector2Key>;
using Vector2BezierKey = TBezierKey<Vector2Key>;
using Vector2TCBKey = TTCBKey2<Vector2Key>;
using Vector3LinearKey = TLinearKey<Vector3Key>;
using Vector3StepKey = TStepKey<Vector3Key>;
using Vector3BezierKey = TBezierKey<Vector3Key>;
using Vector3TCBKey = TTCBKey2<Vector3Key>;
using Vector4LinearKey = TLinearKey<Vector4Key>;
using Vector4StepKey = TStepKey<Vector4Key>;
using Vector4BezierKey = TBezierKey<Vector4Key>;
using Vector4TCBKey = TTCBKey2<Vector4Key>;
using QuatLinearKey = TLinearKey<QuatKey>;
using QuatStepKey = TStepKey<QuatKey>;

#define KOVEX_KEY_VALUE_TYPES(X) X(FloatKey) X(Vector2Key) X(Vector3Key) X(Vector4Key)
#define KOVEX_EXTERN_KEYS(K)                     \
    extern template struct TLinearKey<K>;        \
    extern template struct TStepKey<K>;          \
    extern template struct TBezierKey<K>;        \
    extern template struct TTCBKey2<K>;
KOVEX_KEY_VALUE_TYPES(KOVEX_EXTERN_KEYS)
extern template struct TLinearKey<QuatKey>;
extern template struct TStepKey<QuatKey>;
#undef KOVEX_EXTERN_KEYS

// The cubic the Bezier and TCB keys share: ((B t + A) t + T0) t + p0.
template <typename T>
inline void Bezier_Fast(T& out, const T& p0, const T& t0, const T& a, const T& b, float t)
{
    out = ((b * t + a) * t + t0) * t + p0;
}

// The same cubic with A and B worked out from the segment's ends, for keys
// whose cache ProcessKeys has not built (a tangent being dragged).
template <typename T>
inline void Bezier_Normal(T& out, const T& p0, const T& t0, const T& t1, const T& p1, float t)
{
    const T d = p1 - p0;
    Bezier_Fast(out, p0, t0, d * 3.0f - (t1 + t0 * 2.0f), (t0 + t1) - d * 2.0f, t);
}

} // namespace KovexEngine
