#include "graphics/vulkan/VulkanTestSupport.h"

#include <dlfcn.h>
#include <stdlib.h>
#include <string.h>

#include <fstream>

#include "images/ImageLoaderPNG.h"
#include "io/MemoryStream.h"

using namespace KovexEngine;

namespace KovexTest {

namespace {

// The loader unloads the driver and the layer with the last instance, and
// lavapipe and the layer keep allocations in their globals that they never
// free: each load orphans them, and the leak checker reports what the
// unloaded library held. Loaded once for the life of the test program, they
// keep (and reuse) that memory. Where they are missing this does nothing.
const bool s_driversPinned = [] {
    for (const char* library : {"libvulkan_lvp.so", "libVkLayer_khronos_validation.so"})
        dlopen(library, RTLD_NOW | RTLD_NODELETE);
    return true;
}();

} // namespace

Ptr<Image> ReadBack(Texture* texture, uint32 arrayIndex, uint32 mip)
{
    VulkanRenderer* renderer = VulkanRenderer::Get();
    std::vector<uint8> bytes;
    if (!renderer || !texture || !renderer->ReadTexture(texture, arrayIndex, mip, bytes))
        return Ptr<Image>();
    TextureDesc desc = TextureFactory::Make2DDesc(texture->GetDesc().GetMipWidth(mip),
                                                  texture->GetDesc().GetMipHeight(mip), texture->GetFormat(), 0);
    Ptr<Image> image(new Image());
    if (!image->Create(desc) || image->GetDataSize() != bytes.size())
        return Ptr<Image>();
    memcpy(image->GetData(), bytes.data(), bytes.size());
    return image;
}

namespace {

bool SavePng(const Ptr<Image>& image, const std::string& path)
{
    if (!image)
        return false;
    auto* data = new DataStream();
    bool ok = false;
    {
        Ptr<Stream> out(new MemoryStream(data, false));
        out->SetWriteable(true);
        if (out->Open() && ImageLoaderPNG::StaticSave(image.Get(), out.Get()))
        {
            std::ofstream(path, std::ios::binary)
                .write(reinterpret_cast<const char*>(data->GetPointer()), std::streamsize(data->GetLength()));
            ok = true;
        }
    }
    delete data;
    return ok;
}

void Save(const Ptr<Image>& image, const std::string& stem)
{
    if (!image)
        return;
    if (SavePng(image, stem + ".png"))
        return;
    // Formats the saver does not write go through 8-bit RGBA when the
    // converter has them, else as their raw bytes.
    Ptr<Image> copy(new Image());
    if (copy->Create(image->GetDesc()) && copy->GetDataSize() == image->GetDataSize())
    {
        memcpy(copy->GetData(), image->GetData(), image->GetDataSize());
        if (copy->Convert(GraphicsFormat::R8G8B8A8_UNORM, false) && SavePng(copy, stem + ".png"))
            return;
    }
    std::ofstream(stem + ".raw", std::ios::binary)
        .write(reinterpret_cast<const char*>(image->GetData()), std::streamsize(image->GetDataSize()));
}

} // namespace

std::string WriteSideBySide(const std::string& name, const Ptr<Image>& actual, const Ptr<Image>& expected)
{
    char pattern[] = "/tmp/kovex-pixels-XXXXXX";
    const char* dir = mkdtemp(pattern);
    if (!dir)
        return "(no directory could be made)";
    Save(actual, std::string(dir) + "/" + name + "-actual");
    Save(expected, std::string(dir) + "/" + name + "-expected");
    return dir;
}

} // namespace KovexTest
