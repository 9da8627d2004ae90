#pragma once

#include <atomic>

#include <string>

#include "io/StreamManager.h"
#include "kernel/StringConv.h"
#include "shaders/ProgramCompiler.h"

// A program compiler that compiles nothing: it counts the programs it is
// asked to compile and succeeds or fails as told, so lookups and caching can
// be tested without a shader front end. Made, it takes the compiler's
// factory slot; destroyed, it gives the slot up.
namespace KovexTest {

class CountingCompiler : public KovexEngine::ProgramCompiler
{
public:
    std::atomic<int> compiles{0};
    std::atomic<int> computeCompiles{0};
    std::atomic<bool> fail{false};

    bool CompileShaders(KovexEngine::BaseProgram*) override
    {
        compiles.fetch_add(1);
        return !fail.load();
    }
    bool CompileComputeShader(KovexEngine::BaseProgram*) override
    {
        computeCompiles.fetch_add(1);
        return !fail.load();
    }
    bool ReflectShaders(KovexEngine::BaseProgram*) override { return true; }
    bool Link(KovexEngine::BaseProgram*) override { return true; }
};

// Makes "[core]" the source tree's Data directory, where the shader
// library's own includes ("[core]shaders/Common.ksl") are read from, unless
// the engine's start already named it. Call it after the engine is up.
inline bool MountCoreData()
{
    using namespace KovexEngine;
    StreamManager* streams = StreamManager::Ins();
    if (!streams->GetPackagePath(WString(u"core")).IsEmpty())
        return true;
    return streams->SetPackagePath(WString(u"core"),
                                   StringConvFuncs::ToWString((std::string(KOVEX_SOURCE_DATA) + "/").c_str()));
}

} // namespace KovexTest
