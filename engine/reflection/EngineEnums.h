#pragma once

// The engine's reflected enumerations, each generated from its table: one
// member per entry, M(name, value) or D(name, value, "display name").

#include "reflection/WrapperEnum.h"

namespace KovexEngine {

#define KOVEX_ENUM_TABLE_AnimPlayMode(M, D) \
    M(Additive, 0) \
    M(Blend, 1)
KOVEX_DECLARE_ENUM(AnimPlayMode, KOVEX_ENUM_TABLE_AnimPlayMode)

#define KOVEX_ENUM_TABLE_BezierInterpolate(M, D) \
    M(Curve, 0) \
    M(Linear, 1) \
    M(Step, 2)
KOVEX_DECLARE_ENUM(BezierInterpolate, KOVEX_ENUM_TABLE_BezierInterpolate)

#define KOVEX_ENUM_TABLE_BillboardAxisOrientation(M, D) \
    M(CameraPositiveX, 0) \
    M(CameraPositiveY, 1) \
    M(CameraPositiveZ, 2) \
    M(CameraNegativeX, 3) \
    M(CameraNegativeY, 4) \
    M(CameraNegativeZ, 5) \
    M(WorldPositiveX, 6) \
    M(WorldPositiveY, 7) \
    M(WorldPositiveZ, 8) \
    M(WorldNegativeX, 9) \
    M(WorldNegativeY, 10) \
    M(WorldNegativeZ, 11) \
    M(LocalPositiveX, 12) \
    M(LocalPositiveY, 13) \
    M(LocalPositiveZ, 14) \
    M(LocalNegativeX, 15) \
    M(LocalNegativeY, 16) \
    M(LocalNegativeZ, 17)
KOVEX_DECLARE_ENUM(BillboardAxisOrientation, KOVEX_ENUM_TABLE_BillboardAxisOrientation)

#define KOVEX_ENUM_TABLE_BlendAlphaMode(M, D) \
    M(Replace, 0) \
    M(Min, 1) \
    M(Max, 2)
KOVEX_DECLARE_ENUM(BlendAlphaMode, KOVEX_ENUM_TABLE_BlendAlphaMode)

#define KOVEX_ENUM_TABLE_BlendMode(M, D) \
    M(Opaque, 0) \
    M(Mask, 1) \
    M(AdditiveMask, 2) \
    M(ModulateMask, 3) \
    M(SubtractiveMask, 4) \
    M(Additive, 5) \
    M(Modulate, 6) \
    M(Subtractive, 7)
KOVEX_DECLARE_ENUM(BlendMode, KOVEX_ENUM_TABLE_BlendMode)

#define KOVEX_ENUM_TABLE_D3DShaderProfile(M, D) \
    M(SM_Unknown, 0) \
    M(SM_2_0, 2000) \
    M(SM_2_X, 2500) \
    M(SM_3_0, 3000) \
    M(SM_4_0, 4000) \
    M(SM_4_1, 4500) \
    M(SM_5_0, 5000)
KOVEX_DECLARE_ENUM_EX(D3DShaderProfile, KOVEX_ENUM_TABLE_D3DShaderProfile,
    /* The feature-level text of a profile ("9_3", "11_0"); empty for any other value. */
    static ::KovexEngine::WString ToD3DVerStr(int profile);)

#define KOVEX_ENUM_TABLE_EPlaneSide(M, D) \
    M(Front, 0) \
    M(Back, 1) \
    M(On, 2) \
    M(Cross, 3)
KOVEX_DECLARE_ENUM(EPlaneSide, KOVEX_ENUM_TABLE_EPlaneSide)

#define KOVEX_ENUM_TABLE_EulerOrder(M, D) \
    M(XYZ, 0) \
    M(XZY, 1) \
    M(YXZ, 2) \
    M(YZX, 3) \
    M(ZXY, 4) \
    M(ZYX, 5)
KOVEX_DECLARE_ENUM(EulerOrder, KOVEX_ENUM_TABLE_EulerOrder)

#define KOVEX_ENUM_TABLE_FrustumCorner(M, D) \
    M(LeftTopNear, 0) \
    M(RightTopNear, 1) \
    M(LeftBottomNear, 2) \
    M(RightBottomNear, 3) \
    M(LeftTopFar, 4) \
    M(RightTopFar, 5) \
    M(LeftBottomFar, 6) \
    M(RightBottomFar, 7)
KOVEX_DECLARE_ENUM(FrustumCorner, KOVEX_ENUM_TABLE_FrustumCorner)

#define KOVEX_ENUM_TABLE_FrustumPlane(M, D) \
    M(Top, 0) \
    M(Bottom, 1) \
    M(Left, 2) \
    M(Right, 3) \
    M(Near, 4) \
    M(Far, 5)
KOVEX_DECLARE_ENUM(FrustumPlane, KOVEX_ENUM_TABLE_FrustumPlane)

#define KOVEX_ENUM_TABLE_GPUVendor(M, D) \
    M(Unknown, 0) \
    M(Intel, 1) \
    M(AMD, 2) \
    M(Nvidia, 3) \
    M(PowerVR, 4) \
    M(Qualcomm, 5) \
    M(ARM, 6)
KOVEX_DECLARE_ENUM(GPUVendor, KOVEX_ENUM_TABLE_GPUVendor)

#define KOVEX_ENUM_TABLE_GraphicsAddress(M, D) \
    M(Wrap, 1) \
    M(Mirror, 2) \
    M(Clamp, 3) \
    M(Border, 4) \
    M(MirrorOnce, 5)
KOVEX_DECLARE_ENUM(GraphicsAddress, KOVEX_ENUM_TABLE_GraphicsAddress)

#define KOVEX_ENUM_TABLE_GraphicsBlend(M, D) \
    M(Zero, 1) \
    M(One, 2) \
    M(SrcColor, 3) \
    M(InvSrcColor, 4) \
    M(SrcAlpha, 5) \
    M(InvSrcAlpha, 6) \
    M(DestAlpha, 7) \
    M(InvDestAlpha, 8) \
    M(DestColor, 9) \
    M(InvDestColor, 10) \
    M(SrcAlphaSat, 11) \
    M(BlendFactor, 14) \
    M(InvBlendFactor, 15)
KOVEX_DECLARE_ENUM(GraphicsBlend, KOVEX_ENUM_TABLE_GraphicsBlend)

#define KOVEX_ENUM_TABLE_GraphicsBlendOp(M, D) \
    M(Add, 1) \
    M(Subtract, 2) \
    M(RevSubtract, 3) \
    M(Min, 4) \
    M(Max, 5)
KOVEX_DECLARE_ENUM(GraphicsBlendOp, KOVEX_ENUM_TABLE_GraphicsBlendOp)

#define KOVEX_ENUM_TABLE_GraphicsClearMode(M, D) \
    M(None, 0) \
    M(Target, 1) \
    M(Depth, 2) \
    M(Stencil, 4) \
    M(TargetDepth, 3) \
    M(DepthStencil, 6) \
    M(TargetStencil, 5) \
    M(TargetDepthStencil, 7)
KOVEX_DECLARE_ENUM(GraphicsClearMode, KOVEX_ENUM_TABLE_GraphicsClearMode)

#define KOVEX_ENUM_TABLE_GraphicsComparison(M, D) \
    M(Never, 1) \
    M(Less, 2) \
    M(Equal, 3) \
    M(LessEqual, 4) \
    M(Greater, 5) \
    M(NotEqual, 6) \
    M(GreaterEqual, 7) \
    M(Always, 8)
KOVEX_DECLARE_ENUM(GraphicsComparison, KOVEX_ENUM_TABLE_GraphicsComparison)

#define KOVEX_ENUM_TABLE_GraphicsCullMode(M, D) \
    M(None, 1) \
    M(Front, 2) \
    M(Back, 3)
KOVEX_DECLARE_ENUM(GraphicsCullMode, KOVEX_ENUM_TABLE_GraphicsCullMode)

#define KOVEX_ENUM_TABLE_GraphicsFillMode(M, D) \
    M(Wireframe, 2) \
    M(Solid, 3)
KOVEX_DECLARE_ENUM(GraphicsFillMode, KOVEX_ENUM_TABLE_GraphicsFillMode)

#define KOVEX_ENUM_TABLE_GraphicsFilter(M, D) \
    M(MinMagMipPoint, 0) \
    M(MinMagPointMipLinear, 1) \
    M(MinPointMagLinearMipPoint, 4) \
    M(MinPointMagMipLinear, 5) \
    M(MinLinearMagMipPoint, 16) \
    M(MinLinearMagPointMipLinear, 17) \
    M(MinMagLinearMipPoint, 20) \
    M(MinMagMipLinear, 21) \
    M(Anisotropic, 85)
KOVEX_DECLARE_ENUM(GraphicsFilter, KOVEX_ENUM_TABLE_GraphicsFilter)

#define KOVEX_ENUM_TABLE_GraphicsFormatLayout(M, D) \
    M(DEFAULT, 0) \
    M(UNSUPPORTED, 1) \
    M(A, 2) \
    M(R, 3) \
    M(RG, 4) \
    M(RGB, 5) \
    M(BGR, 6) \
    M(RGBA, 7) \
    M(BGRA, 8) \
    M(RGBX, 9) \
    M(BGRX, 10)
KOVEX_DECLARE_ENUM(GraphicsFormatLayout, KOVEX_ENUM_TABLE_GraphicsFormatLayout)

#define KOVEX_ENUM_TABLE_GraphicsFormatType(M, D) \
    M(Unknown, 0) \
    M(Float, 1) \
    M(Int, 2) \
    M(Norm, 3) \
    M(Typeless, 4)
KOVEX_DECLARE_ENUM(GraphicsFormatType, KOVEX_ENUM_TABLE_GraphicsFormatType)

#define KOVEX_ENUM_TABLE_GraphicsInputClass(M, D) \
    M(PerVertex, 0) \
    M(PerInstance, 1)
KOVEX_DECLARE_ENUM(GraphicsInputClass, KOVEX_ENUM_TABLE_GraphicsInputClass)

#define KOVEX_ENUM_TABLE_GraphicsLayoutFormat(M, D) \
    M(Float1, 0) \
    M(Float2, 1) \
    M(Float3, 2) \
    M(Float4, 3) \
    M(Half2, 4) \
    M(Half4, 5) \
    M(UByte4, 6) \
    M(Short2, 7) \
    M(Short4, 8) \
    M(UByte4N, 9) \
    M(Short2N, 10) \
    M(Short4N, 11) \
    M(UShort2N, 12) \
    M(UShort4N, 13)
KOVEX_DECLARE_ENUM_EX(GraphicsLayoutFormat, KOVEX_ENUM_TABLE_GraphicsLayoutFormat,
    /* Components of a vertex format; 0 for a value that is no member. */
    static unsigned GetNumComponents(int format);)

#define KOVEX_ENUM_TABLE_GraphicsResourceCpuAccess(M, D) \
    M(Write, 65536) \
    M(Read, 131072)
KOVEX_DECLARE_ENUM(GraphicsResourceCpuAccess, KOVEX_ENUM_TABLE_GraphicsResourceCpuAccess)

#define KOVEX_ENUM_TABLE_GraphicsResourceUsage(M, D) \
    M(Default, 0) \
    M(Immutable, 1) \
    M(Dynamic, 2) \
    M(Staging, 3)
KOVEX_DECLARE_ENUM(GraphicsResourceUsage, KOVEX_ENUM_TABLE_GraphicsResourceUsage)

#define KOVEX_ENUM_TABLE_GraphicsSemantic(M, D) \
    M(Position, 0) \
    M(Normal, 1) \
    M(Tangent, 2) \
    M(Binormal, 3) \
    M(BlendWeight, 4) \
    M(BlendIndices, 5) \
    M(Color, 6) \
    M(TexCoord, 7)
KOVEX_DECLARE_ENUM(GraphicsSemantic, KOVEX_ENUM_TABLE_GraphicsSemantic)

#define KOVEX_ENUM_TABLE_GraphicsStencilOp(M, D) \
    M(Keep, 1) \
    M(Zero, 2) \
    M(Replace, 3) \
    M(IncrSat, 4) \
    M(DecrSat, 5) \
    M(Invert, 6) \
    M(Incr, 7) \
    M(Decr, 8)
KOVEX_DECLARE_ENUM(GraphicsStencilOp, KOVEX_ENUM_TABLE_GraphicsStencilOp)

#define KOVEX_ENUM_TABLE_GraphicsTopology(M, D) \
    M(PointList, 0) \
    M(LineList, 1) \
    M(LineStrip, 2) \
    M(TriangleList, 3) \
    M(TriangleStrip, 4) \
    M(COUNT, 5)
KOVEX_DECLARE_ENUM(GraphicsTopology, KOVEX_ENUM_TABLE_GraphicsTopology)

#define KOVEX_ENUM_TABLE_GraphicsView(M, D) \
    M(ShaderResource, 1) \
    M(RenderTarget, 2) \
    M(DepthStencil, 4) \
    M(UnorderedAccess, 8)
KOVEX_DECLARE_ENUM(GraphicsView, KOVEX_ENUM_TABLE_GraphicsView)

#define KOVEX_ENUM_TABLE_GraphicsWriteMask(M, D) \
    M(Red, 1) \
    M(Green, 2) \
    M(Blue, 4) \
    M(Alpha, 8) \
    M(All, 15) \
    M(None, 0)
KOVEX_DECLARE_ENUM(GraphicsWriteMask, KOVEX_ENUM_TABLE_GraphicsWriteMask)

#define KOVEX_ENUM_TABLE_HeightComparison(M, D) \
    M(Lower, 0) \
    M(Higher, 1)
KOVEX_DECLARE_ENUM(HeightComparison, KOVEX_ENUM_TABLE_HeightComparison)

#define KOVEX_ENUM_TABLE_IntersectionType(M, D) \
    M(Outside, 0) \
    M(Inside, 1) \
    M(Intersect, 2)
KOVEX_DECLARE_ENUM(IntersectionType, KOVEX_ENUM_TABLE_IntersectionType)

#define KOVEX_ENUM_TABLE_KeyCode(M, D) \
    M(LButton, 0) \
    M(RButton, 1) \
    M(MButton, 2) \
    M(XButton1, 3) \
    M(XButton2, 4) \
    M(BackSpace, 5) \
    M(Tab, 6) \
    M(Return, 7) \
    M(Pause, 8) \
    M(CapsLock, 9) \
    M(Espace, 10) \
    M(SpaceBar, 11) \
    M(PageUp, 12) \
    M(PageDown, 13) \
    M(Home, 14) \
    M(End, 15) \
    M(Insert, 16) \
    M(Delete, 17) \
    M(Left, 18) \
    M(Right, 19) \
    M(Up, 20) \
    M(Down, 21) \
    M(A, 22) \
    M(B, 23) \
    M(C, 24) \
    M(D, 25) \
    M(E, 26) \
    M(F, 27) \
    M(G, 28) \
    M(H, 29) \
    M(I, 30) \
    M(J, 31) \
    M(K, 32) \
    M(L, 33) \
    M(M, 34) \
    M(N, 35) \
    M(O, 36) \
    M(P, 37) \
    M(Q, 38) \
    M(R, 39) \
    M(S, 40) \
    M(T, 41) \
    M(U, 42) \
    M(V, 43) \
    M(W, 44) \
    M(X, 45) \
    M(Y, 46) \
    M(Z, 47) \
    M(Num0, 48) \
    M(Num1, 49) \
    M(Num2, 50) \
    M(Num3, 51) \
    M(Num4, 52) \
    M(Num5, 53) \
    M(Num6, 54) \
    M(Num7, 55) \
    M(Num8, 56) \
    M(Num9, 57) \
    M(Numpad0, 58) \
    M(Numpad1, 59) \
    M(Numpad2, 60) \
    M(Numpad3, 61) \
    M(Numpad4, 62) \
    M(Numpad5, 63) \
    M(Numpad6, 64) \
    M(Numpad7, 65) \
    M(Numpad8, 66) \
    M(Numpad9, 67) \
    M(Multiply, 68) \
    M(Add, 69) \
    M(Substract, 70) \
    M(Decimal, 71) \
    M(Divide, 72) \
    M(F1, 73) \
    M(F2, 74) \
    M(F3, 75) \
    M(F4, 76) \
    M(F5, 77) \
    M(F6, 78) \
    M(F7, 79) \
    M(F8, 80) \
    M(F9, 81) \
    M(F10, 82) \
    M(F11, 83) \
    M(F12, 84) \
    M(Numlock, 85) \
    M(ScrollLock, 86) \
    M(LeftShift, 87) \
    M(RightShift, 88) \
    M(LeftControl, 89) \
    M(RightControl, 90) \
    M(LeftAlt, 91) \
    M(RightAlt, 92) \
    M(Semicolon, 93) \
    M(Equal, 94) \
    M(Comma, 95) \
    M(Underscore, 96) \
    M(period, 97) \
    M(Slash, 98) \
    M(BackSlash, 99) \
    M(Tilde, 100) \
    M(LeftBracket, 101) \
    M(RightBracket, 102) \
    M(Quote, 103)
KOVEX_DECLARE_ENUM(KeyCode, KOVEX_ENUM_TABLE_KeyCode)

#define KOVEX_ENUM_TABLE_KeyInterpolationType(M, D) \
    M(Linear, 0) \
    M(Bezier, 1) \
    M(TCB, 2) \
    M(Step, 3)
KOVEX_DECLARE_ENUM(KeyInterpolationType, KOVEX_ENUM_TABLE_KeyInterpolationType)

#define KOVEX_ENUM_TABLE_LightType(M, D) \
    M(Omni, 0) \
    M(Spot, 1) \
    M(Directional, 2) \
    M(Sky, 3)
KOVEX_DECLARE_ENUM(LightType, KOVEX_ENUM_TABLE_LightType)

#define KOVEX_ENUM_TABLE_MapType(M, D) \
    M(Read, 1) \
    M(Write, 2) \
    M(ReadWrite, 3) \
    M(WriteDiscard, 4) \
    M(WriteNoOverwrite, 5)
KOVEX_DECLARE_ENUM(MapType, KOVEX_ENUM_TABLE_MapType)

#define KOVEX_ENUM_TABLE_MaterialChannelType(M, D) \
    M(Ambient, 0) \
    M(Diffuse, 1) \
    M(Normal, 2) \
    M(SpecularColor, 3) \
    M(SpecularPower, 4) \
    M(Opacity, 5) \
    M(Distortion, 6) \
    M(VertexOffset, 7) \
    M(TessellationFactors, 8) \
    M(TessellationOffset, 9)
KOVEX_DECLARE_ENUM(MaterialChannelType, KOVEX_ENUM_TABLE_MaterialChannelType)

#define KOVEX_ENUM_TABLE_MeshLodMode(M, D) \
    M(Auto, 0) \
    M(Lock, 1) \
    M(All, 2)
KOVEX_DECLARE_ENUM(MeshLodMode, KOVEX_ENUM_TABLE_MeshLodMode)

#define KOVEX_ENUM_TABLE_MultiSampleType(M, D) \
    M(None, 0) \
    M(_2X, 1) \
    M(_4X, 2) \
    M(_8X, 3)
KOVEX_DECLARE_ENUM(MultiSampleType, KOVEX_ENUM_TABLE_MultiSampleType)

#define KOVEX_ENUM_TABLE_PackSwizzling(M, D) \
    M(X, 0) \
    M(Y, 1) \
    M(Z, 2) \
    M(W, 3)
KOVEX_DECLARE_ENUM(PackSwizzling, KOVEX_ENUM_TABLE_PackSwizzling)

#define KOVEX_ENUM_TABLE_ParticleAlign(M, D) \
    M(None, 0) \
    M(Billboard, 1) \
    M(Velocity, 2)
KOVEX_DECLARE_ENUM(ParticleAlign, KOVEX_ENUM_TABLE_ParticleAlign)

#define KOVEX_ENUM_TABLE_ParticleInheritPRS(M, D) \
    M(None, 0) \
    M(Init, 1) \
    M(Always, 2)
KOVEX_DECLARE_ENUM(ParticleInheritPRS, KOVEX_ENUM_TABLE_ParticleInheritPRS)

#define KOVEX_ENUM_TABLE_ParticleUpdateMode(M, D) \
    M(RealTime, 0) \
    M(Fixed, 1)
KOVEX_DECLARE_ENUM(ParticleUpdateMode, KOVEX_ENUM_TABLE_ParticleUpdateMode)

#define KOVEX_ENUM_TABLE_PhysicsConstraintType(M, D) \
    M(Point, 0) \
    M(Hinge, 1) \
    M(ConeTwist, 2) \
    M(Dof6, 3)
KOVEX_DECLARE_ENUM(PhysicsConstraintType, KOVEX_ENUM_TABLE_PhysicsConstraintType)

#define KOVEX_ENUM_TABLE_PhysicsObjectType(M, D) \
    M(RigidBody, 0) \
    M(SoftBody, 1) \
    M(Constraint, 2) \
    M(RagDoll, 3) \
    M(Character, 4)
KOVEX_DECLARE_ENUM(PhysicsObjectType, KOVEX_ENUM_TABLE_PhysicsObjectType)

#define KOVEX_ENUM_TABLE_PhysicsShapeType(M, D) \
    M(Box, 0) \
    M(Sphere, 1) \
    M(Cone, 2) \
    M(Cylinder, 3) \
    M(Capsule, 4) \
    M(ConvexHull, 5) \
    M(HeightField, 6) \
    M(TriangleMesh, 7) \
    M(Compound, 8)
KOVEX_DECLARE_ENUM(PhysicsShapeType, KOVEX_ENUM_TABLE_PhysicsShapeType)

#define KOVEX_ENUM_TABLE_ProjectionMode(M, D) \
    M(Perspective, 0) \
    M(Orthographic, 1)
KOVEX_DECLARE_ENUM(ProjectionMode, KOVEX_ENUM_TABLE_ProjectionMode)

#define KOVEX_ENUM_TABLE_RenderContextDeferredLightStrategy(M, D) \
    M(Default, 0) \
    M(TileBased, 1) \
    M(ForwardPlus, 2)
KOVEX_DECLARE_ENUM(RenderContextDeferredLightStrategy, KOVEX_ENUM_TABLE_RenderContextDeferredLightStrategy)

#define KOVEX_ENUM_TABLE_RenderContextLightingMode(M, D) \
    M(SinglePass, 0) \
    M(MultiPass, 1) \
    M(LightPrepass, 2) \
    M(Deferred, 3)
KOVEX_DECLARE_ENUM(RenderContextLightingMode, KOVEX_ENUM_TABLE_RenderContextLightingMode)

#define KOVEX_ENUM_TABLE_RenderContextShadingMode(M, D) \
    M(Default, 0) \
    M(Wireframe, 1) \
    M(Lighting, 2) \
    M(Diffuse, 3) \
    M(Ambient, 4) \
    M(Specular, 5) \
    D(DiffuseAndAmbient, 6, "Diffuse+Ambient") \
    M(Depth, 7) \
    M(Normal, 8)
KOVEX_DECLARE_ENUM(RenderContextShadingMode, KOVEX_ENUM_TABLE_RenderContextShadingMode)

#define KOVEX_ENUM_TABLE_RendererPlatform(M, D) \
    M(D3D9, 0) \
    M(D3D11, 1) \
    M(OpenGL, 2) \
    M(OpenGLES, 3) \
    M(Vulkan, 4)
KOVEX_DECLARE_ENUM(RendererPlatform, KOVEX_ENUM_TABLE_RendererPlatform)

#define KOVEX_ENUM_TABLE_SVTextureType(M, D) \
    M(Scene, 0) \
    M(Depth, 1) \
    M(Reflection, 2) \
    M(Refraction, 3)
KOVEX_DECLARE_ENUM(SVTextureType, KOVEX_ENUM_TABLE_SVTextureType)

#define KOVEX_ENUM_TABLE_ShaderType(M, D) \
    M(Vertex, 0) \
    M(Pixel, 1) \
    M(Geometry, 2) \
    M(Hull, 3) \
    M(Domain, 4) \
    M(Compute, 5)
KOVEX_DECLARE_ENUM(ShaderType, KOVEX_ENUM_TABLE_ShaderType)

#define KOVEX_ENUM_TABLE_ShadowFilterQuality(M, D) \
    M(Low, 0) \
    M(Medium, 1) \
    M(High, 2)
KOVEX_DECLARE_ENUM(ShadowFilterQuality, KOVEX_ENUM_TABLE_ShadowFilterQuality)

#define KOVEX_ENUM_TABLE_SkinModifierUpdateMode(M, D) \
    M(Normal, 0) \
    M(Coarse, 1)
KOVEX_DECLARE_ENUM(SkinModifierUpdateMode, KOVEX_ENUM_TABLE_SkinModifierUpdateMode)

#define KOVEX_ENUM_TABLE_SpriteTiledMode(M, D) \
    M(None, 0) \
    M(Tiled, 1) \
    M(TiledBlend, 2)
KOVEX_DECLARE_ENUM(SpriteTiledMode, KOVEX_ENUM_TABLE_SpriteTiledMode)

#define KOVEX_ENUM_TABLE_StreamSource(M, D) \
    M(File, 0) \
    M(Package, 1) \
    M(Package_File, 2) \
    M(File_Package, 3)
KOVEX_DECLARE_ENUM(StreamSource, KOVEX_ENUM_TABLE_StreamSource)

#define KOVEX_ENUM_TABLE_TessellationScheme(M, D) \
    M(Flatten, 0) \
    M(PNTriangles, 1) \
    M(Phong, 2)
KOVEX_DECLARE_ENUM(TessellationScheme, KOVEX_ENUM_TABLE_TessellationScheme)

#define KOVEX_ENUM_TABLE_TextureDimension(M, D) \
    M(_1D, 2) \
    M(_2D, 3) \
    M(_3D, 4) \
    M(Cube, 5)
KOVEX_DECLARE_ENUM(TextureDimension, KOVEX_ENUM_TABLE_TextureDimension)

#define KOVEX_ENUM_TABLE_TextureFilter(M, D) \
    M(Point, 0) \
    M(Bilinear, 1) \
    M(Trilinear, 2) \
    M(Anisotropic, 3)
KOVEX_DECLARE_ENUM(TextureFilter, KOVEX_ENUM_TABLE_TextureFilter)

#define KOVEX_ENUM_TABLE_TimeMode(M, D) \
    M(Delta, 0) \
    M(Elapsed, 1) \
    M(Fractional, 2)
KOVEX_DECLARE_ENUM(TimeMode, KOVEX_ENUM_TABLE_TimeMode)

#define KOVEX_ENUM_TABLE_TranslucentDepthMode(M, D) \
    M(NoTest, 0) \
    M(TestOnly, 1) \
    M(WriteAndTest, 2) \
    M(TwoPassTest, 3)
KOVEX_DECLARE_ENUM(TranslucentDepthMode, KOVEX_ENUM_TABLE_TranslucentDepthMode)

#define KOVEX_ENUM_TABLE_TwoSideMode(M, D) \
    M(None, 0) \
    M(TwoSide, 1) \
    M(TwoSideSeparatedPass, 2)
KOVEX_DECLARE_ENUM(TwoSideMode, KOVEX_ENUM_TABLE_TwoSideMode)

} // namespace KovexEngine
