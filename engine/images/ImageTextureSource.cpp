// Installs the image layer as the texture factory's source of pixels, so
// that graphics makes textures from images, streams and paths without
// knowing images.

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
    if (image && g_ptrRenderer)
    {
        uint32 wanted = uint32(g_ptrRenderer->GetCompatibleTextureFormat(
            GraphicsFormat(GraphicsFormat::TYPE(image->GetDesc().Format < GraphicsFormat::COUNT ? image->GetDesc().Format : 0))));
        if (wanted != image->GetDesc().Format && !image->Convert(wanted, true))
        {
            out.Reason = u"its format does not convert";
            return false;
        }
    }
    return Describe(image, out);
}

const bool s_installed = [] {
    TextureFactory::SetImageSource(TextureImageSource{&FromImage, &FromStream});
    return true;
}();

} // namespace

} // namespace KovexEngine
