// TextureDesc: the subresource layout and the checks a texture passes before
// it is made, each failure with its own line.
#include <gtest/gtest.h>

#include "graphics/GraphicsFormat.h"
#include "graphics/HWCapability.h"
#include "graphics/TextureDesc.h"
#include "support/LogCapture.h"

using namespace KovexEngine;
using F = GraphicsFormat;

namespace {

bool AcceptAll(void*, uint32, uint32, uint32) { return true; }
bool AcceptNone(void*, uint32, uint32, uint32) { return false; }

TextureDesc Desc2D(uint32 format, uint32 views)
{
    TextureDesc d;
    d.Width = 64;
    d.Height = 64;
    d.Format = format;
    d.ViewFlags = views;
    d.Dimension = TextureDimension::_2D;
    return d;
}

} // namespace

TEST(TextureDesc, LayoutOfMipsSlicesAndArrays)
{
    TextureDesc d = Desc2D(F::BC1_UNORM, 1);
    d.Width = 10;
    d.Height = 6;
    d.MipLevels = 4;
    d.ArraySize = 3;
    // 10x6 -> 3x2 blocks, 5x3 -> 2x1, 2x1 -> 1x1, 1x1 -> 1x1; 8 bytes a block.
    const uint64 chain = (6 + 2 + 1 + 1) * 8;
    EXPECT_EQ(d.GetDataOffset(3, 0, 0, d.Format), chain * 3);
    EXPECT_EQ(d.GetDataOffset(1, 2, 0, d.Format), chain + (6 + 2) * 8);
    uint32 rowPitch = 0;
    uint64 slicePitch = 0;
    d.GetPitch(rowPitch, slicePitch, 1, d.Format);
    EXPECT_EQ(rowPitch, 16u);
    EXPECT_EQ(slicePitch, 16u);
    EXPECT_TRUE(d.IsWholeSubresource(1, 5, 3, 1));
    EXPECT_FALSE(d.IsWholeSubresource(1, 4, 3, 1));

    TextureDesc volume = Desc2D(F::R8G8B8A8_UNORM, 1);
    volume.Width = volume.Height = 4;
    volume.Depth = 4;
    volume.MipLevels = 2;
    // Mip 0: four 64-byte slices; mip 1: two 16-byte slices.
    EXPECT_EQ(volume.GetDataOffset(0, 1, 1, volume.Format), 256u + 16u);
    EXPECT_EQ(volume.GetDataOffset(1, 0, 0, volume.Format), 256u + 32u);
}

TEST(TextureDesc, ChecksLogTheirOwnLines)
{
    HWCapability caps;
    KovexTest::LogCapture log;
    EXPECT_TRUE(CheckTextureDesc(Desc2D(F::R8G8B8A8_UNORM, 1), GraphicsResourceUsage::Default, caps, AcceptAll, nullptr));
    EXPECT_FALSE(CheckTextureDesc(Desc2D(F::R8G8B8A8_UNORM, 2), GraphicsResourceUsage::Dynamic, caps, AcceptAll, nullptr));
    EXPECT_TRUE(log->Contains(u"Check texture desc failed, DS & RT must created by DEFAULT usage.\n"));
    EXPECT_FALSE(CheckTextureDesc(Desc2D(F::D32_FLOAT, 5), GraphicsResourceUsage::Default, caps, AcceptAll, nullptr));
    EXPECT_TRUE(log->Contains(u"Check texture desc failed, HW do NOT support HW depth texture.\n"));
    EXPECT_FALSE(CheckTextureDesc(Desc2D(F::R8G8B8A8_UNORM, 1), GraphicsResourceUsage::Default, caps, AcceptNone, nullptr));
    EXPECT_TRUE(log->Contains(u"Check texture desc failed, not support format[R8G8B8A8_UNORM].\n"));

    TextureDesc typeless = Desc2D(F::R8G8B8A8_TYPELESS, 3);
    typeless.TypelessRtvDsvFormat = F::R8G8B8A8_UNORM;
    typeless.TypelessSavUavFormat = F::R16G16_FLOAT;
    EXPECT_FALSE(CheckTextureDesc(typeless, GraphicsResourceUsage::Default, caps, AcceptAll, nullptr));
    EXPECT_TRUE(log->Contains(u"Check texture desc failed, HW do NOT support typeless texture.\n"));
    caps.SupportTypelessTex = true;
    EXPECT_FALSE(CheckTextureDesc(typeless, GraphicsResourceUsage::Default, caps, AcceptAll, nullptr));
    EXPECT_TRUE(log->Contains(
        u"Check texture desc failed, texture format[R8G8B8A8_TYPELESS] can not match to SRV/UAV format[R16G16_FLOAT].\n"));
    typeless.TypelessSavUavFormat = F::R8G8B8A8_UNORM;
    EXPECT_TRUE(CheckTextureDesc(typeless, GraphicsResourceUsage::Default, caps, AcceptAll, nullptr));

    TextureDesc array = Desc2D(F::R8G8B8A8_UNORM, 1);
    array.ArraySize = 4;
    EXPECT_FALSE(CheckTextureDesc(array, GraphicsResourceUsage::Default, caps, AcceptAll, nullptr));
    EXPECT_TRUE(log->Contains(u"HW do NOT support texture 2d array.\n"));
    array.Dimension = TextureDimension::_3D;
    EXPECT_FALSE(CheckTextureDesc(array, GraphicsResourceUsage::Default, caps, AcceptAll, nullptr));
    EXPECT_TRUE(log->Contains(u"HW do NOT support texture 3d array.\n"));
    array.ViewFlags = 2;
    EXPECT_FALSE(CheckTextureDesc(array, GraphicsResourceUsage::Default, caps, AcceptAll, nullptr));
    EXPECT_TRUE(log->Contains(u"HW do NOT support 3D Render Target.\n"));

    TextureDesc cube = Desc2D(F::R8G8B8A8_UNORM, 1);
    cube.Dimension = TextureDimension::Cube;
    cube.ArraySize = 6;
    cube.Height = 32;
    EXPECT_FALSE(CheckTextureDesc(cube, GraphicsResourceUsage::Default, caps, AcceptAll, nullptr));
    EXPECT_TRUE(log->Contains(u"Check texture cube size failed, width = 64 must equal to height = 32.\n"));
    TextureDesc flat = Desc2D(F::R8G8B8A8_UNORM, 1);
    flat.Depth = 2;
    EXPECT_FALSE(CheckTextureSize(flat));
    EXPECT_TRUE(log->Contains(u"Check texture 2D size failed, depth = 2 must be 1.\n"));
    flat.Dimension = 9;
    const unsigned lines = log->entries.Count();
    EXPECT_FALSE(CheckTextureSize(flat)); // an unknown dimension fails without a line
    EXPECT_EQ(log->entries.Count(), lines);
}
