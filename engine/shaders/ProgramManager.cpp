#include "shaders/ProgramManager.h"

#include <atomic>
#include <mutex>

#include "io/Stream.h"
#include "io/StreamManager.h"
#include "kernel/Log.h"
#include "shaders/Program.h"
#include "shaders/ProgramCompiler.h"

namespace KovexEngine {

namespace {

std::atomic<ProgramManager*> s_instance{nullptr};
std::mutex s_instanceLock;

template <typename T>
Ptr<PGCode> MakeCode(const AString& code, const WString& path)
{
    return Ptr<PGCode>(new T(path, path, code));
}

template <typename T>
Ptr<T> AsCode(const Ptr<PGCode>& code)
{
    return Ptr<T>(static_cast<T*>(code.Get()));
}

} // namespace

ProgramManager* ProgramManager::Ins()
{
    ProgramManager* manager = s_instance.load(std::memory_order_acquire);
    if (manager)
        return manager;
    std::lock_guard<std::mutex> guard(s_instanceLock);
    manager = s_instance.load(std::memory_order_relaxed);
    if (!manager)
    {
        manager = new ProgramManager();
        s_instance.store(manager, std::memory_order_release);
    }
    return manager;
}

void ProgramManager::Destroy()
{
    std::lock_guard<std::mutex> guard(s_instanceLock);
    ProgramManager* manager = s_instance.exchange(nullptr, std::memory_order_acq_rel);
    delete manager;
}

ProgramManager::ProgramManager() = default;

ProgramManager::~ProgramManager()
{
    // Codes outlive the manager with their owners; they must not come back to it.
    for (auto& table : m_codes)
        for (auto& pair : table)
            pair.value->SetRegistered(false);
    ClearIncludes();
}

// --- Codes --------------------------------------------------------------------------

Ptr<PGFramework> ProgramManager::LoadFramework(const WString& path)
{
    return AsCode<PGFramework>(LoadCode(path, PGCode::Framework, &MakeCode<PGFramework>));
}

Ptr<PGAttribute> ProgramManager::LoadAttribute(const WString& path)
{
    return AsCode<PGAttribute>(LoadCode(path, PGCode::Attribute, &MakeCode<PGAttribute>));
}

Ptr<PGMaterial> ProgramManager::LoadMaterial(const WString& path)
{
    return AsCode<PGMaterial>(LoadCode(path, PGCode::Material, &MakeCode<PGMaterial>));
}

Ptr<PGCode> ProgramManager::LoadCode(const WString& path, PGCode::TYPE type, CodeCreator creator)
{
    if (type < 0 || type >= PGCode::TYPE_COUNT || !creator)
        return Ptr<PGCode>();
    WString absolute = path;
    StreamManager::Ins()->MakeAbsolutePath(absolute, nullptr);
    if (PGCode* code = FindCode(type, absolute))
        return Ptr<PGCode>(code);

    Ptr<PGCode> code;
    Ptr<Stream> stream = StreamManager::Ins()->OpenStream(absolute);
    AString text;
    if (stream && stream->LoadText(text) && !text.IsEmpty())
        code = creator(text, absolute);
    if (!code || code->Type() != type)
    {
        Log::Format(3, u"Load %s Failed.\n", path());
        return Ptr<PGCode>();
    }
    code->ValidateDefault();
    return code;
}

bool ProgramManager::AddCode(PGCode* code)
{
    if (!code || code->Type() < 0 || code->Type() >= PGCode::TYPE_COUNT)
        return false;
    CriticalSection::Scope scope(m_lock);
    unsigned number = m_counters[code->Type()]++;
    if (code->GetName().IsEmpty())
    {
        WString name;
        name.Format(u"%d_%d", int(code->Type()), int(number));
        code->SetName(name);
    }
    TMap<WString, PGCode*>& table = m_codes[code->Type()];
    if (table.Contains(code->GetName()))
    {
        Log::Format(3, u"%s [%s] already exists.\n", PGCode::GetTypeName(code->Type()), code->GetName()());
        return false;
    }
    table.Insert(code->GetName(), code);
    code->SetRegistered(true);
    return true;
}

bool ProgramManager::RemoveCode(PGCode* code)
{
    if (!code)
        return false;
    const char16_t* typeName = PGCode::GetTypeName(code->Type());
    CriticalSection::Scope scope(m_lock);
    if (typeName)
    {
        TMap<WString, PGCode*>& table = m_codes[code->Type()];
        unsigned index = table.Find(code->GetName());
        if (index != kNotFound && table[index].value == code)
        {
            table.RemoveAt(index);
            code->SetRegistered(false);
            return true;
        }
    }
    Log::Format(3, u"Can't find template %s [%s] !", typeName ? typeName : u"", code->GetName()());
    return false;
}

PGCode* ProgramManager::FindCode(PGCode::TYPE type, const WString& name) const
{
    if (type < 0 || type >= PGCode::TYPE_COUNT)
        return nullptr;
    CriticalSection::Scope scope(m_lock);
    PGCode* const* code = m_codes[type].FindValue(name);
    return code ? *code : nullptr;
}

unsigned ProgramManager::GetNumCodes(PGCode::TYPE type) const
{
    if (type < 0 || type >= PGCode::TYPE_COUNT)
        return 0;
    CriticalSection::Scope scope(m_lock);
    return m_codes[type].Count();
}

// --- Programs -----------------------------------------------------------------------

Ptr<Program> ProgramManager::BuildProgram(const PGConfFW* fw, const PGConfAB* ab, const PGConfMT* mt)
{
    ProgramCompiler* compiler = ProgramCompiler::Get();
    if (!fw || !fw->GetParent() || !compiler)
        return Ptr<Program>();
    Ptr<Program> program = compiler->CreateProgram(fw, ab, mt);
    if (program && !compiler->Compile(program))
        program->SetState(GraphicsObject::Failed);
    return program;
}

Ptr<ComputeProgram> ProgramManager::BuildComputeProgram(const PGCodeConf* conf)
{
    ProgramCompiler* compiler = ProgramCompiler::Get();
    if (!conf || !conf->GetParent() || !compiler)
        return Ptr<ComputeProgram>();
    Ptr<ComputeProgram> program = compiler->CreateComputeProgram(conf);
    if (program && !compiler->CompileCompute(program))
        program->SetState(GraphicsObject::Failed);
    return program;
}

// --- Includes -------------------------------------------------------------------------

const AString* ProgramManager::OpenInclude(const WString& path)
{
    {
        CriticalSection::Scope scope(m_lock);
        unsigned index = m_includes.Find(path);
        if (index != kNotFound)
            return m_includes[index].value;
    }
    // Outside the lock: reading a file must not hold up other compiles.
    AString* text = nullptr;
    Ptr<Stream> stream = StreamManager::Ins()->OpenStream(path);
    AString loaded;
    if (stream && stream->LoadText(loaded))
    {
        loaded.RemoveComment();
        text = new AString(std::move(loaded));
    }
    CriticalSection::Scope scope(m_lock);
    unsigned index = m_includes.Find(path);
    if (index != kNotFound)
    {
        // Another thread got there first: its text stays, as callers may hold it.
        delete text;
        return m_includes[index].value;
    }
    if (!text)
        Log::Format(3, u"Open Shader include [%s] failed.\n", path());
    m_includes.Insert(path, text);
    return text;
}

void ProgramManager::ClearIncludes()
{
    CriticalSection::Scope scope(m_lock);
    for (auto& pair : m_includes)
        delete pair.value;
    m_includes.Clear();
}

} // namespace KovexEngine
