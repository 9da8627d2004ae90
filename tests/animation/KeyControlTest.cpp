#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <random>
#include <vector>

#include "animation/KeyControl.h"
#include "math/MathUtil.h"
#include "reflection/Struct.h"
#include "serialization/BinSerializer.h"
#include "serialization/SerializerTestSupport.h"
#include "serialization/XmlSerializer.h"
#include "support/AllocCounter.h"
#include "support/LogCapture.h"

using namespace KovexEngine;
using namespace KovexTest;

namespace {

const FourCC kKCTL = FourCCs::Make("KCTL");
const FourCC kNKEY = FourCCs::Make("NKEY");
const FourCC kITTP = FourCCs::Make("ITTP");
const FourCC kKEYS = FourCCs::Make("KEYS");

void ExpectNear(const Vector3& a, const Vector3& b, float eps = 1e-5f)
{
    EXPECT_NEAR(a.x, b.x, eps);
    EXPECT_NEAR(a.y, b.y, eps);
    EXPECT_NEAR(a.z, b.z, eps);
}

// The same rotation, whichever sign the quaternion carries.
float RotationDistance(const Quaternion& a, const Quaternion& b) { return 1.0f - std::fabs(a.Dot(b)); }

Vector3 Sample(const Vector3KeyControl& c, float time)
{
    Vector3 out(-99, -99, -99);
    EXPECT_TRUE(c.Sample(out, time));
    return out;
}

template <class Key>
Ptr<Vector3KeyControl> Vector3Control(const std::vector<Key>& keys, int interp)
{
    Ptr<Vector3KeyControl> c(new Vector3KeyControl());
    EXPECT_TRUE(c->SetKeys(keys.data(), unsigned(keys.size()), interp));
    c->ProcessKeys();
    return c;
}

std::vector<Vector3TCBKey> TcbKeys(const std::vector<float>& times, const std::vector<Vector3>& values)
{
    std::vector<Vector3TCBKey> keys(times.size());
    for (size_t i = 0; i < keys.size(); ++i)
    {
        keys[i].time = times[i];
        keys[i].value = values[i];
    }
    return keys;
}

} // namespace

// --- Key search and sampling at the edges ------------------------------------------------

TEST(KeyControlSampling, WithoutKeysNothingIsFoundAndOutStaysAlone)
{
    FloatKeyControl c;
    EXPECT_EQ(c.GetKeyIndex(0.5f, 0), KeyControl::kNoKey);
    EXPECT_EQ(c.FindKeyIndex(0.5f), KeyControl::kNoKey);
    float out = 7.0f;
    EXPECT_FALSE(c.Sample(out, 0.5f));
    c.Interpolate(out, 0.5f, KeyControl::kNoKey);
    EXPECT_EQ(out, 7.0f);
    EXPECT_EQ(c.CalcDuration(), 0.0f);
}

TEST(KeyControlSampling, OneKeyGivesItsValueBeforeAndAfterIt)
{
    for (int interp : {0, 1, 2, 3})
    {
        Vector3KeyControl c;
        KeyFrame* block = c.CreateKeys(interp, 1);
        ASSERT_NE(block, nullptr);
        block->time = 2.0f;
        static_cast<Vector3Key*>(block)->value = Vector3(1, 2, 3);
        c.ProcessKeys();
        for (float t : {-5.0f, 2.0f, 9.0f})
        {
            EXPECT_EQ(c.GetKeyIndex(t, 0), 0u);
            EXPECT_EQ(Sample(c, t), Vector3(1, 2, 3)) << "interp " << interp << " at " << t;
        }
    }
}

TEST(KeyControlSampling, ClampsAtBothEndsAndHitsInnerKeysExactlyForEveryInterpolation)
{
    const std::vector<float> times = {0.5f, 1.0f, 2.5f, 3.0f};
    const std::vector<Vector3> values = {Vector3(1, 0, 0), Vector3(0, 4, 0), Vector3(-2, 1, 5), Vector3(3, 3, 3)};
    for (int interp : {0, 1, 2, 3})
    {
        Vector3KeyControl c;
        KeyFrame* block = c.CreateKeys(interp, 4);
        ASSERT_NE(block, nullptr);
        for (unsigned i = 0; i < 4; ++i)
        {
            KeyFrame* k = c.GetKey(i);
            k->time = times[i];
            static_cast<Vector3Key*>(k)->value = values[i];
        }
        if (interp == KeyFrame::INTERP_BEZIER)
            static_cast<Vector3BezierKey*>(c.GetKey(1))->outTangent = Vector3(5, 5, 5);
        c.ProcessKeys();
        EXPECT_EQ(Sample(c, -1.0f), values[0]) << interp;
        EXPECT_EQ(Sample(c, 0.5f), values[0]) << interp;
        EXPECT_EQ(Sample(c, 3.0f), values[3]) << interp;
        EXPECT_EQ(Sample(c, 100.0f), values[3]) << interp;
        // On an inner key the next key is the right-hand one and t is 0.
        EXPECT_EQ(c.GetKeyIndex(1.0f, 0), 2u);
        EXPECT_EQ(Sample(c, 1.0f), values[1]) << interp;
        EXPECT_EQ(Sample(c, 2.5f), values[2]) << interp;
        EXPECT_FLOAT_EQ(c.CalcDuration(), 3.0f);
    }
}

TEST(KeyControlSampling, BinarySearchAgreesWithTheScanAndStartIsTheCallersMeaning)
{
    std::vector<FloatLinearKey> keys(40);
    for (unsigned i = 0; i < keys.size(); ++i)
    {
        keys[i].time = float(i / 2); // pairs of keys at one time
        keys[i].value = float(i);
    }
    FloatKeyControl c;
    ASSERT_TRUE(c.SetKeys(keys.data(), unsigned(keys.size()), KeyFrame::INTERP_LINEAR));
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> dist(-2.0f, 22.0f);
    for (int i = 0; i < 2000; ++i)
    {
        const float t = i < 40 ? float(i / 2) : dist(rng);
        ASSERT_EQ(c.FindKeyIndex(t), c.GetKeyIndex(t, 0)) << t;
    }
    EXPECT_EQ(c.FindKeyIndex(std::nanf("")), c.GetKeyIndex(std::nanf(""), 0));
    // A start past the pair holding the time gives the key after the start.
    EXPECT_EQ(c.GetKeyIndex(1.5f, 10), 10u);
    EXPECT_EQ(c.GetKeyIndex(1.5f, 40), KeyControl::kNoKey);
}

TEST(KeyControlSampling, KeysAtOneTimeGiveTheLaterKeyAndNeverNaN)
{
    std::vector<FloatLinearKey> keys(3);
    keys[0].time = 0.0f, keys[0].value = 1.0f;
    keys[1].time = 1.0f, keys[1].value = 2.0f;
    keys[2].time = 1.0f, keys[2].value = 5.0f;
    for (int interp : {0, 1, 2, 3})
    {
        FloatKeyControl c;
        KeyFrame* block = c.CreateKeys(interp, 3);
        for (unsigned i = 0; i < 3; ++i)
        {
            c.GetKey(i)->time = keys[i].time;
            static_cast<FloatKey*>(c.GetKey(i))->value = keys[i].value;
        }
        ASSERT_NE(block, nullptr);
        c.ProcessKeys();
        float out = 0;
        c.Interpolate(out, 1.0f, 1, 2);
        EXPECT_EQ(out, 5.0f) << interp;
        ASSERT_TRUE(c.Sample(out, 0.999f));
        EXPECT_TRUE(std::isfinite(out)) << interp;
        ASSERT_TRUE(c.Sample(out, 1.0f));
        EXPECT_EQ(out, 5.0f) << interp;
    }
}

TEST(KeyControlSampling, LinearAndStepValuesBetweenKeys)
{
    std::vector<FloatLinearKey> keys(3);
    keys[0].time = 0.0f, keys[0].value = 0.0f;
    keys[1].time = 2.0f, keys[1].value = 10.0f;
    keys[2].time = 4.0f, keys[2].value = -10.0f;
    FloatKeyControl linear;
    ASSERT_TRUE(linear.SetKeys(keys.data(), 3, KeyFrame::INTERP_LINEAR));
    float out = 0;
    linear.Sample(out, 0.5f);
    EXPECT_FLOAT_EQ(out, 2.5f);
    linear.Sample(out, 3.0f);
    EXPECT_FLOAT_EQ(out, 0.0f);

    std::vector<FloatStepKey> steps(3);
    for (int i = 0; i < 3; ++i)
        steps[i].time = keys[i].time, steps[i].value = keys[i].value;
    FloatKeyControl step;
    ASSERT_TRUE(step.SetKeys(steps.data(), 3, KeyFrame::INTERP_STEP));
    step.Sample(out, 3.9f);
    EXPECT_EQ(out, 10.0f);
}

// --- Curves against independently written references -----------------------------------

TEST(KeyControlCurves, BezierKeysFollowTheCubicHermiteOfTheirTangents)
{
    std::vector<Vector3BezierKey> keys(3);
    keys[0].time = 0.0f, keys[0].value = Vector3(0, 0, 0), keys[0].outTangent = Vector3(3, -1, 0);
    keys[1].time = 1.0f, keys[1].value = Vector3(1, 2, -1), keys[1].inTangent = Vector3(0, 2, 2);
    keys[1].outTangent = Vector3(-4, 1, 0.5f);
    keys[2].time = 3.0f, keys[2].value = Vector3(2, -1, 4), keys[2].inTangent = Vector3(1, 1, 1);
    auto c = Vector3Control(keys, KeyFrame::INTERP_BEZIER);
    auto hermite = [](const Vector3& p0, const Vector3& m0, const Vector3& p1, const Vector3& m1, float s) {
        const float s2 = s * s, s3 = s2 * s;
        return p0 * (2 * s3 - 3 * s2 + 1) + m0 * (s3 - 2 * s2 + s) + p1 * (-2 * s3 + 3 * s2) + m1 * (s3 - s2);
    };
    for (int i = 1; i < 20; ++i)
    {
        const float s = i / 20.0f;
        // Tangents are per segment: the second segment spans two seconds.
        ExpectNear(Sample(*c, s), hermite(keys[0].value, keys[0].outTangent, keys[1].value, keys[1].inTangent, s));
        ExpectNear(Sample(*c, 1.0f + 2.0f * s),
                   hermite(keys[1].value, keys[1].outTangent, keys[2].value, keys[2].inTangent, s));
    }
}

TEST(KeyControlCurves, TcbWithZeroParametersIsCatmullRomWithMirroredEnds)
{
    const std::vector<Vector3> p = {Vector3(0, 0, 0), Vector3(1, 3, 0), Vector3(4, 1, -2), Vector3(5, 5, 5),
                                    Vector3(2, 0, 1)};
    auto c = Vector3Control(TcbKeys({0, 1, 2, 3, 4}, p), KeyFrame::INTERP_TCB);
    auto point = [&](int i) {
        if (i < 0)
            return p[0] * 2.0f - p[1];
        if (i >= int(p.size()))
            return p.back() * 2.0f - p[p.size() - 2];
        return p[size_t(i)];
    };
    auto catmullRom = [&](int seg, float s) {
        const Vector3 a = point(seg - 1), b = point(seg), d = point(seg + 1), e = point(seg + 2);
        return (b * 2.0f + (d - a) * s + (a * 2.0f - b * 5.0f + d * 4.0f - e) * (s * s) +
                (b * 3.0f - a - d * 3.0f + e) * (s * s * s)) *
               0.5f;
    };
    for (int seg = 0; seg < 4; ++seg)
        for (int i = 1; i < 10; ++i)
            ExpectNear(Sample(*c, float(seg) + i / 10.0f), catmullRom(seg, i / 10.0f), 1e-4f);
}

TEST(KeyControlCurves, TcbTensionOneStopsAtEveryKey)
{
    auto keys = TcbKeys({0, 1, 2}, {Vector3(0, 0, 0), Vector3(1, 1, 1), Vector3(0, 2, 0)});
    for (auto& k : keys)
        k.tension = 1.0f;
    auto c = Vector3Control(keys, KeyFrame::INTERP_TCB);
    // Zero tangents: the curve is the smooth step between the values.
    ExpectNear(Sample(*c, 0.25f), Vector3(1, 1, 1) * (3 * 0.0625f - 2 * 0.015625f));
}

TEST(KeyControlCurves, QuaternionKeysOfOppositeSignTakeTheShortArc)
{
    const Vector3 axis(0, 0, 1);
    const Quaternion q0 = Quaternion::FromAxisAngle(axis, 0.0f);
    const Quaternion q1 = -Quaternion::FromAxisAngle(axis, Math::HALF_PI); // the same rotation, other sign
    for (int interp : {0, 1, 2})
    {
        QuatKeyControl c;
        ASSERT_NE(c.CreateKeys(interp, 3), nullptr);
        c.GetKey(0)->time = 0, static_cast<QuatKey*>(c.GetKey(0))->value = q0;
        c.GetKey(1)->time = 1, static_cast<QuatKey*>(c.GetKey(1))->value = q1;
        c.GetKey(2)->time = 2, static_cast<QuatKey*>(c.GetKey(2))->value = -q1; // q then -q: no turn at all
        c.ProcessKeys();
        EXPECT_GE(static_cast<QuatKey*>(c.GetKey(1))->value.Dot(q0), 0.0f);
        for (int i = 1; i < 10; ++i)
        {
            Quaternion out;
            ASSERT_TRUE(c.Sample(out, i / 10.0f));
            const Vector3 x = out * Vector3(1, 0, 0);
            const float angle = std::atan2(x.y, x.x);
            // Along the short arc the angle grows from 0 to 90 degrees.
            EXPECT_GT(angle, -0.01f) << interp;
            EXPECT_LT(angle, Math::HALF_PI + 0.01f) << interp;
            if (interp == KeyFrame::INTERP_LINEAR)
                EXPECT_NEAR(angle, Math::HALF_PI * i / 10.0f, 1e-4f);
            ASSERT_TRUE(c.Sample(out, 1.0f + i / 10.0f));
            // q then -q is no turn: a spline may sway near q under its
            // neighbours' pull, but never swings round the long way.
            EXPECT_LT(RotationDistance(out, q1), interp == KeyFrame::INTERP_LINEAR ? 1e-5f : 0.01f) << interp;
        }
    }
}

// --- Saving and loading ------------------------------------------------------------------

namespace {

Ptr<KeyControl> MakeControl(int type)
{
    switch (type)
    {
    case KOVEX_TYPE_FLOAT: return Ptr<KeyControl>(new FloatKeyControl());
    case KOVEX_TYPE_VECTOR2: return Ptr<KeyControl>(new Vector2KeyControl());
    case KOVEX_TYPE_VECTOR3: return Ptr<KeyControl>(new Vector3KeyControl());
    case KOVEX_TYPE_VECTOR4: return Ptr<KeyControl>(new Vector4KeyControl());
    default: return Ptr<KeyControl>(new QuatKeyControl());
    }
}

// Keys with every float of every key set, tangents included.
Ptr<KeyControl> FilledControl(int type, int interp, unsigned count)
{
    Ptr<KeyControl> c = MakeControl(type);
    const unsigned size = KeyFrame::GetKeySize(type, interp);
    std::vector<uint8> block(size_t(size) * count);
    for (unsigned i = 0; i < count; ++i)
    {
        auto* floats = reinterpret_cast<float*>(&block[size_t(i) * size]);
        for (unsigned f = 1; f < size / 4; ++f)
            floats[f] = std::sin(float(i * 7 + f)) * 3.0f;
        floats[0] = 0.25f * float(i * i);
        if (type == KOVEX_TYPE_QUATERNION)
        {
            Quaternion q(floats[1], floats[2], floats[3], floats[4]);
            q.Normalize();
            std::memcpy(&floats[1], &q, sizeof(q));
        }
    }
    EXPECT_TRUE(c->CopyFromKey(reinterpret_cast<KeyFrame*>(block.data()), type, interp, count, size));
    c->ProcessKeys();
    return c;
}

Bytes SaveControl(const Class* form, const KeyControl& c)
{
    return WriteWith(form, [&](Serializer& s) {
        ASSERT_TRUE(s.Enter(FourCCs::OBJ));
        EXPECT_TRUE(c.Save(&s));
        s.Leave();
    });
}

bool LoadControl(const Bytes& bytes, KeyControl& c)
{
    Serializer* s = OpenReader(bytes);
    if (!s)
        return false;
    const bool ok = s->Enter(FourCCs::OBJ) && c.Load(s);
    delete s;
    return ok;
}

// A "KCTL" chunk written by hand, as a damaged or forged file has it.
Bytes ForgedBlock(const Class* form, uint32 announced, int32 interp, const std::vector<float>& floats,
                  unsigned keySize, bool withKeys = true)
{
    return WriteWith(form, [&](Serializer& s) {
        s.Enter(FourCCs::OBJ);
        s.Write(FourCCs::PRSZ, uint32(0));
        s.Enter(kKCTL);
        s.Write(kNKEY, announced);
        s.Write(kITTP, interp);
        if (withKeys)
        {
            SerializeMemLayout layout(keySize);
            for (unsigned o = 0; o < keySize; o += 4)
                layout.Add(SerializeMemLayout::Float, o);
            s.Write(kKEYS, floats.data(), unsigned(floats.size() * 4 / keySize), layout);
        }
        s.Leave();
        s.Leave();
    });
}

} // namespace

TEST(KeyControlSerial, SaveLoadSaveIsByteIdenticalForEveryKeyTypeInBothForms)
{
    for (const Class* form : {BinSerializer::StaticGetClass(), XmlSerializer::StaticGetClass()})
        for (int type = KOVEX_TYPE_FLOAT; type <= KOVEX_TYPE_QUATERNION; ++type)
            for (int interp : {0, 1, 2, 3})
            {
                SCOPED_TRACE(testing::Message() << "form " << (form == XmlSerializer::StaticGetClass() ? "xml" : "bin")
                                                << " type " << type << " interp " << interp);
                Ptr<KeyControl> original = FilledControl(type, interp, 6);
                const Bytes first = SaveControl(form, *original);
                ASSERT_FALSE(first.empty());
                Ptr<KeyControl> loaded = MakeControl(type);
                ASSERT_TRUE(LoadControl(first, *loaded));
                EXPECT_EQ(loaded->GetInterpType(), interp);
                ASSERT_EQ(loaded->GetNumKeys(), 6u);
                EXPECT_EQ(SaveControl(form, *loaded), first);
                // The rebuilt coefficients sample as the originals did (the
                // text form keeps six significant digits).
                float a[4] = {}, b[4] = {};
                for (float t : {0.1f, 1.3f, 4.0f, 8.9f})
                {
                    ASSERT_TRUE(original->InterpolateFromKeys(a, t));
                    ASSERT_TRUE(loaded->InterpolateFromKeys(b, t));
                    for (int i = 0; i < 4; ++i)
                        EXPECT_NEAR(a[i], b[i], 1e-4f * std::max(1.0f, std::fabs(a[i])));
                }
            }
}

TEST(KeyControlSerial, AnEmptyControlSavesOnlyItsCountAndLoadsEmpty)
{
    for (const Class* form : {BinSerializer::StaticGetClass(), XmlSerializer::StaticGetClass()})
    {
        FloatKeyControl empty;
        const Bytes bytes = SaveControl(form, empty);
        Ptr<KeyControl> loaded = FilledControl(KOVEX_TYPE_FLOAT, 0, 3);
        ASSERT_TRUE(LoadControl(bytes, *loaded));
        EXPECT_EQ(loaded->GetNumKeys(), 0u);
        EXPECT_EQ(SaveControl(form, *loaded), bytes);
    }
}

TEST(KeyControlSerial, BadKeyBlocksFailWithAClearLineAndLeaveNoKeys)
{
    const unsigned size = 8; // FloatLinearKey: time, value
    struct Case
    {
        const char* what;
        uint32 announced;
        int32 interp;
        std::vector<float> floats;
        const char16_t* line;
        bool withKeys;
    };
    const std::vector<Case> cases = {
        {"absurd count", 0xFFFFFFF0u, 0, {0, 1, 1, 2}, u"Load key control failed: 4294967280 keys is more than 1048576.\n", true},
        {"count differs", 3, 0, {0, 1, 1, 2}, u"Load key control failed: 2 keys stored, 3 announced.\n", true},
        {"unsorted", 3, 0, {0, 1, 2, 2, 1, 3}, u"Key control: key 2 has a time that is negative, not finite or earlier than the key before it.\n", true},
        {"negative", 2, 0, {-1, 1, 2, 2}, u"Key control: key 0 has a time that is negative, not finite or earlier than the key before it.\n", true},
        {"nan time", 2, 0, {0, 1, std::nanf(""), 2}, u"Key control: key 1 has a time that is negative, not finite or earlier than the key before it.\n", true},
        {"inf value", 2, 0, {0, 1, 1, INFINITY}, u"Key control: key 1 has a value that is not finite or beyond 1e30.\n", true},
        {"unknown interpolation", 2, 7, {0, 1, 1, 2}, u"Load key control failed: unknown interpolation type 7.\n", true},
        {"negative interpolation", 2, -1, {0, 1, 1, 2}, u"Load key control failed: unknown interpolation type -1.\n", true},
        {"no block", 2, 0, {}, u"Load key control failed: the key block is missing or damaged.\n", false},
    };
    for (const Class* form : {BinSerializer::StaticGetClass(), XmlSerializer::StaticGetClass()})
        for (const Case& c : cases)
        {
            SCOPED_TRACE(c.what);
            LogCapture log;
            Ptr<KeyControl> control = FilledControl(KOVEX_TYPE_FLOAT, 0, 3);
            EXPECT_FALSE(LoadControl(ForgedBlock(form, c.announced, c.interp, c.floats, size, c.withKeys), *control));
            // The text form refuses "nan" and "inf" already as numbers.
            const bool unreadable = form == XmlSerializer::StaticGetClass() && !std::isfinite(c.floats.size() > 2 ? c.floats[2] + c.floats[3] : 0.0f);
            EXPECT_TRUE(log->Contains(unreadable ? u"Load key control failed: the key block is missing or damaged.\n" : c.line));
            EXPECT_EQ(control->GetNumKeys(), 0u);
        }
    // A block of records shorter than the key the interpolation needs.
    LogCapture log;
    FloatKeyControl control;
    EXPECT_FALSE(LoadControl(ForgedBlock(BinSerializer::StaticGetClass(), 2, KeyFrame::INTERP_TCB, {0, 1, 1, 2}, size),
                             control));
    EXPECT_EQ(control.GetNumKeys(), 0u);
}

TEST(KeyControlSerial, EveryTruncationOfAFileFailsCleanly)
{
    Ptr<KeyControl> original = FilledControl(KOVEX_TYPE_VECTOR3, KeyFrame::INTERP_BEZIER, 5);
    const Bytes bytes = SaveControl(BinSerializer::StaticGetClass(), *original);
    LogCapture quiet;
    for (size_t cut = 0; cut < bytes.size(); ++cut)
    {
        Vector3KeyControl loaded;
        if (LoadControl(bytes.substr(0, cut), loaded))
            EXPECT_EQ(loaded.GetNumKeys(), 5u) << cut; // only a whole block loads
    }
}

TEST(KeyControlEditing, CopiesCheckStrideTypeAndOrder)
{
    std::vector<FloatLinearKey> keys(2);
    keys[0].time = 0, keys[1].time = 1;
    FloatKeyControl c;
    LogCapture log;
    EXPECT_FALSE(c.CopyFromKey(keys.data(), KOVEX_TYPE_FLOAT, KeyFrame::INTERP_LINEAR, 2, 4));
    EXPECT_TRUE(log->Contains(u"Key control: stride 4 is smaller than the key (8 bytes).\n"));
    EXPECT_FALSE(c.CopyFromKey(keys.data(), KOVEX_TYPE_VECTOR2, KeyFrame::INTERP_LINEAR, 2, 8));
    EXPECT_FALSE(c.CopyFromKey(keys.data(), KOVEX_TYPE_FLOAT, 9, 2, 8));
    EXPECT_EQ(c.GetNumKeys(), 0u);
    // A wider stride walks a block of larger records.
    struct Wide
    {
        FloatLinearKey key;
        float extra[3];
    } wide[3] = {{{}, {}}, {{}, {}}, {{}, {}}};
    for (int i = 0; i < 3; ++i)
        wide[i].key.time = float(i), wide[i].key.value = float(10 * i);
    ASSERT_TRUE(c.CopyFromKey(&wide[0].key, KOVEX_TYPE_FLOAT, KeyFrame::INTERP_LINEAR, 3, sizeof(Wide)));
    float out = 0;
    c.Sample(out, 1.5f);
    EXPECT_FLOAT_EQ(out, 15.0f);

    FloatLinearKey late;
    late.time = 0.5f, late.value = 100.0f;
    ASSERT_TRUE(c.InsertKey(1, &late, KOVEX_TYPE_FLOAT, KeyFrame::INTERP_LINEAR));
    c.Sample(out, 0.5f);
    EXPECT_FLOAT_EQ(out, 100.0f);
    EXPECT_FALSE(c.InsertKey(0, &late, KOVEX_TYPE_FLOAT, KeyFrame::INTERP_LINEAR)); // out of order
    EXPECT_FALSE(c.InsertKey(1, &late, KOVEX_TYPE_FLOAT, KeyFrame::INTERP_STEP));   // other interpolation
    ASSERT_TRUE(c.DeleteKey(1));
    c.Sample(out, 0.5f);
    EXPECT_FLOAT_EQ(out, 5.0f);
    EXPECT_EQ(c.GetNumKeys(), 3u);

    FloatKeyControl copy;
    ASSERT_TRUE(c.Duplicate(&copy, 0));
    copy.Sample(out, 1.5f);
    EXPECT_FLOAT_EQ(out, 15.0f);
}

TEST(KeyControlTables, EveryKeyTypeAndInterpolationIsRegistered)
{
    for (int type = KOVEX_TYPE_FLOAT; type <= KOVEX_TYPE_QUATERNION; ++type)
        for (int interp = 0; interp < KeyFrame::kNumInterpTypes; ++interp)
        {
            EXPECT_TRUE(KeyFrame::HasKeyType(type, interp));
            EXPECT_NE(KeyFrame::GetInterpolateFunc(type, interp), nullptr);
            EXPECT_NE(KeyFrame::GetMemLayout(type, interp), nullptr);
            EXPECT_GE(KeyFrame::GetKeySize(type, interp), 8u);
        }
    EXPECT_EQ(KeyFrame::GetKeySize(KOVEX_TYPE_VECTOR3, KeyFrame::INTERP_TCB), sizeof(Vector3TCBKey));
    EXPECT_EQ(KeyFrame::GetKeySize(KOVEX_TYPE_QUATERNION, KeyFrame::INTERP_BEZIER), sizeof(QuatBezierKey));
    EXPECT_FALSE(KeyFrame::HasKeyType(KOVEX_TYPE_MATRIX4, 0));
    EXPECT_EQ(KeyFrame::CreateKeys(KOVEX_TYPE_BOOL, 0, 3), nullptr);
}

TEST(KeyControlSpeed, SamplingAllocatesNothing)
{
    for (int type = KOVEX_TYPE_FLOAT; type <= KOVEX_TYPE_QUATERNION; ++type)
        for (int interp : {0, 1, 2, 3})
        {
            Ptr<KeyControl> c = FilledControl(type, interp, 64);
            float out[4];
            AllocationScope scope;
            for (int i = 0; i < 2000; ++i)
                c->InterpolateFromKeys(out, float(i) * 0.51f);
            EXPECT_EQ(scope.Count(), 0u) << type << " " << interp;
        }
}

#include <atomic>
#include <thread>

TEST(KeyControlThreads, TablesFillOnceUnderRacingReadersAndSamplingIsShared)
{
    std::vector<Vector3LinearKey> keys(32);
    for (unsigned i = 0; i < keys.size(); ++i)
        keys[i].time = float(i), keys[i].value = Vector3(float(i), 0, 0);
    Ptr<Vector3KeyControl> shared(new Vector3KeyControl());
    ASSERT_TRUE(shared->SetKeys(keys.data(), unsigned(keys.size()), KeyFrame::INTERP_LINEAR));
    KeyFrame::StaticDestroy(); // the next reader fills the tables again
    std::atomic<int> go{0}, wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            while (go.load() == 0)
                std::this_thread::yield();
            for (int i = 0; i < 2000; ++i)
            {
                if (!KeyFrame::GetMemLayout(KOVEX_TYPE_QUATERNION, (i + t) % 4) ||
                    KeyFrame::GetKeySize(KOVEX_TYPE_FLOAT, KeyFrame::INTERP_TCB) != sizeof(FloatTCBKey))
                    ++wrong;
                Vector3 out;
                const float time = float((i * 7 + t) % 310) * 0.1f;
                if (!shared->Sample(out, time) || std::fabs(out.x - time) > 1e-4f)
                    ++wrong;
            }
        });
    go = 1;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(wrong.load(), 0);
}

// --- Reflected key structs ---------------------------------------------------------------

namespace {

template <class Key, class Field>
int FieldOffset(Field Key::*field)
{
    Key key;
    return int(reinterpret_cast<const char*>(&(key.*field)) - reinterpret_cast<const char*>(&key));
}

struct ExpectedField
{
    const char16_t* name;
    int offset;
    const Class* type;
};

void ExpectFields(const Class* cls, const std::vector<ExpectedField>& expected)
{
    ASSERT_NE(cls, nullptr);
    const auto* st = static_cast<const Struct*>(cls);
    const TArray<const Property*>& fields = st->GetStructFields();
    ASSERT_EQ(fields.Count(), unsigned(expected.size()));
    for (unsigned i = 0; i < fields.Count(); ++i)
    {
        SCOPED_TRACE(testing::Message() << "field " << i);
        EXPECT_EQ(fields[i]->GetName(), WString(expected[i].name));
        EXPECT_EQ(fields[i]->GetOffset(), expected[i].offset);
        EXPECT_EQ(fields[i]->GetClass(), expected[i].type);
    }
}

} // namespace

TEST(KeyControlTables, EverySlotAnswersItsOwnReflectedKeyStruct)
{
    const char16_t* names[] = {u"FloatLinearKey",   u"FloatBezierKey",   u"FloatTCBKey",   u"FloatStepKey",
                               u"Vector2LinearKey", u"Vector2BezierKey", u"Vector2TCBKey", u"Vector2StepKey",
                               u"Vector3LinearKey", u"Vector3BezierKey", u"Vector3TCBKey", u"Vector3StepKey",
                               u"Vector4LinearKey", u"Vector4BezierKey", u"Vector4TCBKey", u"Vector4StepKey",
                               u"QuatLinearKey",    u"QuatBezierKey",    u"QuatTCBKey",    u"QuatStepKey"};
    std::vector<const Class*> seen;
    for (int type = KOVEX_TYPE_FLOAT; type <= KOVEX_TYPE_QUATERNION; ++type)
        for (int interp = 0; interp < KeyFrame::kNumInterpTypes; ++interp)
        {
            const Class* cls = KeyFrame::GetKeyStruct(type, interp);
            ASSERT_NE(cls, nullptr);
            EXPECT_EQ(cls->GetName(), WString(names[(type - KOVEX_TYPE_FLOAT) * 4 + interp]));
            EXPECT_EQ(cls->GetSize(), KeyFrame::GetKeySize(type, interp));
            EXPECT_EQ(std::find(seen.begin(), seen.end(), cls), seen.end());
            seen.push_back(cls);
        }
    EXPECT_EQ(KeyFrame::GetKeyStruct(KOVEX_TYPE_VECTOR2, KeyFrame::INTERP_STEP), Vector2StepKey::GetSelfStruct());
    EXPECT_EQ(KeyFrame::GetKeyStruct(KOVEX_TYPE_QUATERNION, KeyFrame::INTERP_TCB), QuatTCBKey::GetSelfStruct());
    EXPECT_EQ(KeyFrame::GetKeyStruct(KOVEX_TYPE_BOOL, 0), nullptr);
}

TEST(KeyControlTables, KeyStructsListTheirFieldsInMemoryOrder)
{
    const Class* f = ClassOf<float>();
    const Class* v3 = Vector3::StaticGetClass();
    const Class* q = Quaternion::StaticGetClass();
    using B = Vector3BezierKey;
    ExpectFields(B::GetSelfStruct(), {{u"Time", 0, f},
                                      {u"Value", FieldOffset(&B::value), v3},
                                      {u"InTangent", FieldOffset(&B::inTangent), v3},
                                      {u"OutTangent", FieldOffset(&B::outTangent), v3},
                                      {u"A", FieldOffset(&B::A), v3},
                                      {u"B", FieldOffset(&B::B), v3}});
    using T = FloatTCBKey;
    ExpectFields(T::GetSelfStruct(), {{u"Time", 0, f},
                                      {u"Value", FieldOffset(&T::value), f},
                                      {u"Tension", FieldOffset(&T::tension), f},
                                      {u"Continuity", FieldOffset(&T::continuity), f},
                                      {u"Bias", FieldOffset(&T::bias), f},
                                      {u"A", FieldOffset(&T::A), f},
                                      {u"B", FieldOffset(&T::B), f},
                                      {u"OutTangent", FieldOffset(&T::outTangent), f},
                                      {u"InTangent", FieldOffset(&T::inTangent), f}});
    ExpectFields(QuatBezierKey::GetSelfStruct(),
                 {{u"Time", 0, f},
                  {u"Value", FieldOffset(&QuatBezierKey::value), q},
                  {u"Intermediate", FieldOffset(&QuatBezierKey::intermediate), q}});
    using QT = QuatTCBKey;
    ExpectFields(QT::GetSelfStruct(), {{u"Time", 0, f},
                                       {u"Value", FieldOffset(&QT::value), q},
                                       {u"Tension", FieldOffset(&QT::tension), f},
                                       {u"Continuity", FieldOffset(&QT::continuity), f},
                                       {u"Bias", FieldOffset(&QT::bias), f},
                                       {u"A", FieldOffset(&QT::A), q},
                                       {u"B", FieldOffset(&QT::B), q}});
    ExpectFields(Vector4LinearKey::GetSelfStruct(),
                 {{u"Time", 0, f}, {u"Value", FieldOffset(&Vector4LinearKey::value), Vector4::StaticGetClass()}});

    // A field read through reflection is the key's own field.
    Vector2TCBKey key;
    key.bias = -0.25f;
    const auto* st = static_cast<const Struct*>(Vector2TCBKey::GetSelfStruct());
    for (const Property* p : st->GetStructFields())
        if (p->GetName() == WString(u"Bias"))
        {
            float bias = 0.0f;
            ASSERT_TRUE(p->GetPropertyValue(&key, &bias));
            EXPECT_EQ(bias, -0.25f);
        }
}

// --- Bezier walk mode ---------------------------------------------------------------------

TEST(KeyControlCurves, BezierInterpolateWalksTheCurveStraightOrHeldAndTravelsWithTheControl)
{
    std::vector<Vector3BezierKey> keys(2);
    keys[0].time = 0.0f, keys[0].value = Vector3(0, 0, 0), keys[0].outTangent = Vector3(3, -1, 0);
    keys[1].time = 2.0f, keys[1].value = Vector3(2, 4, -2), keys[1].inTangent = Vector3(0, 2, 2);
    auto c = Vector3Control(keys, KeyFrame::INTERP_BEZIER);
    EXPECT_EQ(c->GetBezierInterpolate().value, int(BezierInterpolate::Curve));
    const Vector3 curve = Sample(*c, 0.5f);
    const Vector3 straight(0.5f, 1.0f, -0.5f);
    EXPECT_GT((curve - straight).Length(), 0.1f);

    c->SetBezierInterpolate(BezierInterpolate::Linear);
    ExpectNear(Sample(*c, 0.5f), straight);
    c->SetBezierInterpolate(BezierInterpolate::Step);
    ExpectNear(Sample(*c, 1.9f), keys[0].value);
    ExpectNear(Sample(*c, 2.0f), keys[1].value); // the clamp still wins at the key

    // Saved and loaded in both forms, and copied by Duplicate.
    for (const Class* form : {BinSerializer::StaticGetClass(), XmlSerializer::StaticGetClass()})
    {
        Vector3KeyControl loaded;
        ASSERT_TRUE(LoadControl(SaveControl(form, *c), loaded));
        loaded.ProcessKeys();
        EXPECT_EQ(loaded.GetBezierInterpolate().value, int(BezierInterpolate::Step));
        ExpectNear(Sample(loaded, 1.9f), keys[0].value);
    }
    Vector3KeyControl copy;
    ASSERT_TRUE(c->Duplicate(&copy, 0));
    ExpectNear(Sample(copy, 1.9f), keys[0].value);

    // Back to the curve: the tangents were kept. Other interpolations ignore the mode.
    c->SetBezierInterpolate(BezierInterpolate::Curve);
    ExpectNear(Sample(*c, 0.5f), curve);
    std::vector<Vector3LinearKey> linear(2);
    linear[1].time = 2.0f, linear[1].value = Vector3(2, 4, -2);
    auto l = Vector3Control(linear, KeyFrame::INTERP_LINEAR);
    l->SetBezierInterpolate(BezierInterpolate::Step);
    ExpectNear(Sample(*l, 0.5f), straight);
}

TEST(KeyControlCurves, BezierNormalMatchesTheHermiteWithoutACache)
{
    auto hermite = [](float p0, float m0, float p1, float m1, float s) {
        const float s2 = s * s, s3 = s2 * s;
        return p0 * (2 * s3 - 3 * s2 + 1) + m0 * (s3 - 2 * s2 + s) + p1 * (-2 * s3 + 3 * s2) + m1 * (s3 - s2);
    };
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> any(-5.0f, 5.0f);
    for (int i = 0; i < 50; ++i)
    {
        const float p0 = any(rng), m0 = any(rng), m1 = any(rng), p1 = any(rng), s = (i + 0.5f) / 50.0f;
        float out = 0.0f;
        Bezier_Normal(out, p0, m0, m1, p1, s);
        EXPECT_NEAR(out, hermite(p0, m0, p1, m1, s), 1e-4f);
    }
    Vector3 v;
    Bezier_Normal(v, Vector3(1, 2, 3), Vector3(0, 1, 0), Vector3(1, 0, 0), Vector3(4, 5, 6), 1.0f);
    ExpectNear(v, Vector3(4, 5, 6));
}
