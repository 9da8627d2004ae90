#include "reflection/ObjectManager.h"

#include "kernel/EngineGlobals.h"
#include "kernel/Log.h"
#include "reflection/ClassIterator.h"

namespace KovexEngine {

ObjectManager* ObjectManager::ms_singleton = nullptr;

ObjectFactory::~ObjectFactory() = default;

ObjectManager* ObjectManager::Ins()
{
    if (!ms_singleton)
        ms_singleton = new ObjectManager();
    return ms_singleton;
}

void ObjectManager::Destroy()
{
    delete ms_singleton;
    ms_singleton = nullptr;
}

ObjectManager::~ObjectManager()
{
    for (auto& entry : m_factories)
        delete entry.value;
}

bool ObjectManager::Register(const Class* cls, ObjectFactory* factory)
{
    if (!cls || !factory)
    {
        delete factory;
        return false;
    }
    if (m_factories.Contains(cls))
    {
        Log::Format(LOG_ERROR, u"[%s] factory has already registered !", cls->GetName()());
        delete factory;
        return false;
    }
    if (Kovex_System_IsInited() && !factory->IsInited())
        factory->OnInitialized();
    m_factories.Insert(cls, factory);
    return true;
}

void ObjectManager::Unregister(const Class* cls)
{
    unsigned index = m_factories.Find(cls);
    if (index == kNotFound)
        return;
    ObjectFactory* factory = m_factories[index].value;
    if (factory->IsInited())
        factory->OnTerminated();
    delete factory;
    m_factories.RemoveAt(index);
}

ObjectFactory* ObjectManager::GetFactory(const Class* cls, bool searchBases) const
{
    if (!cls)
        return nullptr;
    if (ObjectFactory* const* own = m_factories.FindValue(cls))
        return *own;
    if (!searchBases)
        return nullptr;
    for (BaseClassIterator it(cls, false); it.hasNext();)
        if (ObjectFactory* const* found = m_factories.FindValue(it.Next()))
            return *found;
    return nullptr;
}

void ObjectManager::Initialize()
{
    if (!Kovex_System_IsInited())
        InitFactories();
}

void ObjectManager::InitFactories()
{
    for (auto& entry : m_factories)
        entry.value->OnInitialized();
}

void ObjectManager::TermFactories()
{
    for (auto& entry : m_factories)
        if (entry.value->IsInited())
            entry.value->OnTerminated();
}

} // namespace KovexEngine
