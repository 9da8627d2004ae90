#pragma once

// Configurations of program generator codes: a named macro set with the
// sampler and texture descriptions a program of it links against. A
// configuration belongs to one code (its parent) and lives as long as it.
//
// PGConfFW (of a framework) also finds the compiled programs that join it with
// an attribute and a material configuration (see PGFramework).
// PGConfMT (of a material) packs its blend and surface options in one flags
// word and keeps the macros that follow from them in step.
//
// Threads: a configuration is built and changed on the loading thread;
// reading it (macros, descriptions, flags) is safe from any thread as long as
// nobody changes it. PGConfFW::GetProgram has no lock: see PGFramework.

#include "graphics/StateDesc.h"
#include "kernel/Containers.h"
#include "kernel/SharedString.h"
#include "kernel/Strings.h"
#include "reflection/EngineEnums.h"
#include "reflection/Object.h"
#include "shaders/MaterialFeatureFlags.h"

namespace KovexEngine {

class PGCode;
class PGFramework;
class PGAttribute;
class PGMaterial;
class Program;
class ComputeProgram;
class Serializer;

// A sampler a configuration gives to the program's sampler of that name.
struct KOVEX_API PGSamplerDesc
{
    TSharedString<WString> Name;
    SamplerStateDesc Desc;

    bool Save(Serializer* serializer) const;
    bool Load(Serializer* serializer);
    bool operator==(const PGSamplerDesc& other) const;
};

// A texture a configuration gives to the program's texture of that name:
// loaded from Path when there is one; ConfigTexture marks it as coming from
// the configuration rather than from a material parameter.
struct KOVEX_API PGTextureDesc
{
    TSharedString<WString> Name;
    WString Path;
    bool ConfigTexture = false;

    bool Save(Serializer* serializer) const;
    bool Load(Serializer* serializer);
    bool operator==(const PGTextureDesc& other) const;
};

class KOVEX_API PGCodeConf : public Object
{
    KOVEX_CLASS(PGCodeConf)

public:
    PGCodeConf();
    ~PGCodeConf() override;

    const TSharedString<WString>& GetName() const { return m_name; }
    void SetName(const WString& name);
    PGCode* GetParent() const { return m_parent; }
    void SetParent(PGCode* parent) { m_parent = parent; }
    // The parent's code text; empty without a parent.
    const AString& GetCode() const;

    // --- Macros (sorted by name) ---------------------------------------------
    virtual void SetMacro(const AString& name, const AString& value);
    virtual bool RemoveMacro(const AString& name);
    bool FindMacro(AString& out, const AString& name) const;
    const TMap<AString, AString>& GetMacros() const { return m_macros; }

    // --- Descriptions: Attach is false when the name is taken -----------------
    bool AttachSamplerDesc(const PGSamplerDesc& desc);
    bool DetachSamplerDesc(const WString& name);
    const PGSamplerDesc* GetSamplerDesc(const WString& name) const;
    const TMap<WString, PGSamplerDesc>& GetSamplerDescMap() const { return m_samplers; }
    bool AttachTextureDesc(const PGTextureDesc& desc);
    bool DetachTextureDesc(const WString& name);
    const PGTextureDesc* GetTextureDesc(const WString& name) const;
    const TMap<WString, PGTextureDesc>& GetTextureDescMap() const { return m_textures; }

    // Macros and descriptions of `other` (name and parent stay): the way to
    // derive a configuration such as one with "[SKIN_COARSE]" appended.
    virtual void CopyContents(const PGCodeConf& other);

    // Block "BCFG": "NAME", counts "MCSZ", "SPSZ", "TXSZ", then one "Macs"
    // section per macro ("NAME" and "VAL"), one "PGSM" per sampler and one
    // "PGTX" per texture. Load replaces the contents; counts are checked
    // against the sections present, so a corrupt file fails cleanly. (The
    // XML form keeps floats to six significant digits, as it does
    // everywhere.)
    bool Save(Serializer* serializer) const override;
    bool Load(Serializer* serializer) override;
    // Name, macros and descriptions all equal.
    virtual bool IsSameContents(const PGCodeConf& other) const;

protected:
    // Hooks for subclasses that keep more than the base (inside "BCFG").
    virtual bool SaveExtra(Serializer* serializer) const;
    virtual bool LoadExtra(Serializer* serializer);

private:
    TSharedString<WString> m_name;
    PGCode* m_parent = nullptr;
    TMap<WString, PGSamplerDesc> m_samplers;
    TMap<WString, PGTextureDesc> m_textures;
    TMap<AString, AString> m_macros;
};

// A configuration of an attribute code (how geometry comes into the vertex
// shader). Nothing but its class.
class KOVEX_API PGConfAB : public PGCodeConf
{
    KOVEX_CLASS(PGConfAB)
public:
    PGAttribute* GetAttribute() const;
};

class PGConfMT;

// A configuration of a framework code.
class KOVEX_API PGConfFW : public PGCodeConf
{
    KOVEX_CLASS(PGConfFW)

public:
    // Flags word.
    static constexpr uint32 FLAG_TESSELLATION_AWARE = 1u << 1; // may get hull and domain stages
    static constexpr uint32 FLAG_GEOMETRY_STAGE = 1u << 2;     // has a geometry stage

    uint32 GetFlags() const { return m_flags; }
    void SetFlags(uint32 flags) { m_flags = flags; }
    bool IsTessellationAware() const { return (m_flags & FLAG_TESSELLATION_AWARE) != 0; }
    void SetTessellationAware(bool on);
    bool UsesGeometryStage() const { return (m_flags & FLAG_GEOMETRY_STAGE) != 0; }
    void SetUsesGeometryStage(bool on);

    PGFramework* GetFramework() const;
    // The program of this configuration with these two (either may be null),
    // compiled on first request and kept, failed or not. Null without a
    // parent framework.
    Program* GetProgram(const PGConfAB* ab, const PGConfMT* mt) const;
    ComputeProgram* GetComputeProgram() const;

protected:
    bool SaveExtra(Serializer* serializer) const override;
    bool LoadExtra(Serializer* serializer) override;

private:
    uint32 m_flags = 0;
};

// A configuration of a material code. Its flags word is the material
// feature word (shaders/MaterialFeatureFlags.h has the layout).
// The setters keep the owned macros in step: one blend-mode macro
// (PGMaterial::BLEND_MODE_MACRO), "MTL_OPAQUE_MASK" once SetOpaqueMask ran,
// "TESSELLATION_SCHEME", "MT_ALLOW_TESSELLATION", "AMBIENT_AS_TRANSMISSION",
// "USE_TWO_SIDE_MASK" (TwoSideSeparatedPass only). The flags for the forward
// path and the scene colour and depth own no macro: the render phases read
// them.
class KOVEX_API PGConfMT : public PGCodeConf
{
    KOVEX_CLASS(PGConfMT)

public:
    // Names kept for the callers that knew the word through this class.
    static constexpr unsigned BIT_BLEND_MODE = MaterialFeature::kBlendModeShift;
    static constexpr unsigned BIT_BLEND_ALPHA_MODE = MaterialFeature::kBlendAlphaModeShift;
    static constexpr unsigned BIT_TRANSLUCENT_DEPTH_MODE = MaterialFeature::kTranslucentDepthModeShift;
    static constexpr unsigned BIT_TWO_SIDE_MODE = MaterialFeature::kTwoSideModeShift;
    static constexpr unsigned BIT_TESSELLATION_SCHEME = MaterialFeature::kTessellationSchemeShift;
    static constexpr uint32 FLAG_AMBIENT = MaterialFeature::kAmbient;
    static constexpr uint32 FLAG_LIGHTING = MaterialFeature::kLitBySceneLights;
    static constexpr uint32 FLAG_FORWARD_LIGHTING = MaterialFeature::kForwardLighting;
    static constexpr uint32 FLAG_SCENE_DEPTH = MaterialFeature::kReadsSceneDepth;
    static constexpr uint32 FLAG_SCENE_COLOR = MaterialFeature::kReadsSceneColor;
    static constexpr uint32 FLAG_TESSELLATION = MaterialFeature::kTessellation;
    static constexpr uint32 FLAG_DIFFUSE = MaterialFeature::kDiffuse;
    static constexpr uint32 FLAG_DISTORTED = MaterialFeature::kDistorted;
    static constexpr uint32 FLAG_TRANSMISSION = MaterialFeature::kTransmission;

    PGConfMT();

    PGMaterial* GetMaterial() const;
    uint32 GetFlags() const { return m_flags; }

    BlendMode GetBlendMode() const { return BlendMode(GetField(BIT_BLEND_MODE)); }
    void SetBlendMode(BlendMode mode);
    BlendAlphaMode GetBlendAlphaMode() const { return BlendAlphaMode(GetField(BIT_BLEND_ALPHA_MODE)); }
    void SetBlendAlphaMode(BlendAlphaMode mode);
    TranslucentDepthMode GetTranslucentDepthMode() const
    {
        return TranslucentDepthMode(GetField(BIT_TRANSLUCENT_DEPTH_MODE));
    }
    void SetTranslucentDepthMode(TranslucentDepthMode mode);
    TwoSideMode GetTwoSideMode() const { return TwoSideMode(GetField(BIT_TWO_SIDE_MODE)); }
    void SetTwoSideMode(TwoSideMode mode);
    TessellationScheme GetTessellationScheme() const { return TessellationScheme(GetField(BIT_TESSELLATION_SCHEME)); }
    void SetTessellationScheme(TessellationScheme scheme);

    bool IsAmbient() const { return (m_flags & FLAG_AMBIENT) != 0; }
    void EnableAmbient(bool on) { SetFlag(FLAG_AMBIENT, on); }
    bool IsDiffuse() const { return (m_flags & FLAG_DIFFUSE) != 0; }
    void EnableDiffuse(bool on) { SetFlag(FLAG_DIFFUSE, on); }
    bool IsLighting() const { return (m_flags & FLAG_LIGHTING) != 0; }
    void EnableLighting(bool on) { SetFlag(FLAG_LIGHTING, on); }
    bool IsDistorted() const { return (m_flags & FLAG_DISTORTED) != 0; }
    void EnableDistortion(bool on) { SetFlag(FLAG_DISTORTED, on); }
    bool IsForwardLighting() const { return (m_flags & FLAG_FORWARD_LIGHTING) != 0; }
    void EnableForwardLighting(bool on) { SetFlag(FLAG_FORWARD_LIGHTING, on); }
    bool IsReadingSceneDepth() const { return (m_flags & FLAG_SCENE_DEPTH) != 0; }
    void EnableSceneDepth(bool on) { SetFlag(FLAG_SCENE_DEPTH, on); }
    bool IsReadingSceneColor() const { return (m_flags & FLAG_SCENE_COLOR) != 0; }
    void EnableSceneColor(bool on) { SetFlag(FLAG_SCENE_COLOR, on); }
    bool IsTransmission() const { return (m_flags & FLAG_TRANSMISSION) != 0; }
    void EnableTransmission(bool on);
    bool IsTessellation() const { return (m_flags & FLAG_TESSELLATION) != 0; }
    void EnableTessellation(bool on);

    float GetOpaqueMask() const { return m_opaqueMask; }
    void SetOpaqueMask(float mask);

    void CopyContents(const PGCodeConf& other) override;
    bool IsSameContents(const PGCodeConf& other) const override;

protected:
    bool SaveExtra(Serializer* serializer) const override;
    bool LoadExtra(Serializer* serializer) override;

private:
    int GetField(unsigned shift) const { return MaterialFeature::GetField(m_flags, shift); }
    void SetField(unsigned shift, int value) { m_flags = MaterialFeature::SetField(m_flags, shift, value); }
    void SetFlag(uint32 flag, bool on) { m_flags = MaterialFeature::SetFlag(m_flags, flag, on); }
    // Reflection's accessors (bool and enum setters by value).
    void SetBlendModeProp(BlendMode mode) { SetBlendMode(mode); }
    void SetLightingProp(bool on) { EnableLighting(on); }
    void SetDistortedProp(bool on) { EnableDistortion(on); }
    void SetTessellationProp(bool on) { EnableTessellation(on); }

    uint32 m_flags = 0;
    float m_opaqueMask = 0.1f;
};

} // namespace KovexEngine
