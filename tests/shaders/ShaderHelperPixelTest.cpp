// The helpers of Common.ksl evaluated on the GPU: a full-screen pass of a
// framework written here runs one helper per pixel on inputs made from the
// pixel's position, into a float target, and each result is compared with
// the same quantity computed here independently.

#include <gtest/gtest.h>

#include <string.h>

#include <cmath>
#include <functional>
#include <string>
#include <vector>

#include "graphics/RenderStates.h"
#include "graphics/TextureFactory.h"
#include "shaders/Program.h"
#include "shaders/ShaderPixelSupport.h"

using namespace KovexEngine;
using KovexTest::PixelRig;
using KovexTest::ProgramSpec;
using KovexTest::Reference;

namespace {

constexpr uint32 kW = 32, kH = 16;

// HELPER selects what the pixel stage evaluates; t is the pixel centre in
// [0, 1]^2, p the same in [-1, 1] with y up (the pixel's clip position).
const char* kHelperFramework = R"(
#pragma pack_matrix(row_major)
#include "Common.ksl"

cbuffer HelperInputs
{
    float4 HelperParam = float4(0, 0, 0, 0);
};

DeclareTexture2D(HeightMap)

struct PixelInput
{
    float4 Position : SV_Position;
};

PixelInput VS(uint id : SV_VertexID)
{
    // One triangle over the whole target.
    float2 corner = float2((id << 1) & 2, id & 2);
    PixelInput output;
    output.Position = float4(corner * float2(2, -2) + float2(-1, 1), 0.5, 1);
    return output;
}

float3x3 Frame(float2 t)
{
    // An orthonormal frame turned by two angles: rows tangent, binormal, normal.
    float a = t.x * 6.28318530718, b = t.y * 3.14159265359;
    float3 tangent = float3(cos(a), sin(a), 0);
    float3 binormal = float3(-sin(a) * cos(b), cos(a) * cos(b), sin(b));
    return float3x3(tangent, binormal, cross(tangent, binormal));
}

float4 PS(PixelInput input) : SV_Target0
{
    float2 t = input.Position.xy / float2(HELPER_W, HELPER_H);
    float2 p = float2(t.x * 2 - 1, 1 - t.y * 2);
#if HELPER == 1
    return float4(DecodeNormal(float3(t, frac(t.x * 3 + t.y * 5))), 0);
#elif HELPER == 2
    return float4(Normalize3DC(p), 0);
#elif HELPER == 3
    float3x3 f = Frame(t);
    return float4(TangentToWorld(float3(0.3, -0.5, 0.8), f[2], f[0], f[1]), 0);
#elif HELPER == 4
    float3x3 f = Frame(t);
    return float4(WorldToTangent(float3(0.3, -0.5, 0.8), f[2], f[0], f[1]), 0);
#elif HELPER == 14
    // The rows of the frame as a matrix project like WorldToTangent.
    float3x3 f = Frame(t);
    float3x3 byRows = Float3x3(f[0], f[1], f[2]);
    float3x3 byNumbers = Float3x3(f[0].x, f[0].y, f[0].z, f[1].x, f[1].y, f[1].z, f[2].x, f[2].y, f[2].z);
    float3 v = float3(0.3, -0.5, 0.8);
    float3 a = mul(byRows, v), b = mul(byNumbers, v);
    return float4(a, dot(a - b, a - b));
#elif HELPER == 5
    return float4(ComputeFresnel(t.x, t.y, 5), ComputeFresnel(t.y * 2 - 0.5, 0.04, 1 + 3 * t.x), 0, 0);
#elif HELPER == 6
    return WorldToProjection(float4(p.x * 2, p.y, 3 + t.x, 1));
#elif HELPER == 7
    // From the normalised device position, as depth reconstruction has it.
    float4 clip = WorldToProjection(float4(p.x * 2, p.y, 3 + t.x, 1));
    return ProjectionToWorld(clip / clip.w);
#elif HELPER == 8
    // From a point on the plane z = 0 looking at the camera's position.
    float2 uv = 0.25 + t * 0.5;
    float2 shifted = ParallaxOcclusionMap(uv, float4(p, 0, 1), float3(0, 0, 1), float3(1, 0, 0), float3(0, 1, 0),
                                          HelperParam.x, HelperParam.y, HelperParam.z, UseTextureFuncArg(HeightMap));
    return float4(shifted, uv);
#elif HELPER == 9
    return GetSceneColor(float4(p * 2, 0.5, 2));
#elif HELPER == 10
    return float4(GetScenePosition(float4(p * 2, 0.5, 2)).xyz, GetSceneDepth(float4(p * 2, 0.5, 2)));
#elif HELPER == 11
    return float4(RotateAroundPivot(float2(0.5, 0.25), t, t.y * 6),
                  ComputeWaveVector(float4(t.x * 4, 1.5, 0.5, 0.3)));
#elif HELPER == 12
    return float4(RotateAroundPivot(float3(1, 2, 2), float3(p, t.x), t.y * 6), 0);
#else
    return float4(noise(float3(t * 8, 0.5)), noise(t * 8), noise(t.x * 8), noise(float3(t * 2, 0.25)));
#endif
}
)";

using Expected = std::function<void(float tx, float ty, float (&out)[4])>;

// Row-major 4x4 products and inverse (Gauss-Jordan with pivoting).
void Multiply(const float* a, const float* b, float* out)
{
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 4; ++c)
        {
            float s = 0;
            for (int k = 0; k < 4; ++k)
                s += a[4 * r + k] * b[4 * k + c];
            out[4 * r + c] = s;
        }
}

void Transform(const float* m, const float (&v)[4], float (&out)[4])
{
    for (int r = 0; r < 4; ++r)
        out[r] = m[4 * r] * v[0] + m[4 * r + 1] * v[1] + m[4 * r + 2] * v[2] + m[4 * r + 3] * v[3];
}

bool Invert(const float* m, float* out)
{
    double a[4][8];
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 8; ++c)
            a[r][c] = c < 4 ? m[4 * r + c] : (c - 4 == r ? 1.0 : 0.0);
    for (int c = 0; c < 4; ++c)
    {
        int pivot = c;
        for (int r = c + 1; r < 4; ++r)
            if (std::fabs(a[r][c]) > std::fabs(a[pivot][c]))
                pivot = r;
        if (std::fabs(a[pivot][c]) < 1e-12)
            return false;
        for (int k = 0; k < 8; ++k)
            std::swap(a[c][k], a[pivot][k]);
        const double d = a[c][c];
        for (int k = 0; k < 8; ++k)
            a[c][k] /= d;
        for (int r = 0; r < 4; ++r)
            if (r != c)
            {
                const double f = a[r][c];
                for (int k = 0; k < 8; ++k)
                    a[r][k] -= f * a[c][k];
            }
    }
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 4; ++c)
            out[4 * r + c] = float(a[r][c + 4]);
    return true;
}

// A camera at (1, 2, -3) looking along +z: view = translation, projection
// = perspective (z forward, depth 0 at near 0.5, 1 at far 50).
struct Camera
{
    float position[3] = {1, 2, -3};
    float near = 0.5f, far = 50.0f, xs = 1.2f, ys = 1.8f;
    float view[16], proj[16], viewProj[16], viewProjInv[16], projInv[16];
    Camera()
    {
        const float v[16] = {1, 0, 0, -position[0], 0, 1, 0, -position[1], 0, 0, 1, -position[2], 0, 0, 0, 1};
        const float q = far / (far - near);
        const float p[16] = {xs, 0, 0, 0, 0, ys, 0, 0, 0, 0, q, -near * q, 0, 0, 1, 0};
        memcpy(view, v, sizeof(v));
        memcpy(proj, p, sizeof(p));
        Multiply(proj, view, viewProj);
        Invert(viewProj, viewProjInv);
        Invert(proj, projInv);
    }
};

struct HelperPass
{
    PixelRig& rig;
    Ptr<Program> program;
    HelperPass(PixelRig& r, int helper, const KovexTest::MacroList& extra = {}) : rig(r)
    {
        ProgramSpec spec;
        spec.frameworkText = kHelperFramework;
        spec.fw = {{"HELPER", std::to_string(helper)},
                   {"HELPER_W", std::to_string(kW)},
                   {"HELPER_H", std::to_string(kH)}};
        spec.fw.insert(spec.fw.end(), extra.begin(), extra.end());
        program = rig.Build(spec);
    }
    // Draws and compares each pixel with `expected`; pixels it marks NaN are
    // left out.
    int Check(const Expected& expected, float tolerance, const char* name)
    {
        if (!program)
            return -1;
        EXPECT_TRUE(rig.SetTargets({GraphicsFormat(GraphicsFormat::R32G32B32A32_FLOAT)}));
        rig.Clear(Vector4(-9, -9, -9, -9));
        EXPECT_TRUE(rig.Draw(program.Get(), nullptr, 3)) << name;
        const float none[4] = {0, 0, 0, 0};
        Reference ref = Reference::Filled(kW, kH, none);
        for (uint32 y = 0; y < kH; ++y)
            for (uint32 x = 0; x < kW; ++x)
            {
                float out[4];
                expected((x + 0.5f) / kW, (y + 0.5f) / kH, out);
                if (std::isnan(out[0]))
                    ref.mask[y * kW + x] = false;
                else
                    ref.Set(x, y, out);
            }
        return KovexTest::Compare(rig.ReadTarget(0), ref, tolerance, name);
    }
};

void Normalised(float x, float y, float z, float (&out)[4])
{
    const float l = std::sqrt(x * x + y * y + z * z);
    out[0] = x / l, out[1] = y / l, out[2] = z / l, out[3] = 0;
}

void FrameOf(float tx, float ty, float (&t)[3], float (&b)[3], float (&n)[3])
{
    const float a = tx * 6.28318530718f, c = ty * 3.14159265359f;
    t[0] = std::cos(a), t[1] = std::sin(a), t[2] = 0;
    b[0] = -std::sin(a) * std::cos(c), b[1] = std::cos(a) * std::cos(c), b[2] = std::sin(c);
    n[0] = t[1] * b[2] - t[2] * b[1], n[1] = t[2] * b[0] - t[0] * b[2], n[2] = t[0] * b[1] - t[1] * b[0];
}

float Fresnel(float cosine, float bias, float power)
{
    return bias + (1 - bias) * std::pow(1 - std::clamp(cosine, 0.0f, 1.0f), power);
}

} // namespace

// Normal decoding: 8-bit texels to unit vectors, two-channel normals with
// their z rebuilt (and 0 outside the unit disc).
TEST(ShaderHelperPixels, NormalsDecode)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    PixelRig rig(kW, kH);
    KOVEX_SKIP_WITHOUT_PIXEL_RIG(rig);
    HelperPass texel(rig, 1);
    EXPECT_EQ(texel.Check(
                  [](float tx, float ty, float (&out)[4]) {
                      const float z = tx * 3 + ty * 5 - std::floor(tx * 3 + ty * 5);
                      const float v[3] = {tx * 2 - 1, ty * 2 - 1, z * 2 - 1};
                      if (v[0] * v[0] + v[1] * v[1] + v[2] * v[2] < 0.01f)
                          out[0] = NAN; // direction undefined near the zero vector
                      else
                          Normalised(v[0], v[1], v[2], out);
                  },
                  1e-4f, "decode-normal"),
              0);
    HelperPass twoChannel(rig, 2);
    EXPECT_EQ(twoChannel.Check(
                  [](float tx, float ty, float (&out)[4]) {
                      const float x = tx * 2 - 1, y = 1 - ty * 2;
                      out[0] = x, out[1] = y, out[2] = std::sqrt(std::max(0.0f, 1 - x * x - y * y)), out[3] = 0;
                  },
                  1e-4f, "normalize-3dc"),
              0);
}

// Tangent and world space: a fixed vector expressed in a frame that turns
// from pixel to pixel, and back; the frame's rows as a Float3x3 matrix
// (both spellings) project the same way.
TEST(ShaderHelperPixels, TangentAndWorldSpaces)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    PixelRig rig(kW, kH);
    KOVEX_SKIP_WITHOUT_PIXEL_RIG(rig);
    const float v[3] = {0.3f, -0.5f, 0.8f};
    HelperPass toWorld(rig, 3);
    EXPECT_EQ(toWorld.Check(
                  [&](float tx, float ty, float (&out)[4]) {
                      float t[3], b[3], n[3];
                      FrameOf(tx, ty, t, b, n);
                      for (int i = 0; i < 3; ++i)
                          out[i] = v[0] * t[i] + v[1] * b[i] + v[2] * n[i];
                      out[3] = 0;
                  },
                  1e-4f, "tangent-to-world"),
              0);
    for (int helper : {4, 14})
    {
        HelperPass toTangent(rig, helper);
        EXPECT_EQ(toTangent.Check(
                  [&](float tx, float ty, float (&out)[4]) {
                      float t[3], b[3], n[3];
                      FrameOf(tx, ty, t, b, n);
                      out[0] = v[0] * t[0] + v[1] * t[1] + v[2] * t[2];
                      out[1] = v[0] * b[0] + v[1] * b[1] + v[2] * b[2];
                      out[2] = v[0] * n[0] + v[1] * n[1] + v[2] * n[2];
                      out[3] = 0;
                  },
                  1e-4f, helper == 4 ? "world-to-tangent" : "float3x3-rows"),
              0);
    }
}

// Fresnel: bias at normal incidence, 1 at grazing angles, cosines outside
// [0, 1] clamped.
TEST(ShaderHelperPixels, FresnelRisesFromItsBiasToOne)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    PixelRig rig(kW, kH);
    KOVEX_SKIP_WITHOUT_PIXEL_RIG(rig);
    HelperPass pass(rig, 5);
    EXPECT_EQ(pass.Check(
                  [](float tx, float ty, float (&out)[4]) {
                      out[0] = Fresnel(tx, ty, 5);
                      out[1] = Fresnel(ty * 2 - 0.5f, 0.04f, 1 + 3 * tx);
                      out[2] = out[3] = 0;
                  },
                  1e-4f, "fresnel"),
              0);
}

// World to clip space through the camera, and back to the same point.
TEST(ShaderHelperPixels, WorldAndProjectionRoundTrip)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    PixelRig rig(kW, kH);
    KOVEX_SKIP_WITHOUT_PIXEL_RIG(rig);
    Camera camera;
    auto world = [](float tx, float ty, float (&w)[4]) {
        w[0] = (tx * 2 - 1) * 2, w[1] = 1 - ty * 2, w[2] = 3 + tx, w[3] = 1;
    };
    for (int helper : {6, 7})
    {
        HelperPass pass(rig, helper);
        ASSERT_TRUE(pass.program);
        ASSERT_TRUE(pass.program->CommitConstantByName(u"ViewProjMatrix", camera.viewProj, 64, 16));
        if (helper == 7)
            ASSERT_TRUE(pass.program->CommitConstantByName(u"ViewProjInvMatrix", camera.viewProjInv, 64, 16));
        EXPECT_EQ(pass.Check(
                      [&](float tx, float ty, float (&out)[4]) {
                          float w[4];
                          world(tx, ty, w);
                          if (helper == 6)
                              Transform(camera.viewProj, w, out);
                          else
                              memcpy(out, w, sizeof(w));
                      },
                      helper == 6 ? 1e-4f : 1e-3f, helper == 6 ? "world-to-projection" : "projection-round-trip"),
                  0);
    }
}

// Parallax occlusion: a height map at the surface shifts nothing; a flat
// map below it and a linear ramp shift the coordinate to where the view ray
// meets them.
TEST(ShaderHelperPixels, ParallaxOcclusionFindsTheHeightField)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    PixelRig rig(kW, kH);
    KOVEX_SKIP_WITHOUT_PIXEL_RIG(rig);
    const float cameraPos[4] = {0, 0, 2, 0.01f};
    const float scale = 0.1f;
    constexpr uint32 kMapW = 64;
    SamplerStateDesc linear;
    linear.Filter = GraphicsFilter::MinMagMipLinear;
    linear.AddressU = linear.AddressV = GraphicsAddress::Clamp;
    Ptr<SamplerState> sampler = SamplerStateFactory::Get()->Create(linear);
    ASSERT_TRUE(sampler);
    // Heights per texel column: flat at 1, flat at 0.5, and a ramp.
    const struct
    {
        const char* name;
        float h0, dh;
    } maps[] = {{"pom-flat-surface", 1.0f, 0.0f}, {"pom-flat-half", 0.5f, 0.0f}, {"pom-ramp", 0.2f, 0.6f / kMapW}};
    for (const auto& map : maps)
    {
        HelperPass pass(rig, 8);
        ASSERT_TRUE(pass.program);
        Ptr<Image> heights(new Image());
        ASSERT_TRUE(heights->Create(TextureFactory::Make2DDesc(kMapW, 4, GraphicsFormat::R32_FLOAT, 1)));
        float* h = reinterpret_cast<float*>(heights->GetData());
        for (uint32 y = 0; y < 4; ++y)
            for (uint32 x = 0; x < kMapW; ++x)
                h[y * kMapW + x] = map.h0 + map.dh * x;
        Ptr<Texture> texture = PixelRig::MakeTexture(heights);
        ASSERT_TRUE(texture && texture->IsCreated());
        ASSERT_TRUE(pass.program->CommitTexture(u"HeightMap", texture));
        ASSERT_TRUE(pass.program->CommitSampler(u"HeightMap", sampler));
        const float param[4] = {8, 32, scale, 0};
        ASSERT_TRUE(pass.program->CommitConstantByName(u"HelperParam", param, 16, 16));
        ASSERT_TRUE(pass.program->CommitConstantByName(u"CameraPosInvFar", cameraPos, 16, 16));
        EXPECT_EQ(pass.Check(
                      [&](float tx, float ty, float (&out)[4]) {
                          const float px = tx * 2 - 1, py = 1 - ty * 2;
                          const float u = 0.25f + tx * 0.5f, v = 0.25f + ty * 0.5f;
                          float eye[4];
                          Normalised(cameraPos[0] - px, cameraPos[1] - py, cameraPos[2], eye);
                          // Texture v runs against the binormal (+y).
                          const float sx = eye[0] / eye[2] * scale, sy = -eye[1] / eye[2] * scale;
                          // Linear filtering makes the map h(u) = a u + c between
                          // texel centres; the ray at depth r is at u - sx r and
                          // meets the map where r = 1 - h.
                          const float a = map.dh * kMapW, c = map.h0 - 0.5f * map.dh;
                          const float r = (1 - a * u - c) / (1 - a * sx);
                          out[0] = u - sx * r, out[1] = v - sy * r, out[2] = u, out[3] = v;
                      },
                      2e-4f, map.name),
                  0);
    }
}

// The scene behind: its colour under the pixel, and from its hardware depth
// the distance along the view axis and the world position, for points put
// at known distances along each pixel's ray.
TEST(ShaderHelperPixels, SceneColourDepthAndPosition)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    PixelRig rig(kW, kH);
    KOVEX_SKIP_WITHOUT_PIXEL_RIG(rig);
    {
        HelperPass pass(rig, 9, {{"USE_SCENE_COLOR", "1"}});
        ASSERT_TRUE(pass.program);
        Ptr<Image> scene(new Image());
        ASSERT_TRUE(scene->Create(TextureFactory::Make2DDesc(kW, kH, GraphicsFormat::R8G8B8A8_UNORM, 1)));
        // Every texel different from every other in some channel.
        for (uint32 y = 0; y < kH; ++y)
            for (uint32 x = 0; x < kW; ++x)
            {
                uint8* t = scene->GetData() + 4 * (y * kW + x);
                t[0] = uint8(x * 8), t[1] = uint8(y * 16 + 3), t[2] = uint8((x * y * 5) & 255), t[3] = uint8(255 - x);
            }
        Ptr<Texture> texture = PixelRig::MakeTexture(scene);
        ASSERT_TRUE(texture && texture->IsCreated());
        ASSERT_TRUE(pass.program->CommitTexture(u"SceneColorTexture", texture));
        EXPECT_EQ(pass.Check(
                      [&](float tx, float ty, float (&out)[4]) {
                          const uint32 i = uint32(ty * kH) * kW + uint32(tx * kW);
                          for (int c = 0; c < 4; ++c)
                              out[c] = scene->GetData()[4 * i + c] / 255.0f;
                      },
                      1e-5f, "scene-color"),
                  0);
    }
    {
        Camera camera;
        HelperPass pass(rig, 10, {{"USE_SCENE_DEPTH", "1"}});
        ASSERT_TRUE(pass.program);
        // Each pixel's distance along the view axis, and the depth the
        // camera's projection gives it.
        auto distance = [](float tx, float ty) { return 1.0f + 20.0f * tx + 7.0f * ty; };
        Ptr<Image> depth(new Image());
        ASSERT_TRUE(depth->Create(TextureFactory::Make2DDesc(kW, kH, GraphicsFormat::R32_FLOAT, 1)));
        float* d = reinterpret_cast<float*>(depth->GetData());
        for (uint32 y = 0; y < kH; ++y)
            for (uint32 x = 0; x < kW; ++x)
            {
                const float z = distance((x + 0.5f) / kW, (y + 0.5f) / kH);
                d[y * kW + x] = camera.far * (z - camera.near) / ((camera.far - camera.near) * z);
            }
        Ptr<Texture> texture = PixelRig::MakeTexture(depth);
        ASSERT_TRUE(texture && texture->IsCreated());
        ASSERT_TRUE(pass.program->CommitTexture(u"SceneDepthTexture", texture));
        ASSERT_TRUE(pass.program->CommitConstantByName(u"ViewProjInvMatrix", camera.viewProjInv, 64, 16));
        ASSERT_TRUE(pass.program->CommitConstantByName(u"ProjInvMatrix", camera.projInv, 64, 16));
        EXPECT_EQ(pass.Check(
                      [&](float tx, float ty, float (&out)[4]) {
                          const float z = distance(tx, ty);
                          const float ndcX = tx * 2 - 1, ndcY = 1 - ty * 2;
                          // The view-space point on the pixel's ray at that distance,
                          // moved by the camera's position.
                          out[0] = ndcX * z / camera.xs + camera.position[0];
                          out[1] = ndcY * z / camera.ys + camera.position[1];
                          out[2] = z + camera.position[2];
                          out[3] = z;
                      },
                      2e-3f, "scene-position-depth"),
                  0);
    }
}

// Rotation about a pivot (2D) and an axis (3D), and the travelling wave.
TEST(ShaderHelperPixels, RotationsAndWaves)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    PixelRig rig(kW, kH);
    KOVEX_SKIP_WITHOUT_PIXEL_RIG(rig);
    const float time[4] = {1.25f, 0, 0, 0};
    HelperPass flat(rig, 11);
    ASSERT_TRUE(flat.program);
    ASSERT_TRUE(flat.program->CommitConstantByName(u"Time", time, 4, 16));
    EXPECT_EQ(flat.Check(
                  [&](float tx, float ty, float (&out)[4]) {
                      const float angle = ty * 6, dx = tx - 0.5f, dy = ty - 0.25f;
                      out[0] = 0.5f + std::cos(angle) * dx - std::sin(angle) * dy;
                      out[1] = 0.25f + std::sin(angle) * dx + std::cos(angle) * dy;
                      const float k = 6.28318530718f / 1.5f, phase = k * (tx * 4 - 0.5f * time[0]);
                      out[2] = 0.3f * std::sin(phase);
                      out[3] = 0.3f * k * std::cos(phase);
                  },
                  2e-4f, "rotate-2d-wave"),
              0);
    HelperPass axis(rig, 12);
    EXPECT_EQ(axis.Check(
                  [&](float tx, float ty, float (&out)[4]) {
                      // Rotation by the matrix of the axis (1, 2, 2) / 3.
                      const float k[3] = {1 / 3.0f, 2 / 3.0f, 2 / 3.0f}, a = ty * 6;
                      const float v[3] = {tx * 2 - 1, 1 - ty * 2, tx};
                      const float c = std::cos(a), s = std::sin(a);
                      for (int i = 0; i < 3; ++i)
                      {
                          float sum = 0;
                          for (int j = 0; j < 3; ++j)
                          {
                              const float cross = (i == j) ? 0.0f
                                                           : ((j - i + 3) % 3 == 1 ? -1.0f : 1.0f) * k[3 - i - j];
                              sum += ((i == j ? c : 0.0f) + (1 - c) * k[i] * k[j] + s * cross) * v[j];
                          }
                          out[i] = sum;
                      }
                      out[3] = 0;
                  },
                  2e-4f, "rotate-axis"),
              0);
}

// noise() goes to the engine's value noise (the intrinsic would crash the
// compiler): values in [-1, 1], varying, and continuous across pixels.
TEST(ShaderHelperPixels, NoiseIsBoundedAndVaries)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    PixelRig rig(kW, kH);
    KOVEX_SKIP_WITHOUT_PIXEL_RIG(rig);
    HelperPass pass(rig, 13);
    ASSERT_TRUE(pass.program);
    ASSERT_TRUE(rig.SetTargets({GraphicsFormat(GraphicsFormat::R32G32B32A32_FLOAT)}));
    rig.Clear(Vector4(0, 0, 0, 0));
    ASSERT_TRUE(rig.Draw(pass.program.Get(), nullptr, 3));
    Ptr<Image> image = rig.ReadTarget(0);
    float lo = 2, hi = -2, largestStep = 0;
    for (uint32 y = 0; y < kH; ++y)
        for (uint32 x = 0; x < kW; ++x)
        {
            float v[4], right[4];
            ASSERT_TRUE(KovexTest::ReadTexel(image, x, y, v));
            for (int c = 0; c < 4; ++c)
            {
                EXPECT_LE(std::fabs(v[c]), 1.0f) << x << ", " << y;
                lo = std::min(lo, v[c]);
                hi = std::max(hi, v[c]);
            }
            if (x + 1 < kW && KovexTest::ReadTexel(image, x + 1, y, right))
                largestStep = std::max(largestStep, std::fabs(right[3] - v[3]));
        }
    EXPECT_GT(hi - lo, 0.5f) << "noise that does not vary";
    // Two lattice cells over 32 pixels: the interpolated noise moves at most
    // 1.5 x 2 / 16 per pixel, where a hash per pixel would jump by up to 2.
    EXPECT_LT(largestStep, 0.2f);
}
