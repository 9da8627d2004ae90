// The program compiler end to end on the null renderer: configurations in,
// a linked program with SPIR-V stages, reflected resources, defaults and
// samplers out; and every way a compile can fail.

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <thread>

#include "graphics/ConstantBuffer.h"
#include "graphics/RenderStates.h"
#include "graphics/Renderer.h"
#include "graphics/ShaderReflection.h"
#include "kernel/EngineGlobals.h"
#include "kernel/StringConv.h"
#include "shaders/PGCode.h"
#include "shaders/Program.h"
#include "shaders/ProgramCachedLibrary.h"
#include "shaders/ProgramCompiler.h"
#include "shaders/ProgramManager.h"
#include "shaders/ShaderTestSupport.h"
#include "shaders/SpirvCompiler.h"
#include "support/LogCapture.h"
#include "support/NullEngine.h"
#include "support/TempDir.h"

using namespace KovexEngine;

namespace {

const char* kFramework = R"(cbuffer PerFrame : register(b0)
{
    float4x4 ViewProj;
    float Weights[2];
    float After;
};
#include "Attribute"
#include "Material"
struct VOut { float4 pos : SV_Position; float2 uv : TEXCOORD0; };
VOut VS(VIn i)
{
    VOut o;
    o.pos = mul(float4(i.position, 1), ViewProj) * (Weights[1] + After);
    o.uv = i.uv;
    return o;
}
float4 PS(VOut i) : SV_Target { return float4(Surface(i.uv), 1); }
#ifdef WITH_GS
[maxvertexcount(3)]
void GS(triangle VOut input[3], inout TriangleStream<VOut> output)
{
    for (int v = 0; v < 3; ++v)
        output.Append(input[v]);
}
#endif
)";

const char* kAttribute = "struct VIn { float3 position : POSITION; float2 uv : TEXCOORD0; };\n";

const char* kMaterial = R"(Texture2D kovex_t_Diffuse : register(t0);
SamplerState kovex_s_Diffuse : register(s0);
Texture2D kovex_t_Detail : register(t1);
SamplerState kovex_s_Detail : register(s1);
float4 Tint = float4(1, 0, 0, 1);
float3 Surface(float2 uv)
{
    return (kovex_t_Diffuse.Sample(kovex_s_Diffuse, uv) * kovex_t_Detail.Sample(kovex_s_Detail, uv)).rgb * Tint.rgb;
}
)";

const char* kTessellated = R"(#include "Attribute"
struct VOut { float4 pos : POSITION; };
VOut VS(VIn i) { VOut o; o.pos = float4(i.position, 1); return o; }
#ifdef ALLOW_TESSELLATION
struct HSConst { float edges[3] : SV_TessFactor; float inside : SV_InsideTessFactor; };
HSConst PatchConstants(InputPatch<VOut, 3> patch)
{
    HSConst c;
    c.edges[0] = 2; c.edges[1] = 2; c.edges[2] = 2;
    c.inside = 2;
    return c;
}
[domain("tri")]
[partitioning("integer")]
[outputtopology("triangle_cw")]
[outputcontrolpoints(3)]
[patchconstantfunc("PatchConstants")]
VOut HS(InputPatch<VOut, 3> patch, uint id : SV_OutputControlPointID) { return patch[id]; }
[domain("tri")]
float4 DS(HSConst c, float3 bary : SV_DomainLocation, const OutputPatch<VOut, 3> patch) : SV_Position
{
    return patch[0].pos * bary.x + patch[1].pos * bary.y + patch[2].pos * bary.z;
}
#endif
float4 PS(float4 pos : SV_Position) : SV_Target { return pos; }
)";

std::atomic<int> s_serial{0};

// Codes and configurations of one program, under names no other test uses.
struct Codes
{
    Ptr<PGFramework> fw;
    Ptr<PGAttribute> ab;
    Ptr<PGMaterial> mt;
    PGConfFW* fwConf;
    PGConfAB* abConf;
    PGConfMT* mtConf;

    explicit Codes(const char* framework = kFramework, const char* material = kMaterial)
    {
        WString n(s_serial.fetch_add(1));
        fw = new PGFramework(WString(u"SpvcFw") + n, u"fw/Forward.ksl", AString(framework));
        ab = new PGAttribute(WString(u"SpvcAb") + n, u"ab/Simple.ksl", AString(kAttribute));
        mt = new PGMaterial(WString(u"SpvcMt") + n, u"mt/Red.ksl", AString(material));
        fwConf = fw->CreateConfig(u"DEFAULT");
        abConf = ab->CreateConfig(u"DEFAULT");
        mtConf = mt->CreateConfig(u"DEFAULT");
    }
    Ptr<Program> Build() { return ProgramManager::Ins()->BuildProgram(fwConf, abConf, mtConf); }
};

bool LogHas(KovexTest::LogCapture& log, const char* piece)
{
    for (const auto& entry : log->entries)
        if (StringConvFuncs::ToAString(entry.text.c_str()).IndexOf(piece) != kNotFound)
            return true;
    return false;
}

} // namespace

TEST(ProgramCompiler, IsTheRenderersCompiler)
{
    KovexTest::NullEngine engine;
    ProgramCompiler* compiler = ProgramCompiler::Get();
    ASSERT_NE(compiler, nullptr);
    EXPECT_EQ(compiler->CreateProgram(nullptr, nullptr, nullptr), nullptr);
    EXPECT_EQ(compiler->CreateComputeProgram(nullptr), nullptr);
    // A program without configurations has nothing to compile or link.
    Ptr<BaseProgram> bare(new BaseProgram());
    KovexTest::LogCapture log;
    EXPECT_FALSE(compiler->Link(bare.Get()));
    EXPECT_TRUE(log->Contains(u"Program: no configuration to link.\n"));
    EXPECT_FALSE(compiler->CompileShaders(bare.Get()));
    EXPECT_TRUE(log->Contains(u"Program: no framework code to compile.\n"));
}

TEST(ProgramCompiler, CompilesReflectsAndLinksAProgram)
{
    KovexTest::NullEngine engine;
    SpirvUnit::SetValidateOutput(true);
    ProgramCompiler* compiler = ProgramCompiler::Get();
    Codes codes;
    PGSamplerDesc sampler;
    sampler.Name = TSharedString<WString>(WString(u"Diffuse"));
    sampler.Desc.Filter = GraphicsFilter::MinMagMipLinear;
    sampler.Desc.AddressU = GraphicsAddress::Clamp;
    codes.mtConf->AttachSamplerDesc(sampler);
    PGTextureDesc texture;
    texture.Name = TSharedString<WString>(WString(u"Detail"));
    texture.ConfigTexture = true;
    codes.abConf->AttachTextureDesc(texture);

    uint64 before = compiler->GetCompileCount();
    KovexTest::LogCapture log;
    Ptr<Program> program = codes.Build();
    ASSERT_NE(program, nullptr);
    ASSERT_TRUE(program->IsCreated()) << "state " << int(program->GetState());
    EXPECT_EQ(compiler->GetCompileCount(), before + 1);
    EXPECT_TRUE(LogHas(log, "Compile program time = "));

    Shader* vs = program->GetShader(ShaderType::Vertex);
    Shader* ps = program->GetShader(ShaderType::Pixel);
    ASSERT_NE(vs, nullptr);
    ASSERT_NE(ps, nullptr);
    EXPECT_EQ(program->GetShader(ShaderType::Geometry), nullptr);
    EXPECT_EQ(program->GetShader(ShaderType::Hull), nullptr);
    std::vector<uint32> words(static_cast<const uint32*>(ps->GetShaderCode()),
                              static_cast<const uint32*>(ps->GetShaderCode()) + ps->GetShaderCodeSize() / 4);
    std::string error;
    EXPECT_TRUE(SpirvValidate(words, error)) << error;
    EXPECT_EQ(words[0], 0x07230203u);

    // The global's initialiser reached its constant buffer.
    ShaderConstant* tint = program->FindConstant(u"Tint");
    ASSERT_NE(tint, nullptr);
    ConstantBuffer* buffer = program->GetConstantBuffer(tint->Location[1]);
    ASSERT_NE(buffer, nullptr);
    const float* bytes = reinterpret_cast<const float*>(buffer->GetStream()->GetPointer(tint->Location[0]));
    EXPECT_EQ(bytes[0], 1.0f);
    EXPECT_EQ(bytes[1], 0.0f);
    EXPECT_EQ(bytes[2], 0.0f);
    EXPECT_EQ(bytes[3], 1.0f);

    // Samplers: the configuration's, else point filtering with wrap.
    Ptr<SamplerState> diffuse = program->GetSampler(u"Diffuse");
    Ptr<SamplerState> detail = program->GetSampler(u"Detail");
    ASSERT_NE(diffuse, nullptr);
    ASSERT_NE(detail, nullptr);
    EXPECT_EQ(diffuse->GetDesc().Filter, GraphicsFilter::MinMagMipLinear);
    EXPECT_EQ(diffuse->GetDesc().AddressU, GraphicsAddress::Clamp);
    EXPECT_EQ(detail->GetDesc().Filter, GraphicsFilter::MinMagMipPoint);
    EXPECT_EQ(detail->GetDesc().AddressV, GraphicsAddress::Wrap);
    EXPECT_EQ(detail->GetDesc().MaxAnisotropy, 16u);
    EXPECT_EQ(detail->GetDesc().ComparisonFunc, GraphicsComparison::Never);
    EXPECT_TRUE(program->FindTexture(u"Detail")->FromConfig);
    EXPECT_FALSE(program->FindTexture(u"Diffuse")->FromConfig);

    // Each stage lists what it reads, in slot order.
    ASSERT_EQ(ps->GetNumTextures(), 2u);
    EXPECT_EQ(ps->GetTexture(0), program->FindTexture(u"Diffuse"));
    EXPECT_EQ(ps->GetTexture(1), program->FindTexture(u"Detail"));
    EXPECT_EQ(ps->FindSampler(33), program->FindSampler(u"Detail"));
    EXPECT_EQ(vs->GetNumTextures(), 0u);
    EXPECT_NE(vs->FindCBuffer(u"PerFrame"), nullptr);
    EXPECT_EQ(ps->FindCBuffer(u"PerFrame"), nullptr); // PS does not read it
    EXPECT_NE(ps->FindCBuffer(u"$Global"), nullptr);
}

TEST(ProgramCompiler, GeometryStageFollowsTextAndFlagsTogether)
{
    KovexTest::NullEngine engine;
    {
        Codes codes;
        codes.fwConf->SetMacro("WITH_GS", "1");
        codes.fwConf->SetUsesGeometryStage(true);
        Ptr<Program> program = codes.Build();
        ASSERT_TRUE(program && program->IsCreated());
        EXPECT_NE(program->GetShader(ShaderType::Geometry), nullptr);
    }
    {
        // Text with a GS but a framework that says it has none (and the
        // other way round): refused, so the cache never disagrees.
        Codes codes;
        codes.fwConf->SetMacro("WITH_GS", "1");
        KovexTest::LogCapture log;
        Ptr<Program> program = codes.Build();
        ASSERT_NE(program, nullptr);
        EXPECT_TRUE(program->IsFailed());
        EXPECT_TRUE(log->Contains(
            u"Program [fw/Forward.ksl]: the framework defines a geometry stage but its flags say it has none.\n"));
        Codes other;
        other.fwConf->SetUsesGeometryStage(true);
        EXPECT_TRUE(other.Build()->IsFailed());
    }
}

TEST(ProgramCompiler, MacrosComeInOrderAndTessellationNeedsAllThree)
{
    KovexTest::NullEngine engine;
    ProgramCompiler* compiler = ProgramCompiler::Get();
    HWCapability* capability = Renderer::Get()->GetHWCapability().Get();
    capability->MakeMacro("SUPPORT_TEST_CAP", "1");
    Codes codes;
    codes.fwConf->SetMacro("FW_MACRO", "2");
    codes.mtConf->SetMacro("MT_MACRO", "3");
    Ptr<Program> program = compiler->CreateProgram(codes.fwConf, codes.abConf, codes.mtConf);
    std::vector<std::pair<std::string, std::string>> macros;
    compiler->GetMacroSet(program.Get(), macros);
    auto index = [&macros](const char* name) {
        for (size_t i = 0; i < macros.size(); ++i)
            if (macros[i].first == name)
                return int(i);
        return -1;
    };
    ASSERT_GE(index("SUPPORT_TEST_CAP"), 0);
    EXPECT_LT(index("SUPPORT_TEST_CAP"), index("FW_MACRO"));
    EXPECT_LT(index("FW_MACRO"), index("MT_MACRO"));
    EXPECT_EQ(index("ALLOW_TESSELLATION"), -1);

    codes.mtConf->EnableTessellation(true);
    codes.fwConf->SetTessellationAware(true);
    capability->SupportTessellation = false;
    EXPECT_FALSE(ProgramCompiler::UsesTessellation(program.Get()));
    capability->SupportTessellation = true;
    EXPECT_TRUE(ProgramCompiler::UsesTessellation(program.Get()));
    compiler->GetMacroSet(program.Get(), macros);
    ASSERT_EQ(macros.back().first, "ALLOW_TESSELLATION");
    EXPECT_EQ(macros.back().second, "1");
    codes.fwConf->SetTessellationAware(false);
    EXPECT_FALSE(ProgramCompiler::UsesTessellation(program.Get()));
    capability->SupportTessellation = false;
    capability->UnmakeMacro("SUPPORT_TEST_CAP");
}

TEST(ProgramCompiler, HullAndDomainUnderTessellation)
{
    KovexTest::NullEngine engine;
    HWCapability* capability = Renderer::Get()->GetHWCapability().Get();
    Codes plain(kTessellated);
    plain.mtConf->EnableTessellation(true);
    plain.fwConf->SetTessellationAware(true);
    Ptr<Program> without = plain.Build();
    ASSERT_TRUE(without && without->IsCreated());
    EXPECT_EQ(without->GetShader(ShaderType::Hull), nullptr); // the device lacks it

    capability->SupportTessellation = true;
    Codes codes(kTessellated);
    codes.mtConf->EnableTessellation(true);
    codes.fwConf->SetTessellationAware(true);
    Ptr<Program> program = codes.Build();
    capability->SupportTessellation = false;
    ASSERT_TRUE(program && program->IsCreated());
    EXPECT_NE(program->GetShader(ShaderType::Hull), nullptr);
    EXPECT_NE(program->GetShader(ShaderType::Domain), nullptr);
    EXPECT_NE(program->GetShader(ShaderType::Vertex), nullptr);
    EXPECT_NE(program->GetShader(ShaderType::Pixel), nullptr);
}

TEST(ProgramCompiler, FailuresLeaveTheProgramFailedWithTheirCause)
{
    KovexTest::NullEngine engine;
    ProgramCompiler* compiler = ProgramCompiler::Get();
    {
        // An error in the material names the material's file and line.
        std::string material = std::string(kMaterial);
        material.replace(material.find("Tint.rgb"), 8, "Tnit.rgb");
        Codes codes(kFramework, material.c_str());
        KovexTest::LogCapture log;
        Ptr<Program> program = codes.Build();
        ASSERT_NE(program, nullptr);
        EXPECT_TRUE(program->IsFailed());
        EXPECT_TRUE(LogHas(log, "mt/Red.ksl:8"));
        EXPECT_TRUE(log->Contains(u"Compile Shader vs_5_0 VS failed !\n"));
        // Failed once, not compiled again.
        uint64 count = compiler->GetCompileCount();
        EXPECT_FALSE(compiler->Compile(program));
        EXPECT_EQ(compiler->GetCompileCount(), count);
        EXPECT_TRUE(program->IsFailed());
    }
    {
        // No pixel entry point.
        std::string framework = kFramework;
        framework.replace(framework.find("float4 PS("), 10, "float4 PX(");
        Codes codes(framework.c_str());
        KovexTest::LogCapture log;
        EXPECT_TRUE(codes.Build()->IsFailed());
        EXPECT_TRUE(log->Contains(u"Compile Shader ps_5_0 PS failed !\n"));
    }
    {
        // A missing include file, an empty material, the crasher.
        std::string framework = std::string("#include \"NoSuchFile.ksl\"\n") + kFramework;
        Codes missing(framework.c_str());
        KovexTest::LogCapture log;
        EXPECT_TRUE(missing.Build()->IsFailed());
        EXPECT_TRUE(LogHas(log, "NoSuchFile.ksl"));
        Codes empty(kFramework, "");
        EXPECT_TRUE(empty.Build()->IsFailed());
        EXPECT_TRUE(log->Contains(u"Shader include [Material] has no code.\n"));
        std::string noisy = std::string(kMaterial);
        noisy.replace(noisy.find("* Tint.rgb"), 10, "* noise(float3(uv, 0))");
        Codes crasher(kFramework, noisy.c_str());
        EXPECT_TRUE(crasher.Build()->IsFailed());
        EXPECT_TRUE(LogHas(log, "noise() is not supported (mt/Red.ksl line 8)"));
    }
    // Without a material the unit's #include "Material" cannot open.
    Codes codes;
    Ptr<Program> none = ProgramManager::Ins()->BuildProgram(codes.fwConf, codes.abConf, nullptr);
    ASSERT_NE(none, nullptr);
    EXPECT_TRUE(none->IsFailed());
}

TEST(ProgramCompiler, CompilesComputePrograms)
{
    KovexTest::NullEngine engine;
    ProgramCompiler* compiler = ProgramCompiler::Get();
    const char* text = R"(RWStructuredBuffer<float4> Output : register(u0);
cbuffer Params : register(b0) { uint Count; float Scale = 2; };
#ifdef USE_CS
[numthreads(64, 1, 1)]
void CS(uint3 id : SV_DispatchThreadID) { if (id.x < Count) Output[id.x] = Scale; }
#endif
)";
    Ptr<PGFramework> fw(new PGFramework(u"SpvcCompute", u"fw/Compute.ksl", AString(text)));
    PGConfFW* conf = fw->CreateConfig(u"DEFAULT");
    Ptr<ComputeProgram> program = compiler->CreateComputeProgram(conf);
    ASSERT_TRUE(compiler->CompileCompute(program));
    Shader* cs = program->GetShader(ShaderType::Compute);
    ASSERT_NE(cs, nullptr);
    EXPECT_EQ(cs->GetReflection().WorkGroupSize[0], 64u);
    ASSERT_NE(program->FindBuffer(u"Output"), nullptr);
    EXPECT_EQ(program->FindBuffer(u"Output")->GetSlotInShader(ShaderType::Compute), 48);
    EXPECT_EQ(cs->GetNumBuffers(), 1u);
    EXPECT_EQ(program->GetShader(ShaderType::Vertex), nullptr);
}

// Programs compile on several threads at once, each with its own unit.
TEST(ProgramCompilerThreads, ProgramsCompileConcurrently)
{
    KovexTest::NullEngine engine;
    ProgramCompiler* compiler = ProgramCompiler::Get();
    constexpr int kThreads = 2, kEach = 2;
    std::vector<std::unique_ptr<Codes>> codes;
    std::vector<Ptr<Program>> programs;
    for (int i = 0; i < kThreads * kEach; ++i)
    {
        codes.emplace_back(new Codes());
        programs.push_back(compiler->CreateProgram(codes.back()->fwConf, codes.back()->abConf, codes.back()->mtConf));
    }
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < kEach; ++i)
            {
                Program* program = programs[t * kEach + i].Get();
                SpirvUnit unit;
                if (!compiler->PreprocessUnit(program, unit) || !compiler->CompileShaders(program) ||
                    !compiler->ReflectShaders(program))
                    ++failures;
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failures.load(), 0);
    const Shader* first = programs[0]->GetShader(ShaderType::Pixel);
    for (const Ptr<Program>& program : programs)
    {
        const Shader* ps = program->GetShader(ShaderType::Pixel);
        ASSERT_NE(ps, nullptr);
        ASSERT_EQ(ps->GetShaderCodeSize(), first->GetShaderCodeSize());
        EXPECT_EQ(std::memcmp(ps->GetShaderCode(), first->GetShaderCode(), ps->GetShaderCodeSize()), 0);
        EXPECT_NE(program->FindConstant(u"Tint")->GetDefaultValue(), nullptr);
    }
}

// The engine's own templates compile in the engine, and the material's
// cbuffer initialiser becomes its constant's value.
TEST(ProgramCompiler, TheEnginesTemplatesCompile)
{
    KovexTest::NullEngine engine;
    ASSERT_TRUE(KovexTest::MountCoreData());
    const std::string dir = std::string(KOVEX_SOURCE_DATA) + "/shaders/";
    ProgramManager* manager = ProgramManager::Ins();
    Ptr<PGFramework> fw = manager->LoadFramework(StringConvFuncs::ToWString((dir + "NoLighting.ksl").c_str()));
    Ptr<PGAttribute> ab = manager->LoadAttribute(StringConvFuncs::ToWString((dir + "Attribute_Base.ksl").c_str()));
    Ptr<PGMaterial> mt = manager->LoadMaterial(StringConvFuncs::ToWString((dir + "Material_Triangle.ksl").c_str()));
    ASSERT_TRUE(fw && ab && mt);
    PGConfMT* textured = mt->CreateConfig(BlendMode::Mask, TranslucentDepthMode::TestOnly, TwoSideMode::None);
    ASSERT_NE(textured, nullptr);
    textured->SetMacro("USE_DIFFUSE_TEXTURE", "1");
    for (PGConfMT* material : {mt->GetCurConf(), textured})
    {
        Ptr<Program> program = manager->BuildProgram(fw->GetCurConf(), ab->GetCurConf(), material);
        ASSERT_NE(program, nullptr);
        ASSERT_TRUE(program->IsCreated());
        ShaderConstant* color = program->FindConstant(u"DiffuseColor");
        ASSERT_NE(color, nullptr);
        ASSERT_NE(color->GetDefaultValue(), nullptr);
        EXPECT_EQ(color->GetDefaultValue()[3], 1.0f);
        EXPECT_EQ(program->FindTexture(u"DiffuseTexture") != nullptr, material == textured);
        const ShaderReflection& vs = program->GetShader(ShaderType::Vertex)->GetReflection();
        EXPECT_GE(vs.Inputs.size(), 3u);
        for (const auto& input : vs.Inputs)
            EXPECT_FALSE(input.Semantic.empty());
    }
}


// A first run with the cache switch writes the programs; a second run with
// the load switch compiles nothing and gets the same program, geometry stage
// included.
TEST(ProgramCompilerCache, ASecondRunCompilesNothing)
{
    KovexTest::TempDir dir;
    auto run = [&dir](bool write, bool load, uint64& compiles, Ptr<Program>& out) {
        KovexTest::NullEngine engine;
        ProgramCachedLibrary::Ins()->SetFilePath(dir.W("shader.cache"));
        g_kovexCacheShaders = write;
        g_kovexLoadShadersFromCache = load;
        ProgramCompiler* compiler = ProgramCompiler::Get();
        uint64 before = compiler->GetCompileCount();
        {
            // The same names and template paths (under the root, as keys
            // need) in both runs.
            WString root = g_kovexRootPath;
            Ptr<PGFramework> fw(new PGFramework(u"SpvcCachedFw", root + u"shaders/Forward.ksl", AString(kFramework)));
            Ptr<PGAttribute> ab(new PGAttribute(u"SpvcCachedAb", root + u"shaders/Simple.ksl", AString(kAttribute)));
            Ptr<PGMaterial> mt(new PGMaterial(u"SpvcCachedMt", root + u"shaders/Red.ksl", AString(kMaterial)));
            PGConfFW* fwConf = fw->CreateConfig(u"DEFAULT");
            fwConf->SetMacro("WITH_GS", "1");
            fwConf->SetUsesGeometryStage(true);
            out = ProgramManager::Ins()->BuildProgram(fwConf, ab->CreateConfig(u"DEFAULT"), mt->CreateConfig(u"DEFAULT"));
            ASSERT_TRUE(out && out->IsCreated());
            // What the test reads later must not hang on the codes.
            ASSERT_NE(out->GetShader(ShaderType::Geometry), nullptr);
            ShaderConstant* tint = out->FindConstant(u"Tint");
            ASSERT_TRUE(tint && tint->GetDefaultValue());
            EXPECT_EQ(tint->GetDefaultValue()[0], 1.0f);
            ASSERT_NE(out->GetShader(ShaderType::Vertex), nullptr);
            // Inputs keep their semantics, from the cache's byte code too.
            const ShaderReflection& vs = out->GetShader(ShaderType::Vertex)->GetReflection();
            ASSERT_EQ(vs.Inputs.size(), 2u);
            EXPECT_TRUE(vs.Inputs[0].Semantic == "POSITION0" || vs.Inputs[1].Semantic == "POSITION0");
            EXPECT_TRUE(vs.Inputs[0].Semantic == "TEXCOORD0" || vs.Inputs[1].Semantic == "TEXCOORD0");
        }
        compiles = compiler->GetCompileCount() - before;
        out = nullptr;
        g_kovexCacheShaders = false;
        g_kovexLoadShadersFromCache = false;
        ProgramCachedLibrary::Destroy();
    };
    uint64 first = 0, second = 0;
    Ptr<Program> program;
    run(true, false, first, program);
    EXPECT_EQ(first, 1u);
    EXPECT_TRUE(std::filesystem::exists(dir.path + "/shader.cache"));
    run(false, true, second, program);
    EXPECT_EQ(second, 0u);
}
