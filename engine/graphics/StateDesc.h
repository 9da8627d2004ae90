#pragma once

// The fixed-function state descriptors and their keys. A key is a handful of
// 32-bit words built with unsigned arithmetic; the key text a factory maps
// states by is printed from those same words, in the "C" locale whatever the
// process locale. The words let a cache hit skip the text entirely.
//
// Plain values: safe on any thread that owns them.

#include "kernel/ReflectedStruct.h"
#include "kernel/Strings.h"
#include "math/Vector.h"
#include "reflection/EngineEnums.h"

namespace KovexEngine {

// The words of a state key: equal words, equal key text.
struct KOVEX_API StateKey
{
    static constexpr unsigned kMaxWords = 9;
    uint32 words[kMaxWords] = {};
    uint32 count = 0;

    bool operator==(const StateKey& other) const;
    size_t HashValue() const;
};

struct KOVEX_API RenderTargetBlendDesc
{
    KOVEX_STRUCT(RenderTargetBlendDesc)
    bool BlendEnable = false;
    GraphicsBlend SrcBlend = GraphicsBlend::Zero;
    GraphicsBlend DestBlend = GraphicsBlend::One;
    GraphicsBlendOp BlendOp = GraphicsBlendOp::Add;
    GraphicsBlend SrcBlendAlpha = GraphicsBlend::One;
    GraphicsBlend DestBlendAlpha = GraphicsBlend::Zero;
    GraphicsBlendOp BlendOpAlpha = GraphicsBlendOp::Add;
    GraphicsWriteMask RenderTargetWriteMask = GraphicsWriteMask::All;

    // Eight nibbles from the lowest: BlendEnable, BlendOp, BlendOpAlpha,
    // RenderTargetWriteMask, SrcBlend, DestBlend, SrcBlendAlpha, DestBlendAlpha.
    uint32 Compress() const;
    void Decompress(uint32 word);
    bool operator==(const RenderTargetBlendDesc& o) const { return Compress() == o.Compress(); }
};

struct KOVEX_API BlendStateDesc
{
    KOVEX_STRUCT(BlendStateDesc)
    bool AlphaToCoverageEnable = false;
    bool IndependentBlendEnable = false;
    RenderTargetBlendDesc RenderTarget0, RenderTarget1, RenderTarget2, RenderTarget3;
    RenderTargetBlendDesc RenderTarget4, RenderTarget5, RenderTarget6, RenderTarget7;

    // Target 0..7 (named fields, so that each is a reflected property).
    RenderTargetBlendDesc& Target(unsigned index);
    const RenderTargetBlendDesc& Target(unsigned index) const;

    // "%d-%d-%d-%d-%d-%d-%d-%d-%d": the enable flags, then each target's
    // compressed word as signed decimal.
    void MakeKey(StateKey& key) const;
    void Hash(AString& out) const;
};

struct KOVEX_API StencilOpDesc
{
    KOVEX_STRUCT(StencilOpDesc)
    GraphicsStencilOp StencilFailOp = GraphicsStencilOp::Keep;
    GraphicsStencilOp StencilDepthFailOp = GraphicsStencilOp::Keep;
    GraphicsStencilOp StencilPassOp = GraphicsStencilOp::Keep;
    GraphicsComparison StencilFunc = GraphicsComparison::Always;

    // Four nibbles from the lowest: fail, depth-fail, pass, func.
    uint32 Compress() const;
};

struct KOVEX_API DepthStencilStateDesc
{
    KOVEX_STRUCT(DepthStencilStateDesc)
    bool DepthEnable = true;
    bool DepthWriteEnable = true;
    GraphicsComparison DepthFunc = GraphicsComparison::LessEqual;
    bool StencilEnable = false;
    uint32 StencilReadMask = 0xFF; // 8 bits; the key keeps the low byte
    uint32 StencilWriteMask = 0xFF;
    StencilOpDesc FrontFace;
    StencilOpDesc BackFace;

    // "%u-%u": the depth word (write mask in the top byte, so it fills 32
    // bits exactly and is printed unsigned), then back face high nibbles,
    // front face low.
    void MakeKey(StateKey& key) const;
    void Hash(AString& out) const;
};

struct KOVEX_API RasterizerStateDesc
{
    KOVEX_STRUCT(RasterizerStateDesc)
    GraphicsFillMode FillMode = GraphicsFillMode::Solid;
    GraphicsCullMode CullMode = GraphicsCullMode::Back;
    bool FrontCounterClockwise = false;
    int32 DepthBias = 0;
    float DepthBiasClamp = 0.0f;
    float SlopeScaledDepthBias = 0.0f;
    bool DepthClipEnable = true;
    bool ScissorEnable = false;
    bool MultisampleEnable = false;
    bool AntialiasedLineEnable = false;

    // "%d-%d-%f-%f": the flags two bits a field from FillMode up, the bias,
    // then the clamp and the slope.
    void MakeKey(StateKey& key) const;
    void Hash(AString& out) const;
};

struct KOVEX_API SamplerStateDesc
{
    KOVEX_STRUCT(SamplerStateDesc)
    GraphicsFilter Filter = GraphicsFilter::MinMagMipPoint;
    GraphicsAddress AddressU = GraphicsAddress::Wrap;
    GraphicsAddress AddressV = GraphicsAddress::Wrap;
    GraphicsAddress AddressW = GraphicsAddress::Wrap;
    float MipLODBias = 0.0f;
    uint32 MaxAnisotropy = 16;
    GraphicsComparison ComparisonFunc = GraphicsComparison::Never;
    Vector4 BorderColor{0.0f, 0.0f, 0.0f, 0.0f};
    float MinLOD = 0.0f;
    float MaxLOD = 3.402823466e+38f;

    // "%d-%g-%g-%g-%d-%d": filter, comparison and addressing in nibbles,
    // MinLOD, MaxLOD, MipLODBias, the border as BGRA (8 bits a channel, so
    // borders closer than that share one key), MaxAnisotropy.
    void MakeKey(StateKey& key) const;
    void Hash(AString& out) const;
};

struct KOVEX_API Viewport
{
    KOVEX_STRUCT(Viewport)
    uint32 TopLeftX = 0;
    uint32 TopLeftY = 0;
    uint32 Width = 0;
    uint32 Height = 0;
    float MinDepth = 0.0f;
    float MaxDepth = 1.0f;
};

// A name and a definition as handed to a shader compiler.
struct ShaderMacro
{
    const char* Name = nullptr;
    const char* Definition = nullptr;
};

} // namespace KovexEngine
