// kovex-classes: lists the reflected surface of the engine, every registered
// class with its bases, properties, functions, enum members and metadata, as
// an editor or a script binding would read it. The help text is the manual.

#include <algorithm>
#include <cstdio>
#include <cstring>

#include <string>
#include <vector>

#include "CommandLine.h"
#include "KovexEngine.h"
#include "ToolEngine.h"

using namespace KovexEngine;
using namespace KovexTools;

namespace {

std::string Utf8(const WString& text) { return StringConvFuncs::ToAString(text()).c_str(); }

const char* KindOf(const Class* cls)
{
    if (cls->IsEnum()) return "enum";
    if (cls->IsDelegate()) return "delegate";
    if (cls->IsStruct()) return "struct";
    if (cls->GetType() == KOVEX_TYPE_TARRAY || cls->GetType() == KOVEX_TYPE_TMAP) return "container";
    if (cls->IsValueClass()) return "value";
    return "class";
}

std::string TypeName(const Class* cls)
{
    if (!cls)
        return "?";
    WString name;
    FunctionParameter p;
    p.cls = cls;
    Function::PrintType(name, p);
    return Utf8(name);
}

void PrintClass(const Class* cls)
{
    std::string line = std::string(KindOf(cls)) + " " + Utf8(cls->GetName());
    const auto& bases = cls->GetBaseClasses();
    for (unsigned i = 0; i < bases.Count(); ++i)
        line += (i ? ", " : " : ") + Utf8(bases[i].key->GetName());
    std::printf("%s  (module %s, %u bytes%s%s)\n", line.c_str(), Utf8(cls->GetModule()).c_str(), cls->GetSize(),
                cls->IsAbstract() && !cls->IsValueClass() ? ", abstract" : "",
                cls->IsMultiInheritance() ? ", multiple bases" : "");
    if (cls->GetAttribute().IsValid())
        std::printf("  metadata: %s\n", Utf8(cls->GetAttribute()).c_str());
    for (const Property* property : cls->GetPropertyArray())
    {
        std::string access;
        if (property->CanGetProperty()) access += "get ";
        if (property->CanSetProperty()) access += "set ";
        if (property->CanSerializeProperty()) access += "saved ";
        if (property->IsReadOnly()) access += "read-only ";
        if (!access.empty()) access.pop_back();
        std::printf("  property %s %s  [%s]%s%s\n", TypeName(property->GetClass()).c_str(),
                    Utf8(property->GetName()).c_str(), access.c_str(), property->GetMetadata().IsValid() ? "  " : "",
                    Utf8(property->GetMetadata()).c_str());
    }
    for (const auto& entry : cls->GetFunctionMap())
    {
        WString prototype;
        entry.value->GetPrototype(prototype, false);
        std::printf("  function %s\n", Utf8(prototype).c_str());
    }
    if (cls->IsEnum())
    {
        const auto* e = static_cast<const EnumClass*>(cls);
        for (const EnumMember& member : e->GetMembers())
        {
            bool displayed = member.displayName && WString(member.displayName) != member.name;
            std::printf("  %s = %d%s%s%s\n", Utf8(WString(member.name)).c_str(), member.value,
                        displayed ? "  \"" : "", displayed ? Utf8(WString(member.displayName)).c_str() : "",
                        displayed ? "\"" : "");
        }
    }
    if (cls->IsDelegate())
    {
        WString prototype;
        if (static_cast<const DelegateClass*>(cls)->GetPrototype(prototype))
            std::printf("  signature %s\n", Utf8(prototype).c_str());
    }
}

const std::string kHelp = std::string(
    "usage: kovex-classes [-i] [--module NAME] [--data DIR] [PATTERN...]\n"
    "\n"
    "Lists the classes the engine registers, sorted by name, with their bases,\n"
    "properties, functions, enum members and metadata. With no PATTERN every\n"
    "class is listed; a PATTERN is a class name or a wildcard (\"*\" any run,\n"
    "\"?\" one character: \"Vector?\", \"*Stream*\"). Quote patterns from the shell.\n"
    "\n"
    "  -i, --ignore-case   patterns match regardless of case\n"
    "      --module NAME   only the classes of module NAME\n"
    "      --data DIR      the engine's data root (default: the usual search)\n"
    "  -h, --help          this text\n"
    "      --version       the version\n"
    "\n"
    "A PATTERN that matches no class is reported, and the exit status is then 1.\n") +
    kExitStatusHelp;

} // namespace

int main(int argc, char** argv)
{
    CommandLine cl("kovex-classes", kHelp);
    cl.Add('i', "ignore-case", false);
    cl.Add(0, "module", true);
    AddDataOption(cl);
    int status = cl.Parse(argc, argv);
    if (status >= 0)
        return status;
    if (!StartEngine(cl))
    {
        StopEngine();
        return kExitFailure;
    }
    bool ignoreCase = cl.Has("ignore-case");
    std::string module = cl.Value("module");
    const std::vector<std::string>& patterns = cl.Operands();
    std::vector<unsigned> hits(patterns.size(), 0);

    // Sorted by name, so the listing is the same from run to run.
    TArray<const Class*> classes(Class::GetClassArray());
    std::stable_sort(classes.begin(), classes.end(),
                     [](const Class* a, const Class* b) { return a->GetName() < b->GetName(); });
    unsigned shown = 0;
    for (const Class* cls : classes)
    {
        if (cls->GetName().IsEmpty())
            continue;
        if (cl.Has("module") && Utf8(cls->GetModule()) != module)
            continue;
        std::string name = Utf8(cls->GetName());
        bool wanted = patterns.empty();
        for (size_t i = 0; i < patterns.size(); ++i)
            if (WildMatch(name, patterns[i], ignoreCase))
            {
                ++hits[i];
                wanted = true;
            }
        if (!wanted)
            continue;
        PrintClass(cls);
        ++shown;
    }
    status = kExitSuccess;
    for (size_t i = 0; i < patterns.size(); ++i)
        if (hits[i] == 0)
        {
            cl.Warn("no class matches '" + patterns[i] + "'" + (cl.Has("module") ? " in module " + module : ""));
            status = kExitFailure;
        }
    if (patterns.empty() && shown == 0)
    {
        cl.Warn("no class" + (cl.Has("module") ? " in module " + module : std::string()));
        status = kExitFailure;
    }
    StopEngine();
    return status;
}
