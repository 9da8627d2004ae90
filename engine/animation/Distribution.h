#pragma once

// Distributions: reflected sources of a value at a time, constant, random
// or keyed.
//
// Threads: a constant or keyed distribution only reads while sampled and
// may be sampled from any thread while nobody edits it. A random one
// advances its own generator on every draw: one thread at a time.

#include "animation/KeyControl.h"
#include "math/Random.h"
#include "reflection/Variable.h"

namespace KovexEngine {

// A new seed for each random distribution made, so that two of them do not
// repeat each other; a saved one keeps its seed.
KOVEX_API uint32 NextDistributionSeed();

class KOVEX_API Distribution : public Object
{
    KOVEX_CLASS(Distribution)

    // False at this level: there is no value type to give.
    virtual bool GetValueVar(Variable& out, float time);
};

template <typename T>
class TDistribution : public Distribution
{
public:
    using ValueType = T;
    virtual bool GetValue(T& out, float time) = 0;
    bool GetValueVar(Variable& out, float time) override
    {
        T value{};
        if (!GetValue(value, time))
            return false;
        out = value;
        return true;
    }
};

#define KOVEX_DISTRIBUTION_CLASS(Name, Base) \
    class KOVEX_API Name : public Base       \
    {                                        \
        KOVEX_CLASS(Name)                    \
    };

KOVEX_DISTRIBUTION_CLASS(FloatDistribution, TDistribution<float>)
KOVEX_DISTRIBUTION_CLASS(Vector2Distribution, TDistribution<Vector2>)
KOVEX_DISTRIBUTION_CLASS(Vector3Distribution, TDistribution<Vector3>)
KOVEX_DISTRIBUTION_CLASS(Vector4Distribution, TDistribution<Vector4>)

// The stored value, whatever the time.
template <class D>
class TConstDistribution : public D
{
public:
    using ValueType = typename D::ValueType;
    bool GetValue(ValueType& out, float) override
    {
        out = m_constValue;
        return true;
    }
    const ValueType& GetConstValue() const { return m_constValue; }
    void SetConstValue(const ValueType& value) { m_constValue = value; }

protected:
    ValueType m_constValue{};
};

// The value of a key control at the time: the zero value without keys.
template <class D, class C>
class TKeyControlDistribution : public D
{
public:
    using ValueType = typename D::ValueType;
    TKeyControlDistribution() : m_keyControl(new C()) {}
    bool GetValue(ValueType& out, float time) override
    {
        const unsigned index = m_keyControl->FindKeyIndex(time);
        if (index == KeyControl::kNoKey)
        {
            // No keys gives the zero value; a time that orders nowhere (NaN)
            // gives the first key's.
            out = ValueType{};
            m_keyControl->Interpolate(out, time, 0u);
            return true;
        }
        m_keyControl->Interpolate(out, time, index);
        return true;
    }
    const Ptr<C>& GetKeyControl() const { return m_keyControl; }
    // A null control is replaced by an empty one: the control is always set.
    void SetKeyControl(const Ptr<C>& control) { m_keyControl = control ? control : Ptr<C>(new C()); }

protected:
    Ptr<C> m_keyControl;
};

// A random distribution's own 15-bit generator, restarted whenever the seed
// is set (a load sets it), so a saved distribution replays its values.
template <class D>
class TRandomDistributionBase : public D
{
public:
    TRandomDistributionBase() { SetSeed(NextDistributionSeed()); }
    uint32 GetSeed() const { return m_seed; }
    void SetSeed(uint32 seed)
    {
        m_seed = seed;
        m_random.Seed(seed);
    }

protected:
    uint32 m_seed = 1;
    Random15 m_random;
};

// One draw in [0, 1] for every component: min + (max - min) * r.
template <class D>
class TUniformRandomDistribution : public TRandomDistributionBase<D>
{
public:
    using ValueType = typename D::ValueType;
    bool GetValue(ValueType& out, float) override
    {
        const float r = this->m_random.NextUnit();
        float* component = reinterpret_cast<float*>(&out);
        for (unsigned i = 0; i < sizeof(ValueType) / sizeof(float); ++i)
            component[i] = m_minValue + (m_maxValue - m_minValue) * r;
        return true;
    }
    float GetMinValue() const { return m_minValue; }
    void SetMinValue(float value) { m_minValue = value; }
    float GetMaxValue() const { return m_maxValue; }
    void SetMaxValue(float value) { m_maxValue = value; }

protected:
    float m_minValue = 0.0f, m_maxValue = 1.0f;
};

// A fresh draw per component, in component order.
template <class D>
class TCompositeRandomDistribution : public TRandomDistributionBase<D>
{
public:
    using ValueType = typename D::ValueType;
    bool GetValue(ValueType& out, float) override
    {
        float* component = reinterpret_cast<float*>(&out);
        const float* low = reinterpret_cast<const float*>(&m_minValue);
        const float* high = reinterpret_cast<const float*>(&m_maxValue);
        for (unsigned i = 0; i < sizeof(ValueType) / sizeof(float); ++i)
            component[i] = low[i] + (high[i] - low[i]) * this->m_random.NextUnit();
        return true;
    }
    const ValueType& GetMinValue() const { return m_minValue; }
    void SetMinValue(const ValueType& value) { m_minValue = value; }
    const ValueType& GetMaxValue() const { return m_maxValue; }
    void SetMaxValue(const ValueType& value) { m_maxValue = value; }

protected:
    ValueType m_minValue{}, m_maxValue{};
};

KOVEX_DISTRIBUTION_CLASS(FloatConstDistribution, TConstDistribution<FloatDistribution>)
KOVEX_DISTRIBUTION_CLASS(Vector2ConstDistribution, TConstDistribution<Vector2Distribution>)
KOVEX_DISTRIBUTION_CLASS(Vector3ConstDistribution, TConstDistribution<Vector3Distribution>)
KOVEX_DISTRIBUTION_CLASS(Vector4ConstDistribution, TConstDistribution<Vector4Distribution>)
#define KOVEX_KEYED_BASE(D, C) TKeyControlDistribution<D, C>
KOVEX_DISTRIBUTION_CLASS(FloatKeyControlDistribution, KOVEX_KEYED_BASE(FloatDistribution, FloatKeyControl))
KOVEX_DISTRIBUTION_CLASS(Vector2KeyControlDistribution, KOVEX_KEYED_BASE(Vector2Distribution, Vector2KeyControl))
KOVEX_DISTRIBUTION_CLASS(Vector3KeyControlDistribution, KOVEX_KEYED_BASE(Vector3Distribution, Vector3KeyControl))
KOVEX_DISTRIBUTION_CLASS(Vector4KeyControlDistribution, KOVEX_KEYED_BASE(Vector4Distribution, Vector4KeyControl))
#undef KOVEX_KEYED_BASE
KOVEX_DISTRIBUTION_CLASS(FloatRandomDistribution, TUniformRandomDistribution<FloatDistribution>)
KOVEX_DISTRIBUTION_CLASS(Vector2UniformRandomDistribution, TUniformRandomDistribution<Vector2Distribution>)
KOVEX_DISTRIBUTION_CLASS(Vector3UniformRandomDistribution, TUniformRandomDistribution<Vector3Distribution>)
KOVEX_DISTRIBUTION_CLASS(Vector4UniformRandomDistribution, TUniformRandomDistribution<Vector4Distribution>)
KOVEX_DISTRIBUTION_CLASS(Vector2CompositeRandomDistribution, TCompositeRandomDistribution<Vector2Distribution>)
KOVEX_DISTRIBUTION_CLASS(Vector3CompositeRandomDistribution, TCompositeRandomDistribution<Vector3Distribution>)
KOVEX_DISTRIBUTION_CLASS(Vector4CompositeRandomDistribution, TCompositeRandomDistribution<Vector4Distribution>)
#undef KOVEX_DISTRIBUTION_CLASS

} // namespace KovexEngine
