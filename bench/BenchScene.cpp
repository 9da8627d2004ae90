// The scene graph on a 100,000-node tree (depth up to 12): world transforms
// updated with 10% of the nodes marked dirty at random (marking one marks
// its subtree), beside the same parent/child products over flat arrays; the
// walk with nothing dirty, and the walk by pointers in a frame whose shape
// changed; world boxes refreshed after 1,000
// leaves move, beside a full recompute; the tree saved and loaded in the
// binary form, nodes per second (the serializer's own figures are
// BM_Serialize_* in the same run).

#include <benchmark/benchmark.h>

#include <cstring>
#include <random>
#include <vector>

#include "io/MemoryStream.h"
#include "scene/Node.h"
#include "serialization/BinSerializer.h"

using namespace KovexEngine;

namespace KovexBench {

// A node with a box of its own, as a mesh has.
class BenchBoxNode : public Node
{
    KOVEX_CLASS(BenchBoxNode)
public:
    Aabb box{Vector3(-1, -1, -1), Vector3(1, 1, 1)};
    const Aabb* getLocalAabbPtr() const override { return &box; }
};
KOVEX_REGISTER_CLASS(BenchBoxNode, u"Bench", Node)

constexpr unsigned kNodes = 100000;
constexpr unsigned kMaxDepth = 12;

struct SceneTree
{
    Ptr<Node> root;
    std::vector<Node*> nodes;   // creation order: parents before children
    std::vector<int> parent;    // index, -1 for the root
    std::vector<Node*> leaves;
};

SceneTree& Tree()
{
    static SceneTree tree = [] {
        SceneTree t;
        std::mt19937 rng(2024);
        std::uniform_real_distribution<float> angle(-3, 3), pos(-10, 10);
        std::vector<unsigned> depth;
        for (unsigned i = 0; i < kNodes; ++i)
        {
            Ptr<Node> n(new BenchBoxNode());
            WString name;
            name.Format(u"n%u", i);
            n->SetName(name);
            n->SetLocalTRS(Vector3(pos(rng), pos(rng), pos(rng)), Matrix3::RotateEuler(Vector3(angle(rng), 0, angle(rng))),
                           Vector3(1, 1, 1));
            int p = -1;
            if (i)
                do
                    p = int(rng() % i);
                while (depth[size_t(p)] >= kMaxDepth);
            depth.push_back(p < 0 ? 0 : depth[size_t(p)] + 1);
            if (p >= 0)
                t.nodes[size_t(p)]->AttachChild(n);
            else
                t.root = n;
            t.nodes.push_back(n.Get());
            t.parent.push_back(p);
        }
        for (Node* n : t.nodes)
            if (!n->GetNumChildren())
                t.leaves.push_back(n);
        t.root->Update(0);
        return t;
    }();
    return tree;
}

// 10% of the nodes, spread at random; marking one marks its subtree.
const std::vector<unsigned>& DirtySet()
{
    static std::vector<unsigned> set = [] {
        std::mt19937 rng(7);
        std::vector<unsigned> s;
        for (unsigned i = 0; i < kNodes / 10; ++i)
            s.push_back(unsigned(rng() % kNodes));
        return s;
    }();
    return set;
}

// Marks the dirty set, as an application moving those nodes would.
void MarkDirty(SceneTree& t)
{
    for (unsigned i : DirtySet())
        t.nodes[i]->MakeTransformDirty();
}

// The nodes marked dirty, their subtrees included.
unsigned CountDirty(const SceneTree& t)
{
    unsigned dirty = 0;
    for (const Node* n : t.nodes)
        dirty += n->TestFlag(Node::FLAG_TRANSFORM_DIRTY) ? 1 : 0;
    return dirty;
}

void ReportDirty(benchmark::State& state, unsigned dirty)
{
    state.SetItemsProcessed(int64_t(state.iterations()) * dirty);
    state.counters["dirty_nodes"] = dirty;
    state.counters["dirty_per_ms"] = benchmark::Counter(double(dirty) * double(state.iterations()) / 1000.0,
                                                        benchmark::Counter::kIsRate);
}

// Marks the dirty set and updates, `shapeChange` before each update.
template <typename ShapeChange>
void UpdateDirtyFrames(benchmark::State& state, ShapeChange&& shapeChange)
{
    SceneTree& t = Tree();
    t.root->Update(0); // a shape that held still since the last update
    MarkDirty(t);
    unsigned dirty = CountDirty(t);
    t.root->Update(0);
    for (auto _ : state)
    {
        state.PauseTiming();
        MarkDirty(t);
        shapeChange(t);
        state.ResumeTiming();
        t.root->Update(0);
    }
    ReportDirty(state, dirty);
}

void BM_Scene_UpdateDirty10Percent(benchmark::State& state)
{
    UpdateDirtyFrames(state, [](SceneTree&) {});
}

// The arithmetic's floor: the same parent/child products for the same
// dirty nodes, over flat arrays in parent-first order.
void BM_Scene_FlatArrayBaseline(benchmark::State& state)
{
    SceneTree& t = Tree();
    std::vector<Transform> local(kNodes), world(kNodes);
    std::vector<uint8_t> dirtyFlag(kNodes);
    for (unsigned i = 0; i < kNodes; ++i)
        local[i] = t.nodes[i]->GetLocalXM();
    MarkDirty(t);
    unsigned dirty = 0;
    for (unsigned i = 0; i < kNodes; ++i)
        dirty += dirtyFlag[i] = t.nodes[i]->TestFlag(Node::FLAG_TRANSFORM_DIRTY) ? 1 : 0;
    t.root->Update(0);
    for (auto _ : state)
    {
        for (unsigned i = 0; i < kNodes; ++i)
            if (dirtyFlag[i])
            {
                int p = t.parent[i];
                if (p < 0)
                    world[i] = local[i];
                else
                    Transform::Multiply(world[i], world[size_t(p)], local[i]);
            }
        benchmark::DoNotOptimize(world.data());
        benchmark::ClobberMemory();
    }
    ReportDirty(state, dirty);
}

// Nothing dirty: what the walk itself costs, a notification per node.
void BM_Scene_UpdateNothingDirty(benchmark::State& state)
{
    SceneTree& t = Tree();
    t.root->Update(0);
    t.root->Update(0);
    for (auto _ : state)
        t.root->Update(0);
    state.SetItemsProcessed(int64_t(state.iterations()) * kNodes);
}

// The same 10% dirty in a frame where the shape changed too (a leaf
// detached and attached again): the walk by pointers.
void BM_Scene_UpdateDirtyAfterAShapeChange(benchmark::State& state)
{
    UpdateDirtyFrames(state, [](SceneTree& t) {
        Ptr<Node> leaf(t.leaves.front());
        Node* parent = leaf->GetParent();
        parent->DetachChild(leaf);
        parent->AttachChild(leaf);
    });
}

// The first change of shape after the tree held still: a leaf detached
// and attached again, which drops the root's flat order (the States move
// back into their nodes, the order's references go).
void BM_Scene_FirstShapeChangeDropsTheOrder(benchmark::State& state)
{
    SceneTree& t = Tree();
    Ptr<Node> leaf(t.leaves.front());
    Node* parent = leaf->GetParent();
    for (auto _ : state)
    {
        state.PauseTiming();
        t.root->Update(0);
        t.root->Update(0);
        state.ResumeTiming();
        parent->DetachChild(leaf);
        parent->AttachChild(leaf);
    }
}

void BM_Scene_BoundsAfterMoving1000Leaves(benchmark::State& state)
{
    SceneTree& t = Tree();
    std::mt19937 rng(11);
    for (auto _ : state)
    {
        state.PauseTiming();
        for (unsigned i = 0; i < 1000; ++i)
            t.leaves[rng() % t.leaves.size()]->SetLocalTrans(Vector3(float(rng() % 20), 0, float(rng() % 20)));
        state.ResumeTiming();
        t.root->Update(0);
    }
    state.counters["leaves"] = double(t.leaves.size());
}

void BM_Scene_BoundsFullRecompute(benchmark::State& state)
{
    SceneTree& t = Tree();
    for (auto _ : state)
        t.root->ForceUpdate(0);
}


std::vector<char> SaveTree(const Node* root)
{
    auto* data = new DataStream();
    Ptr<Stream> stream(new MemoryStream(data, false));
    stream->SetWriteable(true);
    BinSerializer writer;
    std::vector<char> out;
    if (writer.Open(stream, Serializer::MODE_WRITE) && writer.Enter(FourCCs::OBJ))
    {
        writer.SaveObject(ConstPtr<Object>(root), 0);
        writer.Leave();
        writer.Close();
        out.assign(reinterpret_cast<const char*>(data->GetPointer()),
                   reinterpret_cast<const char*>(data->GetPointer()) + data->GetLength());
    }
    stream = nullptr;
    delete data;
    return out;
}

void BM_Scene_BinarySave(benchmark::State& state)
{
    SceneTree& t = Tree();
    size_t bytes = 0;
    for (auto _ : state)
        bytes = SaveTree(t.root.Get()).size();
    state.SetItemsProcessed(int64_t(state.iterations()) * kNodes);
    state.counters["bytes"] = double(bytes);
}

void BM_Scene_BinaryLoad(benchmark::State& state)
{
    std::vector<char> bytes = SaveTree(Tree().root.Get());
    unsigned loaded = 0;
    for (auto _ : state)
    {
        auto* data = new DataStream(unsigned(bytes.size()));
        std::memcpy(data->GetPointer(), bytes.data(), bytes.size());
        Ptr<Stream> stream(new MemoryStream(data, true));
        Serializer* reader = Serializer::OpenReadStream(stream);
        Ptr<Object> object;
        if (reader && reader->Enter(FourCCs::OBJ))
            reader->LoadObject(object, nullptr, 0);
        loaded = object ? 1 : 0;
        delete reader;
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * kNodes * loaded);
}

BENCHMARK(BM_Scene_UpdateDirty10Percent)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Scene_FlatArrayBaseline)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Scene_UpdateNothingDirty)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Scene_UpdateDirtyAfterAShapeChange)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Scene_FirstShapeChangeDropsTheOrder)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Scene_BoundsAfterMoving1000Leaves)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Scene_BoundsFullRecompute)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Scene_BinarySave)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Scene_BinaryLoad)->Unit(benchmark::kMillisecond);

} // namespace KovexBench
