#pragma once

// The device layer's view of a linked program: its shaders by stage and the
// resources they read, by shared-string name. Stages are merged from their
// reflections (AddReflection): one KSL name addresses one constant, texture,
// sampler or read-write buffer whatever the stages that read it; each
// remembers its binding per stage (ShaderResource::GetSlotInShader).
//
// Constants live in the program's constant buffers, one per reflected
// buffer, written at the offsets the module declares: a constant's
// Location[0] is its byte offset, Location[1] the index of its buffer. A
// platform binds those buffers, the textures and samplers when it draws
// with the program (Renderer::SetCurrentProgram). Its own objects for the
// program (a pipeline layout on Vulkan) hang on SetDeviceState.
//
// Programs with configurations (Program, ComputeProgram) derive from this in
// the shader layer; that is where PGCodeConf is known.
//
// Threads: built on the thread that compiles it; after it is posted, used by
// the thread that draws (commits and applies). CreateDeviceHandle runs on the
// graphics side.

#include <memory>

#include "graphics/CommitConstantInterface.h"
#include "graphics/GraphicsObject.h"
#include "graphics/Shader.h"

namespace KovexEngine {

class PGCodeConf;
class ConstantBuffer;
class Texture;
class SamplerState;
class RWBuffer;
struct ShaderMacro;

// A platform's objects for one program.
class KOVEX_API ProgramDeviceState
{
public:
    virtual ~ProgramDeviceState();
};

class KOVEX_API BaseProgram : public GraphicsObject, public CommitConstantInterface
{
    KOVEX_CLASS(BaseProgram)

public:
    static constexpr unsigned kStages = 6;
    // Prefixes of the compiled names of a texture and its sampler.
    static constexpr const char* kTexturePrefix = "kovex_t_";
    static constexpr const char* kSamplerPrefix = "kovex_s_";

    BaseProgram();
    ~BaseProgram() override;

    // --- Resources by name -----------------------------------------------
    ShaderTexture* NewTexture(const TSharedString<WString>& name);
    ShaderTexture* FindTexture(const WString& name) const;
    ShaderSampler* NewSampler(const TSharedString<WString>& name);
    ShaderSampler* FindSampler(const WString& name) const;
    ShaderBuffer* NewBuffer(const TSharedString<WString>& name);
    ShaderBuffer* FindBuffer(const WString& name) const;
    // False for a name the program does not read.
    bool CommitTexture(const WString& name, const Ptr<Texture>& texture);
    Ptr<Texture> GetTexture(const WString& name) const;
    bool CommitSampler(const WString& name, const Ptr<SamplerState>& sampler);
    Ptr<SamplerState> GetSampler(const WString& name) const;
    bool CommitBuffer(const WString& name, const Ptr<RWBuffer>& buffer);
    Ptr<RWBuffer> GetBuffer(const WString& name) const;
    const TMap<WString, Ptr<ShaderTexture>>& GetTextureMap() const { return m_textures; }
    const TMap<WString, Ptr<ShaderSampler>>& GetSamplerMap() const { return m_samplers; }
    const TMap<WString, Ptr<ShaderBuffer>>& GetBufferMap() const { return m_buffers; }

    // --- Constant buffers --------------------------------------------------
    // The reflected buffers, in the order constants' Location[1] counts.
    unsigned GetNumCBuffers() const { return m_cbuffers.Count(); }
    ShaderCBuffer* GetCBuffer(unsigned index) const;
    ShaderCBuffer* FindCBuffer(const WString& name) const;
    // The buffer that holds the constants of GetCBuffer(index); null before
    // CreateConstantBuffers.
    ConstantBuffer* GetConstantBuffer(unsigned index) const;
    // Writes at the constant's reflected offset, at most its size.
    bool CommitConstant(ShaderConstant* constant, const void* data, uint32 size, uint32 rowStride) override;

    // --- Building ----------------------------------------------------------
    // Merges what one stage declares: every buffer, member, texture, sampler
    // and read-write buffer becomes (or joins) the program's resource of that
    // name, with the stage's binding as its slot. False, with a log line,
    // when two stages put one constant at two places, or a resource lies
    // outside descriptor set 0.
    bool AddReflection(ShaderType stage, const ShaderReflection& reflection);
    // One constant buffer per reflected buffer, of its declared size. False,
    // with a log line, when the factory refuses one.
    bool CreateConstantBuffers();
    // Forgets every resource, buffer and constant (a failed link).
    void ClearResources();

    // --- Stages ----------------------------------------------------------
    virtual Shader* GetShader(ShaderType type) const;
    virtual void SetShader(ShaderType type, const Ptr<Shader>& shader);
    virtual bool IsCompute() const { return false; }

    // Configurations that made the program, framework first; none here.
    virtual void GetConfigs(const PGCodeConf** /*out*/, unsigned& count) const { count = 0; }
    // The program's macros, ending with a null pair; *count in: room, out:
    // pairs written (without the null pair).
    virtual void GetMacros(ShaderMacro* out, unsigned* count) const;
    // "\n", then "#define name\tvalue\n" per macro, then "\n"; empty when none.
    void GetMacroString(AString& out) const;
    // After a successful compile and link; the base does nothing.
    virtual void PostCompiled() {}
    // Makes this the program the next draws use.
    virtual void ApplyProgram();

    // --- Device side -------------------------------------------------------
    // The platform's objects for the program (Renderer::CreateProgramDevice);
    // the null device needs none.
    bool CreateDeviceHandle() override;
    void ReleaseDeviceHandle() override;
    ProgramDeviceState* GetDeviceState() const { return m_deviceState.get(); }
    void SetDeviceState(std::unique_ptr<ProgramDeviceState> state);

private:
    Ptr<Shader> m_shaders[kStages];
    TMap<WString, Ptr<ShaderTexture>> m_textures;
    TMap<WString, Ptr<ShaderSampler>> m_samplers;
    TMap<WString, Ptr<ShaderBuffer>> m_buffers;
    TArray<Ptr<ShaderCBuffer>> m_cbuffers;
    TArray<uint32> m_cbufferSizes; // the largest any stage declares
    TArray<Ptr<ConstantBuffer>> m_constantBuffers;
    std::unique_ptr<ProgramDeviceState> m_deviceState;
};

} // namespace KovexEngine
