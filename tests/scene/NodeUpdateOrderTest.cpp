// The flat update order of a root: the same results and the same calls as
// the walk by pointers, built and dropped at the right moments, and safe
// against callbacks that change the shape in the middle of a walk.

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>

#include "kernel/StringConv.h"
#include "scene/SceneTestSupport.h"

using namespace KovexEngine;
using namespace KovexSceneTest;

namespace {

Ptr<SceneBoxNode> Box(const std::string& name)
{
    Ptr<SceneBoxNode> n(new SceneBoxNode());
    n->SetName(StringConvFuncs::ToWString(name.c_str()));
    return n;
}

std::vector<Node*> PreOrder(const Ptr<Node>& root)
{
    std::vector<Node*> out;
    for (Node::Iterator it(root, true); it.hasNext();)
        out.push_back(it.Next().Get());
    return out;
}

bool SameBits(const Transform& a, const Transform& b)
{
    return a.rotation == b.rotation && a.translation == b.translation && a.scale == b.scale && a.flags == b.flags;
}

// A tree made twice from one seed: nodes named by their creation index,
// some with modifiers, some with an offset, one without a box.
struct Recipe
{
    Ptr<Node> root;
    std::vector<Ptr<SceneBoxNode>> nodes;
};

Recipe Make(unsigned seed, const Transform* offset)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> angle(-3, 3), pos(-4, 4), scl(0.5f, 2);
    Recipe r;
    unsigned count = 2 + rng() % 60;
    for (unsigned i = 0; i < count; ++i)
    {
        Ptr<SceneBoxNode> n = Box("n" + std::to_string(i));
        n->record = true;
        n->hasBox = rng() % 7 != 0;
        n->SetLocalTRS(Vector3(pos(rng), pos(rng), pos(rng)), Matrix3::RotateEuler(Vector3(angle(rng), angle(rng), 0)),
                       Vector3(scl(rng), scl(rng), scl(rng)));
        if (rng() % 5 == 0)
        {
            Ptr<SceneModifierA> m(new SceneModifierA());
            n->AttachModifier(Ptr<Modifier>(m.Get()));
        }
        if (offset && rng() % 6 == 0)
            n->SetOffsetXM(offset);
        if (i)
            r.nodes[rng() % i]->AttachChild(Ptr<Node>(n.Get()));
        r.nodes.push_back(n);
    }
    r.root = Ptr<Node>(r.nodes[0].Get());
    return r;
}

// Forces the walk by pointers on the next update: a change of shape.
void Jiggle(Node& root)
{
    Ptr<Node> dummy(new Node());
    root.AttachChild(dummy);
    root.DetachChild(dummy);
}

} // namespace

// Every frame edits both trees alike; one is walked flat, the other by
// pointers. Transforms, boxes and the sequence of every notification and
// modifier hook must agree exactly.
TEST(NodeUpdateOrder, FlatAndPointerWalksAgreeBitForBitAndCallForCall)
{
    Transform offset;
    offset.translation = Vector3(0.5f, -1, 2);
    offset.scale = Vector3(1.5f, 1.5f, 1.5f);
    for (unsigned seed = 1; seed <= 60; ++seed)
    {
        Recipe flat = Make(seed, &offset), byPointers = Make(seed, &offset);
        flat.root->Update(0);
        flat.root->Update(0);
        byPointers.root->Update(0);
        Jiggle(*byPointers.root);
        byPointers.root->Update(0);
        ASSERT_TRUE(flat.root->HasFlatUpdateOrder());
        std::mt19937 rng(seed * 7);
        for (int frame = 0; frame < 12; ++frame)
        {
            for (int edit = 0; edit < 3; ++edit)
            {
                size_t i = rng() % flat.nodes.size();
                Vector3 t(float(rng() % 9), float(rng() % 5), -float(rng() % 7));
                switch (rng() % 4)
                {
                case 0:
                    flat.nodes[i]->SetLocalTrans(t);
                    byPointers.nodes[i]->SetLocalTrans(t);
                    break;
                case 1:
                    flat.nodes[i]->SetLocalScale(Vector3(1, 2, 1) + t * 0.1f);
                    byPointers.nodes[i]->SetLocalScale(Vector3(1, 2, 1) + t * 0.1f);
                    break;
                case 2: // the box alone, which leaves the children out
                    flat.nodes[i]->SetFlag(Node::FLAG_BOUNDS_DIRTY);
                    byPointers.nodes[i]->SetFlag(Node::FLAG_BOUNDS_DIRTY);
                    break;
                default:
                    flat.nodes[i]->box.max = Vector3(1, 1, 1) + t;
                    byPointers.nodes[i]->box.max = Vector3(1, 1, 1) + t;
                    flat.nodes[i]->SetFlag(Node::FLAG_BOUNDS_DIRTY);
                    byPointers.nodes[i]->SetFlag(Node::FLAG_BOUNDS_DIRTY);
                    break;
                }
            }
            bool force = frame % 5 == 4;
            Jiggle(*byPointers.root);
            Events().clear();
            if (force)
                flat.root->ForceUpdate(0.25f);
            else
                flat.root->Update(0.25f);
            std::vector<std::string> flatEvents = Events();
            Events().clear();
            if (force)
                byPointers.root->ForceUpdate(0.25f);
            else
                byPointers.root->Update(0.25f);
            ASSERT_TRUE(flat.root->HasFlatUpdateOrder());
            ASSERT_FALSE(byPointers.root->HasFlatUpdateOrder());
            ASSERT_EQ(flatEvents, Events()) << "seed " << seed << " frame " << frame;
            for (size_t i = 0; i < flat.nodes.size(); ++i)
            {
                ASSERT_TRUE(SameBits(flat.nodes[i]->GetFinalXMFast(), byPointers.nodes[i]->GetFinalXMFast()))
                    << "seed " << seed << " node " << i;
                ASSERT_EQ(flat.nodes[i]->GetFinalAabb(), byPointers.nodes[i]->GetFinalAabb())
                    << "seed " << seed << " node " << i;
                ASSERT_EQ(flat.nodes[i]->GetFlags(), byPointers.nodes[i]->GetFlags());
            }
        }
    }
    Events().clear();
}

// Built once the shape held still between two updates of a root, dropped
// by the first change of shape; the node states survive every move.
TEST(NodeUpdateOrder, BuiltWhenTheShapeHoldsStillAndDroppedByTheFirstChange)
{
    Recipe r = Make(99, nullptr);
    Node& root = *r.root;
    root.Update(0);
    EXPECT_FALSE(root.HasFlatUpdateOrder()) << "the tree was just built";
    root.Update(0);
    EXPECT_TRUE(root.HasFlatUpdateOrder());
    r.nodes.back()->SetLocalTrans(Vector3(3, 2, 1)); // not a change of shape
    root.Update(0);
    EXPECT_TRUE(root.HasFlatUpdateOrder());

    auto snapshot = [&] {
        std::vector<std::pair<Transform, Transform>> out;
        for (const auto& n : r.nodes)
            out.emplace_back(n->GetLocalXM(), n->GetFinalXMFast());
        return out;
    };
    auto before = snapshot();
    Ptr<SceneBoxNode> extra = Box("extra");
    r.nodes.back()->AttachChild(Ptr<Node>(extra.Get()));
    EXPECT_FALSE(root.HasFlatUpdateOrder()) << "dropped at once";
    auto after = snapshot();
    for (size_t i = 0; i < before.size(); ++i)
        EXPECT_TRUE(SameBits(before[i].first, after[i].first) && SameBits(before[i].second, after[i].second)) << i;
    root.Update(0);
    EXPECT_FALSE(root.HasFlatUpdateOrder()) << "the shape changed since the last update";
    root.Update(0);
    EXPECT_TRUE(root.HasFlatUpdateOrder());

    // Only roots keep orders.
    Node& child = *r.nodes[1];
    child.Update(0);
    child.Update(0);
    EXPECT_FALSE(child.HasFlatUpdateOrder());

    // A node moved from one ordered tree into another keeps its local
    // transform and takes its new parent's world.
    Recipe other = Make(5, nullptr);
    other.root->Update(0);
    other.root->Update(0);
    ASSERT_TRUE(other.root->HasFlatUpdateOrder());
    Ptr<Node> moved(r.nodes.back().Get());
    Transform local = moved->GetLocalXM();
    other.nodes.back()->AttachChild(moved);
    EXPECT_FALSE(root.HasFlatUpdateOrder());
    EXPECT_FALSE(other.root->HasFlatUpdateOrder());
    EXPECT_TRUE(SameBits(moved->GetLocalXM(), local));
    for (int i = 0; i < 3; ++i)
        other.root->Update(0);
    EXPECT_TRUE(other.root->HasFlatUpdateOrder());
    Transform expected;
    Transform::Multiply(expected, other.nodes.back()->GetFinalXMFast(), local);
    EXPECT_TRUE(SameBits(moved->GetFinalXMFast(), expected));

    // A root that joins another tree gives its order up; so does one whose
    // children all go.
    root.Update(0);
    root.Update(0);
    ASSERT_TRUE(root.HasFlatUpdateOrder());
    other.nodes[0]->AttachChild(r.root);
    EXPECT_FALSE(root.HasFlatUpdateOrder());
    other.nodes[0]->DetachChild(r.root);
    root.Update(0);
    root.Update(0);
    ASSERT_TRUE(root.HasFlatUpdateOrder());
    root.DetachAllChildren();
    EXPECT_FALSE(root.HasFlatUpdateOrder());
    Events().clear();
}

namespace {

int s_alive = 0;

// A node that counts its instances and may change the shape from inside its
// own update.
class Mischief : public SceneBoxNode
{
public:
    std::function<void(Mischief&)> act;
    Mischief() { ++s_alive; }
    ~Mischief() override { --s_alive; }
    void OnUpdate(float delta, bool changed) override
    {
        SceneBoxNode::OnUpdate(delta, changed);
        if (act)
        {
            auto once = std::move(act);
            act = nullptr;
            once(*this);
        }
    }
};

Ptr<Mischief> Imp(const std::string& name)
{
    Ptr<Mischief> n(new Mischief());
    n->SetName(StringConvFuncs::ToWString(name.c_str()));
    n->record = true;
    return n;
}

// How many times the node was updated, changed or not.
long Updates(const std::vector<std::string>& events, const std::string& name)
{
    return std::count(events.begin(), events.end(), "update:" + name) +
           std::count(events.begin(), events.end(), "update*:" + name);
}

} // namespace

// Callbacks that detach, drop, move and attach nodes and update the root
// again, all in the middle of a flat walk: nothing freed is touched (the
// sanitizer build would say), nodes that moved are left out, the order is
// dropped when the walk ends and the dropped nodes die with it.
TEST(NodeUpdateOrder, ShapeChangesDuringAFlatWalkAreSafe)
{
    {
        // root ─ a ─ a1, a2
        //      ├ b ─ b1 ─ b11
        //      ├ c
        //      └ d ─ d1
        Ptr<Mischief> root = Imp("root"), a = Imp("a"), b = Imp("b"), c = Imp("c"), d = Imp("d");
        root->AttachChild(Ptr<Node>(a.Get()));
        root->AttachChild(Ptr<Node>(b.Get()));
        root->AttachChild(Ptr<Node>(c.Get()));
        root->AttachChild(Ptr<Node>(d.Get()));
        a->AttachChild(Ptr<Node>(Imp("a1").Get()));
        a->AttachChild(Ptr<Node>(Imp("a2").Get()));
        Ptr<Mischief> b1 = Imp("b1");
        b->AttachChild(Ptr<Node>(b1.Get()));
        b1->AttachChild(Ptr<Node>(Imp("b11").Get()));
        d->AttachChild(Ptr<Node>(Imp("d1").Get()));
        root->Update(0);
        root->Update(0);
        ASSERT_TRUE(root->HasFlatUpdateOrder());
        ASSERT_EQ(s_alive, 10);

        Ptr<Mischief> late = Imp("late");
        Node* rawB = b.Get();
        b1 = nullptr;
        b = nullptr;
        a->act = [&](Mischief& self) {
            root->DetachChild(Ptr<Node>(rawB)); // only the order holds b's subtree now
            c->AttachChild(Ptr<Node>(d.Get())); // d moves under c, which comes later
            self.DetachFromParent();            // a leaves; its children are under way
        };
        c->act = [&](Mischief& self) { self.AttachChild(Ptr<Node>(late.Get())); };
        Events().clear();
        root->Update(0);
        std::vector<std::string> events = Events();
        EXPECT_EQ(Updates(events, "a1"), 1);
        EXPECT_EQ(Updates(events, "a2"), 1);
        EXPECT_EQ(Updates(events, "b"), 0) << "b left before its turn";
        EXPECT_EQ(Updates(events, "b11"), 0);
        EXPECT_EQ(Updates(events, "c"), 1);
        EXPECT_EQ(Updates(events, "late"), 0) << "attached after the order was built";
        EXPECT_EQ(Updates(events, "d"), 0) << "d moved, so it is left out this time";
        EXPECT_EQ(Updates(events, "d1"), 0);
        EXPECT_FALSE(root->HasFlatUpdateOrder());
        EXPECT_EQ(s_alive, 8) << "b, b1 and b11 died with the order";
        // The pointer walk, then a new order: both see the tree as it is.
        Events().clear();
        root->Update(0);
        root->Update(0);
        ASSERT_TRUE(root->HasFlatUpdateOrder());
        events = Events();
        EXPECT_EQ(Updates(events, "late"), 2);
        EXPECT_EQ(Updates(events, "d1"), 2);
        EXPECT_EQ(Updates(events, "a"), 0);
        EXPECT_EQ(d->GetParent(), c.Get());

        // Updates of the root nested in its own walk: while the shape holds
        // they walk the same order; once it changed, by pointers.
        d->act = [&](Mischief&) { root->Update(0); };
        Events().clear();
        root->Update(0);
        EXPECT_TRUE(root->HasFlatUpdateOrder());
        events = Events();
        EXPECT_EQ(Updates(events, "d1"), 2);
        late->act = [&](Mischief& self) {
            self.DetachFromParent();
            root->Update(0);
        };
        root->Update(0);
        EXPECT_FALSE(root->HasFlatUpdateOrder());
        EXPECT_EQ(late->GetParent(), nullptr);

        // The root joins another tree in its own walk.
        root->Update(0);
        root->Update(0);
        ASSERT_TRUE(root->HasFlatUpdateOrder());
        Ptr<Node> host(new Node());
        c->act = [&](Mischief&) { host->AttachChild(Ptr<Node>(root.Get())); };
        root->Update(0);
        EXPECT_FALSE(root->HasFlatUpdateOrder());
        EXPECT_EQ(root->GetParent(), host.Get());
        host->DetachChild(Ptr<Node>(root.Get()));

        // d drops its own parent, whose last reference but the order's was
        // the tree's: c, d and d1 stay valid to the end of the walk.
        root->Update(0);
        root->Update(0);
        ASSERT_TRUE(root->HasFlatUpdateOrder());
        d->act = [&](Mischief& self) {
            Ptr<Node> parent(self.GetParent());
            c = nullptr;
            root->DetachChild(parent);
        };
        root->Update(0);
        EXPECT_FALSE(root->HasFlatUpdateOrder());
        EXPECT_EQ(s_alive, 7) << "c died when the walk ended";
        d = nullptr;
        a = nullptr;
        late = nullptr;
        EXPECT_EQ(s_alive, 1) << "only the root is left";
    }
    EXPECT_EQ(s_alive, 0);
    Events().clear();
}
