#pragma once

// The description of a texture or image: size, mip chain, array slices,
// format and views, and the layout of its pixels in one buffer.
//
// Plain data; every operation is a pure computation, safe from any thread.

#include "kernel/Export.h"
#include "kernel/ReflectedStruct.h"
#include "kernel/Types.h"

namespace KovexEngine {

class HWCapability;

// View bits of TextureDesc::ViewFlags.
namespace TextureViewFlags {
constexpr uint32 SHADER_RESOURCE = 1;
constexpr uint32 RENDER_TARGET = 2;
constexpr uint32 DEPTH_STENCIL = 4;
constexpr uint32 UNORDERED_ACCESS = 8;
} // namespace TextureViewFlags

struct KOVEX_API TextureDesc
{
    KOVEX_STRUCT(TextureDesc)
    uint32 Width = 0;
    uint32 Height = 0;
    uint32 Depth = 1;
    uint32 ArraySize = 1;
    uint32 MipLevels = 1;
    uint32 ViewFlags = 0;
    uint32 Format = 0;               // GraphicsFormat
    uint32 TypelessRtvDsvFormat = 0; // GraphicsFormat
    uint32 TypelessSavUavFormat = 0; // GraphicsFormat
    uint32 Dimension = 0;            // TextureDimension

    // Bytes of a row of the mip (of pixels, or of 4x4 blocks) and its number
    // of rows; the mip's width and height are shifted and held at 1 or more.
    void GetRowPitch(uint32& rowBytes, uint32& rows, uint32 mip, uint32 format) const;
    // rowBytes * rows of the mip.
    uint64 GetSlicePitch(uint32 mip, uint32 format) const;
    // Row and slice pitch together.
    void GetPitch(uint32& rowPitch, uint64& slicePitch, uint32 mip, uint32 format) const;
    // Byte offset of a subresource: array slices one after the other, each
    // holding its mip chain, each mip its depth slices. With arrayIndex equal
    // to ArraySize (mip 0, slice 0) it is the size of the whole buffer.
    // Saturates at the largest value instead of wrapping.
    uint64 GetDataOffset(uint32 arrayIndex, uint32 mip, uint32 slice, uint32 format) const;
    // Whether a box starting at the origin with this size covers the whole mip.
    bool IsWholeSubresource(uint32 mip, uint32 width, uint32 height, uint32 depth) const;

    uint32 GetMipWidth(uint32 mip) const { return Shifted(Width, mip); }
    uint32 GetMipHeight(uint32 mip) const { return Shifted(Height, mip); }
    uint32 GetMipDepth(uint32 mip) const { return Shifted(Depth, mip); }

    bool operator==(const TextureDesc& other) const;
    bool operator!=(const TextureDesc& other) const { return !(*this == other); }

private:
    static uint32 Shifted(uint32 value, uint32 mip) { return mip >= 32 || (value >> mip) == 0 ? 1u : value >> mip; }
};

// Answers whether the device can use `format` for a texture of this usage
// and these views; supplied by whoever owns the device.
using TextureFormatQuery = bool (*)(void* context, uint32 format, uint32 usage, uint32 viewFlags);

// Checks a description against the device before a texture is made; on a
// failure logs why (level 3) and returns false.
KOVEX_API bool CheckTextureDesc(const TextureDesc& desc, uint32 usage, const HWCapability& caps,
                                TextureFormatQuery query, void* queryContext);
// The size rules of each dimension; false (with a message) when broken.
KOVEX_API bool CheckTextureSize(const TextureDesc& desc);

} // namespace KovexEngine
