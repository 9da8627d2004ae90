// Runs a fuzz target without libFuzzer: over every file of the corpus
// directories given, then over a fixed number of generated inputs. This is
// how the test suite exercises the targets on every build.
//
//   <Target>Replay [-timeout=seconds] [-runs=count] corpus-dir...
//
// Each input has a time bound (10 s unless told): an input that runs past it
// is written to "replay-timeout-<target>" in the working directory, named on
// standard error, and the run fails at once instead of stalling the suite.

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

// What the alarm handler reports: only async-signal-safe calls there.
const uint8_t* g_input = nullptr;
size_t g_inputSize = 0;
char g_label[512] = "";
char g_savePath[256] = "replay-timeout";

void WriteAll(int fd, const void* data, size_t size)
{
    const char* p = static_cast<const char*>(data);
    while (size)
    {
        ssize_t n = write(fd, p, size);
        if (n <= 0)
            return;
        p += n;
        size -= size_t(n);
    }
}

void OnTimeout(int)
{
    const char* lines[] = {"replay: ", g_label, " ran past its time bound; the input is saved as ", g_savePath, "\n"};
    for (const char* line : lines)
        WriteAll(2, line, std::strlen(line));
    int fd = open(g_savePath, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd >= 0)
    {
        WriteAll(fd, g_input, g_inputSize);
        close(fd);
    }
    _exit(3);
}

void RunBounded(const std::vector<uint8_t>& input, const std::string& label, unsigned seconds)
{
    g_input = input.data();
    g_inputSize = input.size();
    std::snprintf(g_label, sizeof g_label, "%s", label.c_str());
    alarm(seconds);
    LLVMFuzzerTestOneInput(input.data(), input.size());
    alarm(0);
}

// Values that make counts, lengths and offsets absurd: the edges of the
// integer ranges and sizes just past what a file can hold.
const uint32_t kWords[] = {0, 1, 2, 0x7F, 0x80, 0xFF, 0x100, 0x7FFF, 0xFFFF, 0x10000, 0xFFFFFF, 0x1000000,
                           0x7FFFFFFF, 0x80000000, 0xFFFFFFFE, 0xFFFFFFFF};
const char* const kNumbers[] = {"0", "-1", "-5", "1", "255", "65536", "2147483647", "2147483648", "4294967295",
                                "4294967296", "99999999999999999999", "-2147483648", "1e38", "nan", "", ";"};

std::vector<uint8_t> Mutate(const std::vector<std::vector<uint8_t>>& seeds, std::mt19937& random)
{
    std::vector<uint8_t> input = seeds.empty() ? std::vector<uint8_t>() : seeds[random() % seeds.size()];
    // Mostly one or two edits, which keep a file's structure and reach the
    // code behind it; now and then many.
    unsigned edits = random() % 8 == 0 ? 1 + random() % 8 : 1 + random() % 2;
    for (unsigned e = 0; e < edits; ++e)
    {
        unsigned kind = random() % 6;
        size_t at = input.empty() ? 0 : random() % input.size();
        switch (kind)
        {
        case 0: // a flipped byte
            if (!input.empty())
                input[at] = uint8_t(random());
            break;
        case 1: // an inserted byte
            input.insert(input.begin() + long(at), uint8_t(random()));
            break;
        case 2: // a dropped byte
            if (!input.empty())
                input.erase(input.begin() + long(at));
            break;
        case 3: // a little-endian word of an extreme value, where counts lie
        {
            uint64_t word = kWords[random() % std::size(kWords)];
#ifdef KOVEX_REPLAY_EDGE_VALUES
            // Formats with 64-bit sizes and offsets: whole 8-byte fields, sign-extended.
            unsigned width = 1u << (random() % 4);
            if (width == 8 && (word & 0x80000000u))
                word |= 0xFFFFFFFF00000000ull;
#else
            unsigned width = 1u << (random() % 3);
#endif
            for (unsigned b = 0; b < width && at + b < input.size(); ++b)
                input[at + b] = uint8_t(word >> (8 * b));
            break;
        }
        case 4: // a number in text replaced by an extreme one
        {
            size_t start = at;
            while (start < input.size() && !(input[start] >= '0' && input[start] <= '9'))
                ++start;
            size_t end = start;
            while (end < input.size() && ((input[end] >= '0' && input[end] <= '9') || input[end] == '.'))
                ++end;
            const char* number = kNumbers[random() % std::size(kNumbers)];
            input.erase(input.begin() + long(start), input.begin() + long(end));
            input.insert(input.begin() + long(start), number, number + std::strlen(number));
            break;
        }
        default: // a stretch of another seed spliced in, or a stretch repeated
        {
            if (seeds.empty())
                break;
            const std::vector<uint8_t>& other = seeds[random() % seeds.size()];
            if (other.empty())
                break;
            size_t from = random() % other.size();
            size_t length = 1 + random() % std::min<size_t>(64, other.size() - from);
            std::vector<uint8_t> piece(other.begin() + long(from), other.begin() + long(from + length));
            input.insert(input.begin() + long(std::min(at, input.size())), piece.begin(), piece.end());
            break;
        }
        }
    }
    return input;
}

} // namespace

int main(int argc, char** argv)
{
    unsigned seconds = 10;
    unsigned runs = 3000;
    std::vector<std::string> directories;
    for (int i = 1; i < argc; ++i)
    {
        if (std::strncmp(argv[i], "-timeout=", 9) == 0)
            seconds = unsigned(std::max(1, std::atoi(argv[i] + 9)));
        else if (std::strncmp(argv[i], "-runs=", 6) == 0)
            runs = unsigned(std::max(0, std::atoi(argv[i] + 6)));
        else
            directories.emplace_back(argv[i]);
    }
    std::string program = std::filesystem::path(argv[0]).filename().string();
    std::snprintf(g_savePath, sizeof g_savePath, "replay-timeout-%s", program.c_str());
    struct sigaction action = {};
    action.sa_handler = OnTimeout;
    sigaction(SIGALRM, &action, nullptr);

    unsigned files = 0;
    std::vector<std::vector<uint8_t>> seeds;
    for (const std::string& directory : directories)
    {
        // In name order, so that the generated inputs are the same on every machine.
        std::vector<std::filesystem::path> paths;
        std::error_code error;
        for (const auto& entry : std::filesystem::directory_iterator(directory, error))
            if (entry.is_regular_file())
                paths.push_back(entry.path());
        std::sort(paths.begin(), paths.end());
        for (const auto& path : paths)
        {
            std::ifstream in(path, std::ios::binary);
            std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
            RunBounded(bytes, path.string(), seconds);
            seeds.push_back(std::move(bytes));
            ++files;
        }
    }
    std::mt19937 random(12345);
    unsigned generated = 0;
    for (; generated < runs; ++generated)
    {
        std::vector<uint8_t> input = Mutate(seeds, random);
        RunBounded(input, "generated input " + std::to_string(generated), seconds);
    }
    std::printf("replayed %u corpus files and %u generated inputs\n", files, generated);
    return EXIT_SUCCESS;
}
