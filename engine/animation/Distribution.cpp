#include "animation/Distribution.h"

#include <atomic>

#include "reflection/PropertyRegistration.h"

namespace KovexEngine {

uint32 NextDistributionSeed()
{
    // Distinct, odd-spaced seeds; any sequence of them is reproducible once saved.
    static std::atomic<uint32> counter{0};
    return 1u + counter.fetch_add(1, std::memory_order_relaxed) * 2654435761u;
}

bool Distribution::GetValueVar(Variable&, float) { return false; }

KOVEX_REGISTER_CLASS(Distribution, u"Engine", Object)
KOVEX_REGISTER_CLASS(FloatDistribution, u"Engine", Distribution)
KOVEX_REGISTER_CLASS(Vector2Distribution, u"Engine", Distribution)
KOVEX_REGISTER_CLASS(Vector3Distribution, u"Engine", Distribution)
KOVEX_REGISTER_CLASS(Vector4Distribution, u"Engine", Distribution)

#define KOVEX_CONST_DISTRIBUTION(X, Base)                                               \
    KOVEX_REGISTER_CLASS_EX(X, u"Engine")                                               \
    void X::StaticConstructor(Class* cls)                                               \
    {                                                                                   \
        RegisterBases<X, Base>(cls);                                                    \
        AddAccessor(cls, u"ConstValue", &X::GetConstValue, &X::SetConstValue);          \
        cls->ProcessClass();                                                            \
    }
KOVEX_CONST_DISTRIBUTION(FloatConstDistribution, FloatDistribution)
KOVEX_CONST_DISTRIBUTION(Vector2ConstDistribution, Vector2Distribution)
KOVEX_CONST_DISTRIBUTION(Vector3ConstDistribution, Vector3Distribution)
KOVEX_CONST_DISTRIBUTION(Vector4ConstDistribution, Vector4Distribution)

#define KOVEX_KEYED_DISTRIBUTION(X, Base)                                               \
    KOVEX_REGISTER_CLASS_EX(X, u"Engine")                                               \
    void X::StaticConstructor(Class* cls)                                               \
    {                                                                                   \
        RegisterBases<X, Base>(cls);                                                    \
        AddAccessor(cls, u"KeyControl", &X::GetKeyControl, &X::SetKeyControl);          \
        cls->ProcessClass();                                                            \
    }
KOVEX_KEYED_DISTRIBUTION(FloatKeyControlDistribution, FloatDistribution)
KOVEX_KEYED_DISTRIBUTION(Vector2KeyControlDistribution, Vector2Distribution)
KOVEX_KEYED_DISTRIBUTION(Vector3KeyControlDistribution, Vector3Distribution)
KOVEX_KEYED_DISTRIBUTION(Vector4KeyControlDistribution, Vector4Distribution)

// The seed comes last so that loading it restarts the generator after the range is set.
#define KOVEX_RANDOM_DISTRIBUTION(X, Base)                                              \
    KOVEX_REGISTER_CLASS_EX(X, u"Engine")                                               \
    void X::StaticConstructor(Class* cls)                                               \
    {                                                                                   \
        RegisterBases<X, Base>(cls);                                                    \
        AddAccessor(cls, u"MinValue", &X::GetMinValue, &X::SetMinValue);                \
        AddAccessor(cls, u"MaxValue", &X::GetMaxValue, &X::SetMaxValue);                \
        AddAccessor(cls, u"Seed", &X::GetSeed, &X::SetSeed);                            \
        cls->ProcessClass();                                                            \
    }
KOVEX_RANDOM_DISTRIBUTION(FloatRandomDistribution, FloatDistribution)
KOVEX_RANDOM_DISTRIBUTION(Vector2UniformRandomDistribution, Vector2Distribution)
KOVEX_RANDOM_DISTRIBUTION(Vector3UniformRandomDistribution, Vector3Distribution)
KOVEX_RANDOM_DISTRIBUTION(Vector4UniformRandomDistribution, Vector4Distribution)
KOVEX_RANDOM_DISTRIBUTION(Vector2CompositeRandomDistribution, Vector2Distribution)
KOVEX_RANDOM_DISTRIBUTION(Vector3CompositeRandomDistribution, Vector3Distribution)
KOVEX_RANDOM_DISTRIBUTION(Vector4CompositeRandomDistribution, Vector4Distribution)

} // namespace KovexEngine
