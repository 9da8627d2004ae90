// kovex-shader: a KSL framework as the engine compiles it. `preprocess`
// prints the unit the engine compiles (framework, attribute and material
// code, macros applied, "#line" origins kept); `compile` compiles each stage
// to SPIR-V exactly as the program compiler does and prints what reflection
// finds. The help text is the manual.

#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "kernel/StringConv.h"
#include "graphics/ShaderReflection.h"
#include "shaders/ShaderInclude.h"
#include "shaders/SpirvCompiler.h"

using namespace KovexEngine;
using namespace KovexTools;
namespace fs = std::filesystem;

namespace {

const std::string kHelp = std::string(
    "usage: kovex-shader preprocess FRAMEWORK [options]\n"
    "       kovex-shader compile FRAMEWORK [options]\n"
    "\n"
    "FRAMEWORK is a KSL framework file (\"-\" is standard input). Its\n"
    "#include \"Attribute\" and #include \"Material\" (any case) take the files\n"
    "given with --attribute and --material; any other #include \"NAME\" is\n"
    "read from the shader directory, as the engine reads \"[core]shaders/NAME\".\n"
    "Every file is included once; a repeat expands to nothing.\n"
    "\n"
    "preprocess  prints the unit the engine compiles: the texts joined, macros\n"
    "            applied, and \"#line\" lines naming each part's file.\n"
    "compile     compiles the stages the engine would (VS and PS; GS when the\n"
    "            unit defines it; HS and DS with --tessellation; CS alone with\n"
    "            --compute) to SPIR-V for Vulkan 1.1, validates each module,\n"
    "            and prints per stage its size, constant buffers (set, binding,\n"
    "            size; each constant's offset and size), textures, samplers,\n"
    "            read-write buffers and vertex inputs. Errors name the\n"
    "            original file and line.\n"
    "\n"
    "  -a, --attribute FILE  the attribute code\n"
    "  -m, --material FILE   the material code\n"
    "  -D, --define NAME[=VALUE]\n"
    "                        a macro (value 1 when none is given); repeatable,\n"
    "                        applied in the order given\n"
    "  -I, --shaders DIR     the shader directory (default: the framework's own)\n"
    "      --tessellation    also compile HS and DS, with ALLOW_TESSELLATION=1\n"
    "      --compute         compile CS only, with USE_CS=1\n"
    "  -o, --output FILE     compile: also write each module to FILE.STAGE.spv\n"
    "  -h, --help            this text\n"
    "      --version         the version\n") +
    kExitStatusHelp;

CommandLine* g_cl = nullptr;
std::string Quote(const std::string& text) { return "'" + text + "'"; }

// Include files read from the shader directory, kept for the compile.
class DirectoryFiles
{
public:
    explicit DirectoryFiles(std::string dir) : m_dir(std::move(dir)) {}
    ShaderIncludeHandler::OpenFunction Function()
    {
        return [this](const WString& path) -> const AString* {
            std::string name = StringConvFuncs::ToAString(path.c_str()).c_str();
            std::string root = ShaderIncludeHandler::kRoot;
            if (name.compare(0, root.size(), root) == 0)
                name = name.substr(root.size());
            std::string text;
            std::string file = (fs::path(m_dir) / name).string();
            if (!fs::is_regular_file(file) || !g_cl->ReadInput(file, text))
            {
                m_missing.push_back(file);
                return nullptr;
            }
            m_texts.emplace_back(new AString(text.c_str(), unsigned(text.size())));
            return m_texts.back().get();
        };
    }
    const std::vector<std::string>& Missing() const { return m_missing; }

private:
    std::string m_dir;
    std::vector<std::unique_ptr<AString>> m_texts;
    std::vector<std::string> m_missing;
};

void PrintReflection(const ShaderReflection& r)
{
    for (const auto& block : r.ConstantBuffers)
    {
        std::printf("  cbuffer %s set %u binding %u size %u\n", block.Name.c_str(), block.Set, block.Binding,
                    block.Size);
        for (const auto& member : block.Members)
        {
            std::printf("    %-24s offset %4u size %4u", member.Name.c_str(), member.Offset, member.Size);
            if (member.ArrayCount)
                std::printf(" array %u stride %u", member.ArrayCount, member.ArrayStride);
            if (member.Rows > 1)
                std::printf(" matrix %ux%u stride %u%s", member.Columns, member.Rows, member.MatrixStride,
                            member.RowMajor ? " row-major" : "");
            std::printf("\n");
        }
    }
    auto resources = [](const char* kind, const std::vector<ShaderReflection::Resource>& list) {
        for (const auto& resource : list)
        {
            std::printf("  %s %s set %u binding %u", kind, resource.Name.c_str(), resource.Set, resource.Binding);
            if (resource.ArraySize > 1)
                std::printf(" array %u", resource.ArraySize);
            std::printf("\n");
        }
    };
    resources("texture", r.Textures);
    resources("sampler", r.Samplers);
    resources("rw", r.RWBuffers);
    for (const auto& input : r.Inputs)
        std::printf("  input %s location %u components %u (%s)\n", input.Semantic.c_str(), input.Location,
                    input.Components, input.Name.c_str());
    if (r.WorkGroupSize[0])
        std::printf("  threads %u %u %u\n", r.WorkGroupSize[0], r.WorkGroupSize[1], r.WorkGroupSize[2]);
}

bool ReadCode(const std::string& option, AString& text, std::string& name)
{
    name = g_cl->Value(option.c_str());
    if (name.empty())
        return true;
    std::string bytes;
    if (!g_cl->ReadInput(name, bytes))
        return false;
    text = AString(bytes.c_str(), unsigned(bytes.size()));
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    CommandLine cl("kovex-shader", kHelp);
    cl.Add('a', "attribute", true);
    cl.Add('m', "material", true);
    cl.Add('D', "define", true);
    cl.Add('I', "shaders", true);
    cl.Add(0, "tessellation", false);
    cl.Add(0, "compute", false);
    cl.Add('o', "output", true);
    g_cl = &cl;
    int status = cl.Parse(argc, argv);
    if (status >= 0)
        return status;
    const std::vector<std::string>& args = cl.Operands();
    if (args.empty())
        return cl.UsageError("no command given (preprocess or compile)");
    const std::string& command = args[0];
    if (command != "preprocess" && command != "compile")
        return cl.UsageError("unknown command " + Quote(command));
    if (args.size() != 2)
        return cl.UsageError(command + " needs one FRAMEWORK");
    if (cl.Has("output") && command != "compile")
        return cl.UsageError("--output belongs to compile");

    const std::string& frameworkPath = args[1];
    std::string framework;
    if (!cl.ReadInput(frameworkPath, framework))
        return kExitFailure;
    AString attribute, material;
    std::string attributeName, materialName;
    if (!ReadCode("attribute", attribute, attributeName) || !ReadCode("material", material, materialName))
        return kExitFailure;
    std::string dir = cl.Value("shaders");
    if (dir.empty())
        dir = frameworkPath == "-" ? "." : fs::path(frameworkPath).parent_path().string();
    if (dir.empty())
        dir = ".";
    if (!fs::is_directory(dir))
        return cl.Fail("the shader directory " + Quote(dir) + " does not exist");

    std::vector<SpirvMacro> macros;
    for (const std::string& define : cl.Values("define"))
    {
        size_t equals = define.find('=');
        std::string name = define.substr(0, equals);
        if (name.empty())
            return cl.UsageError("-D needs a NAME");
        macros.push_back({name, equals == std::string::npos ? "1" : define.substr(equals + 1)});
    }
    bool compute = cl.Has("compute");
    bool tessellation = cl.Has("tessellation");
    if (compute)
        macros.push_back({"USE_CS", "1"});
    if (tessellation)
        macros.push_back({"ALLOW_TESSELLATION", "1"});

    SpirvProcess process;
    DirectoryFiles files(dir);
    ShaderIncludeHandler handler({attribute.Length() ? &attribute : nullptr, attributeName},
                                 {material.Length() ? &material : nullptr, materialName}, files.Function());
    SpirvUnit unit;
    std::string unitName = frameworkPath == "-" ? std::string("stdin") : frameworkPath;
    if (!unit.Preprocess(framework, unitName, macros, &handler))
    {
        for (const std::string& missing : files.Missing())
            cl.Warn("include " + Quote(missing) + " does not exist");
        if (attribute.Length() == 0)
            for (const std::string& name : handler.GetIncluded())
                if (name == "Attribute")
                    cl.Warn("the framework includes \"Attribute\" but no --attribute was given");
        if (material.Length() == 0)
            for (const std::string& name : handler.GetIncluded())
                if (name == "Material")
                    cl.Warn("the framework includes \"Material\" but no --material was given");
        std::fprintf(stderr, "%s", unit.GetErrors().c_str());
        return cl.Fail("preprocessing " + Quote(unitName) + " failed");
    }
    if (command == "preprocess")
    {
        std::fwrite(unit.GetText().data(), 1, unit.GetText().size(), stdout);
        return kExitSuccess;
    }

    std::vector<ShaderType> stages;
    if (compute)
        stages.push_back(ShaderType::Compute);
    else
    {
        stages = {ShaderType::Vertex, ShaderType::Pixel};
        if (unit.DefinesFunction("GS"))
            stages.push_back(ShaderType::Geometry);
        if (tessellation)
        {
            stages.push_back(ShaderType::Hull);
            stages.push_back(ShaderType::Domain);
        }
    }
    static const char* const kProfiles[] = {"vs_5_0", "ps_5_0", "gs_5_0", "hs_5_0", "ds_5_0", "cs_5_0"};
    static const char* const kEntries[] = {"VS", "PS", "GS", "HS", "DS", "CS"};
    SpirvUnit::SetValidateOutput(true);
    std::printf("unit %s hash %016llx\n", unitName.c_str(), static_cast<unsigned long long>(unit.GetHash()));
    for (ShaderType stage : stages)
    {
        std::vector<uint32> words;
        ShaderReflection reflection;
        const char* entry = kEntries[stage.value];
        if (!unit.CompileStage(stage, entry, words, &reflection))
        {
            std::fprintf(stderr, "%s", unit.GetErrors().c_str());
            return cl.Fail(std::string("stage ") + entry + " (" + kProfiles[stage.value] + ") failed to compile");
        }
        std::printf("stage %s (%s) %zu bytes\n", entry, kProfiles[stage.value], words.size() * 4);
        PrintReflection(reflection);
        if (cl.Has("output"))
        {
            std::string path = cl.Value("output") + "." + entry + ".spv";
            FILE* out = std::fopen(path.c_str(), "wb");
            if (!out || std::fwrite(words.data(), 4, words.size(), out) != words.size())
            {
                if (out)
                    std::fclose(out);
                return cl.Fail("cannot write " + Quote(path));
            }
            std::fclose(out);
        }
    }
    return kExitSuccess;
}
