#include <gtest/gtest.h>

#include <functional>

#include "reflection/Struct.h"
#include "resources/Resource.h"
#include "scene/SceneTestSupport.h"
#include "serialization/BinSerializer.h"
#include "serialization/XmlSerializer.h"
#include "serialization/SerializerTestSupport.h"
#include "support/LogCapture.h"
#include "support/NullEngine.h"
#include "support/TempDir.h"

using namespace KovexEngine;
using namespace KovexSceneTest;
using KovexTest::Bytes;

namespace {

constexpr FourCC kNODE = FourCCs::Make("NODE");
constexpr FourCC kMODS = FourCCs::Make("MODS");
constexpr FourCC kNMMD = FourCCs::Make("NMMD");
constexpr FourCC kMOD = FourCCs::Make("MOD");
constexpr FourCC kCDSZ = FourCCs::Make("CDSZ");
constexpr FourCC kCHD = FourCCs::Make("CHD");
constexpr FourCC kPHYV = FourCCs::Make("PHYV");
constexpr FourCC kLXM = FourCCs::Make("LXM");

Ptr<Node> Named(const char16_t* name, const Class* cls = nullptr)
{
    Ptr<Node> n(DynamicCast<Node>(Object::CreateObject(cls ? cls : Node::StaticGetClass()).Get()));
    n->SetName(WString(name));
    return n;
}

// A tree with every part of the serial form in it.
// With a physics shape, a tree and its copy always differ by the shape's
// identity, so comparisons use the tree without one.
Ptr<Node> SampleTree(bool withShape = true)
{
    Ptr<Node> root = Named(u"root");
    root->SetLocalTRS(Vector3(1.5f, -2, 3.25f), Matrix3::RotateEuler(Vector3(0.1f, 0.2f, 0.3f)), Vector3(1, 2, 3));
    Ptr<SceneModifierA> a(new SceneModifierA());
    a->enableModifierFlag(0x40, true);
    root->AttachModifier(Ptr<Modifier>(a.Get()));
    root->AttachModifier(Ptr<Modifier>(new SceneModifierB()));
    if (withShape)
        root->SetPhysicsShape(Ptr<PhysicsShape>(new PhysicsShape()));
    Ptr<Node> arm = Named(u"arm", SceneBoxNode::StaticGetClass());
    arm->SetLocalRotDegree(Vector3(0, 45, 0));
    root->AttachChild(arm);
    Ptr<Node> hand = Named(u"hand");
    hand->SetLocalTrans(Vector3(0, 0, 0.1f));
    hand->AttachModifier(Ptr<Modifier>(new SceneModifierC()));
    arm->AttachChild(hand);
    root->AttachChild(Named(u"leg"));
    return root;
}

Ptr<Node> LoadNode(const Bytes& bytes)
{
    Ptr<Object> object = KovexTest::LoadFrom(bytes);
    return Ptr<Node>(DynamicCast<Node>(object.Get()));
}

// A node written by hand, so that files no correct saver makes can be had.
struct Forge
{
    const char16_t* name = u"root";
    const char16_t* cls = u"Node";
    uint32 childCount = 0;
    bool withNodeSection = true;
    std::function<void(Serializer&)> modifiers;
    std::function<void(Serializer&)> children;

    void Write(Serializer& s) const
    {
        s.Write(FourCCs::CLS, WString(cls));
        Ptr<Node> props = Named(name);
        props->SaveProperties(&s);
        if (modifiers)
        {
            s.Enter(kMODS);
            modifiers(s);
            s.Leave();
        }
        if (!withNodeSection)
            return;
        s.Enter(kNODE);
        Transform local;
        s.Write(kLXM, &local, static_cast<const Struct*>(Transform::StaticGetClass()));
        s.Write(kPHYV, false);
        s.Write(kCDSZ, childCount);
        if (children)
            children(s);
        s.Leave();
    }
    Bytes In(const Class* form) const
    {
        return KovexTest::WriteWith(form, [this](Serializer& s) {
            s.Enter(FourCCs::OBJ);
            Write(s);
            s.Leave();
        });
    }
};

void ForgedChild(Serializer& s, const Forge& child)
{
    s.EnterNext(kCHD);
    child.Write(s);
    s.Leave();
}

// Same names, classes, modifiers and local transforms, pre-order; the XML
// form keeps six significant digits, hence the tolerance.
void ExpectSameTree(const Ptr<Node>& a, const Ptr<Node>& b, float tolerance)
{
    Node::Iterator x(a, true), y(b, true);
    while (x.hasNext() && y.hasNext())
    {
        Ptr<Node> p = x.Next(), q = y.Next();
        EXPECT_EQ(p->GetName(), q->GetName());
        EXPECT_EQ(p->GetClass(), q->GetClass());
        EXPECT_EQ(p->GetNumModifiers(), q->GetNumModifiers());
        EXPECT_EQ(p->GetNumChildren(), q->GetNumChildren());
        const Transform& s = p->GetLocalXM();
        const Transform& t = q->GetLocalXM();
        EXPECT_TRUE(s.translation.NearlyEquals(t.translation, tolerance));
        EXPECT_TRUE(s.scale.NearlyEquals(t.scale, tolerance));
        for (unsigned i = 0; i < 9; ++i)
            EXPECT_NEAR(s.rotation.Data()[i], t.rotation.Data()[i], tolerance);
    }
    EXPECT_EQ(x.hasNext(), y.hasNext());
}

class NodeForms : public testing::TestWithParam<bool>
{
protected:
    const Class* Form() const { return GetParam() ? XmlSerializer::StaticGetClass() : BinSerializer::StaticGetClass(); }
    float Tolerance() const { return GetParam() ? 1e-5f : 0.0f; }
};

} // namespace

INSTANTIATE_TEST_SUITE_P(NodeSerial, NodeForms, testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Xml" : "Bin"; });

TEST_P(NodeForms, SaveLoadSaveGivesTheSameBytesAndTheSameTree)
{
    Ptr<Node> tree = SampleTree();
    Bytes first = KovexTest::SaveIn(Form(), ConstPtr<Object>(tree.Get()));
    ASSERT_FALSE(first.empty());
    Ptr<Node> loaded = LoadNode(first);
    ASSERT_TRUE(loaded);
    EXPECT_EQ(KovexTest::SaveIn(Form(), ConstPtr<Object>(loaded.Get())), first);
    ExpectSameTree(tree, loaded, Tolerance());
    if (!GetParam())
        EXPECT_FALSE(tree->GetChild(0u)->IsDifferent(loaded->GetChild(0u).Get()));
    EXPECT_TRUE(loaded->GetLocalXM().flags & Transform::FLAG_NONUNIFORM_SCALE);
    ASSERT_EQ(loaded->GetNumChildren(), 2u);
    EXPECT_EQ(loaded->GetChild(0u)->GetClass(), SceneBoxNode::StaticGetClass());
    Ptr<Node> hand = loaded->GetNode(WString(u"hand"));
    ASSERT_TRUE(hand);
    EXPECT_EQ(hand->GetParent(), loaded->GetChild(0u).Get());
    EXPECT_EQ(hand->GetModifier(SceneModifierC::StaticGetClass())->GetModifiable(), hand.Get());
    EXPECT_EQ(loaded->GetNumModifiers(), 2u);
    EXPECT_TRUE(loaded->GetPhysicsShape());
    // The loaded tree computes the same world transforms.
    tree->Update(0);
    loaded->Update(0);
    EXPECT_TRUE(hand->GetFinalXMFast().translation.NearlyEquals(
        tree->GetNode(WString(u"hand"))->GetFinalXMFast().translation, 1e-6f));
}

// The XML form keeps six significant digits of a float, so the way across
// forms that must keep every byte starts from text.
TEST(NodeSerial, XmlToBinaryToXmlKeepsEveryByte)
{
    Bytes text = KovexTest::SaveIn(XmlSerializer::StaticGetClass(), ConstPtr<Object>(SampleTree().Get()));
    Ptr<Node> viaText = LoadNode(text);
    ASSERT_TRUE(viaText);
    Bytes binary = KovexTest::SaveIn(BinSerializer::StaticGetClass(), ConstPtr<Object>(viaText.Get()));
    Ptr<Node> viaBinary = LoadNode(binary);
    ASSERT_TRUE(viaBinary);
    EXPECT_EQ(KovexTest::SaveIn(XmlSerializer::StaticGetClass(), ConstPtr<Object>(viaBinary.Get())), text);
}

TEST_P(NodeForms, NestingUpToTheLimitRoundTripsDeeperFailsCleanly)
{
    auto chain = [](unsigned depth) {
        Ptr<Node> root = Named(u"n");
        Node* bottom = root.Get();
        for (unsigned i = 1; i < depth; ++i)
        {
            Ptr<Node> n = Named(u"n");
            bottom->AttachChild(n);
            bottom = n.Get();
        }
        // The deepest node carries a modifier: one more level of objects.
        bottom->AttachModifier(Ptr<Modifier>(new SceneModifierA()));
        return root;
    };
    const unsigned limit = Serializer::kMaxObjectDepth - 1;
    Bytes bytes = KovexTest::SaveIn(Form(), ConstPtr<Object>(chain(limit).Get()));
    Ptr<Node> loaded = LoadNode(bytes);
    ASSERT_TRUE(loaded);
    unsigned count = 0;
    for (Node::Iterator it(loaded, true); it.hasNext(); it.Next())
        ++count;
    EXPECT_EQ(count, limit);
    EXPECT_EQ(KovexTest::SaveIn(Form(), ConstPtr<Object>(loaded.Get())), bytes);

    KovexTest::LogCapture log;
    Ptr<Node> tooDeep = chain(limit + 1);
    KovexTest::WriteWith(Form(), [&](Serializer& s) {
        s.Enter(FourCCs::OBJ);
        EXPECT_FALSE(s.SaveObject(ConstPtr<Object>(tooDeep.Get()), 0));
        s.Leave();
    });
    EXPECT_TRUE(log->Contains(u"Node 'n': nested deeper than 255 levels, not saved.\n"));

    // A forged file deeper than the serializer follows.
    std::function<void(Serializer&, unsigned)> nest = [&](Serializer& s, unsigned left) {
        Forge f;
        f.name = u"deep";
        f.childCount = left ? 1 : 0;
        if (left)
            f.children = [&, left](Serializer& w) {
                w.EnterNext(kCHD);
                nest(w, left - 1);
                w.Leave();
            };
        f.Write(s);
    };
    Bytes deep = KovexTest::WriteWith(Form(), [&](Serializer& s) {
        s.Enter(FourCCs::OBJ);
        nest(s, Serializer::kMaxObjectDepth + 20);
        s.Leave();
    });
    EXPECT_FALSE(LoadNode(deep));
    EXPECT_TRUE(log->Contains(u"Serializer: objects nested too deeply.\n"));
}

TEST(NodeSerial, SelectiveSavingWritesTheSummedCount)
{
    Ptr<Node> root = Named(u"root");
    root->AttachChild(Named(u"a"));
    root->AttachChild(Named(u"b"));
    root->SetFlag(Node::FLAG_SELECTIVE_SAVE);
    Bytes bytes = KovexTest::SaveIn(BinSerializer::StaticGetClass(), ConstPtr<Object>(root.Get()));
    Serializer* s = KovexTest::OpenReader(bytes);
    ASSERT_NE(s, nullptr);
    ASSERT_TRUE(s->Enter(FourCCs::OBJ));
    ASSERT_TRUE(s->Enter(kNODE));
    // Values are read in the order they were written.
    Transform local;
    bool hasShape = true;
    EXPECT_TRUE(s->Read(kLXM, &local, static_cast<const Struct*>(Transform::StaticGetClass())));
    EXPECT_TRUE(s->Read(kPHYV, hasShape));
    EXPECT_FALSE(hasShape);
    uint32 count = 0;
    EXPECT_TRUE(s->Read(kCDSZ, count));
    EXPECT_EQ(count, 4u);
    EXPECT_EQ(s->CountSections(kCHD), 2u);
    delete s;
}

// Forged files: each fails with its line and hands back nothing.
TEST_P(NodeForms, BadFilesFailWithTheirLineAndLeaveNothingBehind)
{
    struct Case
    {
        const char* what;
        Forge forge;
        const char16_t* line;
    };
    Forge absurd;
    absurd.childCount = 1000000;
    absurd.children = [](Serializer& s) { ForgedChild(s, Forge{u"only"}); };
    Forge twins;
    twins.childCount = 2;
    twins.children = [](Serializer& s) {
        ForgedChild(s, Forge{u"twin"});
        ForgedChild(s, Forge{u"twin"});
    };
    Forge notAModifier;
    notAModifier.modifiers = [](Serializer& s) {
        s.Write(kNMMD, uint32(1));
        s.EnterNext(kMOD);
        s.SaveObject(ConstPtr<Object>(Named(u"imposter").Get()), 0);
        s.Leave();
    };
    Forge twoOfAClass;
    twoOfAClass.modifiers = [](Serializer& s) {
        s.Write(kNMMD, uint32(2));
        for (int i = 0; i < 2; ++i)
        {
            s.EnterNext(kMOD);
            s.SaveObject(ConstPtr<Object>(new SceneModifierA()), 0);
            s.Leave();
        }
    };
    Forge noNode;
    noNode.withNodeSection = false;
    Forge childNotANode;
    childNotANode.childCount = 1;
    childNotANode.children = [](Serializer& s) {
        s.EnterNext(kCHD);
        s.SaveObject(ConstPtr<Object>(new PhysicsShape()), 0);
        s.Leave();
    };
    // A grandchild that is bad fails the whole tree, not just its parent.
    Forge badBelow;
    badBelow.childCount = 1;
    badBelow.children = [twins](Serializer& s) {
        Forge middle = twins;
        middle.name = u"middle";
        ForgedChild(s, middle);
    };
    const Case cases[] = {
        {"absurd count", absurd, u"Node 'root': 1000000 children announced, 1 stored.\n"},
        {"repeated names", twins, u"Node 'root': two children named 'twin'.\n"},
        {"not a modifier", notAModifier, u"Node 'root': a modifier entry holds no modifier (Node).\n"},
        {"one class twice", twoOfAClass, u"Node 'root': modifier class 'SceneModifierA' appears twice.\n"},
        {"no NODE section", noNode, u"Node 'root': no NODE section.\n"},
        {"child not a node", childNotANode, u"Node 'root': child 0 is no node.\n"},
        {"bad grandchild", badBelow, u"Node 'middle': two children named 'twin'.\n"},
    };
    for (const Case& c : cases)
    {
        KovexTest::LogCapture log;
        Bytes bytes = c.forge.In(Form());
        EXPECT_FALSE(LoadNode(bytes)) << c.what;
        EXPECT_TRUE(log->Contains(c.line)) << c.what;
        // Loaded into a node that already has children: none are left half-read.
        Ptr<Node> target = Named(u"target");
        target->AttachChild(Named(u"old"));
        Serializer* s = KovexTest::OpenReader(bytes);
        ASSERT_NE(s, nullptr);
        ASSERT_TRUE(s->Enter(FourCCs::OBJ));
        WString cls;
        s->Read(FourCCs::CLS, cls);
        EXPECT_FALSE(target->Load(s)) << c.what;
        delete s;
        for (const Ptr<Node>& child : target->GetChildren())
            EXPECT_EQ(child->GetName(), WString(u"old")) << c.what;
    }
}

// A "NODE" section where a property's value belongs, made from a real file
// by moving the node section into the "Translate" property: it is never
// taken for the node's own.
TEST(NodeSerial, ANodeSectionInsideAPropertyValueIsRefused)
{
    std::string text = KovexTest::SaveIn(XmlSerializer::StaticGetClass(), ConstPtr<Object>(Named(u"leg").Get()));
    size_t nodeAt = text.find("<NODE");
    ASSERT_NE(nodeAt, std::string::npos);
    size_t nodeEnd = text.find("/>", nodeAt) + 2;
    std::string section = text.substr(nodeAt, nodeEnd - nodeAt);
    std::string forged = text.substr(0, nodeAt) + text.substr(nodeEnd);
    const std::string prop = "<PROP NAME=\"Translate\" VAL=\"0,0,0\"/>";
    size_t propAt = forged.find(prop);
    ASSERT_NE(propAt, std::string::npos);
    forged.replace(propAt, prop.size(), "<PROP NAME=\"Translate\" VAL=\"0,0,0\">" + section + "</PROP>");
    KovexTest::LogCapture log;
    EXPECT_FALSE(LoadNode(forged));
    EXPECT_TRUE(log->Contains(u"Node 'leg': no NODE section.\n"));
    // The untouched file loads.
    EXPECT_TRUE(LoadNode(text));
}

// Every truncation of a real file fails cleanly. Values the format lets a
// file leave out (a last child's shape flag and child count) may be cut off
// the end; such a file loads, with every node there.
TEST_P(NodeForms, TruncatedFilesNeverCrashNorHalfLoad)
{
    Ptr<Node> tree = SampleTree();
    Bytes bytes = KovexTest::SaveIn(Form(), ConstPtr<Object>(tree.Get()));
    auto names = [](const Ptr<Node>& root) {
        std::vector<std::string> out;
        for (Node::Iterator it(root, true); it.hasNext();)
            out.push_back(Utf8(it.Next()->GetName()));
        return out;
    };
    KovexTest::LogCapture quiet;
    size_t step = GetParam() ? 7 : 1;
    for (size_t n = 0; n < bytes.size(); n += step)
        if (Ptr<Node> loaded = LoadNode(bytes.substr(0, n)))
            EXPECT_EQ(names(loaded), names(tree)) << n;
    EXPECT_TRUE(LoadNode(bytes));
}

// --- Clones and differences --------------------------------------------------------------------------

TEST(NodeClone, ClonesAreDeepAndIndependent)
{
    Ptr<Node> tree = SampleTree(false);
    tree->Update(0);
    Ptr<Object> copy = tree->Clone(0);
    Node* clone = DynamicCast<Node>(copy.Get());
    ASSERT_NE(clone, nullptr);
    EXPECT_FALSE(tree->IsDifferent(clone));
    EXPECT_EQ(clone->GetFlags(), tree->GetFlags());
    EXPECT_EQ(clone->GetFinalXMFast().translation, tree->GetFinalXMFast().translation);
    Ptr<Node> hand = clone->GetNode(WString(u"hand"));
    ASSERT_TRUE(hand);
    EXPECT_NE(hand.Get(), tree->GetNode(WString(u"hand")).Get());
    EXPECT_EQ(hand->GetParent()->GetClass(), SceneBoxNode::StaticGetClass());
    const Ptr<Modifier>& m = hand->GetModifier(SceneModifierC::StaticGetClass());
    ASSERT_TRUE(m);
    EXPECT_EQ(m->GetModifiable(), hand.Get());
    EXPECT_NE(m.Get(), tree->GetNode(WString(u"hand"))->GetModifier(SceneModifierC::StaticGetClass()).Get());
    EXPECT_TRUE(clone->GetModifier(SceneModifierA::StaticGetClass())->hasModifierFlag(0x40));
    // An edit two levels down tells the trees apart.
    hand->SetLocalTrans(Vector3(4, 0, 0));
    EXPECT_TRUE(tree->IsDifferent(clone));
    bool sameShape = false;
    clone->GetChild(1u)->AttachChild(Named(u"extra"));
    EXPECT_TRUE(Node::IsChildrenDifferent(sameShape, tree->GetChild(1u).Get(), clone->GetChild(1u).Get()));
    EXPECT_FALSE(sameShape);
}

TEST_P(NodeForms, DifferencesApplyOverACopyOfTheBase)
{
    Ptr<Node> base = SampleTree(false);
    Ptr<Node> edited(DynamicCast<Node>(base->Clone(0).Get()));
    edited->GetNode(WString(u"hand"))->SetLocalTrans(Vector3(7, 8, 9));
    edited->GetChild(1u)->AttachChild(Named(u"toe"));
    edited->SetLocalTrans(Vector3(-1, -1, -1));
    ASSERT_TRUE(base->IsDifferent(edited.Get()));
    Bytes diff = KovexTest::WriteWith(Form(), [&](Serializer& s) {
        s.Enter(FourCCs::OBJ);
        EXPECT_TRUE(edited->SaveDiff(&s, base.Get()));
        s.Leave();
    });
    Ptr<Node> rebuilt(DynamicCast<Node>(base->Clone(0).Get()));
    Serializer* s = KovexTest::OpenReader(diff);
    ASSERT_NE(s, nullptr);
    ASSERT_TRUE(s->Enter(FourCCs::OBJ));
    EXPECT_TRUE(rebuilt->LoadDiff(s));
    delete s;
    ExpectSameTree(rebuilt, edited, Tolerance());
    if (!GetParam())
        EXPECT_FALSE(rebuilt->IsDifferent(edited.Get()));
    EXPECT_EQ(rebuilt->GetNode(WString(u"toe"))->GetParent()->GetName(), WString(u"leg"));
}

// --- The ".node" factory -------------------------------------------------------------------------------

TEST(NodeFactory, NodeFilesLoadThroughTheResourceTable)
{
    KovexTest::NullEngine engine;
    KovexTest::TempDir dir;
    ResourceFactory* factory = ResourceManager::Ins()->GetFactory(WString(u".node"));
    ASSERT_NE(factory, nullptr);
    EXPECT_EQ(factory, NodeFactory::Get());
    EXPECT_EQ(ResourceManager::Ins()->GetClassByExtension(WString(u".node")), Node::StaticGetClass());
    EXPECT_EQ(factory->GetMode(), RESOURCE_INSTANCED);
    EXPECT_EQ(factory->GetPriority(), 1000);
    Ptr<Node> tree = SampleTree(false);
    for (bool xml : {false, true})
    {
        Serializer::SetDefaultSerializer(xml);
        WString path = dir.W(xml ? "tree_xml.node" : "tree.node");
        ASSERT_TRUE(ResourceManager::Ins()->Save(tree.Get(), path, Ptr<SerializerState>()));
        Ptr<Resource> loaded = ResourceManager::Ins()->Load(path, 0);
        Node* node = DynamicCast<Node>(loaded.Get());
        ASSERT_NE(node, nullptr);
        ExpectSameTree(tree, Ptr<Node>(node), xml ? 1e-5f : 0.0f);
        if (!xml)
            EXPECT_FALSE(tree->IsDifferent(node));
        EXPECT_TRUE(node->GetNode(WString(u"hand")));
        EXPECT_TRUE(node->GetOriginRes()); // an instanced factory hands out copies
    }
    Serializer::SetDefaultSerializer(false);
}
