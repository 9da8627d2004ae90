// Installs the image layer as the texture factory's source of pixels, so
// that graphics makes textures from images, streams and paths without
// knowing images, and streams large DDS files (graphics/TextureStreaming.h).

#include "graphics/Renderer.h"
#include "graphics/TextureFactory.h"
#include "images/Image.h"
#include "images/ImageLoader.h"
#include "io/Stream.h"

namespace KovexEngine {

namespace {

bool Describe(const Ptr<Image>& image, TextureSource& out)
{
    if (!image || !image->GetData())
    {
        out.Reason = u"image has no pixels";
        return false;
    }
    out.Desc = image->GetDesc();
    out.Data = image->GetData();
    out.Size = image->GetDataSize();
    out.Owner = Ptr<Object>(image.Get());
    return true;
}

bool FromImage(const Ptr<Object>& object, TextureSource& out)
{
    Image* image = object && object->IsKindOf(Image::StaticGetClass()) ? static_cast<Image*>(object.Get()) : nullptr;
    if (!image)
    {
        out.Reason = u"not an image";
        return false;
    }
    return Describe(Ptr<Image>(image), out);
}

bool FromStream(const Ptr<Stream>& stream, TextureSource& out)
{
    Ptr<ImageLoader> loader = ImageLoader::CreateLoader(stream.Get());
    if (!loader)
    {
        out.Reason = u"no loader takes it";
        return false;
    }
    loader->SetStream(stream);
    if (!loader->Load())
    {
        out.Reason = u"its pixels do not load";
        return false;
    }
    Ptr<Image> image = loader->GetImage();
    // The image is ours: convert it to what the device takes.
    if (image && g_ptrRenderer && !image->ConvertToDeviceCompatibleFormat())
    {
        out.Reason = u"its format does not convert";
        return false;
    }
    return Describe(image, out);
}

// A loader that streams, driven level by level from the Texture Thread.
class LoaderStreamingLoad final : public TextureStreamingLoad
{
public:
    explicit LoaderStreamingLoad(const Ptr<ImageLoader>& loader) : m_loader(loader) {}
    bool Step() override
    {
        const bool ok = m_loader->Continue();
        if (!ok || m_loader->IsCompleted())
            m_loader->End();
        return ok;
    }
    bool IsCompleted() const override { return m_loader->IsCompleted(); }
    uint32 GetFirstResidentMip() const override { return m_loader->GetImage()->GetFirstResidentMip(); }
    bool Upload(Texture* texture, uint32 firstMip, uint32 count) override
    {
        return m_loader->UploadData(texture, firstMip, count);
    }

private:
    Ptr<ImageLoader> m_loader;
};

// Bytes of a level, all array slices.
uint64 LevelBytes(const TextureDesc& desc, uint32 mip)
{
    return desc.GetSlicePitch(mip, desc.Format) * desc.GetMipDepth(mip) * desc.ArraySize;
}

// The levels read before the texture is handed out: those up to this size.
constexpr uint64 kFirstLevelBytes = 64 * 1024;

bool TryBeginStream(const Ptr<Stream>& stream, TextureSource& out, Ptr<TextureStreamingLoad>& load)
{
    Ptr<ImageLoader> loader = ImageLoader::CreateLoader(stream.Get());
    if (!loader || !loader->SupportStreaming())
        return false;
    loader->SetStream(stream);
    if (!loader->Parse())
        return false;
    const TextureDesc desc = loader->GetDesc();
    // A streamed image is never converted: the device must take it as it is.
    if (desc.MipLevels < 2 || LevelBytes(desc, 0) < TextureFactory::GetStreamingThreshold() ||
        !ImageLoader::SupportFormat(desc.Format))
        return false;
    uint32 first = desc.MipLevels - 1;
    while (first > 1 && LevelBytes(desc, first - 1) <= kFirstLevelBytes)
        --first;
    if (!loader->Begin(first))
    {
        loader->End();
        return false;
    }
    if (!Describe(loader->GetImage(), out))
        return false;
    load = Ptr<TextureStreamingLoad>(new LoaderStreamingLoad(loader));
    return true;
}

bool BeginStream(const Ptr<Stream>& stream, TextureSource& out, Ptr<TextureStreamingLoad>& load)
{
    if (!stream || TextureFactory::GetStreamingThreshold() == 0 || !g_ptrRenderer)
        return false;
    // A stream not taken goes on to the whole load from where it stood.
    const int64 position = stream->GetPosition();
    if (TryBeginStream(stream, out, load))
        return true;
    if (stream->IsOpenned())
        stream->SetPosition(position);
    return false;
}

const bool s_installed = [] {
    TextureFactory::SetImageSource(TextureImageSource{&FromImage, &FromStream, &BeginStream});
    return true;
}();

} // namespace

} // namespace KovexEngine
