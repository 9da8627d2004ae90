// Runs a fuzz target without libFuzzer: over every file of the corpus
// directories given, then over a fixed number of generated inputs. This is
// how the test suite exercises the targets on every build.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv)
{
    unsigned files = 0;
    std::vector<std::vector<uint8_t>> seeds;
    for (int i = 1; i < argc; ++i)
    {
        std::error_code error;
        for (const auto& entry : std::filesystem::directory_iterator(argv[i], error))
        {
            if (!entry.is_regular_file())
                continue;
            std::ifstream in(entry.path(), std::ios::binary);
            std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
            LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
            seeds.push_back(std::move(bytes));
            ++files;
        }
    }
    // Mutations of the seeds: flipped, inserted and dropped bytes, and (for
    // targets built with KOVEX_REPLAY_EDGE_VALUES) little-endian fields
    // overwritten with values that sit on the edges of what a reader checks
    // (counts, sizes, offsets and type bytes).
    static const uint64_t kEdges[] = {0, 1, 2, 3, 0x7F, 0x80, 0xFF, 0x100, 0x400, 0x7FFF, 0xFFFF,
                                      0x7FFFFFFF, 0x80000000, 0xFFFFFFFF, ~0ull};
    std::mt19937 random(12345);
    unsigned generated = 0;
    for (; generated < 3000; ++generated)
    {
        std::vector<uint8_t> input = seeds.empty() ? std::vector<uint8_t>() : seeds[random() % seeds.size()];
        unsigned edits = 1 + random() % 8;
        for (unsigned e = 0; e < edits; ++e)
        {
#ifdef KOVEX_REPLAY_EDGE_VALUES
            unsigned kind = random() % 4;
#else
            unsigned kind = random() % 3;
#endif
            size_t at = input.empty() ? 0 : random() % input.size();
            if (kind == 3 && !input.empty())
            {
                uint64_t value = kEdges[random() % (sizeof kEdges / sizeof kEdges[0])];
                size_t width = size_t(1) << (random() % 4);
                for (size_t b = 0; b < width && at + b < input.size(); ++b)
                    input[at + b] = uint8_t(value >> (8 * b));
            }
            else if (kind == 0 && !input.empty())
                input[at] = uint8_t(random());
            else if (kind == 1)
                input.insert(input.begin() + long(at), uint8_t(random()));
            else if (!input.empty())
                input.erase(input.begin() + long(at));
        }
        LLVMFuzzerTestOneInput(input.data(), input.size());
    }
    std::printf("replayed %u corpus files and %u generated inputs\n", files, generated);
    return EXIT_SUCCESS;
}
