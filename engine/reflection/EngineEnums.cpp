#include "reflection/EngineEnums.h"

#include "reflection/EnumClass.h"

namespace KovexEngine {

KOVEX_IMPLEMENT_ENUM(AnimPlayMode, KOVEX_ENUM_TABLE_AnimPlayMode)
KOVEX_IMPLEMENT_ENUM(BezierInterpolate, KOVEX_ENUM_TABLE_BezierInterpolate)
KOVEX_IMPLEMENT_ENUM(BillboardAxisOrientation, KOVEX_ENUM_TABLE_BillboardAxisOrientation)
KOVEX_IMPLEMENT_ENUM(BlendAlphaMode, KOVEX_ENUM_TABLE_BlendAlphaMode)
KOVEX_IMPLEMENT_ENUM(BlendMode, KOVEX_ENUM_TABLE_BlendMode)
KOVEX_IMPLEMENT_ENUM(D3DShaderProfile, KOVEX_ENUM_TABLE_D3DShaderProfile)
KOVEX_IMPLEMENT_ENUM(EPlaneSide, KOVEX_ENUM_TABLE_EPlaneSide)
KOVEX_IMPLEMENT_ENUM(EulerOrder, KOVEX_ENUM_TABLE_EulerOrder)
KOVEX_IMPLEMENT_ENUM(FrustumCorner, KOVEX_ENUM_TABLE_FrustumCorner)
KOVEX_IMPLEMENT_ENUM(FrustumPlane, KOVEX_ENUM_TABLE_FrustumPlane)
KOVEX_IMPLEMENT_ENUM(GPUVendor, KOVEX_ENUM_TABLE_GPUVendor)
KOVEX_IMPLEMENT_ENUM(GraphicsAddress, KOVEX_ENUM_TABLE_GraphicsAddress)
KOVEX_IMPLEMENT_ENUM(GraphicsBlend, KOVEX_ENUM_TABLE_GraphicsBlend)
KOVEX_IMPLEMENT_ENUM(GraphicsBlendOp, KOVEX_ENUM_TABLE_GraphicsBlendOp)
KOVEX_IMPLEMENT_ENUM(GraphicsClearMode, KOVEX_ENUM_TABLE_GraphicsClearMode)
KOVEX_IMPLEMENT_ENUM(GraphicsComparison, KOVEX_ENUM_TABLE_GraphicsComparison)
KOVEX_IMPLEMENT_ENUM(GraphicsCullMode, KOVEX_ENUM_TABLE_GraphicsCullMode)
KOVEX_IMPLEMENT_ENUM(GraphicsFillMode, KOVEX_ENUM_TABLE_GraphicsFillMode)
KOVEX_IMPLEMENT_ENUM(GraphicsFilter, KOVEX_ENUM_TABLE_GraphicsFilter)
KOVEX_IMPLEMENT_ENUM(GraphicsFormatLayout, KOVEX_ENUM_TABLE_GraphicsFormatLayout)
KOVEX_IMPLEMENT_ENUM(GraphicsFormatType, KOVEX_ENUM_TABLE_GraphicsFormatType)
KOVEX_IMPLEMENT_ENUM(GraphicsInputClass, KOVEX_ENUM_TABLE_GraphicsInputClass)
KOVEX_IMPLEMENT_ENUM(GraphicsLayoutFormat, KOVEX_ENUM_TABLE_GraphicsLayoutFormat)
KOVEX_IMPLEMENT_ENUM(GraphicsResourceCpuAccess, KOVEX_ENUM_TABLE_GraphicsResourceCpuAccess)
KOVEX_IMPLEMENT_ENUM(GraphicsResourceUsage, KOVEX_ENUM_TABLE_GraphicsResourceUsage)
KOVEX_IMPLEMENT_ENUM(GraphicsSemantic, KOVEX_ENUM_TABLE_GraphicsSemantic)
KOVEX_IMPLEMENT_ENUM(GraphicsStencilOp, KOVEX_ENUM_TABLE_GraphicsStencilOp)
KOVEX_IMPLEMENT_ENUM(GraphicsTopology, KOVEX_ENUM_TABLE_GraphicsTopology)
KOVEX_IMPLEMENT_ENUM(GraphicsView, KOVEX_ENUM_TABLE_GraphicsView)
KOVEX_IMPLEMENT_ENUM(GraphicsWriteMask, KOVEX_ENUM_TABLE_GraphicsWriteMask)
KOVEX_IMPLEMENT_ENUM(HeightComparison, KOVEX_ENUM_TABLE_HeightComparison)
KOVEX_IMPLEMENT_ENUM(IntersectionType, KOVEX_ENUM_TABLE_IntersectionType)
KOVEX_IMPLEMENT_ENUM(KeyCode, KOVEX_ENUM_TABLE_KeyCode)
KOVEX_IMPLEMENT_ENUM(KeyInterpolationType, KOVEX_ENUM_TABLE_KeyInterpolationType)
KOVEX_IMPLEMENT_ENUM(LightType, KOVEX_ENUM_TABLE_LightType)
KOVEX_IMPLEMENT_ENUM(MapType, KOVEX_ENUM_TABLE_MapType)
KOVEX_IMPLEMENT_ENUM(MaterialChannelType, KOVEX_ENUM_TABLE_MaterialChannelType)
KOVEX_IMPLEMENT_ENUM(MeshLodMode, KOVEX_ENUM_TABLE_MeshLodMode)
KOVEX_IMPLEMENT_ENUM(MultiSampleType, KOVEX_ENUM_TABLE_MultiSampleType)
KOVEX_IMPLEMENT_ENUM(PackSwizzling, KOVEX_ENUM_TABLE_PackSwizzling)
KOVEX_IMPLEMENT_ENUM(ParticleAlign, KOVEX_ENUM_TABLE_ParticleAlign)
KOVEX_IMPLEMENT_ENUM(ParticleInheritPRS, KOVEX_ENUM_TABLE_ParticleInheritPRS)
KOVEX_IMPLEMENT_ENUM(ParticleUpdateMode, KOVEX_ENUM_TABLE_ParticleUpdateMode)
KOVEX_IMPLEMENT_ENUM(PhysicsConstraintType, KOVEX_ENUM_TABLE_PhysicsConstraintType)
KOVEX_IMPLEMENT_ENUM(PhysicsObjectType, KOVEX_ENUM_TABLE_PhysicsObjectType)
KOVEX_IMPLEMENT_ENUM(PhysicsShapeType, KOVEX_ENUM_TABLE_PhysicsShapeType)
KOVEX_IMPLEMENT_ENUM(ProjectionMode, KOVEX_ENUM_TABLE_ProjectionMode)
KOVEX_IMPLEMENT_ENUM(RenderContextDeferredLightStrategy, KOVEX_ENUM_TABLE_RenderContextDeferredLightStrategy)
KOVEX_IMPLEMENT_ENUM(RenderContextLightingMode, KOVEX_ENUM_TABLE_RenderContextLightingMode)
KOVEX_IMPLEMENT_ENUM(RenderContextShadingMode, KOVEX_ENUM_TABLE_RenderContextShadingMode)
KOVEX_IMPLEMENT_ENUM(RendererPlatform, KOVEX_ENUM_TABLE_RendererPlatform)
KOVEX_IMPLEMENT_ENUM(SVTextureType, KOVEX_ENUM_TABLE_SVTextureType)
KOVEX_IMPLEMENT_ENUM(ShaderType, KOVEX_ENUM_TABLE_ShaderType)
KOVEX_IMPLEMENT_ENUM(ShadowFilterQuality, KOVEX_ENUM_TABLE_ShadowFilterQuality)
KOVEX_IMPLEMENT_ENUM(SkinModifierUpdateMode, KOVEX_ENUM_TABLE_SkinModifierUpdateMode)
KOVEX_IMPLEMENT_ENUM(SpriteTiledMode, KOVEX_ENUM_TABLE_SpriteTiledMode)
KOVEX_IMPLEMENT_ENUM(StreamSource, KOVEX_ENUM_TABLE_StreamSource)
KOVEX_IMPLEMENT_ENUM(TessellationScheme, KOVEX_ENUM_TABLE_TessellationScheme)
KOVEX_IMPLEMENT_ENUM(TextureDimension, KOVEX_ENUM_TABLE_TextureDimension)
KOVEX_IMPLEMENT_ENUM(TextureFilter, KOVEX_ENUM_TABLE_TextureFilter)
KOVEX_IMPLEMENT_ENUM(TimeMode, KOVEX_ENUM_TABLE_TimeMode)
KOVEX_IMPLEMENT_ENUM(TranslucentDepthMode, KOVEX_ENUM_TABLE_TranslucentDepthMode)
KOVEX_IMPLEMENT_ENUM(TwoSideMode, KOVEX_ENUM_TABLE_TwoSideMode)

WString D3DShaderProfile::ToD3DVerStr(int profile)
{
    switch (profile)
    {
    case SM_2_0:
    case SM_2_X: return WString(u"9_2");
    case SM_3_0: return WString(u"9_3");
    case SM_4_0: return WString(u"10_0");
    case SM_4_1: return WString(u"10_1");
    case SM_5_0: return WString(u"11_0");
    default: return WString();
    }
}

unsigned GraphicsLayoutFormat::GetNumComponents(int format)
{
    switch (format)
    {
    case Float1: return 1;
    case Float2:
    case Half2:
    case Short2:
    case Short2N:
    case UShort2N: return 2;
    case Float3: return 3;
    case Float4:
    case Half4:
    case UByte4:
    case Short4:
    case UByte4N:
    case Short4N:
    case UShort4N: return 4;
    default: return 0;
    }
}

} // namespace KovexEngine
