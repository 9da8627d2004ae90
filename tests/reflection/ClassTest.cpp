#include <gtest/gtest.h>

#include "kernel/Log.h"
#include "reflection/ClassIterator.h"
#include "reflection/Object.h"
#include "support/LogCapture.h"

using namespace KovexEngine;

namespace KovexTestClasses {

class Animal : public Object
{
    KOVEX_CLASS(Animal)
public:
    int legs = 4;
};

class Dog : public Animal
{
    KOVEX_CLASS(Dog)
public:
    int tricks = 2;
};

class Puppy : public Dog
{
    KOVEX_CLASS(Puppy)
};

class Shape : public Object
{
    KOVEX_CLASS(Shape)
public:
    virtual float Area() const = 0;
};

class Tagged : public Object
{
    KOVEX_CLASS(Tagged)
public:
    int tag = 7;
};

// Two reflected bases: the second one's part lies at an offset.
class TaggedDog : public Dog, public Tagged
{
    KOVEX_CLASS(TaggedDog)
public:
    int extra = 9;
};

class Renamed : public NamedObject
{
    KOVEX_CLASS(Renamed)
public:
    void OnNameChanged(const WString& oldName) override { previous = oldName; ++changes; }
    WString previous;
    int changes = 0;
};

KOVEX_REGISTER_CLASS(Animal, u"Tests", Object)
KOVEX_REGISTER_CLASS(Dog, u"Tests", Animal)
KOVEX_REGISTER_CLASS(Puppy, u"Tests", Dog)
KOVEX_REGISTER_CLASS(Shape, u"Tests", Object)
KOVEX_REGISTER_CLASS(Tagged, u"Tests", Object)
KOVEX_REGISTER_CLASS(TaggedDog, u"Tests", Dog, Tagged)
KOVEX_REGISTER_CLASS(Renamed, u"Tests", NamedObject)

} // namespace KovexTestClasses

using namespace KovexTestClasses;

TEST(Class, ClassesRegisterWhenTheLibraryLoads)
{
    // Nothing in this test touched the classes yet: static initialisers did.
    EXPECT_TRUE(Class::ClassExists(WString(u"Puppy")));
    EXPECT_TRUE(Class::ClassExists(WString(u"ThreadCommand2")));
    EXPECT_FALSE(Class::ClassExists(WString()));
    const Class* puppy = Class::GetClass(WString(u"Puppy"));
    ASSERT_NE(puppy, nullptr);
    EXPECT_EQ(puppy, Puppy::StaticGetClass());
    EXPECT_TRUE(puppy->GetModule() == u"Tests");
    EXPECT_EQ(puppy->GetSize(), sizeof(Puppy));
    EXPECT_TRUE(Object::StaticGetClass()->GetModule() == u"Engine");
}

TEST(Class, KindsDistancesAndRoots)
{
    const Class* puppy = Puppy::StaticGetClass();
    EXPECT_TRUE(puppy->IsKindOf(Dog::StaticGetClass()));
    EXPECT_TRUE(puppy->IsKindOf(Object::StaticGetClass()));
    EXPECT_TRUE(puppy->IsKindOf(puppy));
    EXPECT_FALSE(Dog::StaticGetClass()->IsKindOf(puppy));
    EXPECT_FALSE(puppy->IsKindOf(Shape::StaticGetClass()));
    EXPECT_TRUE(puppy->IsKindOf(WString(u"Animal")));
    EXPECT_FALSE(puppy->IsKindOf(WString(u"Shape")));
    EXPECT_TRUE(puppy->IsExactKindOf(WString(u"Puppy")));
    EXPECT_FALSE(puppy->IsExactKindOf(Dog::StaticGetClass()));
    EXPECT_EQ(puppy->ComputeDistance(puppy), 0u);
    EXPECT_EQ(puppy->ComputeDistance(Animal::StaticGetClass()), 2u);
    EXPECT_EQ(puppy->ComputeDistance(Object::StaticGetClass()), 3u);
    EXPECT_EQ(puppy->ComputeDistance(Shape::StaticGetClass()), kNotFound);
    EXPECT_TRUE(Object::StaticGetClass()->IsRoot());
    EXPECT_FALSE(puppy->IsRoot());
    TArray<const Class*> roots;
    Class::GetRootClasses(roots);
    EXPECT_NE(roots.Find(Object::StaticGetClass()), kNotFound);
    EXPECT_EQ(roots.Find(puppy), kNotFound);
    EXPECT_FALSE(puppy->IsMultiInheritance());
    EXPECT_TRUE(TaggedDog::StaticGetClass()->IsMultiInheritance());
}

TEST(Class, PointerAdjustmentMatchesStaticCast)
{
    TaggedDog* object = new TaggedDog();
    const Class* cls = TaggedDog::StaticGetClass();
    void* self = static_cast<void*>(object);
    EXPECT_EQ(cls->GetClassPointer(self, Tagged::StaticGetClass()), static_cast<void*>(static_cast<Tagged*>(object)));
    EXPECT_NE(static_cast<void*>(static_cast<Tagged*>(object)), self) << "the second base lies at an offset";
    EXPECT_EQ(cls->GetClassPointer(self, Dog::StaticGetClass()), static_cast<void*>(static_cast<Dog*>(object)));
    EXPECT_EQ(cls->GetClassPointer(self, Animal::StaticGetClass()), static_cast<void*>(static_cast<Animal*>(object)));
    EXPECT_EQ(cls->GetClassPointer(self, Shape::StaticGetClass()), nullptr) << "an unrelated class gives null";
    EXPECT_EQ(cls->GetClassPointer(self, nullptr), self) << "no class gives the object";
    EXPECT_EQ(cls->GetClassPointer(static_cast<void*>(nullptr), Dog::StaticGetClass()), nullptr);

    // Through the virtual: from either base, the registry finds the other.
    Tagged* asTagged = object;
    EXPECT_EQ(DynamicCast<Dog>(static_cast<Object*>(asTagged)), static_cast<Dog*>(object));
    Dog* asDog = object;
    EXPECT_EQ(DynamicCast<Tagged>(static_cast<Object*>(static_cast<Animal*>(asDog))), asTagged);
    EXPECT_EQ(DynamicCast<Tagged>(static_cast<Object*>(static_cast<Animal*>(asDog)))->tag, 7);
    EXPECT_EQ(DynamicCast<Shape>(static_cast<Object*>(asTagged)), nullptr);

    Dog plain;
    EXPECT_EQ(Dog::StaticGetClass()->GetClassPointer(static_cast<void*>(&plain), Animal::StaticGetClass()),
              static_cast<void*>(&plain)) << "single inheritance needs no arithmetic";
    delete object;
}

TEST(Class, CreationByName)
{
    KovexTest::LogCapture log;
    void* created = Class::Create(WString(u"Puppy"));
    ASSERT_NE(created, nullptr);
    Ptr<Object> puppy(static_cast<Puppy*>(created));
    EXPECT_TRUE(puppy->GetClassNameW() == u"Puppy");
    EXPECT_EQ(static_cast<Puppy*>(puppy.Get())->legs, 4);

    EXPECT_TRUE(Shape::StaticGetClass()->IsAbstract());
    EXPECT_EQ(Class::Create(WString(u"Shape")), nullptr);
    EXPECT_EQ(log->entries.Count(), 0u) << "an abstract class is no error";

    EXPECT_EQ(Class::Create(WString(u"NoSuchClass")), nullptr);
    ASSERT_EQ(log->entries.Count(), 1u);
    EXPECT_EQ(log->entries[0].level, unsigned(LOG_CRITICAL));
    EXPECT_TRUE(log->entries[0].text == u"Class::Create('NoSuchClass'): unknown class name!");
}

TEST(Class, DuplicateNamesKeepTheFirstInTheNameMap)
{
    KovexTest::LogCapture log;
    unsigned before = Class::GetClassArray().Count();
    auto* first = new Class(u"DuplicateForTest", nullptr, 4, u"Tests");
    auto* second = new Class(u"DuplicateForTest", nullptr, 8, u"Tests");
    EXPECT_EQ(Class::GetClassArray().Count(), before + 2) << "both stay in the array";
    EXPECT_EQ(Class::GetClass(WString(u"DuplicateForTest")), first);
    EXPECT_TRUE(log->Contains(u"Class name 'DuplicateForTest' has already been registered!"));
    EXPECT_EQ(log->entries[0].level, unsigned(LOG_CRITICAL));
    (void)second;
}

TEST(Class, IteratorsWalkTheTreeDepthFirst)
{
    TArray<const Class*> seen;
    for (BaseClassIterator it(TaggedDog::StaticGetClass(), true); it.hasNext();)
        seen.Add(it.Next());
    ASSERT_EQ(seen.Count(), 6u) << "TaggedDog, then both branches up to Object, which stands twice";
    EXPECT_EQ(seen[0], TaggedDog::StaticGetClass());
    EXPECT_NE(seen.Find(Animal::StaticGetClass()), kNotFound);
    EXPECT_NE(seen.Find(Tagged::StaticGetClass()), kNotFound);
    // Depth first: Animal is reached through Dog before Tagged comes.
    EXPECT_TRUE(seen.Find(Dog::StaticGetClass()) < seen.Find(Animal::StaticGetClass()));

    seen.Clear();
    for (DerivedClassIterator it(Animal::StaticGetClass(), false); it.hasNext();)
        seen.Add(it.Next());
    EXPECT_NE(seen.Find(Dog::StaticGetClass()), kNotFound);
    EXPECT_NE(seen.Find(Puppy::StaticGetClass()), kNotFound);
    EXPECT_NE(seen.Find(TaggedDog::StaticGetClass()), kNotFound);
    EXPECT_EQ(seen.Find(Animal::StaticGetClass()), kNotFound);
    EXPECT_TRUE(seen.Find(Dog::StaticGetClass()) < seen.Find(Puppy::StaticGetClass()));
}

TEST(Class, TypeNamesAndShortNames)
{
    EXPECT_TRUE(WString(Class::GetTypeName(KOVEX_TYPE_ENUM)) == u"Delegate") << "16 and 17 stand swapped";
    EXPECT_TRUE(WString(Class::GetTypeName(KOVEX_TYPE_DELEGATE)) == u"Enum");
    EXPECT_TRUE(WString(Class::GetTypeName(KOVEX_TYPE_VOID)) == u"void");
    EXPECT_EQ(Class::GetTypeName(KOVEX_BASE_TYPE(21)), nullptr);
    WString shortName;
    EXPECT_FALSE(Class::GetTypeShortName(shortName, nullptr));
    EXPECT_TRUE(Class::GetTypeShortName(shortName, Dog::StaticGetClass()));
    EXPECT_TRUE(shortName == u"Dog");
    EXPECT_EQ(Dog::StaticGetClass()->GetType(), KOVEX_TYPE_OBJECT);
}

TEST(Object, CloneDuplicateAndDiffSupport)
{
    Ptr<Dog> dog(new Dog());
    Ptr<Object> copy = dog->Clone(0);
    ASSERT_NE(copy.Get(), nullptr);
    EXPECT_NE(copy.Get(), static_cast<Object*>(dog.Get()));
    EXPECT_EQ(copy->GetClass(), Dog::StaticGetClass());
    EXPECT_EQ(copy->GetRefCount(), 1);
    EXPECT_FALSE(dog->CopyProperties(nullptr, 0));
    Ptr<Puppy> puppy(new Puppy());
    EXPECT_FALSE(dog->CopyProperties(puppy.Get(), 0)) << "classes must match";
    EXPECT_TRUE(dog->SupportSerializeDiff(copy.Get()));
    EXPECT_FALSE(dog->SupportSerializeDiff(puppy.Get())) << "a subclass is not the same class";
    EXPECT_FALSE(dog->SupportSerializeDiff(nullptr));
    WString text;
    EXPECT_TRUE(puppy->ToString(text));
    EXPECT_TRUE(text == u"Puppy");
    EXPECT_FALSE(puppy->FromString(text));
    EXPECT_TRUE(puppy->IsKindOf(WString(u"Dog")));
    EXPECT_FALSE(puppy->IsExtractKindOf(WString(u"Dog")));
    Ptr<Object> made = dog->InternalCreateRefObjFromThis(Puppy::StaticGetClass());
    EXPECT_EQ(made->GetClass(), Puppy::StaticGetClass());
    EXPECT_EQ(dog->InternalCreateRefObjFromThis(Shape::StaticGetClass()).Get(), nullptr);

    // Two Object bases: ownership goes through one of them explicitly.
    Ptr<Dog> tagged(new TaggedDog());
    Ptr<Object> taggedCopy = tagged->Clone(0);
    ASSERT_NE(taggedCopy.Get(), nullptr);
    EXPECT_EQ(taggedCopy->GetClass(), TaggedDog::StaticGetClass());
    EXPECT_EQ(DynamicCast<Tagged>(taggedCopy.Get())->tag, 7);
}

TEST(Object, NamedObjectsReportRenames)
{
    Ptr<Renamed> object(new Renamed());
    object->SetName(WString(u"first"));
    object->SetName(WString(u"second"));
    object->SetName(WString(u"second"));
    EXPECT_TRUE(object->GetName() == u"second");
    EXPECT_TRUE(object->previous == u"first");
    EXPECT_EQ(object->changes, 2) << "setting the same name is no change";
    int data = 0;
    object->SetClientData(&data);
    EXPECT_EQ(object->GetClientData(), &data);
    EXPECT_TRUE(object->IsKindOf(NamedObject::StaticGetClass()));
}

TEST(Class, DestroyIsNotFinalForClassesAskedForAgain)
{
    // Destroying the registry clears every class's slot: a class asked for
    // afterwards is rebuilt rather than read from freed memory. Isolated in a
    // child process, since the registry is process-wide.
    EXPECT_EXIT(
        {
            const Class* before = Puppy::StaticGetClass();
            (void)before;
            Class::Destroy();
            const Class* after = Puppy::StaticGetClass();
            bool ok = after && after->GetName() == u"Puppy" && after->IsKindOf(Object::StaticGetClass()) &&
                      Class::GetClass(WString(u"Puppy")) == after;
            std::exit(ok ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}
