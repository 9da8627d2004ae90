#include "shaders/ProgramCompiler.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "graphics/ConstantBuffer.h"
#include "graphics/RenderStates.h"
#include "graphics/Renderer.h"
#include "graphics/ShaderReflection.h"
#include "graphics/StateDesc.h"
#include "graphics/Texture.h"
#include "graphics/TextureFactory.h"
#include "kernel/EngineGlobals.h"
#include "kernel/Log.h"
#include "kernel/StringConv.h"
#include "kernel/Timer.h"
#include "shaders/PGCode.h"
#include "shaders/Program.h"
#include "shaders/ProgramManager.h"
#include "shaders/ShaderInclude.h"
#include "shaders/ShaderParser.h"
#include "shaders/SpirvCompiler.h"

namespace KovexEngine {

namespace {

const char* const kProfiles[BaseProgram::kStages] = {"vs_5_0", "ps_5_0", "gs_5_0", "hs_5_0", "ds_5_0", "cs_5_0"};

// The unit of the program this thread compiles now: Compile preprocesses
// once and its steps (compile, reflect for defaults, cache) share the text.
struct CurrentCompile
{
    BaseProgram* Program = nullptr;
    SpirvUnit* Unit = nullptr;
};
thread_local CurrentCompile t_current;

class CurrentScope
{
public:
    CurrentScope(BaseProgram* program, SpirvUnit* unit) : m_saved(t_current) { t_current = {program, unit}; }
    ~CurrentScope() { t_current = m_saved; }

private:
    CurrentCompile m_saved;
};

std::string ToUtf8(const WString& text) { return StringConvFuncs::ToAString(text.c_str()).c_str(); }

// The text a configuration's code gives, and the name messages use for it.
ShaderIncludeHandler::Code CodeOf(const PGCodeConf* conf)
{
    ShaderIncludeHandler::Code code;
    if (!conf || !conf->GetParent())
        return code;
    code.Text = &conf->GetParent()->GetCode();
    code.Name = ToUtf8(conf->GetParent()->GetPath());
    if (code.Name.empty())
        code.Name = ToUtf8(conf->GetParent()->GetName());
    return code;
}

const Ptr<HWCapability>* Capability()
{
    const Ptr<Renderer>& renderer = Renderer::Get();
    return renderer && renderer->GetHWCapability() ? &renderer->GetHWCapability() : nullptr;
}

bool AllowCache()
{
    const Ptr<Renderer>& renderer = Renderer::Get();
    return renderer && renderer->AllowCacheShaders();
}

template <typename T>
void AddBySlot(const TMap<WString, Ptr<T>>& map, ShaderType stage, std::vector<std::pair<int, T*>>& out)
{
    for (const auto& pair : map)
    {
        int slot = pair.value->GetSlotInShader(stage);
        if (slot >= 0)
            out.emplace_back(slot, pair.value.Get());
    }
    std::stable_sort(out.begin(), out.end(),
                     [](const std::pair<int, T*>& a, const std::pair<int, T*>& b) { return a.first < b.first; });
}

bool ReflectionIsEmpty(const ShaderReflection& r)
{
    return r.ConstantBuffers.empty() && r.Textures.empty() && r.Samplers.empty() && r.RWBuffers.empty() &&
           r.Inputs.empty() && r.WorkGroupSize[0] == 0;
}

GraphicsFactory* MakeCompiler() { return new ProgramCompiler(); }

// Both renderers make their compiler through this maker.
const bool s_installed = [] {
    SetProgramCompilerMaker(&MakeCompiler);
    return true;
}();

} // namespace

ProgramCompiler::ProgramCompiler() : GraphicsFactory(FactoryType::ProgramCompiler), m_process(new SpirvProcess()) {}

ProgramCompiler::~ProgramCompiler() = default;

uint64 ProgramCompiler::GetCompileCount() const { return m_compileCount.load(); }

Ptr<Program> ProgramCompiler::CreateProgram(const PGConfFW* fw, const PGConfAB* ab, const PGConfMT* mt)
{
    return fw ? Ptr<Program>(new Program(fw, ab, mt)) : Ptr<Program>();
}

Ptr<ComputeProgram> ProgramCompiler::CreateComputeProgram(const PGCodeConf* conf)
{
    return conf ? Ptr<ComputeProgram>(new ComputeProgram(conf)) : Ptr<ComputeProgram>();
}

bool ProgramCompiler::UsesTessellation(const BaseProgram* program)
{
    const Program* drawing = dynamic_cast<const Program*>(program);
    const Ptr<HWCapability>* capability = Capability();
    return drawing && drawing->GetConfFW() && drawing->GetConfMT() && capability &&
           (*capability)->SupportTessellation && drawing->GetConfMT()->IsTessellation() &&
           drawing->GetConfFW()->IsTessellationAware();
}

void ProgramCompiler::GetMacroSet(BaseProgram* program, std::vector<std::pair<std::string, std::string>>& out) const
{
    out.clear();
    ShaderMacro macros[512];
    if (const Ptr<HWCapability>* capability = Capability())
    {
        unsigned count = 511;
        (*capability)->GetMacros(macros, &count);
        for (unsigned i = 0; i < count && macros[i].Name; ++i)
            out.emplace_back(macros[i].Name, macros[i].Definition ? macros[i].Definition : "");
    }
    unsigned count = 511;
    program->GetMacros(macros, &count);
    for (unsigned i = 0; i < count && macros[i].Name; ++i)
        out.emplace_back(macros[i].Name, macros[i].Definition ? macros[i].Definition : "");
    if (UsesTessellation(program))
        out.emplace_back("ALLOW_TESSELLATION", "1");
}

bool ProgramCompiler::PreprocessUnit(BaseProgram* program, SpirvUnit& unit)
{
    const PGCodeConf* configs[3] = {nullptr, nullptr, nullptr};
    unsigned count = 0;
    program->GetConfigs(configs, count);
    const PGCodeConf* unitConf = count > 0 ? configs[0] : nullptr;
    if (!unitConf || !unitConf->GetParent())
    {
        Log::Print(LOG_WARNING, u"Program: no framework code to compile.\n");
        return false;
    }
    ShaderIncludeHandler::Code main = CodeOf(unitConf);
    // A compute framework may keep its stage apart.
    if (program->IsCompute())
        if (const PGFramework* framework = dynamic_cast<const PGFramework*>(unitConf->GetParent()))
            if (framework->GetShaderCode(ShaderType::Compute).Length() > 0)
                main.Text = &framework->GetShaderCode(ShaderType::Compute);
    ShaderIncludeHandler::Code attribute, material;
    if (const Program* drawing = dynamic_cast<const Program*>(program))
    {
        attribute = CodeOf(drawing->GetConfAB());
        material = CodeOf(drawing->GetConfMT());
    }
    std::vector<std::pair<std::string, std::string>> pairs;
    GetMacroSet(program, pairs);
    std::vector<SpirvMacro> macros;
    for (auto& pair : pairs)
        macros.push_back({std::move(pair.first), std::move(pair.second)});
    ShaderIncludeHandler includes(attribute, material,
                                  [](const WString& path) { return ProgramManager::Ins()->OpenInclude(path); });
    std::string text(main.Text->c_str(), main.Text->Length());
    return unit.Preprocess(text, main.Name, macros, &includes);
}

SpirvUnit* ProgramCompiler::CurrentUnit(BaseProgram* program, SpirvUnit& local)
{
    if (t_current.Program == program && t_current.Unit)
        return t_current.Unit;
    // A step called on its own preprocesses for itself.
    return PreprocessUnit(program, local) ? &local : nullptr;
}

bool ProgramCompiler::CompileStages(BaseProgram* program, SpirvUnit& unit, const ShaderType* stages, unsigned count)
{
    ShaderFactory* factory = ShaderFactory::Get();
    if (!factory)
    {
        Log::Print(LOG_WARNING, u"Program: no shader factory.\n");
        return false;
    }
    for (unsigned i = 0; i < count; ++i)
    {
        ShaderType stage = stages[i];
        const char* entry = Renderer::GetShaderFuncName(stage);
        std::vector<uint32> words;
        ShaderReflection reflection;
        if (!unit.CompileStage(stage, entry, words, &reflection))
        {
            Log::Format(LOG_WARNING, u"Compile Shader %S %S failed !\n", kProfiles[stage.value], entry);
            return false;
        }
        uint32 size = uint32(words.size() * sizeof(uint32));
        void* code = std::malloc(size);
        if (!code)
            return false;
        std::memcpy(code, words.data(), size);
        Ptr<Shader> shader = factory->CreateShader(stage, code, size);
        if (!shader)
        {
            Log::Format(LOG_WARNING, u"Compile Shader %S %S failed !\n", kProfiles[stage.value], entry);
            return false;
        }
        shader->GetReflection() = std::move(reflection);
        program->SetShader(stage, shader);
    }
    return true;
}

bool ProgramCompiler::CompileShaders(BaseProgram* program)
{
    if (!program)
        return false;
    SpirvUnit local;
    SpirvUnit* unit = CurrentUnit(program, local);
    if (!unit)
        return false;
    // The geometry stage: the text and the framework's flag must agree, so
    // that the cache (which trusts the flag) finds what was compiled.
    bool textHasGS = unit->DefinesFunction(Renderer::GetShaderFuncName(ShaderType::Geometry));
    const Program* drawing = dynamic_cast<const Program*>(program);
    bool flagHasGS = drawing && drawing->GetConfFW() && drawing->GetConfFW()->UsesGeometryStage();
    if (textHasGS != flagHasGS)
    {
        Log::Format(LOG_WARNING, u"Program [%S]: the framework %S a geometry stage but its flags say %S.\n",
                    unit->GetFileName().c_str(), textHasGS ? "defines" : "does not define",
                    flagHasGS ? "it has one" : "it has none");
        return false;
    }
    ShaderType stages[5] = {ShaderType::Vertex, ShaderType::Pixel};
    unsigned count = 2;
    if (textHasGS)
        stages[count++] = ShaderType::Geometry;
    if (UsesTessellation(program))
    {
        stages[count++] = ShaderType::Hull;
        stages[count++] = ShaderType::Domain;
    }
    return CompileStages(program, *unit, stages, count);
}

bool ProgramCompiler::CompileComputeShader(BaseProgram* program)
{
    if (!program)
        return false;
    SpirvUnit local;
    SpirvUnit* unit = CurrentUnit(program, local);
    if (!unit)
        return false;
    const ShaderType stage = ShaderType::Compute;
    return CompileStages(program, *unit, &stage, 1);
}

bool ProgramCompiler::ReflectShaders(BaseProgram* program)
{
    if (!program)
        return false;
    program->ClearResources();
    for (unsigned s = 0; s < BaseProgram::kStages; ++s)
    {
        ShaderType stage = ShaderType::TYPE(s);
        Shader* shader = program->GetShader(stage);
        if (!shader)
            continue;
        // Byte code from the cache comes without its reflection.
        if (ReflectionIsEmpty(shader->GetReflection()) && shader->GetShaderCode())
        {
            const uint32* words = static_cast<const uint32*>(shader->GetShaderCode());
            std::vector<uint32> module(words, words + shader->GetShaderCodeSize() / 4);
            std::string error;
            if (!SpirvReflect(module, shader->GetReflection(), error))
            {
                Log::Format(LOG_WARNING, u"Program: reflection of stage %S failed: %S\n",
                            Renderer::GetShaderFuncName(stage), error.c_str());
                return false;
            }
        }
        if (!program->AddReflection(stage, shader->GetReflection()))
            return false;
    }

    // Defaults: the front end drops initialisers of globals, the text has them.
    SpirvUnit local;
    if (SpirvUnit* unit = CurrentUnit(program, local))
        for (unsigned s = 0; s < BaseProgram::kStages; ++s)
        {
            Shader* shader = program->GetShader(ShaderType::TYPE(s));
            if (!shader)
                continue;
            for (const ShaderReflection::ConstantBuffer& block : shader->GetReflection().ConstantBuffers)
                for (const ShaderReflection::Member& member : block.Members)
                {
                    ShaderConstant* constant = program->FindConstant(StringConvFuncs::ToWString(member.Name.c_str()));
                    ShaderParser::VarInfo info;
                    info.Type = ShaderParser::TypeOf(member.Columns, member.Rows);
                    info.Count = member.ArrayCount ? member.ArrayCount : 1;
                    if (constant && !constant->GetDefaultValue() && info.Type >= 0)
                        ShaderParser::GetDefaultValue(unit->GetText().c_str(), info, constant);
                }
        }
    return program->CreateConstantBuffers();
}

bool ProgramCompiler::Link(BaseProgram* program)
{
    if (!program)
        return false;
    const PGCodeConf* configs[3] = {nullptr, nullptr, nullptr};
    unsigned count = 0;
    program->GetConfigs(configs, count);
    if (count == 0)
    {
        Log::Print(LOG_WARNING, u"Program: no configuration to link.\n");
        return false;
    }
    for (const auto& pair : program->GetSamplerMap())
    {
        const PGSamplerDesc* desc = nullptr;
        for (unsigned i = 0; i < count && !desc; ++i)
            desc = configs[i]->GetSamplerDesc(pair.key);
        // Point filtering, wrap, anisotropy 16, the whole LOD range and no
        // comparison when no configuration names the sampler.
        SamplerStateDesc fallback;
        SamplerStateFactory* factory = SamplerStateFactory::Get();
        if (factory)
            pair.value->Value = factory->Create(desc ? desc->Desc : fallback);
    }
    for (const auto& pair : program->GetTextureMap())
        for (unsigned i = 0; i < count; ++i)
            if (const PGTextureDesc* desc = configs[i]->GetTextureDesc(pair.key))
            {
                if (desc->Path.Length() > 0)
                    if (TextureFactory* factory = TextureFactory::Get())
                        pair.value->Value = factory->Create(desc->Path, nullptr);
                pair.value->FromConfig = desc->ConfigTexture;
                break;
            }
    program->ApplyConstantDefaultValue();
    return LinkShaders(program);
}

bool ProgramCompiler::LinkShaders(BaseProgram* program)
{
    if (!program)
        return false;
    for (unsigned s = 0; s < BaseProgram::kStages; ++s)
        if (Shader* shader = program->GetShader(ShaderType::TYPE(s)))
            if (!LinkShader(shader, program))
                return false;
    return true;
}

bool ProgramCompiler::LinkShader(Shader* shader, BaseProgram* program)
{
    if (!shader || !program)
        return false;
    shader->ClearLinks();
    ShaderType stage = shader->GetType();
    std::vector<std::pair<int, ShaderSampler*>> samplers;
    AddBySlot(program->GetSamplerMap(), stage, samplers);
    for (auto& pair : samplers)
        shader->AddSampler(pair.second);
    std::vector<std::pair<int, ShaderTexture*>> textures;
    AddBySlot(program->GetTextureMap(), stage, textures);
    for (auto& pair : textures)
        shader->AddTexture(pair.second);
    std::vector<std::pair<int, ShaderBuffer*>> buffers;
    AddBySlot(program->GetBufferMap(), stage, buffers);
    for (auto& pair : buffers)
        shader->AddBuffer(pair.second);
    std::vector<std::pair<int, ShaderCBuffer*>> cbuffers;
    for (unsigned i = 0; i < program->GetNumCBuffers(); ++i)
        if (program->GetCBuffer(i)->GetSlotInShader(stage) >= 0)
            cbuffers.emplace_back(program->GetCBuffer(i)->GetSlotInShader(stage), program->GetCBuffer(i));
    std::stable_sort(cbuffers.begin(), cbuffers.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    for (auto& pair : cbuffers)
        shader->AddCBuffer(pair.second);
    return true;
}

namespace {

// The steps Compile and CompileCompute share; `compile` runs the compiler.
template <typename Step>
bool RunCompile(ProgramCompiler& compiler, BaseProgram* program, std::atomic<int32>* pending,
                std::atomic<uint64>& counter, Step compile)
{
    // A program that failed once stays failed: it is not compiled again.
    if (program->IsFailed())
        return false;
    SpirvUnit unit;
    CurrentScope scope(program, &unit);
    if (!compiler.PreprocessUnit(program, unit))
    {
        program->SetState(GraphicsObject::Failed);
        return false;
    }
    bool fromCache = false;
    (void)AllowCache; // the cache library joins here
    if (!fromCache)
    {
        int64 start = Timer::GetCPUTicks();
        bool compiled = compile();
        Log::Format(LOG_INFO, u"Compile program time = %f ms.\n",
                    Timer::TicksToSeconds(Timer::GetCPUTicks() - start) * 1000.0);
        counter.fetch_add(1);
        if (!compiled)
        {
            program->SetState(GraphicsObject::Failed);
            return false;
        }
    }
    if (!compiler.ReflectShaders(program) || !compiler.Link(program))
    {
        program->ClearResources();
        program->SetState(GraphicsObject::Failed);
        return false;
    }
    program->PostCompiled();
    compiler.M_PostObject(Ptr<GraphicsObject>(program), pending);
    return true;
}

} // namespace

bool ProgramCompiler::Compile(const Ptr<Program>& program, std::atomic<int32>* pending)
{
    if (!program)
        return false;
    return RunCompile(*this, program.Get(), pending, m_compileCount,
                      [this, &program] { return CompileShaders(program.Get()); });
}

bool ProgramCompiler::CompileCompute(const Ptr<ComputeProgram>& program, std::atomic<int32>* pending)
{
    if (!program)
        return false;
    return RunCompile(*this, program.Get(), pending, m_compileCount,
                      [this, &program] { return CompileComputeShader(program.Get()); });
}

} // namespace KovexEngine
