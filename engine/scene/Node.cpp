#include "scene/Node.h"

#include <cassert>
#include <cmath>

#include "kernel/EngineGlobals.h"
#include "kernel/Log.h"
#include "kernel/Sanitizers.h"
#include "kernel/SlabHeap.h"
#include "kernel/TimeAnalyzer.h"
#include "reflection/FunctionRegistration.h"
#include "reflection/PropertyRegistration.h"
#include "reflection/Struct.h"
#include "scene/Modifier.h"
#include "scene/PhysicsShape.h"
#include "serialization/Serializer.h"

// Reads that may tick modifiers belong to the thread that owns the scene.
#ifdef NDEBUG
#define KOVEX_ASSERT_MAIN_THREAD() ((void)0)
#else
#define KOVEX_ASSERT_MAIN_THREAD() \
    assert(g_kovexMainThreadId == 0 || Kovex_GetCurrentThreadId() == g_kovexMainThreadId)
#endif

namespace KovexEngine {

namespace {

const Ptr<Node> s_nullNode;
constexpr FourCC kNODE = FourCCs::Make("NODE");
constexpr FourCC kLXM = FourCCs::Make("LXM");
constexpr FourCC kPHYV = FourCCs::Make("PHYV");
constexpr FourCC kPYSP = FourCCs::Make("PYSP");
constexpr FourCC kCDSZ = FourCCs::Make("CDSZ");
constexpr FourCC kCHD = FourCCs::Make("CHD");
constexpr FourCC kRXM = FourCCs::Make("RXM");
constexpr FourCC kCHDN = FourCCs::Make("CHDN");
constexpr FourCC kINDX = FourCCs::Make("INDX");
constexpr FourCC kMODS = FourCCs::Make("MODS");

// Levels of nodes one save may nest: one below the serializer's object
// nesting, so that the modifiers of the deepest node still load.
constexpr unsigned kMaxNodeDepth = Serializer::kMaxObjectDepth - 1;

thread_local unsigned t_saveDepth = 0;
// Children of nodes dying while another node's destructor runs: released
// by the outermost destructor, one at a time, so a long chain never nests.
thread_local TArray<Ptr<Node>>* t_graveyard = nullptr;

const Struct* TransformStruct() { return static_cast<const Struct*>(Transform::StaticGetClass()); }

// Adds `box` to `into`, as Aabb::Add does; true when `into` grew. Inline,
// as are the two below, because every changed node of an update comes here.
inline bool AddBox(Aabb& into, const Aabb& box)
{
    if (box.IsEmpty())
        return false;
    bool grew = false;
    for (unsigned i = 0; i < 3; ++i)
    {
        if (box.min[i] < into.min[i])
        {
            into.min[i] = box.min[i];
            grew = true;
        }
        if (box.max[i] > into.max[i])
        {
            into.max[i] = box.max[i];
            grew = true;
        }
    }
    return grew;
}

inline float Smaller(float a, float b) { return b < a ? b : a; }
inline float Larger(float a, float b) { return a < b ? b : a; }

// A node's local box in the world: scaled first, then rotated and moved
// (Aabb::FromTransformedAabb with the scale already applied, inline).
inline Aabb WorldBox(const Aabb& local, const Transform& final)
{
    const Vector3& s = final.scale;
    Vector3 a = local.min * s, b = local.max * s;
    Aabb scaled(Vector3(Smaller(a.x, b.x), Smaller(a.y, b.y), Smaller(a.z, b.z)),
                Vector3(Larger(a.x, b.x), Larger(a.y, b.y), Larger(a.z, b.z)));
    return Aabb::FromMappedAabb(scaled, final.rotation, final.translation);
}

bool SameTransformExactly(const Transform& a, const Transform& b)
{
    return a.translation == b.translation && a.scale == b.scale && a.rotation == b.rotation;
}

} // namespace

// Pairs (source, target) whose children are still to be cloned; one per
// thread while a Duplicate runs, so nested clones defer instead of recursing.
struct Node::CloneQueue
{
    struct Entry
    {
        const Node* source = nullptr;
        Ptr<Node> target;
    };
    TArray<Entry> entries{64};
};

namespace {
thread_local Node::CloneQueue* t_cloneQueue = nullptr;
}

// A root's tree in pre-order: each entry with its parent's slot and the
// end of its subtree, and the nodes' States moved into one array in the
// same order. A walk streams through both and touches a node's object only
// for its virtual calls. Each entry but the root's holds a reference:
// nodes that callbacks detach and drop during a walk stay valid until it
// ends. The first change of shape outside a walk drops the order, moves
// the States back into their nodes and lets the references go.
struct Node::UpdateOrder
{
    struct Entry
    {
        Node* node;
        unsigned parent; // slot of the parent; 0 for the root, unused
        unsigned end;    // one past the last slot of the node's subtree
    };
    TArray<Entry> entries{1024};
    State* states = nullptr;
    unsigned depth = 0; // levels below the root
    int walking = 0;    // walks in progress
    bool stale = false; // a callback changed the shape during a walk

    ~UpdateOrder() { delete[] states; }
};

KOVEX_REGISTER_CLASS_EX(Node, u"Engine")

void Node::StaticConstructor(Class* cls)
{
    RegisterBases<Node, Modifiable>(cls);
    AddAccessor(cls, u"Translate", &Node::GetLocalTrans, &Node::SetLocalTrans);
    AddAccessor(cls, u"Rotate", &Node::GetLocalRot, &Node::SetLocalRot);
    AddAccessor(cls, u"Scale", &Node::GetLocalScale, &Node::SetLocalScale);
    AddAccessor(cls, u"PhysicsShape", &Node::GetPhysicsShape, &Node::SetPhysicsShape);
    AddFunction(cls, u"AttachChild", &Node::AttachChild, {u"child"});
    AddFunction(cls, u"DetachChild", &Node::DetachChild, {u"child"});
    AddFunction(cls, u"CanAttachChild", &Node::CanAttachChild, {u"child"});
    AddFunction(cls, u"DetachFromParent", &Node::DetachFromParent);
    AddFunction(cls, u"DetachAllChildren", &Node::DetachAllChildren);
    AddFunction(cls, u"GetNumChildren", &Node::GetNumChildren);
    AddFunction(cls, u"GetParent", &Node::GetParent);
    AddFunction(cls, u"GetChildByName", &Node::GetChildByName, {u"name"});
    AddFunction(cls, u"GetChildByIndex", &Node::GetChildByIndex, {u"index"});
    AddFunction(cls, u"DetachAllAssets", &Node::DetachAllAssets, {u"detachChildren"});
    AddFunction(cls, u"Update", &Node::Update, {u"delta"});
    AddFunction(cls, u"GetLocalTrans", &Node::GetLocalTrans);
    AddFunction(cls, u"SetLocalTrans", &Node::SetLocalTrans, {u"trans"});
    AddFunction(cls, u"GetLocalRot", &Node::GetLocalRot);
    AddFunction(cls, u"SetLocalRot", &Node::SetLocalRot);
    AddFunction(cls, u"GetLocalRotDegree", &Node::GetLocalRotDegree);
    AddFunction(cls, u"SetLocalRotDegree", &Node::SetLocalRotDegree, {u"angles"});
    AddFunction(cls, u"GetLocalScale", &Node::GetLocalScale);
    AddFunction(cls, u"SetLocalScale", &Node::SetLocalScale, {u"scale"});
    AddFunction(cls, u"GetFinalTrans", &Node::GetFinalTrans);
    AddFunction(cls, u"GetFinalRot", &Node::GetFinalRot);
    AddFunction(cls, u"GetFinalScale", &Node::GetFinalScale);
    AddFunction(cls, u"GetLocalXM", &Node::GetLocalXM);
    AddFunction(cls, u"GetWorldXM", &Node::GetWorldXM);
    AddFunction(cls, u"GetFinalXM", &Node::GetFinalXM);
    AddFunction(cls, u"SetLocalXM", &Node::SetLocalXM);
    AddFunction(cls, u"SetWorldXM", &Node::SetWorldXM, {u"", u"update"});
    AddFunction(cls, u"SetWorldTransRotateScale", &Node::SetWorldTransRotateScale,
                {u"trans", u"rotate", u"scale", u"update"});
    AddFunction(cls, u"SetWorldTrans", &Node::SetWorldTrans, {u"trans", u"update"});
    AddFunction(cls, u"SetWorldRot", &Node::SetWorldRot, {u"rotate", u"update"});
    AddFunction(cls, u"SetWorldScale", &Node::SetWorldScale, {u"scale", u"update"});
    AddFunction(cls, u"GetUp", &Node::GetUp);
    AddFunction(cls, u"GetRight", &Node::GetRight);
    AddFunction(cls, u"GetDirection", &Node::GetDirection);
    AddFunction(cls, u"SetDirection", &Node::SetDirection);
    AddFunction(cls, u"GetPhysicsShape", &Node::GetPhysicsShape);
    AddFunction(cls, u"SetPhysicsShape", &Node::SetPhysicsShape, {u"shape"});
    AddFunction(cls, u"GetFinalBoundsMin", &Node::GetFinalBoundsMin);
    AddFunction(cls, u"GetFinalBoundsMax", &Node::GetFinalBoundsMax);
    AddFunction(cls, u"GetFinalAabb", &Node::GetFinalAabb);
    AddFunction(cls, u"MoveForward", &Node::MoveForward, {u"distance", u"update"});
    AddFunction(cls, u"MoveRight", &Node::MoveRight, {u"distance", u"update"});
    AddFunction(cls, u"RotateAroundY", &Node::RotateAroundY, {u"angle", u"update"});
    AddFunction(cls, u"RotateAroundRight", &Node::RotateAroundRight, {u"angle", u"update"});
    AddFunction(cls, u"LookAt", &Node::LookAt, {u"eye", u"target", u"up", u"update"});
    AddFunction(cls, u"IsSelfVisible", &Node::IsSelfVisible);
    AddFunction(cls, u"SetSelfVisible", &Node::SetSelfVisible, {u"visible"});
    AddFunction(cls, u"SetVisible", &Node::SetVisible, {u"visible"});
    AddFunction(cls, u"CalculateLocalBound", &Node::CalculateLocalBound);
    AddFunction(cls, u"CalculateSelfLocalBound", &Node::CalculateSelfLocalBound);
    cls->ProcessClass();
}

Node::Node() { m_ownState.bounds = EmptyBounds(); }

namespace {
#if KOVEX_ASAN
constexpr bool kNodeHeap = false;
#else
constexpr bool kNodeHeap = true;
#endif
// Never destroyed: nodes may outlive every static.
SlabHeap& NodeHeap()
{
    static SlabHeap* heap = new SlabHeap();
    return *heap;
}
} // namespace

void* Node::operator new(std::size_t size) { return kNodeHeap ? NodeHeap().Allocate(size) : ::operator new(size); }

void Node::operator delete(void* block, std::size_t size)
{
    if (kNodeHeap)
        NodeHeap().Free(block, size);
    else
        ::operator delete(block);
}

Node::~Node()
{
    DropOrder();
    // Children die after this node, from the outermost destructor's loop.
    TArray<Ptr<Node>> graveyard;
    bool outermost = t_graveyard == nullptr;
    if (outermost)
        t_graveyard = &graveyard;
    for (unsigned i = 0; i < m_children.Count(); ++i)
    {
        const Ptr<Node>& child = m_children[i];
        if (child->m_parent != this)
            continue;
        child->OnDetached();
        child->m_parent = nullptr;
        t_graveyard->Add(child);
    }
    m_children.Clear();
    m_physicsShape = nullptr;
    if (outermost)
    {
        while (!graveyard.IsEmpty())
        {
            Ptr<Node> last = std::move(graveyard.Last());
            graveyard.Pop();
            last = nullptr; // may queue its own children
        }
        t_graveyard = nullptr;
    }
}

Aabb Node::EmptyBounds() { return Aabb(Vector3(1e30f, 1e30f, 1e30f), Vector3(-1e30f, -1e30f, -1e30f)); }

// --- Visibility ------------------------------------------------------------------------------------

void Node::SetSelfVisible(bool visible)
{
    if (IsSelfVisible() == visible)
        return;
    if (visible)
        SetFlag(FLAG_SELF_VISIBLE);
    else
        UnsetFlag(FLAG_SELF_VISIBLE);
    OnVisibleChanged(visible);
}

namespace {
// Pre-order over `root` and (with `all`) its descendants; each visited
// descendant is held while `visit` runs, so a callback may detach it.
template <typename F>
void VisitSubtree(Node* root, bool all, F&& visit)
{
    visit(root);
    if (!all)
        return;
    // The root itself is never wrapped in a Ptr: its owner keeps it.
    for (unsigned i = 0; i < root->GetNumChildren(); ++i)
        for (Node::Iterator it(root->GetChild(i), true); it.hasNext();)
        {
            Ptr<Node> node = it.Next();
            visit(node.Get());
        }
}
} // namespace

void Node::SetVisible(bool visible)
{
    VisitSubtree(this, true, [visible](Node* n) { n->SetSelfVisible(visible); });
}

// --- Tree ------------------------------------------------------------------------------------------

bool Node::IsSelfOrAncestorOf(const Node* node) const
{
    for (; node; node = node->m_parent)
        if (node == this)
            return true;
    return false;
}

bool Node::attachChildAt(Node* child, unsigned int index)
{
    if (!child || child == this || !canAttachChild(child))
        return false;
    if (child->m_parent == this)
        return true;
    // A cycle would hang every later walk. A node without children is
    // nobody's ancestor, which keeps building a long chain linear.
    if (child->m_children.Count() && child->IsSelfOrAncestorOf(this))
    {
        Log::Format(LOG_ERROR, u"Node '%s': can't attach '%s', which is this node's ancestor.\n", GetName()(),
                    child->GetName()());
        return false;
    }
    Ptr<Node> held(child);
    if (child->m_parent)
        child->m_parent->detachChild(child);
    if (index > m_children.Count())
        index = m_children.Count();
    child->SetFlag(FLAG_TRANSFORM_DIRTY);
    child->m_parent = this;
    child->MakeChildrenTransformDirty();
    if (!m_children.Insert(index, held))
    {
        child->m_parent = nullptr;
        return false;
    }
    if (child->m_state->ticking)
        AddTicking(int(child->m_state->ticking));
    // No longer a root: its order would walk a tree that is now part of another.
    if (child->m_order)
    {
        if (child->m_order->walking)
            child->m_order->stale = true;
        else
            child->DropOrder();
    }
    NoteShapeChange();
    child->OnAttached();
    return true;
}

void Node::detachChild(Node* child)
{
    if (!child || child->m_parent != this)
        return;
    Ptr<Node> held(child); // dies, if it must, only after the removal
    child->OnDetached();
    if (child->m_state->ticking && child->m_parent == this)
        AddTicking(-int(child->m_state->ticking));
    child->m_parent = nullptr;
    m_children.Remove(held);
    NoteShapeChange();
}

void Node::AddTicking(int count)
{
    for (Node* n = this; n; n = n->m_parent)
        n->m_state->ticking = unsigned(int(n->m_state->ticking) + count);
}

void Node::OnModifierAttached(const Ptr<Modifier>&)
{
    if (GetNumModifiers() == 1)
        AddTicking(1);
}

void Node::OnModifierDetached(const Ptr<Modifier>&)
{
    if (GetNumModifiers() == 0)
        AddTicking(-1);
}

void Node::DetachFromParent()
{
    if (m_parent)
        m_parent->detachChild(this);
}

void Node::DetachAllChildren()
{
    TArray<Ptr<Node>> children = m_children.Items();
    for (const Ptr<Node>& child : children)
        if (child->m_parent == this)
        {
            child->OnDetached();
            if (child->m_state->ticking && child->m_parent == this)
                AddTicking(-int(child->m_state->ticking));
            child->m_parent = nullptr;
        }
    // Children attached by a callback meanwhile stay.
    TResNamedMap<Ptr<Node>, const WString&> kept;
    for (const Ptr<Node>& child : m_children)
        if (child->m_parent == this)
            kept.Add(child);
    m_children.Clear();
    for (const Ptr<Node>& child : kept)
        m_children.Add(child);
    NoteShapeChange();
}

const Ptr<Node>& Node::GetChild(unsigned int index) const
{
    return index < m_children.Count() ? m_children[index] : s_nullNode;
}

const Ptr<Node>& Node::GetChild(const WString& name) const
{
    unsigned index = m_children.FindIndex(name);
    return index == kNotFound ? s_nullNode : m_children[index];
}

Ptr<Node> Node::GetChildRecursively(const WString& name) const
{
    struct Level
    {
        const Node* node;
        unsigned next;
    };
    TArray<Level> stack;
    stack.Add(Level{this, 0});
    if (const Ptr<Node>& direct = GetChild(name))
        return direct;
    while (!stack.IsEmpty())
    {
        Level& top = stack.Last();
        if (top.next >= top.node->m_children.Count())
        {
            stack.Pop();
            continue;
        }
        const Node* child = top.node->m_children[top.next++].Get();
        if (const Ptr<Node>& found = child->GetChild(name))
            return found;
        if (child->m_children.Count())
            stack.Add(Level{child, 0});
    }
    return Ptr<Node>();
}

Ptr<Node> Node::GetNode(const WString& name)
{
    if (GetName() == name)
        return Ptr<Node>(this);
    return GetChildRecursively(name);
}

unsigned int Node::AllocChildPostfixId(const WString& base, unsigned int first) const
{
    for (unsigned int id = first;; ++id)
    {
        WString name;
        name.Format(u"%s%u", base(), id);
        if (m_children.FindIndex(name) == kNotFound)
            return id;
    }
}

void Node::OnNameChanged(const WString& oldName)
{
    Modifiable::OnNameChanged(oldName);
    if (m_parent)
        m_parent->OnChildNameChanged(GetName(), this);
}

void Node::OnChildNameChanged(const WString&, Node* child)
{
    if (child && child->m_parent == this)
        m_children.Invalidate();
}

// --- Transform -------------------------------------------------------------------------------------

void Node::MakeTransformDirty()
{
    SetFlag(FLAG_TRANSFORM_DIRTY);
    MakeChildrenTransformDirty();
}

void Node::MakeChildrenTransformDirty()
{
    if (!m_children.Count())
        return;
    // In a root's flat order the subtree is one run of States.
    if (m_state != &m_ownState)
    {
        Node* root = this;
        while (root->m_parent)
            root = root->m_parent;
        const UpdateOrder* order = root->m_order;
        if (order && !order->stale)
        {
            auto at = reinterpret_cast<uintptr_t>(m_state), first = reinterpret_cast<uintptr_t>(order->states);
            size_t slot = (at - first) / sizeof(State);
            if (at >= first && slot < order->entries.Count() && order->entries[slot].node == this)
            {
                for (unsigned i = unsigned(slot) + 1; i < order->entries[slot].end; ++i)
                    order->states[i].flags |= FLAG_TRANSFORM_DIRTY;
                return;
            }
        }
    }
    TArray<Node*> pending;
    for (const Ptr<Node>& child : m_children)
        pending.Add(child.Get());
    while (!pending.IsEmpty())
    {
        Node* node = pending.Last();
        pending.Pop();
        node->m_state->flags |= FLAG_TRANSFORM_DIRTY;
        for (const Ptr<Node>& child : node->m_children)
            pending.Add(child.Get());
    }
}

void Node::SetLocalXM(const Transform& local)
{
    m_state->local = local;
    MakeTransformDirty();
}

void Node::SetLocalTrans(const Vector3& translation)
{
    m_state->local.translation = translation;
    MakeTransformDirty();
}

void Node::SetLocalRot(const Matrix3& rotation)
{
    m_state->local.rotation = rotation;
    MakeTransformDirty();
}

void Node::StoreLocalScale(const Vector3& scale)
{
    m_state->local.scale = scale;
    m_state->local.CheckNonUniformScale();
}

void Node::SetLocalScale(const Vector3& scale)
{
    StoreLocalScale(scale);
    MakeTransformDirty();
}

void Node::SetLocalTRS(const Vector3& translation, const Matrix3& rotation, const Vector3& scale)
{
    m_state->local.translation = translation;
    m_state->local.rotation = rotation;
    m_state->local.CheckFlipped();
    StoreLocalScale(scale);
    MakeTransformDirty();
}

Vector3 Node::GetLocalRotDegree() const
{
    // The inverse of RotateEulerDegree: R = Rz * Ry * Rx.
    const Matrix3& r = m_state->local.rotation;
    float sy = -r.m[2][0];
    sy = sy > 1 ? 1 : (sy < -1 ? -1 : sy);
    float x, y = std::asin(sy), z;
    if (std::fabs(sy) < 0.99999f)
    {
        x = std::atan2(r.m[2][1], r.m[2][2]);
        z = std::atan2(r.m[1][0], r.m[0][0]);
    }
    else
    {
        x = 0;
        z = std::atan2(-r.m[0][1], r.m[1][1]);
    }
    constexpr float kToDegrees = 57.29577951308232f;
    // Adding zero turns -0 into 0, which reads better in tools.
    return Vector3(x * kToDegrees + 0.0f, y * kToDegrees + 0.0f, z * kToDegrees + 0.0f);
}

void Node::SetLocalRotDegree(const Vector3& angles) { SetLocalRot(Matrix3::RotateEulerDegree(angles)); }

void Node::SetOffsetXM(const Transform* offset)
{
    m_state->offset = offset;
    MakeTransformDirty();
}

Node* Node::FindCleanNode()
{
    Node* node = this;
    while (node->m_parent && node->m_parent->TestFlag(FLAG_TRANSFORM_DIRTY))
        node = node->m_parent;
    return node;
}

void Node::MakeTransformClean()
{
    KOVEX_ASSERT_MAIN_THREAD();
    if (!TestFlag(FLAG_TRANSFORM_DIRTY))
        return;
    FindCleanNode()->Update(0);
}

const Transform& Node::GetFinalXM()
{
    MakeTransformClean();
    return m_state->final;
}

Transform Node::GetWorldXMFast() const
{
    if (!m_state->offset)
        return m_state->final;
    Transform world;
    Transform::Multiply(world, m_state->final, m_state->offset->Inverse());
    return world;
}

Transform Node::GetWorldXM()
{
    MakeTransformClean();
    return GetWorldXMFast();
}

Vector3 Node::GetUp() { return GetFinalXM().rotation.Column(1); }
Vector3 Node::GetRight() { return GetFinalXM().rotation.Column(0); }
Vector3 Node::GetDirection() { return GetFinalXM().rotation.Column(2); }

void Node::SetWorldXM(const Transform& world, bool update)
{
    KOVEX_ASSERT_MAIN_THREAD();
    m_state->local = world;
    if (m_parent)
    {
        m_parent->MakeTransformClean();
        Transform::Multiply(m_state->local, m_parent->m_state->final.Inverse(), m_state->local);
    }
    m_state->final = world;
    if (m_state->offset)
        Transform::Multiply(m_state->final, world, *m_state->offset);
    MakeTransformDirty();
    if (update)
        UpdateChildren(0);
}

void Node::SetWorldTrans(const Vector3& translation, bool update)
{
    Transform world = GetWorldXM();
    world.translation = translation;
    SetWorldXM(world, update);
}

void Node::SetWorldRot(const Matrix3& rotation, bool update)
{
    Transform world = GetWorldXM();
    world.rotation = rotation;
    SetWorldXM(world, update);
}

void Node::SetWorldScale(const Vector3& scale, bool update)
{
    Transform world = GetWorldXM();
    world.scale = scale;
    SetWorldXM(world, update);
}

void Node::SetWorldTransRotateScale(const Vector3& translation, const Matrix3& rotation, const Vector3& scale,
                                    bool update)
{
    Transform world(rotation, translation, scale);
    world.CheckFlipped();
    world.CheckNonUniformScale();
    SetWorldXM(world, update);
}

void Node::SetDirection(const Vector3& direction)
{
    Vector3 z = direction.Normalized();
    Vector3 helper = (1.0f - std::fabs(z.z) < 0.0001f) ? Vector3(-1, 0, 0) : Vector3(0, 0, 1);
    Vector3 y = helper.Cross(direction).Normalized();
    Vector3 x = y.Cross(z).Normalized();
    SetWorldRot(Matrix3::FromColumns(x, y, z), false);
}

void Node::LookAt(const Vector3& eye, const Vector3& target, const Vector3& up, bool update)
{
    Vector3 z = (target - eye).Normalized();
    Vector3 x = up.Cross(z).Normalized();
    Vector3 y = z.Cross(x);
    Transform result = GetFinalXM();
    result.rotation = Matrix3::FromColumns(x, y, z);
    result.translation = eye;
    SetWorldXM(result, update);
}

void Node::MoveForward(float distance, bool update)
{
    const Transform& final = GetFinalXM();
    SetWorldTrans(final.translation + final.rotation.Column(2) * distance, update);
}

void Node::MoveRight(float distance, bool update)
{
    const Transform& final = GetFinalXM();
    SetWorldTrans(final.translation + final.rotation.Column(0) * distance, update);
}

void Node::RotateAroundY(float angle, bool update)
{
    float c = std::cos(angle), s = std::sin(angle);
    Matrix3 turn(c, 0, s, 0, 1, 0, -s, 0, c);
    SetWorldRot(turn * GetFinalXM().rotation, update);
}

void Node::RotateAroundRight(float angle, bool update)
{
    const Matrix3& rotation = GetFinalXM().rotation;
    SetWorldRot(Matrix3::RotateAxis(rotation.Column(0), angle) * rotation, update);
}

// --- Update ----------------------------------------------------------------------------------------

void Node::Update(float delta)
{
    g_TimeAnalyzer.Begin(TIME_NODE_UPDATE, "Node Update");
    UpdateAllModifiers(delta);
    UpdateWithoutModifiers(delta);
    g_TimeAnalyzer.End(TIME_NODE_UPDATE);
}

// A large tree does not fit in the cache: the objects of a node's children
// are asked for while the node itself is worked on.
void Node::PrefetchChildren() const
{
    // Only the lines the walk touches: the reference count, the flags and
    // links, and the final transform it writes. Fetching the whole object (most of it names and
    // modifier tables) filled the line buffers and stalled the walk.
    for (const Ptr<Node>& child : m_children)
    {
        const Node* n = child.Get();
        __builtin_prefetch(n, 1); // the reference count the walk takes
        __builtin_prefetch(&n->m_state->flags);
        __builtin_prefetch(&n->m_state->final, 1);
    }
}

// Pre-order; a node is held while its modifiers tick and while its children
// are walked, and children are read by index against the live count, so a
// tick that detaches nodes leaves nothing dangling.
void Node::UpdateAllModifiers(float delta)
{
    struct Level
    {
        Node* node = nullptr;
        Ptr<Node> held;
        unsigned next = 0;
    };
    UpdateModifiers(delta);
    if (!m_children.Count() || m_state->ticking <= (GetNumModifiers() ? 1u : 0u))
        return; // nothing below ticks
    TArray<Level> stack(64);
    PrefetchChildren();
    stack.AddNew()->node = this;
    while (!stack.IsEmpty())
    {
        Level& top = stack.Last();
        if (top.next >= top.node->m_children.Count())
        {
            stack.Pop();
            continue;
        }
        Node* child = top.node->m_children[top.next++].Get();
        if (!child->m_state->ticking)
            continue; // nothing below ticks
        bool hasModifiers = child->GetNumModifiers() != 0;
        Ptr<Node> held(child);
        if (hasModifiers)
            child->UpdateModifiers(delta);
        if (child->m_children.Count() && child->m_state->ticking > (child->GetNumModifiers() ? 1u : 0u))
        {
            child->PrefetchChildren();
            Level* level = stack.AddNew();
            level->node = child;
            level->held = std::move(held);
        }
    }
}

void Node::UpdateChildren(float delta)
{
    TArray<Ptr<Node>> children = m_children.Items();
    for (const Ptr<Node>& child : children)
        if (child->m_parent == this)
            child->Update(delta);
}

void Node::UpdateTransform()
{
    if (!TestFlag(FLAG_TRANSFORM_DIRTY))
        return;
    ForceUpdateTransform();
}

void Node::ForceUpdateTransform() { ComputeFinal(*m_state, m_parent ? m_parent->m_state : nullptr); }

// final = parent final ∘ local ∘ offset.
void Node::ComputeFinal(State& state, const State* parent)
{
    state.flags &= ~FLAG_TRANSFORM_DIRTY;
    if (state.offset)
        Transform::Multiply(state.final, state.local, *state.offset);
    else
        state.final = state.local;
    if (parent)
        Transform::Multiply(state.final, parent->final, state.final);
}

bool Node::UpdateAabb(bool changed, bool childChanged)
{
    if (!changed && !childChanged)
        return false;
    Aabb children = EmptyBounds();
    if (childChanged)
        for (const Ptr<Node>& child : m_children)
            AddBox(children, child->m_state->bounds);
    return RebuildBounds(*m_state, childChanged ? &children : nullptr) || changed;
}

// The node's own box in the world, then `children` (the union of the
// children's boxes) when given; true when they added to the own box.
// Adding the union at once grows the box exactly as adding each child in
// turn would.
bool Node::RebuildBounds(State& state, const Aabb* children)
{
    const Aabb* local = getLocalAabbPtr();
    if (local && !local->IsEmpty())
        state.bounds = WorldBox(*local, state.final);
    else
        state.bounds = EmptyBounds();
    state.flags &= ~FLAG_BOUNDS_DIRTY;
    return children && AddBox(state.bounds, *children);
}

bool Node::UpdateWithoutModifiers(float delta)
{
    g_TimeAnalyzer.Begin(TIME_UPDATE_WITHOUT_MODIFIERS, "Node::UpdateWithoutModifiers");
    bool result = UpdateSubtree(delta, false);
    g_TimeAnalyzer.End(TIME_UPDATE_WITHOUT_MODIFIERS);
    return result;
}

void Node::ForceUpdate(float delta)
{
    g_TimeAnalyzer.Begin(TIME_NODE_UPDATE, "Node Update");
    UpdateSubtree(delta, true);
    g_TimeAnalyzer.End(TIME_NODE_UPDATE);
}

void Node::ForceUpdate(float delta, const Transform* local)
{
    if (local)
        m_state->local = *local;
    ForceUpdate(delta);
}

// A node's part of an update, before its children: modifiers (ForceUpdate
// ticks them here), the transform, and the notifications around it. True
// when the node changed. `state` is the node's State when the caller knows
// it cannot move (a flat walk); null means m_state, read again after each
// callback, since one may drop the order the State lives in.
bool Node::EnterUpdate(State* state, const State* parent, float delta, bool force)
{
    auto current = [&]() -> State& { return state ? *state : *m_state; };
    // ticking is 0 on a node without modifiers, which spares the walk a
    // read of the modifier lists.
    if (current().ticking)
    {
        if (force)
            UpdateModifiers(delta);
        Do_Update();
    }
    State& now = current();
    bool changed = force || (now.flags & (FLAG_TRANSFORM_DIRTY | FLAG_BOUNDS_DIRTY)) != 0;
    if (force || (now.flags & FLAG_TRANSFORM_DIRTY))
        ComputeFinal(now, state ? parent : (m_parent ? m_parent->m_state : nullptr));
    OnUpdate(delta, changed);
    if (current().ticking)
        Do_PostUpdate();
    return changed;
}

// After the children: the box (with the children's when `children` is
// given), then the notification. True when the box changed.
bool Node::LeaveUpdate(State& state, const Aabb* children, bool changed)
{
    bool boxChanged = (changed || children) && (RebuildBounds(state, children) || changed);
    if (changed)
        OnTransformChanged();
    return boxChanged;
}

// Behind UpdateWithoutModifiers and ForceUpdate. A root walks its cached
// flat order when it has one; it builds one when its shape has not changed
// since its last update, so a tree whose shape changes every frame never
// pays for orders it would throw away.
bool Node::UpdateSubtree(float delta, bool force)
{
    if (m_parent || !m_children.Count())
        return WalkSubtree(delta, force, false);
    if (m_order && m_order->stale)
        return WalkSubtree(delta, force, false); // nested in a walk whose shape changed
    if (!m_order)
    {
        if (m_shapeChanged)
            return WalkSubtree(delta, force, true);
        BuildOrder();
    }
    return WalkOrder(*m_order, delta, force);
}

// The post-order walk by pointers, on an explicit stack. Each level holds
// its node, so a callback that detaches nodes (even the one being updated)
// leaves nothing dangling; children are read by index against the live
// count. A root's walk clears the shape marks of its tree as it goes.
bool Node::WalkSubtree(float delta, bool force, bool clearShapeMarks)
{
    struct Level
    {
        Node* node = nullptr;
        Ptr<Node> held;
        unsigned next = 0;
        bool changed = false;
        bool childChanged = false;
    };
    TArray<Level> stack(64);
    auto enter = [&](Node* n, Ptr<Node>&& held) {
        if (clearShapeMarks)
            n->m_shapeChanged = false;
        bool changed = n->EnterUpdate(nullptr, nullptr, delta, force);
        n->PrefetchChildren();
        Level* level = stack.AddNew();
        level->node = n;
        level->held = std::move(held);
        level->changed = changed;
    };
    enter(this, Ptr<Node>());
    bool result = false;
    while (!stack.IsEmpty())
    {
        Level& top = stack.Last();
        Node* node = top.node;
        if (top.next < node->m_children.Count())
        {
            Node* child = node->m_children[top.next++].Get();
            enter(child, Ptr<Node>(child));
            continue;
        }
        bool boxChanged = node->UpdateAabb(top.changed, force || top.childChanged);
        if (top.changed)
            node->OnTransformChanged();
        stack.Pop();
        if (stack.IsEmpty())
            result = boxChanged;
        else
            stack.Last().childChanged = stack.Last().childChanged || boxChanged;
    }
    return result;
}

// --- The flat update order -------------------------------------------------------------------------

void Node::BuildOrder()
{
    auto* order = new UpdateOrder;
    TArray<unsigned> open(64); // slots whose children are still being added
    TArray<unsigned> next(64); // the next child of each
    m_shapeChanged = false;
    order->entries.Add({this, 0, 0});
    open.Add(0);
    next.Add(0);
    while (!open.IsEmpty())
    {
        unsigned slot = open.Last();
        Node* node = order->entries[slot].node;
        unsigned& index = next.Last();
        if (index == node->m_children.Count())
        {
            order->entries[slot].end = order->entries.Count();
            open.Pop();
            next.Pop();
            continue;
        }
        Node* child = node->m_children[index++].Get();
        child->AddRef();
        child->m_shapeChanged = false;
        open.Add(order->entries.Count());
        next.Add(0);
        order->entries.Add({child, slot, 0});
        if (open.Count() - 1 > order->depth)
            order->depth = open.Count() - 1;
    }
    unsigned count = order->entries.Count();
    order->states = new State[count];
    for (unsigned i = 0; i < count; ++i)
    {
        Node* node = order->entries[i].node;
        order->states[i] = *node->m_state;
        node->m_state = &order->states[i];
    }
    m_order = order;
}

void Node::DropOrder()
{
    UpdateOrder* order = m_order;
    if (!order)
        return;
    m_order = nullptr;
    // A node that another root's order has taken since keeps its State there.
    for (unsigned i = 0; i < order->entries.Count(); ++i)
    {
        Node* node = order->entries[i].node;
        if (node->m_state == &order->states[i])
        {
            node->m_ownState = order->states[i];
            node->m_state = &node->m_ownState;
        }
    }
    // Releasing may end nodes; each entry holds its own reference, so the
    // ones still to come stay valid.
    for (unsigned i = 1; i < order->entries.Count(); ++i)
        order->entries[i].node->Release();
    delete order;
}

// Called on a node whose children changed.
void Node::NoteShapeChange()
{
    Node* node = this;
    for (;;)
    {
        if (node->m_shapeChanged)
            return; // marked before: so is every ancestor, and the root's order is gone or stale
        node->m_shapeChanged = true;
        if (!node->m_parent)
            break;
        node = node->m_parent;
    }
    if (UpdateOrder* order = node->m_order)
    {
        if (order->walking)
            order->stale = true;
        else
            node->DropOrder();
    }
}

// The same visits, in the same order, as WalkSubtree. The stack holds the
// open ancestors of the current slot; a node is left once the walk passes
// the end of its subtree, and its children are found from the slots alone
// (the first follows it, each next one starts where the last one's subtree
// ends). After a callback changes the shape, each node is checked against
// the parent it had when the order was built, and one that moved is left
// out with its subtree.
bool Node::WalkOrder(UpdateOrder& order, float delta, bool force)
{
    struct Open
    {
        unsigned slot;
        unsigned end;
        bool changed;
        bool childChanged;
    };
    // Slots ahead of the walk whose objects are asked for: enough to cover
    // a miss to memory at the walk's pace. The States stream by themselves;
    // the local box a dirty node will need lives in its object (often past
    // the Node part), so once the object's first line has come in, it is
    // asked for the box and the box's line is fetched too.
    constexpr unsigned kAhead = 16, kBoxAhead = 8;
    ++order.walking;
    TArray<Open> stack(order.depth + 2);
    stack.Reserve(order.depth + 2);
    const UpdateOrder::Entry* entries = order.entries.Data();
    State* states = order.states;
    const unsigned count = order.entries.Count();
    bool result = false;
    // `top` is off the stack; its parent, if any, is on top.
    auto leave = [&](const Open& top) {
        bool boxChanged = false;
        if (top.changed || top.childChanged || force)
        {
            Aabb children = EmptyBounds();
            bool addChildren = force || top.childChanged;
            if (addChildren)
                for (unsigned child = top.slot + 1; child < top.end; child = entries[child].end)
                    if (!order.stale || entries[child].node->m_parent == entries[top.slot].node)
                        AddBox(children, states[child].bounds);
            boxChanged = entries[top.slot].node->LeaveUpdate(states[top.slot], addChildren ? &children : nullptr,
                                                             top.changed);
        }
        if (stack.IsEmpty())
            result = boxChanged;
        else if (boxChanged)
            stack.Last().childChanged = true;
    };
    for (unsigned i = 0; i < count; ++i)
    {
        if (i + kAhead < count)
            __builtin_prefetch(entries[i + kAhead].node); // the virtual table pointer
        if (i + kBoxAhead < count &&
            (force || (states[i + kBoxAhead].flags & (FLAG_TRANSFORM_DIRTY | FLAG_BOUNDS_DIRTY))))
            __builtin_prefetch(entries[i + kBoxAhead].node->getLocalAabbPtr());
        while (!stack.IsEmpty() && stack.Last().end <= i)
        {
            Open top = stack.Last();
            stack.Pop();
            leave(top);
        }
        const UpdateOrder::Entry& entry = entries[i];
        Node* node = entry.node;
        if (order.stale && i &&
            (node->m_parent != entries[stack.Last().slot].node || node->m_state != &states[i]))
        {
            i = entry.end - 1; // moved by a callback: left out with its subtree
            continue;
        }
        bool changed = node->EnterUpdate(&states[i], i ? &states[entry.parent] : nullptr, delta, force);
        if (entry.end == i + 1)
            leave({i, entry.end, changed, false}); // a leaf is left at once
        else
            stack.Add({i, entry.end, changed, false});
    }
    while (!stack.IsEmpty())
    {
        Open top = stack.Last();
        stack.Pop();
        leave(top);
    }
    if (--order.walking == 0 && (order.stale || m_parent))
        DropOrder();
    return result;
}

void Node::CalculateLocalBound()
{
    VisitSubtree(this, true, [](Node* n) { n->CalculateSelfLocalBound(); });
}

// --- Physics shape and assets ----------------------------------------------------------------------

void Node::SetPhysicsShape(const Ptr<PhysicsShape>& shape) { m_physicsShape = shape; }

void Node::AttachAsset(const Ptr<RenderAsset>& asset, bool children)
{
    if (asset)
        VisitSubtree(this, children, [&asset](Node* n) { n->OnAttachAsset(asset); });
}

void Node::DetachAsset(const Ptr<RenderAsset>& asset, bool children)
{
    if (asset)
        VisitSubtree(this, children, [&asset](Node* n) { n->OnDetachAsset(asset); });
}

void Node::DetachAllAssets(bool children)
{
    VisitSubtree(this, children, [](Node* n) { n->OnDetachAllAssets(); });
}

void Node::AttachAssetByRDI(NodeRDI* rdi, bool children)
{
    if (rdi)
        VisitSubtree(this, children, [rdi](Node* n) { n->OnAttachAssetByRDI(rdi); });
}

void Node::DetachAssetByRDI(NodeRDI* rdi, bool children)
{
    if (rdi)
        VisitSubtree(this, children, [rdi](Node* n) { n->OnDetachAssetByRDI(rdi); });
}

void Node::SetVisibleInAsset(bool visible, const Ptr<RenderAsset>& asset, bool children)
{
    if (asset)
        VisitSubtree(this, children, [visible, &asset](Node* n) { n->OnSetVisibleInAsset(visible, asset); });
}

void Node::GetAllPrimRDIs(TArray<Ptr<PrimitiveRDI>>& out)
{
    for (unsigned i = 0; i < m_children.Count(); ++i)
        m_children[i]->GetAllPrimRDIs(out);
}

bool Node::LoadGraphicsObjects(std::atomic<int>* pending)
{
    if (!Modifiable::LoadGraphicsObjects(pending))
        return false;
    for (unsigned i = 0; i < m_children.Count(); ++i)
        if (!m_children[i]->LoadGraphicsObjects(pending))
            return false;
    return true;
}

// --- Duplication and difference -------------------------------------------------------------------

bool Node::Duplicate(Object* destination, unsigned int flags) const
{
    Node* target = DynamicCast<Node>(destination);
    if (!target || !Modifiable::Duplicate(destination, flags))
        return false;
    DuplicateModifiers(target, flags);
    target->m_state->local = m_state->local;
    target->m_state->final = m_state->final;
    target->m_state->flags = m_state->flags;
    if (m_children.Count() == 0)
        return true;
    // Inside another node's Duplicate: that one clones these children later.
    if (t_cloneQueue)
    {
        t_cloneQueue->entries.Add(CloneQueue::Entry{this, Ptr<Node>(target)});
        return true;
    }
    CloneQueue queue;
    t_cloneQueue = &queue;
    queue.entries.Add(CloneQueue::Entry{this, Ptr<Node>(target)});
    bool ok = true;
    for (unsigned i = 0; ok && i < queue.entries.Count(); ++i)
    {
        const Node* source = queue.entries[i].source;
        Ptr<Node> into = queue.entries[i].target;
        queue.entries[i].target = nullptr;
        for (unsigned c = 0; ok && c < source->m_children.Count(); ++c)
        {
            const Node* child = source->m_children[c].Get();
            Ptr<Object> copy = child->Clone(flags);
            Node* clone = DynamicCast<Node>(copy.Get());
            ok = clone && copy->GetClass() == child->GetClass() && into->attachChildAt(clone, ~0u);
        }
    }
    t_cloneQueue = nullptr;
    return ok;
}

bool Node::IsDifferent(const Object* other) const
{
    const Node* node = DynamicCast<Node>(other);
    if (!node || HasDiffProps(other))
        return true;
    auto differs = [](float a, float b) { return std::fabs(a - b) > 1e-6f; };
    const Transform& a = m_state->local;
    const Transform& b = node->m_state->local;
    for (unsigned i = 0; i < 3; ++i)
        if (differs(a.translation[i], b.translation[i]))
            return true;
    for (unsigned i = 0; i < 3; ++i)
        if (differs(a.scale[i], b.scale[i]))
            return true;
    for (unsigned i = 0; i < 9; ++i)
        if (differs(a.rotation.Data()[i], b.rotation.Data()[i]))
            return true;
    bool sameShape = false;
    return IsChildrenDifferent(sameShape, this, node);
}

bool Node::IsChildrenDifferent(bool& sameShape, const Node* a, const Node* b)
{
    if (a->m_children.Count() != b->m_children.Count())
    {
        sameShape = false;
        return true;
    }
    sameShape = true;
    for (unsigned i = 0; i < a->m_children.Count(); ++i)
    {
        const Node* x = a->m_children[i].Get();
        const Node* y = b->m_children[i].Get();
        if (x == y)
            continue;
        if (!x->SupportSerializeDiff(y) || !y->SupportSerializeDiff(x) || x->IsDifferent(y))
            return true;
    }
    return false;
}

bool Node::SaveDiff(Serializer* serializer, const Object* base) const
{
    const Node* baseNode = DynamicCast<Node>(base);
    if (!SaveDiffProps(serializer, base))
        return false;
    if (!baseNode || !SameTransformExactly(m_state->local, baseNode->m_state->local))
    {
        if (!serializer->Enter(kRXM))
            return false;
        bool ok = serializer->Write(kLXM, &m_state->local, TransformStruct());
        serializer->Leave();
        if (!ok)
            return false;
    }
    return SaveChildrenDiff(serializer, baseNode);
}

bool Node::LoadDiff(Serializer* serializer)
{
    if (!LoadDiffProps(serializer))
        return false;
    if (serializer->Enter(kRXM))
    {
        Transform local;
        bool ok = serializer->Read(kLXM, &local, TransformStruct());
        serializer->Leave();
        if (!ok)
            return false;
        SetLocalXM(local);
    }
    return LoadChildrenDiff(serializer);
}

// Each child by index: as its difference from the base's child at the same
// index when there is one it can be compared with, else whole. A loader
// works over a copy of the base, so it finds the same children there.
bool Node::SaveChildrenDiff(Serializer* serializer, const Node* base) const
{
    if (!serializer->Enter(kCHDN))
        return false;
    bool ok = serializer->Write(kCDSZ, uint32(m_children.Count()));
    for (unsigned i = 0; ok && i < m_children.Count(); ++i)
    {
        const Node* child = m_children[i].Get();
        const Node* baseChild = base && i < base->m_children.Count() ? base->m_children[i].Get() : nullptr;
        ok = serializer->EnterNext(kCHD);
        if (!ok)
            break;
        ok = serializer->Write(kINDX, uint32(i));
        if (ok && baseChild && child->SupportSerializeDiff(baseChild))
            ok = serializer->Write(FourCCs::Make("DIFF"), true) && child->SaveDiff(serializer, baseChild);
        else if (ok)
            ok = SerializeObj(child, serializer, 0);
        serializer->Leave();
    }
    serializer->Leave();
    return ok;
}

bool Node::LoadChildrenDiff(Serializer* serializer)
{
    if (!serializer->Enter(kCHDN))
        return true;
    uint32 count = 0;
    bool ok = serializer->Read(kCDSZ, count) && count <= serializer->CountSections(kCHD);
    for (uint32 i = 0; ok && i < count; ++i)
    {
        ok = serializer->EnterNext(kCHD);
        if (!ok)
            break;
        uint32 index = kNotFound;
        bool isDiff = false;
        ok = serializer->Read(kINDX, index) && index == i;
        if (ok && serializer->Read(FourCCs::Make("DIFF"), isDiff) && isDiff)
            ok = i < m_children.Count() && m_children[i]->LoadDiff(serializer);
        else if (ok)
        {
            Ptr<Object> object;
            SerializeObj(serializer, 0, object);
            Node* child = DynamicCast<Node>(object.Get());
            ok = child && !child->m_parent;
            if (ok)
            {
                if (i < m_children.Count())
                    detachChild(m_children[i].Get());
                ok = attachChildAt(child, i);
            }
        }
        serializer->Leave();
    }
    while (ok && m_children.Count() > count)
        detachChild(m_children[m_children.Count() - 1].Get());
    serializer->Leave();
    return ok;
}

// --- Serial form -------------------------------------------------------------------------------------

bool Node::Save(Serializer* serializer) const
{
    if (t_saveDepth >= kMaxNodeDepth)
    {
        Log::Format(LOG_ERROR, u"Node '%s': nested deeper than %u levels, not saved.\n", GetName()(), kMaxNodeDepth);
        return false;
    }
    ++t_saveDepth;
    bool ok = SaveProperties(serializer) && SaveModifiers(serializer) && serializer->Enter(kNODE);
    if (ok)
    {
        ok = serializer->Write(kLXM, &m_state->local, TransformStruct()) && SavePhysicsShape(serializer) &&
             SaveChildren(serializer);
        serializer->Leave();
    }
    --t_saveDepth;
    return ok;
}

bool Node::Load(Serializer* serializer)
{
    if (!LoadProperties(serializer))
        return false;
    // A file without modifiers is fine; a list with a bad entry is not.
    if (serializer->CountSections(kMODS) && !LoadModifiers(serializer))
    {
        Log::Format(LOG_ERROR, u"Node '%s': bad modifier list.\n", GetName()());
        return false;
    }
    if (!serializer->Enter(kNODE))
    {
        Log::Format(LOG_ERROR, u"Node '%s': no NODE section.\n", GetName()());
        return false;
    }
    Transform local;
    bool ok = serializer->Read(kLXM, &local, TransformStruct());
    if (!ok)
        Log::Format(LOG_ERROR, u"Node '%s': no local transform.\n", GetName()());
    else
    {
        SetLocalXM(local);
        SetFlag(FLAG_BOUNDS_DIRTY);
        bool shapeOk = LoadPhysicsShape(serializer);
        ok = LoadChildren(serializer) && shapeOk;
    }
    serializer->Leave();
    return ok;
}

bool Node::SavePhysicsShape(Serializer* serializer) const
{
    bool has = m_physicsShape.Get() != nullptr;
    if (!serializer->Write(kPHYV, has))
        return false;
    if (!has)
        return true;
    if (!serializer->Enter(kPYSP))
        return false;
    bool ok = m_physicsShape->Save(serializer);
    serializer->Leave();
    return ok;
}

bool Node::LoadPhysicsShape(Serializer* serializer)
{
    bool has = false;
    if (!serializer->Read(kPHYV, has) || !has)
        return true;
    if (!serializer->Enter(kPYSP))
        return false;
    // Stored without its class: the shape held (or the base shape) reads it.
    Ptr<PhysicsShape> shape = m_physicsShape;
    if (!shape)
        shape = DynamicCast<PhysicsShape>(Object::CreateObject(PhysicsShape::StaticGetClass()).Get());
    bool ok = shape && shape->Load(serializer);
    serializer->Leave();
    if (ok)
        m_physicsShape = shape;
    return ok && m_physicsShape;
}

bool Node::SaveChildren(Serializer* serializer) const
{
    bool selective = TestFlag(FLAG_SELECTIVE_SAVE);
    uint32 count = m_children.Count();
    if (selective)
        for (const Ptr<Node>& child : m_children)
            if (canSaveChild(child.Get()))
                ++count; // a sum, as the format has it
    // A file with two children of one name would not load back.
    TMap<WString, unsigned> names;
    for (const Ptr<Node>& child : m_children)
        if (!selective || canSaveChild(child.Get()))
        {
            if (names.Contains(child->GetName()))
            {
                Log::Format(LOG_ERROR, u"Node '%s': two children named '%s'.\n", GetName()(), child->GetName()());
                return false;
            }
            names.Insert(child->GetName(), 0);
        }
    if (!serializer->Write(kCDSZ, count))
        return false;
    for (const Ptr<Node>& child : m_children)
    {
        if (selective && !canSaveChild(child.Get()))
            continue;
        if (!serializer->EnterNext(kCHD))
            return false;
        bool ok = SerializeObj(child.Get(), serializer, 0);
        serializer->Leave();
        if (!ok)
            return false;
    }
    return true;
}

// Children are read into a list first and attached only when all of them
// are sound, so a bad file leaves no half-built tree.
bool Node::LoadChildren(Serializer* serializer)
{
    DetachAllChildren();
    uint32 count = 0;
    if (!serializer->Read(kCDSZ, count) || count == 0)
        return true;
    unsigned int present = serializer->CountSections(kCHD);
    if (count > present)
    {
        Log::Format(LOG_ERROR, u"Node '%s': %u children announced, %u stored.\n", GetName()(), count, present);
        return false;
    }
    TArray<Ptr<Node>> loaded;
    TMap<WString, unsigned> names;
    for (uint32 i = 0; i < count; ++i)
    {
        if (!serializer->EnterNext(kCHD))
            return false;
        Ptr<Object> object;
        SerializeObj(serializer, 0, object);
        serializer->Leave();
        Ptr<Node> child(DynamicCast<Node>(object.Get()));
        if (!child)
        {
            Log::Format(LOG_ERROR, u"Node '%s': child %u is no node.\n", GetName()(), i);
            return false;
        }
        if (child->m_parent || child->IsSelfOrAncestorOf(this) || loaded.Find(child) != kNotFound)
        {
            Log::Format(LOG_ERROR, u"Node '%s': child '%s' is stored twice.\n", GetName()(), child->GetName()());
            return false;
        }
        if (names.Contains(child->GetName()))
        {
            Log::Format(LOG_ERROR, u"Node '%s': two children named '%s'.\n", GetName()(), child->GetName()());
            return false;
        }
        names.Insert(child->GetName(), i);
        loaded.Add(child);
    }
    for (unsigned i = 0; i < loaded.Count(); ++i)
        if (!attachChildAt(loaded[i].Get(), ~0u))
        {
            DetachAllChildren();
            return false;
        }
    return true;
}

// --- NodeFactory -----------------------------------------------------------------------------------

namespace {
NodeFactory* s_nodeFactory = nullptr;
}

NodeFactory::NodeFactory() : ResourceFactory(Node::StaticGetClass(), RESOURCE_INSTANCED, WString(u".node"), 1000) {}

void NodeFactory::Init()
{
    // Registered before, perhaps with a manager destroyed since: make sure
    // the present manager knows it.
    if (auto* existing = dynamic_cast<NodeFactory*>(ObjectManager::Ins()->GetFactory(Node::StaticGetClass(), false)))
    {
        s_nodeFactory = existing;
        if (!ResourceManager::Ins()->GetFactory(existing->GetExtension()))
            ResourceManager::Ins()->Register(Node::StaticGetClass(), existing);
        return;
    }
    auto* factory = new NodeFactory();
    if (ObjectManager::Ins()->Register(Node::StaticGetClass(), factory))
    {
        s_nodeFactory = factory;
        ResourceManager::Ins()->Register(Node::StaticGetClass(), factory);
    }
}

NodeFactory* NodeFactory::Get() { return s_nodeFactory; }

} // namespace KovexEngine
