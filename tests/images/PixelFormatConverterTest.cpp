// Every ordered pair of the fourteen plain formats against a reference written
// channel by channel, format by format, without the converters' tables.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "graphics/GraphicsFormat.h"
#include "images/PixelFormatConverter.h"
#include "math/Vector.h"

using namespace KovexEngine;
using F = GraphicsFormat;

namespace {

const int kPlain[] = {5, 7, 8, 9, 10, 11, 18, 30, 31, 32, 33, 34, 35, 80};

unsigned RefStride(int f)
{
    switch (f)
    {
    case 5: case 7: case 8: case 9: return 4;
    case 10: case 11: return 3;
    case 18: return 8;
    case 80: return 1;
    default: return 2;
    }
}

// Field of a 16-bit pixel: {shift, bits} for r, g, b, a (bits 0: none).
struct Field { int shift, bits; };
struct Layout16 { Field r, g, b, a; bool x; };
Layout16 Fields16(int f)
{
    switch (f)
    {
    case 30: return {{11, 5}, {5, 6}, {0, 5}, {0, 0}, false};
    case 31: return {{10, 5}, {5, 5}, {0, 5}, {15, 1}, false};
    case 32: return {{10, 5}, {5, 5}, {0, 5}, {15, 1}, true};
    case 33: return {{8, 4}, {4, 4}, {0, 4}, {12, 4}, false};
    case 34: return {{8, 4}, {4, 4}, {0, 4}, {12, 4}, true};
    default: return {{5, 3}, {2, 3}, {0, 2}, {8, 8}, false}; // 35
    }
}

unsigned Up(unsigned v, int bits) { return unsigned(std::lround(double(v) * 255.0 / double((1 << bits) - 1))); }
unsigned Down(unsigned v8, int bits) { return v8 >> (8 - bits); }
unsigned Trunc(float v, int bits) { return unsigned(int(v * float((1 << bits) - 1))) & ((1u << bits) - 1); }

struct Rgba { unsigned r, g, b, a; };

Rgba RefToInt(int f, const uint8_t* p)
{
    switch (f)
    {
    case 5: return {p[0], p[1], p[2], p[3]};
    case 7: return {p[2], p[1], p[0], p[3]};
    case 8: return {p[2], p[1], p[0], 255};
    case 9: return {p[0], p[1], p[2], 255};
    case 10: return {p[2], p[1], p[0], 255};
    case 11: return {p[0], p[1], p[2], 255};
    case 80: return {p[0], p[0], p[0], 255};
    case 18:
    {
        _Float16 h[4];
        std::memcpy(h, p, 8);
        return {Trunc(float(h[0]), 8), Trunc(float(h[1]), 8), Trunc(float(h[2]), 8), Trunc(float(h[3]), 8)};
    }
    default:
    {
        unsigned v = unsigned(p[0]) | unsigned(p[1]) << 8;
        Layout16 l = Fields16(f);
        auto get = [&](Field fl) { return (v >> fl.shift) & ((1u << fl.bits) - 1); };
        unsigned a = (l.a.bits && !l.x) ? Up(get(l.a), l.a.bits) : 255;
        return {Up(get(l.r), l.r.bits), Up(get(l.g), l.g.bits), Up(get(l.b), l.b.bits), a};
    }
    }
}

void RefFromInt(int f, uint8_t* p, Rgba c)
{
    switch (f)
    {
    case 5: case 9: p[0] = uint8_t(c.r); p[1] = uint8_t(c.g); p[2] = uint8_t(c.b); p[3] = uint8_t(c.a); return;
    case 7: case 8: p[0] = uint8_t(c.b); p[1] = uint8_t(c.g); p[2] = uint8_t(c.r); p[3] = uint8_t(c.a); return;
    case 10: p[0] = uint8_t(c.b); p[1] = uint8_t(c.g); p[2] = uint8_t(c.r); return;
    case 11: p[0] = uint8_t(c.r); p[1] = uint8_t(c.g); p[2] = uint8_t(c.b); return;
    case 80: p[0] = uint8_t((c.r * 299 + c.g * 587 + c.b * 114) / 1000); return;
    case 18:
    {
        _Float16 h[4] = {_Float16(float(c.r) / 255.0f), _Float16(float(c.g) / 255.0f), _Float16(float(c.b) / 255.0f),
                         _Float16(float(c.a) / 255.0f)};
        std::memcpy(p, h, 8);
        return;
    }
    default:
    {
        Layout16 l = Fields16(f);
        unsigned v = Down(c.r, l.r.bits) << l.r.shift | Down(c.g, l.g.bits) << l.g.shift | Down(c.b, l.b.bits) << l.b.shift;
        if (l.a.bits)
            v |= Down(c.a, l.a.bits) << l.a.shift; // X bits take the alpha as it stands
        p[0] = uint8_t(v);
        p[1] = uint8_t(v >> 8);
        return;
    }
    }
}

struct Rgbaf { float r, g, b, a; };

Rgbaf RefToFloat(int f, const uint8_t* p)
{
    auto n = [](unsigned v) { return float(v) / 255.0f; };
    switch (f)
    {
    case 5: return {n(p[0]), n(p[1]), n(p[2]), n(p[3])};
    case 7: return {n(p[2]), n(p[1]), n(p[0]), n(p[3])};
    case 8: return {n(p[2]), n(p[1]), n(p[0]), 255.0f};
    case 9: return {n(p[0]), n(p[1]), n(p[2]), 255.0f};
    case 10: return {n(p[2]), n(p[1]), n(p[0]), 1.0f};
    case 11: return {n(p[0]), n(p[1]), n(p[2]), 1.0f};
    case 80: return {n(p[0]), n(p[0]), n(p[0]), 1.0f};
    case 18:
    {
        _Float16 h[4];
        std::memcpy(h, p, 8);
        return {float(h[0]), float(h[1]), float(h[2]), float(h[3])};
    }
    default:
    {
        unsigned v = unsigned(p[0]) | unsigned(p[1]) << 8;
        Layout16 l = Fields16(f);
        auto get = [&](Field fl) { return float((v >> fl.shift) & ((1u << fl.bits) - 1)) / float((1 << fl.bits) - 1); };
        float a = l.x ? 255.0f : (l.a.bits ? get(l.a) : 1.0f);
        return {get(l.r), get(l.g), get(l.b), a};
    }
    }
}

void RefFromFloat(int f, uint8_t* p, Rgbaf c)
{
    switch (f)
    {
    case 5: case 9:
        p[0] = uint8_t(Trunc(c.r, 8)); p[1] = uint8_t(Trunc(c.g, 8)); p[2] = uint8_t(Trunc(c.b, 8));
        p[3] = f == 9 ? 0xFF : uint8_t(Trunc(c.a, 8));
        return;
    case 7: case 8:
        p[0] = uint8_t(Trunc(c.b, 8)); p[1] = uint8_t(Trunc(c.g, 8)); p[2] = uint8_t(Trunc(c.r, 8));
        p[3] = f == 8 ? 0xFF : uint8_t(Trunc(c.a, 8));
        return;
    case 10: p[0] = uint8_t(Trunc(c.b, 8)); p[1] = uint8_t(Trunc(c.g, 8)); p[2] = uint8_t(Trunc(c.r, 8)); return;
    case 11: p[0] = uint8_t(Trunc(c.r, 8)); p[1] = uint8_t(Trunc(c.g, 8)); p[2] = uint8_t(Trunc(c.b, 8)); return;
    case 80: p[0] = uint8_t(Trunc(0.299f * c.r + 0.587f * c.g + 0.114f * c.b, 8)); return;
    case 18:
    {
        _Float16 h[4] = {_Float16(c.r), _Float16(c.g), _Float16(c.b), _Float16(c.a)};
        std::memcpy(p, h, 8);
        return;
    }
    default:
    {
        Layout16 l = Fields16(f);
        unsigned v = Trunc(c.r, l.r.bits) << l.r.shift | Trunc(c.g, l.g.bits) << l.g.shift | Trunc(c.b, l.b.bits) << l.b.shift;
        if (l.a.bits)
            v |= (l.x ? (1u << l.a.bits) - 1 : Trunc(c.a, l.a.bits)) << l.a.shift;
        p[0] = uint8_t(v);
        p[1] = uint8_t(v >> 8);
        return;
    }
    }
}

// Random pixels; half floats drawn from [-0.5, 1.5] so that truncation and
// masking of out-of-range values are exercised.
std::vector<uint8_t> RandomPixels(int f, unsigned count, std::mt19937& rng)
{
    std::vector<uint8_t> bytes(size_t(count) * RefStride(f));
    if (f == 18)
    {
        std::uniform_real_distribution<float> d(-0.5f, 1.5f);
        for (size_t i = 0; i < bytes.size(); i += 2)
        {
            _Float16 h = _Float16(d(rng));
            std::memcpy(&bytes[i], &h, 2);
        }
    }
    else
        for (uint8_t& b : bytes)
            b = uint8_t(rng());
    return bytes;
}

} // namespace

TEST(PixelFormatConverter, EveryPairMatchesTheReference)
{
    std::mt19937 rng(1234);
    const unsigned count = 97;
    for (int t : kPlain)
        for (int s : kPlain)
        {
            std::unique_ptr<ImageFormatConverter> c(ImageFormatConverter::Create(t, s));
            ASSERT_TRUE(c) << t << " <- " << s;
            ASSERT_EQ(c->GetTargetStride(), RefStride(t));
            ASSERT_EQ(c->GetSourceStride(), RefStride(s));
            std::vector<uint8_t> source = RandomPixels(s, count, rng);
            std::vector<uint8_t> got(size_t(count) * RefStride(t), 0xCD), want(got.size(), 0xCD);
            c->ExecuteM(got.data(), source.data(), count);
            for (unsigned i = 0; i < count; ++i)
            {
                const uint8_t* sp = &source[i * RefStride(s)];
                uint8_t* wp = &want[i * RefStride(t)];
                if (t == s)
                    std::memcpy(wp, sp, RefStride(t));
                else if (t == 18 || s == 18)
                    RefFromFloat(t, wp, RefToFloat(s, sp));
                else
                    RefFromInt(t, wp, RefToInt(s, sp));
            }
            ASSERT_EQ(got, want) << "target " << t << " source " << s;
        }
}

TEST(PixelFormatConverter, RunTimeFormsAgreeWithTheGeneratedOnes)
{
    std::mt19937 rng(99);
    for (int t : kPlain)
        for (int s : kPlain)
        {
            if (t == 18 || s == 18 || t == s)
                continue;
            std::unique_ptr<ImageFormatConverter> generated(ImageFormatConverter::Create(t, s));
            ImageFormatConverterI runTime(PixelFormatConverter::Create(t), PixelFormatConverter::Create(s));
            std::vector<uint8_t> source = RandomPixels(s, 31, rng);
            std::vector<uint8_t> a(31 * RefStride(t)), b(a.size());
            generated->ExecuteM(a.data(), source.data(), 31);
            runTime.ExecuteM(b.data(), source.data(), 31);
            ASSERT_EQ(a, b) << t << " <- " << s;
        }
    // The float form through a Vector4 matches the generated half pairs.
    std::unique_ptr<ImageFormatConverter> generated(ImageFormatConverter::Create(18, 7));
    ImageFormatConverterF runTime(PixelFormatConverter::Create(18), PixelFormatConverter::Create(7));
    std::vector<uint8_t> source = RandomPixels(7, 31, rng), a(31 * 8), b(31 * 8);
    generated->ExecuteM(a.data(), source.data(), 31);
    runTime.ExecuteM(b.data(), source.data(), 31);
    EXPECT_EQ(a, b);
}

TEST(PixelFormatConverter, XByteAndTruncationRules)
{
    std::unique_ptr<PixelFormatConverter> bgrx(PixelFormatConverter::Create(F::B8G8R8X8_UNORM));
    const uint8_t pixel[4] = {0x10, 0x20, 0x30, 0x40}; // b g r x
    uint32 word = 0;
    bgrx->ToInt(word, pixel);
    EXPECT_EQ(word, 0xFF102030u); // red and blue exchanged, alpha forced opaque
    uint8_t out[4] = {};
    bgrx->FromInt(out, 0x7F302010u);
    EXPECT_EQ(out[3], 0x7F); // the word's alpha lands in the X byte unchanged
    EXPECT_EQ(out[0], 0x30); // blue first
    EXPECT_EQ(out[2], 0x10);
    Vector4 v;
    bgrx->ToFloat(v, pixel);
    EXPECT_EQ(v.w, 255.0f);
    bgrx->FromFloat(out, Vector4(0.0f, 0.0f, 0.0f, 0.0f));
    EXPECT_EQ(out[3], 0xFF);

    std::unique_ptr<PixelFormatConverter> rgba(PixelFormatConverter::Create(F::R8G8B8A8_UNORM));
    rgba->FromFloat(out, Vector4(0.999f, 1.5f, -0.001f, 1.0f));
    EXPECT_EQ(out[0], 254); // truncated, not rounded
    EXPECT_EQ(out[1], 382 & 0xFF); // masked to the channel
    EXPECT_EQ(out[2], 0);
    EXPECT_EQ(out[3], 255);
    EXPECT_EQ(rgba->GetStride(), 4u);
}

TEST(PixelFormatConverter, OnlyTheFourteenHaveConverters)
{
    for (int f = -1; f < 90; ++f)
    {
        bool plain = false;
        for (int p : kPlain)
            plain = plain || p == f;
        std::unique_ptr<PixelFormatConverter> c(PixelFormatConverter::Create(f));
        EXPECT_EQ(c != nullptr, plain) << f;
        EXPECT_EQ(PixelFormatConverter::IsPlainFormat(f), plain) << f;
        std::unique_ptr<ImageFormatConverter> to(ImageFormatConverter::Create(f, F::R8G8B8A8_UNORM));
        std::unique_ptr<ImageFormatConverter> from(ImageFormatConverter::Create(F::R8G8B8A8_UNORM, f));
        EXPECT_EQ(to != nullptr, plain) << f;
        EXPECT_EQ(from != nullptr, plain) << f;
    }
}

TEST(PixelFormatConverter, HalfFloatsRoundLikeTheCompilersType)
{
    // Every half value reads as the compiler's 16-bit float reads it, and
    // floats around every half boundary (subnormals, ties, overflow) write
    // as it rounds them.
    std::unique_ptr<PixelFormatConverter> half(PixelFormatConverter::Create(F::R16G16B16A16_FLOAT));
    for (uint32 bits = 0; bits < 0x10000; ++bits)
    {
        uint16_t in[4] = {uint16_t(bits), 0, 0, 0};
        Vector4 v;
        half->ToFloat(v, in);
        _Float16 h;
        std::memcpy(&h, &in[0], 2);
        if (std::isnan(float(h)))
            ASSERT_TRUE(std::isnan(v.x)) << bits;
        else
            ASSERT_EQ(v.x, float(h)) << bits;
        for (float f : {v.x, std::nextafter(v.x, 1e9f), std::nextafter(v.x, -1e9f), v.x * 1.00048828125f})
        {
            if (std::isnan(f))
                continue;
            uint16_t out[4];
            half->FromFloat(out, Vector4(f, 0, 0, 0));
            _Float16 want = _Float16(f);
            uint16_t wantBits;
            std::memcpy(&wantBits, &want, 2);
            ASSERT_EQ(out[0], wantBits) << f;
        }
    }
}

TEST(PixelFormatConverter, RectanglesHonourPitchAndFlip)
{
    std::unique_ptr<ImageFormatConverter> c(ImageFormatConverter::Create(F::R8G8B8A8_UNORM, F::B8G8R8A8_UNORM));
    // Two rows of two pixels, source rows padded to 12 bytes.
    const uint8_t source[24] = {1, 2, 3, 4, 5, 6, 7, 8, 0, 0, 0, 0, 9, 10, 11, 12, 13, 14, 15, 16, 0, 0, 0, 0};
    uint8_t out[16] = {};
    c->Execute(out, source, 0, 12, 2, 2);
    const uint8_t straight[16] = {3, 2, 1, 4, 7, 6, 5, 8, 11, 10, 9, 12, 15, 14, 13, 16};
    EXPECT_EQ(0, std::memcmp(out, straight, 16));
    c->ExecuteFlip(out, source, 0, 12, 2, 2);
    const uint8_t flipped[16] = {11, 10, 9, 12, 15, 14, 13, 16, 3, 2, 1, 4, 7, 6, 5, 8};
    EXPECT_EQ(0, std::memcmp(out, flipped, 16));
}
