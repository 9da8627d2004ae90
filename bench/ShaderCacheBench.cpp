// A second start's shader loading: 200 cached programs (vertex and pixel
// stages of 4 KiB each) loaded from "shader.cache" into programs, the file
// opened and its tables read as a new run does, beside the floor: the same
// chunk bytes read with plain pread into malloc'd buffers.

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "BenchEngine.h"
#include "graphics/Renderer.h"
#include "graphics/Shader.h"
#include "kernel/EngineGlobals.h"
#include "kernel/Log.h"
#include "kernel/StringConv.h"
#include "lifecycle/Engine.h"
#include "shaders/PGCode.h"
#include "shaders/Program.h"
#include "shaders/ProgramCachedLibrary.h"

using namespace KovexEngine;

namespace {

constexpr int kPrograms = 200;
constexpr uint32 kStageWords = 1024;

struct CacheWorld
{
    std::string path = "/tmp/kovex-shader-cache-bench-" + std::to_string(::getpid());
    Ptr<PGFramework> fw;
    Ptr<PGAttribute> ab;
    Ptr<PGMaterial> mt;
    std::vector<const PGConfFW*> confs;
    std::vector<std::pair<uint32, uint32>> chunks; // offset, size

    CacheWorld()
    {
        StartNullEngine();
        fw = new PGFramework(u"Bench.FW", u"", "framework");
        ab = new PGAttribute(u"Bench.AB", u"", "attribute");
        mt = new PGMaterial(u"Bench.MT", u"", "material");
        ab->ValidateDefault();
        mt->ValidateDefault();
        ::unlink(path.c_str());
        ProgramCachedLibrary* library = ProgramCachedLibrary::Ins();
        library->SetFilePath(StringConvFuncs::ToWString(path.c_str()));
        for (int i = 0; i < kPrograms; ++i)
        {
            const PGConfFW* conf =
                static_cast<PGConfFW*>(fw->CreateConfig(WString(u"Pass.") + WString(i)));
            confs.push_back(conf);
            Ptr<Program> program(new Program(conf, AB(), MT()));
            for (ShaderType type : {ShaderType(ShaderType::Vertex), ShaderType(ShaderType::Pixel)})
            {
                uint32* code = static_cast<uint32*>(std::malloc(kStageWords * 4));
                for (uint32 w = 0; w < kStageWords; ++w)
                    code[w] = uint32(i) * 7919u + w;
                program->SetShader(type, ShaderFactory::Get()->CreateShader(type, code, kStageWords * 4));
            }
            library->Cache(program.Get(), uint64(i));
        }
        for (int i = 0; i < kPrograms; ++i)
        {
            Ptr<Program> probe(new Program(confs[i], AB(), MT()));
            const ProgramCachedLibrary::Record* rec = library->Find(probe.Get(), uint64(i));
            chunks.emplace_back(rec->Offset, rec->Size);
        }
        ProgramCachedLibrary::Destroy();
    }
    ~CacheWorld() { ::unlink(path.c_str()); }
    const PGConfAB* AB() const { return static_cast<PGConfAB*>(ab->GetCurConf()); }
    const PGConfMT* MT() const { return static_cast<PGConfMT*>(mt->GetCurConf()); }
};

CacheWorld& World()
{
    static CacheWorld world;
    return world;
}

void BM_ShaderCache_SecondRunLoad200(benchmark::State& state)
{
    CacheWorld& w = World();
    WString path = StringConvFuncs::ToWString(w.path.c_str());
    int64 loaded = 0;
    for (auto _ : state)
    {
        ProgramCachedLibrary::Destroy();
        ProgramCachedLibrary* library = ProgramCachedLibrary::Ins();
        library->SetFilePath(path);
        for (int i = 0; i < kPrograms; ++i)
        {
            Ptr<Program> program(new Program(w.confs[i], w.AB(), w.MT()));
            loaded += library->LoadFromCache(program.Get(), uint64(i));
        }
        // Released shaders are deleted at the factories' next tick, as in a
        // frame.
        state.PauseTiming();
        Kovex_FrameBegin();
        Kovex_FrameEnd();
        state.ResumeTiming();
    }
    ProgramCachedLibrary::Destroy();
    if (loaded != int64(state.iterations()) * kPrograms)
        state.SkipWithError("a program missed the cache");
    state.SetBytesProcessed(int64(state.iterations()) * kPrograms * 2 * kStageWords * 4);
}
BENCHMARK(BM_ShaderCache_SecondRunLoad200)->Unit(benchmark::kMicrosecond);

void BM_Pread_Same200Chunks(benchmark::State& state)
{
    CacheWorld& w = World();
    for (auto _ : state)
    {
        int fd = ::open(w.path.c_str(), O_RDONLY | O_CLOEXEC);
        for (const auto& [offset, size] : w.chunks)
        {
            void* buffer = std::malloc(size);
            if (::pread(fd, buffer, size, off_t(offset)) != ssize_t(size))
                state.SkipWithError("short read");
            benchmark::DoNotOptimize(buffer);
            std::free(buffer);
        }
        ::close(fd);
    }
    state.SetBytesProcessed(int64(state.iterations()) * kPrograms * 2 * kStageWords * 4);
}
BENCHMARK(BM_Pread_Same200Chunks)->Unit(benchmark::kMicrosecond);

} // namespace
