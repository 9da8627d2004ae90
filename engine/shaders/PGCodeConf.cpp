#include "shaders/PGCodeConf.h"

#include "kernel/Log.h"
#include "reflection/PropertyRegistration.h"
#include "reflection/Struct.h"
#include "serialization/Serializer.h"
#include "shaders/PGCode.h"
#include "shaders/Program.h"

namespace KovexEngine {

KOVEX_REGISTER_CLASS(PGCodeConf, u"Engine", Object)
KOVEX_REGISTER_CLASS(PGConfAB, u"Engine", PGCodeConf)
KOVEX_REGISTER_CLASS(PGConfFW, u"Engine", PGCodeConf)
KOVEX_REGISTER_CLASS_EX(PGConfMT, u"Engine")

void PGConfMT::StaticConstructor(Class* cls)
{
    RegisterBases<PGConfMT, PGCodeConf>(cls);
    AddAccessor(cls, u"BlendMode", &PGConfMT::GetBlendMode, &PGConfMT::SetBlendModeProp);
    AddAccessor(cls, u"BlendAlphaMode", &PGConfMT::GetBlendAlphaMode, &PGConfMT::SetBlendAlphaMode);
    AddAccessor(cls, u"IsLighting", &PGConfMT::IsLighting, &PGConfMT::SetLightingProp);
    AddAccessor(cls, u"IsDistorted", &PGConfMT::IsDistorted, &PGConfMT::SetDistortedProp);
    AddAccessor(cls, u"IsTessellation", &PGConfMT::IsTessellation, &PGConfMT::SetTessellationProp);
    AddAccessor(cls, u"OpaqueMask", &PGConfMT::GetOpaqueMask, &PGConfMT::SetOpaqueMask);
    cls->ProcessClass();
}

namespace {

constexpr FourCC kConfTag = FourCCs::Make("BCFG");
constexpr FourCC kMacroCountTag = FourCCs::Make("MCSZ");
constexpr FourCC kSamplerCountTag = FourCCs::Make("SPSZ");
constexpr FourCC kTextureCountTag = FourCCs::Make("TXSZ");
constexpr FourCC kMacroTag = FourCCs::Make("Macs");
constexpr FourCC kSamplerTag = FourCCs::Make("PGSM");
constexpr FourCC kTextureTag = FourCCs::Make("PGTX");
constexpr FourCC kSamplerDescTag = FourCCs::Make("DESC");
constexpr FourCC kConfigTextureTag = FourCCs::Make("CTEX");
constexpr FourCC kFlagsTag = FourCCs::Make("FLAG");
constexpr FourCC kOpaqueMaskTag = FourCCs::Make("OPMK");

const Struct* SamplerDescStruct() { return static_cast<const Struct*>(SamplerStateDesc::StaticGetClass()); }

// Reads `count` repeated sections of `tag`, each with `load`; false when the
// file holds fewer than it says.
template <typename F>
bool LoadSections(Serializer* serializer, FourCC tag, uint32 count, F&& load)
{
    if (count > serializer->CountSections(tag))
        return false;
    for (uint32 i = 0; i < count; ++i)
    {
        if (!serializer->EnterNext(tag))
            return false;
        bool ok = load();
        serializer->Leave();
        if (!ok)
            return false;
    }
    return true;
}

} // namespace

// --- Descriptions ----------------------------------------------------------------

bool PGSamplerDesc::Save(Serializer* serializer) const
{
    return serializer->Write(FourCCs::NAME, Name) && serializer->Write(kSamplerDescTag, &Desc, SamplerDescStruct());
}

bool PGSamplerDesc::Load(Serializer* serializer)
{
    return serializer->Read(FourCCs::NAME, Name) && !Name.IsEmpty() &&
           serializer->Read(kSamplerDescTag, &Desc, SamplerDescStruct());
}

bool PGSamplerDesc::operator==(const PGSamplerDesc& other) const
{
    const SamplerStateDesc& a = Desc;
    const SamplerStateDesc& b = other.Desc;
    return *Name == *other.Name && a.Filter == b.Filter && a.AddressU == b.AddressU && a.AddressV == b.AddressV &&
           a.AddressW == b.AddressW && a.MipLODBias == b.MipLODBias && a.MaxAnisotropy == b.MaxAnisotropy &&
           a.ComparisonFunc == b.ComparisonFunc && a.BorderColor.x == b.BorderColor.x &&
           a.BorderColor.y == b.BorderColor.y && a.BorderColor.z == b.BorderColor.z &&
           a.BorderColor.w == b.BorderColor.w && a.MinLOD == b.MinLOD && a.MaxLOD == b.MaxLOD;
}

bool PGTextureDesc::Save(Serializer* serializer) const
{
    return serializer->Write(FourCCs::NAME, Name) && serializer->Write(FourCCs::PATH, Path) &&
           serializer->Write(kConfigTextureTag, ConfigTexture);
}

bool PGTextureDesc::Load(Serializer* serializer)
{
    return serializer->Read(FourCCs::NAME, Name) && !Name.IsEmpty() && serializer->Read(FourCCs::PATH, Path) &&
           serializer->Read(kConfigTextureTag, ConfigTexture);
}

bool PGTextureDesc::operator==(const PGTextureDesc& other) const
{
    return *Name == *other.Name && Path == other.Path && ConfigTexture == other.ConfigTexture;
}

// --- PGCodeConf -------------------------------------------------------------------

PGCodeConf::PGCodeConf() = default;
PGCodeConf::~PGCodeConf() = default;

void PGCodeConf::SetName(const WString& name) { m_name = TSharedString<WString>(name); }

const AString& PGCodeConf::GetCode() const { return m_parent ? m_parent->GetCode() : AString::EmptyString; }

void PGCodeConf::SetMacro(const AString& name, const AString& value)
{
    if (!name.IsEmpty())
        m_macros.Set(name, value);
}

bool PGCodeConf::RemoveMacro(const AString& name) { return m_macros.Remove(name); }

bool PGCodeConf::FindMacro(AString& out, const AString& name) const
{
    const AString* value = m_macros.FindValue(name);
    if (!value)
        return false;
    out = *value;
    return true;
}

namespace {

// A description enters its map once per name.
template <typename DESC>
bool AttachDesc(TMap<WString, DESC>& map, const DESC& desc)
{
    return !desc.Name.IsEmpty() && !map.Contains(*desc.Name) && map.Insert(*desc.Name, desc);
}

} // namespace

bool PGCodeConf::AttachSamplerDesc(const PGSamplerDesc& desc) { return AttachDesc(m_samplers, desc); }
bool PGCodeConf::DetachSamplerDesc(const WString& name) { return m_samplers.Remove(name); }
const PGSamplerDesc* PGCodeConf::GetSamplerDesc(const WString& name) const { return m_samplers.FindValue(name); }
bool PGCodeConf::AttachTextureDesc(const PGTextureDesc& desc) { return AttachDesc(m_textures, desc); }
bool PGCodeConf::DetachTextureDesc(const WString& name) { return m_textures.Remove(name); }
const PGTextureDesc* PGCodeConf::GetTextureDesc(const WString& name) const { return m_textures.FindValue(name); }

void PGCodeConf::CopyContents(const PGCodeConf& other)
{
    if (&other == this)
        return;
    m_macros = other.m_macros;
    m_samplers = other.m_samplers;
    m_textures = other.m_textures;
}

bool PGCodeConf::IsSameContents(const PGCodeConf& other) const
{
    if (*m_name != *other.m_name || m_macros.Count() != other.m_macros.Count() ||
        m_samplers.Count() != other.m_samplers.Count() || m_textures.Count() != other.m_textures.Count())
        return false;
    for (unsigned i = 0; i < m_macros.Count(); ++i)
        if (m_macros[i].key != other.m_macros[i].key || m_macros[i].value != other.m_macros[i].value)
            return false;
    for (unsigned i = 0; i < m_samplers.Count(); ++i)
        if (!(m_samplers[i].value == other.m_samplers[i].value))
            return false;
    for (unsigned i = 0; i < m_textures.Count(); ++i)
        if (!(m_textures[i].value == other.m_textures[i].value))
            return false;
    return true;
}

bool PGCodeConf::Save(Serializer* serializer) const
{
    if (!serializer || !serializer->Enter(kConfTag))
        return false;
    bool ok = serializer->Write(FourCCs::NAME, *m_name) && serializer->Write(kMacroCountTag, uint32(m_macros.Count())) &&
              serializer->Write(kSamplerCountTag, uint32(m_samplers.Count())) &&
              serializer->Write(kTextureCountTag, uint32(m_textures.Count()));
    for (unsigned i = 0; ok && i < m_macros.Count(); ++i)
    {
        ok = serializer->EnterNext(kMacroTag) && serializer->Write(FourCCs::NAME, m_macros[i].key) &&
             serializer->Write(FourCCs::VAL, m_macros[i].value);
        serializer->Leave();
    }
    for (unsigned i = 0; ok && i < m_samplers.Count(); ++i)
    {
        ok = serializer->EnterNext(kSamplerTag) && m_samplers[i].value.Save(serializer);
        serializer->Leave();
    }
    for (unsigned i = 0; ok && i < m_textures.Count(); ++i)
    {
        ok = serializer->EnterNext(kTextureTag) && m_textures[i].value.Save(serializer);
        serializer->Leave();
    }
    ok = ok && SaveExtra(serializer);
    serializer->Leave();
    return ok;
}

bool PGCodeConf::Load(Serializer* serializer)
{
    if (!serializer || !serializer->EnterNext(kConfTag))
        return false;
    WString name;
    uint32 macroCount = 0, samplerCount = 0, textureCount = 0;
    TMap<AString, AString> macros;
    TMap<WString, PGSamplerDesc> samplers;
    TMap<WString, PGTextureDesc> textures;
    bool ok = serializer->Read(FourCCs::NAME, name) && !name.IsEmpty() &&
              serializer->Read(kMacroCountTag, macroCount) && serializer->Read(kSamplerCountTag, samplerCount) &&
              serializer->Read(kTextureCountTag, textureCount);
    ok = ok && LoadSections(serializer, kMacroTag, macroCount, [&] {
             AString key, value;
             return serializer->Read(FourCCs::NAME, key) && !key.IsEmpty() && serializer->Read(FourCCs::VAL, value) &&
                    macros.Insert(key, value);
         });
    ok = ok && LoadSections(serializer, kSamplerTag, samplerCount, [&] {
             PGSamplerDesc desc;
             return desc.Load(serializer) && samplers.Insert(*desc.Name, desc);
         });
    ok = ok && LoadSections(serializer, kTextureTag, textureCount, [&] {
             PGTextureDesc desc;
             return desc.Load(serializer) && textures.Insert(*desc.Name, desc);
         });
    if (ok)
    {
        // Everything read: only now does the configuration change.
        TSharedString<WString> oldName = m_name;
        SetName(name);
        m_macros.Swap(macros);
        m_samplers.Swap(samplers);
        m_textures.Swap(textures);
        ok = LoadExtra(serializer);
        if (!ok)
        {
            m_name = oldName;
            m_macros.Swap(macros);
            m_samplers.Swap(samplers);
            m_textures.Swap(textures);
        }
    }
    serializer->Leave();
    return ok;
}

bool PGCodeConf::SaveExtra(Serializer*) const { return true; }
bool PGCodeConf::LoadExtra(Serializer*) { return true; }

// --- PGConfAB / PGConfFW --------------------------------------------------------------

PGAttribute* PGConfAB::GetAttribute() const
{
    PGCode* code = GetParent();
    return code && code->Type() == PGCode::Attribute ? static_cast<PGAttribute*>(code) : nullptr;
}

void PGConfFW::SetTessellationAware(bool on)
{
    m_flags = on ? (m_flags | FLAG_TESSELLATION_AWARE) : (m_flags & ~FLAG_TESSELLATION_AWARE);
}

void PGConfFW::SetUsesGeometryStage(bool on)
{
    m_flags = on ? (m_flags | FLAG_GEOMETRY_STAGE) : (m_flags & ~FLAG_GEOMETRY_STAGE);
}

PGFramework* PGConfFW::GetFramework() const
{
    PGCode* code = GetParent();
    return code && code->Type() == PGCode::Framework ? static_cast<PGFramework*>(code) : nullptr;
}

Program* PGConfFW::GetProgram(const PGConfAB* ab, const PGConfMT* mt) const
{
    PGFramework* framework = GetFramework();
    return framework ? framework->GetProgram(this, ab, mt) : nullptr;
}

ComputeProgram* PGConfFW::GetComputeProgram() const
{
    PGFramework* framework = GetFramework();
    return framework ? framework->GetComputeProgram(this) : nullptr;
}

bool PGConfFW::SaveExtra(Serializer* serializer) const { return serializer->Write(kFlagsTag, m_flags); }

bool PGConfFW::LoadExtra(Serializer* serializer)
{
    uint32 flags = 0;
    if (!serializer->Read(kFlagsTag, flags))
        return false;
    m_flags = flags;
    return true;
}

// --- PGConfMT ---------------------------------------------------------------------------

namespace {

const AString& TessellationSchemeMacro()
{
    static const AString name("TESSELLATION_SCHEME");
    return name;
}

} // namespace

PGConfMT::PGConfMT()
{
    SetField(BIT_BLEND_MODE, PGMaterial::DEFAULT_BLEND_MODE);
    SetField(BIT_BLEND_ALPHA_MODE, PGMaterial::DEFAULT_BLEND_ALPHA_MODE);
    SetField(BIT_TRANSLUCENT_DEPTH_MODE, PGMaterial::DEFAULT_TRANSLUCENT_DEPTH_MODE);
    SetField(BIT_TWO_SIDE_MODE, 0);
    SetField(BIT_TESSELLATION_SCHEME, TessellationScheme::Flatten);
    m_flags |= FLAG_LIGHTING;
    m_opaqueMask = PGMaterial::DEFAULT_OPAQUE_MASK;
    SetMacro(PGMaterial::BLEND_MODE_MACRO[PGMaterial::DEFAULT_BLEND_MODE], "1");
    SetMacro(TessellationSchemeMacro(), "0");
    SetTwoSideMode(PGMaterial::DEFAULT_TWO_SIDE_MODE);
}

PGMaterial* PGConfMT::GetMaterial() const
{
    PGCode* code = GetParent();
    return code && code->Type() == PGCode::Material ? static_cast<PGMaterial*>(code) : nullptr;
}

void PGConfMT::SetBlendMode(BlendMode mode)
{
    if (mode.value < 0 || mode.value > BlendMode::Subtractive)
        return;
    RemoveMacro(PGMaterial::BLEND_MODE_MACRO[GetBlendMode().value]);
    SetField(BIT_BLEND_MODE, mode.value);
    SetMacro(PGMaterial::BLEND_MODE_MACRO[mode.value], "1");
}

void PGConfMT::SetBlendAlphaMode(BlendAlphaMode mode)
{
    if (mode.value >= 0 && mode.value <= BlendAlphaMode::Max)
        SetField(BIT_BLEND_ALPHA_MODE, mode.value);
}

void PGConfMT::SetTranslucentDepthMode(TranslucentDepthMode mode)
{
    if (mode.value >= 0 && mode.value <= TranslucentDepthMode::TwoPassTest)
        SetField(BIT_TRANSLUCENT_DEPTH_MODE, mode.value);
}

void PGConfMT::SetTwoSideMode(TwoSideMode mode)
{
    if (mode.value < 0 || mode.value > TwoSideMode::TwoSideSeparatedPass)
        return;
    SetField(BIT_TWO_SIDE_MODE, mode.value);
    if (mode == TwoSideMode::TwoSideSeparatedPass)
        SetMacro("USE_TWO_SIDE_MASK", "1");
    else
        RemoveMacro("USE_TWO_SIDE_MASK");
}

void PGConfMT::SetTessellationScheme(TessellationScheme scheme)
{
    if (scheme.value < 0 || scheme.value > TessellationScheme::Phong)
        return;
    SetField(BIT_TESSELLATION_SCHEME, scheme.value);
    AString value;
    value.Format("%u", unsigned(scheme.value));
    SetMacro(TessellationSchemeMacro(), value);
}

void PGConfMT::EnableTransmission(bool on)
{
    SetFlag(FLAG_TRANSMISSION, on);
    if (on)
        SetMacro("AMBIENT_AS_TRANSMISSION", "1");
    else
        RemoveMacro("AMBIENT_AS_TRANSMISSION");
}

void PGConfMT::EnableTessellation(bool on)
{
    SetFlag(FLAG_TESSELLATION, on);
    if (on)
        SetMacro("MT_ALLOW_TESSELLATION", "1");
    else
        RemoveMacro("MT_ALLOW_TESSELLATION");
}

void PGConfMT::SetOpaqueMask(float mask)
{
    m_opaqueMask = mask;
    AString value;
    value.Format("%g", double(mask));
    SetMacro("MTL_OPAQUE_MASK", value);
}

void PGConfMT::CopyContents(const PGCodeConf& other)
{
    PGCodeConf::CopyContents(other);
    if (const PGConfMT* material = DynamicCast<PGConfMT>(&other))
    {
        m_flags = material->m_flags;
        m_opaqueMask = material->m_opaqueMask;
    }
}

bool PGConfMT::IsSameContents(const PGCodeConf& other) const
{
    const PGConfMT* material = DynamicCast<PGConfMT>(&other);
    return material && PGCodeConf::IsSameContents(other) && m_flags == material->m_flags &&
           m_opaqueMask == material->m_opaqueMask;
}

bool PGConfMT::SaveExtra(Serializer* serializer) const
{
    return serializer->Write(kFlagsTag, m_flags) && serializer->Write(kOpaqueMaskTag, m_opaqueMask);
}

bool PGConfMT::LoadExtra(Serializer* serializer)
{
    uint32 flags = 0;
    float mask = 0.0f;
    if (!serializer->Read(kFlagsTag, flags) || !serializer->Read(kOpaqueMaskTag, mask) || !MaterialFeature::FieldsValid(flags))
        return false;
    m_flags = flags;
    m_opaqueMask = mask;
    return true;
}

} // namespace KovexEngine
