#pragma once

#include <string>

#include "io/Stream.h"

namespace KovexTest {

// What a stream holds from its position to its end, "<null>" for no stream
// and "<read failed>" when the read fails.
inline std::string ReadRest(const KovexEngine::Ptr<KovexEngine::Stream>& stream)
{
    if (!stream)
        return "<null>";
    std::string out(size_t(stream->GetSize() - stream->GetPosition()), '\0');
    if (!out.empty() && !stream->Read(out.data(), int(out.size())))
        return "<read failed>";
    return out;
}

} // namespace KovexTest
