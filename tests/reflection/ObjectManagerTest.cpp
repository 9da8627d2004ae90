#include <gtest/gtest.h>

#include "lifecycle/Engine.h"
#include "reflection/ObjectManager.h"
#include "support/LogCapture.h"

using namespace KovexEngine;

namespace KovexTestFactories {

class Vehicle : public Object
{
    KOVEX_CLASS(Vehicle)
};

class Car : public Vehicle
{
    KOVEX_CLASS(Car)
};

class Boat : public Object
{
    KOVEX_CLASS(Boat)
};

KOVEX_REGISTER_CLASS(Vehicle, u"Tests", Object)
KOVEX_REGISTER_CLASS(Car, u"Tests", Vehicle)
KOVEX_REGISTER_CLASS(Boat, u"Tests", Object)

struct CountingFactory : ObjectFactory
{
    CountingFactory(const Class* cls, int* terminated) : ObjectFactory(cls), terminated(terminated) {}
    void OnTerminated() override
    {
        ObjectFactory::OnTerminated();
        ++*terminated;
    }
    int* terminated;
};

} // namespace KovexTestFactories

using namespace KovexTestFactories;

TEST(ObjectManager, FactoriesAreFoundByClassAndThenByBase)
{
    ObjectManager* manager = ObjectManager::Ins();
    int terminated = 0;
    auto* vehicles = new CountingFactory(Vehicle::StaticGetClass(), &terminated);
    ASSERT_TRUE(manager->Register(Vehicle::StaticGetClass(), vehicles));
    EXPECT_EQ(manager->GetFactory(Vehicle::StaticGetClass(), false), vehicles);
    EXPECT_EQ(manager->GetFactory(Car::StaticGetClass(), false), nullptr);
    EXPECT_EQ(manager->GetFactory(Car::StaticGetClass(), true), vehicles);
    EXPECT_EQ(manager->GetFactory(Boat::StaticGetClass(), true), nullptr);
    EXPECT_EQ(vehicles->GetObjClass(), Vehicle::StaticGetClass());

    {
        KovexTest::LogCapture log;
        EXPECT_FALSE(manager->Register(Vehicle::StaticGetClass(), new DefaultObjectFactory(Vehicle::StaticGetClass())));
        EXPECT_TRUE(log->Contains(u"[Vehicle] factory has already registered !"));
        EXPECT_EQ(log->entries[0].level, unsigned(LOG_ERROR));
        EXPECT_EQ(manager->GetFactory(Vehicle::StaticGetClass(), false), vehicles) << "the first stays";
    }

    manager->InitFactories();
    EXPECT_TRUE(vehicles->IsInited());
    manager->TermFactories();
    EXPECT_FALSE(vehicles->IsInited());
    EXPECT_EQ(terminated, 1);
    manager->InitFactories();
    manager->Unregister(Vehicle::StaticGetClass());
    EXPECT_EQ(terminated, 2) << "unregistering terminates an initialised factory";
    EXPECT_EQ(manager->GetFactory(Car::StaticGetClass(), true), nullptr);
    manager->Unregister(Vehicle::StaticGetClass());
}

TEST(ObjectManager, FactoriesRegisteredWhileTheSystemStandsStartAtOnce)
{
    Kovex_System_Initialize();
    auto* boats = new DefaultObjectFactory(Boat::StaticGetClass());
    ASSERT_TRUE(ObjectManager::Ins()->Register(Boat::StaticGetClass(), boats));
    EXPECT_TRUE(boats->IsInited());
    Kovex_System_Terminate();
    EXPECT_FALSE(boats->IsInited());
    Kovex_System_Initialize();
    EXPECT_TRUE(boats->IsInited()) << "a new System initialisation revives the factories";
    ObjectManager::Ins()->Unregister(Boat::StaticGetClass());
    Kovex_System_Terminate();
}
