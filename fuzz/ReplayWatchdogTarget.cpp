// A target that never returns, for the test that the replay's time bound
// turns a hang into a failure that names the input.
#include <atomic>
#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t*, size_t)
{
    static std::atomic<unsigned> spins{0};
    for (;;)
        spins.fetch_add(1, std::memory_order_relaxed);
}
