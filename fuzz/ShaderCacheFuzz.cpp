// Fuzz target: bytes as a "shader.cache". They are inspected, loaded from a
// stream with LoadHeader, and opened as the library's file, where every
// record found is read back, a program whose key the seeds carry is looked
// up with LoadFromCache, and a new program is appended. A file the library
// accepted must still be sound after the append: anything else aborts.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "fuzz/LoaderFuzz.h"
#include "fuzz/QuietLog.h"
#include "graphics/Shader.h"
#include "kernel/StringConv.h"
#include "shaders/PGCode.h"
#include "shaders/Program.h"
#include "shaders/ProgramCachedLibrary.h"

namespace {

using namespace KovexEngine;

struct Fixture
{
    std::string dir;
    std::string path;
    Ptr<PGFramework> fw;
    Ptr<PGMaterial> mt;
    PGConfFW* fwConf = nullptr;
    PGConfMT* mtConf = nullptr;

    Fixture()
    {
        KovexFuzz::QuietLog();
        dir = (std::filesystem::temp_directory_path() / ("kovex-cache-fuzz-" + std::to_string(getpid()))).string();
        std::filesystem::create_directories(dir);
        path = dir + "/shader.cache";
        // Key texts "DEFAULT@Fuzz/Fw.ksl#0000000000000000" and the
        // material's, under "[PLATFORM=none];": the seeds hold them.
        fw = new PGFramework(u"FuzzFw", u"Fuzz/Fw.ksl", "fw");
        mt = new PGMaterial(u"FuzzMt", u"Fuzz/Mt.ksl", "mt");
        fwConf = fw->CreateConfig(u"DEFAULT");
        mtConf = mt->CreateConfig(u"DEFAULT");
    }
    ~Fixture() { std::filesystem::remove_all(dir); }
};

Fixture& Get()
{
    static Fixture fixture;
    return fixture;
}

void Check(bool condition)
{
    if (!condition)
        abort();
}

Ptr<Shader> Code(ShaderType type, uint32 word)
{
    Ptr<Shader> shader(new Shader());
    shader->SetType(type);
    uint32* code = static_cast<uint32*>(malloc(8));
    code[0] = 0x07230203u;
    code[1] = word;
    shader->SetShaderCode(code, 8);
    return shader;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Fixture& f = Get();
    ProgramCachedLibrary::Inspection inspection;
    ProgramCachedLibrary::InspectBytes(data, size, inspection);
    const bool sound = inspection.Problems.IsEmpty();
    if (sound)
        for (const auto& record : inspection.Records)
        {
            uint64 sum = 0;
            for (uint32 stage : record.StageSizes)
                sum += 8 + uint64(stage);
            Check(sum == record.Entry.Size);
        }

    {
        Ptr<Stream> stream = KovexFuzz::InputStream(data, size);
        stream->Open();
        ProgramCachedLibrary::Destroy();
        bool loaded = ProgramCachedLibrary::Ins()->LoadHeader(*stream);
        Check(loaded == (sound && size >= 12));
    }

    std::ofstream(f.path, std::ios::binary | std::ios::trunc).write(reinterpret_cast<const char*>(data), std::streamsize(size));
    ProgramCachedLibrary::Destroy();
    ProgramCachedLibrary* lib = ProgramCachedLibrary::Ins();
    lib->SetFilePath(StringConvFuncs::ToWString(f.path.c_str()));
    unsigned count = lib->GetCount();
    Check(count == (sound ? inspection.Records.Count() : 0));
    for (const auto& record : inspection.Records)
    {
        if (!sound)
            break;
        const ProgramCachedLibrary::Record* found = lib->Find(record.Entry.ProgramKey);
        Check(found != nullptr);
        TArray<uint8> codes[6];
        Check(lib->ReadStages(*found, codes));
    }
    // Without a renderer no shader is made, but the look-up and the reads
    // run on the forged file.
    Ptr<Program> program(new Program(f.fwConf, nullptr, f.mtConf));
    lib->LoadFromCache(program.Get(), 0);
    bool listed = false;
    for (const auto& record : inspection.Records)
        listed |= sound && record.Framework == AString("DEFAULT@Fuzz/Fw.ksl#0000000000000000") &&
                  record.Entry.ProgramKey.Words[0] == 0 && record.MacroString == AString("[PLATFORM=none];") &&
                  record.Material == ProgramCachedLibrary::MakeConfigText(f.mtConf, 0x08a94e07b55033c4ull);
    Check(listed == (lib->Find(program.Get(), 0) != nullptr));

    program->SetShader(ShaderType::Vertex, Code(ShaderType::Vertex, uint32(size)));
    program->SetShader(ShaderType::Pixel, Code(ShaderType::Pixel, uint32(count)));
    lib->Cache(program.Get(), 1 + size);
    ProgramCachedLibrary::Destroy();

    ProgramCachedLibrary::Inspection after;
    Check(ProgramCachedLibrary::InspectFile(StringConvFuncs::ToWString(f.path.c_str()), after));
    Check(after.Problems.IsEmpty());
    if (sound && count > 0)
        Check(after.Records.Count() >= count);
    return 0;
}
