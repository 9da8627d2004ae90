#pragma once

// The program compiler: the graphics factory (slot ProgramCompiler) that
// turns a framework, attribute and material configuration into a linked
// Program, on every platform (the null one too: a test that builds a
// program proves its text compiles).
//
// Compile, in order: preprocess the framework's text once with the include
// handler and the macro set (capabilities, then framework, attribute and
// material configuration, then "ALLOW_TESSELLATION" where it applies); look
// the unit up in "shader.cache" (ProgramCachedLibrary) when the switches
// allow; else compile each stage with glslang's HLSL front end to SPIR-V,
// legalise, validate and reflect it; link (samplers, textures, defaults);
// write new byte code to the cache; post the program to the graphics side.
// Any failure leaves the program Failed, with the log line that says why.
//
// Threads: Compile and CompileCompute are safe from any thread (each
// compile has its own front-end objects; the cache has its own lock); the
// programs they make belong to their caller until posted. The steps, and
// PreprocessUnit and GetMacroSet, are safe from any thread for programs no
// other thread touches; a step called outside Compile preprocesses the unit
// itself. The device's capability macros must not change meanwhile.

#include <atomic>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "graphics/GraphicsObject.h"

namespace KovexEngine {

class SpirvProcess;
class SpirvUnit;

class BaseProgram;
class Program;
class ComputeProgram;
class Shader;
class PGConfFW;
class PGConfAB;
class PGConfMT;
class PGCodeConf;

class KOVEX_API ProgramCompiler : public GraphicsFactory
{
public:
    ProgramCompiler();
    ~ProgramCompiler() override;
    static ProgramCompiler* Get()
    {
        return static_cast<ProgramCompiler*>(GetSlot(FactoryType::ProgramCompiler));
    }

    // A program of these configurations, not compiled yet; null without a
    // framework configuration.
    virtual Ptr<Program> CreateProgram(const PGConfFW* fw, const PGConfAB* ab, const PGConfMT* mt);
    virtual Ptr<ComputeProgram> CreateComputeProgram(const PGCodeConf* conf);

    // The whole of a compile (see above). False, the program Failed, on any
    // failure. `pending` counts the program's posting as M_PostObject does.
    bool Compile(const Ptr<Program>& program, std::atomic<int32>* pending = nullptr);
    bool CompileCompute(const Ptr<ComputeProgram>& program, std::atomic<int32>* pending = nullptr);

    // The steps, for a platform to refine.
    virtual bool CompileShaders(BaseProgram* program);
    virtual bool CompileComputeShader(BaseProgram* program);
    virtual bool ReflectShaders(BaseProgram* program);
    virtual bool Link(BaseProgram* program);
    virtual bool LinkShaders(BaseProgram* program);
    virtual bool LinkShader(Shader* shader, BaseProgram* program);

    // Compilations run since the start (the cache's hits do not count).
    uint64 GetCompileCount() const;

    // The program's unit preprocessed: its framework text with the include
    // handler and the macro set. False, with the log line, when that fails.
    // The unit's hash is the cache key of its byte code.
    bool PreprocessUnit(BaseProgram* program, SpirvUnit& unit);
    // The macro set of a program, in order: capabilities, the program's own,
    // then "ALLOW_TESSELLATION" where it applies.
    void GetMacroSet(BaseProgram* program, std::vector<std::pair<std::string, std::string>>& out) const;
    // Tessellation is in force: the material asks for it, the device has it
    // and the framework is flagged as aware of it.
    static bool UsesTessellation(const BaseProgram* program);

private:
    bool CompileStages(BaseProgram* program, SpirvUnit& unit, const ShaderType* stages, unsigned count);
    // The unit Compile preprocessed for this program, else `local` filled.
    SpirvUnit* CurrentUnit(BaseProgram* program, SpirvUnit& local);

    std::unique_ptr<SpirvProcess> m_process;
    std::atomic<uint64> m_compileCount{0};
};

} // namespace KovexEngine
