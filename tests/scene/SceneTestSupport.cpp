#include "scene/SceneTestSupport.h"

#include "kernel/StringConv.h"

namespace KovexSceneTest {

std::vector<std::string>& Events()
{
    static std::vector<std::string> events;
    return events;
}

std::string Utf8(const WString& text)
{
    std::string out;
    for (unsigned i = 0; i < text.Length(); ++i)
        out += char(text()[i] < 128 ? text()[i] : '?');
    return out;
}

namespace {
void Record(const char* what, const std::string& who) { Events().push_back(std::string(what) + ":" + who); }
} // namespace

KOVEX_REGISTER_CLASS(SceneBoxNode, u"Tests", Node)

void SceneBoxNode::OnUpdate(float, bool changed)
{
    if (record)
        Record(changed ? "update*" : "update", Utf8(GetName()));
}
void SceneBoxNode::OnTransformChanged()
{
    if (record)
        Record("moved", Utf8(GetName()));
}
void SceneBoxNode::OnAttached()
{
    if (record)
        Record("attached", Utf8(GetName()));
}
void SceneBoxNode::OnDetached()
{
    if (record)
        Record("detached", Utf8(GetName()));
}

KOVEX_REGISTER_CLASS(SceneModifierA, u"Tests", Modifier)
KOVEX_REGISTER_CLASS(SceneModifierB, u"Tests", SceneModifierA)
KOVEX_REGISTER_CLASS(SceneModifierC, u"Tests", SceneModifierA)
KOVEX_REGISTER_CLASS(SceneModifierPicky, u"Tests", Modifier)

std::string SceneModifierA::Tag() const
{
    const auto* owner = dynamic_cast<const NamedObject*>(GetModifiable());
    return Utf8(GetClassNameW()) + "@" + (owner ? Utf8(owner->GetName()) : std::string("-"));
}

void SceneModifierA::OnTick(float delta)
{
    lastTick = delta;
    Record("tick", Tag());
}

void SceneModifierA::Do_Update(Modifiable* owner)
{
    Node* node = dynamic_cast<Node*>(owner);
    ownerAtUpdate = node->GetFinalXMFast().translation;
    parentAtUpdate = node->GetParent() ? node->GetParent()->GetFinalXMFast().translation : Vector3();
    Record("pre", Tag());
}

void SceneModifierA::Do_PostUpdate(Modifiable* owner)
{
    ownerAtPostUpdate = dynamic_cast<Node*>(owner)->GetFinalXMFast().translation;
    Record("post", Tag());
}

bool SceneModifierPicky::CanAttachTo(Modifiable* owner) const { return owner && owner->GetName() != WString(u"locked"); }

} // namespace KovexSceneTest
