// Fuzz target: bytes loaded by the JPEG loader, chosen by extension so that
// inputs without a JFIF segment reach it too.
#include "fuzz/LoaderFuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return KovexFuzz::RunLoader(data, size, u"fuzz.jpg");
}
