#include "shaders/PGCode.h"

#include <unordered_map>
#include <vector>

#include "graphics/RenderStates.h"
#include "kernel/Log.h"
#include "reflection/EnumClass.h"
#include "serialization/Serializer.h"
#include "shaders/Program.h"
#include "shaders/ProgramManager.h"

namespace KovexEngine {

KOVEX_REGISTER_CLASS(PGCode, u"Engine", Object)
KOVEX_REGISTER_CLASS(PGFramework, u"Engine", PGCode)
KOVEX_REGISTER_CLASS(PGAttribute, u"Engine", PGCode)
KOVEX_REGISTER_CLASS(PGMaterial, u"Engine", PGCode)

namespace {

constexpr FourCC kCodeTag = FourCCs::Make("CODE");
constexpr FourCC kConfTag = FourCCs::Make("BCFG");
constexpr FourCC kTypeTag = FourCCs::Make("TYPE");
constexpr FourCC kCurrentTag = FourCCs::Make("CCUR");

} // namespace

const TSharedString<WString>& SSTR_CFG_DEFAULT()
{
    static const TSharedString<WString> name(u"DEFAULT");
    return name;
}

// --- PGCode -------------------------------------------------------------------------

const char16_t* PGCode::GetTypeName(TYPE type)
{
    switch (type)
    {
    case Framework: return u"Framework";
    case Attribute: return u"Attribute";
    case Material: return u"Material";
    default: return nullptr;
    }
}

PGCode::PGCode() = default;

PGCode::PGCode(TYPE type, const WString& name, const WString& path, const AString& code)
    : m_type(type), m_name(name), m_path(path), m_code(code)
{
    ProgramManager::Ins()->AddCode(this);
}

PGCode::~PGCode()
{
    if (m_registered)
        ProgramManager::Ins()->RemoveCode(this);
    DeleteConfigs();
}

void PGCode::DeleteConfigs()
{
    for (auto& pair : m_configs)
    {
        pair.value->SetParent(nullptr);
        pair.value->Release();
    }
    m_configs.Clear();
    m_curConf = nullptr;
}

PGCodeConf* PGCode::CreateConfig(const WString& name)
{
    if (name.IsEmpty())
        return nullptr;
    if (m_configs.Contains(name))
    {
        Log::Format(3, u"Create config failed, because %s is already created.\n", name());
        return nullptr;
    }
    PGCodeConf* conf = InternalCreateConfig();
    conf->AddRef();
    conf->SetName(name);
    conf->SetParent(this);
    m_configs.Insert(name, conf);
    return conf;
}

PGCodeConf* PGCode::GetConfig(const WString& name) const
{
    PGCodeConf* const* conf = m_configs.FindValue(name);
    return conf ? *conf : nullptr;
}

bool PGCode::SetCurConf(const WString& name)
{
    PGCodeConf* conf = GetConfig(name);
    if (!conf)
        return false;
    m_curConf = conf;
    return true;
}

void PGCode::ValidateDefault()
{
    if (m_curConf)
        return;
    if (!m_configs.IsEmpty())
        m_curConf = m_configs[0].value;
    else
        m_curConf = CreateConfig(*SSTR_CFG_DEFAULT());
}

void PGCode::SetMacro(const AString& name, const AString& value)
{
    ValidateDefault();
    m_curConf->SetMacro(name, value);
}

bool PGCode::RemoveMacro(const AString& name)
{
    ValidateDefault();
    return m_curConf->RemoveMacro(name);
}

bool PGCode::FindMacro(AString& out, const AString& name)
{
    ValidateDefault();
    return m_curConf->FindMacro(out, name);
}

const TMap<AString, AString>& PGCode::GetMacros()
{
    ValidateDefault();
    return m_curConf->GetMacros();
}

bool PGCode::AttachSamplerDesc(const PGSamplerDesc& desc)
{
    ValidateDefault();
    return m_curConf->AttachSamplerDesc(desc);
}

bool PGCode::DetachSamplerDesc(const WString& name)
{
    ValidateDefault();
    return m_curConf->DetachSamplerDesc(name);
}

const PGSamplerDesc* PGCode::GetSamplerDesc(const WString& name)
{
    ValidateDefault();
    return m_curConf->GetSamplerDesc(name);
}

const TMap<WString, PGSamplerDesc>& PGCode::GetSamplerDescMap()
{
    ValidateDefault();
    return m_curConf->GetSamplerDescMap();
}

bool PGCode::AttachTextureDesc(const PGTextureDesc& desc)
{
    ValidateDefault();
    return m_curConf->AttachTextureDesc(desc);
}

bool PGCode::DetachTextureDesc(const WString& name)
{
    ValidateDefault();
    return m_curConf->DetachTextureDesc(name);
}

const PGTextureDesc* PGCode::GetTextureDesc(const WString& name)
{
    ValidateDefault();
    return m_curConf->GetTextureDesc(name);
}

const TMap<WString, PGTextureDesc>& PGCode::GetTextureDescMap()
{
    ValidateDefault();
    return m_curConf->GetTextureDescMap();
}

bool PGCode::Save(Serializer* serializer) const
{
    if (!serializer || !serializer->Enter(kCodeTag))
        return false;
    bool ok = serializer->Write(kTypeTag, uint32(m_type)) && serializer->Write(FourCCs::NAME, m_name) &&
              serializer->Write(FourCCs::PATH, m_path) && serializer->Write(FourCCs::DATA, m_code) &&
              serializer->Write(kCurrentTag, m_curConf ? *m_curConf->GetName() : WString());
    for (unsigned i = 0; ok && i < m_configs.Count(); ++i)
        ok = m_configs[i].value->Save(serializer);
    serializer->Leave();
    return ok;
}

bool PGCode::Load(Serializer* serializer)
{
    if (!serializer || !serializer->EnterNext(kCodeTag))
        return false;
    uint32 type = 0;
    WString name, path, current;
    AString code;
    bool ok = serializer->Read(kTypeTag, type) && type == uint32(m_type) && serializer->Read(FourCCs::NAME, name) &&
              serializer->Read(FourCCs::PATH, path) && serializer->Read(FourCCs::DATA, code) &&
              serializer->Read(kCurrentTag, current) && !(m_registered && name != m_name);
    TArray<Ptr<PGCodeConf>> configs;
    unsigned count = ok ? serializer->CountSections(kConfTag) : 0;
    for (unsigned i = 0; ok && i < count; ++i)
    {
        Ptr<PGCodeConf> conf(InternalCreateConfig());
        ok = conf->Load(serializer);
        for (unsigned j = 0; ok && j < configs.Count(); ++j)
            ok = *configs[j]->GetName() != *conf->GetName();
        configs.Add(conf);
    }
    serializer->Leave();
    if (!ok)
        return false;
    DeleteConfigs();
    m_name = name;
    m_path = path;
    m_code = code;
    for (const Ptr<PGCodeConf>& conf : configs)
    {
        conf->AddRef();
        conf->SetParent(this);
        m_configs.Insert(*conf->GetName(), conf.Get());
    }
    if (!SetCurConf(current))
        m_curConf = nullptr;
    return true;
}

// --- PGFramework --------------------------------------------------------------------

namespace {

// One program's configurations.
struct ProgramKey
{
    const PGConfFW* fw;
    const PGConfAB* ab;
    const PGConfMT* mt;
    bool operator==(const ProgramKey& other) const { return fw == other.fw && ab == other.ab && mt == other.mt; }
};

struct ProgramKeyHash
{
    size_t operator()(const ProgramKey& key) const
    {
        size_t h = std::hash<const void*>()(key.fw);
        h ^= std::hash<const void*>()(key.ab) + 0x9e3779b97f4a7c15ull + (h << 6) + (h >> 2);
        h ^= std::hash<const void*>()(key.mt) + 0x9e3779b97f4a7c15ull + (h << 6) + (h >> 2);
        return h;
    }
};

} // namespace

// Every program by its three configurations in one hash map, so that a draw's
// look-up is one probe; beside it, per material, the keys of its programs,
// which is what RemovePGMaterial needs (the material -> configuration ->
// attribute -> framework order of the look-up, flattened).
struct PGFramework::ProgramMaps
{
    std::unordered_map<ProgramKey, Ptr<Program>, ProgramKeyHash> programs;
    std::unordered_map<const PGMaterial*, std::vector<ProgramKey>> byMaterial;
    std::unordered_map<const PGConfFW*, Ptr<ComputeProgram>> compute;
};

PGFramework::PGFramework() : PGCode(Framework), m_maps(new ProgramMaps()) {}

PGFramework::PGFramework(const WString& name, const WString& path, const AString& code)
    : PGCode(Framework, name, path, code), m_maps(new ProgramMaps())
{
}

PGFramework::~PGFramework() = default;

PGCodeConf* PGFramework::InternalCreateConfig() { return new PGConfFW(); }

const AString& PGFramework::GetShaderCode(ShaderType type) const
{
    return type.value >= 0 && type.value < 6 ? m_shaderCode[type.value] : AString::EmptyString;
}

void PGFramework::SetShaderCode(ShaderType type, const char* code)
{
    if (type.value >= 0 && type.value < 6)
        m_shaderCode[type.value] = code ? code : "";
}

void PGFramework::SetShaderCode(ShaderType type, const AString& code)
{
    if (type.value >= 0 && type.value < 6)
        m_shaderCode[type.value] = code;
}

Program* PGFramework::GetProgram(const PGConfFW* fw, const PGConfAB* ab, const PGConfMT* mt)
{
    if (!fw || fw->GetParent() != this)
        return nullptr;
    const ProgramKey key{fw, ab, mt};
    auto hit = m_maps->programs.find(key);
    if (hit != m_maps->programs.end())
        return hit->second.Get();
    // A null result (no compiler yet) is not kept: it is no compile failure.
    Ptr<Program> program = ProgramManager::Ins()->BuildProgram(fw, ab, mt);
    if (program)
    {
        m_maps->programs.emplace(key, program);
        if (mt)
            m_maps->byMaterial[mt->GetMaterial()].push_back(key);
    }
    return program.Get();
}

Program* PGFramework::GetProgram(const PGConfAB* ab, const PGConfMT* mt)
{
    ValidateDefault();
    return GetProgram(GetCurConf(), ab, mt);
}

Program* PGFramework::GetProgram() { return GetProgram(nullptr, nullptr); }

ComputeProgram* PGFramework::GetComputeProgram(const PGConfFW* fw)
{
    if (!fw || fw->GetParent() != this)
        return nullptr;
    auto hit = m_maps->compute.find(fw);
    if (hit != m_maps->compute.end())
        return hit->second.Get();
    Ptr<ComputeProgram> program = ProgramManager::Ins()->BuildComputeProgram(fw);
    if (program)
        m_maps->compute.emplace(fw, program);
    return program.Get();
}

ComputeProgram* PGFramework::GetComputeProgram()
{
    ValidateDefault();
    return GetComputeProgram(GetCurConf());
}

void PGFramework::RemovePGMaterial(const PGMaterial* material)
{
    auto entry = m_maps->byMaterial.find(material);
    if (entry == m_maps->byMaterial.end())
        return;
    for (const ProgramKey& key : entry->second)
        m_maps->programs.erase(key);
    m_maps->byMaterial.erase(entry);
}

unsigned PGFramework::GetNumPrograms() const { return unsigned(m_maps->programs.size() + m_maps->compute.size()); }

// --- PGAttribute --------------------------------------------------------------------

PGAttribute::PGAttribute() : PGCode(Attribute) {}

PGAttribute::PGAttribute(const WString& name, const WString& path, const AString& code)
    : PGCode(Attribute, name, path, code), m_allowInstancing(code.IndexOf("USE_INSTANCE_RENDERING") != kNotFound)
{
}

PGCodeConf* PGAttribute::InternalCreateConfig() { return new PGConfAB(); }

// --- PGMaterial ---------------------------------------------------------------------

const char* const PGMaterial::BLEND_MODE_MACRO[8] = {
    "MTL_BLEND_OPAQUE",          "MTL_BLEND_MASK",     "MTL_BLEND_ADDITIVE_MASK", "MTL_BLEND_MODULATE_MASK",
    "MTL_BLEND_SUBTRACTIVE_MASK", "MTL_BLEND_ADDITIVE", "MTL_BLEND_MODULATE",      "MTL_BLEND_SUBTRACTIVE",
};

PGMaterial::PGMaterial() : PGCode(Material) {}

PGMaterial::PGMaterial(const WString& name, const WString& path, const AString& code)
    : PGCode(Material, name, path, code)
{
}

PGCodeConf* PGMaterial::InternalCreateConfig() { return new PGConfMT(); }

PGConfMT* PGMaterial::CreateConfig(BlendMode blend, TranslucentDepthMode depth, TwoSideMode twoSide)
{
    auto memberName = [](const Class* cls, int value) {
        return static_cast<const EnumClass*>(cls)->GetMemberName(value);
    };
    const char16_t* blendName = memberName(BlendMode::StaticGetClass(), blend.value);
    const char16_t* depthName = memberName(TranslucentDepthMode::StaticGetClass(), depth.value);
    const char16_t* twoSideName = memberName(TwoSideMode::StaticGetClass(), twoSide.value);
    if (!*blendName || !*depthName || !*twoSideName)
        return nullptr;
    WString name;
    name.Format(u"%s_%s_%s", blendName, depthName, twoSideName);
    PGConfMT* conf = CreateConfig(name);
    if (conf)
    {
        conf->SetBlendMode(blend);
        conf->SetTranslucentDepthMode(depth);
        conf->SetTwoSideMode(twoSide);
    }
    return conf;
}

const Ptr<BlendState>& PGMaterial::GetBlendState(BlendMode blend, BlendAlphaMode alpha)
{
    static const Ptr<BlendState> s_none;
    using Getter = const Ptr<BlendState>& (BlendStateFactory::*)() const;
    // Family (additive, modulate, subtractive) times three plus alpha mode.
    static constexpr Getter kTable[9] = {
        &BlendStateFactory::GetAdditiveReplaceState,    &BlendStateFactory::GetAdditiveMinState,
        &BlendStateFactory::GetAdditiveMaxState,        &BlendStateFactory::GetModulateReplaceState,
        &BlendStateFactory::GetModulateMinState,        &BlendStateFactory::GetModulateMaxState,
        &BlendStateFactory::GetSubtractiveReplaceState, &BlendStateFactory::GetSubtractiveMinState,
        &BlendStateFactory::GetSubtractiveMaxState,
    };
    int family;
    switch (blend.value)
    {
    case BlendMode::AdditiveMask:
    case BlendMode::Additive: family = 0; break;
    case BlendMode::ModulateMask:
    case BlendMode::Modulate: family = 1; break;
    case BlendMode::SubtractiveMask:
    case BlendMode::Subtractive: family = 2; break;
    default: return s_none;
    }
    BlendStateFactory* factory = BlendStateFactory::Get();
    if (!factory || alpha.value < 0 || alpha.value > BlendAlphaMode::Max)
        return s_none;
    return (factory->*kTable[family * 3 + alpha.value])();
}

#define KOVEX_PGMATERIAL_MIRROR(Getter, Setter, Type)       \
    Type PGMaterial::Getter()                               \
    {                                                       \
        ValidateDefault();                                  \
        return GetCurConf()->Getter();                      \
    }                                                       \
    void PGMaterial::Setter(Type value)                     \
    {                                                       \
        ValidateDefault();                                  \
        GetCurConf()->Setter(value);                        \
    }
KOVEX_PGMATERIAL_MIRROR(GetBlendMode, SetBlendMode, BlendMode)
KOVEX_PGMATERIAL_MIRROR(GetBlendAlphaMode, SetBlendAlphaMode, BlendAlphaMode)
KOVEX_PGMATERIAL_MIRROR(GetTranslucentDepthMode, SetTranslucentDepthMode, TranslucentDepthMode)
KOVEX_PGMATERIAL_MIRROR(GetTwoSideMode, SetTwoSideMode, TwoSideMode)
KOVEX_PGMATERIAL_MIRROR(GetTessellationScheme, SetTessellationScheme, TessellationScheme)
KOVEX_PGMATERIAL_MIRROR(GetOpaqueMask, SetOpaqueMask, float)
#undef KOVEX_PGMATERIAL_MIRROR

#define KOVEX_PGMATERIAL_ENABLE(Name)      \
    void PGMaterial::Name(bool on)         \
    {                                      \
        ValidateDefault();                 \
        GetCurConf()->Name(on);            \
    }
KOVEX_PGMATERIAL_ENABLE(EnableAmbient)
KOVEX_PGMATERIAL_ENABLE(EnableDiffuse)
KOVEX_PGMATERIAL_ENABLE(EnableLighting)
KOVEX_PGMATERIAL_ENABLE(EnableDistortion)
KOVEX_PGMATERIAL_ENABLE(EnableTessellation)
KOVEX_PGMATERIAL_ENABLE(EnableTransmission)
KOVEX_PGMATERIAL_ENABLE(EnableForwardLighting)
KOVEX_PGMATERIAL_ENABLE(EnableSceneDepth)
KOVEX_PGMATERIAL_ENABLE(EnableSceneColor)
#undef KOVEX_PGMATERIAL_ENABLE

} // namespace KovexEngine
