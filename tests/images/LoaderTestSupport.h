#pragma once

#include <string>

#include "images/ImageLoader.h"
#include "serialization/SerializerTestSupport.h"

namespace KovexTest {

// The loader the registry picks for `file` by content, after Load; `ok`
// says whether the load succeeded. Null when no loader takes the bytes.
inline KovexEngine::Ptr<KovexEngine::ImageLoader> LoadImageFile(const std::string& file, bool& ok)
{
    using namespace KovexEngine;
    Ptr<Stream> stream = ReadStream(file);
    Ptr<ImageLoader> loader = ImageLoader::CreateLoader(stream.Get());
    ok = false;
    if (!loader)
        return nullptr;
    loader->SetStream(stream);
    ok = loader->Load();
    return loader;
}

} // namespace KovexTest
