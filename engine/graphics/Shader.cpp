#include "graphics/Shader.h"

#include <cstdlib>

#include "graphics/ShaderReflection.h"
#include "graphics/ShaderResource.h"

namespace KovexEngine {

KOVEX_REGISTER_CLASS(Shader, u"Engine", GraphicsObject)

Shader::Shader() : m_reflection(new ShaderReflection()) {}

Shader::~Shader() { std::free(m_code); }

void Shader::SetShaderCode(void* code, uint32 size)
{
    if (code == m_code)
        return;
    std::free(m_code);
    m_code = code;
    m_size = code ? size : 0;
}

namespace {

template <typename T>
T* ByIndex(const TArray<T*>& list, unsigned index)
{
    return index < list.Count() ? list[index] : nullptr;
}

template <typename T>
T* BySlot(const TArray<T*>& list, ShaderType stage, int slot)
{
    for (T* item : list)
        if (item->GetSlotInShader(stage) == slot)
            return item;
    return nullptr;
}

template <typename T>
T* ByName(const TArray<T*>& list, const WString& name)
{
    for (T* item : list)
        if (item->GetName().Get() == name)
            return item;
    return nullptr;
}

// Kept in slot order: the device binds them in that order.
template <typename T>
void AddBySlot(TArray<T*>& list, ShaderType stage, T* item)
{
    if (!item)
        return;
    unsigned at = 0;
    while (at < list.Count() && list[at]->GetSlotInShader(stage) <= item->GetSlotInShader(stage))
        ++at;
    list.Insert(at, item);
}

} // namespace

ShaderSampler* Shader::GetSampler(unsigned index) const { return ByIndex(m_samplers, index); }
ShaderSampler* Shader::FindSampler(int slot) const { return BySlot(m_samplers, m_type, slot); }
ShaderSampler* Shader::FindSampler(const WString& name) const { return ByName(m_samplers, name); }
void Shader::AddSampler(ShaderSampler* sampler) { AddBySlot(m_samplers, m_type, sampler); }
ShaderTexture* Shader::GetTexture(unsigned index) const { return ByIndex(m_textures, index); }
ShaderTexture* Shader::FindTexture(int slot) const { return BySlot(m_textures, m_type, slot); }
ShaderTexture* Shader::FindTexture(const WString& name) const { return ByName(m_textures, name); }
void Shader::AddTexture(ShaderTexture* texture) { AddBySlot(m_textures, m_type, texture); }
ShaderCBuffer* Shader::GetCBuffer(unsigned index) const { return ByIndex(m_cbuffers, index); }
ShaderCBuffer* Shader::FindCBuffer(int slot) const { return BySlot(m_cbuffers, m_type, slot); }
ShaderCBuffer* Shader::FindCBuffer(const WString& name) const { return ByName(m_cbuffers, name); }
void Shader::AddCBuffer(ShaderCBuffer* cbuffer) { AddBySlot(m_cbuffers, m_type, cbuffer); }
ShaderBuffer* Shader::GetBuffer(unsigned index) const { return ByIndex(m_buffers, index); }
ShaderBuffer* Shader::FindBuffer(int slot) const { return BySlot(m_buffers, m_type, slot); }
ShaderBuffer* Shader::FindBuffer(const WString& name) const { return ByName(m_buffers, name); }
void Shader::AddBuffer(ShaderBuffer* buffer) { AddBySlot(m_buffers, m_type, buffer); }

void Shader::ClearLinks()
{
    m_samplers.Clear();
    m_textures.Clear();
    m_cbuffers.Clear();
    m_buffers.Clear();
}

ShaderFactory::~ShaderFactory() = default;

Ptr<Shader> ShaderFactory::CreateShader(ShaderType type, void* code, uint32 size, std::atomic<int32>* pending)
{
    if (!code || size == 0 || (size & 3u) != 0)
    {
        std::free(code);
        return Ptr<Shader>();
    }
    Ptr<Shader> shader(NewShader());
    shader->SetType(type);
    shader->SetShaderCode(code, size);
    M_PostObject(Ptr<GraphicsObject>(shader.Get()), pending);
    return shader;
}

} // namespace KovexEngine
