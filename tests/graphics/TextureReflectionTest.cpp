// Textures as reflection sees them: the description's and the target
// group's properties by name, the factory's front called by name.
#include <gtest/gtest.h>

#include "graphics/TextureFactory.h"
#include "reflection/Function.h"
#include "reflection/Property.h"
#include "reflection/Struct.h"
#include "support/NullEngine.h"

using namespace KovexEngine;

namespace {

WString Names(const Class* cls)
{
    WString all;
    for (const Property* p : cls->GetPropertyArray())
        all += p->GetName() + u",";
    return all;
}

bool SetUInt(const Class* cls, void* object, const char16_t* name, uint32 value)
{
    const Property* p = cls->FindProperty(WString(name), false);
    return p && p->SetPropertyValue(object, &value);
}

} // namespace

TEST(TextureReflection, DescriptionPropertiesByNameInListedOrder)
{
    const Class* cls = TextureDesc::StaticGetClass();
    ASSERT_TRUE(cls);
    EXPECT_TRUE(Names(cls) == u"Width,Height,Depth,ArraySize,Format,TypelessRtvDsvFormat,TypelessSavUavFormat,"
                              u"Dimension,ViewFlags,MipLevels,");
    TextureDesc d;
    ASSERT_TRUE(SetUInt(cls, &d, u"MipLevels", 5));
    ASSERT_TRUE(SetUInt(cls, &d, u"ViewFlags", 3));
    ASSERT_TRUE(SetUInt(cls, &d, u"TypelessSavUavFormat", 9));
    EXPECT_EQ(d.MipLevels, 5u);
    EXPECT_EQ(d.ViewFlags, 3u);
    EXPECT_EQ(d.TypelessSavUavFormat, 9u);
    uint32 width = 0;
    d.Width = 640;
    ASSERT_TRUE(cls->FindProperty(WString(u"Width"), false)->GetPropertyValue(&d, &width));
    EXPECT_EQ(width, 640u);
    // Equal descriptions compare equal through their class.
    TextureDesc copy = d;
    EXPECT_TRUE(static_cast<const Struct*>(cls)->IsEqual(&d, &copy));
    copy.Depth = 2;
    EXPECT_FALSE(static_cast<const Struct*>(cls)->IsEqual(&d, &copy));
}

TEST(TextureReflection, TargetGroupSlotsAreTheirOwnProperties)
{
    const Class* cls = RenderTargetGroup::StaticGetClass();
    ASSERT_TRUE(cls);
    WString expected;
    for (int i = 0; i < 8; ++i)
        expected += WString(u"RenderTarget") + WString(char16_t(u'0' + i)) + u",";
    for (int i = 0; i < 8; ++i)
        expected += WString(u"ArrayIndexRT") + WString(char16_t(u'0' + i)) + u",";
    expected += u"DepthStencil,ArrayIndexDS,Clear,";
    EXPECT_TRUE(Names(cls) == expected);

    KovexTest::NullEngine engine(32, 32);
    Ptr<Texture> target = Texture::Create2DRT(8, 8, GraphicsFormat::R8G8B8A8_UNORM);
    ASSERT_TRUE(target);
    RenderTargetGroup group;
    Ptr<Object> stored(target.Get());
    const Property* slot3 = cls->FindProperty(WString(u"RenderTarget3"), false);
    ASSERT_TRUE(slot3);
    EXPECT_EQ(slot3->GetClass(), Texture::StaticGetClass());
    ASSERT_TRUE(slot3->SetPropertyValue(&group, &stored));
    EXPECT_EQ(group.RenderTargets[3].Get(), target.Get());
    EXPECT_EQ(group.RenderTargets[2].Get(), nullptr) << "the neighbours are untouched";
    ASSERT_TRUE(SetUInt(cls, &group, u"ArrayIndexRT7", 4));
    EXPECT_EQ(group.ArrayIndices[7], 4u);
    EXPECT_EQ(group.ArrayIndices[6], 0u);
    Ptr<Object> read;
    ASSERT_TRUE(slot3->GetPropertyValue(&group, &read));
    EXPECT_EQ(read.Get(), target.Get());
    bool clear = true;
    ASSERT_TRUE(cls->FindProperty(WString(u"Clear"), false)->SetPropertyValue(&group, &clear));
    EXPECT_TRUE(group.ClearOnApply);
}

TEST(TextureReflection, FactoryFrontCalledByName)
{
    const Class* cls = Texture::StaticGetClass();
    {
        // Without a renderer the front answers null, by name as natively.
        TFunctionStack<4> stack(3, true);
        stack->Var(0) = 16u;
        stack->Var(1) = 16u;
        stack->Var(2).SetEnumValue(GraphicsFormat::R8G8B8A8_UNORM, GraphicsFormat::GetSelfEnumClass());
        ASSERT_TRUE(cls->StaticInvoke(WString(u"Create2DRT"), stack.Get(), false));
        EXPECT_EQ(stack->RetVar().GetObject(), nullptr);
    }
    KovexTest::NullEngine engine(32, 32);
    Ptr<Texture> made;
    {
        TFunctionStack<4> stack(3, true);
        stack->Var(0) = 16u;
        stack->Var(1) = 8u;
        stack->Var(2).SetEnumValue(GraphicsFormat::R8G8B8A8_UNORM, GraphicsFormat::GetSelfEnumClass());
        ASSERT_TRUE(cls->StaticInvoke(WString(u"Require2DRT"), stack.Get(), false));
        Object* object = stack->RetVar().GetObject();
        ASSERT_TRUE(object && object->IsKindOf(cls));
        made = Ptr<Texture>(static_cast<Texture*>(object));
        EXPECT_EQ(made->GetWidth(), 16u);
        EXPECT_EQ(made->GetHeight(), 8u);
        EXPECT_TRUE(made->IsRenderTarget());
    }
    {
        TFunctionStack<2> stack(1, false);
        stack->Var(0) = Ptr<Object>(made.Get());
        ASSERT_TRUE(cls->StaticInvoke(WString(u"Recycle"), stack.Get(), false));
    }
    {
        TFunctionStack<4> stack(3, true);
        stack->Var(0) = 16u;
        stack->Var(1) = 8u;
        stack->Var(2).SetEnumValue(GraphicsFormat::R8G8B8A8_UNORM, GraphicsFormat::GetSelfEnumClass());
        ASSERT_TRUE(cls->StaticInvoke(WString(u"Require2DRT"), stack.Get(), false));
        EXPECT_EQ(stack->RetVar().GetObject(), made.Get()) << "the recycled target comes back from the pool";
    }
    {
        // A member query and a struct result.
        TFunctionStack<2> stack(0, true);
        ASSERT_TRUE(made->Invoke(WString(u"GetDesc"), stack.Get()));
        ASSERT_EQ(stack->RetVar().GetClass(), TextureDesc::StaticGetClass());
        EXPECT_EQ(static_cast<const TextureDesc*>(stack->RetVar().GetStructMem())->Width, 16u);
    }
    {
        made->SetFirstResidentMip(2);
        TFunctionStack<2> stack(0, true);
        ASSERT_TRUE(made->Invoke(WString(u"GetFirstResidentMip"), stack.Get()));
        EXPECT_EQ(stack->RetVar().GetUInt(), 2u);
        made->SetFirstResidentMip(0);
    }
    for (const char16_t* name : {u"LoadFromPath", u"FindByPath", u"Create", u"Create2DDepth", u"Create2DTypelessRT",
                                 u"Create2DStaging", u"CreateCubeRT", u"Require", u"Require2DDepth",
                                 u"Require2DTypelessRT", u"RequireCubeRT", u"Require2DStaging"})
    {
        const Function* f = cls->FindFunction(WString(name), false);
        ASSERT_TRUE(f);
        EXPECT_TRUE(f->IsStaticFunction());
        EXPECT_EQ(f->GetReturnParam().cls, cls) << "typed Ptr<Texture> result";
    }
}
