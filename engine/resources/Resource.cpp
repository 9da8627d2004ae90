#include "resources/Resource.h"

#include "io/FileStream.h"
#include "io/StreamManager.h"
#include "kernel/EngineGlobals.h"
#include "kernel/Log.h"
#include "reflection/FunctionRegistration.h"
#include "reflection/Property.h"
#include "resources/ResourceCache.h"
#include "serialization/Serializer.h"

namespace KovexEngine {

namespace {
ResourceManager* s_resourceManager = nullptr;
}

// --- Resource -------------------------------------------------------------------------------------

KOVEX_REGISTER_CLASS_EX(Resource, u"Engine")

void Resource::StaticConstructor(Class* cls)
{
    RegisterBases<Resource, NamedObject>(cls);
    AddFunction(cls, u"GetResPath", &Resource::GetResPath);
    AddFunction(cls, u"GetPath", &Resource::GetPath);
    AddFunction(cls, u"SetPath", &Resource::SetPath, {u"path"});
    AddFunction(cls, u"IsCached", &Resource::IsCached);
    AddFunction(cls, u"IsReference", &Resource::IsReference);
    AddFunction(cls, u"GetFileExt", &Resource::GetFileExt);
    AddFunction(cls, u"GetOriginRes", &Resource::GetOriginRes);
    AddFunction(cls, u"SetOriginRes", &Resource::SetOriginRes, {u"resource"});
    AddFunction(cls, u"LoadFromPath", &Resource::LoadFromPath, {u"path", u"flags"});
    AddFunction(cls, u"AsyncLoadFromPath", &Resource::AsyncLoadFromPath, {u"path", u"succeedDg", u"failedDg", u"flags"});
    cls->ProcessClass();
}

Resource::~Resource()
{
    if (ResourceFactory* factory = GetFactory())
        factory->RemoveCached(this);
}

WString Resource::GetResPath() const
{
    if (!m_path.IsEmpty())
        return m_path;
    return m_origin ? m_origin->GetPath() : WString();
}

void Resource::SetPath(const WString& path)
{
    ResourceFactory* factory = GetFactory();
    if (factory)
        factory->RemoveCached(this);
    m_path = path;
    if (!m_path.IsEmpty())
        StreamManager::Ins()->MakeAbsolutePath(m_path, nullptr);
    if (factory)
        factory->AddCached(this, factory->GetResourceDateTime(m_path));
}

WString Resource::GetFileExt() const
{
    ResourceFactory* factory = GetFactory();
    return factory ? factory->GetExtension() : WString();
}

Ptr<Resource> Resource::LoadFromPath(const WString& path, unsigned int flags)
{
    return ResourceManager::Ins()->Load(path, flags);
}

void Resource::AsyncLoadFromPath(const WString& path, const ResourceSucceedDelegate& succeed,
                                 const ResourceFailedDelegate& failed, unsigned int flags)
{
    ResourceManager::Ins()->AsyncLoad(path, succeed, failed, flags);
}

bool Resource::IsObjUrlShown(const Property* property) { return property && property->HasFlag(Property::FLAG_FILE_PATH); }
bool Resource::IsObjExpanded(const Property* property) { return property && property->HasFlag(Property::FLAG_EXPANDED); }
bool Resource::canSaveAsFile(const Property* property) { return property && property->HasFlag(Property::FLAG_SAVE_AS_FILE); }

bool Resource::IsClonable() const
{
    ResourceFactory* factory = GetFactory();
    return m_path.IsEmpty() || !factory || factory->GetMode() != RESOURCE_CACHED;
}

bool Resource::Duplicate(Object* destination, unsigned int flags) const
{
    auto* target = DynamicCast<Resource>(destination);
    if (!target || !CopyProperties(destination, flags))
        return false;
    target->m_origin = m_origin;
    if (flags & ResourceLoadFlags::CLONE_KEEPS_PATH)
        target->m_path = m_path;
    return true;
}

bool Resource::SupportSerializeDiff(const Object* other) const
{
    ResourceFactory* factory = GetFactory();
    return other && other->GetClass() == GetClass() &&
           (!factory || factory->GetMode() != RESOURCE_CACHED || m_path.IsEmpty());
}

// --- ResourceFactory ---------------------------------------------------------------------------------

namespace {

// Takes a reference to a cached resource unless it is already being destroyed.
Ptr<Resource> Hold(Resource* resource)
{
    if (!resource || !resource->TryAddRef())
        return Ptr<Resource>();
    Ptr<Resource> held(resource);
    resource->Release();
    return held;
}

using HeldResources = TArray<Ptr<Resource>>;

// Copies into a cached version only while holding it: a version whose last
// holder is letting go on another thread is left to its destructor. The
// references are let go by the caller, after the factory's lock.
bool CopyResource(Resource* stored, Resource* value, void* held)
{
    Ptr<Resource> alive = Hold(stored);
    if (!alive)
        return false;
    static_cast<HeldResources*>(held)->Add(alive);
    return value->Duplicate(stored, 0);
}

WString Absolute(const WString& path)
{
    WString absolute(path);
    StreamManager::Ins()->MakeAbsolutePath(absolute, nullptr);
    return absolute;
}

} // namespace

ResourceFactory::ResourceFactory(const Class* cls, ResourceManagementMode mode, const WString& extension, int priority)
    : ObjectFactory(cls), m_mode(mode), m_extension(extension), m_priority(priority)
{
}

ResourceFactory::~ResourceFactory()
{
    if (IsInited())
        ResourceFactory::OnTerminated();
    if (s_resourceManager)
        s_resourceManager->Unregister(this);
}

void ResourceFactory::OnInitialized()
{
    if (IsInited())
        return;
    ObjectFactory::OnInitialized();
    if (m_mode == RESOURCE_NOT_MANAGED)
        return;
    MutexLock lock(m_lock);
    m_timeMasked = Kovex_GetCacheStrategy() == KOVEX_CACHE_TIME_MASKED;
    if (m_timeMasked)
        m_cache = new TimeMaskedCacheInterface<WString, Resource*>();
    else
        m_cache = new DefaultCacheInterface<WString, Resource*>();
    m_cache->SetCopyFunction(&CopyResource);
}

// Resources still cached at termination belong to their holders: they are
// detached from the factory rather than deleted under them.
void ResourceFactory::OnTerminated()
{
    ObjectFactory::OnTerminated();
    MutexLock lock(m_lock);
    if (!m_cache)
        return;
    m_cache->Clear(
        [](Resource* resource, void* factory) {
            static_cast<ResourceFactory*>(factory)->OnDeleteResource(resource);
            resource->m_factory.store(nullptr, std::memory_order_release);
        },
        this);
    delete m_cache;
    m_cache = nullptr;
}

ResourceFactory::DateTime ResourceFactory::GetResourceDateTime(const WString& path)
{
    // The strategy the cache was made for, which cannot change under it.
    if (m_mode == RESOURCE_NOT_MANAGED || !m_timeMasked)
        return DateTime::Invalid;
    return StreamManager::Ins()->GetFileDateTime(path);
}

void ResourceFactory::AddCached(Resource* resource, const DateTime& date)
{
    if (m_mode == RESOURCE_NOT_MANAGED || !resource)
        return;
    MutexLock lock(m_lock);
    if (!m_cache)
        return;
    m_cache->Add(resource, resource->m_path, date);
    resource->m_factory.store(this, std::memory_order_release);
}

void ResourceFactory::RemoveCached(Resource* resource)
{
    if (m_mode == RESOURCE_NOT_MANAGED || !resource || resource->m_path.IsEmpty())
        return;
    MutexLock lock(m_lock);
    if (m_cache)
        m_cache->Remove(resource, resource->m_path);
}

Ptr<Resource> ResourceFactory::InternalFind(const WString& path, const DateTime& date)
{
    if (m_mode == RESOURCE_NOT_MANAGED)
        return Ptr<Resource>();
    MutexLock lock(m_lock);
    return m_cache ? Hold(m_cache->Find(path, date)) : Ptr<Resource>();
}

Ptr<Resource> ResourceFactory::Find(const WString& path) { return InternalFind(Absolute(path), DateTime::Invalid); }

Ptr<Resource> ResourceFactory::Load(const WString& path, unsigned int flags)
{
    if (path.GetFileExt() != m_extension)
        return Ptr<Resource>();
    WString absolute = Absolute(path);
    DateTime date = GetResourceDateTime(absolute);
    Ptr<Resource> resource = InternalFind(absolute, date);
    if (!resource)
    {
        // A load of this path still under way on another thread is not in
        // the cache yet: this thread loads its own, and the cache keeps the
        // later of the two.
        resource = InternalLoad(absolute, flags);
        if (!resource)
            return resource;
        if (!g_IsNullRenderer || (flags & ResourceLoadFlags::GRAPHICS_WITH_NULL_RENDERER))
            resource->LoadGraphicsObjects(nullptr);
        CompleteLoad(resource, date, flags, true);
        return resource;
    }
    if (m_mode == RESOURCE_CACHED)
        return resource;
    PostLoad(resource, flags);
    return resource;
}

void ResourceFactory::AsyncLoad(const WString& path, const ResourceSucceedDelegate& succeed,
                                const ResourceFailedDelegate& failed, unsigned int flags)
{
    if (path.GetFileExt() != m_extension)
    {
        ResourceThread::ProcessFailed(path, failed);
        return;
    }
    WString absolute = Absolute(path);
    DateTime date = GetResourceDateTime(absolute);
    if (m_mode != RESOURCE_NOT_MANAGED)
        if (Ptr<Resource> cached = InternalFind(absolute, date))
        {
            // A shared resource was post-loaded once, when it was loaded.
            if (m_mode != RESOURCE_CACHED)
                PostLoad(cached, flags);
            ResourceThread::ProcessSucceed(cached, succeed);
            return;
        }
    if (!g_kovexAsyncLoading || !ResourceThread::Exists())
    {
        Ptr<Resource> loaded = Load(absolute, flags);
        if (loaded)
            ResourceThread::ProcessSucceed(loaded, succeed);
        else
            ResourceThread::ProcessFailed(absolute, failed);
        return;
    }
    ResourceThread::Ins()->MT_PostCommand(new ResourceThread::LoadingCommand(this, absolute, date, flags, succeed, failed));
}

void ResourceFactory::PostLoad(Ptr<Resource>& resource, unsigned int flags)
{
    if (!resource)
        return;
    resource->PostLoad();
    Instantiate(resource, flags);
}

void ResourceFactory::CompleteLoad(Ptr<Resource>& resource, const DateTime& date, unsigned int flags, bool publish)
{
    if (!resource)
        return;
    resource->PostLoad();
    if (publish)
        AddCached(resource.Get(), date);
    Instantiate(resource, flags);
}

void ResourceFactory::Instantiate(Ptr<Resource>& resource, unsigned int flags)
{
    if (m_mode != RESOURCE_INSTANCED || (flags & ResourceLoadFlags::NO_CLONE))
        return;
    Ptr<Resource> clone = DynamicCast<Resource>(resource->Clone(flags));
    if (!clone)
    {
        resource = nullptr;
        return;
    }
    clone->SetOriginRes(resource);
    if (flags & ResourceLoadFlags::CLONE_KEEPS_PATH)
        clone->m_path = resource->m_path;
    clone->PostLoad();
    resource = clone;
}

namespace {
// The paths this thread is loading, innermost last: a file that refers back
// to one of them would otherwise be loaded without end.
thread_local TArray<WString> t_loading;
} // namespace

Ptr<Resource> ResourceFactory::InternalLoad(const WString& path, unsigned int flags)
{
    if (t_loading.Find(path) != kNotFound)
    {
        Log::Format(LOG_ERROR, u"Resource: %s refers to itself.\n", path());
        return Ptr<Resource>();
    }
    t_loading.Add(path);
    Ptr<Resource> resource = InternalLoad(StreamManager::Ins()->OpenStream(path), flags);
    t_loading.Pop();
    if (resource)
    {
        resource->m_path = path;
        Log::Format(LOG_INFO, u"Resource: %s loaded.\n", path());
    }
    return resource;
}

Ptr<Resource> ResourceFactory::InternalLoad(const Ptr<Stream>& stream, unsigned int flags)
{
    if (!stream)
        return Ptr<Resource>();
    Serializer* serializer = Serializer::OpenReadStream(stream);
    if (!serializer)
        return Ptr<Resource>();
    Ptr<Resource> resource;
    if (serializer->Enter(FourCCs::OBJ))
    {
        serializer->SetLoadFlags(flags);
        // A resource saved as its differences from an origin file.
        WString originPath;
        if (serializer->Enter(FourCCs::REF))
        {
            serializer->Read(FourCCs::PATH, originPath);
            serializer->Leave();
            serializer->UnmakePath(originPath);
        }
        if (!originPath.IsEmpty())
        {
            resource = Load(originPath, ResourceLoadFlags::ORIGIN);
            if (resource && !resource->LoadDiff(serializer))
                resource = nullptr;
        }
        else
        {
            WString className;
            const Class* cls = serializer->Read(FourCCs::CLS, className) ? Class::GetClass(className) : nullptr;
            // Only a class of this factory's kind may come out of its files.
            if (cls && cls->IsKindOf(GetObjClass()))
                resource = DynamicCast<Resource>(Object::CreateObject(cls).Get());
            if (resource && !resource->Load(serializer))
                resource = nullptr;
        }
        serializer->Leave();
    }
    serializer->ClearSerializedObj();
    serializer->Close();
    delete serializer;
    return resource;
}

bool ResourceFactory::Save(const Resource* resource, const WString& path, const Ptr<SerializerState>& state)
{
    if (!resource || path.IsEmpty())
        return false;
    WString absolute = Absolute(path);
    Ptr<Stream> stream(new FileStream(absolute));
    stream->SetWriteOnly();
    // Paths inside are made relative to where the file goes.
    auto* target = const_cast<Resource*>(resource);
    WString previous = target->m_path;
    target->m_path = absolute;
    bool saved = InternalSave(resource, stream, state);
    target->m_path = previous;
    if (saved)
        Log::Format(LOG_INFO, u"Resource: %s saved.\n", absolute());
    return saved;
}

bool ResourceFactory::InternalSave(const Resource* resource, const Ptr<Stream>& stream, const Ptr<SerializerState>& state)
{
    if (!resource || !stream)
        return false;
    Serializer* serializer = Serializer::OpenWriteStream(stream);
    if (!serializer)
        return false;
    bool saved = false;
    if (serializer->Enter(FourCCs::OBJ))
    {
        serializer->SetState(state ? state : Ptr<SerializerState>(new DefaultSerailizerState()));
        serializer->GetState()->markSerialized(resource);
        saved = InternalSaveObject(resource, serializer, true);
        serializer->Leave();
    }
    serializer->ClearSerializedObj();
    serializer->Close();
    delete serializer;
    return saved;
}

bool ResourceFactory::InternalSaveObject(const Resource* resource, Serializer* serializer, bool writeClass)
{
    // A clone of a file's origin is written as its differences from it.
    const Resource* origin = resource->GetOriginRes().Get();
    const Ptr<SerializerState>& state = serializer->GetState();
    if (m_mode == RESOURCE_INSTANCED && origin && !origin->GetPath().IsEmpty() &&
        origin->GetPath() != resource->GetPath() && (!state || state->allowSaveAsRef(resource)))
    {
        WString originPath = origin->GetPath();
        serializer->MakePath(originPath);
        if (!serializer->Enter(FourCCs::REF))
            return false;
        bool written = serializer->Write(FourCCs::PATH, originPath);
        serializer->Leave();
        return written && resource->SaveDiff(serializer, origin);
    }
    if (writeClass && !serializer->Write(FourCCs::CLS, resource->GetClass()->GetName()))
        return false;
    return resource->Save(serializer);
}

bool ResourceFactory::Replace(const WString& path, const Resource* resource)
{
    if (!resource || m_mode == RESOURCE_NOT_MANAGED || path.IsEmpty() || path.GetFileExt() != m_extension)
        return false;
    WString absolute = Absolute(path);
    HeldResources held; // let go after the lock: one of them may be the last reference
    MutexLock lock(m_lock);
    return m_cache && m_cache->Replace(absolute, const_cast<Resource*>(resource), &held);
}

// A resource referred to from another file is stored as its path when it
// has one, and loaded through its factory; one without a path goes inline.
bool ResourceFactory::SaveObject(const Object* object, Serializer* serializer, unsigned int flags)
{
    const auto* resource = DynamicCast<Resource>(object);
    if (!resource)
        return ObjectFactory::SaveObject(object, serializer, flags);
    if (flags & 1)
    {
        bool hasPath = !resource->GetPath().IsEmpty();
        if (!serializer->Write(FourCCs::HSPH, hasPath))
            return false;
        if (hasPath)
        {
            const Ptr<SerializerState>& state = serializer->GetState();
            if (!state || state->needSerialize(resource))
            {
                // Marked first, so that a reference back to it (a cycle)
                // writes only its path.
                if (state)
                    state->markSerialized(resource);
                if (!Save(resource, resource->GetPath(), state))
                    return false;
            }
            WString path = resource->GetPath();
            serializer->MakePath(path);
            return serializer->Write(FourCCs::PATH, path);
        }
    }
    return InternalSaveObject(resource, serializer, false);
}

Ptr<Object> ResourceFactory::LoadObject(const Class* cls, Object* outer, Serializer* serializer, unsigned int flags)
{
    bool hasPath = false;
    if ((flags & 1) && serializer->Read(FourCCs::HSPH, hasPath) && hasPath)
    {
        WString path;
        if (!serializer->Read(FourCCs::PATH, path) || path.IsEmpty())
            return Ptr<Object>();
        serializer->UnmakePath(path);
        return Ptr<Object>(Load(path, serializer->GetLoadFlags()).Get());
    }
    return ObjectFactory::LoadObject(cls, outer, serializer, flags);
}

// --- DefaultResourceFactory ----------------------------------------------------------------------

DefaultResourceFactory::DefaultResourceFactory()
    : ResourceFactory(Resource::StaticGetClass(), RESOURCE_NOT_MANAGED, WString(u".res"), 100)
{
}

void DefaultResourceFactory::Init()
{
    // Registered before, perhaps with a manager destroyed since: make sure
    // the present manager knows it.
    if (auto* existing = dynamic_cast<ResourceFactory*>(ObjectManager::Ins()->GetFactory(Resource::StaticGetClass(), false)))
    {
        if (!ResourceManager::Ins()->GetFactory(existing->GetExtension()))
            ResourceManager::Ins()->Register(Resource::StaticGetClass(), existing);
        return;
    }
    auto* factory = new DefaultResourceFactory();
    if (ObjectManager::Ins()->Register(Resource::StaticGetClass(), factory))
        ResourceManager::Ins()->Register(Resource::StaticGetClass(), factory);
}

// --- ResourceManager -----------------------------------------------------------------------------

ResourceManager* ResourceManager::Ins()
{
    if (!s_resourceManager)
        s_resourceManager = new ResourceManager();
    return s_resourceManager;
}

void ResourceManager::Destroy()
{
    delete s_resourceManager;
    s_resourceManager = nullptr;
}

bool ResourceManager::Register(const Class* cls, ResourceFactory* factory)
{
    if (!cls || !factory)
        return false;
    if (m_byExtension.Contains(factory->GetExtension()))
    {
        Log::Format(LOG_ERROR, u"[%s] factory has already registered !", factory->GetExtension()());
        return false;
    }
    m_byExtension.Set(factory->GetExtension(), factory);
    unsigned at = 0;
    while (at < m_byPriority.Count() && m_byPriority[at]->GetPriority() <= factory->GetPriority())
        ++at;
    m_byPriority.Insert(at, factory);
    return true;
}

void ResourceManager::Unregister(ResourceFactory* factory)
{
    ResourceFactory** registered = m_byExtension.FindValue(factory->GetExtension());
    if (registered && *registered == factory)
        m_byExtension.Remove(factory->GetExtension());
    m_byPriority.Remove(factory);
}

void ResourceManager::InitFactories()
{
    for (unsigned i = m_byPriority.Count(); i-- > 0;)
        if (!m_byPriority[i]->IsInited())
            m_byPriority[i]->OnInitialized();
}

void ResourceManager::TermFactories()
{
    for (ResourceFactory* factory : m_byPriority)
        if (factory->IsInited())
            factory->OnTerminated();
}

ResourceFactory* ResourceManager::GetFactory(const Class* cls, bool searchBases) const
{
    if (!cls || !cls->IsKindOf(Resource::StaticGetClass()))
        return nullptr;
    return dynamic_cast<ResourceFactory*>(ObjectManager::Ins()->GetFactory(cls, searchBases));
}

ResourceFactory* ResourceManager::GetFactory(const WString& extension) const
{
    ResourceFactory* const* factory = m_byExtension.FindValue(extension);
    return factory ? *factory : nullptr;
}

const Class* ResourceManager::GetClassByExtension(const WString& extension) const
{
    ResourceFactory* factory = GetFactory(extension);
    return factory ? factory->GetObjClass() : nullptr;
}

WString ResourceManager::GetExtensionByClass(const Class* cls) const
{
    ResourceFactory* factory = GetFactory(cls, true);
    return factory ? factory->GetExtension() : WString();
}

Ptr<Resource> ResourceManager::Load(const WString& path, unsigned int flags)
{
    ResourceFactory* factory = GetFactory(path.GetFileExt());
    return factory ? factory->Load(path, flags) : Ptr<Resource>();
}

Ptr<Resource> ResourceManager::load(const Class* cls, const WString& path, unsigned int flags)
{
    ResourceFactory* factory = cls ? GetFactory(path.GetFileExt()) : nullptr;
    return factory && factory->GetObjClass()->IsKindOf(cls) ? factory->Load(path, flags) : Ptr<Resource>();
}

void ResourceManager::AsyncLoad(const WString& path, const ResourceSucceedDelegate& succeed,
                                const ResourceFailedDelegate& failed, unsigned int flags)
{
    if (ResourceFactory* factory = GetFactory(path.GetFileExt()))
        factory->AsyncLoad(path, succeed, failed, flags);
    else
        ResourceThread::ProcessFailed(path, failed);
}

bool ResourceManager::Save(const Resource* resource, const WString& path, const Ptr<SerializerState>& state)
{
    ResourceFactory* factory = resource ? GetFactory(resource->GetClass(), true) : nullptr;
    return factory && factory->Save(resource, path, state);
}

bool ResourceManager::Save(const Resource* resource, const Ptr<SerializerState>& state)
{
    return resource && !resource->GetPath().IsEmpty() && Save(resource, resource->GetPath(), state);
}

bool ResourceManager::Replace(const WString& path, const Resource* resource)
{
    ResourceFactory* factory = GetFactory(path.GetFileExt());
    return factory && factory->Replace(path, resource);
}

} // namespace KovexEngine
