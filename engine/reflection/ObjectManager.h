#pragma once

#include "reflection/Object.h"

namespace KovexEngine {
class Serializer;
}

namespace KovexEngine {

// Creates, loads and saves the objects of one class (and, when no closer
// factory exists, of its subclasses).
class KOVEX_API ObjectFactory : public HeapObject
{
public:
    explicit ObjectFactory(const Class* cls) : m_class(cls) {}
    ObjectFactory(const ObjectFactory&) = delete;
    ObjectFactory& operator=(const ObjectFactory&) = delete;

    virtual void OnInitialized() { m_inited = true; }
    virtual void OnTerminated() { m_inited = false; }
    virtual ~ObjectFactory();
    // Makes an object of `cls` (through `outer` when given) and loads it.
    virtual Ptr<Object> LoadObject(const Class* cls, Object* outer, Serializer* serializer, unsigned int flags);
    virtual bool SaveObject(const Object* object, Serializer* serializer, unsigned int flags);

    const Class* GetObjClass() const { return m_class; }
    bool IsInited() const { return m_inited; }

private:
    const Class* m_class;
    bool m_inited = false;
};

// The factory for classes with no special needs.
class KOVEX_API DefaultObjectFactory : public ObjectFactory
{
public:
    using ObjectFactory::ObjectFactory;
};

// Routes object work to the factory of each class. Factories are registered
// while the engine starts; look-ups afterwards take no lock.
class KOVEX_API ObjectManager : public HeapObject
{
public:
    static ObjectManager* Ins();
    static void Destroy();

    // Takes ownership of the factory. A class that already has a factory of
    // its own logs "[%s] factory has already registered !" at level 4 and
    // the new factory is deleted; the result is then false.
    bool Register(const Class* cls, ObjectFactory* factory);
    void Unregister(const Class* cls);
    // The class's own factory, or with `searchBases` the first one found
    // among its bases, depth first.
    ObjectFactory* GetFactory(const Class* cls, bool searchBases) const;
    unsigned int GetFactoryCount() const { return m_factories.Count(); }

    // Reads the class name ("CLS") and lets its factory load the object.
    Ptr<Object> LoadObject(Object* outer, Serializer* serializer, unsigned int flags);
    // Writes the class name and lets the factory save the object.
    bool SaveObject(const Object* object, Serializer* serializer, unsigned int flags);

    // Brings every factory up; does nothing while the System layer stands.
    void Initialize();
    void InitFactories();
    void TermFactories();

    static ObjectManager* ms_singleton;

private:
    ObjectManager() = default;
    ~ObjectManager();

    TMap<const Class*, ObjectFactory*> m_factories;
};

} // namespace KovexEngine
