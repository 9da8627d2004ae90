#include "shaders/SpirvCompiler.h"

#include <atomic>
#include <cstring>
#include <mutex>
#include <map>
#include <set>

#include <glslang/Public/ResourceLimits.h>
#include <glslang/Public/ShaderLang.h>
#include <glslang/SPIRV/GlslangToSpv.h>
#include <spirv-tools/libspirv.hpp>
#include <spirv-tools/optimizer.hpp>
#include <spirv_cross_c.h>

#include "graphics/ShaderReflection.h"
#include "kernel/Log.h"

namespace KovexEngine {

namespace {

std::mutex s_processLock;
unsigned s_processUsers = 0;
std::atomic<bool> s_validateOutput{
#ifdef NDEBUG
    false
#else
    true
#endif
};

// Registers b, t, s and u land in four ranges of set 0, so that b0, t0 and
// s0 never share a binding. The implicit "$Global" block of non-static
// globals gets the binding just below the textures.
constexpr unsigned kTextureShift = 16;
constexpr unsigned kSamplerShift = 32;
constexpr unsigned kUavShift = 48;
constexpr unsigned kGlobalBlockBinding = 15;

const EShMessages kMessages = EShMessages(EShMsgSpvRules | EShMsgVulkanRules | EShMsgReadHlsl);

EShLanguage ToLanguage(ShaderType stage)
{
    switch (stage.value)
    {
    case ShaderType::Pixel: return EShLangFragment;
    case ShaderType::Geometry: return EShLangGeometry;
    case ShaderType::Hull: return EShLangTessControl;
    case ShaderType::Domain: return EShLangTessEvaluation;
    case ShaderType::Compute: return EShLangCompute;
    default: return EShLangVertex;
    }
}

void SetEnvironment(glslang::TShader& shader, EShLanguage language)
{
    shader.setEnvInput(glslang::EShSourceHlsl, language, glslang::EShClientVulkan, 100);
    shader.setEnvClient(glslang::EShClientVulkan, glslang::EShTargetVulkan_1_1);
    shader.setEnvTarget(glslang::EShTargetSpv, glslang::EShTargetSpv_1_3);
}

// Bridges glslang's includer to the unit's include source. The source does
// the include-once bookkeeping; this keeps the texts alive while glslang
// reads them and remembers failures, so that the "system" retry glslang makes
// after a failed local include does not open (and log) a second time.
class Includer : public glslang::TShader::Includer
{
public:
    explicit Includer(SpirvIncludeSource* source) : m_source(source) {}
    ~Includer() override
    {
        for (Text* text : m_texts)
            delete text;
    }

    IncludeResult* includeLocal(const char* name, const char*, size_t) override { return Resolve(name); }
    IncludeResult* includeSystem(const char* name, const char*, size_t) override
    {
        return m_failed.count(name) ? nullptr : Resolve(name);
    }
    void releaseInclude(IncludeResult* result) override { delete result; }

    bool Failed() const { return !m_failed.empty(); }

private:
    struct Text
    {
        std::string Resolved;
        std::string Body;
    };

    IncludeResult* Resolve(const char* name)
    {
        Text* text = new Text();
        if (!m_source || !m_source->Open(name, text->Resolved, text->Body))
        {
            delete text;
            m_failed.insert(name);
            return nullptr;
        }
        if (text->Resolved.empty())
            text->Resolved = name; // glslang reads an empty name as "not found"
        m_texts.push_back(text);
        return new IncludeResult(text->Resolved, text->Body.data(), text->Body.size(), nullptr);
    }

    SpirvIncludeSource* m_source;
    std::vector<Text*> m_texts;
    std::set<std::string> m_failed;
};

bool IsIdentifierChar(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_'; }

// Offset of the first whole-word `name` followed (after blanks) by "(", or
// npos.
size_t FindCall(const std::string& text, const char* name)
{
    size_t length = std::strlen(name);
    for (size_t at = text.find(name); at != std::string::npos; at = text.find(name, at + 1))
    {
        if (at > 0 && IsIdentifierChar(text[at - 1]))
            continue;
        size_t next = at + length;
        if (next < text.size() && IsIdentifierChar(text[next]))
            continue;
        while (next < text.size() && (text[next] == ' ' || text[next] == '\t' || text[next] == '\r' || text[next] == '\n'))
            ++next;
        if (next < text.size() && text[next] == '(')
            return at;
    }
    return std::string::npos;
}

// The original file and line of an offset of preprocessed text, from the
// "#line" directives before it.
void OriginOf(const std::string& text, size_t offset, const std::string& fileName, std::string& file, unsigned& line)
{
    file = fileName;
    line = 1;
    size_t start = 0;
    while (start < offset && start < text.size())
    {
        size_t end = text.find('\n', start);
        if (end == std::string::npos || end >= offset)
            break;
        if (text.compare(start, 6, "#line ") == 0)
        {
            const char* p = text.c_str() + start + 6;
            line = unsigned(std::strtoul(p, const_cast<char**>(&p), 10));
            const char* quote = std::strchr(p, '"');
            if (quote && quote < text.c_str() + end)
            {
                const char* close = std::strchr(quote + 1, '"');
                if (close && close < text.c_str() + end)
                    file.assign(quote + 1, close);
            }
        }
        else
        {
            ++line;
        }
        start = end + 1;
    }
}

// Intrinsics that crash glslang's HLSL front end; they are refused before it
// sees them.
const char* const kCrashers[] = {"noise"};

void ReflectMembers(spvc_compiler compiler, spvc_type_id typeId, ShaderReflection::ConstantBuffer& block)
{
    spvc_type type = spvc_compiler_get_type_handle(compiler, typeId);
    unsigned count = spvc_type_get_num_member_types(type);
    size_t size = 0;
    spvc_compiler_get_declared_struct_size(compiler, type, &size);
    block.Size = uint32(size);
    for (unsigned i = 0; i < count; ++i)
    {
        ShaderReflection::Member member;
        const char* name = spvc_compiler_get_member_name(compiler, typeId, i);
        member.Name = name ? name : "";
        unsigned offset = 0;
        spvc_compiler_type_struct_member_offset(compiler, type, i, &offset);
        member.Offset = offset;
        size_t memberSize = 0;
        spvc_compiler_get_declared_struct_member_size(compiler, type, i, &memberSize);
        member.Size = uint32(memberSize);
        spvc_type memberType = spvc_compiler_get_type_handle(compiler, spvc_type_get_member_type(type, i));
        if (spvc_type_get_num_array_dimensions(memberType) > 0)
        {
            member.ArrayCount = spvc_type_get_array_dimension(memberType, 0);
            unsigned stride = 0;
            spvc_compiler_type_struct_member_array_stride(compiler, type, i, &stride);
            member.ArrayStride = stride;
        }
        unsigned columns = spvc_type_get_columns(memberType);
        unsigned vectorSize = spvc_type_get_vector_size(memberType);
        if (spvc_type_get_basetype(memberType) == SPVC_BASETYPE_STRUCT)
        {
            member.Columns = 0; // a struct has no shape of its own
            member.Rows = 0;
        }
        else if (columns > 1)
        {
            member.Columns = columns;
            member.Rows = vectorSize;
            unsigned stride = 0;
            spvc_compiler_type_struct_member_matrix_stride(compiler, type, i, &stride);
            member.MatrixStride = stride;
            member.RowMajor = spvc_compiler_has_member_decoration(compiler, typeId, i, SpvDecorationRowMajor);
        }
        else
        {
            member.Columns = vectorSize;
            member.Rows = 1;
        }
        block.Members.push_back(member);
    }
}

uint32 ImageDimension(spvc_type type)
{
    uint32 dimension = 0;
    switch (spvc_type_get_image_dimension(type))
    {
    case SpvDim1D: dimension = 1; break;
    case SpvDim2D: dimension = 2; break;
    case SpvDim3D: dimension = 3; break;
    case SpvDimCube: dimension = 4; break;
    default: return 0; // texel buffers
    }
    return spvc_type_get_image_arrayed(type) ? dimension + 8 : dimension;
}

bool ListResources(spvc_compiler compiler, spvc_resources resources, spvc_resource_type kind,
                   std::vector<ShaderReflection::Resource>& out, bool image)
{
    const spvc_reflected_resource* list = nullptr;
    size_t count = 0;
    if (spvc_resources_get_resource_list_for_type(resources, kind, &list, &count) != SPVC_SUCCESS)
        return false;
    for (size_t i = 0; i < count; ++i)
    {
        ShaderReflection::Resource resource;
        resource.Name = list[i].name ? list[i].name : "";
        resource.Set = spvc_compiler_get_decoration(compiler, list[i].id, SpvDecorationDescriptorSet);
        resource.Binding = spvc_compiler_get_decoration(compiler, list[i].id, SpvDecorationBinding);
        spvc_type type = spvc_compiler_get_type_handle(compiler, list[i].type_id);
        if (spvc_type_get_num_array_dimensions(type) > 0)
            resource.ArraySize = spvc_type_get_array_dimension(type, 0);
        if (image)
            resource.Dimension = ImageDimension(spvc_compiler_get_type_handle(compiler, list[i].base_type_id));
        out.push_back(resource);
    }
    return true;
}

// HLSL semantics are case-blind; the engine keeps them upper case with
// their index ("TEXCOORD0").
std::string NormalSemantic(std::string semantic)
{
    for (char& c : semantic)
        if (c >= 'a' && c <= 'z')
            c = char(c - 'a' + 'A');
    if (!semantic.empty() && !(semantic.back() >= '0' && semantic.back() <= '9'))
        semantic += '0';
    return semantic;
}

// Vertex inputs are named after their semantics in the final module: the
// UserSemantic strings that say them are stripped (they would need a device
// extension), names are not, so a module read back from the cache still
// tells which input is which.
std::vector<uint32> NameInputsBySemantic(const std::vector<uint32>& words)
{
    constexpr uint32 kOpName = 5, kOpDecorateString = 5632, kUserSemantic = 5635;
    std::map<uint32, std::string> semantics;
    for (size_t at = 5; at < words.size();)
    {
        uint32 count = words[at] >> 16, op = words[at] & 0xFFFF;
        if (count == 0 || at + count > words.size())
            return words;
        if (op == kOpDecorateString && count >= 4 && words[at + 2] == kUserSemantic)
        {
            const char* text = reinterpret_cast<const char*>(&words[at + 3]);
            semantics[words[at + 1]] = std::string(text, strnlen(text, (count - 3) * 4));
        }
        at += count;
    }
    if (semantics.empty())
        return words;
    std::vector<uint32> out(words.begin(), words.begin() + 5);
    for (size_t at = 5; at < words.size();)
    {
        uint32 count = words[at] >> 16, op = words[at] & 0xFFFF;
        auto found = op == kOpName && count >= 2 ? semantics.find(words[at + 1]) : semantics.end();
        if (found == semantics.end())
        {
            out.insert(out.end(), words.begin() + long(at), words.begin() + long(at + count));
        }
        else
        {
            std::string name = NormalSemantic(found->second);
            std::vector<uint32> literal((name.size() + 4) / 4, 0);
            std::memcpy(literal.data(), name.data(), name.size());
            out.push_back(uint32((2 + literal.size()) << 16) | kOpName);
            out.push_back(words[at + 1]);
            out.insert(out.end(), literal.begin(), literal.end());
        }
        at += count;
    }
    return out;
}

} // namespace

SpirvProcess::SpirvProcess()
{
    std::lock_guard<std::mutex> lock(s_processLock);
    if (s_processUsers++ == 0)
        glslang::InitializeProcess();
}

SpirvProcess::~SpirvProcess()
{
    std::lock_guard<std::mutex> lock(s_processLock);
    if (--s_processUsers == 0)
        glslang::FinalizeProcess();
}

uint64 SpirvHash(const void* data, size_t size, uint64 hash)
{
    const unsigned char* bytes = static_cast<const unsigned char*>(data);
    for (size_t i = 0; i < size; ++i)
    {
        hash ^= bytes[i];
        hash *= 1099511628211ull;
    }
    return hash;
}

void SpirvUnit::SetValidateOutput(bool validate) { s_validateOutput.store(validate); }
bool SpirvUnit::GetValidateOutput() { return s_validateOutput.load(); }

SpirvUnit::SpirvUnit() = default;
SpirvUnit::~SpirvUnit() = default;

bool SpirvUnit::Preprocess(const std::string& source, const std::string& fileName,
                           const std::vector<SpirvMacro>& macros, SpirvIncludeSource* includes)
{
    SpirvProcess process;
    m_text.clear();
    m_errors.clear();
    m_fileName = fileName.empty() ? std::string("unit") : fileName;
    std::string preamble;
    m_hash = SpirvHash(nullptr, 0);
    for (const SpirvMacro& macro : macros)
    {
        preamble += "#define " + macro.Name + " " + macro.Value + "\n";
        m_hash = SpirvHash(macro.Name.data(), macro.Name.size(), m_hash);
        m_hash = SpirvHash("=", 1, m_hash);
        m_hash = SpirvHash(macro.Value.data(), macro.Value.size(), m_hash);
        m_hash = SpirvHash("\n", 1, m_hash);
    }

    glslang::TShader shader(EShLangVertex);
    const char* text = source.c_str();
    int length = int(source.size());
    const char* name = m_fileName.c_str();
    shader.setStringsWithLengthsAndNames(&text, &length, &name, 1);
    shader.setPreamble(preamble.c_str());
    SetEnvironment(shader, EShLangVertex);
    Includer includer(includes);
    std::string output;
    bool ok = shader.preprocess(GetDefaultResources(), 100, ENoProfile, false, false, kMessages, &output, includer);
    if (!ok || includer.Failed())
    {
        m_errors = shader.getInfoLog();
        Log::Format(LOG_WARNING, u"Shader [%S]: preprocessing failed.\n%S", m_fileName.c_str(), m_errors.c_str());
        return false;
    }
    for (const char* crasher : kCrashers)
    {
        size_t at = FindCall(output, crasher);
        if (at == std::string::npos)
            continue;
        std::string file;
        unsigned line = 0;
        OriginOf(output, at, m_fileName, file, line);
        m_errors = file + ":" + std::to_string(line) + ": " + crasher + "() is not supported";
        Log::Format(LOG_WARNING, u"Shader [%S]: %S() is not supported (%S line %u).\n", m_fileName.c_str(), crasher,
                    file.c_str(), line);
        return false;
    }
    m_text = std::move(output);
    m_hash = SpirvHash(m_text.data(), m_text.size(), m_hash);
    return true;
}

bool SpirvUnit::DefinesFunction(const char* name) const { return FindCall(m_text, name) != std::string::npos; }

bool SpirvUnit::CompileStage(ShaderType stage, const char* entry, std::vector<uint32>& words,
                             ShaderReflection* reflection)
{
    SpirvProcess process;
    words.clear();
    m_errors.clear();
    if (m_text.empty())
    {
        m_errors = "nothing preprocessed";
        Log::Format(LOG_WARNING, u"Shader [%S]: no preprocessed text to compile.\n", m_fileName.c_str());
        return false;
    }
    EShLanguage language = ToLanguage(stage);
    glslang::TShader shader(language);
    const char* text = m_text.c_str();
    int length = int(m_text.size());
    const char* name = m_fileName.c_str();
    shader.setStringsWithLengthsAndNames(&text, &length, &name, 1);
    shader.setEntryPoint(entry);
    shader.setSourceEntryPoint(entry);
    SetEnvironment(shader, language);
    shader.setHlslIoMapping(true);
    shader.setAutoMapBindings(true);
    shader.setAutoMapLocations(true);
    shader.setShiftBinding(glslang::EResTexture, kTextureShift);
    shader.setShiftBinding(glslang::EResSampler, kSamplerShift);
    shader.setShiftBinding(glslang::EResUav, kUavShift);
    shader.setGlobalUniformBinding(kGlobalBlockBinding);
    shader.setEnvTargetHlslFunctionality1(); // semantics for reflection; stripped below

    glslang::TShader::ForbidIncluder noIncludes; // the text is preprocessed already
    glslang::TProgram program;
    bool ok = shader.parse(GetDefaultResources(), 100, false, kMessages, noIncludes);
    if (ok)
    {
        program.addShader(&shader);
        ok = program.link(kMessages) && program.mapIO();
    }
    if (!ok || !program.getIntermediate(language))
    {
        m_errors = std::string(shader.getInfoLog()) + program.getInfoLog();
        Log::Format(LOG_WARNING, u"Shader [%S] %S:\n%S", m_fileName.c_str(), entry, m_errors.c_str());
        return false;
    }

    std::vector<uint32> raw;
    spv::SpvBuildLogger logger;
    glslang::SpvOptions options;
    glslang::GlslangToSpv(*program.getIntermediate(language), raw, &logger, &options);
    std::string messages;
    auto consume = [&messages](spv_message_level_t, const char*, const spv_position_t&, const char* message) {
        messages += message;
        messages += "\n";
    };

    // Legalise (input validation off: glslang's HLSL output is not valid
    // before legalisation), then strip what only reflection wants.
    std::vector<uint32> legal;
    spvtools::OptimizerOptions noValidation;
    noValidation.set_run_validator(false);
    spvtools::Optimizer legaliser(SPV_ENV_VULKAN_1_1);
    legaliser.SetMessageConsumer(consume);
    legaliser.RegisterLegalizationPasses();
    if (!legaliser.Run(raw.data(), raw.size(), &legal, noValidation))
    {
        m_errors = messages;
        Log::Format(LOG_WARNING, u"Shader [%S] %S: legalisation failed.\n%S", m_fileName.c_str(), entry,
                    messages.c_str());
        return false;
    }
    spvtools::Optimizer stripper(SPV_ENV_VULKAN_1_1);
    stripper.SetMessageConsumer(consume);
    stripper.RegisterPass(spvtools::CreateStripReflectInfoPass());
    std::vector<uint32> named = NameInputsBySemantic(legal);
    if (!stripper.Run(named.data(), named.size(), &words, noValidation))
    {
        m_errors = messages;
        Log::Format(LOG_WARNING, u"Shader [%S] %S: stripping failed.\n%S", m_fileName.c_str(), entry,
                    messages.c_str());
        words.clear();
        return false;
    }
    if (GetValidateOutput() && !SpirvValidate(words, m_errors))
    {
        Log::Format(LOG_WARNING, u"Shader [%S] %S: the module does not validate.\n%S", m_fileName.c_str(), entry,
                    m_errors.c_str());
        words.clear();
        return false;
    }
    if (reflection && !SpirvReflect(words, *reflection, m_errors))
    {
        Log::Format(LOG_WARNING, u"Shader [%S] %S: reflection failed: %S\n", m_fileName.c_str(), entry,
                    m_errors.c_str());
        words.clear();
        return false;
    }
    return true;
}

bool SpirvValidate(const std::vector<uint32>& words, std::string& error)
{
    spvtools::SpirvTools tools(SPV_ENV_VULKAN_1_1);
    error.clear();
    tools.SetMessageConsumer([&error](spv_message_level_t, const char*, const spv_position_t&, const char* message) {
        error += message;
        error += "\n";
    });
    return tools.Validate(words.data(), words.size());
}

bool SpirvReflect(const std::vector<uint32>& words, ShaderReflection& out, std::string& error)
{
    out = ShaderReflection();
    spvc_context context = nullptr;
    if (spvc_context_create(&context) != SPVC_SUCCESS)
    {
        error = "no SPIRV-Cross context";
        return false;
    }
    spvc_parsed_ir ir = nullptr;
    spvc_compiler compiler = nullptr;
    spvc_resources resources = nullptr;
    bool ok = spvc_context_parse_spirv(context, words.data(), words.size(), &ir) == SPVC_SUCCESS &&
              spvc_context_create_compiler(context, SPVC_BACKEND_NONE, ir, SPVC_CAPTURE_MODE_TAKE_OWNERSHIP,
                                           &compiler) == SPVC_SUCCESS &&
              spvc_compiler_create_shader_resources(compiler, &resources) == SPVC_SUCCESS;
    if (ok)
    {
        const spvc_reflected_resource* list = nullptr;
        size_t count = 0;
        ok = spvc_resources_get_resource_list_for_type(resources, SPVC_RESOURCE_TYPE_UNIFORM_BUFFER, &list, &count) ==
             SPVC_SUCCESS;
        for (size_t i = 0; ok && i < count; ++i)
        {
            ShaderReflection::ConstantBuffer block;
            const char* typeName = spvc_compiler_get_name(compiler, list[i].base_type_id);
            // glslang names the block's type after the cbuffer; the
            // variable may be unnamed.
            block.Name = typeName && *typeName ? typeName : (list[i].name ? list[i].name : "");
            block.Set = spvc_compiler_get_decoration(compiler, list[i].id, SpvDecorationDescriptorSet);
            block.Binding = spvc_compiler_get_decoration(compiler, list[i].id, SpvDecorationBinding);
            ReflectMembers(compiler, list[i].base_type_id, block);
            out.ConstantBuffers.push_back(std::move(block));
        }
        ok = ok && ListResources(compiler, resources, SPVC_RESOURCE_TYPE_SEPARATE_IMAGE, out.Textures, true) &&
             ListResources(compiler, resources, SPVC_RESOURCE_TYPE_SEPARATE_SAMPLERS, out.Samplers, false) &&
             ListResources(compiler, resources, SPVC_RESOURCE_TYPE_STORAGE_BUFFER, out.RWBuffers, false) &&
             ListResources(compiler, resources, SPVC_RESOURCE_TYPE_STORAGE_IMAGE, out.RWBuffers, true);
    }
    if (ok && spvc_compiler_get_execution_model(compiler) == SpvExecutionModelVertex)
    {
        const spvc_reflected_resource* list = nullptr;
        size_t count = 0;
        ok = spvc_resources_get_resource_list_for_type(resources, SPVC_RESOURCE_TYPE_STAGE_INPUT, &list, &count) ==
             SPVC_SUCCESS;
        for (size_t i = 0; ok && i < count; ++i)
        {
            ShaderReflection::Input input;
            input.Name = list[i].name ? list[i].name : "";
            input.Location = spvc_compiler_get_decoration(compiler, list[i].id, SpvDecorationLocation);
            input.Components = spvc_type_get_vector_size(spvc_compiler_get_type_handle(compiler, list[i].type_id));
            const char* semantic = spvc_compiler_get_decoration_string(compiler, list[i].id, SpvDecorationUserSemantic);
            input.Semantic = NormalSemantic(semantic && *semantic ? semantic : input.Name);
            out.Inputs.push_back(input);
        }
    }
    if (ok && spvc_compiler_get_execution_model(compiler) == SpvExecutionModelGLCompute)
        for (unsigned i = 0; i < 3; ++i)
            out.WorkGroupSize[i] =
                spvc_compiler_get_execution_mode_argument_by_index(compiler, SpvExecutionModeLocalSize, i);
    if (!ok)
        error = spvc_context_get_last_error_string(context);
    spvc_context_destroy(context);
    return ok;
}

} // namespace KovexEngine
