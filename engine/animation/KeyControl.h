#pragma once

// Key controls: a reflected object owning one contiguous block of keys of
// one value type and one interpolation type, answering the value at a time.
//
// Threads: sampling (GetKeyIndex, FindKeyIndex, Interpolate, Sample) only
// reads and may run on any number of threads while nobody edits the keys.
// Editing, ProcessKeys, Load and Duplicate belong to the owning thread.

#include "animation/KeyFrame.h"
#include "reflection/EngineEnums.h"
#include "reflection/Object.h"

namespace KovexEngine {

class KOVEX_API KeyControl : public Object
{
    KOVEX_CLASS(KeyControl)

    // Keys a loaded or copied block may hold; more is taken for a forged count.
    static constexpr unsigned kMaxKeys = 1u << 20;
    // Returned by the key searches when there is no key.
    static constexpr unsigned kNoKey = ~0u;

    // The last key's time; 0 without keys.
    virtual float CalcDuration() const = 0;
    // Rebuilds the coefficients cached in the keys; call after editing.
    virtual void ProcessKeys() = 0;
    virtual int GetKeyType() const = 0;
    virtual int GetInterpType() const = 0;
    virtual unsigned GetNumKeys() const = 0;
    virtual KeyFrame* GetKey(unsigned index) = 0;
    virtual bool DeleteKey(unsigned index) = 0;
    // A copy of `key`, which must be of this control's key type and
    // interpolation (any interpolation when the control is empty).
    virtual bool InsertKey(unsigned index, const KeyFrame* key, int type, int interp) = 0;
    virtual void ClearKeys() = 0;
    // Replaces the keys by copies of `count` keys laid out `stride` bytes
    // apart. Fails, logging why, for a foreign key type, an unknown
    // interpolation, a stride below the key's size, too many keys, times that
    // are negative, unsorted or not finite, or values that are not finite.
    virtual bool CopyFromKey(const KeyFrame* keys, int type, int interp, unsigned count, unsigned stride) = 0;
    // The value at `time` into `out` (of the key type's value type); false
    // without keys, leaving `out` alone.
    virtual bool InterpolateFromKeys(void* out, float time) const = 0;

    // Checks a block as CopyFromKey does, logging the first fault.
    static bool ValidateKeys(const KeyFrame* keys, int type, int interp, unsigned count, unsigned stride);
};

template <class K>
class KOVEX_API TKeyControl : public KeyControl
{
public:
    using ValueType = typename K::ValueType;

    TKeyControl();
    ~TKeyControl() override;
    TKeyControl(const TKeyControl&) = delete;
    TKeyControl& operator=(const TKeyControl&) = delete;

    float CalcDuration() const override;
    void ProcessKeys() override;
    int GetKeyType() const override { return K::kKeyType; }
    int GetInterpType() const override { return m_interp; }
    unsigned GetNumKeys() const override { return m_numKeys; }
    KeyFrame* GetKey(unsigned index) override;
    const KeyFrame* GetKey(unsigned index) const;
    bool DeleteKey(unsigned index) override;
    bool InsertKey(unsigned index, const KeyFrame* key, int type, int interp) override;
    void ClearKeys() override;
    bool CopyFromKey(const KeyFrame* keys, int type, int interp, unsigned count, unsigned stride) override;
    bool InterpolateFromKeys(void* out, float time) const override;

    bool Duplicate(Object* destination, unsigned int flags) const override;
    // Properties, then the chunk "KCTL": "NKEY", and with keys "ITTP" and
    // the block under "KEYS". A loaded block is checked as CopyFromKey
    // checks, and its cached coefficients are rebuilt, so nothing a file
    // carries beyond the authored fields reaches an evaluation.
    bool Load(Serializer* serializer) override;
    bool Save(Serializer* serializer) const override;

    KeyFrame* GetKeys() { return m_keys; }
    const KeyFrame* GetKeys() const { return m_keys; }
    unsigned GetKeyStride() const { return m_keyStride; }
    // Copies `count` keys of the interpolation's own key struct.
    bool SetKeys(const KeyFrame* keys, unsigned count, int interp);
    // Replaces the keys by `count` default keys to be filled in place.
    KeyFrame* CreateKeys(int interp, unsigned count);

    // The right-hand key of the pair holding `time`, scanning from `start`:
    // kNoKey without keys; 0 with one key; the last index at or after the
    // last key; kNoKey for `start` past the keys or when no later key is
    // found. A forward walk passes its previous index.
    unsigned GetKeyIndex(float time, unsigned start) const;
    // The same answer as GetKeyIndex(time, 0) by binary search.
    unsigned FindKeyIndex(float time) const;
    // The value at `time` with `index` from a key search: key 0's value for
    // one key or index 0, else the pair (index - 1, index).
    void Interpolate(ValueType& out, float time, unsigned index) const;
    // Between two keys: at or before i0's time its value, at or after i1's
    // its value. Keys at one time give the later key's value.
    void Interpolate(ValueType& out, float time, unsigned i0, unsigned i1) const;
    // FindKeyIndex and Interpolate together; false without keys.
    bool Sample(ValueType& out, float time) const;
    KeyFrame::InterpolateFunc GetInterpolateFunc() const { return m_interpolate; }
    static int StaticGetKeyType() { return K::kKeyType; }

    // How Bezier keys are walked between two keys: along the cubic (Curve,
    // the default), straight (Linear) or held at the left key (Step). The
    // tangents stay in the keys, so an editor can flip the mode back. Only
    // Bezier keys read it; property "BezierInterpolate".
    BezierInterpolate GetBezierInterpolate() const { return m_bezierInterpolate; }
    void SetBezierInterpolate(BezierInterpolate mode);

protected:
    void SetKeySize(unsigned stride) { m_keyStride = stride; }

private:
    // Takes `keys` (made for `interp`) as the block.
    void Adopt(KeyFrame* keys, unsigned count, int interp);
    // Every float of every key (coefficients included) finite and within 1e36.
    bool CurveStaysBounded() const;
    const ValueType& ValueAt(unsigned index) const
    {
        return static_cast<const K*>(KeyFrame::GetKey(m_keys, index, m_keyStride))->value;
    }

    // The table's function for m_interp, or for Bezier keys the one that
    // m_bezierInterpolate picks.
    void SelectInterpolateFunc();

    KeyFrame::InterpolateFunc m_interpolate = nullptr;
    unsigned m_numKeys = 0;
    unsigned m_keyStride = 0;
    KeyFrame* m_keys = nullptr;
    int m_interp = KeyFrame::INTERP_LINEAR;
    BezierInterpolate m_bezierInterpolate = BezierInterpolate::Curve;
};

extern template class TKeyControl<FloatKey>;
extern template class TKeyControl<Vector2Key>;
extern template class TKeyControl<Vector3Key>;
extern template class TKeyControl<Vector4Key>;
extern template class TKeyControl<QuatKey>;

class KOVEX_API FloatKeyControl : public TKeyControl<FloatKey>
{
    KOVEX_CLASS(FloatKeyControl)
};
class KOVEX_API Vector2KeyControl : public TKeyControl<Vector2Key>
{
    KOVEX_CLASS(Vector2KeyControl)
};
class KOVEX_API Vector3KeyControl : public TKeyControl<Vector3Key>
{
    KOVEX_CLASS(Vector3KeyControl)
};
class KOVEX_API Vector4KeyControl : public TKeyControl<Vector4Key>
{
    KOVEX_CLASS(Vector4KeyControl)
};
class KOVEX_API QuatKeyControl : public TKeyControl<QuatKey>
{
    KOVEX_CLASS(QuatKeyControl)
};

} // namespace KovexEngine
