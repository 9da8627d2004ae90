// kovex-shader: a KSL framework as the engine compiles it. `preprocess`
// prints the unit the engine compiles (framework, attribute and material
// code, macros applied, "#line" origins kept); `compile` compiles each stage
// to SPIR-V exactly as the program compiler does and prints what reflection
// finds. `--list` and `--builtin` do the same for the engine's built-in codes
// (PGResources), loaded from the data root on the null renderer. The help
// text is the manual.

#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "ToolEngine.h"
#include "kernel/StringConv.h"
#include "graphics/Renderer.h"
#include "graphics/Shader.h"
#include "lifecycle/Engine.h"
#include "graphics/ShaderReflection.h"
#include "shaders/PGCode.h"
#include "shaders/PGResources.h"
#include "shaders/Program.h"
#include "shaders/ProgramCompiler.h"
#include "shaders/ProgramCachedLibrary.h"
#include "shaders/ShaderInclude.h"
#include "shaders/SpirvCompiler.h"

using namespace KovexEngine;
using namespace KovexTools;
namespace fs = std::filesystem;

namespace {

const char* const kCacheUsage = "       kovex-shader cache list|check FILE\n";
const char* const kCacheHelp =
    "cache list  prints each program a \"shader.cache\" FILE holds: its\n"
    "            framework, attribute and material configuration texts, the\n"
    "            device's macro string, and each stage's tag and size.\n"
    "cache check reads FILE as the engine does and lists every inconsistency\n"
    "            (footer, tables, records, offsets, tags); exit 1 when any.\n";

const char* const kBuiltinUsage =
    "       kovex-shader --list [--data DIR]\n"
    "       kovex-shader --builtin CODE[:CONFIG]... [--data DIR] [-o FILE]\n";
const char* const kBuiltinHelp =
    "--list      loads the engine's built-in codes from the data root and\n"
    "            prints each (materials, attributes, frameworks, in the\n"
    "            engine's order) with its kind and file, then each of its\n"
    "            configurations (\"*\" marks the current one) with its macros\n"
    "            in order, texture descriptions (path, \"config\" for a\n"
    "            configuration texture) and sampler descriptions. A code whose\n"
    "            file did not load is listed as \"not loaded\".\n"
    "--builtin   compiles one program of built-in codes named as --list names\n"
    "            them: one framework (FW_...), at most one attribute (AB_...)\n"
    "            and one material (MT_...), each with a configuration after\n"
    "            \":\" or else its current one, e.g.\n"
    "              kovex-shader --builtin FW_DrawClear:NUM_RT_3\n"
    "              kovex-shader --builtin FW_NoLighting AB_Base MT_Triangle:DEFAULT\n"
    "            It prints the program's macros in the order the engine feeds\n"
    "            them (framework, attribute, material), then per stage what\n"
    "            compile prints. The engine's log lines are quoted on failure.\n"
    "            Exit 3 when a code or configuration name is unknown.\n";

const std::string kHelp = std::string(
    "usage: kovex-shader preprocess FRAMEWORK [options]\n"
    "       kovex-shader compile FRAMEWORK [options]\n") + kCacheUsage + kBuiltinUsage + std::string(
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
    "            original file and line.\n") + kCacheHelp + kBuiltinHelp + std::string(
    "\n"
    "  -a, --attribute FILE  the attribute code\n"
    "  -m, --material FILE   the material code\n"
    "  -D, --define NAME[=VALUE]\n"
    "                        a macro (value 1 when none is given); repeatable,\n"
    "                        applied in the order given\n"
    "  -I, --shaders DIR     the shader directory (default: the framework's own)\n"
    "      --tessellation    also compile HS and DS, with ALLOW_TESSELLATION=1\n"
    "      --compute         compile CS only, with USE_CS=1\n"
    "  -o, --output FILE     compile, --builtin: also write each module to\n"
    "                        FILE.STAGE.spv\n"
    "      --data DIR        --list, --builtin: the data root holding shaders/\n"
    "                        (default: the engine's own search for \"Data\")\n"
    "  -h, --help            this text\n"
    "      --version         the version\n") +
    kExitStatusHelp + "3 an unknown built-in code or configuration name (--builtin).\n";
constexpr int kExitUnknownName = 3;

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

int CacheCommand(const std::string& what, const std::string& path)
{
    if (!fs::is_regular_file(path))
        return g_cl->Fail(Quote(path) + (fs::exists(path) ? " is not a file" : " does not exist"));
    ProgramCachedLibrary::Inspection inspection;
    if (!ProgramCachedLibrary::InspectFile(StringConvFuncs::ToWString(path.c_str()), inspection))
        return g_cl->Fail("cannot read " + Quote(path));
    if (what == "list")
    {
        std::printf("%s: %u programs, %llu bytes\n", path.c_str(), inspection.Count,
                    static_cast<unsigned long long>(inspection.FileSize));
        for (const auto& record : inspection.Records)
        {
            std::printf("program framework %s\n", record.Framework.c_str());
            std::printf("  attribute %s\n", record.Attribute.c_str());
            std::printf("  material  %s\n", record.Material.c_str());
            std::printf("  device    %s\n", record.MacroString.c_str());
            for (unsigned i = 0; i < record.StageTags.Count() && i < record.StageSizes.Count(); ++i)
                std::printf("  stage %s %u bytes\n", record.StageTags[i].c_str(), record.StageSizes[i]);
        }
    }
    for (const AString& problem : inspection.Problems)
        g_cl->Warn(problem.c_str());
    if (!inspection.Problems.IsEmpty())
        return g_cl->Fail(Quote(path) + " does not hold together (" + std::to_string(inspection.Problems.Count()) +
                          " problems)");
    if (what == "check")
        std::printf("%s: sound, %u programs\n", path.c_str(), inspection.Count);
    return kExitSuccess;
}

// --- Built-in codes -------------------------------------------------------------

struct BuiltinCode
{
    const char* name;  // the static's, "FW_DrawClear"
    std::string file;  // "[core]shaders/DrawClear.ksl"
    PGCode* code;      // null when its file did not load
};

std::vector<BuiltinCode> BuiltinCodes()
{
    std::vector<BuiltinCode> codes;
    for (unsigned i = 0; i < PGResources::GetNumCodes(); ++i)
        codes.push_back({PGResources::GetCodeName(i),
                         "[core]shaders/" + std::string(StringConvFuncs::ToAString(PGResources::GetCodeFile(i)).c_str()),
                         PGResources::GetCode(i)});
    return codes;
}

// The kind a static's name gives (MT_, AB_, FW_).
PGCode::TYPE KindOfName(const std::string& name)
{
    if (name.compare(0, 3, "MT_") == 0)
        return PGCode::Material;
    if (name.compare(0, 3, "AB_") == 0)
        return PGCode::Attribute;
    return PGCode::Framework;
}

const char* KindWord(PGCode::TYPE type)
{
    return type == PGCode::Material ? "material" : type == PGCode::Attribute ? "attribute" : "framework";
}

std::string Narrow(const WString& text) { return StringConvFuncs::ToAString(text.c_str()).c_str(); }
std::string Narrow(const char16_t* text) { return text ? StringConvFuncs::ToAString(text).c_str() : "?"; }

void PrintEngineMessages(const CommandLine& cl)
{
    for (const std::string& line : TakeEngineMessages())
        cl.Warn(line);
}

// Loads every built-in code; false (after saying why) when the engine did
// not start. Codes that fail to load stay null and are reported by name.
// The null renderer provides the program compiler.
bool LoadBuiltins(const CommandLine& cl)
{
    if (!StartEngine(cl))
        return false;
    Renderer::SetupPlatformAuto();
    GraphicsParameters parameters;
    parameters.Width = 64;
    parameters.Height = 64;
    Kovex_InitRenderer(parameters);
    if (!ProgramCompiler::Get())
    {
        PrintEngineMessages(cl);
        StopEngine();
        cl.Fail("the engine has no program compiler");
        return false;
    }
    PGResources::Initialize();
    PGResources::LoadWireframeFW();
    return true;
}

int ListBuiltins(const CommandLine& cl)
{
    if (!LoadBuiltins(cl))
        return kExitFailure;
    unsigned missing = 0;
    for (const BuiltinCode& entry : BuiltinCodes())
    {
        PGCode* code = entry.code;
        if (!code)
        {
            std::printf("%s %s %s not loaded\n", entry.name, KindWord(KindOfName(entry.name)), entry.file.c_str());
            ++missing;
            continue;
        }
        std::printf("%s %s %s\n", entry.name, KindWord(code->Type()), entry.file.c_str());
        for (const auto& pair : code->GetConfigMap())
        {
            const PGCodeConf* conf = pair.value;
            std::printf("  config %s%s\n", Narrow(*conf->GetName()).c_str(), conf == code->GetCurConf() ? " *" : "");
            for (const auto& macro : conf->GetMacros())
                std::printf("    macro %s=%s\n", macro.key.c_str(), macro.value.c_str());
            for (const auto& texture : conf->GetTextureDescMap())
                std::printf("    texture %s%s%s%s\n", Narrow(*texture.value.Name).c_str(),
                            texture.value.Path.IsEmpty() ? "" : " ", Narrow(texture.value.Path).c_str(),
                            texture.value.ConfigTexture ? " config" : "");
            for (const auto& sampler : conf->GetSamplerDescMap())
            {
                const SamplerStateDesc& d = sampler.value.Desc;
                std::printf("    sampler %s filter %s address %s %s %s comparison %s\n",
                            Narrow(*sampler.value.Name).c_str(), Narrow(d.Filter.GetName()).c_str(),
                            Narrow(d.AddressU.GetName()).c_str(), Narrow(d.AddressV.GetName()).c_str(),
                            Narrow(d.AddressW.GetName()).c_str(), Narrow(d.ComparisonFunc.GetName()).c_str());
            }
        }
    }
    PrintEngineMessages(cl);
    StopEngine();
    if (missing)
        return cl.Fail(std::to_string(missing) + " built-in codes did not load");
    return kExitSuccess;
}

// One CODE[:CONFIG] operand resolved; `status` is the exit status on failure.
struct Resolved
{
    const PGCodeConf* conf = nullptr;
    PGCode::TYPE type = PGCode::Framework;
    std::string label;
};

int Resolve(const CommandLine& cl, const std::vector<BuiltinCode>& codes, const std::string& spec, Resolved& out)
{
    size_t colon = spec.find(':');
    std::string name = spec.substr(0, colon);
    const BuiltinCode* entry = nullptr;
    for (const BuiltinCode& candidate : codes)
        if (name == candidate.name)
            entry = &candidate;
    if (!entry)
    {
        cl.Fail("unknown built-in code " + Quote(name) + " (kovex-shader --list names them)");
        return kExitUnknownName;
    }
    if (!entry->code)
    {
        PrintEngineMessages(cl);
        return cl.Fail(name + " did not load from its file");
    }
    PGCode* code = entry->code;
    if (colon == std::string::npos)
    {
        code->ValidateDefault();
        out.conf = code->GetCurConf();
    }
    else
    {
        std::string confName = spec.substr(colon + 1);
        out.conf = code->GetConfig(StringConvFuncs::ToWString(confName.c_str()));
        if (!out.conf)
        {
            std::string known;
            for (const auto& pair : code->GetConfigMap())
                known += (known.empty() ? "" : ", ") + Narrow(pair.key);
            cl.Fail(name + " has no configuration " + Quote(confName) + " (it has: " + known + ")");
            return kExitUnknownName;
        }
    }
    out.type = code->Type();
    out.label = name + ":" + Narrow(*out.conf->GetName());
    return kExitSuccess;
}

bool WriteModule(const CommandLine& cl, const std::string& path, const void* code, size_t size)
{
    FILE* out = std::fopen(path.c_str(), "wb");
    if (!out || std::fwrite(code, 1, size, out) != size)
    {
        if (out)
            std::fclose(out);
        cl.Fail("cannot write " + Quote(path));
        return false;
    }
    std::fclose(out);
    return true;
}

int CompileBuiltin(const CommandLine& cl, const std::vector<std::string>& specs)
{
    if (specs.empty())
        return cl.UsageError("--builtin needs at least a framework (FW_...)");
    if (!LoadBuiltins(cl))
        return kExitFailure;
    const std::vector<BuiltinCode> codes = BuiltinCodes();
    const PGCodeConf* chosen[PGCode::TYPE_COUNT] = {};
    std::string labels[PGCode::TYPE_COUNT];
    int status = kExitSuccess;
    for (const std::string& spec : specs)
    {
        Resolved resolved;
        status = Resolve(cl, codes, spec, resolved);
        if (status != kExitSuccess)
            break;
        if (chosen[resolved.type])
        {
            status = cl.UsageError(std::string("two ") + KindWord(resolved.type) + "s given: " +
                                   labels[resolved.type] + " and " + resolved.label);
            break;
        }
        chosen[resolved.type] = resolved.conf;
        labels[resolved.type] = resolved.label;
    }
    if (status == kExitSuccess && !chosen[PGCode::Framework])
        status = cl.UsageError("--builtin needs a framework (FW_...)");
    if (status != kExitSuccess)
    {
        StopEngine();
        return status;
    }

    const PGConfFW* fw = static_cast<const PGConfFW*>(chosen[PGCode::Framework]);
    Program* program = fw->GetProgram(static_cast<const PGConfAB*>(chosen[PGCode::Attribute]),
                                      static_cast<const PGConfMT*>(chosen[PGCode::Material]));
    std::string label = labels[PGCode::Framework];
    for (int type : {PGCode::Attribute, PGCode::Material})
        if (chosen[type])
            label += " " + labels[type];
    if (!program || program->IsFailed())
    {
        PrintEngineMessages(cl);
        StopEngine();
        return cl.Fail("program " + label + " failed to compile");
    }
    std::printf("program %s\n", label.c_str());
    unsigned count = program->GetNumMacros() + 1;
    std::vector<ShaderMacro> macros(count);
    program->GetMacros(macros.data(), &count);
    for (unsigned i = 0; i < count; ++i)
        std::printf("  macro %s=%s\n", macros[i].Name ? macros[i].Name : "", macros[i].Definition ? macros[i].Definition : "");
    static const char* const kProfiles[] = {"vs_5_0", "ps_5_0", "gs_5_0", "hs_5_0", "ds_5_0", "cs_5_0"};
    static const char* const kEntries[] = {"VS", "PS", "GS", "HS", "DS", "CS"};
    int result = kExitSuccess;
    for (unsigned s = 0; s < BaseProgram::kStages && result == kExitSuccess; ++s)
    {
        Shader* shader = program->GetShader(ShaderType::TYPE(s));
        if (!shader)
            continue;
        std::printf("stage %s (%s) %u bytes\n", kEntries[s], kProfiles[s], unsigned(shader->GetShaderCodeSize()));
        PrintReflection(shader->GetReflection());
        if (cl.Has("output") &&
            !WriteModule(cl, cl.Value("output") + "." + kEntries[s] + ".spv", shader->GetShaderCode(),
                         shader->GetShaderCodeSize()))
            result = kExitFailure;
    }
    StopEngine();
    return result;
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
    cl.Add(0, "list", false);
    cl.Add(0, "builtin", false);
    AddDataOption(cl);
    g_cl = &cl;
    int status = cl.Parse(argc, argv);
    if (status >= 0)
        return status;
    const std::vector<std::string>& args = cl.Operands();
    if (cl.Has("list") || cl.Has("builtin"))
    {
        if (cl.Has("list") && cl.Has("builtin"))
            return cl.UsageError("--list and --builtin go alone");
        for (const char* option : {"attribute", "material", "define", "shaders", "tessellation", "compute"})
            if (cl.Has(option))
                return cl.UsageError(std::string("--") + option + " belongs to preprocess and compile");
        if (cl.Has("list"))
        {
            if (!args.empty() || cl.Has("output"))
                return cl.UsageError("--list takes no operands");
            return ListBuiltins(cl);
        }
        return CompileBuiltin(cl, args);
    }
    if (cl.Has("data"))
        return cl.UsageError("--data belongs to --list and --builtin");
    if (args.empty())
        return cl.UsageError("no command given (preprocess, compile, cache, --list or --builtin)");
    const std::string& command = args[0];
    if (command == "cache")
    {
        if (args.size() != 3 || (args[1] != "list" && args[1] != "check"))
            return cl.UsageError("cache needs list or check, and one FILE");
        return CacheCommand(args[1], args[2]);
    }
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
