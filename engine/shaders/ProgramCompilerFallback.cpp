// Transitional: the program compiler's base behaviour for builds whose tree
// does not have its real implementation (ProgramCompiler.cpp) yet. CMake
// compiles this file only when that one is missing. No shader is compiled
// here: CompileShaders fails, so every program ends Failed, while a platform
// or test subclass that overrides the steps gets the documented order.

#include <atomic>

#include "graphics/Renderer.h"
#include "shaders/ProgramCompiler.h"
#include "shaders/Program.h"

namespace KovexEngine {

namespace {

std::atomic<uint64> s_compiles{0};

GraphicsFactory* MakeCompiler() { return new ProgramCompiler(); }

// The renderer makes the compiler through this maker, as with the real one.
[[maybe_unused]] const bool s_makerInstalled = (SetProgramCompilerMaker(&MakeCompiler), true);

} // namespace

ProgramCompiler::ProgramCompiler() : GraphicsFactory(FactoryType::ProgramCompiler) {}
ProgramCompiler::~ProgramCompiler() = default;

Ptr<Program> ProgramCompiler::CreateProgram(const PGConfFW* fw, const PGConfAB* ab, const PGConfMT* mt)
{
    return fw ? Ptr<Program>(new Program(fw, ab, mt)) : Ptr<Program>();
}

Ptr<ComputeProgram> ProgramCompiler::CreateComputeProgram(const PGCodeConf* conf)
{
    return conf ? Ptr<ComputeProgram>(new ComputeProgram(conf)) : Ptr<ComputeProgram>();
}

namespace {

template <typename P, typename CompileStep>
bool RunCompile(ProgramCompiler* compiler, const Ptr<P>& program, std::atomic<int32>* pending, CompileStep step)
{
    if (!program)
        return false;
    s_compiles.fetch_add(1, std::memory_order_relaxed);
    if (!(compiler->*step)(program.Get()) || !compiler->ReflectShaders(program.Get()) || !compiler->Link(program.Get()))
    {
        program->SetState(GraphicsObject::Failed);
        return false;
    }
    program->PostCompiled();
    compiler->M_PostObject(Ptr<GraphicsObject>(program.Get()), pending);
    return true;
}

} // namespace

bool ProgramCompiler::Compile(const Ptr<Program>& program, std::atomic<int32>* pending)
{
    return RunCompile(this, program, pending, &ProgramCompiler::CompileShaders);
}

bool ProgramCompiler::CompileCompute(const Ptr<ComputeProgram>& program, std::atomic<int32>* pending)
{
    return RunCompile(this, program, pending, &ProgramCompiler::CompileComputeShader);
}

bool ProgramCompiler::CompileShaders(BaseProgram*) { return false; }
bool ProgramCompiler::CompileComputeShader(BaseProgram*) { return false; }
bool ProgramCompiler::ReflectShaders(BaseProgram*) { return true; }
bool ProgramCompiler::Link(BaseProgram* program)
{
    const PGCodeConf* configs[3];
    unsigned count = 0;
    program->GetConfigs(configs, count);
    return count > 0 && LinkShaders(program);
}
bool ProgramCompiler::LinkShaders(BaseProgram*) { return true; }
bool ProgramCompiler::LinkShader(Shader*, BaseProgram*) { return true; }

uint64 ProgramCompiler::GetCompileCount() const { return s_compiles.load(std::memory_order_relaxed); }

} // namespace KovexEngine
