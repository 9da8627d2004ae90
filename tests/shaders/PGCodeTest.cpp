// Codes and configurations: names, the default configuration, macros owned by
// material configurations, blend states, reflection and the serial form.

#include <gtest/gtest.h>

#include "graphics/RenderStates.h"
#include "reflection/Variable.h"
#include "serialization/BinSerializer.h"
#include "serialization/SerializerTestSupport.h"
#include "serialization/XmlSerializer.h"
#include "shaders/PGCode.h"
#include "shaders/ProgramManager.h"
#include "support/LogCapture.h"
#include "support/NullEngine.h"

using namespace KovexEngine;

namespace {

Ptr<PGMaterial> NewMaterial(const char16_t* name) { return Ptr<PGMaterial>(new PGMaterial(name, u"", "float4 PS;")); }

bool HasMacro(const PGCodeConf* conf, const char* name, const char* value = nullptr)
{
    AString found;
    if (!conf->FindMacro(found, name))
        return false;
    return !value || found == value;
}

unsigned CountBlendMacros(const PGCodeConf* conf)
{
    unsigned count = 0;
    for (const char* macro : PGMaterial::BLEND_MODE_MACRO)
        count += HasMacro(conf, macro) ? 1 : 0;
    return count;
}

} // namespace

TEST(PGCode, ConfigurationsByNameAndTheDefault)
{
    KovexTest::LogCapture log;
    Ptr<PGFramework> fw(new PGFramework(u"PGCodeTest.fw", u"", "void VS() {}"));
    EXPECT_EQ(fw->Type(), PGCode::Framework);
    EXPECT_EQ(fw->GetCurConf(), nullptr);

    // An empty name is refused silently; a taken one with the log line.
    EXPECT_EQ(fw->CreateConfig(WString()), nullptr);
    EXPECT_TRUE(log->entries.IsEmpty());
    PGConfFW* shadow = fw->CreateConfig(u"DEFAULT[SQ_LOW]");
    ASSERT_NE(shadow, nullptr);
    EXPECT_EQ(shadow->GetParent(), fw.Get());
    EXPECT_EQ(shadow->GetFramework(), fw.Get());
    EXPECT_EQ(fw->CreateConfig(u"DEFAULT[SQ_LOW]"), nullptr);
    EXPECT_TRUE(log->Contains(u"Create config failed, because DEFAULT[SQ_LOW] is already created.\n"));
    EXPECT_EQ(fw->GetConfigMap().Count(), 1u);

    // With configurations but none current, the first of the map becomes it.
    fw->CreateConfig(u"A");
    fw->ValidateDefault();
    EXPECT_EQ(*fw->GetCurConf()->GetName(), WString(u"A"));
    EXPECT_TRUE(fw->SetCurConf(u"DEFAULT[SQ_LOW]"));
    EXPECT_EQ(fw->GetCurConf(), shadow);
    EXPECT_FALSE(fw->SetCurConf(u"missing"));
    EXPECT_EQ(fw->GetCurConf(), shadow);

    // A code with no configuration gets "DEFAULT" from its first macro.
    Ptr<PGAttribute> ab(new PGAttribute(u"PGCodeTest.ab", u"", "struct VSInput {};"));
    ab->SetMacro("SKIN_MODE", "1");
    ASSERT_NE(ab->GetCurConf(), nullptr);
    EXPECT_EQ(*ab->GetCurConf()->GetName(), WString(u"DEFAULT"));
    EXPECT_EQ(ab->GetCurConf()->GetName(), SSTR_CFG_DEFAULT());
    AString value;
    EXPECT_TRUE(ab->FindMacro(value, "SKIN_MODE"));
    EXPECT_EQ(value, AString("1"));
    EXPECT_TRUE(ab->RemoveMacro("SKIN_MODE"));
    EXPECT_FALSE(ab->FindMacro(value, "SKIN_MODE"));
    EXPECT_EQ(ab->GetCurConf()->GetCode(), AString("struct VSInput {};"));
}

TEST(PGCode, DescriptionsAreAttachedOncePerName)
{
    Ptr<PGMaterial> mt = NewMaterial(u"PGCodeTest.desc");
    PGSamplerDesc sampler;
    sampler.Name = TSharedString<WString>(u"Diffuse");
    sampler.Desc.Filter = GraphicsFilter::MinMagMipLinear;
    EXPECT_TRUE(mt->AttachSamplerDesc(sampler));
    EXPECT_FALSE(mt->AttachSamplerDesc(sampler));
    ASSERT_NE(mt->GetSamplerDesc(u"Diffuse"), nullptr);
    EXPECT_EQ(mt->GetSamplerDesc(u"Diffuse")->Desc.Filter, GraphicsFilter::MinMagMipLinear);
    PGSamplerDesc unnamed;
    EXPECT_FALSE(mt->AttachSamplerDesc(unnamed));

    PGTextureDesc texture;
    texture.Name = TSharedString<WString>(u"Diffuse");
    texture.Path = u"[core]textures/white.dds";
    texture.ConfigTexture = true;
    EXPECT_TRUE(mt->AttachTextureDesc(texture));
    EXPECT_FALSE(mt->AttachTextureDesc(texture));
    EXPECT_EQ(mt->GetTextureDescMap().Count(), 1u);
    EXPECT_TRUE(mt->DetachTextureDesc(u"Diffuse"));
    EXPECT_FALSE(mt->DetachTextureDesc(u"Diffuse"));
    EXPECT_EQ(mt->GetTextureDesc(u"Diffuse"), nullptr);
    EXPECT_TRUE(mt->DetachSamplerDesc(u"Diffuse"));
    EXPECT_TRUE(mt->GetSamplerDescMap().IsEmpty());
}

TEST(PGCode, MaterialConfigurationKeepsItsMacrosInStep)
{
    Ptr<PGMaterial> material = NewMaterial(u"PGCodeTest.macros");
    PGConfMT* mt = material->CreateConfig(u"M");
    ASSERT_NE(mt, nullptr);

    // Defaults: one blend macro, the scheme, lighting on, no mask macro yet.
    EXPECT_EQ(mt->GetBlendMode(), BlendMode(PGMaterial::DEFAULT_BLEND_MODE));
    EXPECT_EQ(CountBlendMacros(mt), 1u);
    EXPECT_TRUE(HasMacro(mt, PGMaterial::BLEND_MODE_MACRO[PGMaterial::DEFAULT_BLEND_MODE], "1"));
    EXPECT_TRUE(HasMacro(mt, "TESSELLATION_SCHEME", "0"));
    EXPECT_TRUE(mt->IsLighting());
    EXPECT_FALSE(HasMacro(mt, "MTL_OPAQUE_MASK"));
    EXPECT_FLOAT_EQ(mt->GetOpaqueMask(), 0.1f);

    mt->SetBlendMode(BlendMode::Mask);
    EXPECT_TRUE(HasMacro(mt, "MTL_BLEND_MASK", "1"));
    mt->SetBlendMode(BlendMode::Additive);
    EXPECT_EQ(CountBlendMacros(mt), 1u);
    EXPECT_TRUE(HasMacro(mt, PGMaterial::BLEND_MODE_MACRO[BlendMode::Additive], "1"));
    EXPECT_FALSE(HasMacro(mt, "MTL_BLEND_MASK"));
    // A value beyond the enumeration changes nothing.
    mt->SetBlendMode(BlendMode(9));
    EXPECT_EQ(mt->GetBlendMode(), BlendMode(BlendMode::Additive));
    EXPECT_EQ(CountBlendMacros(mt), 1u);

    mt->SetTwoSideMode(TwoSideMode::TwoSide);
    EXPECT_FALSE(HasMacro(mt, "USE_TWO_SIDE_MASK"));
    mt->SetTwoSideMode(TwoSideMode::TwoSideSeparatedPass);
    EXPECT_TRUE(HasMacro(mt, "USE_TWO_SIDE_MASK", "1"));
    mt->SetTwoSideMode(TwoSideMode::None);
    EXPECT_FALSE(HasMacro(mt, "USE_TWO_SIDE_MASK"));

    mt->EnableTessellation(true);
    EXPECT_TRUE(mt->IsTessellation());
    EXPECT_TRUE(HasMacro(mt, "MT_ALLOW_TESSELLATION", "1"));
    mt->EnableTessellation(false);
    EXPECT_FALSE(HasMacro(mt, "MT_ALLOW_TESSELLATION"));
    mt->EnableTransmission(true);
    EXPECT_TRUE(HasMacro(mt, "AMBIENT_AS_TRANSMISSION", "1"));
    mt->EnableTransmission(false);
    EXPECT_FALSE(HasMacro(mt, "AMBIENT_AS_TRANSMISSION"));
    mt->SetTessellationScheme(TessellationScheme::Phong);
    EXPECT_TRUE(HasMacro(mt, "TESSELLATION_SCHEME", "2"));
    mt->SetOpaqueMask(0.25f);
    EXPECT_TRUE(HasMacro(mt, "MTL_OPAQUE_MASK", "0.25"));

    // Fields do not bleed into each other.
    mt->SetBlendAlphaMode(BlendAlphaMode::Max);
    mt->SetTranslucentDepthMode(TranslucentDepthMode::TwoPassTest);
    EXPECT_EQ(mt->GetBlendMode(), BlendMode(BlendMode::Additive));
    EXPECT_EQ(mt->GetBlendAlphaMode(), BlendAlphaMode(BlendAlphaMode::Max));
    EXPECT_EQ(mt->GetTranslucentDepthMode(), TranslucentDepthMode(TranslucentDepthMode::TwoPassTest));
    EXPECT_EQ(mt->GetTwoSideMode(), TwoSideMode(TwoSideMode::None));
    EXPECT_EQ(mt->GetTessellationScheme(), TessellationScheme(TessellationScheme::Phong));
    EXPECT_EQ((mt->GetFlags() >> PGConfMT::BIT_TRANSLUCENT_DEPTH_MODE) & 0xF, 3u);
    mt->EnableDistortion(true);
    mt->EnableLighting(false);
    EXPECT_TRUE(mt->IsDistorted());
    EXPECT_FALSE(mt->IsLighting());
    EXPECT_EQ(mt->GetFlags() & PGConfMT::FLAG_DISTORTED, PGConfMT::FLAG_DISTORTED);

    // The material's mirrors act on its current configuration.
    EXPECT_TRUE(material->SetCurConf(u"M"));
    material->SetBlendMode(BlendMode::Modulate);
    EXPECT_EQ(mt->GetBlendMode(), BlendMode(BlendMode::Modulate));
    EXPECT_EQ(material->GetBlendMode(), BlendMode(BlendMode::Modulate));
}

// The feature word's layout is read by phases and kept in files: the words
// are written out here by hand, not derived from the constants.
TEST(PGCode, MaterialFeatureWordLayout)
{
    Ptr<PGConfMT> mt(new PGConfMT());
    // Opaque, Replace, TestOnly (1 at bit 8), no two-side, Flatten, lit.
    const uint32 defaults = 0x00200100u;
    EXPECT_EQ(mt->GetFlags(), defaults);

    // Each flag owns exactly its bit.
    struct Flag
    {
        const char* name;
        void (PGConfMT::*enable)(bool);
        bool (PGConfMT::*is)() const;
        uint32 bit;
    };
    const Flag flags[] = {
        {"ambient", &PGConfMT::EnableAmbient, &PGConfMT::IsAmbient, 0x00100000u},
        {"lit by scene lights", &PGConfMT::EnableLighting, &PGConfMT::IsLighting, 0x00200000u},
        {"forward path", &PGConfMT::EnableForwardLighting, &PGConfMT::IsForwardLighting, 0x00400000u},
        {"scene depth", &PGConfMT::EnableSceneDepth, &PGConfMT::IsReadingSceneDepth, 0x00800000u},
        {"scene colour", &PGConfMT::EnableSceneColor, &PGConfMT::IsReadingSceneColor, 0x01000000u},
        {"tessellation", &PGConfMT::EnableTessellation, &PGConfMT::IsTessellation, 0x02000000u},
        {"diffuse", &PGConfMT::EnableDiffuse, &PGConfMT::IsDiffuse, 0x04000000u},
        {"distorted", &PGConfMT::EnableDistortion, &PGConfMT::IsDistorted, 0x08000000u},
        {"transmission", &PGConfMT::EnableTransmission, &PGConfMT::IsTransmission, 0x10000000u},
    };
    for (const Flag& flag : flags)
    {
        Ptr<PGConfMT> one(new PGConfMT());
        const bool wasOn = (one.Get()->*flag.is)();
        (one.Get()->*flag.enable)(!wasOn);
        EXPECT_EQ(one->GetFlags() ^ defaults, flag.bit) << flag.name;
        EXPECT_NE((one.Get()->*flag.is)(), wasOn) << flag.name;
        (one.Get()->*flag.enable)(wasOn);
        EXPECT_EQ(one->GetFlags(), defaults) << flag.name;
    }

    // Every field at its maximum beside a few flags.
    mt->SetBlendMode(BlendMode::Subtractive);                       // 7 at bit 0
    mt->SetBlendAlphaMode(BlendAlphaMode::Max);                     // 2 at bit 4
    mt->SetTranslucentDepthMode(TranslucentDepthMode::TwoPassTest); // 3 at bit 8
    mt->SetTwoSideMode(TwoSideMode::TwoSideSeparatedPass);          // 2 at bit 12
    mt->SetTessellationScheme(TessellationScheme::Phong);           // 2 at bit 16
    mt->EnableForwardLighting(true);
    mt->EnableSceneColor(true);
    mt->EnableDistortion(true);
    mt->EnableTransmission(true);
    EXPECT_EQ(mt->GetFlags(), 0x19622327u);
    EXPECT_EQ(MaterialFeature::GetField(mt->GetFlags(), MaterialFeature::kTwoSideModeShift), 2);

    // The flags that own no macro add none; the word travels whole.
    EXPECT_FALSE(HasMacro(mt.Get(), "MTL_BLEND_OPAQUE"));
    EXPECT_TRUE(HasMacro(mt.Get(), "MTL_BLEND_SUBTRACTIVE", "1"));
    EXPECT_EQ(mt->GetMacros().Count(), 4u); // blend, scheme, two-side mask, transmission
    Ptr<PGConfMT> copy(new PGConfMT());
    copy->CopyContents(*mt);
    EXPECT_EQ(copy->GetFlags(), 0x19622327u);

    // Fields are read signed: a stray high bit is not a large member.
    EXPECT_EQ(MaterialFeature::GetField(0x0000F000u, MaterialFeature::kTwoSideModeShift), -1);
    EXPECT_FALSE(MaterialFeature::FieldsValid(0x0000F000u));
    EXPECT_FALSE(MaterialFeature::FieldsValid(0x00003000u)); // TwoSideMode 3 is no member
    EXPECT_TRUE(MaterialFeature::FieldsValid(0xE0022327u));  // free high bits are not fields
}

TEST(PGCode, MaterialConfigurationFromThreeModes)
{
    KovexTest::LogCapture log;
    Ptr<PGMaterial> material = NewMaterial(u"PGCodeTest.modes");
    PGConfMT* mt = material->CreateConfig(BlendMode::Additive, TranslucentDepthMode::NoTest,
                                          TwoSideMode::TwoSideSeparatedPass);
    ASSERT_NE(mt, nullptr);
    EXPECT_EQ(*mt->GetName(), WString(u"Additive_NoTest_TwoSideSeparatedPass"));
    EXPECT_EQ(mt->GetBlendMode(), BlendMode(BlendMode::Additive));
    EXPECT_EQ(mt->GetTranslucentDepthMode(), TranslucentDepthMode(TranslucentDepthMode::NoTest));
    EXPECT_TRUE(HasMacro(mt, "USE_TWO_SIDE_MASK"));
    EXPECT_EQ(material->CreateConfig(BlendMode::Additive, TranslucentDepthMode::NoTest,
                                     TwoSideMode::TwoSideSeparatedPass),
              nullptr);
    EXPECT_TRUE(log->Contains(u"Create config failed, because Additive_NoTest_TwoSideSeparatedPass is already created.\n"));
    EXPECT_EQ(material->CreateConfig(BlendMode(12), TranslucentDepthMode::NoTest, TwoSideMode::None), nullptr);
}

// The material's mirrors write the current configuration's word (making
// "DEFAULT" first), one bit each, and leave other configurations alone.
TEST(PGCode, MaterialMirrorsSetTheCurrentConfigurationsFlags)
{
    Ptr<PGMaterial> material = NewMaterial(u"PGCodeTest.mirrors");
    PGConfMT* other = material->CreateConfig(WString(u"OTHER"));
    ASSERT_NE(other, nullptr);
    ASSERT_TRUE(material->SetCurConf(WString(u"OTHER")));
    const uint32 before = other->GetFlags();
    material->EnableForwardLighting(true);
    material->EnableSceneDepth(true);
    material->EnableSceneColor(true);
    EXPECT_EQ(other->GetFlags(), before | PGConfMT::FLAG_FORWARD_LIGHTING | PGConfMT::FLAG_SCENE_DEPTH |
                                     PGConfMT::FLAG_SCENE_COLOR);
    material->EnableSceneDepth(false);
    EXPECT_FALSE(other->IsReadingSceneDepth());
    EXPECT_TRUE(other->IsForwardLighting() && other->IsReadingSceneColor());

    Ptr<PGMaterial> fresh = NewMaterial(u"PGCodeTest.mirrors.fresh");
    fresh->EnableSceneColor(true);
    ASSERT_NE(fresh->GetCurConf(), nullptr);
    EXPECT_EQ(*fresh->GetCurConf()->GetName(), WString(u"DEFAULT"));
    EXPECT_TRUE(fresh->GetCurConf()->IsReadingSceneColor());
    EXPECT_FALSE(fresh->GetCurConf()->IsForwardLighting());
}

TEST(PGCode, ReflectedPropertiesOfMaterialConfigurations)
{
    Ptr<PGConfMT> mt(new PGConfMT());
    Variable value;
    ASSERT_TRUE(mt->GetProperty(u"IsLighting", value));
    EXPECT_TRUE(value.GetBool());
    ASSERT_TRUE(mt->SetProperty(u"IsDistorted", Variable(true)));
    EXPECT_TRUE(mt->IsDistorted());
    ASSERT_TRUE(mt->SetProperty(u"OpaqueMask", Variable(0.5f)));
    EXPECT_FLOAT_EQ(mt->GetOpaqueMask(), 0.5f);
    EXPECT_TRUE(HasMacro(mt.Get(), "MTL_OPAQUE_MASK", "0.5"));
    ASSERT_TRUE(mt->SetProperty(u"IsTessellation", Variable(true)));
    EXPECT_TRUE(HasMacro(mt.Get(), "MT_ALLOW_TESSELLATION"));
    ASSERT_NE(mt->FindProperty(u"BlendMode"), nullptr);
    ASSERT_NE(mt->FindProperty(u"BlendAlphaMode"), nullptr);
    ASSERT_TRUE(mt->GetProperty(u"OpaqueMask", value));
    EXPECT_FLOAT_EQ(value.GetFloat(), 0.5f);
}

TEST(PGCode, BlendStatesByFamilyAndAlphaMode)
{
    KovexTest::NullEngine engine;
    BlendStateFactory* factory = BlendStateFactory::Get();
    ASSERT_NE(factory, nullptr);
    EXPECT_FALSE(PGMaterial::GetBlendState(BlendMode::Opaque, BlendAlphaMode::Replace));
    EXPECT_FALSE(PGMaterial::GetBlendState(BlendMode::Mask, BlendAlphaMode::Max));
    EXPECT_EQ(PGMaterial::GetBlendState(BlendMode::Additive, BlendAlphaMode::Replace).Get(),
              factory->GetAdditiveReplaceState().Get());
    EXPECT_EQ(PGMaterial::GetBlendState(BlendMode::AdditiveMask, BlendAlphaMode::Min).Get(),
              factory->GetAdditiveMinState().Get());
    EXPECT_EQ(PGMaterial::GetBlendState(BlendMode::ModulateMask, BlendAlphaMode::Max).Get(),
              factory->GetModulateMaxState().Get());
    EXPECT_EQ(PGMaterial::GetBlendState(BlendMode::Modulate, BlendAlphaMode::Replace).Get(),
              factory->GetModulateReplaceState().Get());
    EXPECT_EQ(PGMaterial::GetBlendState(BlendMode::Subtractive, BlendAlphaMode::Min).Get(),
              factory->GetSubtractiveMinState().Get());
    EXPECT_EQ(PGMaterial::GetBlendState(BlendMode::SubtractiveMask, BlendAlphaMode::Max).Get(),
              factory->GetSubtractiveMaxState().Get());
    EXPECT_TRUE(factory->GetSubtractiveMaxState());
    EXPECT_FALSE(PGMaterial::GetBlendState(BlendMode::Additive, BlendAlphaMode(3)));
}

// --- Serial form -------------------------------------------------------------------------

namespace {

Ptr<PGMaterial> RichMaterial()
{
    Ptr<PGMaterial> material(new PGMaterial());
    PGConfMT* a = material->CreateConfig(u"DEFAULT");
    a->SetBlendMode(BlendMode::SubtractiveMask);
    a->SetBlendAlphaMode(BlendAlphaMode::Min);
    a->SetOpaqueMask(0.75f);
    a->EnableTessellation(true);
    a->SetMacro("EXTRA", "x y");
    PGSamplerDesc sampler;
    sampler.Name = TSharedString<WString>(u"Normal");
    sampler.Desc.AddressU = GraphicsAddress::Clamp;
    sampler.Desc.MaxLOD = 4.0f;
    sampler.Desc.BorderColor = Vector4(0.25f, 0.5f, 0.75f, 1.0f);
    a->AttachSamplerDesc(sampler);
    PGTextureDesc texture;
    texture.Name = TSharedString<WString>(u"Normal");
    texture.Path = u"[core]textures/flat.dds";
    texture.ConfigTexture = true;
    a->AttachTextureDesc(texture);
    PGConfMT* b = material->CreateConfig(u"DEFAULT[INSTANCE_RENDERING]");
    b->SetMacro("USE_INSTANCE_RENDERING", "1");
    material->SetCurConf(u"DEFAULT[INSTANCE_RENDERING]");
    material->SetCode("float4 Surface() { return 1; }");
    return material;
}

KovexTest::Bytes SaveWith(const Class* form, const PGCode* code)
{
    return KovexTest::WriteWith(form, [&](Serializer& s) { EXPECT_TRUE(code->Save(&s)); });
}

bool LoadWith(const KovexTest::Bytes& bytes, PGCode* code)
{
    Serializer* reader = KovexTest::OpenReader(bytes);
    if (!reader)
        return false;
    bool ok = code->Load(reader);
    delete reader;
    return ok;
}

void ExpectSameCode(PGCode* a, PGCode* b)
{
    EXPECT_EQ(a->GetName(), b->GetName());
    EXPECT_EQ(a->GetCode(), b->GetCode());
    ASSERT_EQ(a->GetConfigMap().Count(), b->GetConfigMap().Count());
    for (unsigned i = 0; i < a->GetConfigMap().Count(); ++i)
        EXPECT_TRUE(a->GetConfigMap()[i].value->IsSameContents(*b->GetConfigMap()[i].value)) << i;
    ASSERT_NE(b->GetCurConf(), nullptr);
    EXPECT_EQ(*a->GetCurConf()->GetName(), *b->GetCurConf()->GetName());
    for (auto& pair : b->GetConfigMap())
        EXPECT_EQ(pair.value->GetParent(), b);
}

} // namespace

TEST(PGCodeSerial, LoadsBackEqualInBinaryAndXml)
{
    Ptr<PGMaterial> original = RichMaterial();
    for (const Class* form : {BinSerializer::StaticGetClass(), XmlSerializer::StaticGetClass()})
    {
        KovexTest::Bytes bytes = SaveWith(form, original.Get());
        Ptr<PGMaterial> loaded(new PGMaterial());
        ASSERT_TRUE(LoadWith(bytes, loaded.Get()));
        ExpectSameCode(original.Get(), loaded.Get());
        PGConfMT* mt = loaded->GetConfig(u"DEFAULT");
        ASSERT_NE(mt, nullptr);
        EXPECT_EQ(mt->GetBlendMode(), BlendMode(BlendMode::SubtractiveMask));
        EXPECT_FLOAT_EQ(mt->GetOpaqueMask(), 0.75f);
        const PGSamplerDesc* sampler = mt->GetSamplerDesc(u"Normal");
        ASSERT_NE(sampler, nullptr);
        EXPECT_EQ(sampler->Desc.AddressU, GraphicsAddress::Clamp);
        EXPECT_FLOAT_EQ(sampler->Desc.BorderColor.y, 0.5f);
        ASSERT_NE(mt->GetTextureDesc(u"Normal"), nullptr);
        EXPECT_TRUE(mt->GetTextureDesc(u"Normal")->ConfigTexture);
        // A code of another type does not take it.
        Ptr<PGFramework> other(new PGFramework());
        EXPECT_FALSE(LoadWith(bytes, other.Get()));
        EXPECT_TRUE(other->GetConfigMap().IsEmpty());
    }
}

TEST(PGCodeSerial, MaterialFeatureWordTravels)
{
    for (const Class* form : {BinSerializer::StaticGetClass(), XmlSerializer::StaticGetClass()})
    {
        Ptr<PGMaterial> material(new PGMaterial());
        PGConfMT* conf = material->CreateConfig(u"DEFAULT");
        conf->EnableSceneDepth(true);
        conf->EnableForwardLighting(true);
        conf->EnableAmbient(true);
        conf->SetTwoSideMode(TwoSideMode::TwoSide);
        conf->EnableLighting(false);
        Ptr<PGMaterial> loaded(new PGMaterial());
        ASSERT_TRUE(LoadWith(SaveWith(form, material.Get()), loaded.Get()));
        ASSERT_NE(loaded->GetConfig(u"DEFAULT"), nullptr);
        EXPECT_EQ(loaded->GetConfig(u"DEFAULT")->GetFlags(), 0x00D01100u) << (form == BinSerializer::StaticGetClass() ? "binary" : "xml");
    }
}

TEST(PGCodeSerial, FrameworkFlagsTravel)
{
    Ptr<PGFramework> fw(new PGFramework());
    PGConfFW* conf = fw->CreateConfig(u"DEFAULT");
    conf->SetTessellationAware(true);
    conf->SetUsesGeometryStage(true);
    EXPECT_EQ(conf->GetFlags(), PGConfFW::FLAG_TESSELLATION_AWARE | PGConfFW::FLAG_GEOMETRY_STAGE);
    KovexTest::Bytes bytes = SaveWith(XmlSerializer::StaticGetClass(), fw.Get());
    Ptr<PGFramework> loaded(new PGFramework());
    ASSERT_TRUE(LoadWith(bytes, loaded.Get()));
    ASSERT_NE(loaded->GetConfig(u"DEFAULT"), nullptr);
    EXPECT_TRUE(loaded->GetConfig(u"DEFAULT")->IsTessellationAware());
    EXPECT_TRUE(loaded->GetConfig(u"DEFAULT")->UsesGeometryStage());
}

TEST(PGCodeSerial, DamagedFilesFailAndChangeNothing)
{
    Ptr<PGMaterial> original = RichMaterial();
    const KovexTest::Bytes bytes = SaveWith(BinSerializer::StaticGetClass(), original.Get());
    ASSERT_GT(bytes.size(), 16u);
    // Every cut, and a flipped byte at every position: never a crash, and a
    // failed load leaves the target as it was.
    unsigned failures = 0;
    auto check = [&](const KovexTest::Bytes& damaged) {
        Ptr<PGMaterial> target = RichMaterial();
        if (!LoadWith(damaged, target.Get()))
        {
            ++failures;
            ExpectSameCode(original.Get(), target.Get());
        }
    };
    for (size_t cut = 0; cut < bytes.size(); ++cut)
        check(bytes.substr(0, cut));
    for (size_t at = 0; at < bytes.size(); ++at)
    {
        KovexTest::Bytes damaged = bytes;
        damaged[at] = char(damaged[at] ^ 0xFF);
        check(damaged);
    }
    EXPECT_GE(failures, bytes.size() / 2);
}
