#pragma once

// One compiled stage of a program: its SPIR-V words, what its module
// declares (ShaderReflection), and, filled when the program links, the
// program's samplers, textures, constant buffers and read-write buffers that
// this stage reads, in slot order. A platform's ShaderFactory makes the
// device side (a shader module on Vulkan; nothing on the null device).
//
// Threads: a shader is built by the thread that compiles its program and is
// read-only once its program is posted; ShaderFactory::CreateShader is safe
// from any thread.

#include <memory>

#include "graphics/GraphicsObject.h"
#include "kernel/Containers.h"

namespace KovexEngine {

struct ShaderReflection;
class ShaderSampler;
class ShaderTexture;
class ShaderCBuffer;
class ShaderBuffer;

class KOVEX_API Shader : public GraphicsObject
{
    KOVEX_CLASS(Shader)

public:
    Shader();
    ~Shader() override;

    ShaderType GetType() const { return m_type; }
    void SetType(ShaderType type) { m_type = type; }
    // The byte code (a malloc'd buffer, owned from here on; null frees).
    void SetShaderCode(void* code, uint32 size);
    const void* GetShaderCode() const { return m_code; }
    uint32 GetShaderCodeSize() const { return m_size; }

    // What the module declares; empty until the compiler reflects it.
    const ShaderReflection& GetReflection() const { return *m_reflection; }
    ShaderReflection& GetReflection() { return *m_reflection; }

    // The program's resources this stage uses (not owned), in slot order.
    unsigned GetNumSamplers() const { return m_samplers.Count(); }
    ShaderSampler* GetSampler(unsigned index) const;
    ShaderSampler* FindSampler(int slot) const;
    ShaderSampler* FindSampler(const WString& name) const;
    void AddSampler(ShaderSampler* sampler);
    unsigned GetNumTextures() const { return m_textures.Count(); }
    ShaderTexture* GetTexture(unsigned index) const;
    ShaderTexture* FindTexture(int slot) const;
    ShaderTexture* FindTexture(const WString& name) const;
    void AddTexture(ShaderTexture* texture);
    unsigned GetNumCBuffers() const { return m_cbuffers.Count(); }
    ShaderCBuffer* GetCBuffer(unsigned index) const;
    ShaderCBuffer* FindCBuffer(int slot) const;
    ShaderCBuffer* FindCBuffer(const WString& name) const;
    void AddCBuffer(ShaderCBuffer* cbuffer);
    unsigned GetNumBuffers() const { return m_buffers.Count(); }
    ShaderBuffer* GetBuffer(unsigned index) const;
    ShaderBuffer* FindBuffer(int slot) const;
    ShaderBuffer* FindBuffer(const WString& name) const;
    void AddBuffer(ShaderBuffer* buffer);
    // Empties the four lists (a program links again).
    void ClearLinks();

    // The null device has nothing to create.
    bool CreateDeviceHandle() override { return true; }
    void ReleaseDeviceHandle() override {}

private:
    ShaderType m_type = ShaderType::Vertex;
    void* m_code = nullptr;
    uint32 m_size = 0;
    std::unique_ptr<ShaderReflection> m_reflection;
    TArray<ShaderSampler*> m_samplers;
    TArray<ShaderTexture*> m_textures;
    TArray<ShaderCBuffer*> m_cbuffers;
    TArray<ShaderBuffer*> m_buffers;
};

class KOVEX_API ShaderFactory : public GraphicsFactory
{
public:
    ShaderFactory() : GraphicsFactory(FactoryType::ShaderFactory) {}
    ~ShaderFactory() override;
    static ShaderFactory* Get() { return static_cast<ShaderFactory*>(GetSlot(FactoryType::ShaderFactory)); }

    // A shader of the platform's class holding `code` (a malloc'd buffer
    // that passes to it, freed here on failure), posted to the graphics
    // side. Null for no code or a size that is no whole number of words.
    Ptr<Shader> CreateShader(ShaderType type, void* code, uint32 size, std::atomic<int32>* pending = nullptr);

protected:
    // The platform's class; the base makes a plain Shader.
    virtual Shader* NewShader() { return new Shader(); }
};

} // namespace KovexEngine
