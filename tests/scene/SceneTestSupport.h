#pragma once

#include <string>
#include <vector>

#include "scene/Node.h"

// Node and modifier classes that record what the scene graph does to them.
namespace KovexSceneTest {

using namespace KovexEngine;

// Every notification, in order, as "what:who".
std::vector<std::string>& Events();
std::string Utf8(const WString& text);

// A node with a box of its own in local space, recording its notifications.
class SceneBoxNode : public Node
{
    KOVEX_CLASS(SceneBoxNode)

public:
    Aabb box{Vector3(-1, -1, -1), Vector3(1, 1, 1)};
    bool hasBox = true;
    bool record = false;

    const Aabb* getLocalAabbPtr() const override { return hasBox ? &box : nullptr; }
    void OnUpdate(float delta, bool changed) override;
    void OnTransformChanged() override;
    void OnAttached() override;
    void OnDetached() override;
};

// Modifiers that record ticks and the two update hooks, with a chosen usage.
class SceneModifierA : public Modifier
{
    KOVEX_CLASS(SceneModifierA)

public:
    unsigned usage = 3;
    // What the owner's final translation and its parent's were when the
    // hooks ran.
    Vector3 ownerAtUpdate, parentAtUpdate, ownerAtPostUpdate;
    bool tickWhenAsked = true;
    float lastTick = -1;

    unsigned int GetUsage() const override { return usage; }
    bool NeedTick(float&) override { return tickWhenAsked; }
    void OnTick(float delta) override;
    void Do_Update(Modifiable* owner) override;
    void Do_PostUpdate(Modifiable* owner) override;
    std::string Tag() const;
};
class SceneModifierB : public SceneModifierA
{
    KOVEX_CLASS(SceneModifierB)
};
class SceneModifierC : public SceneModifierA
{
    KOVEX_CLASS(SceneModifierC)
};

// A modifier that refuses owners named "locked".
class SceneModifierPicky : public Modifier
{
    KOVEX_CLASS(SceneModifierPicky)

public:
    bool CanAttachTo(Modifiable* owner) const override;
};

} // namespace KovexSceneTest
