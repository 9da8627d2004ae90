#include "images/ImageLoaderDDS.h"

#include <cstring>

#include "graphics/GraphicsFormat.h"
#include "io/Stream.h"
#include "kernel/Log.h"
#include "reflection/Class.h"

namespace KovexEngine {

KOVEX_REGISTER_CLASS_EX(ImageLoaderDDS, u"Engine")
void ImageLoaderDDS::StaticConstructor(Class* cls)
{
    RegisterBases<ImageLoaderDDS, ImageLoader>(cls);
    cls->ProcessClass();
    ImageLoader::RegisterParser({cls, &ImageLoaderDDS::StaticCheckFormat, &ImageLoaderDDS::StaticCheckExtension});
}

namespace {

constexpr uint32 kAlpha = 2, kFourCC = 4, kRGB = 64, kLuminance = 0x20000, kBump = 0x80000;
constexpr uint32 kHeaderBytes = 128;

constexpr uint32 Code(const char (&c)[5])
{
    return uint32(uint8(c[0])) | uint32(uint8(c[1])) << 8 | uint32(uint8(c[2])) << 16 | uint32(uint8(c[3])) << 24;
}

struct FormatRow
{
    uint32 flags, bits, r, g, b, a, fourCC, format;
};

// Tried in order; a row of format 0 refuses what it matches.
using F = GraphicsFormat;
constexpr FormatRow kRows[] = {
    {kRGB, 16, 63488, 2016, 31, 0, 0, F::B5G6R5_UNORM},
    {kRGB, 16, 31744, 992, 31, 32768, 0, F::B5G5R5A1_UNORM},
    {kRGB, 16, 31744, 992, 31, 0, 0, F::B5G5R5X1_UNORM},
    {kRGB, 16, 3840, 240, 15, 0, 0, F::B4G4R4X4_UNORM},
    {kRGB, 16, 3840, 240, 15, 61440, 0, F::B4G4R4A4_UNORM},
    {kRGB, 16, 224, 28, 3, 65280, 0, F::B2G3R3A8_UNORM},
    {kRGB, 24, 0xFF0000, 0xFF00, 0xFF, 0, 0, F::B8G8R8_UNORM},
    {kRGB, 32, 0xFF0000, 0xFF00, 0xFF, 0xFF000000, 0, F::B8G8R8A8_UNORM},
    {kRGB, 32, 0xFF0000, 0xFF00, 0xFF, 0, 0, F::B8G8R8X8_UNORM},
    {kRGB, 32, 0xFF, 0xFF00, 0xFF0000, 0xFF000000, 0, F::R8G8B8A8_UNORM},
    {kRGB, 32, 0xFF, 0xFF00, 0xFF0000, 0, 0, F::R8G8B8X8_UNORM},
    {kRGB, 32, 0x3FF00000, 0xFFC00, 0x3FF, 0xC0000000, 0, 0},
    {kRGB, 32, 0x3FF, 0xFFC00, 0x3FF00000, 0xC0000000, 0, F::R10G10B10A2_UNORM},
    {kRGB, 32, 0xFFFF, 0xFFFF0000, 0, 0, 0, F::R16G16_UNORM},
    {kRGB, 32, 0xFFFFFFFF, 0, 0, 0, 0, F::R32_FLOAT},
    {kLuminance, 8, 0xFF, 0, 0, 0, 0, F::R8_UNORM},
    {kLuminance, 8, 15, 0, 0, 240, 0, 0},
    {kLuminance, 16, 0xFFFF, 0, 0, 0, 0, F::R16_UNORM},
    {kLuminance, 16, 255, 0, 0, 65280, 0, F::R8G8_UNORM},
    {kBump, 16, 255, 65280, 0, 0, 0, F::R8G8_SNORM},
    {kFourCC, 0, 0, 0, 0, 0, Code("DXT1"), F::BC1_UNORM},
    {kFourCC, 0, 0, 0, 0, 0, Code("DXT3"), F::BC2_UNORM},
    {kFourCC, 0, 0, 0, 0, 0, Code("DXT5"), F::BC3_UNORM},
    {kFourCC, 0, 0, 0, 0, 0, Code("ATI1"), F::BC4_UNORM},
    {kFourCC, 0, 0, 0, 0, 0, Code("ATI2"), F::BC5_UNORM},
    {kFourCC, 0, 0, 0, 0, 0, Code("ATC "), F::ATC_RGB},
    {kFourCC, 0, 0, 0, 0, 0, Code("ATCA"), F::ATC_RGBA_Explicit},
    {kFourCC, 0, 0, 0, 0, 0, Code("ATCI"), F::ATC_RGBA_Interpolated},
    {kFourCC, 0, 0, 0, 0, 0, Code("ETC "), F::ETC_RGB},
    {kFourCC, 0, 0, 0, 0, 0, Code("PV2 "), F::PVRTC_RGB_2BPP},
    {kFourCC, 0, 0, 0, 0, 0, Code("PV4 "), F::PVRTC_RGB_4BPP},
    {kFourCC, 0, 0, 0, 0, 0, Code("PV2A"), F::PVRTC_RGBA_2BPP},
    {kFourCC, 0, 0, 0, 0, 0, Code("PV4A"), F::PVRTC_RGBA_4BPP},
    {kFourCC, 0, 0, 0, 0, 0, 36, F::R16G16B16A16_UNORM},
    {kFourCC, 0, 0, 0, 0, 0, 110, F::R16G16B16A16_SNORM},
    {kFourCC, 0, 0, 0, 0, 0, 111, F::R16_FLOAT},
    {kFourCC, 0, 0, 0, 0, 0, 112, F::R16G16_FLOAT},
    {kFourCC, 0, 0, 0, 0, 0, 113, F::R16G16B16A16_FLOAT},
    {kFourCC, 0, 0, 0, 0, 0, 114, F::R32_FLOAT},
    {kFourCC, 0, 0, 0, 0, 0, 115, F::R32G32_FLOAT},
    {kFourCC, 0, 0, 0, 0, 0, 116, F::R32G32B32A32_FLOAT},
    {kFourCC, 0, 0, 0, 0, 0, 117, F::R8G8_SNORM},
};

// Levels of a full chain down to 1x1x1.
uint32 FullChain(uint32 w, uint32 h, uint32 d)
{
    uint32 largest = w > h ? w : h;
    largest = largest > d ? largest : d;
    uint32 levels = 1;
    while (largest > 1)
    {
        largest >>= 1;
        ++levels;
    }
    return levels;
}

} // namespace

uint32 ImageLoaderDDS::GetTargetFormat(const DDS_PIXELFORMAT& pf)
{
    for (const FormatRow& row : kRows)
    {
        if (row.flags == kFourCC)
        {
            if ((pf.dwFlags & kFourCC) && pf.dwFourCC == row.fourCC)
                return row.format;
        }
        else if (row.flags == kAlpha)
            continue;
        else if ((pf.dwFlags & row.flags) && !(pf.dwFlags & kFourCC) && pf.dwRGBBitCount == row.bits &&
                 pf.dwRBitMask == row.r && pf.dwGBitMask == row.g && pf.dwBBitMask == row.b && pf.dwABitMask == row.a)
            return row.format;
    }
    if ((pf.dwFlags & kAlpha) && !(pf.dwFlags & (kRGB | kLuminance | kFourCC)) && pf.dwRGBBitCount == 8)
        return F::A8_UNORM;
    return 0;
}

bool ImageLoaderDDS::StaticCheckFormat(Stream* stream)
{
    uint8 magic[4];
    return stream && stream->Read(magic, 4) && std::memcmp(magic, "DDS ", 4) == 0;
}

bool ImageLoaderDDS::StaticCheckExtension(const AString& extension) { return extension == ".dds"; }

bool ImageLoaderDDS::ReadHeader()
{
    m_stream->SetPosition(0);
    uint8 magic[4];
    if (!m_stream->Read(magic, 4) || std::memcmp(magic, "DDS ", 4) != 0 ||
        !m_stream->Read(&m_header, int(sizeof(m_header))))
        return false;
    DDS_HEADER& h = m_header;
    if (h.dwMipMapCount == 0)
        h.dwMipMapCount = 1;
    if ((h.ddspf.dwFlags & kFourCC) && h.ddspf.dwFourCC == Code("DX10"))
    {
        Log::Print(1, u"ImageLoaderDDS: not support 'DX10' DDS textures.\n");
        return false;
    }
    TextureDesc desc;
    desc.Width = h.dwWidth;
    desc.Height = h.dwHeight;
    desc.Depth = h.dwDepth ? h.dwDepth : 1;
    if (h.dwCaps2 == 0)
        desc.Dimension = (h.dwFlags & 0x800000) ? TextureDimension::_3D
                         : desc.Height == 1     ? TextureDimension::_1D
                                                : TextureDimension::_2D;
    else if (h.dwCaps2 & 0x200000)
        desc.Dimension = TextureDimension::_3D;
    else
    {
        desc.Dimension = TextureDimension::Cube;
        desc.ArraySize = 6;
    }
    if (desc.Dimension != TextureDimension::_3D)
        desc.Depth = 1;
    desc.Format = GetTargetFormat(h.ddspf);
    if (desc.Format == 0 || desc.Width == 0 || desc.Height == 0 || desc.Width > Image::kMaxDimension ||
        desc.Height > Image::kMaxDimension || desc.Depth > Image::kMaxDimension)
        return false;
    // A count beyond the full chain is a damaged file.
    const uint32 chain = FullChain(desc.Width, desc.Height, desc.Depth);
    if (h.dwMipMapCount > chain)
        return false;
    m_fileMips = h.dwMipMapCount;
    uint32 mips = h.dwMipMapCount;
    if ((h.dwReserved2 & 1) || ((desc.Width >= 256 || desc.Height >= 256) && h.dwMipMapCount <= 1))
    {
        uint32 side = desc.Dimension == TextureDimension::_1D || desc.Dimension == TextureDimension::Cube
                          ? desc.Width
                          : (desc.Width < desc.Height ? desc.Width : desc.Height);
        mips = 1;
        while (side > 4)
        {
            side >>= 1;
            ++mips;
        }
    }
    m_reduced = 0;
    if (m_mipReduction + 1 < mips)
    {
        mips -= m_mipReduction;
        m_reduced = m_mipReduction;
    }
    desc.MipLevels = mips;
    m_image->SetDesc(desc);
    return true;
}

bool ImageLoaderDDS::InternalParse() { return ReadHeader(); }

bool ImageLoaderDDS::PrepareData(bool& allLevels)
{
    const TextureDesc desc = m_image->GetDesc();
    // The file's own layout: its levels as the header counts them.
    TextureDesc file = desc;
    file.MipLevels = m_fileMips;
    // Levels left out at the small end are still in the file: what is kept
    // reads from it, at the offsets of the file's own chain.
    allLevels = m_fileMips == desc.MipLevels + m_reduced;
    uint32 size = 0;
    // Every byte to be read must be in the file before anything is allocated.
    if (!Image::IsDescUsable(file, size) || !Image::IsDescUsable(desc, size) ||
        uint64(kHeaderBytes) + file.GetDataOffset(file.ArraySize, 0, 0, file.Format) > uint64(m_stream->GetSize()))
        return false;
    return m_image->CreateData();
}

bool ImageLoaderDDS::LoadMipData(uint32 mip)
{
    const TextureDesc& desc = m_image->GetDesc();
    TextureDesc file = desc;
    file.MipLevels = m_fileMips;
    const uint64 bytes = file.GetSlicePitch(mip, file.Format) * file.GetMipDepth(mip);
    for (uint32 a = 0; a < desc.ArraySize; ++a)
    {
        m_stream->SetPosition(int64(kHeaderBytes + file.GetDataOffset(a, mip, 0, file.Format)));
        if (!m_stream->Read(m_image->GetData(a, mip, 0), int(bytes)))
            return false;
    }
    return true;
}

bool ImageLoaderDDS::InternalLoad()
{
    bool allLevels = false;
    if (!ReadHeader() || !PrepareData(allLevels))
        return false;
    const uint32 levels = allLevels ? m_image->GetDesc().MipLevels : 1;
    for (uint32 mip = 0; mip < levels; ++mip)
        if (!LoadMipData(mip))
            return false;
    if (!allLevels)
        m_image->GenerateMipmaps(false);
    return true;
}

bool ImageLoaderDDS::Begin(uint32 mip)
{
    if (!m_stream)
        return false;
    if (!m_stream->IsOpenned())
    {
        if (!m_stream->Open())
            return false;
        m_streamOpened = true;
    }
    m_image->DeleteData();
    m_image->SetFirstResidentMip(0);
    bool allLevels = false;
    if (!ReadHeader() || !PrepareData(allLevels) || !allLevels)
    {
        m_image->DeleteData();
        return false;
    }
    const uint32 last = m_image->GetDesc().MipLevels - 1;
    const uint32 first = mip < last ? mip : last;
    for (uint32 level = last + 1; level-- > first;)
        if (!LoadMipData(level))
        {
            m_image->DeleteData();
            return false;
        }
    m_image->SetFirstResidentMip(first);
    return true;
}

bool ImageLoaderDDS::Continue()
{
    const uint32 first = m_image->GetFirstResidentMip();
    if (first == 0)
        return true;
    if (!m_image->GetData() || !LoadMipData(first - 1))
        return false;
    m_image->SetFirstResidentMip(first - 1);
    return true;
}

void ImageLoaderDDS::End()
{
    if (m_streamOpened && m_stream)
        m_stream->Close();
    m_streamOpened = false;
}

bool ImageLoaderDDS::SetTargetFormat(DDS_PIXELFORMAT& pf, uint32 format)
{
    std::memset(&pf, 0, sizeof(pf));
    pf.dwSize = 32;
    if (format == F::A8_UNORM)
    {
        pf.dwFlags = kAlpha;
        pf.dwRGBBitCount = 8;
        pf.dwABitMask = 0xFF;
        return true;
    }
    if (format == F::ETC_RGB) // written as the engine always has, though not read back
    {
        pf.dwFlags = kFourCC;
        pf.dwFourCC = Code("ETCI");
        return true;
    }
    for (const FormatRow& row : kRows)
        if (row.format == format)
        {
            pf.dwFlags = row.flags == kRGB && row.a ? kRGB | 1 : row.flags;
            pf.dwFourCC = row.fourCC;
            pf.dwRGBBitCount = row.bits;
            pf.dwRBitMask = row.r;
            pf.dwGBitMask = row.g;
            pf.dwBBitMask = row.b;
            pf.dwABitMask = row.a;
            return true;
        }
    return false;
}

bool ImageLoaderDDS::StaticSave(const Image* image, Stream* stream, uint32 flags)
{
    if (!image || !stream || !image->GetData())
        return false;
    const TextureDesc& desc = image->GetDesc();
    DDS_HEADER h = {};
    h.dwSize = 124;
    h.dwWidth = desc.Width;
    h.dwHeight = desc.Height;
    h.dwDepth = desc.Depth;
    h.dwMipMapCount = (flags & 1) ? 1 : desc.MipLevels;
    h.dwFlags = 4103;
    h.dwCaps = 4096;
    h.dwReserved2 = flags;
    if (!(flags & 1) && desc.MipLevels > 1)
    {
        h.dwFlags = 135175;
        h.dwCaps = 0x401008;
    }
    if (desc.Dimension == TextureDimension::_3D)
    {
        h.dwFlags += 0x800000;
        h.dwCaps2 += 0x200000;
    }
    else if (desc.Dimension == TextureDimension::Cube)
    {
        h.dwCaps += 8;
        h.dwCaps2 += 0xFE00;
    }
    uint32 rowBytes = 0, rows = 0;
    desc.GetRowPitch(rowBytes, rows, 0, desc.Format);
    h.dwPitchOrLinearSize = Image::IsBlockCompressed(desc.Format) ? rowBytes * rows * desc.Depth : rowBytes;
    if (!SetTargetFormat(h.ddspf, desc.Format))
        return false;
    const bool opened = !stream->IsOpenned();
    if (opened)
    {
        stream->SetWriteable(true);
        if (!stream->Open())
            return false;
    }
    bool ok = stream->Write("DDS ", 4) && stream->Write(&h, int(sizeof(h)));
    if (flags & 1)
    {
        const uint64 level = desc.GetSlicePitch(0, desc.Format) * desc.Depth;
        for (uint32 a = 0; ok && a < desc.ArraySize; ++a)
            ok = stream->Write(image->GetData(a, 0, 0), int(level));
    }
    else
        ok = ok && stream->Write(image->GetData(), int(image->GetDataSize()));
    if (opened)
        stream->Close();
    return ok;
}

} // namespace KovexEngine
