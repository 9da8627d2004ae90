#pragma once

#include <atomic>

#include "reflection/Object.h"

namespace KovexEngine {

class Modifiable;

// A small object that ticks once a frame and works on its owner before
// and after the owner's transform update. At most one per class on an owner.
//
// Threads: like its owner, a modifier belongs to the thread that owns the
// scene (the main thread); nothing here is locked.
class KOVEX_API Modifier : public Object
{
    KOVEX_CLASS(Modifier)

public:
    // Which usage list of the owner takes the modifier (GetUsage bits).
    enum : unsigned int
    {
        USAGE_UPDATE = 1,      // Do_Update, before the owner's transform update
        USAGE_POST_UPDATE = 2, // Do_PostUpdate, after it
        USAGE_THIRD = 4,       // kept in step, walked by nothing here
    };

    Modifier() = default;
    ~Modifier() override;

    // The owner, not counted.
    Modifiable* GetModifiable() const { return m_owner; }
    bool hasModifierFlag(unsigned int mask) const { return (m_modifierFlags & mask) != 0; }
    void enableModifierFlag(unsigned int mask, bool on)
    {
        m_modifierFlags = on ? (m_modifierFlags | mask) : (m_modifierFlags & ~mask);
    }
    unsigned int GetModifierFlags() const { return m_modifierFlags; }

    // Takes `owner` (and tells OnAttached) when it is not the owner already.
    void Attach(Modifiable* owner);
    // Tells OnDetached and forgets the owner; the owner's lists are not touched.
    void Detach();
    // NeedTick may change the delta; OnTick runs only when it says yes.
    void Tick(float delta);

    virtual void Do_Update(Modifiable* /*owner*/) {}
    virtual void Do_PostUpdate(Modifiable* /*owner*/) {}
    virtual bool LoadGraphicsObjects(std::atomic<int>* /*pending*/) { return true; }
    virtual void Apply(Object* /*target*/) {}
    virtual void Cancel(Object* /*target*/) {}
    virtual void ModifyInnerObj(Object* /*inner*/) {}
    virtual void UnmodifyInnerObj(Object* /*inner*/) {}
    virtual unsigned int GetUsage() const { return 0; }
    virtual bool NeedTick(float& /*delta*/) { return true; }
    virtual bool CanAttachTo(Modifiable* /*owner*/) const { return true; }
    virtual void OnTick(float /*delta*/) {}
    virtual void OnAttached(Modifiable* /*owner*/) {}
    virtual void OnDetached(Modifiable* /*owner*/) {}

    bool Duplicate(Object* destination, unsigned int flags) const override;

private:
    friend class Modifiable;

    Modifiable* m_owner = nullptr;
    unsigned int m_modifierFlags = 0;
};

} // namespace KovexEngine
