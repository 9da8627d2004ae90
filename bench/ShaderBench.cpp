// Shader programs, each beside its baseline:
// - one typical framework + attribute + material unit preprocessed once and
//   compiled to final VS and PS modules in process (front end, legalisation,
//   strip, validation, reflection) beside the command-line tools doing the
//   front end and legalisation alone on the same preprocessed text,
//   glslangValidator then spirv-opt --legalize-hlsl per stage, run as
//   processes from here;
// - 16 named constants set and committed per draw (CommitConstantByName into
//   the program's constant buffers at reflected offsets) beside memcpy of the
//   same bytes into a mapped buffer.

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <unistd.h>
#include <vector>

#include "BenchEngine.h"
#include "graphics/BaseProgram.h"
#include "graphics/ConstantBuffer.h"
#include "graphics/Renderer.h"
#include "graphics/ShaderReflection.h"
#include "kernel/EngineGlobals.h"
#include "kernel/Log.h"
#include "kernel/StringConv.h"
#include "lifecycle/Engine.h"
#include "shaders/ShaderInclude.h"
#include "shaders/SpirvCompiler.h"

using namespace KovexEngine;

namespace {

const char* kFramework = R"(#include "Lighting.ksl"
#pragma pack_matrix(row_major)
cbuffer PerFrame : register(b0)
{
    float4x4 ViewProj;
    float4x4 View;
    float3 EyePos;
    float Time;
    float4 FogColor;
    float FogStart;
    float FogEnd;
};
cbuffer PerObject : register(b1)
{
    float4x4 World;
    float4 ObjectColor;
    float Weights[4];
    float Fade;
};
#include "Attribute"
#include "Material"
struct VOut
{
    float4 pos : SV_Position;
    float3 normal : NORMAL;
    float3 world : TEXCOORD1;
    float2 uv : TEXCOORD0;
};
VOut VS(VIn i)
{
    VOut o;
    float4 world = mul(float4(AttrPosition(i), 1), World);
    o.world = world.xyz;
    o.pos = mul(world, ViewProj);
    o.normal = mul(AttrNormal(i), (float3x3)World);
    o.uv = i.uv * (1 + Weights[0] * sin(Time));
    return o;
}
float4 PS(VOut i) : SV_Target
{
    float3 n = normalize(i.normal);
    float3 v = normalize(EyePos - i.world);
    Surface s = MaterialSurface(i.uv, n);
    float3 lit = s.albedo * Ambient(n);
    for (int l = 0; l < 4; ++l)
        lit += Shade(s, n, v, Lights[l]) * Weights[l];
    float fog = saturate((length(EyePos - i.world) - FogStart) / (FogEnd - FogStart));
    return float4(lerp(lit, FogColor.rgb, fog), s.alpha * Fade) * ObjectColor;
}
)";

const char* kLighting = R"(struct Light { float4 position; float4 color; float4 direction; };
cbuffer LightBlock : register(b2) { Light Lights[4]; float4 SkyColor; float4 GroundColor; };
struct Surface { float3 albedo; float3 normal; float roughness; float alpha; };
float3 Ambient(float3 n) { return lerp(GroundColor.rgb, SkyColor.rgb, n.y * 0.5 + 0.5); }
float3 Shade(Surface s, float3 n, float3 v, Light light)
{
    float3 l = normalize(light.position.xyz);
    float3 h = normalize(l + v);
    float diffuse = saturate(dot(n, l));
    float specular = pow(saturate(dot(n, h)), lerp(4.0, 128.0, 1 - s.roughness));
    return (s.albedo * diffuse + specular) * light.color.rgb * light.color.a;
}
)";

const char* kAttribute = R"(struct VIn { float3 position : POSITION; float3 normal : NORMAL; float2 uv : TEXCOORD0; };
float3 AttrPosition(VIn i) { return i.position; }
float3 AttrNormal(VIn i) { return i.normal; }
)";

const char* kMaterial = R"(Texture2D kovex_t_Albedo : register(t0);
SamplerState kovex_s_Albedo : register(s0);
Texture2D kovex_t_Normal : register(t1);
SamplerState kovex_s_Normal : register(s1);
Texture2D kovex_t_Rough : register(t2);
SamplerState kovex_s_Rough : register(s2);
float4 Tint = float4(1, 1, 1, 1);
float RoughScale = 1;
Surface MaterialSurface(float2 uv, float3 n)
{
    Surface s;
    float4 albedo = kovex_t_Albedo.Sample(kovex_s_Albedo, uv) * Tint;
    s.albedo = albedo.rgb;
    s.alpha = albedo.a;
    s.normal = normalize(n + kovex_t_Normal.Sample(kovex_s_Normal, uv).xyz * 2 - 1);
    s.roughness = kovex_t_Rough.Sample(kovex_s_Rough, uv).r * RoughScale;
    return s;
}
)";

struct Texts
{
    AString attribute{kAttribute};
    AString material{kMaterial};
    AString lighting{kLighting};
    bool Preprocess(SpirvUnit& unit)
    {
        ShaderIncludeHandler handler({&attribute, "ab.ksl"}, {&material, "mt.ksl"},
                                     [this](const WString&) { return &lighting; });
        return unit.Preprocess(kFramework, "fw.ksl", {{"SUPPORT_HWPCF", "1"}, {"MAX_LIGHTS", "4"}}, &handler);
    }
};

void BM_Shader_CompileUnitInProcess(benchmark::State& state)
{
    SpirvProcess process;
    SpirvUnit::SetValidateOutput(true);
    Texts texts;
    for (auto _ : state)
    {
        SpirvUnit unit;
        std::vector<uint32> vs, ps;
        ShaderReflection rv, rp;
        if (!texts.Preprocess(unit) || !unit.CompileStage(ShaderType::Vertex, "VS", vs, &rv) ||
            !unit.CompileStage(ShaderType::Pixel, "PS", ps, &rp))
        {
            state.SkipWithError("the unit did not compile");
            return;
        }
        benchmark::DoNotOptimize(vs.data());
    }
}
BENCHMARK(BM_Shader_CompileUnitInProcess)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime();

void BM_Shader_CompileUnitWithTools(benchmark::State& state)
{
    if (std::system("command -v glslangValidator >/dev/null 2>&1 && command -v spirv-opt >/dev/null 2>&1") != 0)
    {
        state.SkipWithError("glslangValidator or spirv-opt missing");
        return;
    }
    SpirvProcess process;
    Texts texts;
    SpirvUnit unit;
    if (!texts.Preprocess(unit))
    {
        state.SkipWithError("the unit did not preprocess");
        return;
    }
    char dir[] = "/tmp/kovex-bench-XXXXXX";
    if (!mkdtemp(dir))
    {
        state.SkipWithError("no temporary directory");
        return;
    }
    std::string base = dir;
    std::ofstream(base + "/unit.hlsl") << unit.GetText();
    const std::string command =
        "cd " + base +
        " && glslangValidator -D -V --target-env vulkan1.1 -S vert -e VS --sib 16 --ssb 32 --suavb 48 unit.hlsl"
        " -o vs.raw >/dev/null && spirv-opt --legalize-hlsl --target-env=vulkan1.1 vs.raw -o vs.spv"
        " && glslangValidator -D -V --target-env vulkan1.1 -S frag -e PS --sib 16 --ssb 32 --suavb 48 unit.hlsl"
        " -o ps.raw >/dev/null && spirv-opt --legalize-hlsl --target-env=vulkan1.1 ps.raw -o ps.spv";
    for (auto _ : state)
        if (std::system(command.c_str()) != 0)
        {
            state.SkipWithError("the tools failed on the unit");
            break;
        }
    std::system(("rm -rf " + base).c_str());
}
BENCHMARK(BM_Shader_CompileUnitWithTools)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime();

// The engine on the null renderer, for constant buffers.
struct NullEngine
{
    NullEngine()
    {
        StartNullEngine();
    }
    ~NullEngine()
    {
        Kovex_Main_Terminate();
        Kovex_Renderer_Terminate();
        Kovex_System_Terminate();
        g_IsNullRenderer = false;
    }
};

const char16_t* const kConstantNames[16] = {u"ViewProj", u"View",     u"EyePos",     u"Time",
                                             u"FogColor", u"FogStart", u"FogEnd",     u"World",
                                             u"ObjectColor", u"Weights", u"Fade",     u"SkyColor",
                                             u"GroundColor", u"Lights", u"Tint",      u"RoughScale"};

// The unit's program (both stages merged, constant buffers made) and its 16
// constants; false, the benchmark skipped, when any is missing.
bool BuildProgram(benchmark::State& state, Ptr<BaseProgram>& program, ShaderConstant* constants[16])
{
    Texts texts;
    SpirvUnit unit;
    std::vector<uint32> words;
    ShaderReflection rv, rp;
    program = new BaseProgram();
    if (!texts.Preprocess(unit) || !unit.CompileStage(ShaderType::Vertex, "VS", words, &rv) ||
        !unit.CompileStage(ShaderType::Pixel, "PS", words, &rp) || !program->AddReflection(ShaderType::Vertex, rv) ||
        !program->AddReflection(ShaderType::Pixel, rp) || !program->CreateConstantBuffers())
    {
        state.SkipWithError("no program");
        return false;
    }
    for (int i = 0; i < 16; ++i)
        if (!(constants[i] = program->FindConstant(kConstantNames[i])))
        {
            state.SkipWithError("a constant is missing");
            return false;
        }
    return true;
}

void BM_Shader_CommitSixteenConstantsByName(benchmark::State& state)
{
    NullEngine engine;
    SpirvProcess process;
    Ptr<BaseProgram> program;
    ShaderConstant* constants[16];
    if (!BuildProgram(state, program, constants))
        return;
    WString names[16];
    uint32 total = 0;
    for (int i = 0; i < 16; ++i)
    {
        names[i] = kConstantNames[i];
        total += constants[i]->GetSize();
    }
    std::vector<float> values(total / 4 + 16, 0.5f);
    for (auto _ : state)
    {
        const float* source = values.data();
        for (int i = 0; i < 16; ++i)
        {
            program->CommitConstantByName(names[i], source, constants[i]->GetSize(), 16);
            source += constants[i]->GetSize() / 4;
        }
        benchmark::ClobberMemory();
    }
    state.counters["bytes"] = total;
}
BENCHMARK(BM_Shader_CommitSixteenConstantsByName);

// The same bytes, in the same pieces at the same offsets, copied into mapped
// buffers of the same sizes.
void BM_Shader_MemcpySixteenConstants(benchmark::State& state)
{
    NullEngine engine;
    SpirvProcess process;
    Ptr<BaseProgram> program;
    ShaderConstant* constants[16];
    if (!BuildProgram(state, program, constants))
        return;
    std::vector<std::vector<uint8>> mapped(program->GetNumCBuffers());
    uint32 total = 0;
    for (ShaderConstant* constant : constants)
    {
        std::vector<uint8>& buffer = mapped[constant->Location[1]];
        if (buffer.size() < constant->Location[0] + constant->GetSize())
            buffer.resize(constant->Location[0] + constant->GetSize());
        total += constant->GetSize();
    }
    std::vector<float> values(total / 4 + 16, 0.5f);
    for (auto _ : state)
    {
        const float* source = values.data();
        for (ShaderConstant* constant : constants)
        {
            std::memcpy(mapped[constant->Location[1]].data() + constant->Location[0], source, constant->GetSize());
            source += constant->GetSize() / 4;
        }
        benchmark::ClobberMemory();
    }
    state.counters["bytes"] = total;
}
BENCHMARK(BM_Shader_MemcpySixteenConstants);

} // namespace
