// Image: buffer and layout, conversion through both layers, mip chains
// against a reference box filter, block compression and the serial form.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include "graphics/GraphicsFormat.h"
#include "images/Image.h"
#include "images/ImageConverter.h"
#include "serialization/BinSerializer.h"
#include "serialization/XmlSerializer.h"
#include "serialization/SerializerTestSupport.h"
#include "support/LogCapture.h"

using namespace KovexEngine;
using F = GraphicsFormat;

namespace {

Ptr<Image> MakeImage(uint32 format, uint32 w, uint32 h, uint32 mips = 1, uint32 arraySize = 1, uint32 depth = 1)
{
    Ptr<Image> image(new Image());
    TextureDesc desc;
    desc.Width = w;
    desc.Height = h;
    desc.Depth = depth;
    desc.ArraySize = arraySize;
    desc.MipLevels = mips;
    desc.Format = format;
    desc.Dimension = depth > 1 ? TextureDimension::_3D : TextureDimension::_2D;
    EXPECT_TRUE(image->Create(desc));
    return image;
}

void Randomise(Image& image, unsigned seed)
{
    std::mt19937 rng(seed);
    for (uint32 i = 0; i < image.GetDataSize(); ++i)
        image.GetData()[i] = uint8(rng());
}

// A smooth picture whose colours lie on a line, as block compression
// assumes of each block.
void Gradient(Image& image)
{
    const TextureDesc& d = image.GetDesc();
    uint8* p = image.GetData(0, 0, 0);
    const uint32 span = d.Width + d.Height > 2 ? d.Width + d.Height - 2 : 1;
    for (uint32 y = 0; y < d.Height; ++y)
        for (uint32 x = 0; x < d.Width; ++x)
        {
            uint8* px = p + (size_t(y) * d.Width + x) * 4;
            const uint32 t = (x + y) * 255 / span;
            px[0] = uint8(t);
            px[1] = uint8(t / 2);
            px[2] = uint8(255 - t);
            px[3] = uint8(255 - t / 3);
        }
}

bool Logged(KovexTest::LogCapture& log, const char16_t* text) { return log->Contains(text); }

} // namespace

TEST(Image, BufferFollowsTheDescAndItsLayout)
{
    Ptr<Image> image(new Image());
    EXPECT_EQ(image->GetDesc().Depth, 1u);
    EXPECT_EQ(image->GetDesc().ArraySize, 1u);
    EXPECT_EQ(image->GetDesc().MipLevels, 1u);
    EXPECT_EQ(image->GetDesc().Width, 0u);
    EXPECT_FALSE(image->CreateData()); // no size, no format
    EXPECT_EQ(image->GetData(0, 0, 0), nullptr);

    image = MakeImage(F::R8G8B8A8_UNORM, 8, 4, 4, 2);
    // Per array slice: 8x4, 4x2, 2x1, 1x1 texels of 4 bytes.
    const uint32 chain = (32 + 8 + 2 + 1) * 4;
    EXPECT_EQ(image->GetDataSize(), chain * 2);
    EXPECT_EQ(image->GetData(1, 0, 0) - image->GetData(), ptrdiff_t(chain));
    EXPECT_EQ(image->GetData(1, 2, 0) - image->GetData(), ptrdiff_t(chain + (32 + 8) * 4));
    EXPECT_EQ(image->GetData(0, 4, 0), nullptr);
    EXPECT_EQ(image->GetData(2, 0, 0), nullptr);

    uint8* before = image->GetData();
    EXPECT_TRUE(image->CreateData()); // same size: not reallocated
    EXPECT_EQ(image->GetData(), before);
    EXPECT_TRUE(image->SetData(before, 3)); // the pointer it holds: nothing changes
    EXPECT_EQ(image->GetDataSize(), chain * 2);
    EXPECT_FALSE(image->SetData(nullptr, 4));
    uint8* other = static_cast<uint8*>(std::malloc(16));
    EXPECT_FALSE(image->SetData(other, 0));
    EXPECT_TRUE(image->SetData(other, 16));
    EXPECT_EQ(image->GetDataSize(), 16u);

    image->DeleteData();
    uint8* data = nullptr;
    uint32 rowPitch = 0, slicePitch = 0;
    EXPECT_TRUE(image->GetSubresourceLayout(1, 1, data, rowPitch, slicePitch));
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(rowPitch, 16u);
    EXPECT_EQ(slicePitch, 32u);
    EXPECT_FALSE(image->GetSubresourceLayout(2, 0, data, rowPitch, slicePitch));
    EXPECT_FALSE(image->GetSubresourceLayout(0, 4, data, rowPitch, slicePitch));
}

TEST(Image, AbsurdSizesAreRefusedWithoutAllocating)
{
    TextureDesc desc;
    desc.Width = 65536;
    desc.Height = 65536;
    desc.Format = F::R32G32B32A32_FLOAT; // 64 GiB
    uint32 size = 0;
    EXPECT_FALSE(Image::IsDescUsable(desc, size));
    desc.Width = 0xFFFFFFFFu;
    desc.Height = 0xFFFFFFFFu;
    EXPECT_FALSE(Image::IsDescUsable(desc, size));
    EXPECT_EQ(desc.GetDataOffset(desc.ArraySize, 0, 0, desc.Format), ~uint64(0)); // saturates, never wraps
    desc.Width = desc.Height = 4;
    desc.MipLevels = 0xFFFFFFFFu;
    EXPECT_FALSE(Image::IsDescUsable(desc, size));
    Ptr<Image> image(new Image());
    EXPECT_FALSE(image->Create(desc));
    EXPECT_EQ(image->GetData(), nullptr);
}

TEST(Image, BlockCountsRoundUp)
{
    // 13x7 in BC1: 4x2 blocks of 8 bytes; the last row and column have theirs.
    Ptr<Image> image = MakeImage(F::BC1_UNORM, 13, 7);
    EXPECT_EQ(image->GetDataSize(), 4u * 2u * 8u);
    uint32 rowBytes = 0, rows = 0;
    F::GetFormatInfo(rowBytes, rows, 5, 5, F::BC3_UNORM);
    EXPECT_EQ(rowBytes, 32u);
    EXPECT_EQ(rows, 2u);
    EXPECT_EQ(F::GetFormatSize(6, 9, F::BC1_UNORM), 2u * 3u * 8u);
}

TEST(Image, ConvertUncompressedInPlaceAndIntoANewBuffer)
{
    Ptr<Image> image = MakeImage(F::B8G8R8A8_UNORM, 5, 3, 3);
    Randomise(*image, 7);
    std::vector<uint8> original(image->GetData(), image->GetData() + image->GetDataSize());
    uint8* buffer = image->GetData();
    EXPECT_TRUE(image->Convert(F::B8G8R8A8_UNORM, true)); // its own format: untouched
    EXPECT_TRUE(image->Convert(F::R8G8B8A8_UNORM, true));
    EXPECT_EQ(image->GetData(), buffer); // same size and stride: in place
    EXPECT_EQ(image->GetDesc().Format, uint32(F::R8G8B8A8_UNORM));
    for (uint32 i = 0; i < image->GetDataSize(); i += 4)
    {
        ASSERT_EQ(image->GetData()[i], original[i + 2]);
        ASSERT_EQ(image->GetData()[i + 2], original[i]);
    }
    // To three bytes a pixel: a new buffer, every mip converted.
    EXPECT_TRUE(image->Convert(F::R8G8B8_UNORM, true));
    EXPECT_EQ(image->GetDataSize(), (15u + 2u + 1u) * 3u);
    EXPECT_EQ(image->GetDesc().MipLevels, 3u);
    const uint8* lastMip = image->GetData(0, 2, 0);
    const uint8* lastOriginal = original.data() + (15 + 2) * 4;
    EXPECT_EQ(lastMip[0], lastOriginal[2]);
    EXPECT_EQ(lastMip[2], lastOriginal[0]);

    KovexTest::LogCapture log;
    EXPECT_FALSE(image->Convert(F::R8_UNORM, true));
    EXPECT_TRUE(Logged(log, u"Can't convert image format from R8G8B8_UNORM to R8_UNORM"));
    EXPECT_EQ(image->GetDesc().Format, uint32(F::R8G8B8_UNORM));
}

TEST(Image, GrayScaleIsOneBytePerPixelAndNeverRecurses)
{
    Ptr<Image> image = MakeImage(F::GRAY_SCALE_UNORM, 6, 5, 2);
    EXPECT_EQ(image->GetDataSize(), 30u + 6u); // the block rule agrees with the converter's stride
    EXPECT_FALSE(image->IsCompressed());
    for (uint32 i = 0; i < image->GetDataSize(); ++i)
        image->GetData()[i] = uint8(i * 7);
    EXPECT_TRUE(image->Convert(F::B8G8R8A8_UNORM, true));
    EXPECT_EQ(image->GetDataSize(), 36u * 4u);
    EXPECT_EQ(image->GetData()[4 * 3], uint8(21));
    EXPECT_EQ(image->GetData()[4 * 3 + 3], 0xFF);
    EXPECT_TRUE(image->Convert(F::GRAY_SCALE_UNORM, true));
    EXPECT_EQ(image->GetData()[3], uint8(21));
    // Into a block format and back: through the block converter, which ends.
    EXPECT_TRUE(image->Convert(F::BC1_UNORM, true));
    EXPECT_TRUE(image->Convert(F::GRAY_SCALE_UNORM, true));
    EXPECT_TRUE(image->GenerateMipmaps(true));
    EXPECT_EQ(image->GetDesc().Format, uint32(F::GRAY_SCALE_UNORM));
}

TEST(Image, MipChainEqualsAReferenceBoxFilter)
{
    for (uint32 size : {16u, 13u})
    {
        Ptr<Image> image = MakeImage(F::B8G8R8A8_UNORM, size, size - 3, 5, 2);
        Randomise(*image, size);
        ASSERT_TRUE(image->GenerateMipmaps(true));
        const TextureDesc& d = image->GetDesc();
        for (uint32 a = 0; a < 2; ++a)
            for (uint32 mip = 1; mip < 5; ++mip)
            {
                const uint8* above = image->GetData(a, mip - 1, 0);
                const uint8* level = image->GetData(a, mip, 0);
                const uint32 sw = d.GetMipWidth(mip - 1), sh = d.GetMipHeight(mip - 1);
                for (uint32 y = 0; y < d.GetMipHeight(mip); ++y)
                    for (uint32 x = 0; x < d.GetMipWidth(mip); ++x)
                        for (uint32 c = 0; c < 4; ++c)
                        {
                            unsigned sum = 0;
                            for (uint32 dy = 0; dy < 2; ++dy)
                                for (uint32 dx = 0; dx < 2; ++dx)
                                {
                                    uint32 sx = std::min(2 * x + dx, sw - 1), sy = std::min(2 * y + dy, sh - 1);
                                    sum += above[(sy * sw + sx) * 4 + c];
                                }
                            ASSERT_EQ(level[(y * d.GetMipWidth(mip) + x) * 4 + c], sum / 4)
                                << "size " << size << " array " << a << " mip " << mip << " at " << x << "," << y;
                        }
            }
    }
}

TEST(Image, MipGenerationConvertsBackOrStaysInTheWorkFormat)
{
    Ptr<Image> image = MakeImage(F::R8G8B8A8_UNORM, 4, 4, 3);
    for (uint32 i = 0; i < 64; i += 4)
    {
        image->GetData()[i] = 200; // red
        image->GetData()[i + 3] = 255;
    }
    ASSERT_TRUE(image->GenerateMipmaps(false));
    EXPECT_EQ(image->GetDesc().Format, uint32(F::B8G8R8A8_UNORM));
    EXPECT_EQ(image->GetData(0, 2, 0)[2], 200);
    ASSERT_TRUE(image->GenerateMipmaps(true));
    EXPECT_EQ(image->GetDesc().Format, uint32(F::B8G8R8A8_UNORM));

    Ptr<Image> one = MakeImage(F::R8G8B8A8_UNORM, 4, 4, 1);
    EXPECT_FALSE(one->GenerateMipmaps(true));

    KovexTest::LogCapture log;
    Ptr<Image> ints = MakeImage(F::R8G8B8A8_UINT, 4, 4, 2);
    EXPECT_FALSE(ints->GenerateMipmaps(true));
    EXPECT_TRUE(Logged(log, u"Generate mipmap failed, not support format [R8G8B8A8_UINT].\n"));
    // A work format the converters cannot reach fails with their line, not garbage.
    Ptr<Image> halves = MakeImage(F::R16G16B16A16_FLOAT, 4, 4, 2);
    EXPECT_FALSE(halves->GenerateMipmaps(true));
    EXPECT_TRUE(Logged(log, u"Can't convert image format from R16G16B16A16_FLOAT to R32G32B32A32_FLOAT"));
    EXPECT_EQ(halves->GetDesc().Format, uint32(F::R16G16B16A16_FLOAT));
}

TEST(Image, VolumeMipsDeeperThanOneAreLeftAsTheyAre)
{
    Ptr<Image> volume = MakeImage(F::B8G8R8A8_UNORM, 4, 4, 3, 1, 4);
    volume->FillData(0x55);
    volume->GetData(0, 0, 0)[0] = 0;
    ASSERT_TRUE(volume->GenerateMipmaps(true));
    // Mip 1 is 2x2x2: skipped. Mip 2 is 1x1x1: filtered from mip 1.
    EXPECT_EQ(volume->GetData(0, 1, 0)[0], 0x55);
    EXPECT_EQ(volume->GetData(0, 2, 0)[0], 0x55);
}

TEST(Image, FloatWorkFormatAverages)
{
    Ptr<Image> image = MakeImage(F::R32G32B32A32_FLOAT, 2, 2, 2);
    float* p = reinterpret_cast<float*>(image->GetData());
    for (int i = 0; i < 16; ++i)
        p[i] = float(i);
    ASSERT_TRUE(image->GenerateMipmaps(true));
    const float* top = reinterpret_cast<const float*>(image->GetData(0, 1, 0));
    EXPECT_FLOAT_EQ(top[0], (0 + 4 + 8 + 12) / 4.0f);
    EXPECT_FLOAT_EQ(top[3], (3 + 7 + 11 + 15) / 4.0f);
}

TEST(ImageConverterBC, RoundTripsWithinToleranceAtAnySize)
{
    struct Case { uint32 format; int channels; int tolerance; };
    const Case cases[] = {{F::BC1_UNORM, 3, 40}, {F::BC2_UNORM, 4, 40}, {F::BC3_UNORM, 4, 40},
                          {F::BC4_UNORM, 1, 12}, {F::BC5_UNORM, 2, 12}};
    for (const Case& c : cases)
        for (uint32 w : {16u, 13u, 3u})
        {
            const uint32 h = w == 3 ? 2 : w - 2;
            Ptr<Image> image = MakeImage(F::R8G8B8A8_UNORM, w, h);
            Gradient(*image);
            if (c.format == F::BC1_UNORM) // BC1 keeps one bit of alpha
                for (uint32 i = 3; i < image->GetDataSize(); i += 4)
                    image->GetData()[i] = 255;
            std::vector<uint8> original(image->GetData(), image->GetData() + image->GetDataSize());
            ASSERT_TRUE(image->Convert(c.format, true)) << c.format;
            EXPECT_TRUE(image->IsCompressed());
            EXPECT_EQ(image->GetDataSize(), F::GetFormatSize(w, h, int(c.format)));
            ASSERT_TRUE(image->Convert(F::R8G8B8A8_UNORM, true));
            ASSERT_EQ(image->GetDataSize(), original.size());
            int worst = 0;
            for (size_t i = 0; i < original.size(); ++i)
                if (int(i % 4) < c.channels || (c.channels == 3 && i % 4 == 3))
                    worst = std::max(worst, std::abs(int(image->GetData()[i]) - int(original[i])));
            EXPECT_LE(worst, c.tolerance) << "format " << c.format << " size " << w << "x" << h;
        }
}

TEST(ImageConverterBC, DecodesIntoAnyPlainFormatAndRefusesTheRest)
{
    Ptr<Image> image = MakeImage(F::B8G8R8A8_UNORM, 8, 8, 2);
    Gradient(*image);
    ASSERT_TRUE(image->Convert(F::BC3_UNORM, true));
    ASSERT_TRUE(image->Convert(F::B5G6R5_UNORM, true)); // decoded, then through the pixel layer
    EXPECT_EQ(image->GetDataSize(), (64u + 16u) * 2u);

    KovexTest::LogCapture log;
    ASSERT_TRUE(image->Convert(F::BC1_UNORM, true));
    std::vector<uint8> before(image->GetData(), image->GetData() + image->GetDataSize());
    EXPECT_FALSE(image->Convert(F::ATC_RGB, true));
    EXPECT_TRUE(Logged(log, u"can't find image converter for format 'ATC_RGB'.\n"));
    EXPECT_FALSE(image->Convert(F::R32G32B32A32_FLOAT, true));
    EXPECT_EQ(image->GetDesc().Format, uint32(F::BC1_UNORM)); // refused at the start: unchanged
    EXPECT_EQ(std::vector<uint8>(image->GetData(), image->GetData() + image->GetDataSize()), before);

    // PVRTC targets are refused at their seam, without a word.
    const size_t lines = log->entries.Count();
    EXPECT_FALSE(image->Convert(F::PVRTC_RGBA_4BPP, true));
    EXPECT_EQ(log->entries.Count(), lines);
}

TEST(ImageSerial, RoundTripsInBothForms)
{
    Ptr<Image> image = MakeImage(F::B5G6R5_UNORM, 7, 3, 2, 3);
    Randomise(*image, 3);
    for (const Class* form : {BinSerializer::StaticGetClass(), XmlSerializer::StaticGetClass()})
    {
        KovexTest::Bytes bytes = KovexTest::WriteWith(form, [&](Serializer& s) { EXPECT_TRUE(image->Save(&s)); });
        Serializer* reader = KovexTest::OpenReader(bytes);
        ASSERT_TRUE(reader);
        Ptr<Image> loaded(new Image());
        EXPECT_TRUE(loaded->Load(reader));
        delete reader;
        EXPECT_TRUE(loaded->GetDesc() == image->GetDesc());
        ASSERT_EQ(loaded->GetDataSize(), image->GetDataSize());
        EXPECT_EQ(0, std::memcmp(loaded->GetData(), image->GetData(), image->GetDataSize()));
    }
    // Without data: the desc alone.
    Ptr<Image> empty(new Image());
    TextureDesc desc = image->GetDesc();
    empty->SetDesc(desc);
    KovexTest::Bytes bytes =
        KovexTest::WriteWith(BinSerializer::StaticGetClass(), [&](Serializer& s) { EXPECT_TRUE(empty->Save(&s)); });
    Serializer* reader = KovexTest::OpenReader(bytes);
    Ptr<Image> loaded(new Image());
    EXPECT_TRUE(loaded->Load(reader));
    delete reader;
    EXPECT_EQ(loaded->GetData(), nullptr);
    EXPECT_EQ(loaded->GetDesc().Width, 7u);
}

TEST(ImageSerial, ForgedAndTruncatedInputIsRefused)
{
    Ptr<Image> image = MakeImage(F::R8G8B8A8_UNORM, 4, 4);
    Randomise(*image, 5);
    auto saveWith = [&](const TextureDesc& desc) {
        return KovexTest::WriteWith(BinSerializer::StaticGetClass(), [&](Serializer& s) {
            s.Enter(FourCCs::Make("IMG"));
            s.Write(FourCCs::Make("DESC"), &desc, SerializeMemLayout(sizeof(TextureDesc), 10, 4, 0, 4, 4, 4, 8, 4, 12,
                                                                      4, 16, 4, 20, 4, 24, 4, 28, 4, 32, 4, 36));
            s.Write(FourCCs::Make("CRTD"), true);
            s.Write(FourCCs::Make("DATA"), image->GetData(), image->GetDataSize());
            s.Leave();
        });
    };
    auto loads = [](const KovexTest::Bytes& bytes) {
        Serializer* reader = KovexTest::OpenReader(bytes);
        if (!reader)
            return false;
        Ptr<Image> loaded(new Image());
        bool ok = loaded->Load(reader);
        delete reader;
        return ok;
    };
    KovexTest::LogCapture log;
    EXPECT_TRUE(loads(saveWith(image->GetDesc())));
    // A desc claiming far more than the file holds: refused before allocating.
    TextureDesc huge = image->GetDesc();
    huge.Width = huge.Height = 16384;
    EXPECT_FALSE(loads(saveWith(huge)));
    TextureDesc wrapping = image->GetDesc();
    wrapping.Width = wrapping.Height = 0x80000000u;
    EXPECT_FALSE(loads(saveWith(wrapping)));
    TextureDesc small = image->GetDesc();
    small.Width = 2; // data larger than the desc says
    EXPECT_FALSE(loads(saveWith(small)));
    EXPECT_TRUE(Logged(log, u"Image: the serialized image is damaged.\n"));
    // Every truncation of a good file fails cleanly.
    KovexTest::Bytes good = saveWith(image->GetDesc());
    for (size_t cut = 0; cut < good.size(); ++cut)
        EXPECT_FALSE(loads(good.substr(0, cut))) << cut;
}
