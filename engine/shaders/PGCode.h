#pragma once

// Program generator codes. A framework says how a pass works, an attribute
// how a kind of geometry comes into the vertex shader, a material how the
// surface looks; one configuration of each makes one Program. The framework's
// text is the compilation unit: it pulls the attribute's and the material's
// texts in with #include "Attribute" and #include "Material".
//
// Every program is looked up through its framework, by its framework,
// attribute and material configuration (one hash probe; the framework also
// lists each material's programs, so RemovePGMaterial drops them together).
// A miss asks ProgramManager::BuildProgram and keeps the result, failed
// programs too, so a combination is compiled at most once.
//
// Threads: codes are created, configured and registered on the loading
// thread. GetProgram and RemovePGMaterial have no lock of their own: the
// render pipeline calls them on the render side, and asynchronous compile
// commands between frames, and it keeps calls on one framework from
// overlapping. Calls on different frameworks may run at the same time.

#include <memory>

#include "kernel/Containers.h"
#include "kernel/SharedString.h"
#include "kernel/Strings.h"
#include "reflection/EngineEnums.h"
#include "reflection/Object.h"
#include "shaders/PGCodeConf.h"

namespace KovexEngine {

class Program;
class ComputeProgram;
class BlendState;
struct ShaderMacro;

// Name of the configuration ValidateDefault creates: "DEFAULT".
KOVEX_API const TSharedString<WString>& SSTR_CFG_DEFAULT();

class KOVEX_API PGCode : public Object
{
    KOVEX_CLASS(PGCode)

public:
    enum TYPE : int
    {
        Framework = 0,
        Attribute = 1,
        Material = 2,
        TYPE_COUNT = 3,
    };
    // "Framework", "Attribute", "Material"; null for anything else.
    static const char16_t* GetTypeName(TYPE type);

    PGCode();
    ~PGCode() override;

    const WString& GetName() const { return m_name; }
    // For ProgramManager::AddCode (a name given to an unnamed code).
    void SetName(const WString& name) { m_name = name; }
    const WString& GetPath() const { return m_path; }
    const AString& GetCode() const { return m_code; }
    void SetCode(const AString& code) { m_code = code; }
    TYPE Type() const { return m_type; }

    // --- Configurations ------------------------------------------------------
    // Null for an empty name (silently) or a taken one (logged).
    PGCodeConf* CreateConfig(const WString& name);
    PGCodeConf* GetConfig(const WString& name) const;
    const TMap<WString, PGCodeConf*>& GetConfigMap() const { return m_configs; }
    PGCodeConf* GetCurConf() const { return m_curConf; }
    bool SetCurConf(const WString& name);
    // Makes sure there is a current configuration: the first of the map, or
    // a new "DEFAULT" one when there is none.
    void ValidateDefault();

    // --- Forwarded to the current configuration (after ValidateDefault) -----
    void SetMacro(const AString& name, const AString& value);
    bool RemoveMacro(const AString& name);
    bool FindMacro(AString& out, const AString& name);
    const TMap<AString, AString>& GetMacros();
    bool AttachSamplerDesc(const PGSamplerDesc& desc);
    bool DetachSamplerDesc(const WString& name);
    const PGSamplerDesc* GetSamplerDesc(const WString& name);
    const TMap<WString, PGSamplerDesc>& GetSamplerDescMap();
    bool AttachTextureDesc(const PGTextureDesc& desc);
    bool DetachTextureDesc(const WString& name);
    const PGTextureDesc* GetTextureDesc(const WString& name);
    const TMap<WString, PGTextureDesc>& GetTextureDescMap();

    // Block "CODE": "TYPE", "NAME", "PATH", "DATA" (the text), "CCUR" (the
    // current configuration's name), then one "BCFG" per configuration.
    // Loading into a code of another type fails, and so does a load that
    // would rename a registered code; configurations of the loaded code
    // replace those present. Programs are not saved.
    bool Save(Serializer* serializer) const override;
    bool Load(Serializer* serializer) override;

    // True once ProgramManager holds this code in its table.
    bool IsRegistered() const { return m_registered; }
    void SetRegistered(bool registered) { m_registered = registered; }

protected:
    // An empty code of a type, not registered (for loading).
    explicit PGCode(TYPE type) : m_type(type) {}
    // The code registers itself with ProgramManager (AddCode).
    PGCode(TYPE type, const WString& name, const WString& path, const AString& code);
    virtual PGCodeConf* InternalCreateConfig() = 0;
    void DeleteConfigs();

private:
    TYPE m_type = Framework;
    WString m_name;
    WString m_path;
    AString m_code;
    PGCodeConf* m_curConf = nullptr;
    TMap<WString, PGCodeConf*> m_configs; // owned
    bool m_registered = false;
};

class KOVEX_API PGFramework : public PGCode
{
    KOVEX_CLASS(PGFramework)

public:
    PGFramework();
    PGFramework(const WString& name, const WString& path, const AString& code);
    ~PGFramework() override;

    PGConfFW* CreateConfig(const WString& name) { return static_cast<PGConfFW*>(PGCode::CreateConfig(name)); }
    PGConfFW* GetConfig(const WString& name) const { return static_cast<PGConfFW*>(PGCode::GetConfig(name)); }
    PGConfFW* GetCurConf() const { return static_cast<PGConfFW*>(PGCode::GetCurConf()); }

    // Text of one stage where a framework keeps stages apart (compute).
    const AString& GetShaderCode(ShaderType type) const;
    void SetShaderCode(ShaderType type, const char* code);
    void SetShaderCode(ShaderType type, const AString& code);

    // The program of the three configurations (see the lookup order above);
    // null when `fw` is null or not of this framework.
    Program* GetProgram(const PGConfFW* fw, const PGConfAB* ab, const PGConfMT* mt);
    // With the current framework configuration.
    Program* GetProgram(const PGConfAB* ab, const PGConfMT* mt);
    // Current framework configuration, no attribute, no material.
    Program* GetProgram();
    ComputeProgram* GetComputeProgram(const PGConfFW* fw);
    ComputeProgram* GetComputeProgram();
    // Drops every program made with a configuration of `material`.
    void RemovePGMaterial(const PGMaterial* material);
    // Programs held now, compute ones included (for tests and statistics).
    unsigned GetNumPrograms() const;

protected:
    PGCodeConf* InternalCreateConfig() override;

private:
    struct ProgramMaps;
    AString m_shaderCode[6];
    std::unique_ptr<ProgramMaps> m_maps;
};

class KOVEX_API PGAttribute : public PGCode
{
    KOVEX_CLASS(PGAttribute)

public:
    PGAttribute();
    // Instancing is allowed when the text honours "USE_INSTANCE_RENDERING".
    PGAttribute(const WString& name, const WString& path, const AString& code);

    PGConfAB* CreateConfig(const WString& name) { return static_cast<PGConfAB*>(PGCode::CreateConfig(name)); }
    PGConfAB* GetConfig(const WString& name) const { return static_cast<PGConfAB*>(PGCode::GetConfig(name)); }
    PGConfAB* GetCurConf() const { return static_cast<PGConfAB*>(PGCode::GetCurConf()); }

    bool IsInstancingAllowed() const { return m_allowInstancing; }
    void SetInstancingAllowed(bool allowed) { m_allowInstancing = allowed; }

protected:
    PGCodeConf* InternalCreateConfig() override;

private:
    bool m_allowInstancing = false;
};

class KOVEX_API PGMaterial : public PGCode
{
    KOVEX_CLASS(PGMaterial)

public:
    // One macro per BlendMode, by value; "MTL_BLEND_MASK" for Mask.
    static const char* const BLEND_MODE_MACRO[8];
    static constexpr BlendMode::TYPE DEFAULT_BLEND_MODE = BlendMode::Opaque;
    static constexpr BlendAlphaMode::TYPE DEFAULT_BLEND_ALPHA_MODE = BlendAlphaMode::Replace;
    static constexpr TranslucentDepthMode::TYPE DEFAULT_TRANSLUCENT_DEPTH_MODE = TranslucentDepthMode::TestOnly;
    static constexpr TwoSideMode::TYPE DEFAULT_TWO_SIDE_MODE = TwoSideMode::None;
    static constexpr float DEFAULT_OPAQUE_MASK = 0.1f;

    PGMaterial();
    PGMaterial(const WString& name, const WString& path, const AString& code);

    PGConfMT* CreateConfig(const WString& name) { return static_cast<PGConfMT*>(PGCode::CreateConfig(name)); }
    // A configuration named "<blend>_<depth>_<twoside>" from the members'
    // names, with those three set; null when that name is taken.
    PGConfMT* CreateConfig(BlendMode blend, TranslucentDepthMode depth, TwoSideMode twoSide);
    PGConfMT* GetConfig(const WString& name) const { return static_cast<PGConfMT*>(PGCode::GetConfig(name)); }
    PGConfMT* GetCurConf() const { return static_cast<PGConfMT*>(PGCode::GetCurConf()); }

    // The blend state of a mode: the shared null state for Opaque and Mask,
    // else the additive, modulate or subtractive preset with the alpha mode.
    static const Ptr<BlendState>& GetBlendState(BlendMode blend, BlendAlphaMode alpha);

    // Mirrors of the current configuration (after ValidateDefault).
    void EnableAmbient(bool on);
    void EnableDiffuse(bool on);
    void EnableLighting(bool on);
    void EnableDistortion(bool on);
    void EnableTessellation(bool on);
    void EnableTransmission(bool on);
    void EnableForwardLighting(bool on);
    void EnableSceneDepth(bool on);
    void EnableSceneColor(bool on);
    BlendMode GetBlendMode();
    void SetBlendMode(BlendMode mode);
    BlendAlphaMode GetBlendAlphaMode();
    void SetBlendAlphaMode(BlendAlphaMode mode);
    TranslucentDepthMode GetTranslucentDepthMode();
    void SetTranslucentDepthMode(TranslucentDepthMode mode);
    TwoSideMode GetTwoSideMode();
    void SetTwoSideMode(TwoSideMode mode);
    TessellationScheme GetTessellationScheme();
    void SetTessellationScheme(TessellationScheme scheme);
    float GetOpaqueMask();
    void SetOpaqueMask(float mask);

protected:
    PGCodeConf* InternalCreateConfig() override;
};

} // namespace KovexEngine
