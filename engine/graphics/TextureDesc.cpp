#include "graphics/TextureDesc.h"

#include "graphics/GraphicsFormat.h"
#include "graphics/HWCapability.h"
#include "kernel/Log.h"

namespace KovexEngine {

namespace {

constexpr uint64 kSaturated = ~uint64(0);

uint64 SaturatingMul(uint64 a, uint64 b)
{
    uint64 r;
    return __builtin_mul_overflow(a, b, &r) ? kSaturated : r;
}

uint64 SaturatingAdd(uint64 a, uint64 b)
{
    uint64 r;
    return __builtin_add_overflow(a, b, &r) ? kSaturated : r;
}

} // namespace

void TextureDesc::GetRowPitch(uint32& rowBytes, uint32& rows, uint32 mip, uint32 format) const
{
    GraphicsFormat::GetFormatInfo(rowBytes, rows, GetMipWidth(mip), GetMipHeight(mip), int(format));
}

uint64 TextureDesc::GetSlicePitch(uint32 mip, uint32 format) const
{
    return GraphicsFormat::GetFormatSize(GetMipWidth(mip), GetMipHeight(mip), int(format));
}

void TextureDesc::GetPitch(uint32& rowPitch, uint64& slicePitch, uint32 mip, uint32 format) const
{
    uint32 rows = 0;
    GetRowPitch(rowPitch, rows, mip, format);
    slicePitch = GetSlicePitch(mip, format);
}

uint64 TextureDesc::GetDataOffset(uint32 arrayIndex, uint32 mip, uint32 slice, uint32 format) const
{
    // A forged mip count cannot make this loop long: past 32 every level is 1x1x1.
    uint32 chainMips = MipLevels < 64 ? MipLevels : 64;
    uint64 chain = 0;
    uint64 inChain = 0;
    for (uint32 m = 0; m < chainMips; ++m)
    {
        uint64 mipSize = SaturatingMul(GetSlicePitch(m, format), GetMipDepth(m));
        if (m < mip)
            inChain = SaturatingAdd(inChain, mipSize);
        chain = SaturatingAdd(chain, mipSize);
    }
    if (MipLevels > chainMips)
        chain = SaturatingAdd(chain, SaturatingMul(GetSlicePitch(63, format), MipLevels - chainMips));
    if (mip > chainMips)
        inChain = SaturatingAdd(inChain, SaturatingMul(GetSlicePitch(63, format), mip - chainMips));
    uint64 offset = SaturatingMul(chain, arrayIndex);
    offset = SaturatingAdd(offset, inChain);
    return SaturatingAdd(offset, SaturatingMul(GetSlicePitch(mip, format), slice));
}

bool TextureDesc::IsWholeSubresource(uint32 mip, uint32 width, uint32 height, uint32 depth) const
{
    return width == GetMipWidth(mip) && height == GetMipHeight(mip) && depth == GetMipDepth(mip);
}

bool TextureDesc::operator==(const TextureDesc& o) const
{
    return Width == o.Width && Height == o.Height && Depth == o.Depth && ArraySize == o.ArraySize &&
           MipLevels == o.MipLevels && ViewFlags == o.ViewFlags && Format == o.Format &&
           TypelessRtvDsvFormat == o.TypelessRtvDsvFormat && TypelessSavUavFormat == o.TypelessSavUavFormat &&
           Dimension == o.Dimension;
}

namespace {

const char16_t* FormatName(uint32 format)
{
    return GraphicsFormat(GraphicsFormat::TYPE(format < GraphicsFormat::COUNT ? format : 0)).GetName();
}

bool Fail(const char16_t* text)
{
    Log::Print(LOG_WARNING, text);
    return false;
}

// One typeless view format: same bit layout as the texture's and usable.
bool CheckTypelessView(const TextureDesc& desc, uint32 viewFormat, uint32 usage, TextureFormatQuery query,
                       void* context, const char16_t* mismatch, const char16_t* unsupported)
{
    if (GraphicsFormat::GetFormatBits(int(viewFormat)) != GraphicsFormat::GetFormatBits(int(desc.Format)) ||
        GraphicsFormat::GetLayout(int(viewFormat)) != GraphicsFormat::GetLayout(int(desc.Format)))
    {
        Log::Format(LOG_WARNING, mismatch, FormatName(desc.Format), FormatName(viewFormat));
        return false;
    }
    if (!query || !query(context, viewFormat, usage, desc.ViewFlags))
    {
        Log::Format(LOG_WARNING, unsupported, FormatName(viewFormat));
        return false;
    }
    return true;
}

} // namespace

bool CheckTextureDesc(const TextureDesc& desc, uint32 usage, const HWCapability& caps, TextureFormatQuery query,
                      void* context)
{
    using namespace TextureViewFlags;
    const bool rt = desc.ViewFlags & RENDER_TARGET;
    const bool ds = desc.ViewFlags & DEPTH_STENCIL;
    const bool srv = desc.ViewFlags & SHADER_RESOURCE;
    const bool uav = desc.ViewFlags & UNORDERED_ACCESS;
    if ((rt || ds) && usage != GraphicsResourceUsage::Default)
        return Fail(u"Check texture desc failed, DS & RT must created by DEFAULT usage.\n");
    if (srv && ds)
    {
        bool supported = false;
        if (desc.Dimension == TextureDimension::_2D)
            supported = desc.ArraySize > 1 ? caps.SupportDepthTexture2DArray : caps.SupportDepthTexture2D;
        else if (desc.Dimension == TextureDimension::Cube)
            supported = caps.SupportDepthTextureCube;
        if (!supported)
            return Fail(u"Check texture desc failed, HW do NOT support HW depth texture.\n");
    }
    if (!GraphicsFormat::IsTypeless(int(desc.Format)))
    {
        if (!query || !query(context, desc.Format, usage, desc.ViewFlags))
        {
            Log::Format(LOG_WARNING, u"Check texture desc failed, not support format[%s].\n", FormatName(desc.Format));
            return false;
        }
    }
    else
    {
        if (!caps.SupportTypelessTex)
            return Fail(u"Check texture desc failed, HW do NOT support typeless texture.\n");
        if ((rt || ds) &&
            !CheckTypelessView(desc, desc.TypelessRtvDsvFormat, usage, query, context,
                               u"Check texture desc failed, texture format[%s] can not match to RTV/DSV format[%s].\n",
                               u"Check texture desc failed, not support RTV/DSV format[%s].\n"))
            return false;
        if ((srv || uav) &&
            !CheckTypelessView(desc, desc.TypelessSavUavFormat, usage, query, context,
                               u"Check texture desc failed, texture format[%s] can not match to SRV/UAV format[%s].\n",
                               u"Check texture desc failed, not support SRV/UAV format[%s].\n"))
            return false;
    }
    if (desc.Dimension == TextureDimension::_3D)
    {
        if (ds)
            return Fail(u"Not support 3D Depth Stencil Texture.\n");
        if (rt && !caps.SupportRenderTarget3D)
            return Fail(u"HW do NOT support 3D Render Target.\n");
    }
    if (desc.ArraySize >= 2)
    {
        if (desc.Dimension == TextureDimension::_1D && !caps.SupportTexture1DArray)
            return Fail(u"HW do NOT support texture 1d array.\n");
        if (desc.Dimension == TextureDimension::_2D && !caps.SupportTexture2DArray)
            return Fail(u"HW do NOT support texture 2d array.\n");
        if (desc.Dimension == TextureDimension::_3D)
            return Fail(u"HW do NOT support texture 3d array.\n");
        if (desc.Dimension == TextureDimension::Cube && desc.ArraySize >= 7 && !caps.SupportTextureCubeArray)
            return Fail(u"HW do NOT support texture cube array.\n");
    }
    return CheckTextureSize(desc);
}

bool CheckTextureSize(const TextureDesc& desc)
{
    switch (desc.Dimension)
    {
    case TextureDimension::_1D:
        if (desc.Height != 1 || desc.Depth != 1)
        {
            Log::Format(LOG_WARNING, u"Check texture 1D size failed, height = %d and depth = %d must be 1.\n",
                        int(desc.Height), int(desc.Depth));
            return false;
        }
        return true;
    case TextureDimension::_2D:
        if (desc.Depth != 1)
        {
            Log::Format(LOG_WARNING, u"Check texture 2D size failed, depth = %d must be 1.\n", int(desc.Depth));
            return false;
        }
        return true;
    case TextureDimension::_3D:
        return true;
    case TextureDimension::Cube:
        if (desc.Depth != 1)
        {
            Log::Format(LOG_WARNING, u"Check texture cube size failed, depth = %d must be 1.\n", int(desc.Depth));
            return false;
        }
        if (desc.Width != desc.Height)
        {
            Log::Format(LOG_WARNING, u"Check texture cube size failed, width = %d must equal to height = %d.\n",
                        int(desc.Width), int(desc.Height));
            return false;
        }
        return true;
    default:
        return false;
    }
}

} // namespace KovexEngine
