#pragma once

// The statics of PGResources as one list, in the engine's order (materials,
// attributes, frameworks; FW_Wireframe, loaded on demand, last), for code
// that walks every built-in code by its name: the shader tool's listing and
// compiling by name, the compile-set benchmark.
//
//   #define ENTRY(name) use(#name, PGResources::name);
//   KOVEX_PG_RESOURCES_CODES(ENTRY)

#define KOVEX_PG_RESOURCES_CODES(X)                                                                                    \
    X(MT_Triangle) X(MT_Font) X(MT_LightVolume)                                                                        \
    X(AB_Base) X(AB_Skinned) X(AB_Tri2D) X(AB_Tri3d) X(AB_Tri3dBillboard) X(AB_Line2d) X(AB_Line3d) X(AB_Quad)        \
    X(AB_Font) X(AB_LightVolume) X(AB_ParticleSprite) X(AB_Decal) X(AB_Terrain)                                      \
    X(FW_DrawNull) X(FW_DrawClear) X(FW_DrawScreen) X(FW_DrawScreenModulate) X(FW_NoLighting) X(FW_RenderDepth)      \
    X(FW_RenderAmbient) X(FW_RenderGBuffer) X(FW_RenderDeferredLighting) X(FW_ObjectPass) X(FW_MotionBlur)           \
    X(FW_GenDistortion) X(FW_DrawDistortion) X(FW_Decal) X(FW_DownSample) X(FW_Blur) X(FW_OmniLightShadowDepth)       \
    X(FW_OmniLightDeferred) X(FW_OmniLightMultiPass) X(FW_SpotLightShadowDepth) X(FW_SpotLightDeferred)               \
    X(FW_SpotLightMultiPass) X(FW_DirectionalLightShadowDepth) X(FW_DirectionalLightDeferred)                         \
    X(FW_DirectionalLightMultiPass) X(FW_SkyLightDeferred) X(FW_SkyLightMultiPass) X(FW_VolumetricLighting)           \
    X(FW_PixelPicking) X(FW_Wireframe)
