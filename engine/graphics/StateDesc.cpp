#include "graphics/StateDesc.h"

#include <cstring>

#include "reflection/Struct.h"

namespace KovexEngine {

bool StateKey::operator==(const StateKey& other) const
{
    return count == other.count && std::memcmp(words, other.words, count * sizeof(uint32)) == 0;
}

size_t StateKey::HashValue() const
{
    uint64 h = 1469598103934665603ull;
    for (unsigned i = 0; i < count; ++i)
        h = (h ^ words[i]) * 1099511628211ull;
    return size_t(h ^ (h >> 29));
}

namespace {

uint32 FloatBits(float f)
{
    uint32 bits;
    std::memcpy(&bits, &f, sizeof bits);
    return bits;
}

float BitsFloat(uint32 bits)
{
    float f;
    std::memcpy(&f, &bits, sizeof f);
    return f;
}

uint32 Nibble(int value) { return uint32(value) & 0xFu; }

} // namespace

// --- Blend -----------------------------------------------------------------

uint32 RenderTargetBlendDesc::Compress() const
{
    return (BlendEnable ? 1u : 0u) | Nibble(BlendOp) << 4 | Nibble(BlendOpAlpha) << 8 |
           Nibble(RenderTargetWriteMask) << 12 | Nibble(SrcBlend) << 16 | Nibble(DestBlend) << 20 |
           Nibble(SrcBlendAlpha) << 24 | Nibble(DestBlendAlpha) << 28;
}

void RenderTargetBlendDesc::Decompress(uint32 word)
{
    BlendEnable = (word & 0xF) != 0;
    BlendOp = int(word >> 4 & 0xF);
    BlendOpAlpha = int(word >> 8 & 0xF);
    RenderTargetWriteMask = int(word >> 12 & 0xF);
    SrcBlend = int(word >> 16 & 0xF);
    DestBlend = int(word >> 20 & 0xF);
    SrcBlendAlpha = int(word >> 24 & 0xF);
    DestBlendAlpha = int(word >> 28 & 0xF);
}

namespace {
constexpr RenderTargetBlendDesc BlendStateDesc::*kTargets[8] = {
    &BlendStateDesc::RenderTarget0, &BlendStateDesc::RenderTarget1, &BlendStateDesc::RenderTarget2,
    &BlendStateDesc::RenderTarget3, &BlendStateDesc::RenderTarget4, &BlendStateDesc::RenderTarget5,
    &BlendStateDesc::RenderTarget6, &BlendStateDesc::RenderTarget7};
}

RenderTargetBlendDesc& BlendStateDesc::Target(unsigned index) { return this->*kTargets[index & 7]; }
const RenderTargetBlendDesc& BlendStateDesc::Target(unsigned index) const { return this->*kTargets[index & 7]; }

void BlendStateDesc::MakeKey(StateKey& key) const
{
    key.count = 9;
    key.words[0] = (IndependentBlendEnable ? 16u : 0u) | (AlphaToCoverageEnable ? 1u : 0u);
    for (unsigned i = 0; i < 8; ++i)
        key.words[1 + i] = Target(i).Compress();
}

void BlendStateDesc::Hash(AString& out) const
{
    StateKey k;
    MakeKey(k);
    // Signed decimal, as the keys have always been written; the conversion
    // of a word above 2^31 is modular, never undefined.
    out.Format("%d-%d-%d-%d-%d-%d-%d-%d-%d", int32(k.words[0]), int32(k.words[1]), int32(k.words[2]),
               int32(k.words[3]), int32(k.words[4]), int32(k.words[5]), int32(k.words[6]), int32(k.words[7]),
               int32(k.words[8]));
}

// --- Depth-stencil ------------------------------------------------------------

uint32 StencilOpDesc::Compress() const
{
    return Nibble(StencilFailOp) | Nibble(StencilDepthFailOp) << 4 | Nibble(StencilPassOp) << 8 |
           Nibble(StencilFunc) << 12;
}

void DepthStencilStateDesc::MakeKey(StateKey& key) const
{
    key.count = 2;
    uint32 word = (StencilWriteMask & 0xFFu) << 8 | (StencilReadMask & 0xFFu);
    word = word << 8 | (StencilEnable ? 1u : 0u);
    word = word << 4 | Nibble(DepthFunc);
    word = word << 2 | (DepthWriteEnable ? 1u : 0u);
    word = word << 2 | (DepthEnable ? 1u : 0u);
    key.words[0] = word;
    key.words[1] = BackFace.Compress() << 16 | FrontFace.Compress();
}

void DepthStencilStateDesc::Hash(AString& out) const
{
    StateKey k;
    MakeKey(k);
    out.Format("%u-%u", k.words[0], k.words[1]);
}

// --- Rasterizer -----------------------------------------------------------------

void RasterizerStateDesc::MakeKey(StateKey& key) const
{
    auto two = [](uint32 v) { return v & 3u; };
    uint32 word = AntialiasedLineEnable ? 1u : 0u;
    word = word << 2 | (MultisampleEnable ? 1u : 0u);
    word = word << 2 | (ScissorEnable ? 1u : 0u);
    word = word << 2 | (DepthClipEnable ? 1u : 0u);
    word = word << 2 | (FrontCounterClockwise ? 1u : 0u);
    word = word << 2 | two(uint32(CullMode.value));
    word = word << 2 | two(uint32(FillMode.value));
    key.count = 4;
    key.words[0] = word;
    key.words[1] = uint32(DepthBias);
    key.words[2] = FloatBits(DepthBiasClamp);
    key.words[3] = FloatBits(SlopeScaledDepthBias);
}

void RasterizerStateDesc::Hash(AString& out) const
{
    StateKey k;
    MakeKey(k);
    out.Format("%d-%d-%f-%f", int32(k.words[0]), int32(k.words[1]), double(BitsFloat(k.words[2])),
               double(BitsFloat(k.words[3])));
}

// --- Sampler ----------------------------------------------------------------------

void SamplerStateDesc::MakeKey(StateKey& key) const
{
    uint32 word = uint32(Filter.value) & 0xFFu;
    word = word << 4 | Nibble(ComparisonFunc);
    word = word << 4 | Nibble(AddressW);
    word = word << 4 | Nibble(AddressV);
    word = word << 4 | Nibble(AddressU);
    key.count = 6;
    key.words[0] = word;
    key.words[1] = FloatBits(MinLOD);
    key.words[2] = FloatBits(MaxLOD);
    key.words[3] = FloatBits(MipLODBias);
    key.words[4] = BorderColor.ToBGRA();
    key.words[5] = MaxAnisotropy;
}

void SamplerStateDesc::Hash(AString& out) const
{
    StateKey k;
    MakeKey(k);
    out.Format("%d-%g-%g-%g-%d-%d", int32(k.words[0]), double(BitsFloat(k.words[1])), double(BitsFloat(k.words[2])),
               double(BitsFloat(k.words[3])), int32(k.words[4]), int32(k.words[5]));
}

// --- Registration -------------------------------------------------------------------

KOVEX_REGISTER_STRUCT(RenderTargetBlendDesc, u"Engine", KOVEX_TYPE_CUSTOM)
void RenderTargetBlendDesc::StaticConstructor(Class* cls)
{
    using D = RenderTargetBlendDesc;
    AddStructField(cls, u"BlendEnable", &D::BlendEnable);
    AddStructField(cls, u"SrcBlend", &D::SrcBlend);
    AddStructField(cls, u"DestBlend", &D::DestBlend);
    AddStructField(cls, u"BlendOp", &D::BlendOp);
    AddStructField(cls, u"SrcBlendAlpha", &D::SrcBlendAlpha);
    AddStructField(cls, u"DestBlendAlpha", &D::DestBlendAlpha);
    AddStructField(cls, u"BlendOpAlpha", &D::BlendOpAlpha);
    AddStructField(cls, u"RenderTargetWriteMask", &D::RenderTargetWriteMask);
    cls->ProcessClass();
}

KOVEX_REGISTER_STRUCT(BlendStateDesc, u"Engine", KOVEX_TYPE_CUSTOM)
void BlendStateDesc::StaticConstructor(Class* cls)
{
    using D = BlendStateDesc;
    AddStructField(cls, u"AlphaToCoverageEnable", &D::AlphaToCoverageEnable);
    AddStructField(cls, u"IndependentBlendEnable", &D::IndependentBlendEnable);
    AddStructField(cls, u"RenderTarget0", &D::RenderTarget0);
    AddStructField(cls, u"RenderTarget1", &D::RenderTarget1);
    AddStructField(cls, u"RenderTarget2", &D::RenderTarget2);
    AddStructField(cls, u"RenderTarget3", &D::RenderTarget3);
    AddStructField(cls, u"RenderTarget4", &D::RenderTarget4);
    AddStructField(cls, u"RenderTarget5", &D::RenderTarget5);
    AddStructField(cls, u"RenderTarget6", &D::RenderTarget6);
    AddStructField(cls, u"RenderTarget7", &D::RenderTarget7);
    cls->ProcessClass();
}

KOVEX_REGISTER_STRUCT(StencilOpDesc, u"Engine", KOVEX_TYPE_CUSTOM)
void StencilOpDesc::StaticConstructor(Class* cls)
{
    using D = StencilOpDesc;
    AddStructField(cls, u"StencilFailOp", &D::StencilFailOp);
    AddStructField(cls, u"StencilDepthFailOp", &D::StencilDepthFailOp);
    AddStructField(cls, u"StencilPassOp", &D::StencilPassOp);
    AddStructField(cls, u"StencilFunc", &D::StencilFunc);
    cls->ProcessClass();
}

KOVEX_REGISTER_STRUCT(DepthStencilStateDesc, u"Engine", KOVEX_TYPE_CUSTOM)
void DepthStencilStateDesc::StaticConstructor(Class* cls)
{
    using D = DepthStencilStateDesc;
    AddStructField(cls, u"DepthEnable", &D::DepthEnable);
    AddStructField(cls, u"DepthWriteEnable", &D::DepthWriteEnable);
    AddStructField(cls, u"DepthFunc", &D::DepthFunc);
    AddStructField(cls, u"StencilEnable", &D::StencilEnable);
    AddStructField(cls, u"StencilReadMask", &D::StencilReadMask);
    AddStructField(cls, u"StencilWriteMask", &D::StencilWriteMask);
    AddStructField(cls, u"FrontFace", &D::FrontFace);
    AddStructField(cls, u"BackFace", &D::BackFace);
    cls->ProcessClass();
}

KOVEX_REGISTER_STRUCT(RasterizerStateDesc, u"Engine", KOVEX_TYPE_CUSTOM)
void RasterizerStateDesc::StaticConstructor(Class* cls)
{
    using D = RasterizerStateDesc;
    AddStructField(cls, u"FillMode", &D::FillMode);
    AddStructField(cls, u"CullMode", &D::CullMode);
    AddStructField(cls, u"FrontCounterClockwise", &D::FrontCounterClockwise);
    AddStructField(cls, u"DepthBias", &D::DepthBias);
    AddStructField(cls, u"DepthBiasClamp", &D::DepthBiasClamp);
    AddStructField(cls, u"SlopeScaledDepthBias", &D::SlopeScaledDepthBias);
    AddStructField(cls, u"DepthClipEnable", &D::DepthClipEnable);
    AddStructField(cls, u"ScissorEnable", &D::ScissorEnable);
    AddStructField(cls, u"MultisampleEnable", &D::MultisampleEnable);
    AddStructField(cls, u"AntialiasedLineEnable", &D::AntialiasedLineEnable);
    cls->ProcessClass();
}

KOVEX_REGISTER_STRUCT(SamplerStateDesc, u"Engine", KOVEX_TYPE_CUSTOM)
void SamplerStateDesc::StaticConstructor(Class* cls)
{
    using D = SamplerStateDesc;
    AddStructField(cls, u"Filter", &D::Filter);
    AddStructField(cls, u"AddressU", &D::AddressU);
    AddStructField(cls, u"AddressV", &D::AddressV);
    AddStructField(cls, u"AddressW", &D::AddressW);
    AddStructField(cls, u"MipLODBias", &D::MipLODBias);
    AddStructField(cls, u"MaxAnisotropy", &D::MaxAnisotropy);
    AddStructField(cls, u"ComparisonFunc", &D::ComparisonFunc);
    AddStructField(cls, u"BorderColor", &D::BorderColor);
    AddStructField(cls, u"MinLOD", &D::MinLOD);
    AddStructField(cls, u"MaxLOD", &D::MaxLOD);
    cls->ProcessClass();
}

KOVEX_REGISTER_STRUCT(Viewport, u"Engine", KOVEX_TYPE_CUSTOM)
void Viewport::StaticConstructor(Class* cls)
{
    AddStructField(cls, u"TopLeftX", &Viewport::TopLeftX);
    AddStructField(cls, u"TopLeftY", &Viewport::TopLeftY);
    AddStructField(cls, u"Width", &Viewport::Width);
    AddStructField(cls, u"Height", &Viewport::Height);
    AddStructField(cls, u"MinDepth", &Viewport::MinDepth);
    AddStructField(cls, u"MaxDepth", &Viewport::MaxDepth);
    cls->ProcessClass();
}

} // namespace KovexEngine
