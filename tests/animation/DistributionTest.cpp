#include <gtest/gtest.h>

#include <vector>

#include "animation/Distribution.h"
#include "serialization/BinSerializer.h"
#include "serialization/SerializerTestSupport.h"
#include "serialization/XmlSerializer.h"

using namespace KovexEngine;
using namespace KovexTest;

namespace {

template <class D>
Ptr<D> RoundTrip(const Class* form, const D& d, Bytes* firstOut = nullptr)
{
    const Bytes first = SaveIn(form, ConstPtr<Object>(&d));
    if (firstOut)
        *firstOut = first;
    Ptr<Object> loaded = LoadFrom(first);
    return Ptr<D>(DynamicCast<D>(loaded.Get()));
}

} // namespace

TEST(Distribution, ConstantIgnoresTimeAndTheBaseGivesNoValue)
{
    Ptr<Vector3ConstDistribution> d(new Vector3ConstDistribution());
    d->SetConstValue(Vector3(1, 2, 3));
    Vector3 out;
    for (float t : {-1.0f, 0.0f, 50.0f})
    {
        ASSERT_TRUE(d->GetValue(out, t));
        EXPECT_EQ(out, Vector3(1, 2, 3));
    }
    Variable v;
    ASSERT_TRUE(d->GetValueVar(v, 0.0f));
    EXPECT_EQ(v.Type(), KOVEX_TYPE_VECTOR3);
    EXPECT_EQ(v.As<Vector3>(), Vector3(1, 2, 3));
    Distribution plain;
    EXPECT_FALSE(plain.GetValueVar(v, 0.0f));
}

TEST(Distribution, KeyedGivesZeroWithoutKeysAndFollowsItsControl)
{
    Ptr<FloatKeyControlDistribution> d(new FloatKeyControlDistribution());
    float out = 5.0f;
    ASSERT_TRUE(d->GetValue(out, 1.0f));
    EXPECT_EQ(out, 0.0f);
    std::vector<FloatLinearKey> keys(2);
    keys[0].time = 1.0f, keys[0].value = 2.0f;
    keys[1].time = 3.0f, keys[1].value = 6.0f;
    Ptr<FloatKeyControl> control(new FloatKeyControl());
    ASSERT_TRUE(control->SetKeys(keys.data(), 2, KeyFrame::INTERP_LINEAR));
    d->SetKeyControl(control);
    d->GetValue(out, 0.0f);
    EXPECT_EQ(out, 2.0f);
    d->GetValue(out, 2.0f);
    EXPECT_FLOAT_EQ(out, 4.0f);
    d->GetValue(out, 9.0f);
    EXPECT_EQ(out, 6.0f);
    d->GetValue(out, std::nanf(""));
    EXPECT_EQ(out, 2.0f);
    // A null control is replaced by an empty one, never left null.
    d->SetKeyControl(nullptr);
    ASSERT_TRUE(d->GetKeyControl());
    d->GetValue(out, 2.0f);
    EXPECT_EQ(out, 0.0f);
}

TEST(Distribution, UniformDrawsOneNumberAndCompositeOnePerComponent)
{
    Ptr<Vector3UniformRandomDistribution> uniform(new Vector3UniformRandomDistribution());
    uniform->SetMinValue(-2.0f);
    uniform->SetMaxValue(4.0f);
    Ptr<Vector3CompositeRandomDistribution> composite(new Vector3CompositeRandomDistribution());
    composite->SetMinValue(Vector3(0, 10, 100));
    composite->SetMaxValue(Vector3(1, 11, 101));
    bool componentsDiffer = false;
    for (int i = 0; i < 200; ++i)
    {
        Vector3 u, c;
        uniform->GetValue(u, 0.0f);
        EXPECT_EQ(u.x, u.y);
        EXPECT_EQ(u.y, u.z);
        EXPECT_GE(u.x, -2.0f);
        EXPECT_LE(u.x, 4.0f);
        composite->GetValue(c, 0.0f);
        EXPECT_TRUE(c.x >= 0.0f && c.x <= 1.0f);
        EXPECT_TRUE(c.y >= 10.0f && c.y <= 11.0f);
        EXPECT_TRUE(c.z >= 100.0f && c.z <= 101.0f);
        componentsDiffer |= (c.y - 10.0f) != c.x;
    }
    EXPECT_TRUE(componentsDiffer);
}

TEST(Distribution, EachRandomDistributionHasItsOwnSeedAndASavedOneReplays)
{
    Ptr<FloatRandomDistribution> a(new FloatRandomDistribution()), b(new FloatRandomDistribution());
    EXPECT_NE(a->GetSeed(), b->GetSeed());
    std::vector<float> first, other;
    for (int i = 0; i < 16; ++i)
    {
        float x, y;
        a->GetValue(x, 0.0f);
        b->GetValue(y, 0.0f);
        first.push_back(x);
        other.push_back(y);
    }
    EXPECT_NE(first, other);
    // Saved after drawing: the seed, not the position, is what travels.
    a->SetSeed(a->GetSeed());
    for (const Class* form : {BinSerializer::StaticGetClass(), XmlSerializer::StaticGetClass()})
    {
        Ptr<FloatRandomDistribution> loaded = RoundTrip(form, *a);
        ASSERT_TRUE(loaded);
        for (float expected : first)
        {
            float x;
            loaded->GetValue(x, 0.0f);
            EXPECT_EQ(x, expected);
        }
    }
}

TEST(Distribution, SaveLoadSaveIsByteIdenticalInBothForms)
{
    std::vector<Ptr<Object>> all;
    Ptr<Vector4ConstDistribution> constant(new Vector4ConstDistribution());
    constant->SetConstValue(Vector4(1, -2, 3.5f, 0.25f));
    all.push_back(Ptr<Object>(constant.Get()));
    Ptr<Vector2CompositeRandomDistribution> composite(new Vector2CompositeRandomDistribution());
    composite->SetMinValue(Vector2(-1, 2));
    composite->SetMaxValue(Vector2(3, 4));
    all.push_back(Ptr<Object>(composite.Get()));
    Ptr<Vector3UniformRandomDistribution> uniform(new Vector3UniformRandomDistribution());
    uniform->SetMaxValue(9.0f);
    all.push_back(Ptr<Object>(uniform.Get()));
    Ptr<Vector3KeyControlDistribution> keyed(new Vector3KeyControlDistribution());
    std::vector<Vector3TCBKey> keys(3);
    for (int i = 0; i < 3; ++i)
        keys[size_t(i)].time = float(i), keys[size_t(i)].value = Vector3(float(i), 1, -float(i)), keys[size_t(i)].bias = 0.5f;
    Ptr<Vector3KeyControl> control(new Vector3KeyControl());
    ASSERT_TRUE(control->SetKeys(keys.data(), 3, KeyFrame::INTERP_TCB));
    control->ProcessKeys();
    keyed->SetKeyControl(control);
    all.push_back(Ptr<Object>(keyed.Get()));
    all.push_back(Ptr<Object>(new FloatKeyControlDistribution()));

    for (const Class* form : {BinSerializer::StaticGetClass(), XmlSerializer::StaticGetClass()})
        for (const Ptr<Object>& object : all)
        {
            SCOPED_TRACE(testing::Message() << object->GetClass()->GetSize());
            const Bytes first = SaveIn(form, ConstPtr<Object>(object.Get()));
            Ptr<Object> loaded = LoadFrom(first);
            ASSERT_TRUE(loaded);
            EXPECT_EQ(loaded->GetClass(), object->GetClass());
            EXPECT_EQ(SaveIn(form, ConstPtr<Object>(loaded.Get())), first);
        }
    Ptr<Vector3KeyControlDistribution> loaded = RoundTrip(BinSerializer::StaticGetClass(), *keyed);
    ASSERT_TRUE(loaded);
    Vector3 a, b;
    keyed->GetValue(a, 1.3f);
    loaded->GetValue(b, 1.3f);
    EXPECT_EQ(a, b);
}
