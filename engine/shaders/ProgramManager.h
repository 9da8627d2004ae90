#pragma once

// The registry of program generator codes and the way from configurations to
// a compiled program.
//
// Codes: three tables (framework, attribute, material), each a sorted map from
// name to code. A code registers itself when it is made (AddCode) and leaves
// when it is destroyed; the tables do not own codes, their callers' Ptrs do.
// A code loaded from a file (LoadCode) is named by its absolute path, so a
// second load of one path answers the code already there. An unnamed code
// gets "%d_%d" from its type number and a running counter of that type.
//
// Includes: OpenInclude keeps every include text it was asked for, comments
// stripped, by path; a missing file is stored as a null text and reported
// once.
//
// Threads: every call is safe from any thread. The code tables and the
// include map are guarded by one lock, held for map access only: loading a
// file, creating a code and compiling run outside it. Two threads may load
// the same include; the first text stored is kept, because the other
// thread's caller may already hold it. BuildProgram runs the compiler on the
// calling thread.

#include "kernel/Containers.h"
#include "kernel/CriticalSection.h"
#include "kernel/Strings.h"
#include "reflection/Object.h"
#include "shaders/PGCode.h"

namespace KovexEngine {

class Program;
class ComputeProgram;

class KOVEX_API ProgramManager
{
public:
    // Makes a code of a type from its text and absolute path.
    using CodeCreator = Ptr<PGCode> (*)(const AString& code, const WString& path);

    static ProgramManager* Ins();
    // Frees the include texts; codes stay with their owners.
    static void Destroy();

    // --- Codes --------------------------------------------------------------
    // LoadCode with the type's creator; null with "Load %s Failed.\n".
    Ptr<PGFramework> LoadFramework(const WString& path);
    Ptr<PGAttribute> LoadAttribute(const WString& path);
    Ptr<PGMaterial> LoadMaterial(const WString& path);
    // The code registered under the absolute form of `path`, else one made
    // by `creator` from the file's text (not for an empty text), with its
    // default configuration. Null, logged, when the file or the code fails.
    Ptr<PGCode> LoadCode(const WString& path, PGCode::TYPE type, CodeCreator creator);

    // Names an unnamed code and enters it. False, with
    // "%s [%s] already exists.\n", when its name is taken (nothing replaced).
    bool AddCode(PGCode* code);
    // Takes the code out of its table. False, with
    // "Can't find template %s [%s] !", when that table holds no such code.
    bool RemoveCode(PGCode* code);
    PGCode* FindCode(PGCode::TYPE type, const WString& name) const;
    unsigned GetNumCodes(PGCode::TYPE type) const;

    // --- Programs -------------------------------------------------------------
    // A new program of the three configurations, compiled: null when `fw` is
    // null or has no code, or there is no compiler; else the program, Failed
    // when the compile failed.
    Ptr<Program> BuildProgram(const PGConfFW* fw, const PGConfAB* ab, const PGConfMT* mt);
    Ptr<ComputeProgram> BuildComputeProgram(const PGCodeConf* conf);

    // --- Includes ---------------------------------------------------------------
    // The text of the file at `path` with comments removed; null (logged once
    // at level 3: "Open Shader include [%s] failed.\n") when it cannot be
    // opened. The text lives until ClearIncludes or Destroy.
    const AString* OpenInclude(const WString& path);
    // Forgets the include texts (after templates changed on disk); no
    // compile may be running.
    void ClearIncludes();

private:
    ProgramManager();
    ~ProgramManager();

    mutable CriticalSection m_lock;
    TMap<WString, PGCode*> m_codes[PGCode::TYPE_COUNT];
    unsigned m_counters[PGCode::TYPE_COUNT] = {0, 0, 0};
    TMap<WString, AString*> m_includes; // owned; null for a missing file
};

} // namespace KovexEngine
