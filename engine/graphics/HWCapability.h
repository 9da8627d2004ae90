#pragma once

// What the device can do, and the macro set every shader is compiled with.
// Written while the device comes up (UpdateMacros, vendor macros), read
// freely afterwards; not to be written while other threads read it.

#include "graphics/GraphicsFormat.h"
#include "kernel/Containers.h"
#include "kernel/RefCount.h"
#include "kernel/Strings.h"

namespace KovexEngine {

struct ShaderMacro;

// X(macro, field): UpdateMacros sets the macro to "1" when the field is true
// and removes it when false. "SUPPORT_INSTANCE_RNEDERING" is spelt as the
// shader templates test it.
#define KOVEX_HW_CAPABILITY_MACROS(X)                                   \
    X("SUPPORT_HWPCF", SupportHWPCF)                                    \
    X("SUPPORT_TEXARRAY_HWPCF", SupportTexArrayHWPCF)                   \
    X("SUPPORT_GEOMETRY_SHADER", SupportGeometryShader)                 \
    X("SUPPORT_TEXARRAY_1D", SupportTexture1DArray)                     \
    X("SUPPORT_TEXARRAY_2D", SupportTexture2DArray)                     \
    X("SUPPORT_TEXARRAY_CUBE", SupportTextureCubeArray)                 \
    X("SUPPORT_RENDERTARGET_3D", SupportRenderTarget3D)                 \
    X("SUPPORT_TYPELESS_TEX", SupportTypelessTex)                       \
    X("SUPPORT_DEPTH_TEXTURE_2D", SupportDepthTexture2D)                \
    X("SUPPORT_DEPTH_TEXTURE_CUBE", SupportDepthTextureCube)            \
    X("SUPPORT_DEPTH_TEXTURE_2DARRAY", SupportDepthTexture2DArray)      \
    X("SUPPORT_TESSELLATION", SupportTessellation)                      \
    X("SUPPORT_INSTANCE_RNEDERING", SupportInstanceRendering)           \
    X("SUPPORT_MSAA_TEXTURE", SupportMultiSampleTexture)

class KOVEX_API HWCapability : public ReferenceObj
{
public:
    // Defines one macro per shader profile member, valued in decimal.
    HWCapability();

    D3DShaderProfile Profile = D3DShaderProfile::SM_Unknown;
    bool SupportHWPCF = false;
    bool SupportTexArrayHWPCF = false;
    bool SupportGeometryShader = false;
    bool SupportTexture1DArray = false;
    bool SupportTexture2DArray = false;
    bool SupportTextureCubeArray = false;
    bool SupportDepthTexture2D = false;
    bool SupportDepthTextureCube = false;
    bool SupportDepthTexture2DArray = false;
    bool SupportRenderTarget3D = false;
    bool SupportTypelessTex = false;
    bool SupportTessellation = false;
    bool SupportInstanceRendering = false;
    bool SupportMultiSampleTexture = false;
    bool SupportIndependentBitDepths = false;
    bool SupportIndependentWriteMasks = false;
    bool SupportCopyRegionOfRT = false;
    bool SupportComputeShader = false;
    bool SupportLayoutFormatHalfFloat = false;
    bool SupportNamedConstantBuffer = false;
    bool SupportAsyncShaderCompilation = false;
    bool RestrictCopyRTtoStagingTex = false;
    uint32 NumSimultaneousRTs = 1;
    uint32 MaxAnisotropy = 1;
    GraphicsFormat ShadowRenderTargetFormat = GraphicsFormat::R32_FLOAT;
    GraphicsFormat ShadowDepthStencilFormat = GraphicsFormat::D32_FLOAT;

    void UpdateMacros();
    void UpdateMacro(bool enabled, const AString& name, const AString& value);
    void MakeMacro(const AString& name, const AString& value);
    void UnmakeMacro(const AString& name);
    // "[name=value];" per macro ("[name];" for an empty value), in map order.
    void GetMacroString(AString& out) const;
    // "\n", then "#define name\tvalue\n" per macro, then "\n"; empty when none.
    void GetMacros(AString& out) const;
    // Fills up to *count pairs (pointers into this object, valid until the
    // next change); *count becomes the number of macros written.
    void GetMacros(ShaderMacro* out, unsigned* count) const;
    const TMap<AString, AString>& GetMacroMap() const { return m_macros; }

    // Lower-cases an adapter description and finds the vendor: "radeon" is
    // AMD (macro "AMD"), "geforce" or "quadro" Nvidia (macro "NVIDIA"),
    // "adreno" or "qualcomm" Qualcomm (no macro), else Unknown. The vendor
    // macros of an earlier detection are removed first.
    GPUVendor DetectVendor(const char* description);

private:
    TMap<AString, AString> m_macros;
};

} // namespace KovexEngine
