// What reflection sees of textures: the description and the target group as
// structs, the texture's queries and the factory's front as functions.

#include "graphics/TextureFactory.h"
#include "reflection/FunctionRegistration.h"
#include "reflection/Struct.h"

namespace KovexEngine {

KOVEX_REGISTER_STRUCT(TextureDesc, u"Engine", KOVEX_TYPE_CUSTOM)
void TextureDesc::StaticConstructor(Class* cls)
{
    // The order tools list them in, not the order in memory.
    using D = TextureDesc;
    AddStructField(cls, u"Width", &D::Width);
    AddStructField(cls, u"Height", &D::Height);
    AddStructField(cls, u"Depth", &D::Depth);
    AddStructField(cls, u"ArraySize", &D::ArraySize);
    AddStructField(cls, u"Format", &D::Format);
    AddStructField(cls, u"TypelessRtvDsvFormat", &D::TypelessRtvDsvFormat);
    AddStructField(cls, u"TypelessSavUavFormat", &D::TypelessSavUavFormat);
    AddStructField(cls, u"Dimension", &D::Dimension);
    AddStructField(cls, u"ViewFlags", &D::ViewFlags);
    AddStructField(cls, u"MipLevels", &D::MipLevels);
    cls->ProcessClass();
}

KOVEX_REGISTER_STRUCT(RenderTargetGroup, u"Engine", KOVEX_TYPE_CUSTOM)
void RenderTargetGroup::StaticConstructor(Class* cls)
{
    using G = RenderTargetGroup;
    static const char16_t* const kTargets[kMaxTargets] = {u"RenderTarget0", u"RenderTarget1", u"RenderTarget2",
                                                          u"RenderTarget3", u"RenderTarget4", u"RenderTarget5",
                                                          u"RenderTarget6", u"RenderTarget7"};
    static const char16_t* const kIndices[kMaxTargets] = {u"ArrayIndexRT0", u"ArrayIndexRT1", u"ArrayIndexRT2",
                                                          u"ArrayIndexRT3", u"ArrayIndexRT4", u"ArrayIndexRT5",
                                                          u"ArrayIndexRT6", u"ArrayIndexRT7"};
    for (unsigned i = 0; i < kMaxTargets; ++i)
        AddArrayElement(cls, kTargets[i], &G::RenderTargets, i, Property::FLAG_STRUCT_FIELD);
    for (unsigned i = 0; i < kMaxTargets; ++i)
        AddArrayElement(cls, kIndices[i], &G::ArrayIndices, i, Property::FLAG_STRUCT_FIELD);
    AddStructField(cls, u"DepthStencil", &G::DepthBuffer);
    AddStructField(cls, u"ArrayIndexDS", &G::DepthArrayIndex);
    AddStructField(cls, u"Clear", &G::ClearOnApply);
    cls->ProcessClass();
}

KOVEX_REGISTER_CLASS_EX(Texture, u"Engine")
void Texture::StaticConstructor(Class* cls)
{
    using T = Texture;
    RegisterBases<T, GraphicsResource>(cls);
    AddFunction(cls, u"GetDesc", &T::GetDesc);
    AddFunction(cls, u"GetPath", &T::GetPath);
    AddFunction(cls, u"GetWidth", &T::GetWidth);
    AddFunction(cls, u"GetHeight", &T::GetHeight);
    AddFunction(cls, u"GenerateMips", &T::GenerateMips);
    AddFunction(cls, u"IsRenderTarget", &T::IsRenderTarget);
    AddFunction(cls, u"IsDepthStencil", &T::IsDepthStencil);
    AddFunction(cls, u"IsShaderResource", &T::IsShaderResource);
    AddFunction(cls, u"IsUnorderedAccessView", &T::IsUnorderedAccessView);
    AddFunction(cls, u"GetFirstResidentMip", &T::GetFirstResidentMip);
    // The factory's front, callable by name; each answers null without a renderer.
    AddFunction(cls, u"LoadFromPath", &T::LoadFromPath, {u"path"});
    AddFunction(cls, u"FindByPath", &T::FindByPath, {u"path"});
    AddFunction(cls, u"Create", &T::Create, {u"desc", u"usage"});
    AddFunction(cls, u"Create2DRT", &T::Create2DRT, {u"width", u"height", u"format"});
    AddFunction(cls, u"Create2DDepth", &T::Create2DDepth, {u"width", u"height", u"format"});
    AddFunction(cls, u"Create2DTypelessRT", &T::Create2DTypelessRT,
                {u"width", u"height", u"format", u"typelessRtvDsvFormat", u"typelessSrvUavFormat", u"flags"});
    AddFunction(cls, u"Create2DStaging", &T::Create2DStaging, {u"width", u"height", u"format"});
    AddFunction(cls, u"CreateCubeRT", &T::CreateCubeRT, {u"size", u"format"});
    AddFunction(cls, u"Require", &T::Require, {u"desc", u"usage", u"findClosest"});
    AddFunction(cls, u"Require2DRT", &T::Require2DRT, {u"width", u"height", u"format"});
    AddFunction(cls, u"Require2DDepth", &T::Require2DDepth, {u"width", u"height", u"format"});
    AddFunction(cls, u"Require2DTypelessRT", &T::Require2DTypelessRT,
                {u"width", u"height", u"format", u"typelessRtvDsvFormat", u"typelessSrvUavFormat", u"flags"});
    AddFunction(cls, u"RequireCubeRT", &T::RequireCubeRT, {u"size", u"format"});
    AddFunction(cls, u"Require2DStaging", &T::Require2DStaging, {u"width", u"height", u"format", u"findClosest"});
    AddFunction(cls, u"Recycle", &T::Recycle, {u"texture"});
    cls->ProcessClass();
}

} // namespace KovexEngine
