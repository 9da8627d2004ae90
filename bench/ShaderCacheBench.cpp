// A second run's programs out of "shader.cache": the file opened (tables and
// records read and checked) and the byte code of 200 programs read back,
// beside reading the same bytes with plain pread from an open descriptor.

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "kernel/StringConv.h"
#include "shaders/ProgramCachedLibrary.h"

using namespace KovexEngine;

namespace {

constexpr unsigned kPrograms = 200;

struct CacheOf200
{
    std::string dir, path;
    std::vector<ProgramCachedLibrary::Key> keys;
    std::vector<std::pair<uint32, uint32>> spans; // chunk offset, size

    CacheOf200()
    {
        char pattern[] = "/tmp/kovex-cache-bench-XXXXXX";
        dir = mkdtemp(pattern);
        path = dir + "/shader.cache";
        ProgramCachedLibrary::Destroy();
        ProgramCachedLibrary* lib = ProgramCachedLibrary::Ins();
        lib->SetFilePath(StringConvFuncs::ToWString(path.c_str()));
        // Sizes of typical SPIR-V stages: a few kilobytes each.
        std::vector<uint32> vs(1500), ps(1000);
        for (unsigned i = 0; i < kPrograms; ++i)
        {
            for (size_t w = 0; w < vs.size(); ++w)
                vs[w] = uint32(i * 7919 + w);
            for (size_t w = 0; w < ps.size(); ++w)
                ps[w] = uint32(i * 104729 + w);
            ProgramCachedLibrary::Key key;
            key.Words[3] = lib->GetNameId(0, "[PLATFORM=4];[SM5];");
            key.Words[1] = lib->GetNameId(1, AString(("Fw" + std::to_string(i % 4) + "@fw.ksl#1").c_str()));
            key.Words[0] = lib->GetNameId(2, AString(("Ab" + std::to_string(i % 10) + "@ab.ksl#2").c_str()));
            key.Words[2] = lib->GetNameId(3, AString(("Mt" + std::to_string(i) + "@mt.ksl#3").c_str()));
            const void* codes[6] = {vs.data(), ps.data()};
            uint32 sizes[6] = {uint32(vs.size() * 4), uint32(ps.size() * 4)};
            const ProgramCachedLibrary::Record* r = lib->CacheStages(key, codes, sizes);
            if (!r)
                abort();
            keys.push_back(key);
            spans.emplace_back(r->Offset, r->Size);
        }
        ProgramCachedLibrary::Destroy();
    }
    ~CacheOf200() { std::filesystem::remove_all(dir); }
};

CacheOf200& Cache()
{
    static CacheOf200 cache;
    return cache;
}

void BM_ShaderCache_Load200Programs(benchmark::State& state)
{
    CacheOf200& cache = Cache();
    const WString path = StringConvFuncs::ToWString(cache.path.c_str());
    size_t bytes = 0;
    for (auto _ : state)
    {
        ProgramCachedLibrary::Destroy();
        ProgramCachedLibrary* lib = ProgramCachedLibrary::Ins();
        lib->SetFilePath(path);
        for (const auto& key : cache.keys)
        {
            const ProgramCachedLibrary::Record* r = lib->Find(key);
            TArray<uint8> codes[6];
            if (!r || !lib->ReadStages(*r, codes))
                state.SkipWithError("a program was not found");
            bytes += codes[0].Count() + codes[1].Count();
            benchmark::DoNotOptimize(codes[0].Data());
        }
    }
    ProgramCachedLibrary::Destroy();
    state.SetBytesProcessed(int64_t(bytes));
}
BENCHMARK(BM_ShaderCache_Load200Programs)->Unit(benchmark::kMicrosecond)->UseRealTime();

// The same chunks read with pread into buffers, the file opened and closed
// as the library does: what reading the byte code costs at the least.
void BM_Pread_Same200Chunks(benchmark::State& state)
{
    CacheOf200& cache = Cache();
    size_t bytes = 0;
    std::vector<char> buffer;
    for (auto _ : state)
    {
        int fd = open(cache.path.c_str(), O_RDONLY | O_CLOEXEC);
        for (const auto& span : cache.spans)
        {
            std::vector<char> chunk(span.second);
            if (pread(fd, chunk.data(), span.second, span.first) != ssize_t(span.second))
                state.SkipWithError("short read");
            bytes += span.second;
            benchmark::DoNotOptimize(chunk.data());
        }
        close(fd);
    }
    state.SetBytesProcessed(int64_t(bytes));
}
BENCHMARK(BM_Pread_Same200Chunks)->Unit(benchmark::kMicrosecond)->UseRealTime();

} // namespace

namespace {

// Only the opening: footer, tables, records and every chunk's stage headers
// read and checked.
void BM_ShaderCache_Open200Programs(benchmark::State& state)
{
    CacheOf200& cache = Cache();
    const WString path = StringConvFuncs::ToWString(cache.path.c_str());
    for (auto _ : state)
    {
        ProgramCachedLibrary::Destroy();
        ProgramCachedLibrary* lib = ProgramCachedLibrary::Ins();
        lib->SetFilePath(path);
        if (lib->GetCount() != kPrograms)
            state.SkipWithError("programs missing");
    }
    ProgramCachedLibrary::Destroy();
}
BENCHMARK(BM_ShaderCache_Open200Programs)->Unit(benchmark::kMicrosecond)->UseRealTime();

} // namespace
