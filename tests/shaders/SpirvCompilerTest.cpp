#include <gtest/gtest.h>

#include <thread>

#include "graphics/BaseProgram.h"
#include "graphics/ConstantBuffer.h"
#include "graphics/ShaderReflection.h"
#include "shaders/ShaderParser.h"
#include "shaders/SpirvTestSupport.h"
#include "support/LogCapture.h"
#include "support/NullEngine.h"

using namespace KovexEngine;
using KovexTest::IncludeFiles;

namespace {

// A framework as the generator writes one: common helpers from a file,
// then the attribute's and the material's code.
const char* kFramework = R"(#include "Common.ksl"
cbuffer PerFrame : register(b0)
{
    float4x4 ViewProj;
    float3 EyePos;
    float Time;
    float Weights[3];
    float After;
    float2 Pair;
};
#include "Attribute"
#include "Material"
struct VOut
{
    float4 pos : SV_Position;
    float2 uv : TEXCOORD0;
};
VOut VS(VIn i)
{
    VOut o;
    o.pos = mul(float4(AttrPosition(i), 1), ViewProj) * SCALE;
    o.uv = i.uv + Weights[1] + After;
    return o;
}
float4 PS(VOut i) : SV_Target
{
    return float4(MaterialColor(i.uv), 1) + Time + Pair.x;
}
)";

const char* kCommon = R"(#include "Common.ksl"
float3 Saturate3(float3 v) { return saturate(v); }
)";

const char* kAttribute = R"(struct VIn
{
    float4 color : COLOR0;
    float3 position : POSITION;
    float2 uv : TEXCOORD0;
};
float3 AttrPosition(VIn i) { return i.position + i.color.xyz * 0.01; }
)";

const char* kMaterial = R"(Texture2D kovex_t_Diffuse : register(t0);
SamplerState kovex_s_Diffuse : register(s0);
float4 Tint = float4(1, 0, 0, 1);
float3 MaterialColor(float2 uv)
{
    return Saturate3(kovex_t_Diffuse.Sample(kovex_s_Diffuse, uv).rgb * Tint.rgb);
}
)";

struct Unit
{
    KovexEngine::AString attribute{kAttribute};
    KovexEngine::AString material{kMaterial};
    IncludeFiles files;
    std::vector<SpirvMacro> macros{{"SCALE", "2"}};

    Unit() { files.Add("[core]shaders/Common.ksl", kCommon); }
    bool Preprocess(SpirvUnit& unit, const char* framework = kFramework)
    {
        ShaderIncludeHandler handler({&attribute, "ab/Simple.ksl"}, {&material, "mt/Red.ksl"}, files.Function());
        return unit.Preprocess(framework, "fw/Forward.ksl", macros, &handler);
    }
};

const ShaderReflection::ConstantBuffer* FindBlock(const ShaderReflection& r, const std::string& name)
{
    for (const auto& block : r.ConstantBuffers)
        if (block.Name == name)
            return &block;
    return nullptr;
}

const ShaderReflection::Member* FindMember(const ShaderReflection::ConstantBuffer& block, const std::string& name)
{
    for (const auto& member : block.Members)
        if (member.Name == name)
            return &member;
    return nullptr;
}

class SpirvCompile : public ::testing::Test
{
protected:
    SpirvProcess process;
};

} // namespace

TEST_F(SpirvCompile, PreprocessesOnceWithIncludesAndMacros)
{
    Unit u;
    SpirvUnit unit;
    ASSERT_TRUE(u.Preprocess(unit));
    const std::string& text = unit.GetText();
    // Macros are applied, the codes are in, and the self-including file
    // came in once.
    EXPECT_EQ(text.find("SCALE"), std::string::npos);
    EXPECT_NE(text.find("MaterialColor"), std::string::npos);
    EXPECT_NE(text.find("AttrPosition"), std::string::npos);
    EXPECT_EQ(u.files.opened["[core]shaders/Common.ksl"], 1);
    size_t first = text.find("Saturate3(float3");
    ASSERT_NE(first, std::string::npos);
    EXPECT_EQ(text.find("Saturate3(float3", first + 1), std::string::npos);
    // Origins survive for messages.
    EXPECT_NE(text.find("#line 1 \"mt/Red.ksl\""), std::string::npos);
    EXPECT_TRUE(unit.DefinesFunction("VS"));
    EXPECT_TRUE(unit.DefinesFunction("PS"));
    EXPECT_FALSE(unit.DefinesFunction("GS"));
    EXPECT_FALSE(unit.DefinesFunction("Saturate"));
}

TEST_F(SpirvCompile, HashFollowsTextAndMacros)
{
    Unit u;
    SpirvUnit a, b, c;
    ASSERT_TRUE(u.Preprocess(a));
    ASSERT_TRUE(u.Preprocess(b));
    EXPECT_EQ(a.GetHash(), b.GetHash());
    u.macros.push_back({"UNUSED_SWITCH", "1"});
    ASSERT_TRUE(u.Preprocess(c));
    EXPECT_EQ(a.GetText(), c.GetText());
    EXPECT_NE(a.GetHash(), c.GetHash());
    u.macros.pop_back();
    u.material = "Texture2D kovex_t_Diffuse; SamplerState kovex_s_Diffuse; float4 Tint;\n"
                 "float3 MaterialColor(float2 uv) { return Tint.rgb; }\n";
    SpirvUnit d;
    ASSERT_TRUE(u.Preprocess(d));
    EXPECT_NE(a.GetHash(), d.GetHash());
}

TEST_F(SpirvCompile, ReflectionMatchesTheModulesOwnDecorations)
{
    if (!KovexTest::HaveTool("spirv-dis") || !KovexTest::HaveTool("spirv-val"))
        GTEST_SKIP() << "spirv-dis or spirv-val missing";
    Unit u;
    SpirvUnit unit;
    ASSERT_TRUE(u.Preprocess(unit));
    KovexTest::TempDir dir;
    for (ShaderType stage : {ShaderType(ShaderType::Vertex), ShaderType(ShaderType::Pixel)})
    {
        std::vector<uint32> words;
        ShaderReflection r;
        const char* entry = stage == ShaderType::Vertex ? "VS" : "PS";
        ASSERT_TRUE(unit.CompileStage(stage, entry, words, &r)) << unit.GetErrors();
        std::string path = KovexTest::WriteModule(dir, entry, words);
        int status = -1;
        std::string val = KovexTest::RunCommand("spirv-val --target-env vulkan1.1 " + path + " 2>&1", &status);
        EXPECT_EQ(status, 0) << val;
        KovexTest::Disassembly d = KovexTest::Disassemble(path);
        // No reflection-only decorations are left: no extension needed.
        EXPECT_EQ(d.text.find("UserSemantic"), std::string::npos);
        EXPECT_EQ(d.text.find("SPV_GOOGLE"), std::string::npos);

        const ShaderReflection::ConstantBuffer* frame = FindBlock(r, "PerFrame");
        ASSERT_NE(frame, nullptr) << entry;
        EXPECT_EQ(frame->Binding, 0u);
        EXPECT_EQ(frame->Set, 0u);
        for (const ShaderReflection::Member& member : frame->Members)
            EXPECT_EQ(int(member.Offset), d.Offset("PerFrame", member.Name)) << entry << " " << member.Name;
        // The scalar after an array lands where the module says, which is
        // not where the classic packing would put it (44).
        const ShaderReflection::Member* after = FindMember(*frame, "After");
        ASSERT_NE(after, nullptr);
        EXPECT_EQ(int(after->Offset), d.Offset("PerFrame", "After"));
        EXPECT_NE(after->Offset, 44u + 32u);
        const ShaderReflection::Member* weights = FindMember(*frame, "Weights");
        ASSERT_NE(weights, nullptr);
        EXPECT_EQ(weights->ArrayCount, 3u);
        EXPECT_EQ(weights->ArrayStride, 16u);
        EXPECT_EQ(after->Offset, weights->Offset + weights->Size);
        const ShaderReflection::Member* viewProj = FindMember(*frame, "ViewProj");
        ASSERT_NE(viewProj, nullptr);
        EXPECT_EQ(viewProj->Size, 64u);
        EXPECT_EQ(viewProj->Columns, 4u);
        EXPECT_EQ(viewProj->Rows, 4u);
        EXPECT_EQ(viewProj->MatrixStride, 16u);

        if (stage == ShaderType::Pixel)
        {
            ASSERT_EQ(r.Textures.size(), 1u);
            ASSERT_EQ(r.Samplers.size(), 1u);
            EXPECT_EQ(r.Textures[0].Name, "kovex_t_Diffuse");
            EXPECT_EQ(r.Textures[0].Binding, 16u);
            EXPECT_EQ(int(r.Textures[0].Binding), d.Binding("kovex_t_Diffuse"));
            EXPECT_EQ(r.Textures[0].Dimension, 2u);
            EXPECT_EQ(r.Samplers[0].Binding, 32u);
            EXPECT_EQ(int(r.Samplers[0].Binding), d.Binding("kovex_s_Diffuse"));
            // The non-static global went to the implicit block, away from b0.
            const ShaderReflection::ConstantBuffer* global = FindBlock(r, "$Global");
            ASSERT_NE(global, nullptr);
            EXPECT_NE(global->Binding, frame->Binding);
            const ShaderReflection::Member* tint = FindMember(*global, "Tint");
            ASSERT_NE(tint, nullptr);
            EXPECT_EQ(int(tint->Offset), d.Offset("$Global", "Tint"));
            EXPECT_EQ(tint->Size, 16u);
        }
        else
        {
            // Vertex inputs keep their semantics, whatever their order.
            ASSERT_EQ(r.Inputs.size(), 3u);
            std::map<std::string, uint32> locations;
            for (const auto& input : r.Inputs)
                locations[input.Semantic] = input.Location;
            ASSERT_EQ(locations.size(), 3u);
            EXPECT_TRUE(locations.count("COLOR0"));
            EXPECT_TRUE(locations.count("POSITION0"));
            EXPECT_TRUE(locations.count("TEXCOORD0"));
            EXPECT_TRUE(r.Textures.empty()); // legalisation dropped what VS does not read
            // The same words read back (as from a cache) tell the same.
            ShaderReflection again;
            std::string error;
            ASSERT_TRUE(SpirvReflect(words, again, error)) << error;
            ASSERT_EQ(again.Inputs.size(), 3u);
            for (const auto& input : again.Inputs)
                EXPECT_EQ(locations[input.Semantic], input.Location) << input.Semantic;
            EXPECT_EQ(again.ConstantBuffers.size(), r.ConstantBuffers.size());
        }
    }
}

TEST_F(SpirvCompile, ErrorsNameTheOriginalFileAndLine)
{
    Unit u;
    // Line 5 of the material is wrong.
    u.material = "Texture2D kovex_t_Diffuse : register(t0);\nSamplerState kovex_s_Diffuse : register(s0);\n"
                 "float4 Tint;\nfloat3 MaterialColor(float2 uv)\n{ return undeclaredThing * Tint.rgb; }\n";
    SpirvUnit unit;
    ASSERT_TRUE(u.Preprocess(unit));
    KovexTest::LogCapture log;
    std::vector<uint32> words;
    EXPECT_FALSE(unit.CompileStage(ShaderType::Pixel, "PS", words, nullptr));
    EXPECT_TRUE(words.empty());
    EXPECT_NE(unit.GetErrors().find("mt/Red.ksl:5"), std::string::npos) << unit.GetErrors();
    bool logged = false;
    for (const auto& entry : log->entries)
        logged = logged || StringConvFuncs::ToAString(entry.text.c_str()).IndexOf("mt/Red.ksl:5") != kNotFound;
    EXPECT_TRUE(logged);

    // A missing entry point fails instead of giving an empty module.
    SpirvUnit good;
    Unit v;
    ASSERT_TRUE(v.Preprocess(good));
    EXPECT_FALSE(good.CompileStage(ShaderType::Geometry, "GS", words, nullptr));
    EXPECT_TRUE(words.empty());
}

TEST_F(SpirvCompile, BadIncludesFailWithALogLine)
{
    Unit u;
    SpirvUnit unit;
    {
        KovexTest::LogCapture log;
        u.material = "";
        EXPECT_FALSE(u.Preprocess(unit));
        EXPECT_TRUE(log->Contains(u"Shader include [Material] has no code.\n"));
    }
    {
        KovexTest::LogCapture log;
        u.material = kMaterial;
        std::string missing = std::string("#include \"Missing.ksl\"\n") + kFramework;
        EXPECT_FALSE(u.Preprocess(unit, missing.c_str()));
        EXPECT_EQ(u.files.opened["[core]shaders/Missing.ksl"], 1); // asked once, not retried as a system include
        bool logged = false;
        for (const auto& entry : log->entries)
            logged = logged || StringConvFuncs::ToAString(entry.text.c_str()).IndexOf("Missing.ksl") != kNotFound;
        EXPECT_TRUE(logged);
    }
    {
        // A second "material" (any case) expands to nothing.
        std::string twice = std::string(kFramework) + "#include \"MATERIAL\"\n";
        EXPECT_TRUE(u.Preprocess(unit, twice.c_str()));
        std::vector<uint32> words;
        EXPECT_TRUE(unit.CompileStage(ShaderType::Pixel, "PS", words, nullptr)) << unit.GetErrors();
    }
    {
        // A near miss of a reserved name is an ordinary file, and missing.
        std::string near = std::string("#include \"Materials\"\n") + kFramework;
        EXPECT_FALSE(u.Preprocess(unit, near.c_str()));
        EXPECT_EQ(u.files.opened["[core]shaders/Materials"], 1);
    }
    // Two files that include each other end.
    u.files.Add("[core]shaders/A.ksl", "#include \"B.ksl\"\nfloat FromA() { return 1; }\n");
    u.files.Add("[core]shaders/B.ksl", "#include \"A.ksl\"\nfloat FromB() { return 2; }\n");
    std::string cycle = std::string("#include \"A.ksl\"\n") + kFramework;
    EXPECT_TRUE(u.Preprocess(unit, cycle.c_str()));
    EXPECT_EQ(u.files.opened["[core]shaders/A.ksl"], 1);
    EXPECT_EQ(u.files.opened["[core]shaders/B.ksl"], 1);
}

TEST_F(SpirvCompile, FrontEndCrashersAreRefusedFirst)
{
    Unit u;
    u.material = "Texture2D kovex_t_Diffuse; SamplerState kovex_s_Diffuse;\nfloat4 Tint;\n"
                 "float3 MaterialColor(float2 uv)\n{\n return noise (float3(uv, 0)).xxx;\n}\n";
    SpirvUnit unit;
    KovexTest::LogCapture log;
    EXPECT_FALSE(u.Preprocess(unit));
    EXPECT_TRUE(log->Contains(u"Shader [fw/Forward.ksl]: noise() is not supported (mt/Red.ksl line 5).\n"));
    std::vector<uint32> words;
    EXPECT_FALSE(unit.CompileStage(ShaderType::Pixel, "PS", words, nullptr));
    // A name that merely contains it is no call of it.
    u.material = "Texture2D kovex_t_Diffuse; SamplerState kovex_s_Diffuse;\nfloat4 Tint;\n"
                 "float3 mynoise(float3 v) { return v; }\n"
                 "float3 MaterialColor(float2 uv) { return mynoise(float3(uv, 0)); }\n";
    EXPECT_TRUE(u.Preprocess(unit));
}

TEST_F(SpirvCompile, ComputeReportsItsGroupSizeAndStorage)
{
    const char* text = R"(RWStructuredBuffer<float4> Output : register(u0);
RWTexture2D<float4> Image : register(u1);
cbuffer Params : register(b1) { uint Count; };
[numthreads(8, 4, 1)]
void CS(uint3 id : SV_DispatchThreadID)
{
    if (id.x < Count) { Output[id.x] = float4(id, 1); Image[id.xy] = 1; }
}
)";
    SpirvUnit unit;
    ASSERT_TRUE(unit.Preprocess(text, "cs.ksl", {{"USE_CS", "1"}}, nullptr));
    std::vector<uint32> words;
    ShaderReflection r;
    ASSERT_TRUE(unit.CompileStage(ShaderType::Compute, "CS", words, &r)) << unit.GetErrors();
    EXPECT_EQ(r.WorkGroupSize[0], 8u);
    EXPECT_EQ(r.WorkGroupSize[1], 4u);
    EXPECT_EQ(r.WorkGroupSize[2], 1u);
    ASSERT_EQ(r.RWBuffers.size(), 2u);
    std::map<std::string, ShaderReflection::Resource> rw;
    for (const auto& resource : r.RWBuffers)
        rw[resource.Name] = resource;
    EXPECT_EQ(rw["Output"].Binding, 48u);
    EXPECT_EQ(rw["Output"].Dimension, 0u);
    EXPECT_EQ(rw["Image"].Binding, 49u);
    EXPECT_EQ(rw["Image"].Dimension, 2u);
    ASSERT_NE(FindBlock(r, "Params"), nullptr);
    EXPECT_EQ(FindBlock(r, "Params")->Binding, 1u);
    std::string error;
    EXPECT_TRUE(SpirvValidate(words, error)) << error;
    std::vector<uint32> broken(words.begin(), words.begin() + words.size() / 2);
    EXPECT_FALSE(SpirvValidate(broken, error));
    EXPECT_FALSE(error.empty());
}

// Each thread has its own unit; the process state is shared.
TEST(SpirvThreads, UnitsCompileOnSeveralThreadsAlike)
{
    constexpr int kThreads = 2, kRounds = 3;
    SpirvProcess process;
    std::vector<uint32> reference;
    {
        Unit u;
        SpirvUnit unit;
        ASSERT_TRUE(u.Preprocess(unit));
        ASSERT_TRUE(unit.CompileStage(ShaderType::Pixel, "PS", reference, nullptr));
    }
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&] {
            for (int round = 0; round < kRounds; ++round)
            {
                Unit u;
                SpirvUnit unit;
                std::vector<uint32> words;
                if (!u.Preprocess(unit) || !unit.CompileStage(ShaderType::Pixel, "PS", words, nullptr) ||
                    words != reference)
                    ++failures;
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failures.load(), 0);
}

// --- Stages merged into a program -------------------------------------------

namespace {

struct CompiledUnit
{
    ShaderReflection vs, ps;
    std::string text;
};

CompiledUnit CompileBoth()
{
    Unit u;
    SpirvUnit unit;
    std::vector<uint32> words;
    CompiledUnit out;
    EXPECT_TRUE(u.Preprocess(unit));
    EXPECT_TRUE(unit.CompileStage(ShaderType::Vertex, "VS", words, &out.vs));
    EXPECT_TRUE(unit.CompileStage(ShaderType::Pixel, "PS", words, &out.ps));
    out.text = unit.GetText();
    return out;
}

const float* BytesOf(BaseProgram& program, ShaderConstant* constant)
{
    ConstantBuffer* buffer = program.GetConstantBuffer(constant->Location[1]);
    return buffer ? reinterpret_cast<const float*>(buffer->GetStream()->GetPointer(constant->Location[0])) : nullptr;
}

} // namespace

TEST_F(SpirvCompile, StagesMergeIntoOneProgram)
{
    KovexTest::NullEngine engine;
    CompiledUnit unit = CompileBoth();
    Ptr<BaseProgram> program(new BaseProgram());
    ASSERT_TRUE(program->AddReflection(ShaderType::Vertex, unit.vs));
    ASSERT_TRUE(program->AddReflection(ShaderType::Pixel, unit.ps));

    // One block read by both stages is one buffer with a slot in each.
    ShaderCBuffer* frame = program->FindCBuffer(u"PerFrame");
    ASSERT_NE(frame, nullptr);
    EXPECT_EQ(frame->GetSlotInShader(ShaderType::Vertex), 0);
    EXPECT_EQ(frame->GetSlotInShader(ShaderType::Pixel), 0);
    // The texture and its sampler answer to one KSL name.
    ShaderTexture* texture = program->FindTexture(u"Diffuse");
    ShaderSampler* sampler = program->FindSampler(u"Diffuse");
    ASSERT_NE(texture, nullptr);
    ASSERT_NE(sampler, nullptr);
    EXPECT_EQ(texture->GetSlotInShader(ShaderType::Pixel), 16);
    EXPECT_EQ(texture->GetSlotInShader(ShaderType::Vertex), -1);
    EXPECT_EQ(sampler->GetSlotInShader(ShaderType::Pixel), 32);

    // Constants are written where the module reads them.
    ASSERT_TRUE(program->CreateConstantBuffers());
    const ShaderReflection::Member* after = FindMember(*FindBlock(unit.vs, "PerFrame"), "After");
    ShaderConstant* constant = program->FindConstant(u"After");
    ASSERT_NE(constant, nullptr);
    EXPECT_EQ(constant->Location[0], after->Offset);
    float value = 4.5f;
    ASSERT_TRUE(program->CommitConstantByName(u"After", &value, 4, 16));
    EXPECT_EQ(BytesOf(*program, constant)[0], 4.5f);
    const ShaderReflection::Member* weights = FindMember(*FindBlock(unit.vs, "PerFrame"), "Weights");
    float three[12] = {1, 0, 0, 0, 2, 0, 0, 0, 3, 0, 0, 0};
    ASSERT_TRUE(program->CommitConstantByName(u"Weights", three, sizeof three, 16));
    ConstantBuffer* buffer = program->GetConstantBuffer(constant->Location[1]);
    const float* base = reinterpret_cast<const float*>(buffer->GetStream()->GetPointer(0));
    EXPECT_EQ(base[(weights->Offset + 2 * weights->ArrayStride) / 4], 3.0f);
    EXPECT_EQ(base[after->Offset / 4], 4.5f); // the array's last element stopped before it
    EXPECT_FALSE(program->CommitConstantByName(u"NoSuchConstant", &value, 4, 16));

    // A global's initialiser, dropped by the front end, comes back as the
    // constant's default.
    ShaderConstant* tint = program->FindConstant(u"Tint");
    ASSERT_NE(tint, nullptr);
    ShaderParser::VarInfo info;
    info.Type = 3;
    ShaderParser::GetDefaultValue(unit.text.c_str(), info, tint);
    ASSERT_NE(tint->GetDefaultValue(), nullptr);
    program->ApplyConstantDefaultValue();
    const float* tintBytes = BytesOf(*program, tint);
    EXPECT_EQ(tintBytes[0], 1.0f);
    EXPECT_EQ(tintBytes[1], 0.0f);
    EXPECT_EQ(tintBytes[3], 1.0f);
}

TEST_F(SpirvCompile, ConflictingStagesAreRejected)
{
    CompiledUnit unit = CompileBoth();
    Ptr<BaseProgram> program(new BaseProgram());
    ASSERT_TRUE(program->AddReflection(ShaderType::Vertex, unit.vs));
    ShaderReflection moved = unit.ps;
    for (auto& block : moved.ConstantBuffers)
        for (auto& member : block.Members)
            if (member.Name == "After")
                member.Offset += 16;
    KovexTest::LogCapture log;
    EXPECT_FALSE(program->AddReflection(ShaderType::Pixel, moved));
    EXPECT_TRUE(log->Contains(u"Program: constant [After] lies at two places.\n"));
    // A resource outside set 0 is refused too.
    ShaderReflection other = unit.ps;
    other.Textures[0].Set = 1;
    Ptr<BaseProgram> second(new BaseProgram());
    EXPECT_FALSE(second->AddReflection(ShaderType::Pixel, other));
    EXPECT_TRUE(log->Contains(u"Program: [kovex_t_Diffuse] is in descriptor set 1; only set 0 is bound.\n"));
}

TEST_F(SpirvCompile, StructArraysInBlocks)
{
    const char* text = R"(struct Light { float4 position; float4 color; float range; };
cbuffer Lighting : register(b2) { Light Lights[2]; float Count; float3 Ambient; };
float4 VS(float3 p : POSITION) : SV_Position { return float4(p, 1) * Lights[1].range * Count; }
float4 PS() : SV_Target { return float4(Ambient, 1) + Lights[0].color; }
)";
    SpirvUnit unit;
    ASSERT_TRUE(unit.Preprocess(text, "lights.ksl", {}, nullptr));
    std::vector<uint32> words;
    ShaderReflection r;
    ASSERT_TRUE(unit.CompileStage(ShaderType::Pixel, "PS", words, &r)) << unit.GetErrors();
    const ShaderReflection::ConstantBuffer* block = FindBlock(r, "Lighting");
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(block->Binding, 2u);
    const ShaderReflection::Member* lights = FindMember(*block, "Lights");
    const ShaderReflection::Member* count = FindMember(*block, "Count");
    const ShaderReflection::Member* ambient = FindMember(*block, "Ambient");
    ASSERT_TRUE(lights && count && ambient);
    EXPECT_EQ(lights->Columns, 0u); // no shape: no default is looked for
    EXPECT_EQ(lights->ArrayCount, 2u);
    EXPECT_EQ(lights->ArrayStride, 48u);
    EXPECT_EQ(lights->Size, 96u);
    EXPECT_EQ(count->Offset, 96u);
    EXPECT_EQ(ambient->Columns, 3u);
    EXPECT_GE(ambient->Offset, count->Offset + 4);
    EXPECT_EQ(block->Size, ambient->Offset + 12);
}
