// kovex-classes: lists the reflected surface of the engine, every registered
// class with its bases, properties, functions, enum members and metadata, as
// an editor or a script binding would read it.
//
//   kovex-classes                 every class
//   kovex-classes Vector3 Node    the named classes (and those whose name
//                                 starts with a given text followed by '*')
//   kovex-classes --module Engine the classes of one module

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "KovexEngine.h"

using namespace KovexEngine;

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

bool Matches(const Class* cls, int argc, char** argv, const char* module)
{
    if (module && Utf8(cls->GetModule()) != module)
        return false;
    bool anyName = false;
    for (int i = 1; i < argc; ++i)
    {
        if (std::strcmp(argv[i], "--module") == 0)
        {
            ++i;
            continue;
        }
        anyName = true;
        std::string pattern = argv[i];
        std::string name = Utf8(cls->GetName());
        if (!pattern.empty() && pattern.back() == '*')
        {
            if (name.compare(0, pattern.size() - 1, pattern, 0, pattern.size() - 1) == 0)
                return true;
        }
        else if (name == pattern)
            return true;
    }
    return !anyName;
}

} // namespace

int main(int argc, char** argv)
{
    const char* module = nullptr;
    for (int i = 1; i < argc; ++i)
    {
        if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0)
        {
            std::printf("usage: %s [--module NAME] [CLASS | PREFIX* ...]\n", argv[0]);
            return 0;
        }
        if (std::strcmp(argv[i], "--module") == 0)
        {
            if (i + 1 >= argc)
            {
                std::fprintf(stderr, "--module needs a name\n");
                return 2;
            }
            module = argv[++i];
        }
    }

    g_IsNullRenderer = true;
    Kovex_Main_Initialize();
    // Sorted by name, so the listing is the same from run to run.
    TArray<const Class*> classes(Class::GetClassArray());
    std::stable_sort(classes.begin(), classes.end(),
                     [](const Class* a, const Class* b) { return a->GetName() < b->GetName(); });
    unsigned shown = 0;
    for (const Class* cls : classes)
    {
        if (cls->GetName().IsEmpty() || !Matches(cls, argc, argv, module))
            continue;
        PrintClass(cls);
        ++shown;
    }
    if (shown == 0)
        std::fprintf(stderr, "No class matches.\n");
    Kovex_Main_Terminate();
    Kovex_Renderer_Terminate();
    Kovex_System_Terminate();
    Kovex_Main_Cleanup();
    Kovex_Renderer_Cleanup();
    Kovex_System_Cleanup();
    return shown ? 0 : 1;
}
