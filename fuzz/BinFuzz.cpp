// Fuzz target: the binary serializer. Inputs without its header are ignored
// so that the fuzzer's effort goes to the table and the blocks.
#include "fuzz/SerializerFuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 8 || std::memcmp(data, "<BIN />\n", 8) != 0)
        return 0;
    return KovexFuzz::Run(data, size);
}
