#include "graphics/BaseProgram.h"

#include <cstring>

#include "graphics/ConstantBuffer.h"
#include "graphics/RWBuffer.h"
#include "graphics/RenderStates.h"
#include "graphics/Renderer.h"
#include "graphics/ShaderReflection.h"
#include "graphics/Texture.h"
#include "kernel/Log.h"
#include "kernel/StringConv.h"

namespace KovexEngine {

KOVEX_REGISTER_CLASS(BaseProgram, u"Engine", GraphicsObject)

ProgramDeviceState::~ProgramDeviceState() = default;

BaseProgram::BaseProgram() = default;

BaseProgram::~BaseProgram() { ClearResources(); }

namespace {

template <typename T>
T* NewResource(TMap<WString, Ptr<T>>& map, const TSharedString<WString>& name)
{
    if (Ptr<T>* found = map.FindValue(name.Get()))
        return found->Get();
    Ptr<T> resource(new T());
    resource->SetName(name);
    map.Insert(name.Get(), resource);
    return resource.Get();
}

template <typename T>
T* FindResource(const TMap<WString, Ptr<T>>& map, const WString& name)
{
    const Ptr<T>* found = map.FindValue(name);
    return found ? found->Get() : nullptr;
}

// The KSL name of a compiled one: the texture and sampler prefixes go.
TSharedString<WString> KslName(const std::string& compiled, const char* prefix)
{
    size_t length = std::strlen(prefix);
    const char* name = compiled.c_str();
    if (compiled.compare(0, length, prefix) == 0)
        name += length;
    return TSharedString<WString>(StringConvFuncs::ToWString(name));
}

bool CheckSet(uint32 set, const std::string& name)
{
    if (set == 0)
        return true;
    Log::Format(LOG_WARNING, u"Program: [%S] is in descriptor set %u; only set 0 is bound.\n", name.c_str(), set);
    return false;
}

} // namespace

ShaderTexture* BaseProgram::NewTexture(const TSharedString<WString>& name) { return NewResource(m_textures, name); }
ShaderTexture* BaseProgram::FindTexture(const WString& name) const { return FindResource(m_textures, name); }
ShaderSampler* BaseProgram::NewSampler(const TSharedString<WString>& name) { return NewResource(m_samplers, name); }
ShaderSampler* BaseProgram::FindSampler(const WString& name) const { return FindResource(m_samplers, name); }
ShaderBuffer* BaseProgram::NewBuffer(const TSharedString<WString>& name) { return NewResource(m_buffers, name); }
ShaderBuffer* BaseProgram::FindBuffer(const WString& name) const { return FindResource(m_buffers, name); }

bool BaseProgram::CommitTexture(const WString& name, const Ptr<Texture>& texture)
{
    ShaderTexture* resource = FindTexture(name);
    if (!resource)
        return false;
    resource->Value = texture;
    return true;
}

Ptr<Texture> BaseProgram::GetTexture(const WString& name) const
{
    ShaderTexture* resource = FindTexture(name);
    return resource ? resource->Value : Ptr<Texture>();
}

bool BaseProgram::CommitSampler(const WString& name, const Ptr<SamplerState>& sampler)
{
    ShaderSampler* resource = FindSampler(name);
    if (!resource)
        return false;
    resource->Value = sampler;
    return true;
}

Ptr<SamplerState> BaseProgram::GetSampler(const WString& name) const
{
    ShaderSampler* resource = FindSampler(name);
    return resource ? resource->Value : Ptr<SamplerState>();
}

bool BaseProgram::CommitBuffer(const WString& name, const Ptr<RWBuffer>& buffer)
{
    ShaderBuffer* resource = FindBuffer(name);
    if (!resource)
        return false;
    resource->Value = buffer;
    return true;
}

Ptr<RWBuffer> BaseProgram::GetBuffer(const WString& name) const
{
    ShaderBuffer* resource = FindBuffer(name);
    return resource ? resource->Value : Ptr<RWBuffer>();
}

ShaderCBuffer* BaseProgram::GetCBuffer(unsigned index) const
{
    return index < m_cbuffers.Count() ? m_cbuffers[index].Get() : nullptr;
}

ShaderCBuffer* BaseProgram::FindCBuffer(const WString& name) const
{
    for (const Ptr<ShaderCBuffer>& cbuffer : m_cbuffers)
        if (cbuffer->GetName().Get() == name)
            return cbuffer.Get();
    return nullptr;
}

ConstantBuffer* BaseProgram::GetConstantBuffer(unsigned index) const
{
    return index < m_constantBuffers.Count() ? m_constantBuffers[index].Get() : nullptr;
}

bool BaseProgram::CommitConstant(ShaderConstant* constant, const void* data, uint32 size, uint32 rowStride)
{
    if (!constant || !data || rowStride == 0)
        return false;
    ConstantBuffer* buffer = GetConstantBuffer(constant->Location[1]);
    if (!buffer)
        return false;
    // `size` counts destination bytes; never past the constant's own.
    if (size > constant->GetSize())
        size = constant->GetSize();
    return buffer->WriteConstant(constant->Location[0], data, size, rowStride);
}

bool BaseProgram::AddReflection(ShaderType stage, const ShaderReflection& reflection)
{
    for (const ShaderReflection::ConstantBuffer& block : reflection.ConstantBuffers)
    {
        if (!CheckSet(block.Set, block.Name))
            return false;
        WString blockName = StringConvFuncs::ToWString(block.Name.c_str());
        ShaderCBuffer* cbuffer = FindCBuffer(blockName);
        uint32 index = 0;
        while (index < m_cbuffers.Count() && m_cbuffers[index].Get() != cbuffer)
            ++index;
        if (!cbuffer)
        {
            Ptr<ShaderCBuffer> made(new ShaderCBuffer());
            made->SetName(TSharedString<WString>(blockName));
            m_cbuffers.Add(made);
            m_cbufferSizes.Add(0);
            cbuffer = made.Get();
        }
        cbuffer->SetSlotInShader(stage, int(block.Binding));
        if (m_cbufferSizes[index] < block.Size)
            m_cbufferSizes[index] = block.Size;
        for (const ShaderReflection::Member& member : block.Members)
        {
            TSharedString<WString> name(StringConvFuncs::ToWString(member.Name.c_str()));
            ShaderConstant* constant = FindConstant(name.Get());
            if (constant && (constant->Location[0] != member.Offset || constant->Location[1] != index))
            {
                Log::Format(LOG_WARNING, u"Program: constant [%s] lies at two places.\n", name.c_str());
                return false;
            }
            if (!constant)
            {
                constant = NewConstant(name);
                constant->Location[0] = member.Offset;
                constant->Location[1] = index;
                cbuffer->Constants.Add(constant);
            }
            if (constant->GetSize() < member.Size)
                constant->SetSize(member.Size);
            constant->SetSlotInShader(stage, int(block.Binding));
        }
    }
    for (const ShaderReflection::Resource& texture : reflection.Textures)
    {
        if (!CheckSet(texture.Set, texture.Name))
            return false;
        NewTexture(KslName(texture.Name, kTexturePrefix))->SetSlotInShader(stage, int(texture.Binding));
    }
    for (const ShaderReflection::Resource& sampler : reflection.Samplers)
    {
        if (!CheckSet(sampler.Set, sampler.Name))
            return false;
        NewSampler(KslName(sampler.Name, kSamplerPrefix))->SetSlotInShader(stage, int(sampler.Binding));
    }
    for (const ShaderReflection::Resource& rw : reflection.RWBuffers)
    {
        if (!CheckSet(rw.Set, rw.Name))
            return false;
        ShaderBuffer* buffer = NewBuffer(TSharedString<WString>(StringConvFuncs::ToWString(rw.Name.c_str())));
        buffer->SetSlotInShader(stage, int(rw.Binding));
        buffer->Slot = rw.Binding;
    }
    return true;
}

bool BaseProgram::CreateConstantBuffers()
{
    m_constantBuffers.Clear();
    ConstantBufferFactory* factory = ConstantBufferFactory::Get();
    for (unsigned i = 0; i < m_cbuffers.Count(); ++i)
    {
        Ptr<ConstantBuffer> buffer = factory ? factory->Create(m_cbufferSizes[i]) : Ptr<ConstantBuffer>();
        if (!buffer)
        {
            Log::Format(LOG_WARNING, u"Program: constant buffer [%s] of %u bytes could not be made.\n",
                        m_cbuffers[i]->GetName().c_str(), m_cbufferSizes[i]);
            m_constantBuffers.Clear();
            return false;
        }
        buffer->SetShaderCBuffer(m_cbuffers[i]);
        m_constantBuffers.Add(buffer);
    }
    return true;
}

void BaseProgram::ClearResources()
{
    for (Ptr<Shader>& shader : m_shaders)
        if (shader)
            shader->ClearLinks();
    m_textures.Clear();
    m_samplers.Clear();
    m_buffers.Clear();
    m_cbuffers.Clear();
    m_cbufferSizes.Clear();
    m_constantBuffers.Clear();
    CleanupConstants();
}

Shader* BaseProgram::GetShader(ShaderType type) const
{
    return unsigned(type.value) < kStages ? m_shaders[type.value].Get() : nullptr;
}

void BaseProgram::SetShader(ShaderType type, const Ptr<Shader>& shader)
{
    if (unsigned(type.value) < kStages)
        m_shaders[type.value] = shader;
}

void BaseProgram::GetMacros(ShaderMacro* out, unsigned* count) const
{
    if (count && *count > 0 && out)
        out[0] = ShaderMacro();
    if (count)
        *count = 0;
}

void BaseProgram::GetMacroString(AString& out) const
{
    out.Clear();
    ShaderMacro macros[256];
    unsigned count = 255;
    GetMacros(macros, &count);
    if (count == 0)
        return;
    out += "\n";
    for (unsigned i = 0; i < count && macros[i].Name; ++i)
    {
        out += "#define ";
        out += macros[i].Name;
        if (macros[i].Definition && *macros[i].Definition)
        {
            out += "\t";
            out += macros[i].Definition;
        }
        out += "\n";
    }
    out += "\n";
}

void BaseProgram::ApplyProgram()
{
    if (const Ptr<Renderer>& renderer = Renderer::Get())
        renderer->SetCurrentProgram(ProgramRef(this));
}

bool BaseProgram::CreateDeviceHandle()
{
    const Ptr<Renderer>& renderer = Renderer::Get();
    return !renderer || renderer->CreateProgramDevice(this);
}

void BaseProgram::ReleaseDeviceHandle() { m_deviceState.reset(); }

void BaseProgram::SetDeviceState(std::unique_ptr<ProgramDeviceState> state) { m_deviceState = std::move(state); }

} // namespace KovexEngine
