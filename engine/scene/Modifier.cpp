#include "scene/Modifier.h"

#include "reflection/FunctionRegistration.h"
#include "scene/Modifiable.h"

namespace KovexEngine {

KOVEX_REGISTER_CLASS_EX(Modifier, u"Engine")

void Modifier::StaticConstructor(Class* cls)
{
    RegisterBases<Modifier, Object>(cls);
    AddFunction(cls, u"GetUsage", &Modifier::GetUsage);
    AddFunction(cls, u"hasModifierFlag", &Modifier::hasModifierFlag, {u"mask"});
    AddFunction(cls, u"enableModifierFlag", &Modifier::enableModifierFlag, {u"mask", u"on"});
    cls->ProcessClass();
}

Modifier::~Modifier() = default;

void Modifier::Attach(Modifiable* owner)
{
    if (m_owner == owner)
        return;
    m_owner = owner;
    OnAttached(owner);
}

void Modifier::Detach()
{
    Modifiable* owner = m_owner;
    if (!owner)
        return;
    OnDetached(owner);
    m_owner = nullptr;
}

void Modifier::Tick(float delta)
{
    float t = delta;
    if (NeedTick(t))
        OnTick(t);
}

bool Modifier::Duplicate(Object* destination, unsigned int flags) const
{
    auto* target = DynamicCast<Modifier>(destination);
    if (!target || !Object::Duplicate(destination, flags))
        return false;
    // The clone belongs to whoever attaches it, not to this owner.
    target->m_modifierFlags = m_modifierFlags;
    return true;
}

} // namespace KovexEngine
