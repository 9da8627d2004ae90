// Fuzz target: bytes loaded by the TGA loader, chosen by extension so that
// inputs without the footer reach it too.
#include "fuzz/LoaderFuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return KovexFuzz::RunLoader(data, size, u"fuzz.tga");
}
