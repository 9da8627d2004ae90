#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <thread>
#include <vector>

#include "io/StreamManager.h"
#include "reflection/Function.h"
#include "reflection/PropertyRegistration.h"
#include "resources/Resource.h"
#include "resources/ResourceThread.h"
#include "lifecycle/Engine.h"
#include "serialization/Serializer.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

using namespace KovexEngine;
using KovexTest::TempDir;

namespace KovexResourceTest {

// A shared resource, and one whose loads are clones of a cached origin.
class Swatch : public Resource
{
    KOVEX_CLASS(Swatch)
public:
    Vector4 colour;
    int32 loads = 0; // PostLoad calls on this object
    void PostLoad() override { ++loads; }
};
class Stamp : public Resource
{
    KOVEX_CLASS(Stamp)
public:
    int32 serial = 0;
    AString label;
};
// A resource that refers to another by property.
class Palette : public Resource
{
    KOVEX_CLASS(Palette)
public:
    Ptr<Swatch> main;
};

// A resource that may refer to any resource, itself included.
class Link : public Resource
{
    KOVEX_CLASS(Link)
public:
    Ptr<Resource> next;
};

KOVEX_REGISTER_CLASS_EX(Link, u"Tests")
void Link::StaticConstructor(Class* cls)
{
    RegisterBases<Link, Resource>(cls);
    AddField(cls, u"Next", &Link::next);
    cls->ProcessClass();
}

KOVEX_REGISTER_CLASS_EX(Swatch, u"Tests")
void Swatch::StaticConstructor(Class* cls)
{
    RegisterBases<Swatch, Resource>(cls);
    AddField(cls, u"Colour", &Swatch::colour);
    cls->ProcessClass();
}
KOVEX_REGISTER_CLASS_EX(Stamp, u"Tests")
void Stamp::StaticConstructor(Class* cls)
{
    RegisterBases<Stamp, Resource>(cls);
    AddField(cls, u"Serial", &Stamp::serial);
    AddField(cls, u"Label", &Stamp::label);
    cls->ProcessClass();
}
KOVEX_REGISTER_CLASS_EX(Palette, u"Tests")
void Palette::StaticConstructor(Class* cls)
{
    RegisterBases<Palette, Resource>(cls);
    AddField(cls, u"Main", &Palette::main);
    cls->ProcessClass();
}

template <typename T>
ResourceFactory* MakeFactory(ResourceManagementMode mode, const char16_t* extension, int priority)
{
    if (auto* existing = ResourceManager::Ins()->GetFactory(WString(extension)))
        return existing;
    auto* factory = new ResourceFactory(T::StaticGetClass(), mode, WString(extension), priority);
    EXPECT_TRUE(ObjectManager::Ins()->Register(T::StaticGetClass(), factory));
    EXPECT_TRUE(ResourceManager::Ins()->Register(T::StaticGetClass(), factory));
    factory->OnInitialized();
    return factory;
}

class Resources : public testing::Test
{
protected:
    void SetUp() override
    {
        swatches = MakeFactory<Swatch>(RESOURCE_CACHED, u".swatch", 500);
        stamps = MakeFactory<Stamp>(RESOURCE_INSTANCED, u".stamp", 510);
        palettes = MakeFactory<Palette>(RESOURCE_NOT_MANAGED, u".palette", 520);
        links = MakeFactory<Link>(RESOURCE_CACHED, u".link", 530);
    }
    WString Path(const char* name) const { return dir.W(name); }
    // A file holding a resource of these contents, in the given form.
    WString SaveSwatch(const char* name, float red, bool xml)
    {
        Ptr<Swatch> swatch(new Swatch());
        swatch->colour = Vector4(red, 0, 0, 1);
        Serializer::SetDefaultSerializer(xml);
        EXPECT_TRUE(ResourceManager::Ins()->Save(swatch.Get(), Path(name), Ptr<SerializerState>()));
        Serializer::SetDefaultSerializer(false);
        return Path(name);
    }

    TempDir dir;
    ResourceFactory* swatches = nullptr;
    ResourceFactory* stamps = nullptr;
    ResourceFactory* palettes = nullptr;
    ResourceFactory* links = nullptr;
};

} // namespace KovexResourceTest

using namespace KovexResourceTest;

TEST_F(Resources, OneSharedObjectPerPathInEitherForm)
{
    for (bool xml : {false, true})
    {
        WString path = SaveSwatch(xml ? "red.swatch.x.swatch" : "red.swatch", 0.5f, xml);
        KovexTest::LogCapture log;
        Ptr<Resource> first = Resource::LoadFromPath(path);
        ASSERT_TRUE(first) << xml;
        EXPECT_TRUE(log->Contains((u"Resource: " + path + u" loaded.\n")()));
        auto* swatch = DynamicCast<Swatch>(first.Get());
        ASSERT_NE(swatch, nullptr);
        EXPECT_EQ(swatch->colour.x, 0.5f);
        EXPECT_TRUE(first->IsCached());
        EXPECT_TRUE(first->GetPath() == path);
        EXPECT_TRUE(first->GetFileExt() == u".swatch");
        EXPECT_EQ(swatch->loads, 1);

        Ptr<Resource> second = ResourceManager::Ins()->Load(path, 0);
        EXPECT_EQ(second.Get(), first.Get());
        EXPECT_EQ(swatch->loads, 1) << "a cache hit of a shared resource is not post-loaded again";
        EXPECT_EQ(swatches->Find(path).Get(), first.Get());

        // When the last holder lets go, the cache forgets it.
        first = nullptr;
        second = nullptr;
        EXPECT_FALSE(swatches->Find(path));
    }
}

TEST_F(Resources, InstancedLoadsAreClonesOfACachedOrigin)
{
    Ptr<Stamp> stamp(new Stamp());
    stamp->serial = 77;
    ASSERT_TRUE(ResourceManager::Ins()->Save(stamp.Get(), Path("a.stamp"), Ptr<SerializerState>()));

    Ptr<Resource> a = ResourceManager::Ins()->Load(Path("a.stamp"), 0);
    Ptr<Resource> b = ResourceManager::Ins()->Load(Path("a.stamp"), 0);
    ASSERT_TRUE(a && b);
    EXPECT_NE(a.Get(), b.Get());
    EXPECT_EQ(static_cast<Stamp*>(b.Get())->serial, 77);
    ASSERT_TRUE(a->IsReference());
    EXPECT_EQ(a->GetOriginRes().Get(), b->GetOriginRes().Get());
    EXPECT_TRUE(a->GetPath().IsEmpty());
    EXPECT_TRUE(a->GetResPath() == Path("a.stamp")) << "a clone answers with its origin's path";

    Ptr<Resource> origin = ResourceManager::Ins()->Load(Path("a.stamp"), ResourceLoadFlags::NO_CLONE);
    EXPECT_EQ(origin.Get(), a->GetOriginRes().Get());
    Ptr<Resource> keeps = ResourceManager::Ins()->Load(Path("a.stamp"), ResourceLoadFlags::CLONE_KEEPS_PATH);
    EXPECT_TRUE(keeps->GetPath() == Path("a.stamp"));
}

TEST_F(Resources, AnEditedCloneSavesOnlyItsDifferencesFromTheOrigin)
{
    Ptr<Stamp> stamp(new Stamp());
    stamp->serial = 1;
    stamp->label = "first";
    ASSERT_TRUE(ResourceManager::Ins()->Save(stamp.Get(), Path("origin.stamp"), Ptr<SerializerState>()));
    Ptr<Resource> clone = ResourceManager::Ins()->Load(Path("origin.stamp"), 0);
    ASSERT_TRUE(clone && clone->IsReference());
    static_cast<Stamp*>(clone.Get())->serial = 5;
    ASSERT_TRUE(ResourceManager::Ins()->Save(clone.Get(), Path("edited.stamp"), Ptr<SerializerState>()));
    clone = nullptr;

    // The origin changes where the clone did not: the edited file follows it.
    stamp->label = "second";
    ASSERT_TRUE(ResourceManager::Ins()->Save(stamp.Get(), Path("origin.stamp"), Ptr<SerializerState>()));
    Ptr<Resource> edited = Resource::LoadFromPath(Path("edited.stamp"));
    ASSERT_TRUE(edited);
    EXPECT_EQ(static_cast<Stamp*>(edited.Get())->serial, 5);
    EXPECT_TRUE(static_cast<Stamp*>(edited.Get())->label == "second");
    // Loads of the edited file are clones of its own cached object, which in
    // turn came from the origin file.
    ASSERT_TRUE(edited->GetOriginRes());
    EXPECT_TRUE(edited->GetOriginRes()->GetPath() == Path("edited.stamp"));
    ASSERT_TRUE(edited->GetOriginRes()->GetOriginRes());
    EXPECT_TRUE(edited->GetOriginRes()->GetOriginRes()->GetPath() == Path("origin.stamp"));
}

TEST_F(Resources, ReferencesAreStoredAsPathsAndLoadedThroughTheirFactory)
{
    WString swatchPath = SaveSwatch("blue.swatch", 0.25f, false);
    Ptr<Resource> swatch = Resource::LoadFromPath(swatchPath);
    ASSERT_TRUE(swatch);
    Ptr<Palette> palette(new Palette());
    palette->main = Ptr<Swatch>(static_cast<Swatch*>(swatch.Get()));
    ASSERT_TRUE(ResourceManager::Ins()->Save(palette.Get(), Path("sub/p.palette"), Ptr<SerializerState>()));

    Ptr<Resource> loaded = Resource::LoadFromPath(Path("sub/p.palette"));
    ASSERT_TRUE(loaded);
    EXPECT_EQ(static_cast<Palette*>(loaded.Get())->main.Get(), swatch.Get()) << "the shared swatch, not a copy";
    // Not managed: every load is a new object.
    EXPECT_NE(Resource::LoadFromPath(Path("sub/p.palette")).Get(), loaded.Get());
}

TEST_F(Resources, CyclesSaveOnceAndFailToLoadCleanly)
{
    // a -> b -> a: each file is written once, the reference back as a path.
    Ptr<Link> a(new Link()), b(new Link());
    a->next = Ptr<Resource>(b.Get());
    b->next = Ptr<Resource>(a.Get());
    b->SetPath(Path("b.link"));
    ASSERT_TRUE(ResourceManager::Ins()->Save(a.Get(), Path("a.link"), Ptr<SerializerState>()));
    b->next = nullptr; // free the cycle

    KovexTest::LogCapture log;
    EXPECT_FALSE(Resource::LoadFromPath(Path("a.link")));
    EXPECT_TRUE(log->Contains((u"Resource: " + Path("a.link") + u" refers to itself.\n")()));
    EXPECT_FALSE(links->Find(Path("a.link")));
    EXPECT_FALSE(links->Find(Path("b.link"))) << "nothing half-loaded stays cached";

    // A reference to a file that is not there fails the load, naming the property.
    Ptr<Link> dangling(new Link());
    Ptr<Link> gone(new Link());
    gone->SetPath(Path("gone.link"));
    dangling->next = Ptr<Resource>(gone.Get());
    ASSERT_TRUE(ResourceManager::Ins()->Save(dangling.Get(), Path("dangling.link"), Ptr<SerializerState>()));
    std::remove((dir.path + "/gone.link").c_str());
    EXPECT_FALSE(Resource::LoadFromPath(Path("dangling.link")));
    EXPECT_TRUE(log->Contains(u"Load Property 'Next' failed.\n"));
}

TEST(ResourceCacheStrategy, AChangedFileLoadsAnewUnderTheTimeMaskedStrategy)
{
    TempDir dir;
    Kovex_SetCacheStrategy(KOVEX_CACHE_TIME_MASKED);
    auto* factory = new ResourceFactory(Swatch::StaticGetClass(), RESOURCE_CACHED, WString(u".tswatch"), 540);
    ASSERT_TRUE(ResourceManager::Ins()->Register(Swatch::StaticGetClass(), factory));
    factory->OnInitialized();
    Kovex_SetCacheStrategy(KOVEX_CACHE_DEFAULT);

    WString path = dir.W("t.tswatch");
    std::string file = dir.path + "/t.tswatch";
    Ptr<Swatch> swatch(new Swatch());
    swatch->colour.x = 1;
    ASSERT_TRUE(factory->Save(swatch.Get(), path, Ptr<SerializerState>()));
    std::filesystem::last_write_time(file, std::filesystem::file_time_type::clock::now() - std::chrono::hours(2));
    Ptr<Resource> first = factory->Load(path, 0);
    ASSERT_TRUE(first);
    EXPECT_EQ(factory->Load(path, 0).Get(), first.Get()) << "unchanged file: the cached version";

    swatch->colour.x = 2;
    ASSERT_TRUE(factory->Save(swatch.Get(), path, Ptr<SerializerState>()));
    std::filesystem::last_write_time(file, std::filesystem::file_time_type::clock::now() - std::chrono::hours(1));
    Ptr<Resource> second = factory->Load(path, 0);
    ASSERT_TRUE(second);
    EXPECT_NE(second.Get(), first.Get());
    EXPECT_EQ(static_cast<Swatch*>(second.Get())->colour.x, 2.f);
    EXPECT_EQ(static_cast<Swatch*>(first.Get())->colour.x, 1.f) << "holders of the old version keep it";
    EXPECT_EQ(factory->Find(path).Get(), second.Get()) << "without a date, the newest";
    first = nullptr;
    second = nullptr;
    EXPECT_FALSE(factory->Find(path));
    ResourceManager::Ins()->Unregister(factory);
    delete factory;
}

TEST_F(Resources, ReplaceGivesEveryHolderTheNewContents)
{
    WString path = SaveSwatch("green.swatch", 0.1f, false);
    Ptr<Resource> held = Resource::LoadFromPath(path);
    ASSERT_TRUE(held);
    Ptr<Swatch> edited(new Swatch());
    edited->colour = Vector4(0, 1, 0, 1);
    EXPECT_TRUE(ResourceManager::Ins()->Replace(path, edited.Get()));
    EXPECT_EQ(static_cast<Swatch*>(held.Get())->colour.y, 1.f);
    EXPECT_FALSE(ResourceManager::Ins()->Replace(Path("green.stamp"), edited.Get()));
}

TEST_F(Resources, FailuresGiveNullAndCacheNothing)
{
    WString path = SaveSwatch("x.swatch", 1, false);
    EXPECT_FALSE(ResourceManager::Ins()->Load(Path("x.unknown"), 0));
    EXPECT_FALSE(swatches->Load(Path("x.stamp"), 0)) << "another extension";
    EXPECT_FALSE(Resource::LoadFromPath(Path("missing.swatch")));
    EXPECT_FALSE(ResourceManager::Ins()->load(Stamp::StaticGetClass(), path, 0)) << "the factory is not of that class";
    // A file of another class under this extension.
    Ptr<Stamp> stamp(new Stamp());
    ASSERT_TRUE(ResourceManager::Ins()->Save(stamp.Get(), Path("wrong.stamp"), Ptr<SerializerState>()));
    ASSERT_EQ(std::rename((dir.path + "/wrong.stamp").c_str(), (dir.path + "/wrong.swatch").c_str()), 0);
    EXPECT_FALSE(Resource::LoadFromPath(Path("wrong.swatch")));
    EXPECT_FALSE(swatches->Find(Path("wrong.swatch")));
    dir.Write("bad.swatch", "<BIN />\n garbage");
    EXPECT_FALSE(Resource::LoadFromPath(Path("bad.swatch")));
    EXPECT_FALSE(ResourceManager::Ins()->Save(nullptr, path, Ptr<SerializerState>()));
    Ptr<Swatch> pathless(new Swatch());
    EXPECT_FALSE(ResourceManager::Ins()->Save(pathless.Get(), Ptr<SerializerState>()));

    KovexTest::LogCapture log;
    auto* duplicate = new ResourceFactory(Swatch::StaticGetClass(), RESOURCE_CACHED, WString(u".swatch"), 1);
    EXPECT_FALSE(ResourceManager::Ins()->Register(Swatch::StaticGetClass(), duplicate));
    EXPECT_TRUE(log->Contains(u"[.swatch] factory has already registered !"));
    delete duplicate;
    EXPECT_EQ(ResourceManager::Ins()->GetFactory(WString(u".swatch")), swatches) << "the registered one stays";
}

namespace KovexResourceTest {

// What the delegates of background loads have received.
struct Delivered
{
    std::vector<Ptr<Resource>> succeeded;
    std::vector<WString> failed;
};
Delivered g_delivered;
void OnLoaded(const Ptr<Resource>& resource) { g_delivered.succeeded.push_back(resource); }
void OnFailed(const WString& path) { g_delivered.failed.push_back(path); }

// Holds the resource thread until opened, so that what is posted meanwhile
// is certainly still queued.
class Gate : public ThreadCommand
{
public:
    std::atomic<bool> open{false};
    void Process() override
    {
        while (!open.load())
            std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
};

const ResourceSucceedDelegate kSucceed(&OnLoaded);
const ResourceFailedDelegate kFailed(&OnFailed);

class BackgroundLoads : public Resources
{
protected:
    void SetUp() override
    {
        Resources::SetUp();
        g_delivered = Delivered();
        ASSERT_TRUE(ResourceThread::Ins()->Init());
    }
    void TearDown() override
    {
        ResourceThread::Destroy();
        g_delivered = Delivered();
    }
    // Runs frames' AT lists until `count` results came back, or gives up.
    bool Pump(size_t count)
    {
        for (int i = 0; i < 5000; ++i)
        {
            ResourceThread::Ins()->ProcessATCommandList();
            if (g_delivered.succeeded.size() + g_delivered.failed.size() >= count)
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return false;
    }
};

} // namespace KovexResourceTest

TEST_F(BackgroundLoads, ResultsArriveOnTheMainThreadAtAFrameStart)
{
    WString path = SaveSwatch("async.swatch", 0.75f, false);
    Ptr<Gate> gate(new Gate());
    ASSERT_TRUE(ResourceThread::Ins()->MT_PostCommand(gate.Get()));
    Resource::AsyncLoadFromPath(path, kSucceed, kFailed);
    Resource::AsyncLoadFromPath(path, kSucceed, kFailed);
    gate->open = true;
    EXPECT_TRUE(g_delivered.succeeded.empty()) << "nothing is delivered before a frame runs the AT list";
    ASSERT_TRUE(Pump(2));
    ASSERT_EQ(g_delivered.succeeded.size(), 2u);
    EXPECT_EQ(static_cast<Swatch*>(g_delivered.succeeded[0].Get())->colour.x, 0.75f);
    // Two loads of an uncached path make two objects; look-ups find the later.
    EXPECT_NE(g_delivered.succeeded[0].Get(), g_delivered.succeeded[1].Get());
    EXPECT_EQ(swatches->Find(path).Get(), g_delivered.succeeded[1].Get());

    // Now cached: delivered before AsyncLoad returns.
    Resource::AsyncLoadFromPath(path, kSucceed, kFailed);
    EXPECT_EQ(g_delivered.succeeded.size(), 3u);
    EXPECT_EQ(g_delivered.succeeded[2].Get(), g_delivered.succeeded[1].Get());
}

TEST_F(BackgroundLoads, ScriptsReachLoadingByName)
{
    const Function* function = Resource::StaticGetClass()->FindFunction(WString(u"AsyncLoadFromPath"), true);
    ASSERT_NE(function, nullptr);
    EXPECT_TRUE(WString(function->GetParamName(1)) == u"succeedDg");
    EXPECT_TRUE(WString(function->GetParamName(3)) == u"flags");
    EXPECT_NE(Resource::StaticGetClass()->FindFunction(WString(u"LoadFromPath"), true), nullptr);
}

TEST_F(BackgroundLoads, FailuresReachTheFailedDelegate)
{
    // Another extension fails at once with the path as given, and posts nothing.
    ResourceManager::Ins()->GetFactory(WString(u".swatch"))->AsyncLoad(WString(u"x.stamp"), kSucceed, kFailed, 0);
    ASSERT_EQ(g_delivered.failed.size(), 1u);
    EXPECT_TRUE(g_delivered.failed[0] == u"x.stamp");
    EXPECT_EQ(ResourceThread::Ins()->MT_GetCommandCount(), 0u);
    // A missing file fails on the thread route with the absolute path.
    Resource::AsyncLoadFromPath(Path("missing.swatch"), kSucceed, kFailed);
    ASSERT_TRUE(Pump(2));
    EXPECT_TRUE(g_delivered.failed[1] == Path("missing.swatch"));
    KovexTest::LogCapture log;
    Resource::AsyncLoadFromPath(Path("missing.nothing"), ResourceSucceedDelegate(), ResourceFailedDelegate());
    EXPECT_TRUE(log->Contains((u"Warning: Async load resource [" + Path("missing.nothing") + u"] failed.\n")()));
}

TEST_F(BackgroundLoads, WithAsynchronousLoadingOffTheLoadHappensInTheCall)
{
    WString path = SaveSwatch("sync.swatch", 0.5f, false);
    g_kovexAsyncLoading = false;
    Resource::AsyncLoadFromPath(path, kSucceed, kFailed);
    g_kovexAsyncLoading = true;
    ASSERT_EQ(g_delivered.succeeded.size(), 1u);
    EXPECT_EQ(static_cast<Swatch*>(g_delivered.succeeded[0].Get())->colour.x, 0.5f);
}

TEST_F(BackgroundLoads, StoppingWithLoadsInFlightLosesNothingAndLeaksNothing)
{
    WString path = SaveSwatch("many.swatch", 0.5f, false);
    Ptr<Gate> gate(new Gate());
    ASSERT_TRUE(ResourceThread::Ins()->MT_PostCommand(gate.Get()));
    for (int i = 0; i < 200; ++i)
        Resource::AsyncLoadFromPath(path, kSucceed, kFailed);
    gate->open = true;
    ResourceThread::Destroy(); // the command under way finishes; the queued ones are dropped
    EXPECT_FALSE(ResourceThread::Exists());
    EXPECT_TRUE(g_delivered.succeeded.empty()) << "no delegate runs after the thread is gone";
    ASSERT_TRUE(ResourceThread::Ins()->Init()); // for TearDown
}

// --- Loads that meet across threads ---------------------------------------------------------------

namespace KovexResourceTest {

// Records how far each load went. Its graphics side can be held on the
// resource thread, or finished by a thread of its own as a renderer would.
class Tracked : public Resource
{
    KOVEX_CLASS(Tracked)
public:
    int32 serial = 0;
    std::atomic<int> postLoads{0};
    bool graphicsDone = false;
    int deviceHandle = 0; // written by the "graphics thread"
    static std::atomic<bool> holdGraphics;
    static std::atomic<bool> inGraphics;
    static bool separateGraphicsThread;
    static std::vector<std::thread> graphicsThreads;
    static std::vector<Ptr<Resource>> keepers; // what an application would hold on to
    static bool keepLoaded;

    void PostLoad() override
    {
        ++postLoads;
        if (keepLoaded)
            keepers.push_back(Ptr<Resource>(this));
    }
    bool LoadGraphicsObjects(std::atomic<int>* pending) override
    {
        if (pending && ResourceThread::Ins()->IsCurrentThread())
        {
            inGraphics = true;
            for (int i = 0; i < 10000 && holdGraphics.load(); ++i)
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            if (separateGraphicsThread)
            {
                pending->store(1);
                graphicsThreads.emplace_back([this, pending] {
                    std::this_thread::sleep_for(std::chrono::milliseconds(2));
                    deviceHandle = 42;
                    graphicsDone = true;
                    pending->store(0, std::memory_order_release);
                });
                return true;
            }
        }
        deviceHandle = 42;
        graphicsDone = true;
        return true;
    }
    bool Complete() const { return graphicsDone && deviceHandle == 42 && postLoads.load() >= 1; }
};
std::atomic<bool> Tracked::holdGraphics{false};
std::atomic<bool> Tracked::inGraphics{false};
bool Tracked::separateGraphicsThread = false;
std::vector<std::thread> Tracked::graphicsThreads;
std::vector<Ptr<Resource>> Tracked::keepers;
bool Tracked::keepLoaded = false;

// The instanced kind: each load a clone of a cached origin.
class TrackedCopy : public Tracked
{
    KOVEX_CLASS(TrackedCopy)
};

KOVEX_REGISTER_CLASS_EX(Tracked, u"Tests")
void Tracked::StaticConstructor(Class* cls)
{
    RegisterBases<Tracked, Resource>(cls);
    AddField(cls, u"Serial", &Tracked::serial);
    cls->ProcessClass();
}
KOVEX_REGISTER_CLASS_EX(TrackedCopy, u"Tests")
void TrackedCopy::StaticConstructor(Class* cls)
{
    RegisterBases<TrackedCopy, Tracked>(cls);
    cls->ProcessClass();
}

// Counts the cached resources handed back at termination.
class CountingFactory : public ResourceFactory
{
public:
    using ResourceFactory::ResourceFactory;
    void OnDeleteResource(Resource*) override { ++deleted; }
    std::atomic<int> deleted{0};
};

// Holds the graphics side of background loads until opened or destroyed.
struct GraphicsHold
{
    GraphicsHold()
    {
        Tracked::inGraphics = false;
        Tracked::holdGraphics = true;
    }
    ~GraphicsHold() { Open(); }
    void Open() { Tracked::holdGraphics = false; }
};

template <typename F>
bool Eventually(F&& condition)
{
    for (int i = 0; i < 5000 && !condition(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return condition();
}

class TrackedLoads : public BackgroundLoads
{
protected:
    void SetUp() override
    {
        BackgroundLoads::SetUp();
        if (!(tracked = dynamic_cast<CountingFactory*>(ResourceManager::Ins()->GetFactory(WString(u".tracked")))))
        {
            tracked = new CountingFactory(Tracked::StaticGetClass(), RESOURCE_CACHED, WString(u".tracked"), 540);
            ASSERT_TRUE(ObjectManager::Ins()->Register(Tracked::StaticGetClass(), tracked));
            ASSERT_TRUE(ResourceManager::Ins()->Register(Tracked::StaticGetClass(), tracked));
            tracked->OnInitialized();
        }
        copies = MakeFactory<TrackedCopy>(RESOURCE_INSTANCED, u".tcopy", 545);
    }
    void TearDown() override
    {
        BackgroundLoads::TearDown();
        for (std::thread& t : Tracked::graphicsThreads)
            t.join();
        Tracked::graphicsThreads.clear();
        Tracked::separateGraphicsThread = false;
        Tracked::keepLoaded = false;
        Tracked::keepers.clear();
    }
    WString SaveTracked(const char* name, int serial)
    {
        Ptr<Tracked> resource(std::string(name).ends_with(".tcopy") ? new TrackedCopy() : new Tracked());
        resource->serial = serial;
        EXPECT_TRUE(ResourceManager::Ins()->Save(resource.Get(), Path(name), Ptr<SerializerState>()));
        return Path(name);
    }
    static Tracked* At(size_t i) { return static_cast<Tracked*>(g_delivered.succeeded[i].Get()); }

    CountingFactory* tracked = nullptr;
    ResourceFactory* copies = nullptr;
};

// A counting command for the resource thread's queue.
struct Counted : ThreadCommand
{
    std::atomic<int> runs{0};
    void Process() override { ++runs; }
};

} // namespace KovexResourceTest

TEST_F(TrackedLoads, ABackgroundLoadIsCachedOnlyOnceItIsComplete)
{
    WString path = SaveTracked("half.tracked", 7);
    {
        GraphicsHold hold;
        Resource::AsyncLoadFromPath(path, kSucceed, kFailed);
        ASSERT_TRUE(Eventually([] { return Tracked::inGraphics.load(); }));
        // The same path loaded here while the background load is half done:
        // this thread loads its own, complete object.
        Ptr<Resource> mine = Resource::LoadFromPath(path);
        ASSERT_TRUE(mine);
        EXPECT_TRUE(static_cast<Tracked*>(mine.Get())->Complete()) << "never an unfinished object";
        EXPECT_EQ(static_cast<Tracked*>(mine.Get())->postLoads.load(), 1);
        hold.Open();
        ASSERT_TRUE(Pump(1));
        EXPECT_NE(At(0), mine.Get());
    }
    ASSERT_EQ(g_delivered.succeeded.size(), 1u);
    EXPECT_TRUE(At(0)->Complete());
    EXPECT_EQ(At(0)->postLoads.load(), 1);
    EXPECT_EQ(tracked->Find(path).Get(), At(0)) << "the later publication is the one found";

    // An asynchronous hit on a shared resource runs no PostLoad, as Load does.
    Resource::AsyncLoadFromPath(path, kSucceed, kFailed);
    ASSERT_EQ(g_delivered.succeeded.size(), 2u);
    EXPECT_EQ(At(1), At(0));
    EXPECT_EQ(At(0)->postLoads.load(), 1);
    EXPECT_EQ(Resource::LoadFromPath(path).Get(), At(0));
    EXPECT_EQ(At(0)->postLoads.load(), 1);
}

TEST_F(TrackedLoads, InstancedLoadsKeepAPostLoadPerLoad)
{
    WString path = SaveTracked("origin.tcopy", 3);
    Resource::AsyncLoadFromPath(path, kSucceed, kFailed);
    ASSERT_TRUE(Pump(1));
    Resource::AsyncLoadFromPath(path, kSucceed, kFailed); // a hit: delivered at once
    ASSERT_EQ(g_delivered.succeeded.size(), 2u);
    ASSERT_NE(At(0), At(1));
    auto* origin = static_cast<Tracked*>(At(0)->GetOriginRes().Get());
    ASSERT_NE(origin, nullptr);
    EXPECT_EQ(At(1)->GetOriginRes().Get(), origin);
    EXPECT_EQ(origin->postLoads.load(), 2) << "the origin's PostLoad runs on each load";
    EXPECT_EQ(At(0)->postLoads.load(), 1);
    EXPECT_EQ(At(1)->postLoads.load(), 1);
    EXPECT_EQ(At(0)->serial, 3);
}

TEST_F(TrackedLoads, AGraphicsSideFinishedElsewhereIsSeenWhole)
{
    WString path = SaveTracked("device.tracked", 1);
    Tracked::separateGraphicsThread = true;
    for (int i = 0; i < 50; ++i)
        Resource::AsyncLoadFromPath(Path("device.tracked"), kSucceed, kFailed);
    ASSERT_TRUE(Pump(50));
    int incomplete = 0;
    for (size_t i = 0; i < g_delivered.succeeded.size(); ++i)
        incomplete += !At(i)->Complete();
    EXPECT_EQ(incomplete, 0) << "delivered only once the graphics side is done";
}

TEST_F(TrackedLoads, CommandsPostedBeforeTheThreadStartsAllRun)
{
    ResourceThread::Destroy();
    ResourceThread* thread = ResourceThread::Ins();
    Ptr<Counted> early[3] = {Ptr<Counted>(new Counted()), Ptr<Counted>(new Counted()), Ptr<Counted>(new Counted())};
    for (auto& c : early)
        ASSERT_TRUE(thread->MT_PostCommand(c.Get()));
    ASSERT_TRUE(thread->Init());
    Ptr<Counted> late(new Counted());
    ASSERT_TRUE(thread->MT_PostCommand(late.Get()));
    EXPECT_TRUE(Eventually([&] { return late->runs.load() == 1; }));
    for (auto& c : early)
        EXPECT_TRUE(Eventually([&] { return c->runs.load() == 1; })) << "a wake runs everything pending";
}

// Main-thread loads, background loads and asynchronous hits of a few paths,
// mixed, with objects let go as they come: each one seen is complete and
// was post-loaded once.
TEST_F(TrackedLoads, ManyLoadsOfFewPathsMeetOnlyCompleteObjects)
{
    std::vector<WString> paths;
    for (int i = 0; i < 4; ++i)
        paths.push_back(SaveTracked(("mix" + std::to_string(i) + ".tracked").c_str(), i));
    std::atomic<int> incomplete{0};
    std::thread other([&] {
        // A second thread of the application loading the same files.
        for (int i = 0; i < 300; ++i)
        {
            Ptr<Resource> loaded = Resource::LoadFromPath(paths[size_t(i) % paths.size()]);
            auto* t = static_cast<Tracked*>(loaded.Get());
            incomplete += !t || !t->Complete() || t->postLoads.load() != 1;
        }
    });
    for (int i = 0; i < 300; ++i)
    {
        Resource::AsyncLoadFromPath(paths[size_t(i) % paths.size()], kSucceed, kFailed);
        Ptr<Resource> loaded = Resource::LoadFromPath(paths[size_t(i + 1) % paths.size()]);
        auto* t = static_cast<Tracked*>(loaded.Get());
        incomplete += !t || !t->Complete() || t->postLoads.load() != 1;
        if (i % 20 == 19)
        {
            ASSERT_TRUE(Pump(g_delivered.succeeded.size() + 1));
            for (size_t k = 0; k < g_delivered.succeeded.size(); ++k)
                incomplete += !At(k)->Complete() || At(k)->postLoads.load() != 1;
            g_delivered = Delivered();
        }
    }
    other.join();
    EXPECT_EQ(incomplete.load(), 0);
}

TEST_F(TrackedLoads, ResourcesDieWhileTheirFactoryTerminates)
{
    StreamManager::Ins(); // made before any thread asks for it
    ResourceFactory local(Swatch::StaticGetClass(), RESOURCE_CACHED, WString(u".dying"), 1);
    local.OnInitialized();
    WString path = Path("x.dying");
    std::atomic<bool> done{false};
    auto churn = [&] {
        for (int i = 0; i < 5000; ++i)
        {
            Ptr<Swatch> swatch(new Swatch());
            swatch->SetPath(path);
            local.AddCached(swatch.Get(), Stream::DateTime::Invalid);
        }
    };
    std::thread a(churn), b(churn);
    std::thread cycler([&] {
        while (!done.load())
        {
            local.OnTerminated();
            local.OnInitialized();
        }
    });
    a.join();
    b.join();
    done = true;
    cycler.join();
    EXPECT_FALSE(local.Find(path)) << "every one left its cache";
}

TEST(ResourceThreads, ReplaceCopiesOnlyIntoLiveVersions)
{
    TempDir dir;
    StreamManager::Ins(); // made before any thread asks for it
    Kovex_SetCacheStrategy(KOVEX_CACHE_TIME_MASKED);
    ResourceFactory factory(Swatch::StaticGetClass(), RESOURCE_CACHED, WString(u".mswatch"), 1);
    factory.OnInitialized();
    Kovex_SetCacheStrategy(KOVEX_CACHE_DEFAULT);
    WString path = dir.W("r.mswatch");
    std::atomic<bool> done{false};
    auto churn = [&] {
        for (int i = 0; i < 3000; ++i)
        {
            Ptr<Swatch> older(new Swatch()), newer(new Swatch());
            older->SetPath(path);
            newer->SetPath(path);
            factory.AddCached(older.Get(), Stream::DateTime{1, 0});
            factory.AddCached(newer.Get(), Stream::DateTime{2, 0});
        }
    };
    std::thread a(churn), b(churn);
    Ptr<Swatch> edited(new Swatch());
    edited->colour = Vector4(0, 1, 0, 1);
    std::thread replacer([&] {
        while (!done.load())
            factory.Replace(path, edited.Get());
    });
    a.join();
    b.join();
    done = true;
    replacer.join();
    EXPECT_FALSE(factory.Find(path));
}

TEST_F(TrackedLoads, ALoadUnderWayAtTerminateIsStillHandedToItsFactory)
{
    Kovex_Main_Initialize();
    WString path = SaveTracked("late.tracked", 9);
    int deletedBefore = tracked->deleted.load();
    Tracked::keepLoaded = true;
    {
        GraphicsHold hold;
        Resource::AsyncLoadFromPath(path, kSucceed, kFailed);
        ASSERT_TRUE(Eventually([] { return Tracked::inGraphics.load(); }));
        std::thread opener([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            hold.Open();
        });
        Kovex_Main_Terminate();
        opener.join();
    }
    EXPECT_FALSE(ResourceThread::Exists());
    ASSERT_EQ(Tracked::keepers.size(), 1u) << "the load finished";
    EXPECT_EQ(tracked->deleted.load() - deletedBefore, 1) << "its factory saw it at termination";
    EXPECT_EQ(Tracked::keepers[0]->GetFactory(), nullptr);
    Tracked::keepers.clear();
    ResourceManager::Ins()->InitFactories();
    Kovex_Main_Initialize();
    ASSERT_TRUE(ResourceThread::Ins()->Init()); // for TearDown
}
