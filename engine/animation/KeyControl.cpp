#include "animation/KeyControl.h"

#include <cmath>
#include <cstring>
#include <memory>

#include "kernel/Log.h"
#include "reflection/PropertyRegistration.h"
#include "serialization/Serializer.h"

namespace KovexEngine {

namespace {
namespace Tags {
inline constexpr FourCC KCTL = FourCCs::Make("KCTL");
inline constexpr FourCC NKEY = FourCCs::Make("NKEY");
inline constexpr FourCC ITTP = FourCCs::Make("ITTP");
inline constexpr FourCC KEYS = FourCCs::Make("KEYS");
} // namespace Tags

// Authored values beyond this are refused: a difference of two of them, or
// a cubic over them, must stay finite.
constexpr float kMaxKeyMagnitude = 1e30f;

float FloatAt(const KeyFrame* key, unsigned offset)
{
    float value;
    std::memcpy(&value, reinterpret_cast<const uint8*>(key) + offset, sizeof(value));
    return value;
}
} // namespace

KOVEX_REGISTER_CLASS(KeyControl, u"Engine", Object)
#define KOVEX_REGISTER_KEY_CONTROL(X)                                                                     \
    KOVEX_REGISTER_CLASS_EX(X, u"Engine")                                                                 \
    void X::StaticConstructor(Class* cls)                                                                 \
    {                                                                                                     \
        RegisterBases<X, KeyControl>(cls);                                                                \
        AddAccessor(cls, u"BezierInterpolate", &X::GetBezierInterpolate, &X::SetBezierInterpolate);       \
        cls->ProcessClass();                                                                              \
    }
KOVEX_REGISTER_KEY_CONTROL(FloatKeyControl)
KOVEX_REGISTER_KEY_CONTROL(Vector2KeyControl)
KOVEX_REGISTER_KEY_CONTROL(Vector3KeyControl)
KOVEX_REGISTER_KEY_CONTROL(Vector4KeyControl)
KOVEX_REGISTER_KEY_CONTROL(QuatKeyControl)
#undef KOVEX_REGISTER_KEY_CONTROL

bool KeyControl::ValidateKeys(const KeyFrame* keys, int type, int interp, unsigned count, unsigned stride)
{
    const SerializeMemLayout* layout = KeyFrame::GetMemLayout(type, interp);
    if (!layout)
    {
        Log::Format(3, u"Key control: no keys of type %d with interpolation type %d.\n", type, interp);
        return false;
    }
    const unsigned size = KeyFrame::GetKeySize(type, interp);
    if (stride < size)
    {
        Log::Format(3, u"Key control: stride %u is smaller than the key (%u bytes).\n", stride, size);
        return false;
    }
    if (count > kMaxKeys)
    {
        Log::Format(3, u"Key control: %u keys is more than %u.\n", count, kMaxKeys);
        return false;
    }
    if (count && !keys)
        return false;
    float previous = 0.0f;
    for (unsigned i = 0; i < count; ++i)
    {
        const KeyFrame* key = KeyFrame::GetKey(keys, i, stride);
        const float time = FloatAt(key, 0);
        if (!std::isfinite(time) || time < previous)
        {
            Log::Format(3, u"Key control: key %u has a time that is negative, not finite or earlier than the key before it.\n", i);
            return false;
        }
        previous = time;
        for (const SerializeMemLayout::Field& field : layout->GetFields())
        {
            if (field.type != SerializeMemLayout::Float)
                continue;
            const float value = FloatAt(key, field.offset);
            if (!std::isfinite(value) || std::fabs(value) > kMaxKeyMagnitude)
            {
                Log::Format(3, u"Key control: key %u has a value that is not finite or beyond 1e30.\n", i);
                return false;
            }
        }
    }
    return true;
}

template <class K>
TKeyControl<K>::TKeyControl()
{
    m_keyStride = KeyFrame::GetKeySize(K::kKeyType, m_interp);
    SelectInterpolateFunc();
}

template <class K>
void TKeyControl<K>::SetBezierInterpolate(BezierInterpolate mode)
{
    m_bezierInterpolate = mode;
    SelectInterpolateFunc();
}

template <class K>
void TKeyControl<K>::SelectInterpolateFunc()
{
    int interp = m_interp;
    // The linear and step functions read only time and value, which every
    // key of this value type holds at the same place.
    if (interp == KeyFrame::INTERP_BEZIER && m_bezierInterpolate.value == BezierInterpolate::Linear)
        interp = KeyFrame::INTERP_LINEAR;
    else if (interp == KeyFrame::INTERP_BEZIER && m_bezierInterpolate.value == BezierInterpolate::Step)
        interp = KeyFrame::INTERP_STEP;
    m_interpolate = KeyFrame::GetInterpolateFunc(K::kKeyType, interp);
}

template <class K>
TKeyControl<K>::~TKeyControl()
{
    ClearKeys();
}

template <class K>
float TKeyControl<K>::CalcDuration() const
{
    return m_numKeys ? KeyFrame::GetKey(m_keys, m_numKeys - 1, m_keyStride)->time : 0.0f;
}

template <class K>
void TKeyControl<K>::ProcessKeys()
{
    if (KeyFrame::ProcessKeysFunc process = KeyFrame::GetProcessKeysFunc(K::kKeyType, m_interp); process && m_keys)
        process(m_keys, m_numKeys);
}

template <class K>
KeyFrame* TKeyControl<K>::GetKey(unsigned index)
{
    return index < m_numKeys ? KeyFrame::GetKey(m_keys, index, m_keyStride) : nullptr;
}

template <class K>
const KeyFrame* TKeyControl<K>::GetKey(unsigned index) const
{
    return index < m_numKeys ? KeyFrame::GetKey(m_keys, index, m_keyStride) : nullptr;
}

template <class K>
void TKeyControl<K>::Adopt(KeyFrame* keys, unsigned count, int interp)
{
    m_keys = keys;
    m_numKeys = keys ? count : 0;
    m_interp = interp;
    m_keyStride = KeyFrame::GetKeySize(K::kKeyType, interp);
    SelectInterpolateFunc();
}

template <class K>
void TKeyControl<K>::ClearKeys()
{
    if (m_keys)
        KeyFrame::DeleteKeys(K::kKeyType, m_interp, m_keys);
    m_keys = nullptr;
    m_numKeys = 0;
}

template <class K>
bool TKeyControl<K>::CopyFromKey(const KeyFrame* keys, int type, int interp, unsigned count, unsigned stride)
{
    if (type != K::kKeyType)
    {
        Log::Format(3, u"Key control: keys of type %d given to a control of type %d.\n", type, int(K::kKeyType));
        return false;
    }
    if (!ValidateKeys(keys, type, interp, count, stride))
        return false;
    KeyFrame* block = nullptr;
    if (count)
    {
        block = KeyFrame::CreateKeys(type, interp, count);
        if (!block)
            return false;
        const unsigned size = KeyFrame::GetKeySize(type, interp);
        for (unsigned i = 0; i < count; ++i)
            std::memcpy(KeyFrame::GetKey(block, i, size), KeyFrame::GetKey(keys, i, stride), size);
    }
    ClearKeys();
    Adopt(block, count, interp);
    return true;
}

template <class K>
bool TKeyControl<K>::SetKeys(const KeyFrame* keys, unsigned count, int interp)
{
    return CopyFromKey(keys, K::kKeyType, interp, count, KeyFrame::GetKeySize(K::kKeyType, interp));
}

template <class K>
KeyFrame* TKeyControl<K>::CreateKeys(int interp, unsigned count)
{
    if (count > kMaxKeys || !KeyFrame::HasKeyType(K::kKeyType, interp))
        return nullptr;
    KeyFrame* block = KeyFrame::CreateKeys(K::kKeyType, interp, count);
    if (count && !block)
        return nullptr;
    ClearKeys();
    Adopt(block, count, interp);
    return block;
}

template <class K>
bool TKeyControl<K>::InsertKey(unsigned index, const KeyFrame* key, int type, int interp)
{
    if (!key || type != K::kKeyType || (m_numKeys && interp != m_interp) || !KeyFrame::HasKeyType(type, interp) ||
        m_numKeys >= kMaxKeys)
        return false;
    const unsigned size = KeyFrame::GetKeySize(type, interp);
    const unsigned count = m_numKeys + 1;
    if (index > m_numKeys)
        index = m_numKeys;
    KeyFrame* block = KeyFrame::CreateKeys(type, interp, count);
    if (!block)
        return false;
    auto* bytes = reinterpret_cast<uint8*>(block);
    if (index)
        std::memcpy(bytes, m_keys, size_t(index) * size);
    std::memcpy(bytes + size_t(index) * size, key, size);
    if (index < m_numKeys)
        std::memcpy(bytes + size_t(index + 1) * size, KeyFrame::GetKey(m_keys, index, size), size_t(m_numKeys - index) * size);
    if (!ValidateKeys(block, type, interp, count, size))
    {
        KeyFrame::DeleteKeys(type, interp, block);
        return false;
    }
    ClearKeys();
    Adopt(block, count, interp);
    return true;
}

template <class K>
bool TKeyControl<K>::DeleteKey(unsigned index)
{
    if (index >= m_numKeys)
        return false;
    if (m_numKeys == 1)
    {
        ClearKeys();
        return true;
    }
    auto* bytes = reinterpret_cast<uint8*>(m_keys);
    std::memmove(bytes + size_t(index) * m_keyStride, bytes + size_t(index + 1) * m_keyStride,
                 size_t(m_numKeys - index - 1) * m_keyStride);
    --m_numKeys;
    return true;
}

template <class K>
unsigned TKeyControl<K>::GetKeyIndex(float time, unsigned start) const
{
    if (m_numKeys == 0)
        return kNoKey;
    if (m_numKeys == 1)
        return 0;
    if (KeyFrame::GetKey(m_keys, m_numKeys - 1, m_keyStride)->time <= time)
        return m_numKeys - 1;
    if (start >= m_numKeys)
        return kNoKey;
    for (unsigned i = start; i < m_numKeys; ++i)
        if (KeyFrame::GetKey(m_keys, i, m_keyStride)->time > time)
            return i;
    return kNoKey;
}

template <class K>
unsigned TKeyControl<K>::FindKeyIndex(float time) const
{
    if (m_numKeys == 0)
        return kNoKey;
    if (m_numKeys == 1)
        return 0;
    const unsigned last = m_numKeys - 1;
    if (KeyFrame::GetKey(m_keys, last, m_keyStride)->time <= time)
        return last;
    unsigned lo = 0, hi = last;
    while (lo < hi)
    {
        const unsigned mid = (lo + hi) / 2;
        if (KeyFrame::GetKey(m_keys, mid, m_keyStride)->time > time)
            hi = mid;
        else
            lo = mid + 1;
    }
    // A time that compares with nothing (NaN) finds no key, as the scan does.
    return KeyFrame::GetKey(m_keys, lo, m_keyStride)->time > time ? lo : kNoKey;
}

template <class K>
void TKeyControl<K>::Interpolate(ValueType& out, float time, unsigned index) const
{
    if (m_numKeys == 0 || index >= m_numKeys)
        return;
    if (m_numKeys == 1 || index == 0)
        out = ValueAt(0);
    else
        Interpolate(out, time, index - 1, index);
}

template <class K>
void TKeyControl<K>::Interpolate(ValueType& out, float time, unsigned i0, unsigned i1) const
{
    const KeyFrame* k0 = KeyFrame::GetKey(m_keys, i0, m_keyStride);
    const KeyFrame* k1 = KeyFrame::GetKey(m_keys, i1, m_keyStride);
    const float span = k1->time - k0->time;
    // Keys at one time have no span: the later key wins rather than 0/0.
    if (!(span > 0.0f))
    {
        out = ValueAt(i1);
        return;
    }
    const float t = (time - k0->time) / span;
    if (!(t > 0.0f))
        out = ValueAt(i0);
    else if (t >= 1.0f)
        out = ValueAt(i1);
    else
        m_interpolate(&out, k0, k1, t);
}

template <class K>
bool TKeyControl<K>::Sample(ValueType& out, float time) const
{
    const unsigned index = FindKeyIndex(time);
    if (index == kNoKey)
        return false;
    Interpolate(out, time, index);
    return true;
}

template <class K>
bool TKeyControl<K>::InterpolateFromKeys(void* out, float time) const
{
    return out && Sample(*static_cast<ValueType*>(out), time);
}

template <class K>
bool TKeyControl<K>::Duplicate(Object* destination, unsigned int flags) const
{
    auto* other = dynamic_cast<TKeyControl<K>*>(destination);
    if (!other || !Object::Duplicate(destination, flags))
        return false;
    if (other == this)
        return true;
    other->SetBezierInterpolate(m_bezierInterpolate);
    if (m_numKeys == 0)
    {
        other->ClearKeys();
        other->Adopt(nullptr, 0, m_interp);
        return true;
    }
    return other->CopyFromKey(m_keys, K::kKeyType, m_interp, m_numKeys, m_keyStride);
}

template <class K>
bool TKeyControl<K>::Save(Serializer* serializer) const
{
    if (!serializer || !SaveProperties(serializer))
        return false;
    if (!serializer->Enter(Tags::KCTL))
        return false;
    bool ok = serializer->Write(Tags::NKEY, uint32(m_numKeys));
    if (m_numKeys)
    {
        const SerializeMemLayout* layout = KeyFrame::GetMemLayout(K::kKeyType, m_interp);
        ok = serializer->Write(Tags::ITTP, int32(m_interp)) && ok;
        ok = layout && serializer->Write(Tags::KEYS, m_keys, m_numKeys, *layout) && ok;
    }
    serializer->Leave();
    return ok;
}

template <class K>
bool TKeyControl<K>::Load(Serializer* serializer)
{
    if (!serializer || !LoadProperties(serializer))
        return false;
    if (!serializer->Enter(Tags::KCTL))
        return false;
    ClearKeys();
    auto fail = [serializer]() {
        serializer->Leave();
        return false;
    };
    uint32 announced = 0;
    if (!serializer->Read(Tags::NKEY, announced))
    {
        Log::Format(3, u"Load key control failed: no key count.\n");
        return fail();
    }
    if (announced == 0)
    {
        serializer->Leave();
        return true;
    }
    if (announced > kMaxKeys)
    {
        Log::Format(3, u"Load key control failed: %u keys is more than %u.\n", announced, kMaxKeys);
        return fail();
    }
    int32 interp = -1;
    if (!serializer->Read(Tags::ITTP, interp) || interp < 0 || interp >= KeyFrame::kNumInterpTypes)
    {
        Log::Format(3, u"Load key control failed: unknown interpolation type %d.\n", int(interp));
        return fail();
    }
    const SerializeMemLayout* layout = KeyFrame::GetMemLayout(K::kKeyType, interp);
    if (!layout)
        return fail();
    // Read into a block of the serializer's making first: its size is then
    // bounded by the file, never by the count the file claims.
    void* raw = nullptr;
    unsigned stored = 0;
    if (!serializer->Read(Tags::KEYS, raw, stored, *layout, true))
    {
        Log::Format(3, u"Load key control failed: the key block is missing or damaged.\n");
        return fail();
    }
    std::unique_ptr<uint8[]> bytes(static_cast<uint8*>(raw));
    if (stored != announced)
    {
        Log::Format(3, u"Load key control failed: %u keys stored, %u announced.\n", stored, announced);
        return fail();
    }
    if (!CopyFromKey(reinterpret_cast<const KeyFrame*>(bytes.get()), K::kKeyType, interp, stored, layout->GetSize()))
        return fail();
    ProcessKeys();
    // Authored values within bounds can still make curves that overflow (a
    // tension of 1e30 times a value of 1e30): such keys would sample to
    // infinity or NaN, so they are refused like any other damage.
    if (!CurveStaysBounded())
    {
        Log::Format(3, u"Load key control failed: the keys make a curve that overflows.\n");
        ClearKeys();
        return fail();
    }
    serializer->Leave();
    return true;
}

template <class K>
bool TKeyControl<K>::CurveStaysBounded() const
{
    // Every member of a key is a float. Four terms of at most 1e36 each
    // cannot overflow when a segment is evaluated.
    const unsigned floats = KeyFrame::GetKeySize(K::kKeyType, m_interp) / sizeof(float);
    for (unsigned i = 0; i < m_numKeys; ++i)
    {
        const float* f = reinterpret_cast<const float*>(KeyFrame::GetKey(m_keys, i, m_keyStride));
        for (unsigned j = 0; j < floats; ++j)
            if (!(std::fabs(f[j]) <= 1e36f))
                return false;
    }
    return true;
}

template class TKeyControl<FloatKey>;
template class TKeyControl<Vector2Key>;
template class TKeyControl<Vector3Key>;
template class TKeyControl<Vector4Key>;
template class TKeyControl<QuatKey>;

} // namespace KovexEngine
