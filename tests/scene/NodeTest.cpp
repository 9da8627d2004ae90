#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <random>
#include <thread>

#include "scene/SceneTestSupport.h"
#include "kernel/EngineGlobals.h"
#include "support/LogCapture.h"

using namespace KovexEngine;
using namespace KovexSceneTest;

namespace {

Ptr<Node> Named(const char16_t* name)
{
    Ptr<Node> n(new Node());
    n->SetName(WString(name));
    return n;
}

Ptr<SceneBoxNode> Box(const char16_t* name)
{
    Ptr<SceneBoxNode> n(new SceneBoxNode());
    n->SetName(WString(name));
    return n;
}

std::vector<std::string> Names(const Node& node)
{
    std::vector<std::string> out;
    for (const Ptr<Node>& child : node.GetChildren())
        out.push_back(Utf8(child->GetName()));
    return out;
}

} // namespace

// --- Tree -----------------------------------------------------------------------------------------

TEST(NodeTree, AttachOrderIndexClampAndReattach)
{
    Ptr<Node> root = Named(u"root"), a = Named(u"a"), b = Named(u"b"), c = Named(u"c");
    EXPECT_TRUE(root->AttachChild(a));
    EXPECT_TRUE(root->AttachChildAt(b, 0));
    EXPECT_TRUE(root->AttachChildAt(c, 99)); // beyond the end appends
    EXPECT_EQ(Names(*root), (std::vector<std::string>{"b", "a", "c"}));
    // Attaching a present child again is a successful no-op: it keeps its place.
    EXPECT_TRUE(root->AttachChildAt(c, 0));
    EXPECT_EQ(Names(*root), (std::vector<std::string>{"b", "a", "c"}));
    EXPECT_EQ(a->GetParent(), root.Get());
    // Attaching elsewhere moves it.
    Ptr<Node> other = Named(u"other");
    EXPECT_TRUE(other->AttachChild(a));
    EXPECT_EQ(Names(*root), (std::vector<std::string>{"b", "c"}));
    EXPECT_EQ(a->GetParent(), other.Get());
    // Null and self are refused.
    EXPECT_FALSE(root->AttachChild(Ptr<Node>()));
    EXPECT_FALSE(root->AttachChild(root));
    EXPECT_FALSE(root->CanAttachChild(Ptr<Node>()));
    // Detaching a non-child does nothing.
    root->DetachChild(a);
    EXPECT_EQ(a->GetParent(), other.Get());
    EXPECT_FALSE(root->GetChild(7u));
}

TEST(NodeTree, CyclesAreRefusedWithALogLineAndNothingChanges)
{
    KovexTest::LogCapture log;
    Ptr<Node> root = Named(u"root"), mid = Named(u"mid"), leaf = Named(u"leaf");
    root->AttachChild(mid);
    mid->AttachChild(leaf);
    EXPECT_FALSE(leaf->AttachChild(root));
    EXPECT_FALSE(mid->AttachChild(root));
    EXPECT_FALSE(leaf->AttachChildAt(mid, 0));
    EXPECT_TRUE(log->Contains(u"Node 'leaf': can't attach 'root', which is this node's ancestor.\n"));
    unsigned errors = 0;
    for (const auto& e : log->entries)
        errors += e.level == LOG_ERROR;
    EXPECT_EQ(errors, 3u);
    EXPECT_EQ(root->GetParent(), nullptr);
    EXPECT_EQ(mid->GetParent(), root.Get());
    EXPECT_EQ(leaf->GetParent(), mid.Get());
    EXPECT_EQ(leaf->GetNumChildren(), 0u);
    // A walk still ends.
    unsigned count = 0;
    for (Node::Iterator it(root, true); it.hasNext(); it.Next())
        ++count;
    EXPECT_EQ(count, 3u);
}

TEST(NodeTree, NamesLookupsRenamesAndPostfixIds)
{
    Ptr<Node> root = Named(u"root"), a = Named(u"a"), b = Named(u"b"), deep = Named(u"x"), shallow = Named(u"x");
    root->AttachChild(a);
    root->AttachChild(b);
    a->AttachChild(deep);
    b->AttachChild(shallow);
    Ptr<Node> n1 = Named(u"n1"), n2 = Named(u"n2");
    root->AttachChild(n1);
    root->AttachChild(n2);
    EXPECT_EQ(root->GetChild(WString(u"b")).Get(), b.Get());
    EXPECT_FALSE(root->GetChild(WString(u"x")));
    // Depth first over each child's subtree in order: a's x before b's x.
    EXPECT_EQ(root->GetChildRecursively(WString(u"x")).Get(), deep.Get());
    EXPECT_EQ(root->GetNode(WString(u"root")).Get(), root.Get());
    EXPECT_EQ(root->GetNode(WString(u"x")).Get(), deep.Get());
    EXPECT_FALSE(root->GetNode(WString(u"ROOT")));
    // A rename is seen by the next look-up.
    a->SetName(WString(u"renamed"));
    EXPECT_EQ(root->GetChild(WString(u"renamed")).Get(), a.Get());
    EXPECT_FALSE(root->GetChild(WString(u"a")));
    EXPECT_EQ(root->AllocChildPostfixId(WString(u"n"), 1), 3u);
    EXPECT_EQ(root->AllocChildPostfixId(WString(u"n"), 0), 0u);
    EXPECT_EQ(root->AllocChildPostfixId(WString(u"n"), 2), 3u);
}

TEST(NodeTree, DetachKeepsTheCachedTransformAndNotifies)
{
    Events().clear();
    Ptr<SceneBoxNode> root = Box(u"root"), child = Box(u"child");
    root->record = child->record = true;
    root->SetLocalTrans(Vector3(5, 0, 0));
    child->SetLocalTrans(Vector3(0, 1, 0));
    root->AttachChild(Ptr<Node>(child.Get()));
    root->Update(0);
    Events().clear();
    root->DetachChild(Ptr<Node>(child.Get()));
    EXPECT_EQ(Events(), (std::vector<std::string>{"detached:child"}));
    EXPECT_EQ(child->GetParent(), nullptr);
    EXPECT_FALSE(child->TestFlag(Node::FLAG_TRANSFORM_DIRTY));
    EXPECT_EQ(child->GetFinalXMFast().translation, Vector3(5, 1, 0));
    // Detaching all tells each child, in order.
    Ptr<SceneBoxNode> c1 = Box(u"c1"), c2 = Box(u"c2");
    c1->record = c2->record = true;
    root->AttachChild(Ptr<Node>(c1.Get()));
    root->AttachChild(Ptr<Node>(c2.Get()));
    Events().clear();
    root->DetachAllChildren();
    EXPECT_EQ(Events(), (std::vector<std::string>{"detached:c1", "detached:c2"}));
    EXPECT_EQ(root->GetNumChildren(), 0u);
    EXPECT_EQ(c2->GetParent(), nullptr);
}

TEST(NodeTree, VisibilityReachesTheWholeSubtree)
{
    Ptr<Node> root = Named(u"root"), a = Named(u"a"), b = Named(u"b");
    root->AttachChild(a);
    a->AttachChild(b);
    EXPECT_TRUE(b->IsSelfVisible());
    root->SetVisible(false);
    EXPECT_FALSE(root->IsSelfVisible());
    EXPECT_FALSE(b->IsSelfVisible());
    a->SetSelfVisible(true);
    EXPECT_TRUE(a->IsSelfVisible());
    EXPECT_FALSE(b->IsSelfVisible());
    EXPECT_EQ(root->GetFlags() & ~unsigned(Node::FLAG_SELF_VISIBLE), 7u);
}

// --- Transforms -------------------------------------------------------------------------------------

namespace {

// An independent reference in double precision.
struct Ref
{
    double r[3][3];
    double t[3];
    double s[3];
};

Ref RefOf(const Transform& x)
{
    Ref out{};
    for (int i = 0; i < 3; ++i)
    {
        for (int j = 0; j < 3; ++j)
            out.r[i][j] = x.rotation.m[i][j];
        out.t[i] = x.translation[unsigned(i)];
        out.s[i] = x.scale[unsigned(i)];
    }
    return out;
}

// a ∘ b: the parts kept apart (rotations multiply, scales multiply, b's
// translation goes through a); for uniform scale this is the 4x4 product.
Ref Compose(const Ref& a, const Ref& b)
{
    Ref out{};
    for (int i = 0; i < 3; ++i)
    {
        for (int j = 0; j < 3; ++j)
            for (int k = 0; k < 3; ++k)
                out.r[i][j] += a.r[i][k] * b.r[k][j];
        out.s[i] = a.s[i] * b.s[i];
        out.t[i] = a.t[i];
        for (int k = 0; k < 3; ++k)
            out.t[i] += a.r[i][k] * a.s[k] * b.t[k];
    }
    return out;
}

using Mat4 = std::array<std::array<double, 4>, 4>;

Mat4 Matrix(const Ref& x)
{
    Mat4 m{};
    for (int i = 0; i < 3; ++i)
    {
        for (int j = 0; j < 3; ++j)
            m[i][j] = x.r[i][j] * x.s[j];
        m[i][3] = x.t[i];
    }
    m[3][3] = 1;
    return m;
}

Mat4 Product(const Mat4& a, const Mat4& b)
{
    Mat4 m{};
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j)
            for (int k = 0; k < 4; ++k)
                m[i][j] += a[i][k] * b[k][j];
    return m;
}

double MaxDiff(const Mat4& a, const Matrix4& b)
{
    double d = 0;
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j)
            d = std::max(d, std::fabs(a[i][j] - b.m[i][j]));
    return d;
}

struct RandomTree
{
    std::vector<Ptr<Node>> nodes;
    std::vector<int> parent; // index, -1 for the root
};

Transform RandomLocal(std::mt19937& rng, bool uniform)
{
    std::uniform_real_distribution<float> angle(-3.1f, 3.1f), pos(-5, 5), scl(0.5f, 2.0f);
    Transform t;
    t.rotation = Matrix3::RotateEuler(Vector3(angle(rng), angle(rng), angle(rng)));
    t.translation = Vector3(pos(rng), pos(rng), pos(rng));
    float s = scl(rng);
    t.scale = uniform ? Vector3(s, s, s) : Vector3(s, scl(rng), scl(rng));
    return t;
}

} // namespace

// Random trees, random edits at random levels, reads both through Update
// and through the lazy clean of a single read.
TEST(NodeTransform, RandomTreesMatchAnIndependentReference)
{
    std::mt19937 rng(1234);
    double worst = 0;
    for (int tree = 0; tree < 1000; ++tree)
    {
        bool uniform = tree % 2 == 0;
        RandomTree t;
        int count = 2 + int(rng() % 40);
        for (int i = 0; i < count; ++i)
        {
            Ptr<Node> n(new Node());
            n->SetLocalXM(RandomLocal(rng, uniform));
            int p = i == 0 ? -1 : int(rng() % unsigned(i));
            if (p >= 0)
                ASSERT_TRUE(t.nodes[size_t(p)]->AttachChild(n));
            t.nodes.push_back(n);
            t.parent.push_back(p);
        }
        t.nodes[0]->Update(0);
        for (int edit = 0; edit < 4; ++edit)
        {
            Node& n = *t.nodes[rng() % t.nodes.size()];
            Transform x = RandomLocal(rng, uniform);
            switch (rng() % 4)
            {
            case 0: n.SetLocalXM(x); break;
            case 1: n.SetLocalTrans(x.translation); break;
            case 2: n.SetLocalRot(x.rotation); break;
            default: n.SetLocalScale(x.scale); break;
            }
            // Half of the time a single read cleans the tree.
            if (rng() % 2)
                t.nodes[rng() % t.nodes.size()]->GetFinalXM();
        }
        if (tree % 3)
            t.nodes[0]->Update(0.5f);
        std::vector<Ref> world(t.nodes.size());
        std::vector<Mat4> product(t.nodes.size());
        for (size_t i = 0; i < t.nodes.size(); ++i)
        {
            Ref local = RefOf(t.nodes[i]->GetLocalXM());
            world[i] = t.parent[i] < 0 ? local : Compose(world[size_t(t.parent[i])], local);
            product[i] = t.parent[i] < 0 ? Matrix(local) : Product(product[size_t(t.parent[i])], Matrix(local));
            Matrix4 got = t.nodes[i]->GetFinalXM().ToMatrix();
            double d = MaxDiff(Matrix(world[i]), got);
            // Where scale is uniform the plain 4x4 product agrees as well.
            if (uniform)
                d = std::max(d, MaxDiff(product[i], got));
            worst = std::max(worst, d / std::max(1.0, std::fabs(world[i].t[0]) + std::fabs(world[i].t[1]) +
                                                            std::fabs(world[i].t[2])));
            ASSERT_LT(d, 1e-5 * std::max(1.0, std::fabs(world[i].t[0]) + std::fabs(world[i].t[1]) +
                                                  std::fabs(world[i].t[2]) + 1.0))
                << "tree " << tree << " node " << i;
        }
    }
    RecordProperty("worst_relative_error", std::to_string(worst));
}

TEST(NodeTransform, OffsetWorldSettersAndHelpers)
{
    Ptr<Node> parent = Named(u"p"), child = Named(u"c");
    parent->AttachChild(child);
    parent->SetLocalTRS(Vector3(1, 2, 3), Matrix3::RotateY(0.7f), Vector3(2, 2, 2));
    child->SetLocalTrans(Vector3(0, 0, 1));
    Transform offset(Matrix3::RotateX(0.3f), Vector3(0, 1, 0));
    child->SetOffsetXM(&offset);
    Transform expected;
    Transform::Multiply(expected, parent->GetFinalXM(), child->GetLocalXM());
    Transform::Multiply(expected, expected, offset);
    EXPECT_TRUE(child->GetFinalXM().ToMatrix().Translation().NearlyEquals(expected.translation));
    // The world transform leaves the offset out; the final one has it.
    Transform world = child->GetWorldXM();
    Transform noOffset;
    Transform::Multiply(noOffset, parent->GetFinalXM(), child->GetLocalXM());
    EXPECT_TRUE(world.translation.NearlyEquals(noOffset.translation, 1e-4f));
    EXPECT_FALSE(world.translation.NearlyEquals(child->GetFinalXM().translation, 1e-3f));
    child->SetOffsetXM(nullptr);

    // SetWorldXM: the final becomes what was asked, the local is derived.
    Transform target(Matrix3::RotateZ(0.4f), Vector3(-3, 4, 5), Vector3(2, 2, 2));
    child->SetWorldXM(target, false);
    parent->Update(0);
    EXPECT_TRUE(child->GetFinalXM().translation.NearlyEquals(target.translation, 1e-4f));
    EXPECT_TRUE(child->GetFinalScale().NearlyEquals(target.scale, 1e-5f));
    EXPECT_TRUE(child->GetLocalScale().NearlyEquals(Vector3(1, 1, 1), 1e-5f));
    // Movement helpers work in world space along the final axes.
    Vector3 before = child->GetFinalTrans();
    Vector3 forward = child->GetDirection();
    child->MoveForward(2, true);
    EXPECT_TRUE(child->GetFinalTrans().NearlyEquals(before + forward * 2, 1e-4f));
    child->MoveRight(-1, true);
    EXPECT_TRUE(child->GetFinalTrans().NearlyEquals(before + forward * 2 - child->GetRight(), 1e-4f));
    // SetDirection makes the forward axis the direction, a right-handed frame.
    child->SetDirection(Vector3(3, 0, 4));
    EXPECT_TRUE(child->GetDirection().NearlyEquals(Vector3(0.6f, 0, 0.8f), 1e-5f));
    EXPECT_NEAR(child->GetFinalRot().Determinant(), 1.0f, 1e-4f);
    child->SetDirection(Vector3(0, 0, -2)); // the degenerate helper case
    EXPECT_TRUE(child->GetDirection().NearlyEquals(Vector3(0, 0, -1), 1e-5f));
    EXPECT_TRUE(child->GetUp().NearlyEquals(Vector3(0, -1, 0), 1e-5f) ||
                child->GetUp().NearlyEquals(Vector3(0, 1, 0), 1e-5f));
    // RotateAroundY turns the direction about world Y.
    child->SetDirection(Vector3(0, 0, 1));
    child->RotateAroundY(1.5707963f, true);
    EXPECT_TRUE(child->GetDirection().NearlyEquals(Vector3(1, 0, 0), 1e-5f));
    child->RotateAroundRight(0.5f, true);
    EXPECT_TRUE(child->GetRight().NearlyEquals(Vector3(0, 0, -1), 1e-5f));
    // LookAt puts the node at the eye, looking at the target.
    child->LookAt(Vector3(1, 1, 1), Vector3(1, 1, 5), Vector3(0, 1, 0), true);
    EXPECT_TRUE(child->GetFinalTrans().NearlyEquals(Vector3(1, 1, 1), 1e-4f));
    EXPECT_TRUE(child->GetDirection().NearlyEquals(Vector3(0, 0, 1), 1e-5f));
    EXPECT_TRUE(child->GetUp().NearlyEquals(Vector3(0, 1, 0), 1e-5f));
}

TEST(NodeTransform, NonUniformScaleToleranceAndDegrees)
{
    Ptr<Node> n = Named(u"n");
    n->SetLocalScale(Vector3(1, 1.0005f, 1));
    EXPECT_FALSE(n->GetLocalXM().flags & Transform::FLAG_NONUNIFORM_SCALE);
    n->SetLocalScale(Vector3(1, 1, 1.002f));
    EXPECT_TRUE(n->GetLocalXM().flags & Transform::FLAG_NONUNIFORM_SCALE);
    n->SetLocalTRS(Vector3(), Matrix3(), Vector3(2, 2, 2));
    EXPECT_FALSE(n->GetLocalXM().flags & Transform::FLAG_NONUNIFORM_SCALE);
    n->SetLocalRotDegree(Vector3(10, -20, 30));
    EXPECT_TRUE(n->GetLocalRotDegree().NearlyEquals(Vector3(10, -20, 30), 1e-3f));
    // SetLocalXMFast marks nothing.
    n->Update(0);
    n->SetLocalXMFast(Transform(Matrix3(), Vector3(9, 9, 9)));
    EXPECT_FALSE(n->TestFlag(Node::FLAG_TRANSFORM_DIRTY));
    EXPECT_FALSE(n->GetFinalXM().translation == Vector3(9, 9, 9));
}

// --- Bounds ------------------------------------------------------------------------------------------

namespace {
Aabb UnionOfLeaves(const Ptr<Node>& root)
{
    Aabb all = Node::EmptyBounds();
    for (Node::Iterator it(root, true); it.hasNext();)
    {
        Ptr<Node> n = it.Next();
        if (const Aabb* box = n->getLocalAabbPtr())
        {
            const Transform& f = n->GetFinalXMFast();
            all.Add(Aabb::FromTransformedAabb(*box, f));
        }
    }
    return all;
}
} // namespace

TEST(NodeBounds, RootBoxIsTheUnionOfLeafBoxesAfterLeavesMove)
{
    std::mt19937 rng(77);
    Ptr<Node> root = Named(u"root");
    std::vector<Ptr<SceneBoxNode>> leaves;
    std::vector<Ptr<Node>> inner{root};
    for (int i = 0; i < 30; ++i)
    {
        Ptr<Node> n = Named(u"inner");
        n->SetLocalXM(RandomLocal(rng, true));
        inner[rng() % inner.size()]->AttachChild(n);
        inner.push_back(n);
    }
    for (int i = 0; i < 60; ++i)
    {
        Ptr<SceneBoxNode> leaf = Box(u"leaf");
        leaf->SetLocalXM(RandomLocal(rng, false));
        inner[rng() % inner.size()]->AttachChild(Ptr<Node>(leaf.Get()));
        leaves.push_back(leaf);
    }
    EXPECT_TRUE(root->GetFinalAabb().IsEmpty());
    EXPECT_EQ(root->GetFinalAabb().min, Vector3(1e30f, 1e30f, 1e30f));
    root->Update(0);
    for (int round = 0; round < 20; ++round)
    {
        Aabb want = UnionOfLeaves(root);
        Aabb got = root->GetFinalAabb();
        ASSERT_TRUE(got.min.NearlyEquals(want.min, 1e-3f)) << round;
        ASSERT_TRUE(got.max.NearlyEquals(want.max, 1e-3f)) << round;
        // Move some leaves, inward and outward, and update.
        for (int k = 0; k < 5; ++k)
            leaves[rng() % leaves.size()]->SetLocalTrans(Vector3(float(rng() % 20) - 10, 0, float(rng() % 7)));
        root->Update(0.1f);
    }
}

// A node rebuilt only because of its own flag 2 covers its own box alone
// until a child reports a change.
TEST(NodeBounds, BoundsFlagAloneLeavesChildrenOut)
{
    Ptr<SceneBoxNode> root = Box(u"root"), child = Box(u"child");
    child->SetLocalTrans(Vector3(10, 0, 0));
    root->AttachChild(Ptr<Node>(child.Get()));
    root->Update(0);
    EXPECT_EQ(root->GetFinalAabb().max.x, 11.0f);
    root->SetFlag(Node::FLAG_BOUNDS_DIRTY);
    EXPECT_TRUE(root->UpdateWithoutModifiers(0));
    EXPECT_EQ(root->GetFinalAabb().max.x, 1.0f);
    EXPECT_FALSE(root->TestFlag(Node::FLAG_BOUNDS_DIRTY));
    // Nothing dirty: nothing changes, nothing is reported.
    EXPECT_FALSE(root->UpdateWithoutModifiers(0));
    EXPECT_EQ(root->GetFinalAabb().max.x, 1.0f);
    // ForceUpdate adds every child again.
    root->ForceUpdate(0);
    EXPECT_EQ(root->GetFinalAabb().max.x, 11.0f);
    // A box under scale and rotation: scaled first, then turned.
    child->SetLocalTRS(Vector3(), Matrix3::RotateZ(1.5707963f), Vector3(3, 1, 1));
    root->Update(0);
    EXPECT_TRUE(child->GetFinalAabb().max.NearlyEquals(Vector3(1, 3, 1), 1e-5f));
}

// --- Modifiers ---------------------------------------------------------------------------------------

TEST(NodeModifiers, OnePerClassUsageListsAndDetachRules)
{
    Ptr<Node> n = Named(u"n");
    Ptr<SceneModifierA> a(new SceneModifierA());
    Ptr<SceneModifierA> a2(new SceneModifierA());
    Ptr<SceneModifierB> b(new SceneModifierB());
    b->usage = 6;
    EXPECT_TRUE(n->AttachModifier(Ptr<Modifier>(a.Get())));
    EXPECT_FALSE(n->AttachModifier(Ptr<Modifier>(a2.Get())));
    EXPECT_TRUE(n->AttachModifier(Ptr<Modifier>(b.Get()))); // a derived class is another class
    EXPECT_FALSE(n->AttachModifier(Ptr<Modifier>()));
    EXPECT_EQ(n->GetNumModifiers(), 2u);
    EXPECT_EQ(a->GetModifiable(), n.Get());
    EXPECT_EQ(a2->GetModifiable(), nullptr);
    EXPECT_EQ(n->GetUsageList(0).Count(), 1u);
    EXPECT_EQ(n->GetUsageList(1).Count(), 2u);
    EXPECT_EQ(n->GetUsageList(2).Count(), 1u);
    EXPECT_EQ(n->GetModifierByClassName(WString(u"SceneModifierB")).Get(), b.Get());
    // The picky modifier refuses an owner by name.
    Ptr<Node> locked = Named(u"locked");
    EXPECT_FALSE(locked->AttachModifier(Ptr<Modifier>(new SceneModifierPicky())));
    EXPECT_TRUE(n->AttachModifier(Ptr<Modifier>(new SceneModifierPicky())));
    // Detaching by another object of the same class removes nothing.
    EXPECT_FALSE(n->DetachModifier(Ptr<Modifier>(a2.Get())));
    Ptr<Modifier> removed = n->DetachModifierByClassName(WString(u"SceneModifierB"));
    EXPECT_EQ(removed.Get(), b.Get());
    EXPECT_EQ(n->GetUsageList(1).Count(), 1u);
    EXPECT_EQ(n->GetUsageList(2).Count(), 0u);
    EXPECT_EQ(b->GetModifiable(), n.Get()); // detached modifiers keep their owner
    b->Detach();
    EXPECT_EQ(b->GetModifiable(), nullptr);
    // The owner dying leaves a held modifier without a dangling owner.
    n = nullptr;
    EXPECT_EQ(a->GetModifiable(), nullptr);
}

TEST(NodeModifiers, TickInKeyOrderOnceEachBeforeAndAfterTheTransformUpdate)
{
    Ptr<SceneBoxNode> root = Box(u"root"), child = Box(u"child");
    root->record = child->record = true;
    root->AttachChild(Ptr<Node>(child.Get()));
    root->SetLocalTrans(Vector3(1, 0, 0));
    child->SetLocalTrans(Vector3(0, 2, 0));
    // Attached in an order other than the key order.
    Ptr<SceneModifierA> ma(new SceneModifierA());
    Ptr<SceneModifierB> mb(new SceneModifierB());
    Ptr<SceneModifierC> mc(new SceneModifierC());
    ma->usage = 0; // ticks only
    root->AttachModifier(Ptr<Modifier>(mc.Get()));
    root->AttachModifier(Ptr<Modifier>(ma.Get()));
    root->AttachModifier(Ptr<Modifier>(mb.Get()));
    Ptr<SceneModifierA> cm(new SceneModifierA());
    child->AttachModifier(Ptr<Modifier>(cm.Get()));
    std::vector<const Class*> keys{SceneModifierA::StaticGetClass(), SceneModifierB::StaticGetClass(),
                                   SceneModifierC::StaticGetClass()};
    std::sort(keys.begin(), keys.end());
    std::vector<std::string> ticks;
    for (const Class* k : keys)
        ticks.push_back("tick:" + Utf8(k->GetName()) + "@root");
    // The usage lists keep the attach order.
    std::vector<std::string> pre{"pre:SceneModifierC@root", "pre:SceneModifierB@root"};
    std::vector<std::string> post{"post:SceneModifierC@root", "post:SceneModifierB@root"};

    Events().clear();
    root->Update(0.25f);
    std::vector<std::string> want = ticks;
    want.push_back("tick:SceneModifierA@child");
    want.insert(want.end(), pre.begin(), pre.end());
    want.push_back("update*:root");
    want.insert(want.end(), post.begin(), post.end());
    want.push_back("pre:SceneModifierA@child");
    want.push_back("update*:child");
    want.push_back("post:SceneModifierA@child");
    want.push_back("moved:child");
    want.push_back("moved:root");
    EXPECT_EQ(Events(), want);
    EXPECT_EQ(ma->lastTick, 0.25f);
    // Before: the parent is already placed, the owner not yet; after: placed.
    EXPECT_EQ(cm->parentAtUpdate, Vector3(1, 0, 0));
    EXPECT_EQ(cm->ownerAtUpdate, Vector3(0, 0, 0));
    EXPECT_EQ(cm->ownerAtPostUpdate, Vector3(1, 2, 0));

    // Nothing dirty: modifiers still tick, nothing moves.
    Events().clear();
    mc->tickWhenAsked = false;
    root->Update(0.5f);
    EXPECT_EQ(std::count(Events().begin(), Events().end(), "tick:SceneModifierC@root"), 0);
    EXPECT_EQ(std::count(Events().begin(), Events().end(), "moved:root"), 0);
    EXPECT_EQ(std::count(Events().begin(), Events().end(), "update:child"), 1);
}

// The modifier pass leaves out subtrees with no modifier in them; one added
// deep in a clean tree, carried along when its branch moves, attached
// before its branch is, or one of two on a node that loses the other,
// still ticks, and one that is gone does not.
TEST(NodeModifiers, ModifiersAnywhereBelowTickThroughAttachMoveAndDetach)
{
    Ptr<Node> root(new Node()), a(new Node()), b(new Node()), c(new Node()), d(new Node()), e(new Node());
    root->AttachChild(a);
    a->AttachChild(b);
    b->AttachChild(c);
    root->AttachChild(d);
    d->AttachChild(e);
    root->Update(0);
    auto fresh = [] {
        Ptr<SceneModifierA> m(new SceneModifierA());
        m->usage = 0;
        return m;
    };

    Ptr<SceneModifierA> deep = fresh();
    c->AttachModifier(Ptr<Modifier>(deep.Get()));
    root->Update(0.5f);
    EXPECT_EQ(deep->lastTick, 0.5f);

    // The branch b-c moves under e: it ticks there, and not twice.
    e->AttachChild(b);
    Events().clear();
    root->Update(0.25f);
    EXPECT_EQ(deep->lastTick, 0.25f);
    EXPECT_EQ(std::count(Events().begin(), Events().end(), "tick:SceneModifierA@"), 1);

    // A second modifier on the same node; the first goes, the second ticks.
    Ptr<SceneModifierB> other(new SceneModifierB());
    other->usage = 0;
    c->AttachModifier(Ptr<Modifier>(other.Get()));
    c->DetachModifier(Ptr<Modifier>(deep.Get()));
    root->Update(0.125f);
    EXPECT_EQ(deep->lastTick, 0.25f);
    EXPECT_EQ(other->lastTick, 0.125f);
    c->DetachModifier(Ptr<Modifier>(other.Get()));
    root->Update(2.0f);
    EXPECT_EQ(other->lastTick, 0.125f);

    // Modifiers in a branch before it is attached; the branch leaves again.
    Ptr<Node> branch(new Node()), leaf(new Node());
    branch->AttachChild(leaf);
    Ptr<SceneModifierA> early = fresh();
    leaf->AttachModifier(Ptr<Modifier>(early.Get()));
    a->AttachChild(branch);
    root->Update(3.0f);
    EXPECT_EQ(early->lastTick, 3.0f);
    a->DetachChild(branch);
    root->Update(4.0f);
    EXPECT_EQ(early->lastTick, 3.0f);
    branch->Update(5.0f); // the branch alone still ticks its own
    EXPECT_EQ(early->lastTick, 5.0f);

    // Clearing every child of a node drops what they carried.
    c->AttachModifier(Ptr<Modifier>(deep.Get()));
    root->DetachAllChildren();
    root->Update(6.0f);
    EXPECT_EQ(deep->lastTick, 0.25f);
    root->AttachChild(a);
    root->AttachChild(d);
    root->Update(7.0f);
    EXPECT_EQ(deep->lastTick, 7.0f);
}

// A read of a dirty leaf under a dirty parent ticks the highest dirty
// node's modifiers with delta 0, and only that subtree's.
TEST(NodeModifiers, ReadingADirtyLeafTicksTheHighestDirtyAncestor)
{
    Ptr<Node> root = Named(u"root"), mid = Named(u"mid"), leaf = Named(u"leaf");
    root->AttachChild(mid);
    mid->AttachChild(leaf);
    Ptr<SceneModifierA> onRoot(new SceneModifierA()), onMid(new SceneModifierA());
    root->AttachModifier(Ptr<Modifier>(onRoot.Get()));
    mid->AttachModifier(Ptr<Modifier>(onMid.Get()));
    root->Update(1);
    onRoot->lastTick = onMid->lastTick = -1;
    mid->SetLocalTrans(Vector3(0, 3, 0));
    EXPECT_EQ(root->FindCleanNode(), root.Get());
    EXPECT_EQ(leaf->FindCleanNode(), mid.Get());
    EXPECT_EQ(leaf->GetFinalTrans(), Vector3(0, 3, 0));
    EXPECT_EQ(onMid->lastTick, 0.0f);
    EXPECT_EQ(onRoot->lastTick, -1.0f);
    // Clean now: a second read ticks nothing.
    onMid->lastTick = -1;
    leaf->GetFinalXM();
    EXPECT_EQ(onMid->lastTick, -1.0f);
}

// --- Walks ---------------------------------------------------------------------------------------------

namespace {
// A node that detaches a sibling (or itself) from inside its update.
class Saboteur : public SceneBoxNode
{
public:
    Node* victim = nullptr;
    void OnUpdate(float, bool) override
    {
        if (victim)
        {
            victim->DetachFromParent();
            victim = nullptr;
        }
    }
};
} // namespace

TEST(NodeWalk, DetachingDuringAWalkOrAnUpdateIsSafe)
{
    Ptr<Node> root = Named(u"root");
    std::vector<Node*> raw;
    for (int i = 0; i < 5; ++i)
    {
        Ptr<Node> c = Named(u"c");
        for (int j = 0; j < 3; ++j)
            c->AttachChild(Named(u"g"));
        root->AttachChild(c);
    }
    // Pre-order, root first.
    std::vector<Node*> order;
    for (Node::Iterator it(root, true); it.hasNext();)
        order.push_back(it.Next().Get());
    ASSERT_EQ(order.size(), 21u);
    EXPECT_EQ(order[0], root.Get());
    EXPECT_EQ(order[1], root->GetChild(0u).Get());
    EXPECT_EQ(order[2], root->GetChild(0u)->GetChild(0u).Get());
    EXPECT_EQ(order[5], root->GetChild(1u).Get());
    // Detach the node being visited and whole subtrees on the way: the walk
    // ends and touches no freed node (the sanitizer build would say).
    unsigned visited = 0;
    for (Node::Iterator it(root, false); it.hasNext();)
    {
        Ptr<Node> n = it.Next();
        ++visited;
        n->DetachFromParent();
        if (root->GetNumChildren())
            root->GetChild(root->GetNumChildren() - 1)->DetachAllChildren();
    }
    EXPECT_GT(visited, 0u);
    EXPECT_LT(visited, 21u);

    // During an update: a node detaches its own parent's next sibling, and
    // one detaches itself, the only reference being its parent's.
    Ptr<Node> top = Named(u"top");
    Ptr<Saboteur> first(new Saboteur());
    top->AttachChild(Ptr<Node>(first.Get()));
    Ptr<Node> doomed = Named(u"doomed");
    doomed->AttachChild(Named(u"inside"));
    top->AttachChild(doomed);
    first->victim = doomed.Get();
    doomed = nullptr;
    auto* self = new Saboteur();
    self->victim = self;
    top->AttachChild(Ptr<Node>(self));
    top->Update(0);
    EXPECT_EQ(top->GetNumChildren(), 1u);
}

TEST(NodeWalk, AHundredThousandNodeChainUpdatesWalksClonesAndDies)
{
    constexpr unsigned kDepth = 100000;
    Ptr<Node> root = Named(u"root");
    Node* bottom = root.Get();
    for (unsigned i = 1; i < kDepth; ++i)
    {
        Ptr<Node> n(new Node());
        n->SetLocalTrans(Vector3(0, 0, 1));
        ASSERT_TRUE(bottom->AttachChild(n));
        bottom = n.Get();
    }
    root->Update(0);
    EXPECT_EQ(bottom->GetFinalXMFast().translation, Vector3(0, 0, float(kDepth - 1)));
    // A read from the bottom after a change at the top.
    root->SetLocalTrans(Vector3(1, 0, 0));
    EXPECT_EQ(bottom->GetFinalTrans(), Vector3(1, 0, float(kDepth - 1)));
    root->ForceUpdate(0);
    root->CalculateLocalBound();
    root->SetVisible(false);
    unsigned count = 0;
    for (Node::Iterator it(root, true); it.hasNext(); it.Next())
        ++count;
    EXPECT_EQ(count, kDepth);
    EXPECT_FALSE(root->GetChildRecursively(WString(u"nowhere")));
    Ptr<Object> copy = root->Clone(0);
    ASSERT_TRUE(copy);
    Node* clone = static_cast<Node*>(copy.Get());
    unsigned cloned = 0;
    for (Node::Iterator it(Ptr<Node>(clone), true); it.hasNext(); it.Next())
        ++cloned;
    EXPECT_EQ(cloned, kDepth);
    copy = nullptr;
    root = nullptr; // the chain dies without nesting
}

#ifndef NDEBUG
// Reads that may tick modifiers assert that they run on the main thread.
TEST(NodeTransformDeathTest, ReadsThatTickBelongToTheMainThread)
{
    uint32 saved = g_kovexMainThreadId;
    // No thread can have this id (Linux ids stay below 2^22). "This id + 1"
    // raced: the death test's forked child often gets exactly that id.
    g_kovexMainThreadId = 0x7ffffff0u;
    Ptr<Node> n = Named(u"n");
    n->SetLocalTrans(Vector3(1, 0, 0));
    EXPECT_DEATH(n->GetFinalXM(), "");
    EXPECT_EQ(n->GetFinalXMFast().translation, Vector3(0, 0, 0)); // the Fast read is allowed
    g_kovexMainThreadId = saved;
    EXPECT_EQ(n->GetFinalXM().translation, Vector3(1, 0, 0));
}
#endif

// Loaders build trees on their own threads: nodes of several classes made,
// linked and dropped on many threads at once, all from the node heap.
TEST(NodeThreads, NodesComeAndGoOnManyThreads)
{
    constexpr int kThreads = 4, kRounds = 3000;
    std::vector<std::thread> threads;
    std::vector<unsigned> counts(kThreads, 0);
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            std::mt19937 rng(unsigned(t + 10));
            Ptr<Node> root(new Node());
            std::vector<Node*> all{root.Get()};
            for (int round = 0; round < kRounds; ++round)
            {
                Ptr<Node> n = rng() % 2 ? Ptr<Node>(new Node()) : Ptr<Node>(Box(u"box").Get());
                all[rng() % all.size()]->AttachChild(n);
                all.push_back(n.Get());
                if (round % 500 == 499)
                {
                    counts[size_t(t)] += root->GetNumChildren();
                    root->DetachAllChildren();
                    all.assign(1, root.Get());
                }
            }
        });
    for (std::thread& t : threads)
        t.join();
    for (unsigned count : counts)
        EXPECT_GT(count, 0u);
}
