// Fuzz target: bytes taken as "shader.cache". The inspection reads them;
// then the library opens them as its file (which checks, recovers an
// earlier footer or replaces the file), loads three known programs (a
// drawing one, one with a geometry stage, a compute one) whose keys the
// seeds hold, caches a program and must find its bytes again.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "fuzz/QuietLog.h"
#include "graphics/Renderer.h"
#include "graphics/Shader.h"
#include "kernel/EngineGlobals.h"
#include "kernel/StringConv.h"
#include "lifecycle/Engine.h"
#include "shaders/PGCode.h"
#include "shaders/Program.h"
#include "shaders/ProgramCachedLibrary.h"

namespace {

using namespace KovexEngine;

struct World
{
    std::string path;
    Ptr<PGFramework> fw;
    Ptr<PGAttribute> ab;
    Ptr<PGMaterial> mt;
    PGConfFW* plain = nullptr;
    PGConfFW* withGS = nullptr;
    PGConfFW* compute = nullptr;

    World()
    {
        KovexFuzz::QuietLog();
        g_IsNullRenderer = true;
        Kovex_Main_Initialize();
        Renderer::SetupPlatformAuto();
        GraphicsParameters parameters;
        parameters.Width = 64;
        parameters.Height = 64;
        Kovex_InitRenderer(parameters);
        path = "/tmp/kovex-shader-cache-fuzz-" + std::to_string(::getpid());
        fw = new PGFramework(u"Fuzz.FW", u"", "framework");
        ab = new PGAttribute(u"Fuzz.AB", u"", "attribute");
        mt = new PGMaterial(u"Fuzz.MT", u"", "material");
        fw->ValidateDefault();
        ab->ValidateDefault();
        mt->ValidateDefault();
        plain = static_cast<PGConfFW*>(fw->GetCurConf());
        withGS = static_cast<PGConfFW*>(fw->CreateConfig(u"GS"));
        withGS->SetUsesGeometryStage(true);
        compute = static_cast<PGConfFW*>(fw->CreateConfig(u"CS"));
    }
    ~World() { std::remove(path.c_str()); }
};

World& GetWorld()
{
    static World world;
    return world;
}

Ptr<Shader> MakeShader(ShaderType type, uint32_t words)
{
    uint32_t* code = static_cast<uint32_t*>(std::malloc(words * 4));
    for (uint32_t i = 0; i < words; ++i)
        code[i] = 0x07230203u + i * 977u + uint32_t(type.value);
    return ShaderFactory::Get()->CreateShader(type, code, words * 4);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    World& w = GetWorld();
    ProgramCachedLibrary::Inspection inspection;
    ProgramCachedLibrary::InspectBytes(data, size, inspection);

    ProgramCachedLibrary::Destroy();
    if (std::FILE* f = std::fopen(w.path.c_str(), "wb"))
    {
        if (size)
            std::fwrite(data, 1, size, f);
        std::fclose(f);
    }
    ProgramCachedLibrary* library = ProgramCachedLibrary::Ins();
    library->SetFilePath(StringConvFuncs::ToWString(w.path.c_str()));
    library->GetCount();

    Ptr<Program> a(new Program(w.plain, static_cast<PGConfAB*>(w.ab->GetCurConf()),
                               static_cast<PGConfMT*>(w.mt->GetCurConf())));
    Ptr<Program> b(new Program(w.withGS, static_cast<PGConfAB*>(w.ab->GetCurConf()), nullptr));
    Ptr<ComputeProgram> c(new ComputeProgram(w.compute));
    library->LoadFromCache(a.Get(), 1);
    library->LoadFromCache(b.Get(), 2);
    library->LoadFromCache(c.Get(), 3);

    // What the library writes it must read back, whatever it was given (a
    // key the input lists already keeps the input's entry).
    Ptr<Program> fresh(new Program(w.plain, nullptr, nullptr));
    fresh->SetShader(ShaderType::Vertex, MakeShader(ShaderType::Vertex, 3));
    fresh->SetShader(ShaderType::Pixel, MakeShader(ShaderType::Pixel, 5));
    const uint64 hash = 0xF00D0000u + size;
    const bool listed = library->Find(fresh.Get(), hash) != nullptr;
    if (library->Cache(fresh.Get(), hash) && !listed)
    {
        Ptr<Program> probe(new Program(w.plain, nullptr, nullptr));
        if (!library->LoadFromCache(probe.Get(), hash) ||
            std::memcmp(probe->GetShader(ShaderType::Pixel)->GetShaderCode(),
                        fresh->GetShader(ShaderType::Pixel)->GetShaderCode(), 20) != 0)
            __builtin_trap();
    }
    // Seeds: KOVEX_SHADER_CACHE_SEED=file caches the three known programs
    // and copies the file there.
    if (const char* seed = std::getenv("KOVEX_SHADER_CACHE_SEED"))
    {
        a->SetShader(ShaderType::Vertex, MakeShader(ShaderType::Vertex, 6));
        a->SetShader(ShaderType::Pixel, MakeShader(ShaderType::Pixel, 7));
        b->SetShader(ShaderType::Vertex, MakeShader(ShaderType::Vertex, 4));
        b->SetShader(ShaderType::Pixel, MakeShader(ShaderType::Pixel, 4));
        b->SetShader(ShaderType::Geometry, MakeShader(ShaderType::Geometry, 9));
        c->SetShader(ShaderType::Compute, MakeShader(ShaderType::Compute, 8));
        library->Cache(a.Get(), 1);
        library->Cache(b.Get(), 2);
        library->Cache(c.Get(), 3);
        ProgramCachedLibrary::Destroy();
        std::filesystem::copy_file(w.path, seed, std::filesystem::copy_options::overwrite_existing);
    }
    ProgramCachedLibrary::Destroy();
    // Released shaders are deleted at the factories' next tick.
    Kovex_FrameBegin();
    Kovex_FrameEnd();
    return 0;
}
