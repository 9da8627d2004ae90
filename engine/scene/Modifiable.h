#pragma once

#include "resources/Resource.h"
#include "scene/Modifier.h"

namespace KovexEngine {

class Modifier;
class Serializer;

// A resource with an ordered set of modifiers, at most one per most
// derived class, kept in key order (by class), plus three usage lists
// filled from each modifier's GetUsage() mask.
//
// Threads: main thread (the thread that owns the scene) only.
class KOVEX_API Modifiable : public Resource
{
    KOVEX_CLASS(Modifiable)

public:
    Modifiable() = default;
    Modifiable(const Modifiable&) = delete;
    Modifiable& operator=(const Modifiable&) = delete;
    ~Modifiable() override;

    unsigned int GetNumModifiers() const { return m_modifiers.Count(); }
    // A shared null Ptr when out of range or not found.
    const Ptr<Modifier>& GetModifierByIndex(unsigned int index) const;
    const Ptr<Modifier>& GetModifier(const Class* cls) const;
    const Ptr<Modifier>& GetModifierByClassName(const WString& className) const;

    // False, with nothing changed, for null, a modifier that refuses this
    // owner, or a class already present.
    bool AttachModifier(const Ptr<Modifier>& modifier) { return attachModifier(modifier.Get()); }
    bool attachModifier(Modifier* modifier);
    // The removed modifier, or null. Neither Cancel nor OnDetached is called
    // and the modifier keeps its owner pointer.
    Ptr<Modifier> DetachModifier(const Ptr<Modifier>& modifier) { return detachModifier(modifier.Get()); }
    Ptr<Modifier> detachModifier(Modifier* modifier);
    Ptr<Modifier> detachModifier(const Class* cls);
    Ptr<Modifier> DetachModifierByClassName(const WString& className);

    // Ticks each modifier in key order.
    void UpdateModifiers(float delta);
    void ModifyInnerObj(Object* inner);
    void UnmodifyInnerObj(Object* inner);
    // Attaches a clone of each modifier to `target`; false when one could
    // not be cloned or attached (the others still are).
    bool DuplicateModifiers(Modifiable* target, unsigned int flags) const;

    // Chunk "MODS": "NMMD" count, then a "MOD" chunk per modifier.
    bool SaveModifiers(Serializer* serializer) const;
    bool LoadModifiers(Serializer* serializer);

    // The three usage lists (bits 1, 2, 4 of GetUsage()).
    const TArray<Modifier*>& GetUsageList(unsigned int which) const { return m_usage[which < 3 ? which : 2]; }

    // The modifiers first, then what derived classes add.
    bool LoadGraphicsObjects(std::atomic<int>* pending) override;
    virtual void OnModifierAttached(const Ptr<Modifier>& /*modifier*/) {}
    virtual void OnModifierDetached(const Ptr<Modifier>& /*modifier*/) {}

protected:
    void Do_Update();
    void Do_PostUpdate();

private:
    TMap<const Class*, Ptr<Modifier>> m_modifiers;
    TArray<Modifier*> m_usage[3];
};

} // namespace KovexEngine
