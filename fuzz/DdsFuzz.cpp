// Fuzz target: bytes loaded by the DDS loader, chosen by extension.
#include "fuzz/LoaderFuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return KovexFuzz::RunLoader(data, size, u"fuzz.dds");
}
