// Fuzz target: bytes loaded by the DDS loader, chosen by extension, then
// the same bytes streamed level by level as the Texture Thread reads them.
#include "fuzz/LoaderFuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    KovexFuzz::RunLoader(data, size, u"fuzz.dds");
    return KovexFuzz::RunStreaming(data, size, u"fuzz.dds");
}
