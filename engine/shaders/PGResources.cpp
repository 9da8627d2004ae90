#include "shaders/PGResources.h"

#include "graphics/HWCapability.h"
#include "graphics/Renderer.h"
#include "graphics/StateDesc.h"
#include "kernel/StringConv.h"
#include "shaders/PGCode.h"
#include "shaders/PGCodeConf.h"
#include "shaders/ProgramManager.h"

namespace KovexEngine {

// The codes Initialize loads, in its order: materials, attributes,
// frameworks. X(type, static, file, creator). FW_Wireframe, loaded on
// demand, follows them in the table.
#define KOVEX_PG_RESOURCE_CODES(X)                                                           \
    X(Material, MT_Triangle, "Material_Triangle.ksl", Plain)                                 \
    X(Material, MT_Font, "Material_Font.ksl", Plain)                                         \
    X(Material, MT_LightVolume, "Material_LightVolume.ksl", Plain)                           \
    X(Attribute, AB_Base, "Attribute_Base.ksl", Plain)                                       \
    X(Attribute, AB_Skinned, "Attribute_Skin.ksl", Plain)                                    \
    X(Attribute, AB_Tri2D, "Attribute_Tri2d.ksl", TexCoordAttribute)                         \
    X(Attribute, AB_Tri3d, "Attribute_Tri3d.ksl", TexCoordAttribute)                         \
    X(Attribute, AB_Tri3dBillboard, "Attribute_Tri3dBillboard.ksl", TexCoordAttribute)       \
    X(Attribute, AB_Line2d, "Attribute_Line2d.ksl", Plain)                                   \
    X(Attribute, AB_Line3d, "Attribute_Line3d.ksl", Plain)                                   \
    X(Attribute, AB_Quad, "Attribute_Quad.ksl", TexCoordAttribute)                           \
    X(Attribute, AB_Font, "Attribute_Font.ksl", Plain)                                       \
    X(Attribute, AB_LightVolume, "Attribute_LightVolume.ksl", Plain)                         \
    X(Attribute, AB_ParticleSprite, "Attribute_ParticleSprite.ksl", Plain)                   \
    X(Attribute, AB_Decal, "Attribute_Decal.ksl", Plain)                                     \
    X(Attribute, AB_Terrain, "Attribute_Terrain.ksl", Plain)                                 \
    X(Framework, FW_DrawNull, "DrawNull.ksl", Plain)                                         \
    X(Framework, FW_DrawClear, "DrawClear.ksl", ClearFramework)                              \
    X(Framework, FW_DrawScreen, "DrawScreen.ksl", Plain)                                     \
    X(Framework, FW_DrawScreenModulate, "DrawScreenModulate.ksl", Plain)                     \
    X(Framework, FW_NoLighting, "NoLighting.ksl", Plain)                                     \
    X(Framework, FW_RenderDepth, "RenderDepth.ksl", Plain)                                   \
    X(Framework, FW_RenderAmbient, "RenderAmbient.ksl", Plain)                               \
    X(Framework, FW_RenderGBuffer, "RenderGBuffer.ksl", Plain)                               \
    X(Framework, FW_RenderDeferredLighting, "RenderDeferredLighting.ksl", Plain)             \
    X(Framework, FW_ObjectPass, "ObjectPass.ksl", Plain)                                     \
    X(Framework, FW_MotionBlur, "MotionBlur.ksl", Plain)                                     \
    X(Framework, FW_GenDistortion, "GenerateDistortion.ksl", Plain)                          \
    X(Framework, FW_DrawDistortion, "RenderDistortion.ksl", Plain)                           \
    X(Framework, FW_Decal, "DrawDecal.ksl", Plain)                                           \
    X(Framework, FW_DownSample, "DownSample.ksl", Plain)                                     \
    X(Framework, FW_Blur, "Blur.ksl", Plain)                                                 \
    X(Framework, FW_OmniLightShadowDepth, "ShadowDepth_OmniLight.ksl", Plain)                \
    X(Framework, FW_OmniLightDeferred, "Deferred_OmniLight.ksl", Plain)                      \
    X(Framework, FW_OmniLightMultiPass, "MultiPass_OmniLight.ksl", Plain)                    \
    X(Framework, FW_SpotLightShadowDepth, "ShadowDepth_SpotLight.ksl", Plain)                \
    X(Framework, FW_SpotLightDeferred, "Deferred_SpotLight.ksl", Plain)                      \
    X(Framework, FW_SpotLightMultiPass, "MultiPass_SpotLight.ksl", Plain)                    \
    X(Framework, FW_DirectionalLightShadowDepth, "ShadowDepth_DirectionalLight.ksl", Plain)  \
    X(Framework, FW_DirectionalLightDeferred, "Deferred_DirectionalLight.ksl", Plain)        \
    X(Framework, FW_DirectionalLightMultiPass, "MultiPass_DirectionalLight.ksl", Plain)      \
    X(Framework, FW_SkyLightDeferred, "Deferred_SkyLight.ksl", Plain)                        \
    X(Framework, FW_SkyLightMultiPass, "Deferred_SkyLight.ksl", Plain)                       \
    X(Framework, FW_VolumetricLighting, "VolumetricLighting.ksl", Plain)                     \
    X(Framework, FW_PixelPicking, "PixelPicking.ksl", Plain)

namespace {

using TypeOf = PGCode::TYPE;

template <typename T>
struct CodeClass;
template <>
struct CodeClass<PGMaterial>
{
    using Conf = PGConfMT;
};
template <>
struct CodeClass<PGAttribute>
{
    using Conf = PGConfAB;
};
template <>
struct CodeClass<PGFramework>
{
    using Conf = PGConfFW;
};

// The configuration of that name, made when missing: a code that was loaded
// before (by path) keeps what it has and gets what is missing.
template <typename Code>
typename CodeClass<Code>::Conf* Conf(Code* code, const WString& name)
{
    if (auto* conf = code->GetConfig(name))
        return conf;
    return code->CreateConfig(name);
}

AString Number(int value)
{
    AString text;
    text.Format("%d", value);
    return text;
}

WString Name(const char16_t* format, int value)
{
    WString text;
    text.Format(format, value);
    return text;
}

void TexCoordConfs(PGAttribute* attribute)
{
    for (int count = 0; count <= 4; ++count)
        if (PGConfAB* conf = Conf(attribute, Name(u"NUM_TEXCOORDS[%d]", count)))
            conf->SetMacro("NUM_TEXCOORDS", Number(count));
    attribute->SetCurConf(u"NUM_TEXCOORDS[1]");
}

void ClearConfs(PGFramework* framework)
{
    for (int targets = 1; targets <= 8; ++targets)
        if (PGConfFW* conf = Conf(framework, Name(u"NUM_RT_%d", targets)))
        {
            conf->SetMacro("NUM_RT", Number(targets));
            for (int target = 0; target < targets; ++target)
            {
                AString macro;
                macro.Format("CLEAR_RT_%d", target);
                conf->SetMacro(macro, "1");
            }
        }
    framework->SetCurConf(u"NUM_RT_1");
}

// Creators for LoadCode. Codes whose names hold a count get their counted
// configurations before the loader looks for a current one, so they have
// no "DEFAULT" of their own.
template <typename T>
Ptr<PGCode> Plain(const AString& code, const WString& path)
{
    return Ptr<PGCode>(new T(path, path, code));
}

template <typename T>
Ptr<PGCode> TexCoordAttribute(const AString& code, const WString& path)
{
    Ptr<PGCode> made(new PGAttribute(path, path, code));
    TexCoordConfs(static_cast<PGAttribute*>(made.Get()));
    return made;
}

template <typename T>
Ptr<PGCode> ClearFramework(const AString& code, const WString& path)
{
    Ptr<PGCode> made(new PGFramework(path, path, code));
    ClearConfs(static_cast<PGFramework*>(made.Get()));
    return made;
}

template <typename T>
bool Load(Ptr<T>& target, PGCode::TYPE type, const char16_t* file, ProgramManager::CodeCreator creator)
{
    WString path(u"[core]shaders/");
    path.Append(file);
    Ptr<PGCode> code = ProgramManager::Ins()->LoadCode(path, type, creator);
    target = static_cast<T*>(code.Get());
    return target.Get() != nullptr;
}

struct CodeRow
{
    const char* name;
    const char16_t* file;
    PGCode* (*get)();
    void (*reset)();
};

#define KOVEX_PG_ROW(type, name, file, creator)                                     \
    {#name, u"" file, []() -> PGCode* { return PGResources::name.Get(); },          \
     []() { PGResources::name = nullptr; }},
const CodeRow kRows[] = {KOVEX_PG_RESOURCE_CODES(KOVEX_PG_ROW) KOVEX_PG_ROW(Framework, FW_Wireframe, "Wireframe.ksl", Plain)};
#undef KOVEX_PG_ROW
constexpr unsigned kNumRows = sizeof(kRows) / sizeof(kRows[0]);

SamplerStateDesc PointSampler(GraphicsAddress address)
{
    SamplerStateDesc desc;
    desc.Filter = GraphicsFilter::MinMagMipPoint;
    desc.AddressU = desc.AddressV = desc.AddressW = address;
    return desc;
}

// Hardware percentage-closer filtering: the comparison is filtered
// bilinearly in the footprint of one texel.
SamplerStateDesc ShadowComparisonSampler()
{
    SamplerStateDesc desc;
    desc.Filter = GraphicsFilter::MinMagLinearMipPoint;
    desc.AddressU = desc.AddressV = GraphicsAddress::Clamp;
    desc.MipLODBias = 0.0f;
    desc.ComparisonFunc = GraphicsComparison::LessEqual;
    return desc;
}

// Descriptions are replaced, not kept, so that a second call on a
// configuration (another quality, another device) leaves no stale one.
void SetSampler(PGCodeConf* conf, const char16_t* name, const SamplerStateDesc& desc)
{
    PGSamplerDesc sampler;
    sampler.Name = TSharedString<WString>(name);
    sampler.Desc = desc;
    conf->DetachSamplerDesc(name);
    conf->AttachSamplerDesc(sampler);
}

void SetTexture(PGCodeConf* conf, const char16_t* name, const char16_t* path)
{
    PGTextureDesc texture;
    texture.Name = TSharedString<WString>(name);
    texture.Path = path;
    texture.ConfigTexture = true;
    conf->DetachTextureDesc(name);
    conf->AttachTextureDesc(texture);
}

const TSharedString<WString>& SharedName(unsigned index)
{
    static const TSharedString<WString> names[] = {
        TSharedString<WString>(u"DEFAULT[SQ_LOW]"),           TSharedString<WString>(u"DEFAULT[SQ_MEDIUM]"),
        TSharedString<WString>(u"DEFAULT[SQ_HIGH]"),          TSharedString<WString>(u"DEFAULT[SQ_LOW][HWPCF]"),
        TSharedString<WString>(u"DEFAULT[SQ_MEDIUM][HWPCF]"), TSharedString<WString>(u"DEFAULT[SQ_HIGH][HWPCF]"),
        TSharedString<WString>(u"DEFAULT[INSTANCE_RENDERING]"), TSharedString<WString>(u"SOLID_WIRE"),
    };
    return names[index];
}

// --- Configurations of the codes --------------------------------------------------------

void SkinConfs(PGAttribute* skinned)
{
    if (PGConfAB* conf = Conf(skinned, *SSTR_CFG_DEFAULT()))
        conf->SetMacro("SKIN_MODE", "0");
    if (PGConfAB* conf = Conf(skinned, WString(u"DEFAULT[SKIN_COARSE]")))
        conf->SetMacro("SKIN_MODE", "1");
    skinned->SetCurConf(*SSTR_CFG_DEFAULT());
}

void SpriteConfs(PGAttribute* sprite)
{
    // Tiling needs the second (and third) texture coordinate for the tile.
    static const struct
    {
        const char16_t* tiled;
        const char* macro;
        const char* texCoords;
    } kTiling[] = {{u"", nullptr, "1"},
                   {u"[TILED]", "SPRITE_TILED_TEXTURE", "3"},
                   {u"[TILED_BLEND]", "SPRITE_TILED_TEXTURE_BLEND", "4"}};
    for (int align = 0; align < 2; ++align)
        for (const auto& tiling : kTiling)
        {
            WString name(u"DEFAULT");
            if (align)
                name.Append(u"[ALIGN_VELOCITY]");
            name.Append(tiling.tiled);
            PGConfAB* conf = Conf(sprite, name);
            if (!conf)
                continue;
            if (align)
                conf->SetMacro("SPRITE_ALIGN_VELOCITY", "1");
            if (tiling.macro)
                conf->SetMacro(tiling.macro, "1");
            conf->SetMacro("NUM_TEXCOORDS", tiling.texCoords);
        }
    sprite->SetCurConf(*SSTR_CFG_DEFAULT());
}

void ScreenConfs(PGFramework* screen)
{
    Conf(screen, *SSTR_CFG_DEFAULT());
    for (const char* source : {"DRAW_DEPTH", "DRAW_NORMAL", "DRAW_SPECULARPOWER", "DRAW_AMBIENT"})
        if (PGConfFW* conf = Conf(screen, StringConvFuncs::ToWString(source)))
            conf->SetMacro(source, "1");
    for (int slice = 0; slice < 4; ++slice)
        if (PGConfFW* conf = Conf(screen, Name(u"TEXARRAY_%d", slice)))
        {
            conf->SetMacro("USE_TEXARRAY", "1");
            conf->SetMacro("TEXARRAY_SLICE", Number(slice));
        }
    for (int targets = 1; targets <= 4; ++targets)
        if (PGConfFW* conf = Conf(screen, Name(u"TEXARRAY_TO_MRT_%d", targets)))
            conf->SetMacro("TEXARRAY_TO_MRT", Number(targets));
    screen->SetCurConf(*SSTR_CFG_DEFAULT());
}

// The light-pass configurations of one light framework: each name of the
// index with and without "[LIGHT_MATERIAL]".
void LightConfs(PGFramework* light, const char* type)
{
    AString declaration, fragment;
    declaration.Format("%s_LIGHT_DECLARATION", type);
    fragment.Format("%s_LIGHT_FRAGMENT", type);
    for (unsigned index = 0; index < PGResources::kNumLightPassConfs; ++index)
        for (int lightMaterial = 0; lightMaterial < 2; ++lightMaterial)
        {
            WString name(*PGResources::CFG_PL_LIGHT_PASS_SHADOW(index));
            if (lightMaterial)
                name.Append(u"[LIGHT_MATERIAL]");
            PGConfFW* conf = Conf(light, name);
            if (!conf)
                continue;
            conf->SetMacro(declaration, "1");
            conf->SetMacro(fragment, "1");
            if (lightMaterial)
                conf->SetMacro("LIGHT_MATERIAL", "1");
            if (index > 0)
                PGResources::InitLightPassConf(conf, ShadowFilterQuality((index - 1) % 3), index > 3);
        }
    light->SetCurConf(*SSTR_CFG_DEFAULT());
}

void MakeConfigurations()
{
    using R = PGResources;
    if (R::AB_Base)
        R::InitInstanceConf(R::AB_Base.Get());
    if (R::AB_Skinned)
        SkinConfs(R::AB_Skinned.Get());
    for (PGAttribute* counted : {R::AB_Tri2D.Get(), R::AB_Tri3d.Get(), R::AB_Tri3dBillboard.Get(), R::AB_Quad.Get()})
        if (counted)
            TexCoordConfs(counted);
    if (R::AB_Font)
        if (PGConfAB* conf = Conf(R::AB_Font.Get(), *SSTR_CFG_DEFAULT()))
            SetTexture(conf, u"FontTexture", u"");
    if (R::AB_ParticleSprite)
        SpriteConfs(R::AB_ParticleSprite.Get());

    if (R::FW_DrawClear)
        ClearConfs(R::FW_DrawClear.Get());
    if (R::FW_DrawScreen)
        ScreenConfs(R::FW_DrawScreen.Get());
    if (R::FW_DrawScreenModulate)
        if (PGConfFW* conf = Conf(R::FW_DrawScreenModulate.Get(), *SSTR_CFG_DEFAULT()))
            SetTexture(conf, u"ModulateTexture", u"");
    if (R::FW_RenderAmbient)
        for (const char* macro : {"USE_LIGHT_BUFFER", "USE_TILE_BASED_LIGHTING"})
            if (PGConfFW* conf = Conf(R::FW_RenderAmbient.Get(), StringConvFuncs::ToWString(macro)))
                conf->SetMacro(macro, "1");
    if (R::FW_OmniLightShadowDepth)
        if (PGConfFW* conf = Conf(R::FW_OmniLightShadowDepth.Get(), WString(u"BACKFACE_DEPTH")))
        {
            conf->SetMacro("USE_BACKFACE_DEPTH", "1");
            SetTexture(conf, u"BackFaceDepthTexture", u"");
        }
    const struct
    {
        PGFramework* framework;
        const char* type;
    } lights[] = {{R::FW_OmniLightDeferred.Get(), "OMNI"},
                  {R::FW_OmniLightMultiPass.Get(), "OMNI"},
                  {R::FW_SpotLightDeferred.Get(), "SPOT"},
                  {R::FW_SpotLightMultiPass.Get(), "SPOT"},
                  {R::FW_DirectionalLightDeferred.Get(), "DIRECTIONAL"},
                  {R::FW_DirectionalLightMultiPass.Get(), "DIRECTIONAL"}};
    for (const auto& light : lights)
        if (light.framework)
            LightConfs(light.framework, light.type);
}

} // namespace

// --- Statics ---------------------------------------------------------------------------

#define KOVEX_PG_STATIC(type, name, file, creator) Ptr<PG##type> PGResources::name;
KOVEX_PG_RESOURCE_CODES(KOVEX_PG_STATIC)
#undef KOVEX_PG_STATIC
Ptr<PGFramework> PGResources::FW_Wireframe;

bool PGResources::ms_loaded = false;
bool PGResources::ms_complete = false;

const TSharedString<WString>& PGResources::CFG_SQ_LOW() { return SharedName(0); }
const TSharedString<WString>& PGResources::CFG_SQ_MEDIUM() { return SharedName(1); }
const TSharedString<WString>& PGResources::CFG_SQ_HIGH() { return SharedName(2); }
const TSharedString<WString>& PGResources::CFG_SQ_LOW_HWPCF() { return SharedName(3); }
const TSharedString<WString>& PGResources::CFG_SQ_MEDIUM_HWPCF() { return SharedName(4); }
const TSharedString<WString>& PGResources::CFG_SQ_HIGH_HWPCF() { return SharedName(5); }
const TSharedString<WString>& PGResources::CFG_INSTANCE_RENDERING() { return SharedName(6); }
const TSharedString<WString>& PGResources::CFG_SOLID_WIRE() { return SharedName(7); }

const TSharedString<WString>& PGResources::CFG_PL_LIGHT_PASS_SHADOW(unsigned index)
{
    if (index == 0 || index >= kNumLightPassConfs)
        return SSTR_CFG_DEFAULT();
    return SharedName(index - 1);
}

unsigned PGResources::LightPassConfIndex(bool hasShadow, ShadowFilterQuality quality, bool hwpcf)
{
    if (!hasShadow)
        return 0;
    int q = quality();
    q = q < ShadowFilterQuality::Low ? ShadowFilterQuality::Low : q > ShadowFilterQuality::High ? ShadowFilterQuality::High : q;
    return 1u + unsigned(q) + (hwpcf ? 3u : 0u);
}

const TSharedString<WString>& PGResources::GetLightConfName(bool hasShadow, ShadowFilterQuality quality, bool hwpcf)
{
    return CFG_PL_LIGHT_PASS_SHADOW(LightPassConfIndex(hasShadow, quality, hwpcf));
}

// --- Table -----------------------------------------------------------------------------

unsigned PGResources::GetNumCodes() { return kNumRows; }

const char* PGResources::GetCodeName(unsigned index) { return index < kNumRows ? kRows[index].name : nullptr; }

const char16_t* PGResources::GetCodeFile(unsigned index) { return index < kNumRows ? kRows[index].file : nullptr; }

PGCode* PGResources::GetCode(unsigned index) { return index < kNumRows ? kRows[index].get() : nullptr; }

// --- Life ------------------------------------------------------------------------------

bool PGResources::Initialize()
{
    if (ms_loaded)
        return ms_complete;
    bool complete = true;
#define KOVEX_PG_LOAD(type, name, file, creator) complete &= Load(name, PGCode::type, u"" file, &creator<PG##type>);
    KOVEX_PG_RESOURCE_CODES(KOVEX_PG_LOAD)
#undef KOVEX_PG_LOAD
    MakeConfigurations();
    ms_loaded = true;
    ms_complete = complete;
    return complete;
}

void PGResources::Destroy()
{
    for (unsigned i = kNumRows; i-- > 0;)
        kRows[i].reset();
    ms_loaded = false;
    ms_complete = false;
}

bool PGResources::IsLoaded() { return ms_loaded; }

// --- Helpers ---------------------------------------------------------------------------

bool PGResources::InitLightPassConf(PGConfFW* conf, ShadowFilterQuality quality, bool hwpcf)
{
    if (!conf)
        return false;
    int q = quality();
    q = q < ShadowFilterQuality::Low ? ShadowFilterQuality::Low : q > ShadowFilterQuality::High ? ShadowFilterQuality::High : q;
    conf->SetMacro("DRAW_SHADOW", "1");
    conf->SetMacro("SHADOW_FILTER_QUALITY", Number(q));
    // Without a device yet the name's request stands; a device that cannot
    // compare in the sampler gets the filtered point reads instead, and the
    // shader is told so by the missing "USE_HWPCF".
    const bool compare = hwpcf && (!g_ptrRenderer || g_ptrRenderer->GetHWCapability()->SupportHWPCF);
    if (compare)
        conf->SetMacro("USE_HWPCF", "1");
    else
        conf->RemoveMacro("USE_HWPCF");
    SetTexture(conf, u"ShadowDepthTexture", u"");
    SetSampler(conf, u"ShadowDepthTexture",
               compare ? ShadowComparisonSampler() : PointSampler(GraphicsAddress::Clamp));
    if (q >= ShadowFilterQuality::Medium)
    {
        SetTexture(conf, u"RotRandomTexture", u"[core]textures/rotrandom.dds");
        SetSampler(conf, u"RotRandomTexture", PointSampler(GraphicsAddress::Wrap));
    }
    else
    {
        conf->DetachTextureDesc(u"RotRandomTexture");
        conf->DetachSamplerDesc(u"RotRandomTexture");
    }
    return true;
}

PGConfAB* PGResources::InitInstanceConf(PGAttribute* attribute)
{
    if (!attribute || !attribute->IsInstancingAllowed())
        return nullptr;
    PGConfAB* conf = Conf(attribute, *CFG_INSTANCE_RENDERING());
    if (conf)
        conf->SetMacro("USE_INSTANCE_RENDERING", "1");
    return conf;
}

PGFramework* PGResources::LoadWireframeFW()
{
    if (FW_Wireframe)
        return FW_Wireframe.Get();
    if (!Load(FW_Wireframe, PGCode::Framework, u"Wireframe.ksl", &Plain<PGFramework>))
        return nullptr;
    Conf(FW_Wireframe.Get(), *SSTR_CFG_DEFAULT());
    if (PGConfFW* conf = Conf(FW_Wireframe.Get(), *CFG_SOLID_WIRE()))
        conf->SetMacro("USE_SOLD_WIRE", "1");
    FW_Wireframe->SetCurConf(*SSTR_CFG_DEFAULT());
    return FW_Wireframe.Get();
}

} // namespace KovexEngine
