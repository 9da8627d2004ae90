// The Vulkan renderer gets the same program compiler as the null one, and a
// program compiles and posts on it.

#include <gtest/gtest.h>

#include "graphics/vulkan/VulkanTestSupport.h"
#include "shaders/PGCode.h"
#include "shaders/Program.h"
#include "shaders/ProgramCompiler.h"
#include "shaders/ProgramManager.h"

using namespace KovexEngine;

TEST(ProgramCompilerVulkan, TheVulkanRendererCompilesPrograms)
{
    KOVEX_SKIP_WITHOUT_VULKAN();
    KovexTest::VulkanEngine engine;
    ASSERT_TRUE(engine.IsOpen());
    ProgramCompiler* compiler = ProgramCompiler::Get();
    ASSERT_NE(compiler, nullptr);
    Ptr<PGFramework> fw(new PGFramework(u"SpvcVulkanFw", u"fw/Flat.ksl",
                                        AString("#include \"Material\"\n"
                                                "float4 VS(float3 p : POSITION) : SV_Position { return float4(p, 1); }\n"
                                                "float4 PS() : SV_Target { return Color; }\n")));
    Ptr<PGMaterial> mt(new PGMaterial(u"SpvcVulkanMt", u"mt/Flat.ksl", AString("float4 Color = float4(0, 1, 0, 1);\n")));
    PGConfFW* fwConf = fw->CreateConfig(u"DEFAULT");
    PGConfMT* mtConf = mt->CreateConfig(u"DEFAULT");
    uint64 before = compiler->GetCompileCount();
    Ptr<Program> program = ProgramManager::Ins()->BuildProgram(fwConf, nullptr, mtConf);
    ASSERT_NE(program, nullptr);
    EXPECT_TRUE(program->IsCreated());
    EXPECT_EQ(compiler->GetCompileCount(), before + 1);
    ASSERT_NE(program->GetShader(ShaderType::Pixel), nullptr);
    ShaderConstant* color = program->FindConstant(u"Color");
    ASSERT_NE(color, nullptr);
    ASSERT_NE(color->GetDefaultValue(), nullptr);
    EXPECT_EQ(color->GetDefaultValue()[1], 1.0f);
}
