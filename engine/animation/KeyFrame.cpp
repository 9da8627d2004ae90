#include "animation/KeyFrame.h"

#include <atomic>
#include <mutex>
#include <new>

#include "reflection/Struct.h"
#include "serialization/Serializer.h"

namespace KovexEngine {

KOVEX_REGISTER_STRUCT(KeyFrame, u"Engine", KOVEX_TYPE_CUSTOM)
void KeyFrame::StaticConstructor(Class* cls)
{
    AddStructField(cls, u"Time", &KeyFrame::time);
    cls->ProcessClass();
}

namespace {

struct Tables
{
    KeyFrame::ProcessKeysFunc process[KeyFrame::kNumKeyTypes][KeyFrame::kNumInterpTypes];
    KeyFrame::InterpolateFunc interpolate[KeyFrame::kNumKeyTypes][KeyFrame::kNumInterpTypes];
    KeyFrame::CreateKeysFunc create[KeyFrame::kNumKeyTypes][KeyFrame::kNumInterpTypes];
    KeyFrame::DeleteKeysFunc destroy[KeyFrame::kNumKeyTypes][KeyFrame::kNumInterpTypes];
    unsigned size[KeyFrame::kNumKeyTypes][KeyFrame::kNumInterpTypes];
    const Class* keyStruct[KeyFrame::kNumKeyTypes][KeyFrame::kNumInterpTypes];
    SerializeMemLayout* layout[KeyFrame::kNumKeyTypes][KeyFrame::kNumInterpTypes];
};

Tables g_tables{};
std::atomic<bool> g_tablesReady{false};
std::mutex g_tablesLock;

bool InRange(int type, int interp)
{
    return type >= 0 && type < KeyFrame::kNumKeyTypes && interp >= 0 && interp < KeyFrame::kNumInterpTypes;
}

// The value arithmetic every key shares: floats and vectors interpolate
// linearly, quaternions along the short arc.
void Linear(float& out, float a, float b, float t) { out = a + (b - a) * t; }
void Linear(Vector2& out, const Vector2& a, const Vector2& b, float t) { out = a + (b - a) * t; }
void Linear(Vector3& out, const Vector3& a, const Vector3& b, float t) { out = a + (b - a) * t; }
void Linear(Vector4& out, const Vector4& a, const Vector4& b, float t) { out = a + (b - a) * t; }
void Linear(Quaternion& out, const Quaternion& a, const Quaternion& b, float t) { Quaternion::Slerp(out, a, b, t); }

template <typename T>
void AddValue(SerializeMemLayout& layout, const void* record, const T& field)
{
    layout.Add(record, field);
}
void AddValue(SerializeMemLayout& layout, const void* record, const Quaternion& field)
{
    layout.AddVector(4, unsigned(reinterpret_cast<const uint8*>(&field) - static_cast<const uint8*>(record)));
}

template <class Key>
KeyFrame* NewKeys(unsigned count)
{
    return count ? new (std::nothrow) Key[count] : nullptr;
}

template <class Key>
void FreeKeys(KeyFrame* keys)
{
    delete[] static_cast<Key*>(keys);
}

template <class Key>
Key& At(KeyFrame* keys, unsigned index)
{
    return *static_cast<Key*>(KeyFrame::GetKey(keys, index, sizeof(Key)));
}

// For each adjacent pair, with T0 the left key's out tangent and T1 the
// right key's in tangent: A = 3d - (T1 + 2 T0), B = (T0 + T1) - 2d, stored in
// the left key. The last key's coefficients are zero.
template <class Key>
void CalcSegments(KeyFrame* keys, unsigned count)
{
    using T = typename Key::ValueType;
    for (unsigned i = 0; i + 1 < count; ++i)
    {
        Key& left = At<Key>(keys, i);
        const Key& right = At<Key>(keys, i + 1);
        const T d = right.value - left.value;
        left.A = d * 3.0f - (right.inTangent + left.outTangent * 2.0f);
        left.B = (left.outTangent + right.inTangent) - d * 2.0f;
    }
    if (count)
        At<Key>(keys, count - 1).A = At<Key>(keys, count - 1).B = T{};
}

// The cubic of the Bezier and TCB keys of floats and vectors.
template <class Key>
void InterpolateSegment(void* out, const KeyFrame* k0, float t)
{
    const auto* key = static_cast<const Key*>(k0);
    Bezier_Fast(*static_cast<typename Key::ValueType*>(out), key->value, key->outTangent, key->A, key->B, t);
}

} // namespace

// --- Tables -------------------------------------------------------------------------

void KeyFrame::StaticInit()
{
    if (g_tablesReady.load(std::memory_order_acquire))
        return;
    std::lock_guard<std::mutex> lock(g_tablesLock);
    if (g_tablesReady.load(std::memory_order_relaxed))
        return;
    g_tables = Tables{};
#define KOVEX_REGISTER_KEYS(K)             \
    TLinearKey<K>::RegisterFunctions();    \
    TStepKey<K>::RegisterFunctions();      \
    TBezierKey<K>::RegisterFunctions();    \
    TTCBKey2<K>::RegisterFunctions();
    KOVEX_KEY_VALUE_TYPES(KOVEX_REGISTER_KEYS)
#undef KOVEX_REGISTER_KEYS
    QuatLinearKey::RegisterFunctions();
    QuatStepKey::RegisterFunctions();
    QuatBezierKey::RegisterFunctions();
    QuatTCBKey::RegisterFunctions();
    g_tablesReady.store(true, std::memory_order_release);
}

void KeyFrame::StaticDestroy()
{
    std::lock_guard<std::mutex> lock(g_tablesLock);
    for (auto& row : g_tables.layout)
        for (SerializeMemLayout*& layout : row)
        {
            delete layout;
            layout = nullptr;
        }
    g_tables = Tables{};
    g_tablesReady.store(false, std::memory_order_release);
}

#define KOVEX_TABLE_ACCESS(Name, Type, field, none)                                   \
    Type KeyFrame::Get##Name(int type, int interp)                                   \
    {                                                                                 \
        StaticInit();                                                                 \
        return InRange(type, interp) ? g_tables.field[type][interp] : none;          \
    }                                                                                 \
    void KeyFrame::Set##Name(int type, int interp, Type value)                       \
    {                                                                                 \
        if (InRange(type, interp))                                                    \
            g_tables.field[type][interp] = value;                                     \
    }
KOVEX_TABLE_ACCESS(ProcessKeysFunc, KeyFrame::ProcessKeysFunc, process, nullptr)
KOVEX_TABLE_ACCESS(InterpolateFunc, KeyFrame::InterpolateFunc, interpolate, nullptr)
KOVEX_TABLE_ACCESS(CreateKeysFunc, KeyFrame::CreateKeysFunc, create, nullptr)
KOVEX_TABLE_ACCESS(DeleteKeysFunc, KeyFrame::DeleteKeysFunc, destroy, nullptr)
KOVEX_TABLE_ACCESS(KeySize, unsigned, size, 0u)
KOVEX_TABLE_ACCESS(KeyStruct, const Class*, keyStruct, nullptr)
#undef KOVEX_TABLE_ACCESS

const SerializeMemLayout* KeyFrame::GetMemLayout(int type, int interp)
{
    StaticInit();
    return InRange(type, interp) ? g_tables.layout[type][interp] : nullptr;
}

void KeyFrame::SetMemLayout(int type, int interp, SerializeMemLayout* layout)
{
    if (!InRange(type, interp))
    {
        delete layout;
        return;
    }
    delete g_tables.layout[type][interp];
    g_tables.layout[type][interp] = layout;
}

bool KeyFrame::HasKeyType(int type, int interp) { return GetCreateKeysFunc(type, interp) != nullptr; }

KeyFrame* KeyFrame::CreateKeys(int type, int interp, unsigned count)
{
    CreateKeysFunc create = GetCreateKeysFunc(type, interp);
    return create ? create(count) : nullptr;
}

void KeyFrame::DeleteKeys(int type, int interp, KeyFrame* keys)
{
    if (DeleteKeysFunc destroy = GetDeleteKeysFunc(type, interp))
        destroy(keys);
}

// --- Quaternion hemisphere ------------------------------------------------------------

void QuatKey::_ProcessKeys(KeyFrame* keys, unsigned count, unsigned stride)
{
    if (count < 2)
        return;
    for (unsigned i = 1; i < count; ++i)
    {
        auto* prev = static_cast<QuatKey*>(GetKey(keys, i - 1, stride));
        auto* cur = static_cast<QuatKey*>(GetKey(keys, i, stride));
        if (cur->value.Dot(prev->value) < 0.0f)
            cur->value = -cur->value;
    }
}

// --- Reflected key structs ------------------------------------------------------------

template <class Key>
const char16_t* KeyStructName();
#define KOVEX_KEY_STRUCT_NAME(Key) \
    template <>                    \
    const char16_t* KeyStructName<Key>() { return u"" #Key; }
#define KOVEX_KEY_STRUCT_NAMES(V) \
    KOVEX_KEY_STRUCT_NAME(V##LinearKey) KOVEX_KEY_STRUCT_NAME(V##StepKey) \
    KOVEX_KEY_STRUCT_NAME(V##BezierKey) KOVEX_KEY_STRUCT_NAME(V##TCBKey)
KOVEX_KEY_STRUCT_NAMES(Float)
KOVEX_KEY_STRUCT_NAMES(Vector2)
KOVEX_KEY_STRUCT_NAMES(Vector3)
KOVEX_KEY_STRUCT_NAMES(Vector4)
KOVEX_KEY_STRUCT_NAMES(Quat)
#undef KOVEX_KEY_STRUCT_NAMES
#undef KOVEX_KEY_STRUCT_NAME

// Fields in memory order: time and value, the authored fields, then what
// ProcessKeys caches.
template <class Key>
void AddKeyFields(Class* cls)
{
    AddStructField(cls, u"Time", &Key::time);
    AddStructField(cls, u"Value", &Key::value);
    if constexpr (requires { &Key::tension; })
    {
        AddStructField(cls, u"Tension", &Key::tension);
        AddStructField(cls, u"Continuity", &Key::continuity);
        AddStructField(cls, u"Bias", &Key::bias);
        AddStructField(cls, u"A", &Key::A);
        AddStructField(cls, u"B", &Key::B);
        if constexpr (requires { &Key::outTangent; })
        {
            AddStructField(cls, u"OutTangent", &Key::outTangent);
            AddStructField(cls, u"InTangent", &Key::inTangent);
        }
    }
    else if constexpr (requires { &Key::inTangent; })
    {
        AddStructField(cls, u"InTangent", &Key::inTangent);
        AddStructField(cls, u"OutTangent", &Key::outTangent);
        AddStructField(cls, u"A", &Key::A);
        AddStructField(cls, u"B", &Key::B);
    }
    else if constexpr (requires { &Key::intermediate; })
        AddStructField(cls, u"Intermediate", &Key::intermediate);
}

// Built on first need like any KOVEX_STRUCT; StaticInit asks for every one
// while it holds the tables' lock.
template <class Key>
const Class* KeyStruct()
{
    static const Class* slot = nullptr;
    if (slot)
        return slot;
    auto* cls = new TStruct<Key>(KeyStructName<Key>(), u"Engine", KOVEX_TYPE_CUSTOM);
    slot = cls;
    cls->SetRegistrySlot(&slot);
    AddKeyFields<Key>(cls);
    cls->ProcessClass();
    return slot;
}

// --- Statics shared by the templates -------------------------------------------------

#define KOVEX_KEY_COMMON(TEMPLATE, Key, INTERP)                                                         \
    TEMPLATE int Key::GetInterpType() { return INTERP; }                                              \
    TEMPLATE const Class* Key::GetSelfStruct() { return KeyStruct<Key>(); }                           \
    TEMPLATE KeyFrame* Key::CreateKeys(unsigned count) { return NewKeys<Key>(count); }               \
    TEMPLATE void Key::DeleteKeys(KeyFrame* keys) { FreeKeys<Key>(keys); }

#define KOVEX_KEY_REGISTER_BEGIN(TEMPLATE, Key)                                                       \
    TEMPLATE void Key::RegisterFunctions()                                                            \
    {                                                                                                 \
        const int type = Key::kKeyType, interp = GetInterpType();                                     \
        KeyFrame::SetProcessKeysFunc(type, interp, &ProcessKeys);                                               \
        KeyFrame::SetInterpolateFunc(type, interp, &Interpolate);                                               \
        KeyFrame::SetCreateKeysFunc(type, interp, &CreateKeys);                                                 \
        KeyFrame::SetDeleteKeysFunc(type, interp, &DeleteKeys);                                                 \
        KeyFrame::SetKeySize(type, interp, sizeof(Key));                                                        \
        KeyFrame::SetKeyStruct(type, interp, GetSelfStruct());                                                  \
        Key sample;                                                                                   \
        auto* layout = new SerializeMemLayout(sizeof(Key));                                           \
        layout->Add(&sample, sample.time);                                                            \
        AddValue(*layout, &sample, sample.value);

#define KOVEX_KEY_REGISTER_END()                                                                      \
        KeyFrame::SetMemLayout(type, interp, layout);                                                           \
    }

// Linear -------------------------------------------------------------------------------

KOVEX_KEY_COMMON(template <class K>, TLinearKey<K>, KeyFrame::INTERP_LINEAR)
KOVEX_KEY_REGISTER_BEGIN(template <class K>, TLinearKey<K>)
KOVEX_KEY_REGISTER_END()

template <class K>
void TLinearKey<K>::Interpolate(void* out, const KeyFrame* k0, const KeyFrame* k1, float t)
{
    Linear(*static_cast<typename K::ValueType*>(out), static_cast<const K*>(k0)->value,
           static_cast<const K*>(k1)->value, t);
}

template <class K>
void TLinearKey<K>::ProcessKeys(KeyFrame* keys, unsigned count)
{
    if constexpr (K::kKeyType == KOVEX_TYPE_QUATERNION)
        QuatKey::_ProcessKeys(keys, count, sizeof(TLinearKey<K>));
}

// Step ---------------------------------------------------------------------------------

KOVEX_KEY_COMMON(template <class K>, TStepKey<K>, KeyFrame::INTERP_STEP)
KOVEX_KEY_REGISTER_BEGIN(template <class K>, TStepKey<K>)
KOVEX_KEY_REGISTER_END()

template <class K>
void TStepKey<K>::Interpolate(void* out, const KeyFrame* k0, const KeyFrame*, float)
{
    *static_cast<typename K::ValueType*>(out) = static_cast<const K*>(k0)->value;
}

template <class K>
void TStepKey<K>::ProcessKeys(KeyFrame* keys, unsigned count)
{
    if constexpr (K::kKeyType == KOVEX_TYPE_QUATERNION)
        QuatKey::_ProcessKeys(keys, count, sizeof(TStepKey<K>));
}

// Bezier (floats and vectors) ---------------------------------------------------------

KOVEX_KEY_COMMON(template <class K>, TBezierKey<K>, KeyFrame::INTERP_BEZIER)
KOVEX_KEY_REGISTER_BEGIN(template <class K>, TBezierKey<K>)
AddValue(*layout, &sample, sample.inTangent);
AddValue(*layout, &sample, sample.outTangent);
KOVEX_KEY_REGISTER_END()

template <class K>
void TBezierKey<K>::Interpolate(void* out, const KeyFrame* k0, const KeyFrame*, float t)
{
    InterpolateSegment<TBezierKey<K>>(out, k0, t);
}

template <class K>
void TBezierKey<K>::ProcessKeys(KeyFrame* keys, unsigned count)
{
    CalcSegments<TBezierKey<K>>(keys, count);
}

// TCB (floats and vectors) ------------------------------------------------------------

KOVEX_KEY_COMMON(template <class K>, TTCBKey2<K>, KeyFrame::INTERP_TCB)
KOVEX_KEY_REGISTER_BEGIN(template <class K>, TTCBKey2<K>)
layout->Add(&sample, sample.tension);
layout->Add(&sample, sample.continuity);
layout->Add(&sample, sample.bias);
KOVEX_KEY_REGISTER_END()

template <class K>
void TTCBKey2<K>::Interpolate(void* out, const KeyFrame* k0, const KeyFrame*, float t)
{
    InterpolateSegment<TTCBKey2<K>>(out, k0, t);
}

template <class K>
void TTCBKey2<K>::ProcessKeys(KeyFrame* keys, unsigned count)
{
    using Key = TTCBKey2<K>;
    if (count < 2)
    {
        if (count == 1)
        {
            Key& only = At<Key>(keys, 0);
            only.A = only.B = only.outTangent = only.inTangent = T{};
        }
        return;
    }
    for (unsigned i = 0; i < count; ++i)
    {
        Key& key = At<Key>(keys, i);
        const T& p = key.value;
        // End keys mirror their one neighbour and use unit gaps.
        T prev, next;
        float gapIn = 1.0f, gapOut = 1.0f;
        if (i == 0)
            prev = p * 2.0f - At<Key>(keys, 1).value;
        else
            prev = At<Key>(keys, i - 1).value;
        if (i + 1 == count)
            next = p * 2.0f - At<Key>(keys, i - 1).value;
        else
            next = At<Key>(keys, i + 1).value;
        if (i > 0 && i + 1 < count)
        {
            gapIn = key.time - At<Key>(keys, i - 1).time;
            gapOut = At<Key>(keys, i + 1).time - key.time;
        }
        const T dIn = p - prev, dOut = next - p;
        const float k = (1.0f - key.tension) * 0.5f, c = key.continuity, b = key.bias;
        // Keys at one time have no gap to share out: the tangents stay unscaled.
        const float gaps = gapIn + gapOut;
        const float scaleOut = gaps > 0.0f ? 2.0f * gapOut / gaps : 1.0f;
        const float scaleIn = gaps > 0.0f ? 2.0f * gapIn / gaps : 1.0f;
        key.outTangent = (dIn * (k * (1 + c) * (1 + b)) + dOut * (k * (1 - c) * (1 - b))) * scaleOut;
        key.inTangent = (dIn * (k * (1 - c) * (1 + b)) + dOut * (k * (1 + c) * (1 - b))) * scaleIn;
    }
    CalcSegments<Key>(keys, count);
}

// Quaternion Bezier --------------------------------------------------------------------

KOVEX_KEY_COMMON(, QuatBezierKey, KeyFrame::INTERP_BEZIER)
KOVEX_KEY_REGISTER_BEGIN(, QuatBezierKey)
KOVEX_KEY_REGISTER_END()

void QuatBezierKey::Interpolate(void* out, const KeyFrame* k0, const KeyFrame* k1, float t)
{
    const auto* a = static_cast<const QuatBezierKey*>(k0);
    const auto* b = static_cast<const QuatBezierKey*>(k1);
    Quaternion::Squad(*static_cast<Quaternion*>(out), a->value, a->intermediate, b->value, b->intermediate, t);
}

void QuatBezierKey::ProcessKeys(KeyFrame* keys, unsigned count)
{
    QuatKey::_ProcessKeys(keys, count, sizeof(QuatBezierKey));
    if (count == 1)
        At<QuatBezierKey>(keys, 0).intermediate = At<QuatBezierKey>(keys, 0).value;
    if (count < 2)
        return;
    for (unsigned i = 0; i < count; ++i)
    {
        QuatBezierKey& key = At<QuatBezierKey>(keys, i);
        const Quaternion& prev = At<QuatBezierKey>(keys, i ? i - 1 : 0).value;
        const Quaternion& next = At<QuatBezierKey>(keys, i + 1 < count ? i + 1 : i).value;
        Quaternion::Intermedia(key.intermediate, prev, key.value, next);
    }
}

// Quaternion TCB -----------------------------------------------------------------------

KOVEX_KEY_COMMON(, QuatTCBKey, KeyFrame::INTERP_TCB)
KOVEX_KEY_REGISTER_BEGIN(, QuatTCBKey)
layout->Add(&sample, sample.tension);
layout->Add(&sample, sample.continuity);
layout->Add(&sample, sample.bias);
KOVEX_KEY_REGISTER_END()

void QuatTCBKey::CalcAB(const QuatTCBKey& prev, const QuatTCBKey& next)
{
    const Quaternion l0 = Quaternion::Log(prev.value.Conjugate() * value);
    const Quaternion l1 = Quaternion::Log(value.Conjugate() * next.value);
    // Neighbours at one time (or an end key standing in for both) leave no
    // span to weigh the tangents by.
    const float span = next.time - prev.time;
    const float inv = span > 0.0f ? 1.0f / span : 0.0f;
    const float c = continuity, b = bias;
    const float g1 = (time - prev.time) * inv * (1.0f - tension);
    const Quaternion ta = l0 * (g1 * (1 + c) * (1 + b)) + l1 * (g1 * (1 - c) * (1 - b));
    A = value * Quaternion::Exp((ta - l1) * 0.5f);
    const float g2 = (next.time - time) * inv * (1.0f - tension);
    const Quaternion tb = l0 * (g2 * (1 - c) * (1 + b)) + l1 * (g2 * (1 + c) * (1 - b));
    B = value * Quaternion::Exp((l0 - tb) * 0.5f);
}

void QuatTCBKey::Interpolate(void* out, const KeyFrame* k0, const KeyFrame* k1, float t)
{
    const auto* a = static_cast<const QuatTCBKey*>(k0);
    const auto* b = static_cast<const QuatTCBKey*>(k1);
    Quaternion::Squad(*static_cast<Quaternion*>(out), a->value, a->A, b->value, b->B, t);
}

void QuatTCBKey::ProcessKeys(KeyFrame* keys, unsigned count)
{
    QuatKey::_ProcessKeys(keys, count, sizeof(QuatTCBKey));
    for (unsigned i = 0; i < count; ++i)
    {
        QuatTCBKey& key = At<QuatTCBKey>(keys, i);
        key.CalcAB(At<QuatTCBKey>(keys, i ? i - 1 : 0), At<QuatTCBKey>(keys, i + 1 < count ? i + 1 : i));
    }
}

#define KOVEX_INSTANTIATE_KEYS(K)      \
    template struct TLinearKey<K>;     \
    template struct TStepKey<K>;       \
    template struct TBezierKey<K>;     \
    template struct TTCBKey2<K>;
KOVEX_KEY_VALUE_TYPES(KOVEX_INSTANTIATE_KEYS)
template struct TLinearKey<QuatKey>;
template struct TStepKey<QuatKey>;
#undef KOVEX_INSTANTIATE_KEYS

} // namespace KovexEngine
