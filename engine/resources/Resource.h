#pragma once

#include "io/Stream.h"
#include "kernel/Thread.h"
#include "reflection/ObjectManager.h"
#include "resources/ResourceThread.h"

namespace KovexEngine {

class ResourceFactory;
class SerializerState;
template <typename K, typename V> class CacheInterface;

// How a factory shares what it loads.
enum ResourceManagementMode : uint32
{
    RESOURCE_NOT_MANAGED = 0, // no cache: each load makes a new object
    RESOURCE_CACHED = 1,      // one shared object per path
    RESOURCE_INSTANCED = 2,   // the cached object is an origin; each load gets a clone of it
};

// Flags passed through every load.
namespace ResourceLoadFlags {
constexpr unsigned int ORIGIN = 1;                    // inner loads of an origin
constexpr unsigned int CLONE_KEEPS_PATH = 16;         // a clone takes its origin's path
constexpr unsigned int NO_CLONE = 32;                 // an instanced factory returns the origin itself
constexpr unsigned int GRAPHICS_WITH_NULL_RENDERER = 64;
} // namespace ResourceLoadFlags

// An object that lives in a file of its own and may be shared by path.
//
// Threads: a resource may be loaded, held and let go on any thread; one
// found in a cache is complete. Changing one (SetPath, properties) belongs to
// one thread at a time.
class KOVEX_API Resource : public NamedObject
{
    KOVEX_CLASS(Resource)

public:
    Resource() = default;
    ~Resource() override;

    // Its own path, else its origin's, else empty.
    WString GetResPath() const;
    const WString& GetPath() const { return m_path; }
    // Moves the resource in its factory's cache to the new (absolute) path.
    void SetPath(const WString& path);
    bool IsCached() const { return GetFactory() && !m_path.IsEmpty(); }
    bool IsReference() const { return m_origin.Get() != nullptr; }
    WString GetFileExt() const;
    const Ptr<Resource>& GetOriginRes() const { return m_origin; }
    void SetOriginRes(const Ptr<Resource>& origin) { m_origin = origin; }
    ResourceFactory* GetFactory() const { return m_factory.load(std::memory_order_acquire); }

    static Ptr<Resource> LoadFromPath(const WString& path, unsigned int flags = 0);
    static void AsyncLoadFromPath(const WString& path, const ResourceSucceedDelegate& succeed,
                                  const ResourceFailedDelegate& failed, unsigned int flags = 0);

    // What editors show for a property that refers to a resource.
    static bool IsObjUrlShown(const Property* property);
    static bool IsObjExpanded(const Property* property);
    static bool canSaveAsFile(const Property* property);

    bool IsClonable() const override;
    bool Duplicate(Object* destination, unsigned int flags) const override;
    bool SupportSerializeDiff(const Object* other) const override;
    // Creates the device objects the resource needs; true when they are made
    // (or under way, with `*pending` set non-zero until they are). A thread
    // that finishes them elsewhere clears `*pending` with release order last.
    virtual bool LoadGraphicsObjects(std::atomic<int>* /*pending*/) { return true; }

private:
    friend class ResourceFactory;

    WString m_path;
    Ptr<Resource> m_origin;
    // Set while the resource is in its factory's cache: written under the
    // factory's lock, read by the destructor on whichever thread lets go last.
    std::atomic<ResourceFactory*> m_factory{nullptr};
};

// Loads, shares and saves the resources of one class, by file extension.
// It is the object factory of its class too, so a resource referred to from
// another object's file is stored as its path.
//
// Threads: Load, Find, Replace, Save, AddCached and RemoveCached are safe
// from any thread (the cache is under the factory's lock; loading runs
// outside it). AsyncLoad, OnInitialized and OnTerminated belong to the main
// thread.
class KOVEX_API ResourceFactory : public ObjectFactory
{
public:
    using DateTime = Stream::DateTime;

    ResourceFactory(const Class* cls, ResourceManagementMode mode, const WString& extension, int priority);
    ~ResourceFactory() override;

    void OnInitialized() override;
    void OnTerminated() override;
    Ptr<Object> LoadObject(const Class* cls, Object* outer, Serializer* serializer, unsigned int flags) override;
    bool SaveObject(const Object* object, Serializer* serializer, unsigned int flags) override;

    Ptr<Resource> Load(const WString& path, unsigned int flags);
    // Loads on the resource thread; the delegates run on the main thread,
    // or at once when the resource is cached or asynchronous loading is off.
    void AsyncLoad(const WString& path, const ResourceSucceedDelegate& succeed, const ResourceFailedDelegate& failed,
                   unsigned int flags);
    bool Save(const Resource* resource, const WString& path, const Ptr<SerializerState>& state);
    Ptr<Resource> Find(const WString& path);
    // The cached object of that path takes the contents of `resource`.
    bool Replace(const WString& path, const Resource* resource);
    bool IsResourceCached() const { return m_mode == RESOURCE_CACHED; }

    ResourceManagementMode GetMode() const { return m_mode; }
    const WString& GetExtension() const { return m_extension; }
    int GetPriority() const { return m_priority; }

    virtual void AddCached(Resource* resource, const DateTime& date);
    virtual void RemoveCached(Resource* resource);
    virtual DateTime GetResourceDateTime(const WString& path);
    virtual Ptr<Resource> InternalLoad(const WString& path, unsigned int flags);
    virtual Ptr<Resource> InternalLoad(const Ptr<Stream>& stream, unsigned int flags);
    virtual bool InternalSave(const Resource* resource, const Ptr<Stream>& stream, const Ptr<SerializerState>& state);
    // Called just before a cached resource is let go at termination.
    virtual void OnDeleteResource(Resource*) {}

protected:
    Ptr<Resource> InternalFind(const WString& path, const DateTime& date);
    // PostLoad of a cached resource, then the clone an instanced factory hands out.
    void PostLoad(Ptr<Resource>& resource, unsigned int flags);
    // The end of a load that missed the cache: PostLoad, then (with
    // `publish`) the cache entry, so that only a complete object is ever
    // found, then the clone an instanced factory hands out.
    void CompleteLoad(Ptr<Resource>& resource, const DateTime& date, unsigned int flags, bool publish);
    bool InternalSaveObject(const Resource* resource, Serializer* serializer, bool writeClass);

private:
    friend class ResourceThread;
    void Instantiate(Ptr<Resource>& resource, unsigned int flags);

    ResourceManagementMode m_mode;
    WString m_extension;
    int m_priority;
    Mutex m_lock;
    CacheInterface<WString, Resource*>* m_cache = nullptr;
    bool m_timeMasked = false;
};

// The factory of plain resources (".res").
class KOVEX_API DefaultResourceFactory : public ResourceFactory
{
public:
    static void Init();

private:
    DefaultResourceFactory();
};

// The registry of resource factories, by extension and by class.
class KOVEX_API ResourceManager : public HeapObject
{
public:
    static ResourceManager* Ins();
    static void Destroy();

    // False, with "[%s] factory has already registered !" at level 4, when
    // the extension is taken.
    bool Register(const Class* cls, ResourceFactory* factory);
    void Unregister(ResourceFactory* factory);
    // Highest priority number first, each factory once.
    void InitFactories();
    void TermFactories();

    ResourceFactory* GetFactory(const Class* cls, bool searchBases) const;
    ResourceFactory* GetFactory(const WString& extension) const;
    const Class* GetClassByExtension(const WString& extension) const;
    WString GetExtensionByClass(const Class* cls) const;

    Ptr<Resource> Load(const WString& path, unsigned int flags);
    // As Load, when the factory's class is `cls` or derives from it.
    Ptr<Resource> load(const Class* cls, const WString& path, unsigned int flags);
    // A path no factory takes is failed at once.
    void AsyncLoad(const WString& path, const ResourceSucceedDelegate& succeed, const ResourceFailedDelegate& failed,
                   unsigned int flags);
    bool Save(const Resource* resource, const WString& path, const Ptr<SerializerState>& state);
    // At the resource's own path; false when it has none.
    bool Save(const Resource* resource, const Ptr<SerializerState>& state);
    bool Replace(const WString& path, const Resource* resource);

private:
    ResourceManager() = default;

    TMap<WString, ResourceFactory*> m_byExtension;
    TArray<ResourceFactory*> m_byPriority;
};

} // namespace KovexEngine
