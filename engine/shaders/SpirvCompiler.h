#pragma once

// The SPIR-V side of program compilation (internal, not installed): a KSL
// unit is preprocessed ONCE (macros, includes through an include source,
// "#line" kept so that every later message names the original file and
// line), and each stage is compiled from that text with glslang's HLSL front
// end (Vulkan 1.1 / SPIR-V 1.3, registers b->0, t->16, s->32, u->48),
// legalised with SPIRV-Tools, reflected with SPIRV-Cross, stripped of the
// reflection-only decorations (so no device extension is needed) and
// validated.
//
// Threads: SpirvProcess may be made and dropped on any thread (glslang's
// process state is counted under a lock). A SpirvUnit belongs to one thread
// at a time; different units compile on different threads at once.
// SpirvReflect and SpirvValidate are stateless.

#include <string>
#include <vector>

#include "kernel/Export.h"
#include "kernel/Types.h"
#include "reflection/EngineEnums.h"

namespace KovexEngine {

struct ShaderReflection;

// Holds glslang's process-wide state while any instance lives.
class KOVEX_API SpirvProcess
{
public:
    SpirvProcess();
    ~SpirvProcess();
    SpirvProcess(const SpirvProcess&) = delete;
    SpirvProcess& operator=(const SpirvProcess&) = delete;
};

struct SpirvMacro
{
    std::string Name;
    std::string Value;
};

// Answers the include directives of one unit.
class KOVEX_API SpirvIncludeSource
{
public:
    virtual ~SpirvIncludeSource() = default;
    // The text that replaces `#include "name"`: true with `resolved` (the
    // name later messages use; never empty) and `text` (empty for a repeat);
    // false when it cannot be opened, after logging why.
    virtual bool Open(const std::string& name, std::string& resolved, std::string& text) = 0;
};

class KOVEX_API SpirvUnit
{
public:
    SpirvUnit();
    ~SpirvUnit();
    SpirvUnit(const SpirvUnit&) = delete;
    SpirvUnit& operator=(const SpirvUnit&) = delete;

    // Preprocesses `source` (named `fileName` in messages) with the macros,
    // in order, as "#define" lines before it. False, with a log line naming
    // the cause, on an include that cannot be opened, a preprocessor error
    // or a front-end crasher in the text.
    bool Preprocess(const std::string& source, const std::string& fileName, const std::vector<SpirvMacro>& macros,
                    SpirvIncludeSource* includes);
    const std::string& GetText() const { return m_text; }
    const std::string& GetFileName() const { return m_fileName; }
    // FNV-1a over the preprocessed text and the macro set: the cache key.
    uint64 GetHash() const { return m_hash; }
    // True when the preprocessed text defines (or calls) a function of this
    // name: which optional stages a unit has.
    bool DefinesFunction(const char* name) const;

    // One stage from the preprocessed text, entry point `entry`: the final
    // module's words and, when asked, its reflection. False, with the
    // front end's messages in the log (original files and lines).
    bool CompileStage(ShaderType stage, const char* entry, std::vector<uint32>& words, ShaderReflection* reflection);
    // The last failure's messages (also logged).
    const std::string& GetErrors() const { return m_errors; }

    // The output validator runs in debug builds and tests; release builds
    // may turn it off.
    static void SetValidateOutput(bool validate);
    static bool GetValidateOutput();

private:
    std::string m_text;
    std::string m_fileName;
    std::string m_errors;
    uint64 m_hash = 0;
};

// Reflects a module with SPIRV-Cross. A vertex input's semantic is its
// UserSemantic string, else its name: CompileStage names the inputs of its
// final modules after their semantics, so byte code read back from a cache
// reflects as it compiled.
KOVEX_API bool SpirvReflect(const std::vector<uint32>& words, ShaderReflection& out, std::string& error);
// The SPIR-V validator under the Vulkan 1.1 environment.
KOVEX_API bool SpirvValidate(const std::vector<uint32>& words, std::string& error);
// 64-bit FNV-1a, continued from `hash`.
KOVEX_API uint64 SpirvHash(const void* data, size_t size, uint64 hash = 14695981039346656037ull);

} // namespace KovexEngine
