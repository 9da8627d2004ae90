#include "images/Image.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <type_traits>

#include "graphics/GraphicsFormat.h"
#include "graphics/Renderer.h"
#include "images/ImageConverter.h"
#include "images/ImageLoader.h"
#include "io/StreamManager.h"
#include "images/PixelFormatConverter.h"
#include "io/Stream.h"
#include "kernel/Log.h"
#include "reflection/Class.h"
#include "serialization/Serializer.h"

namespace KovexEngine {

KOVEX_REGISTER_CLASS(Image, u"Engine", Object)

namespace {

constexpr FourCC kImageTag = FourCCs::Make("IMG");
constexpr FourCC kDescTag = FourCCs::Make("DESC");
constexpr FourCC kCreatedTag = FourCCs::Make("CRTD");
constexpr FourCC kDataTag = FourCCs::Make("DATA");

const char16_t* FormatName(uint32 format)
{
    return GraphicsFormat(GraphicsFormat::TYPE(format < GraphicsFormat::COUNT ? format : 0)).GetName();
}

SerializeMemLayout DescLayout()
{
    SerializeMemLayout layout(sizeof(TextureDesc));
    const TextureDesc probe;
    layout.Add(&probe, probe.Width).Add(&probe, probe.Height).Add(&probe, probe.Depth);
    layout.Add(&probe, probe.ArraySize).Add(&probe, probe.MipLevels).Add(&probe, probe.ViewFlags);
    layout.Add(&probe, probe.Format).Add(&probe, probe.TypelessRtvDsvFormat);
    layout.Add(&probe, probe.TypelessSavUavFormat).Add(&probe, probe.Dimension);
    return layout;
}

// The format the mip filter averages in; 0 where there is none.
uint32 MipWorkFormat(uint32 f)
{
    using F = GraphicsFormat;
    if (f == 1 || f == 2 || f == 5 || (f >= 7 && f <= 11) || (f >= 22 && f <= 26) || (f >= 30 && f <= 35) || f == 54 ||
        (f >= 72 && f <= 80))
        return F::B8G8R8A8_UNORM;
    if (f == 3 || f == 12 || f == 14 || f == 55)
        return F::R16G16B16A16_UNORM;
    if (f == 4 || f == 6)
        return F::R8G8B8A8_SNORM;
    if (f == 13 || f == 15 || f == 56)
        return F::R16G16B16A16_SNORM;
    if (f >= 16 && f <= 21)
        return F::R32G32B32A32_FLOAT;
    return 0;
}

// One level from the level above: each texel the mean of a 2x2 block, the
// block clamped to the source where that is a single row or column.
template <typename Channel, typename Sum>
inline Channel Mean4(Channel a, Channel b, Channel c, Channel d)
{
    Sum sum = Sum(a) + Sum(b) + Sum(c) + Sum(d);
    if constexpr (std::is_floating_point_v<Sum>)
        return Channel(sum * Sum(0.25));
    else
        return Channel(sum / 4);
}

template <typename Channel, typename Sum>
void BoxFilter(uint8* target, uint32 targetPitch, uint32 tw, uint32 th, const uint8* source, uint32 sourcePitch,
               uint32 sw, uint32 sh)
{
    // Texels whose 2x2 block lies inside the source take the straight loop;
    // only a last odd-sized column clamps.
    const uint32 inside = sw / 2 < tw ? sw / 2 : tw;
    for (uint32 y = 0; y < th; ++y)
    {
        const Channel* r0 = reinterpret_cast<const Channel*>(source + size_t(sourcePitch) * (2 * y < sh ? 2 * y : sh - 1));
        const Channel* r1 =
            reinterpret_cast<const Channel*>(source + size_t(sourcePitch) * (2 * y + 1 < sh ? 2 * y + 1 : sh - 1));
        Channel* __restrict out = reinterpret_cast<Channel*>(target + size_t(targetPitch) * y);
        // size_t indices: 32-bit ones may wrap, which keeps the loop from vectorising.
        for (size_t x = 0; x < inside; ++x)
            for (size_t c = 0; c < 4; ++c)
            {
                const Channel* a = r0 + x * 8 + c;
                const Channel* b = r1 + x * 8 + c;
                out[x * 4 + c] = Mean4<Channel, Sum>(a[0], a[4], b[0], b[4]);
            }
        for (uint32 x = inside; x < tw; ++x)
        {
            const uint32 x0 = 2 * x < sw ? 2 * x : sw - 1;
            const uint32 x1 = 2 * x + 1 < sw ? 2 * x + 1 : sw - 1;
            for (uint32 c = 0; c < 4; ++c)
                out[x * 4 + c] = Mean4<Channel, Sum>(r0[x0 * 4 + c], r0[x1 * 4 + c], r1[x0 * 4 + c], r1[x1 * 4 + c]);
        }
    }
}

using BoxFilterFn = void (*)(uint8*, uint32, uint32, uint32, const uint8*, uint32, uint32, uint32);

BoxFilterFn BoxFilterFor(uint32 work)
{
    switch (work)
    {
    case GraphicsFormat::B8G8R8A8_UNORM: return &BoxFilter<uint8, uint32>;
    case GraphicsFormat::R16G16B16A16_UNORM: return &BoxFilter<uint16, uint32>;
    case GraphicsFormat::R8G8B8A8_SNORM: return &BoxFilter<int8, int32>;
    case GraphicsFormat::R16G16B16A16_SNORM: return &BoxFilter<int16, int32>;
    case GraphicsFormat::R32G32B32A32_FLOAT: return &BoxFilter<float, float>;
    default: return nullptr;
    }
}

} // namespace

Image::Image() = default;

Image::~Image() { std::free(m_data); }

bool Image::IsBlockCompressed(uint32 format)
{
    return format != GraphicsFormat::GRAY_SCALE_UNORM && GraphicsFormat::IsCompressed(int(format));
}

bool Image::IsDescUsable(const TextureDesc& d, uint32& size)
{
    size = 0;
    if (d.Width == 0 || d.Height == 0 || d.Depth == 0 || d.ArraySize == 0 || d.MipLevels == 0 ||
        d.Width > kMaxDimension || d.Height > kMaxDimension || d.Depth > kMaxDimension ||
        d.ArraySize > kMaxArraySize || d.MipLevels > kMaxMipLevels || d.Format == 0 ||
        d.Format >= GraphicsFormat::COUNT || GraphicsFormat::GetFormatBits(int(d.Format)) == 0)
        return false;
    uint64 whole = d.GetDataOffset(d.ArraySize, 0, 0, d.Format);
    if (whole == 0 || whole > 0xFFFFFFFFull)
        return false;
    size = uint32(whole);
    return true;
}

bool Image::CreateData() { return CreateData(true); }

bool Image::CreateData(bool zeroFill)
{
    uint32 size = 0;
    if (!IsDescUsable(m_desc, size))
    {
        DeleteData();
        return false;
    }
    if (size == m_dataSize && m_data)
        return true;
    uint8* fresh = static_cast<uint8*>(zeroFill ? std::calloc(size, 1) : std::malloc(size));
    if (!fresh)
        return false;
    std::free(m_data);
    m_data = fresh;
    m_dataSize = size;
    return true;
}

void Image::DeleteData()
{
    std::free(m_data);
    m_data = nullptr;
    m_dataSize = 0;
}

void Image::FillData(uint8 value)
{
    if (m_data)
        std::memset(m_data, value, m_dataSize);
}

bool Image::Create(const TextureDesc& desc)
{
    SetDesc(desc);
    return CreateData();
}

uint8* Image::GetData(uint32 arrayIndex, uint32 mip, uint32 slice) const
{
    if (!m_data || mip >= m_desc.MipLevels || m_desc.Format == 0 || arrayIndex >= m_desc.ArraySize)
        return nullptr;
    uint64 offset = m_desc.GetDataOffset(arrayIndex, mip, slice, m_desc.Format);
    return offset < m_dataSize ? m_data + offset : nullptr;
}

bool Image::SetData(uint8* data, uint32 size)
{
    if (!data || size == 0)
        return false;
    if (data == m_data)
        return true;
    std::free(m_data);
    m_data = data;
    m_dataSize = size;
    return true;
}

bool Image::GetSubresourceLayout(uint32 arrayIndex, uint32 mip, uint8*& data, uint32& rowPitch,
                                 uint32& slicePitch) const
{
    if (arrayIndex >= m_desc.ArraySize || mip >= m_desc.MipLevels)
        return false;
    uint32 rows = 0;
    m_desc.GetRowPitch(rowPitch, rows, mip, m_desc.Format);
    slicePitch = uint32(m_desc.GetSlicePitch(mip, m_desc.Format));
    data = GetData(arrayIndex, mip, 0);
    return true;
}

bool Image::GetMappedSubresource(MappedSubresource& mapped, uint32 arrayIndex, uint32 mip) const
{
    uint8* data = nullptr;
    uint32 rowPitch = 0, slicePitch = 0;
    if (!GetSubresourceLayout(arrayIndex, mip, data, rowPitch, slicePitch))
        return false;
    mapped.pData = data;
    mapped.RowPitch = rowPitch;
    mapped.DepthPitch = slicePitch;
    return true;
}

bool Image::UploadData(Texture* texture) const { return UploadData(texture, 0, m_desc.MipLevels); }

bool Image::UploadData(Texture* texture, uint32 firstMip, uint32 count) const
{
    if (!texture || count == 0 || firstMip >= m_desc.MipLevels || count > m_desc.MipLevels - firstMip)
        return false;
    const TextureDesc& t = texture->GetDesc();
    if (t.Width != m_desc.Width || t.Height != m_desc.Height || t.Depth != m_desc.Depth ||
        t.ArraySize != m_desc.ArraySize || t.Format != m_desc.Format)
        return false;
    bool ok = true;
    for (uint32 mip = firstMip; mip < firstMip + count; ++mip)
        for (uint32 a = 0; a < m_desc.ArraySize; ++a)
        {
            MappedSubresource mapped;
            if (!GetMappedSubresource(mapped, a, mip) || !mapped.pData)
                continue;
            MappedBox box;
            box.right = m_desc.GetMipWidth(mip);
            box.bottom = m_desc.GetMipHeight(mip);
            box.back = m_desc.GetMipDepth(mip);
            ok = texture->UpdateSubresource(mip + m_desc.MipLevels * a, mapped, &box) && ok;
        }
    return ok;
}

bool Image::ConvertToDeviceCompatibleFormat()
{
    Renderer* renderer = g_ptrRenderer.Get();
    if (!renderer)
        return false;
    const uint32 format = m_desc.Format;
    const GraphicsFormat current(GraphicsFormat::TYPE(format < GraphicsFormat::COUNT ? format : 0));
    if (format != 0 && format < GraphicsFormat::COUNT &&
        renderer->CheckTextureFormat(current, TextureDimension::_2D, unsigned(GraphicsView::ShaderResource),
                                     GraphicsResourceUsage::Default, 0))
        return true;
    const uint32 compatible = uint32(renderer->GetCompatibleTextureFormat(current));
    if (compatible == 0)
    {
        Log::Format(LOG_WARNING, u"can't find compatible format for %s.\n", FormatName(format));
        return false;
    }
    return Convert(compatible, true);
}

Ptr<Image> Image::LoadImage(const WString& path)
{
    StreamManager* streams = StreamManager::Ins();
    Ptr<Stream> stream = streams ? streams->OpenStream(path) : Ptr<Stream>();
    Ptr<ImageLoader> loader = stream ? ImageLoader::CreateLoader(stream.Get()) : Ptr<ImageLoader>();
    if (!loader)
        return nullptr;
    loader->SetStream(stream);
    return loader->Load() ? loader->GetImage() : nullptr;
}

bool Image::ConvertUncompressed(uint32 format, bool allMips)
{
    if (!m_data)
        return false;
    const uint32 from = m_desc.Format;
    if (from == format)
        return true;
    std::unique_ptr<ImageFormatConverter> converter(ImageFormatConverter::Create(int(format), int(from)));
    if (!converter)
    {
        Log::Format(LOG_WARNING, u"Can't convert image format from %s to %s", FormatName(from), FormatName(format));
        return false;
    }
    TextureDesc target = m_desc;
    target.Format = format;
    uint32 size = 0;
    if (!IsDescUsable(target, size) || m_desc.GetDataOffset(m_desc.ArraySize, 0, 0, from) > m_dataSize)
        return false;
    const bool inPlace = size == m_dataSize && converter->GetTargetStride() == converter->GetSourceStride();
    uint8* out = inPlace ? m_data : static_cast<uint8*>(std::calloc(size, 1));
    if (!out)
        return false;
    const uint32 mips = allMips ? m_desc.MipLevels : 1;
    for (uint32 mip = 0; mip < mips; ++mip)
    {
        uint32 sourceRow = 0, targetRow = 0, rows = 0;
        m_desc.GetRowPitch(sourceRow, rows, mip, from);
        target.GetRowPitch(targetRow, rows, mip, format);
        const uint32 w = m_desc.GetMipWidth(mip), h = m_desc.GetMipHeight(mip), slices = m_desc.GetMipDepth(mip);
        for (uint32 a = 0; a < m_desc.ArraySize; ++a)
            for (uint32 s = 0; s < slices; ++s)
                converter->Execute(out + target.GetDataOffset(a, mip, s, format),
                                   m_data + m_desc.GetDataOffset(a, mip, s, from), targetRow, sourceRow, w, h);
    }
    if (!inPlace)
    {
        std::free(m_data);
        m_data = out;
        m_dataSize = size;
    }
    m_desc.Format = format;
    return true;
}

bool Image::Convert(uint32 format, bool allMips)
{
    if (m_desc.Format == format)
        return true;
    if (!IsBlockCompressed(format) && !IsBlockCompressed(m_desc.Format))
        return ConvertUncompressed(format, allMips);
    std::unique_ptr<ImageConverter> converter;
    if (format >= GraphicsFormat::PVRTC_RGB_2BPP && format <= GraphicsFormat::PVRTC_RGBA_4BPP)
        converter.reset(new ImageConverter_PVR());
    else
        converter.reset(new ImageConverter_BC());
    return converter->Convert(*this, format, allMips);
}

bool Image::GenerateMipmaps(bool convertBack)
{
    if (m_desc.MipLevels <= 1)
        return false;
    const uint32 previous = m_desc.Format;
    const uint32 work = MipWorkFormat(previous);
    BoxFilterFn filter = BoxFilterFor(work);
    if (!filter)
    {
        Log::Format(LOG_WARNING, u"Generate mipmap failed, not support format [%s].\n", FormatName(previous));
        return false;
    }
    if (!m_data || !Convert(work, false))
        return false;
    for (uint32 mip = 1; mip < m_desc.MipLevels; ++mip)
    {
        if (m_desc.GetMipDepth(mip) > 1)
            continue; // volumes keep their deeper levels as they are
        uint32 sourcePitch = 0, targetPitch = 0, rows = 0;
        m_desc.GetRowPitch(sourcePitch, rows, mip - 1, work);
        m_desc.GetRowPitch(targetPitch, rows, mip, work);
        for (uint32 a = 0; a < m_desc.ArraySize; ++a)
            filter(GetData(a, mip, 0), targetPitch, m_desc.GetMipWidth(mip), m_desc.GetMipHeight(mip),
                   GetData(a, mip - 1, 0), sourcePitch, m_desc.GetMipWidth(mip - 1), m_desc.GetMipHeight(mip - 1));
    }
    if (convertBack && work != previous)
        return Convert(previous, true);
    return true;
}

bool Image::Save(Serializer* serializer) const
{
    if (!serializer || !serializer->Enter(kImageTag))
        return false;
    bool ok = serializer->Write(kDescTag, &m_desc, DescLayout());
    const bool created = m_dataSize != 0 && m_data;
    ok = ok && serializer->Write(kCreatedTag, created);
    if (ok && created)
        ok = serializer->Write(kDataTag, m_data, m_dataSize);
    serializer->Leave();
    return ok;
}

bool Image::Load(Serializer* serializer)
{
    if (!serializer || !serializer->Enter(kImageTag))
        return false;
    TextureDesc desc;
    bool created = false;
    bool ok = serializer->Read(kDescTag, &desc, DescLayout()) && serializer->Read(kCreatedTag, created);
    uint8* data = nullptr;
    uint32 size = 0;
    if (ok && created)
    {
        // The buffer is sized from the desc, so a desc that claims more than
        // the input holds is refused before anything is allocated.
        const Ptr<Stream>& stream = serializer->GetStream();
        ok = IsDescUsable(desc, size) && stream && uint64(size) <= uint64(stream->GetSize());
        if (ok)
            data = static_cast<uint8*>(std::malloc(size));
        unsigned count = size;
        ok = ok && data && serializer->Read(kDataTag, data, count, false) && count == size;
    }
    serializer->Leave();
    if (!ok)
    {
        std::free(data);
        Log::Print(LOG_WARNING, u"Image: the serialized image is damaged.\n");
        return false;
    }
    m_desc = desc;
    std::free(m_data);
    m_data = data;
    m_dataSize = created ? size : 0;
    m_firstResidentMip = 0;
    return true;
}

} // namespace KovexEngine
