#pragma once

#include "math/Bounds.h"
#include "math/Transform.h"
#include "reflection/ClassIterator.h"
#include "scene/Modifiable.h"
#include "scene/PhysicsShape.h"

namespace KovexEngine {

class NodeRDI;
class PhysicsShape;
class PrimitiveRDI;
class RenderAsset;

// The element of the scene graph: a named resource with a local transform,
// a cached world ("final") transform, children in attach order, an optional
// physics shape, and a world box over itself and all its children.
//
// final = parent final ∘ local ∘ offset (b applied first in a ∘ b).
//
// Threads: a tree belongs to the thread that owns the scene, the main
// thread. Reference counts are interlocked, nothing else is locked. The
// world-transform reads that clean the tree (GetFinalXM and kin, GetWorldXM,
// the direction helpers, the world setters) may tick modifiers and are
// asserted to run on the main thread in debug builds; the Fast getters only
// read the cache. Nodes may be made and dropped on any thread: loaders
// build trees on theirs.
//
// A node's flags, transforms and box live in a State that a root's update
// may move into its flat order (and a change of the tree's shape moves
// back): a reference the getters return stays valid until the next update
// or change of shape of the tree, so copy what must outlive one.
//
// Walks, updates, clones and destruction use explicit stacks, so a tree of
// any depth is safe; saving and loading nest as the serializer does and
// refuse a tree deeper than Serializer::kMaxObjectDepth.
class KOVEX_API Node : public Modifiable
{
    KOVEX_CLASS(Node)

public:
    enum : unsigned int
    {
        FLAG_TRANSFORM_DIRTY = 1,
        FLAG_BOUNDS_DIRTY = 2,
        FLAG_DEFAULT_4 = 4, // set by default, tested by nothing here
        FLAG_SELF_VISIBLE = 16,
        FLAG_SELECTIVE_SAVE = 128, // SaveChildren asks canSaveChild
        FLAG_DERIVED_FIRST = 0x400,
        FLAGS_DEFAULT = 23,
    };
    // Timing sections of g_TimeAnalyzer.
    enum : int
    {
        TIME_NODE_UPDATE = 2,
        TIME_UPDATE_WITHOUT_MODIFIERS = 4,
        TIME_MODIFIER_TICK = 6,
    };

    struct Children
    {
        static unsigned Count(const Ptr<Node>& n) { return n->m_children.Count(); }
        static Ptr<Node> At(const Ptr<Node>& n, unsigned i) { return n->m_children[i]; }
    };
    // Pre-order over a subtree; the stack holds counted references to the
    // nodes whose children it walks, so detaching during a walk is safe.
    class Iterator : public TCompositeIterator<Ptr<Node>, Children>
    {
    public:
        Iterator(const Ptr<Node>& root, bool includeRoot) : TCompositeIterator(root, includeRoot) {}
    };

    Node();
    ~Node() override;

    // Nodes, of every derived class, come from one SlabHeap: a large tree
    // lies in few pages, which its walks feel. AddressSanitizer builds use
    // the ordinary heap, so that it sees every node's life.
    static void* operator new(std::size_t size);
    static void operator delete(void* block, std::size_t size);

    // --- Flags ---------------------------------------------------------------------
    bool TestFlag(unsigned int mask) const { return (m_state->flags & mask) != 0; }
    void SetFlag(unsigned int mask) { m_state->flags |= mask; }
    void UnsetFlag(unsigned int mask) { m_state->flags &= ~mask; }
    unsigned int GetFlags() const { return m_state->flags; }
    bool IsSelfVisible() const { return TestFlag(FLAG_SELF_VISIBLE); }
    void SetSelfVisible(bool visible);
    // This node and every descendant.
    void SetVisible(bool visible);

    // --- Tree ----------------------------------------------------------------------
    bool AttachChild(const Ptr<Node>& child) { return attachChildAt(child.Get(), ~0u); }
    bool AttachChildAt(const Ptr<Node>& child, unsigned int index) { return attachChildAt(child.Get(), index); }
    void DetachChild(const Ptr<Node>& child) { detachChild(child.Get()); }
    bool attachChild(Node* child) { return attachChildAt(child, ~0u); }
    // False, with nothing changed, for null, this node, an ancestor of this
    // node (logged at level 4), or a veto of canAttachChild.
    bool attachChildAt(Node* child, unsigned int index);
    void detachChild(Node* child);
    void DetachFromParent();
    void DetachAllChildren();
    bool CanAttachChild(const Ptr<Node>& child) const { return child && canAttachChild(child.Get()); }
    unsigned int GetNumChildren() const { return m_children.Count(); }
    Node* GetParent() const { return m_parent; }
    // A shared null Ptr when out of range or not found.
    const Ptr<Node>& GetChild(unsigned int index) const;
    const Ptr<Node>& GetChild(const WString& name) const;
    const Ptr<Node>& GetChildByIndex(unsigned int index) const { return GetChild(index); }
    const Ptr<Node>& GetChildByName(const WString& name) const { return GetChild(name); }
    // The direct children by name first, then each child's subtree in order.
    Ptr<Node> GetChildRecursively(const WString& name) const;
    // This node when the name is its own, else GetChildRecursively.
    Ptr<Node> GetNode(const WString& name);
    // The first number from `first` for which no child is named base + "%u".
    unsigned int AllocChildPostfixId(const WString& base, unsigned int first) const;
    const TArray<Ptr<Node>>& GetChildren() const { return m_children.Items(); }
    // Whether `node` is this node or lies below it.
    bool IsSelfOrAncestorOf(const Node* node) const;

    // --- Transform -----------------------------------------------------------------
    const Transform& GetLocalXM() const { return m_state->local; }
    void SetLocalXM(const Transform& local);
    // Copies without marking anything dirty.
    void SetLocalXMFast(const Transform& local) { m_state->local = local; }
    const Vector3& GetLocalTrans() const { return m_state->local.translation; }
    void SetLocalTrans(const Vector3& translation);
    const Matrix3& GetLocalRot() const { return m_state->local.rotation; }
    void SetLocalRot(const Matrix3& rotation);
    const Vector3& GetLocalScale() const { return m_state->local.scale; }
    void SetLocalScale(const Vector3& scale);
    void SetLocalTRS(const Vector3& translation, const Matrix3& rotation, const Vector3& scale);
    // Euler angles in degrees, as Matrix3 takes them.
    Vector3 GetLocalRotDegree() const;
    void SetLocalRotDegree(const Vector3& angles);

    void SetWorldXM(const Transform& world, bool update);
    void SetWorldTrans(const Vector3& translation, bool update);
    void SetWorldRot(const Matrix3& rotation, bool update);
    void SetWorldScale(const Vector3& scale, bool update);
    void SetWorldTransRotateScale(const Vector3& translation, const Matrix3& rotation, const Vector3& scale,
                                  bool update);
    void SetDirection(const Vector3& direction);
    void LookAt(const Vector3& eye, const Vector3& target, const Vector3& up, bool update);
    void MoveForward(float distance, bool update);
    void MoveRight(float distance, bool update);
    void RotateAroundY(float angle, bool update);
    void RotateAroundRight(float angle, bool update);

    // World transform without the offset; cleans first.
    Transform GetWorldXM();
    Transform GetWorldXMFast() const;
    // The cached final transform, cleaned first.
    const Transform& GetFinalXM();
    const Transform& GetFinalXMFast() const { return m_state->final; }
    const Vector3& GetFinalTrans() { return GetFinalXM().translation; }
    const Vector3& GetFinalTransFast() const { return m_state->final.translation; }
    const Matrix3& GetFinalRot() { return GetFinalXM().rotation; }
    const Vector3& GetFinalScale() { return GetFinalXM().scale; }
    const Vector3& GetFinalScaleFast() const { return m_state->final.scale; }
    Vector3 GetUp();
    Vector3 GetRight();
    Vector3 GetDirection();
    const Transform* GetOffsetXM() const { return m_state->offset; }
    // The caller keeps `offset` alive while it is set.
    void SetOffsetXM(const Transform* offset);
    // Flag 1 here and on every descendant.
    void MakeTransformDirty();
    void MakeChildrenTransformDirty();
    // Update(0) on the highest dirty node above (or at) this one.
    void MakeTransformClean();
    Node* FindCleanNode();

    // --- Update --------------------------------------------------------------------
    // All modifiers of the subtree tick, then the transforms and boxes update.
    void Update(float delta);
    // Recomputes everything below, dirty or not.
    void ForceUpdate(float delta);
    void ForceUpdate(float delta, const Transform* local);
    void UpdateAllModifiers(float delta);
    // True when this node's box changed.
    bool UpdateWithoutModifiers(float delta);
    void UpdateChildren(float delta);
    void UpdateTransform();
    void ForceUpdateTransform();
    bool UpdateAabb(bool changed, bool childChanged);
    void CalculateLocalBound();
    // A root whose shape held still between two updates walks its tree in
    // a cached flat order from then on, until the shape next changes; for
    // tests and tools.
    bool HasFlatUpdateOrder() const { return m_order != nullptr; }

    // --- Bounds --------------------------------------------------------------------
    const Aabb& GetFinalAabb() const { return m_state->bounds; }
    const Vector3& GetFinalBoundsMin() const { return m_state->bounds.min; }
    const Vector3& GetFinalBoundsMax() const { return m_state->bounds.max; }
    // Empty: minimum 1e30 on each axis, maximum -1e30.
    static Aabb EmptyBounds();

    // --- Physics shape ---------------------------------------------------------------
    const Ptr<PhysicsShape>& GetPhysicsShape() const { return m_physicsShape; }
    void SetPhysicsShape(const Ptr<PhysicsShape>& shape);

    // --- Assets: with `children` true each repeats down the subtree, depth
    // first, the node before its children. Null is ignored. ------------------------
    void AttachAsset(const Ptr<RenderAsset>& asset, bool children);
    void DetachAsset(const Ptr<RenderAsset>& asset, bool children);
    void DetachAllAssets(bool children);
    void AttachAssetByRDI(NodeRDI* rdi, bool children);
    void DetachAssetByRDI(NodeRDI* rdi, bool children);
    void SetVisibleInAsset(bool visible, const Ptr<RenderAsset>& asset, bool children);

    // --- Objects -----------------------------------------------------------------------
    bool Duplicate(Object* destination, unsigned int flags) const override;
    bool Load(Serializer* serializer) override;
    bool Save(Serializer* serializer) const override;
    bool LoadDiff(Serializer* serializer) override;
    bool SaveDiff(Serializer* serializer, const Object* base) const override;
    bool IsDifferent(const Object* other) const override;
    // Sets `sameShape` to whether the counts match; true when they differ or
    // a pair at one index does.
    static bool IsChildrenDifferent(bool& sameShape, const Node* a, const Node* b);
    void OnNameChanged(const WString& oldName) override;
    bool LoadGraphicsObjects(std::atomic<int>* pending) override;

    // --- Virtual operations for derived nodes and render mirrors -------------------------
    virtual bool canAttachChild(Node* /*child*/) const { return true; }
    virtual const Aabb* getLocalAabbPtr() const { return nullptr; }
    virtual void CalculateSelfLocalBound() {}
    virtual bool LoadPhysicsShape(Serializer* serializer);
    virtual bool SavePhysicsShape(Serializer* serializer) const;
    // The base only recurses into the children.
    virtual void GetAllPrimRDIs(TArray<Ptr<PrimitiveRDI>>& out);
    virtual void OnAttachAsset(const Ptr<RenderAsset>& /*asset*/) {}
    virtual void OnDetachAsset(const Ptr<RenderAsset>& /*asset*/) {}
    virtual void OnDetachAllAssets() {}
    virtual void OnAttachAssetByRDI(NodeRDI* /*rdi*/) {}
    virtual void OnDetachAssetByRDI(NodeRDI* /*rdi*/) {}
    virtual void OnSetVisibleInAsset(bool /*visible*/, const Ptr<RenderAsset>& /*asset*/) {}
    virtual void OnTransformChanged() {}
    virtual void OnVisibleChanged(bool /*visible*/) {}
    virtual void OnUpdate(float /*delta*/, bool /*changed*/) {}
    virtual void OnDetached() {}
    virtual void OnAttached() {}
    virtual void OnChildNameChanged(const WString& newName, Node* child);
    virtual bool LoadChildren(Serializer* serializer);
    virtual bool SaveChildren(Serializer* serializer) const;
    virtual bool LoadChildrenDiff(Serializer* serializer);
    virtual bool SaveChildrenDiff(Serializer* serializer, const Node* base) const;
    virtual bool canSaveChild(Node* /*child*/) const { return true; }

    // Keep the count of nodes with modifiers below (see State::ticking); a
    // derived node that overrides these calls Node's.
    void OnModifierAttached(const Ptr<Modifier>& modifier) override;
    void OnModifierDetached(const Ptr<Modifier>& modifier) override;

    struct CloneQueue; // defined in the source

private:
    struct UpdateOrder; // defined in the source

    // What every update reads and writes, kept apart from the rest of the
    // node: a root's ordered tree keeps the States of all its nodes in one
    // array, in walk order, so that an update streams through memory.
    struct State
    {
        unsigned int flags = FLAGS_DEFAULT;
        // Nodes of this subtree, this one included, that have a modifier:
        // the modifier pass leaves out subtrees where it is 0, and the
        // update skips the modifier lists of a node where it is.
        unsigned int ticking = 0;
        const Transform* offset = nullptr;
        Transform local;
        Transform final;
        Aabb bounds;
    };

    void StoreLocalScale(const Vector3& scale);
    void PrefetchChildren() const;
    bool UpdateSubtree(float delta, bool force);
    bool WalkSubtree(float delta, bool force, bool clearShapeMarks);
    bool EnterUpdate(State* state, const State* parent, float delta, bool force);
    bool LeaveUpdate(State& state, const Aabb* children, bool changed);
    static void ComputeFinal(State& state, const State* parent);
    bool WalkOrder(UpdateOrder& order, float delta, bool force);
    void BuildOrder();
    void DropOrder();
    void NoteShapeChange();
    bool RebuildBounds(State& state, const Aabb* children);

    void AddTicking(int count);

    Node* m_parent = nullptr;
    // Where the node's State lives: m_ownState, or its slot in the flat
    // order of the root above it.
    State* m_state = &m_ownState;
    TResNamedMap<Ptr<Node>, const WString&> m_children;
    Ptr<PhysicsShape> m_physicsShape;
    // A root's pre-order of its tree, built once the tree's shape has held
    // still from one update to the next and dropped by the first change of
    // shape after that; null on every other node.
    UpdateOrder* m_order = nullptr;
    // Set on a node whose children changed and on its ancestors (the marks
    // stop at one already set, so a mark means every ancestor has one); a
    // root's update clears them.
    bool m_shapeChanged = false;
    State m_ownState;
};

// The resource factory of ".node" files.
class KOVEX_API NodeFactory : public ResourceFactory
{
public:
    // Makes and registers the factory once.
    static void Init();
    static NodeFactory* Get();

private:
    NodeFactory();
};

} // namespace KovexEngine
