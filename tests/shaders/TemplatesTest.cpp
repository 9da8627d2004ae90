// The engine's own templates: they load as codes, and compile to valid
// SPIR-V under the macros that real configurations give them.

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "kernel/StringConv.h"
#include "shaders/PGCode.h"
#include "shaders/Program.h"
#include "shaders/ProgramManager.h"
#include "support/TempDir.h"

using namespace KovexEngine;

namespace {

const std::string kTemplates = std::string(KOVEX_SOURCE_DATA) + "/shaders/";

WString TemplatePath(const char* name) { return StringConvFuncs::ToWString((kTemplates + name).c_str()); }

bool HaveGlslang() { return std::system("glslangValidator --version > /dev/null 2>&1") == 0; }

std::string ShellQuote(const std::string& text)
{
    std::string out = "'";
    for (char c : text)
        out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

// glslangValidator over the framework, with the program's macros and the
// attribute's and material's texts where the engine's include handler puts
// them; true when both stages compile and validate.
bool CompileStages(const Program& program, const KovexTest::TempDir& dir, std::string& log)
{
    {
        std::ofstream(dir.path + "/Attribute") << program.GetConfAB()->GetCode()();
        std::ofstream(dir.path + "/Material") << program.GetConfMT()->GetCode()();
        std::ofstream(dir.path + "/unit.ksl") << program.GetConfFW()->GetCode()();
    }
    ShaderMacro macros[64];
    unsigned count = 64;
    program.GetMacros(macros, &count);
    std::string defines;
    for (unsigned i = 0; i < count; ++i)
        defines += " " + ShellQuote(std::string("-D") + macros[i].Name + "=" +
                                    (macros[i].Definition && *macros[i].Definition ? macros[i].Definition : "1"));
    bool ok = true;
    for (const char* stage : {"vert VS", "frag PS"})
    {
        std::istringstream parts(stage);
        std::string kind, entry;
        parts >> kind >> entry;
        std::string command = "glslangValidator -D -V --target-env vulkan1.1 --shift-texture-binding 16 "
                              "--shift-sampler-binding 32 -S " + kind + " -e " + entry + defines + " -I" +
                              ShellQuote(dir.path) + " " + ShellQuote(dir.path + "/unit.ksl") + " -o " +
                              ShellQuote(dir.path + "/" + entry + ".spv") + " > " + ShellQuote(dir.path + "/log") +
                              " 2>&1";
        if (std::system(command.c_str()) != 0)
        {
            ok = false;
            std::ifstream in(dir.path + "/log");
            log += std::string(std::istreambuf_iterator<char>(in), {}) + "\n";
        }
    }
    return ok;
}

} // namespace

TEST(ShaderTemplates, LoadAsCodes)
{
    ProgramManager* manager = ProgramManager::Ins();
    Ptr<PGFramework> fw = manager->LoadFramework(TemplatePath("NoLighting.ksl"));
    Ptr<PGAttribute> ab = manager->LoadAttribute(TemplatePath("Attribute_Base.ksl"));
    Ptr<PGMaterial> mt = manager->LoadMaterial(TemplatePath("Material_Triangle.ksl"));
    ASSERT_TRUE(fw && ab && mt);
    EXPECT_NE(fw->GetCode().IndexOf("#include \"Attribute\""), kNotFound);
    EXPECT_NE(fw->GetCode().IndexOf("#include \"Material\""), kNotFound);
    // The attribute honours instancing, so its programs may instance.
    EXPECT_TRUE(ab->IsInstancingAllowed());
    ASSERT_NE(mt->GetCurConf(), nullptr);
}

TEST(ShaderTemplates, CompileUnderEveryBlendModeWithGlslang)
{
    if (!HaveGlslang())
        GTEST_SKIP() << "glslangValidator is not installed";
    ProgramManager* manager = ProgramManager::Ins();
    Ptr<PGFramework> fw = manager->LoadFramework(TemplatePath("NoLighting.ksl"));
    Ptr<PGAttribute> ab = manager->LoadAttribute(TemplatePath("Attribute_Base.ksl"));
    Ptr<PGMaterial> mt = manager->LoadMaterial(TemplatePath("Material_Triangle.ksl"));
    ASSERT_TRUE(fw && ab && mt);
    PGConfAB* instanced = ab->CreateConfig(u"DEFAULT[INSTANCE_RENDERING]");
    instanced->SetMacro("USE_INSTANCE_RENDERING", "1");
    KovexTest::TempDir dir;
    for (int mode = BlendMode::Opaque; mode <= BlendMode::Subtractive; ++mode)
    {
        PGConfMT* conf = mt->CreateConfig(BlendMode(mode), TranslucentDepthMode::TestOnly, TwoSideMode::None);
        ASSERT_NE(conf, nullptr);
        conf->SetOpaqueMask(0.5f);
        if (mode % 2)
            conf->SetMacro("USE_DIFFUSE_TEXTURE", "1");
        Ptr<Program> program(new Program(fw->GetCurConf(), mode % 2 ? instanced : ab->GetCurConf(), conf));
        std::string log;
        EXPECT_TRUE(CompileStages(*program, dir, log)) << "blend mode " << mode << ":\n" << log;
    }
}
