#pragma once

// What a compiled program exposes, by name: constants (with their default
// values and auto-update ids), named constant buffers, textures, samplers and
// read-write buffers. They live with the device layer because a constant
// buffer commits constants as a program does.
//
// Threads: plain data, built by whoever compiles a program and read on the
// thread that draws. SetAutoUpdateResolver belongs to initialisation.

#include "kernel/RefCount.h"
#include "kernel/SharedString.h"
#include "reflection/EngineEnums.h"

namespace KovexEngine {

class Texture;
class SamplerState;
class RWBuffer;

class KOVEX_API ShaderResource : public ReferenceObj
{
public:
    static constexpr unsigned kStages = 6;

    ShaderResource();
    ~ShaderResource() override;

    const TSharedString<WString>& GetName() const { return m_name; }
    void SetName(const TSharedString<WString>& name) { m_name = name; }
    // The resource's slot in the shader of a stage; -1 where the stage does
    // not use it. The linker fills each shader's lists from it.
    virtual int GetSlotInShader(ShaderType stage) const;
    void SetSlotInShader(ShaderType stage, int slot);

private:
    TSharedString<WString> m_name;
    int m_slots[kStages];
};

class KOVEX_API ShaderTexture : public ShaderResource
{
public:
    ShaderTexture();
    ~ShaderTexture() override;
    bool FromConfig = false; // the texture came from a configuration
    Ptr<Texture> Value;
};

class KOVEX_API ShaderSampler : public ShaderResource
{
public:
    ShaderSampler();
    ~ShaderSampler() override;
    Ptr<SamplerState> Value;
};

class KOVEX_API ShaderBuffer : public ShaderResource
{
public:
    ShaderBuffer();
    ~ShaderBuffer() override;
    uint32 Slot = 0;
    Ptr<RWBuffer> Value;
};

class KOVEX_API ShaderConstant : public ShaderResource
{
public:
    // Group (the render-data class), constant within it, a spare byte and
    // an array element; all ones as a whole means none.
    union AutoUpdateId
    {
        struct
        {
            uint8 Group;
            uint8 Constant;
            uint8 Spare;
            uint8 ArrayIndex;
        } Parts;
        uint32 Value;

        AutoUpdateId() : Value(kInvalid) {}
        bool IsValid() const { return Value != kInvalid; }
    };
    static constexpr uint32 kInvalid = 0xFFFFFFFFu;
    // Kinds of update the per-group lists are kept by.
    static constexpr unsigned kUpdateKinds = 3;

    // Who knows the auto-update constants (the layer that registers them)
    // answers a name with an id and a kind below kUpdateKinds; false for a
    // name that is not one of them.
    using AutoUpdateResolver = bool (*)(const WString& name, AutoUpdateId& id, uint32& kind);
    static void SetAutoUpdateResolver(AutoUpdateResolver resolver);
    // The resolver installed now (null when none), so that one can be put back.
    static AutoUpdateResolver GetAutoUpdateResolver();

    ShaderConstant() = default;
    ~ShaderConstant() override;

    const AutoUpdateId& GetAutoUpdateId() const { return m_id; }
    uint32 GetUpdateKind() const { return m_kind; }
    bool IsAutoUpdata() const { return m_id.IsValid(); }
    // Looks the name up with the resolver; invalid without one.
    void AllocAutoUpdateId();

    // Default value: `size` bytes as the shader declares them (registers of
    // 16 bytes); replaces any earlier one. False for an absurd size.
    bool SetDefaultValue(const void* data, uint32 size);
    const float* GetDefaultValue() const { return m_default; }
    uint32 GetSize() const { return m_size; }
    void SetSize(uint32 size) { m_size = size; }
    // Where the constant lives: for a constant buffer, the byte offset, then
    // a backend's own word.
    uint32 Location[2] = {0, 0};

private:
    AutoUpdateId m_id;
    uint32 m_kind = 0;
    float* m_default = nullptr;
    uint32 m_size = 0;
};

class KOVEX_API ShaderCBuffer : public ShaderResource
{
public:
    ShaderCBuffer();
    ~ShaderCBuffer() override;
    // The constants of the buffer; owned by the program that lists them.
    TArray<ShaderConstant*> Constants;
};

} // namespace KovexEngine
