#include "scene/Modifiable.h"

#include "kernel/Log.h"
#include "kernel/TimeAnalyzer.h"
#include "reflection/FunctionRegistration.h"
#include "scene/Modifier.h"
#include "serialization/Serializer.h"

namespace KovexEngine {

namespace {
const Ptr<Modifier> s_nullModifier;
constexpr FourCC kMODS = FourCCs::Make("MODS");
constexpr FourCC kNMMD = FourCCs::Make("NMMD");
constexpr FourCC kMOD = FourCCs::Make("MOD");
} // namespace

KOVEX_REGISTER_CLASS_EX(Modifiable, u"Engine")

void Modifiable::StaticConstructor(Class* cls)
{
    RegisterBases<Modifiable, Resource>(cls);
    AddFunction(cls, u"GetNumModifiers", &Modifiable::GetNumModifiers);
    AddFunction(cls, u"GetModifierByIndex", &Modifiable::GetModifierByIndex, {u"index"});
    AddFunction(cls, u"GetModifierByClassName", &Modifiable::GetModifierByClassName, {u"name"});
    AddFunction(cls, u"AttachModifier", &Modifiable::AttachModifier, {u"modifier"});
    AddFunction(cls, u"DetachModifier", &Modifiable::DetachModifier, {u"modifier"});
    AddFunction(cls, u"DetachModifierByClassName", &Modifiable::DetachModifierByClassName, {u"className"});
    cls->ProcessClass();
}

Modifiable::~Modifiable()
{
    // A modifier held elsewhere must not point at a dead owner.
    for (auto& pair : m_modifiers)
        if (pair.value && pair.value->m_owner == this)
            pair.value->m_owner = nullptr;
}

const Ptr<Modifier>& Modifiable::GetModifierByIndex(unsigned int index) const
{
    return index < m_modifiers.Count() ? m_modifiers[index].value : s_nullModifier;
}

const Ptr<Modifier>& Modifiable::GetModifier(const Class* cls) const
{
    const Ptr<Modifier>* found = cls ? m_modifiers.FindValue(cls) : nullptr;
    return found ? *found : s_nullModifier;
}

const Ptr<Modifier>& Modifiable::GetModifierByClassName(const WString& className) const
{
    return GetModifier(Class::GetClass(className));
}

bool Modifiable::attachModifier(Modifier* modifier)
{
    if (!modifier || !modifier->CanAttachTo(this))
        return false;
    const Class* cls = modifier->GetClass();
    if (GetModifier(cls))
        return false;
    Ptr<Modifier> held(modifier);
    modifier->Attach(this);
    modifier->Apply(this);
    if (!m_modifiers.Insert(cls, held))
        return false;
    unsigned int usage = modifier->GetUsage();
    for (unsigned i = 0; i < 3; ++i)
        if (usage & (1u << i))
            m_usage[i].Add(modifier);
    OnModifierAttached(held);
    return true;
}

Ptr<Modifier> Modifiable::detachModifier(const Class* cls)
{
    unsigned index = cls ? m_modifiers.Find(cls) : kNotFound;
    if (index == kNotFound)
        return Ptr<Modifier>();
    Ptr<Modifier> removed = m_modifiers[index].value;
    m_modifiers.RemoveAt(index);
    unsigned int usage = removed->GetUsage();
    for (unsigned i = 0; i < 3; ++i)
        if (usage & (1u << i))
            m_usage[i].Remove(removed.Get());
    OnModifierDetached(removed);
    return removed;
}

Ptr<Modifier> Modifiable::detachModifier(Modifier* modifier)
{
    if (!modifier || GetModifier(modifier->GetClass()).Get() != modifier)
        return Ptr<Modifier>();
    return detachModifier(modifier->GetClass());
}

Ptr<Modifier> Modifiable::DetachModifierByClassName(const WString& className)
{
    return detachModifier(Class::GetClass(className));
}

void Modifiable::UpdateModifiers(float delta)
{
    // By index against the live count: a tick may detach modifiers.
    for (unsigned i = 0; i < m_modifiers.Count(); ++i)
    {
        Ptr<Modifier> modifier = m_modifiers[i].value;
        g_TimeAnalyzer.Begin(6, "Modifier::Tick");
        modifier->Tick(delta);
        g_TimeAnalyzer.End(6);
    }
}

void Modifiable::ModifyInnerObj(Object* inner)
{
    for (unsigned i = 0; i < m_modifiers.Count(); ++i)
        m_modifiers[i].value->ModifyInnerObj(inner);
}

void Modifiable::UnmodifyInnerObj(Object* inner)
{
    for (unsigned i = 0; i < m_modifiers.Count(); ++i)
        m_modifiers[i].value->UnmodifyInnerObj(inner);
}

bool Modifiable::DuplicateModifiers(Modifiable* target, unsigned int flags) const
{
    if (!target)
        return false;
    bool ok = true;
    for (const auto& pair : m_modifiers)
    {
        Ptr<Object> copy = pair.value->Clone(flags);
        auto* modifier = DynamicCast<Modifier>(copy.Get());
        // The copy starts unowned; Attach gives it the target.
        if (modifier)
            modifier->m_owner = nullptr;
        ok = modifier && target->attachModifier(modifier) && ok;
    }
    return ok;
}

void Modifiable::Do_Update()
{
    for (unsigned i = 0; i < m_usage[0].Count(); ++i)
        m_usage[0][i]->Do_Update(this);
}

void Modifiable::Do_PostUpdate()
{
    for (unsigned i = 0; i < m_usage[1].Count(); ++i)
        m_usage[1][i]->Do_PostUpdate(this);
}

bool Modifiable::SaveModifiers(Serializer* serializer) const
{
    if (!serializer->Enter(kMODS))
        return false;
    bool ok = serializer->Write(kNMMD, uint32(m_modifiers.Count()));
    for (unsigned i = 0; ok && i < m_modifiers.Count(); ++i)
    {
        ok = serializer->EnterNext(kMOD);
        if (!ok)
            break;
        ok = SerializeObj(m_modifiers[i].value.Get(), serializer, 0);
        serializer->Leave();
    }
    serializer->Leave();
    return ok;
}

bool Modifiable::LoadModifiers(Serializer* serializer)
{
    if (!serializer->Enter(kMODS))
        return false;
    uint32 count = 0;
    bool ok = serializer->Read(kNMMD, count);
    // A count is never trusted beyond the sections that are there.
    unsigned int present = ok ? serializer->CountSections(kMOD) : 0;
    if (count > present)
        count = present;
    // One bad entry fails the list, the others are still read.
    for (uint32 i = 0; i < count; ++i)
    {
        if (!serializer->EnterNext(kMOD))
            continue;
        Ptr<Object> object;
        SerializeObj(serializer, 0, object);
        serializer->Leave();
        auto* modifier = DynamicCast<Modifier>(object.Get());
        if (!modifier)
        {
            Log::Format(LOG_ERROR, u"%s '%s': a modifier entry holds no modifier (%s).\n", GetClassNameW()(),
                        GetName()(), object ? object->GetClassNameW()() : u"nothing");
            ok = false;
            continue;
        }
        if (GetModifier(modifier->GetClass()))
        {
            Log::Format(LOG_ERROR, u"%s '%s': modifier class '%s' appears twice.\n", GetClassNameW()(), GetName()(),
                        modifier->GetClassNameW()());
            ok = false;
            continue;
        }
        if (!attachModifier(modifier))
            ok = false;
    }
    serializer->Leave();
    return ok;
}

bool Modifiable::LoadGraphicsObjects(std::atomic<int>* pending)
{
    for (unsigned i = 0; i < m_modifiers.Count(); ++i)
        if (!m_modifiers[i].value->LoadGraphicsObjects(pending))
            return false;
    return true;
}

} // namespace KovexEngine
