#include <gtest/gtest.h>

#include "reflection/EngineEnums.h"
#include "reflection/EnumClass.h"

using namespace KovexEngine;

TEST(Enum, WrappersBehaveLikeTheirValues)
{
    GraphicsClearMode mode = GraphicsClearMode::Target;
    mode |= GraphicsClearMode::Depth;
    EXPECT_EQ(mode.GetVal(), 3);
    EXPECT_EQ(mode, GraphicsClearMode::TargetDepth);
    EXPECT_EQ((mode & GraphicsClearMode::Depth).GetVal(), 2);
    EXPECT_EQ(mode & 1, 1);
    EXPECT_EQ(mode | 4u, 7u);
    mode ^= 1;
    EXPECT_EQ(mode(), 2);
    GraphicsClearMode::TYPE raw = mode;
    EXPECT_EQ(raw, GraphicsClearMode::Depth);
    EXPECT_EQ(sizeof(GraphicsClearMode), sizeof(int)) << "one int, no virtual table";
    LightType light(2);
    EXPECT_TRUE(WString(light.GetName()) == u"Directional");
    EXPECT_TRUE(WString(LightType(99).GetName()).IsEmpty());
}

TEST(Enum, ClassesHoldTheirMembersInOrder)
{
    const EnumClass* cls = GraphicsClearMode::GetSelfEnumClass();
    ASSERT_NE(cls, nullptr);
    EXPECT_TRUE(cls->GetName() == u"GraphicsClearMode");
    EXPECT_EQ(cls->GetType(), KOVEX_TYPE_ENUM);
    EXPECT_EQ(cls->GetSize(), 4u);
    EXPECT_EQ(cls->GetFlags(), 1u);
    EXPECT_EQ(cls->GetNumMembers(), 8u);
    EXPECT_TRUE(WString(cls->GetMemberByIndex(4)->name) == u"TargetDepth") << "declaration order, not value order";
    EXPECT_EQ(cls->GetMemberByIndex(8), nullptr);
    EXPECT_EQ(cls->GetMemberValue(WString(u"DepthStencil")), 6);
    EXPECT_EQ(cls->GetMemberValue(WString(u"depthstencil")), int(0xCDCDCDCD)) << "names compare exactly";
    EXPECT_TRUE(WString(cls->GetMemberName(42)).IsEmpty());
    EXPECT_EQ(cls->GetMemberIndex(WString(u"Stencil")), 3u);
    EXPECT_EQ(cls->GetMemberIndex(123), kNotFound);
    EXPECT_EQ(Class::GetClass(WString(u"KeyCode")), KeyCode::StaticGetClass());
    EXPECT_EQ(KeyCode::GetNumEnumMembers(), 104u);
    EXPECT_TRUE(WString(KeyCode::GetEnumMember(KeyCode::Quote)->name) == u"Quote");
    EXPECT_EQ(KeyCode::Quote, 103);
    EXPECT_EQ(KeyCode::Z, 47);
    const EnumMember* shading = RenderContextShadingMode::GetEnumMember(RenderContextShadingMode::DiffuseAndAmbient);
    EXPECT_TRUE(WString(shading->displayName) == u"Diffuse+Ambient");
    EXPECT_TRUE(WString(shading->name) == u"DiffuseAndAmbient");
    EXPECT_EQ(RendererPlatform::Vulkan, 4);
    EXPECT_EQ(D3DShaderProfile::SM_5_0, 5000);
    int copy = 0;
    int seven = 7;
    cls->Copy(&copy, &seven);
    EXPECT_EQ(copy, 7);
    EXPECT_TRUE(cls->Compare(&copy, &seven, 100.0f));
}
