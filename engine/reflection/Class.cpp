#include "reflection/Class.h"

#include "kernel/Log.h"
#include "reflection/Function.h"
#include "reflection/Property.h"

namespace KovexEngine {

TArray<const Class*>* Class::ms_pClassArray = nullptr;
TMap<WString, const Class*>* Class::ms_pClassNameMap = nullptr;

namespace {
// A hash index beside the name map, for creation by name.
TNameIndex<Class>* s_classIndex = nullptr;
} // namespace

namespace {

struct TypeNames
{
    const char16_t* name;
    const char16_t* shortName;
};

// Display names by KOVEX_BASE_TYPE value; 16 and 17 stand swapped, as they
// always have.
constexpr TypeNames kTypeNames[KOVEX_TYPE_COUNT] = {
    {u"Unknown", nullptr}, {u"bool", u"B"},      {u"int32", u"I32"},     {u"uint32", u"U32"},
    {u"float", u"F"},      {u"Vector2", u"V2"},  {u"Vector3", u"V3"},    {u"Vector4", u"V4"},
    {u"Quaternion", u"Q"}, {u"Matrix2", u"M2"},  {u"Matrix3", u"M3"},    {u"Matrix4", u"M4"},
    {u"AString", u"S"},    {u"WString", u"S"},   {u"Object", nullptr},   {u"Custom", nullptr},
    {u"Delegate", nullptr}, {u"Enum", nullptr},  {u"TArray", nullptr},   {u"TMap", nullptr},
    {u"void", u"VOID"},
};

// Fills all base classes: each base with depth << 16 | accumulated offset.
// Returns whether some class on the way has more than one direct base.
bool CollectBases(const TMap<const Class*, int>& bases, unsigned offset, unsigned depth, TMap<const Class*, int>& out)
{
    bool multi = bases.Count() > 1;
    for (const auto& entry : bases)
    {
        unsigned accumulated = offset + unsigned(entry.value);
        out.Insert(entry.key, int((depth << 16) | (accumulated & 0xFFFFu)));
        multi |= CollectBases(entry.key->GetBaseClasses(), accumulated, depth + 1, out);
    }
    return multi;
}

} // namespace

Class::Class(const char16_t* name, Creator creator, unsigned int size, const char16_t* module)
    : m_size(size), m_name(name), m_module(module), m_creator(creator)
{
    Setup();
    ms_pClassArray->Add(this);
    RegisterClassName();
}

Class::~Class()
{
    for (auto& entry : m_functions)
        delete entry.value;
    for (const Property* property : m_propertyArray)
        delete property;
    for (const Class** slot : m_slots)
        *slot = nullptr;
}

void Class::AddProperty(Property* property)
{
    if (!property)
        return;
    property->SetOwnerClass(this);
    m_propertyArray.Add(property);
    m_properties.Insert(property->GetName(), property);
    m_propertyIndex.Add(property);
}

void Class::AddFunction(Function* function)
{
    if (!function)
        return;
    function->SetOwnerClass(this);
    m_functions.Insert(function->GetName(), function);
    m_functionIndex.Add(function);
}

const Property* Class::FindProperty(const WString& name, bool inherited) const
{
    if (const Property* own = m_propertyIndex.Find(name))
        return own;
    if (inherited)
        for (const auto& base : m_allBases)
            if (const Property* found = base.key->m_propertyIndex.Find(name))
                return found;
    return nullptr;
}

const Function* Class::FindFunction(const WString& name, bool inherited) const
{
    if (const Function* own = m_functionIndex.Find(name))
        return own;
    if (inherited)
        for (const auto& base : m_allBases)
            if (const Function* found = base.key->m_functionIndex.Find(name))
                return found;
    return nullptr;
}

void Class::FindFunctions(TArray<const Function*>& out, uint32 mask, bool inherited) const
{
    for (const auto& entry : m_functions)
        if (entry.value->GetFlags() & mask)
            out.Add(entry.value);
    if (inherited)
        for (const auto& base : m_allBases)
            for (const auto& entry : base.key->m_functions)
                if (entry.value->GetFlags() & mask)
                    out.Add(entry.value);
}

void Class::GetAllProperties(TArray<const Property*>& out) const
{
    for (const Property* property : m_propertyArray)
        out.Add(property);
    for (const auto& base : m_allBases)
        for (const Property* property : base.key->m_propertyArray)
            out.Add(property);
}

bool Class::StaticInvoke(const WString& name, FunctionStack* stack, bool inherited) const
{
    if (!stack)
        return false;
    const Function* function = FindFunction(name, inherited);
    return function && function->Invoke(nullptr, stack);
}

void Class::RegisterClassName()
{
    if (m_name.IsEmpty())
        return;
    if (ms_pClassNameMap->Contains(m_name))
    {
        Log::Format(LOG_CRITICAL, u"Class name '%s' has already been registered!", m_name());
        return;
    }
    ms_pClassNameMap->Insert(m_name, this);
    s_classIndex->Add(this);
}

void Class::SetBaseClass(const Class* base, unsigned int offset)
{
    if (!base || m_bases.Contains(base))
        return;
    const_cast<Class*>(base)->m_derived.Add(this);
    m_bases.Insert(base, int(offset));
}

void Class::ProcessClass()
{
    m_allBases.Clear();
    if (CollectBases(m_bases, 0, 1, m_allBases))
        m_flags |= FLAG_MULTI_INHERITANCE;
    else
        m_flags &= ~uint32(FLAG_MULTI_INHERITANCE);
}

void* Class::Create() const { return m_creator ? m_creator() : nullptr; }
bool Class::IsAbstract() const { return m_creator == nullptr; }
const Function* Class::FindOverrideFunc(const WString&) const { return nullptr; }
bool Class::IsBaseType() const { return false; }
bool Class::IsStruct() const { return false; }
bool Class::IsDelegate() const { return false; }
bool Class::IsEnum() const { return false; }
bool Class::IsValueClass() const { return false; }
bool Class::IsScriptClass() const { return false; }
KOVEX_BASE_TYPE Class::GetType() const { return KOVEX_TYPE_OBJECT; }

unsigned int Class::GetMemorySize(bool, bool) const
{
    auto text = [](const WString& s) { return s.HeapLen() * unsigned(sizeof(char16_t)); };
    return unsigned(sizeof(Class)) + text(m_name) + text(m_module) + text(m_attribute) +
           m_derived.Capacity() * unsigned(sizeof(const Class*)) +
           (m_bases.Count() + m_allBases.Count()) * unsigned(sizeof(TPair<const Class*, int>));
}

bool Class::IsKindOf(const WString& name) const
{
    if (m_name == name)
        return true;
    for (const auto& entry : m_allBases)
        if (entry.key->GetName() == name)
            return true;
    return false;
}

unsigned int Class::ComputeDistance(const Class* base) const
{
    if (base == this)
        return 0;
    const int* entry = m_allBases.FindValue(base);
    return entry ? unsigned(*entry) >> 16 : kNotFound;
}

void* Class::GetClassPointer(void* object, const Class* target) const
{
    if (!object || !target || target == this)
        return object;
    const int* entry = m_allBases.FindValue(target);
    if (!entry)
        return nullptr;
    if (!IsMultiInheritance())
        return object;
    return static_cast<char*>(object) + (unsigned(*entry) & 0xFFFFu);
}

const void* Class::GetClassPointer(const void* object, const Class* target) const
{
    return GetClassPointer(const_cast<void*>(object), target);
}

void Class::Setup()
{
    if (ms_pClassArray)
        return;
    ms_pClassArray = new TArray<const Class*>(16);
    ms_pClassNameMap = new TMap<WString, const Class*>();
    s_classIndex = new TNameIndex<Class>();
}

void Class::Destroy()
{
    if (!ms_pClassArray)
        return;
    for (const Class* cls : *ms_pClassArray)
        delete cls;
    delete ms_pClassArray;
    ms_pClassArray = nullptr;
    delete ms_pClassNameMap;
    ms_pClassNameMap = nullptr;
    delete s_classIndex;
    s_classIndex = nullptr;
}

const TArray<const Class*>& Class::GetClassArray()
{
    Setup();
    return *ms_pClassArray;
}

bool Class::ClassExists(const WString& name) { return GetClass(name) != nullptr; }

const Class* Class::GetClass(const WString& name)
{
    if (name.IsEmpty() || !s_classIndex)
        return nullptr;
    return s_classIndex->Find(name);
}

void* Class::Create(const WString& name)
{
    const Class* cls = GetClass(name);
    if (!cls)
    {
        Log::Format(LOG_CRITICAL, u"Class::Create('%s'): unknown class name!", name());
        return nullptr;
    }
    return cls->Create();
}

void Class::GetRootClasses(TArray<const Class*>& out)
{
    for (const Class* cls : GetClassArray())
        if (cls->IsRoot())
            out.Add(cls);
}

bool Class::GetTypeShortName(WString& out, const Class* cls)
{
    if (!cls)
        return false;
    KOVEX_BASE_TYPE type = cls->GetType();
    switch (type)
    {
    case KOVEX_TYPE_OBJECT:
    case KOVEX_TYPE_CUSTOM:
    case KOVEX_TYPE_ENUM:
    case KOVEX_TYPE_DELEGATE:
        out = cls->GetName();
        return true;
    default:
        if (type < KOVEX_TYPE_BOOL || type > KOVEX_TYPE_VOID || !kTypeNames[type].shortName)
            return false;
        out = kTypeNames[type].shortName;
        return true;
    }
}

const char16_t* Class::GetTypeName(KOVEX_BASE_TYPE type)
{
    return type >= 0 && type < KOVEX_TYPE_COUNT ? kTypeNames[type].name : nullptr;
}

} // namespace KovexEngine
