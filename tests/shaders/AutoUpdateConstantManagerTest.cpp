// Constants that render-data classes refresh by themselves: groups handed
// out in order, the "_N" array rule, and programs filing constants by group.

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "graphics/BaseProgram.h"
#include "kernel/StringConv.h"
#include "shaders/AutoUpdateConstantManager.h"
#include "support/LogCapture.h"

using namespace KovexEngine;

namespace {

using Manager = AutoUpdateConstantManager;

void RegisterCamera(unsigned char group)
{
    Manager* m = Manager::Ins();
    EXPECT_TRUE(m->RegisterAutoUpdateConstant(u"ViewMatrix", group, 0));
    EXPECT_TRUE(m->RegisterAutoUpdateConstant(u"ProjMatrix", group, 0));
}

void RegisterSkin(unsigned char group)
{
    Manager* m = Manager::Ins();
    EXPECT_TRUE(m->RegisterAutoUpdateConstant(u"BoneMatrices", group, 2));
    EXPECT_TRUE(m->RegisterAutoUpdateConstant(u"Bone_Palette", group, 1));
}

void RegisterNothing(unsigned char) {}

struct Fresh
{
    Fresh() { Manager::Destroy(); }
    ~Fresh() { Manager::Destroy(); }
};

} // namespace

TEST(AutoUpdateConstants, GroupsAndTheArrayIndexRule)
{
    Fresh fresh;
    Manager* m = Manager::Ins();
    EXPECT_EQ(m->RegisterUpdateConstantProcs(&RegisterCamera), 0);
    EXPECT_EQ(m->RegisterUpdateConstantProcs(&RegisterSkin), 1);
    EXPECT_EQ(m->GetNumGroups(), 2u);
    EXPECT_EQ(m->GetNumConstants(0), 2u);

    uint32 kind = 9;
    Manager::AutoUpdateId proj = m->FindAutoUpdateId(u"ProjMatrix", &kind);
    ASSERT_TRUE(proj.IsValid());
    EXPECT_EQ(proj.Parts.Group, 0);
    EXPECT_EQ(proj.Parts.Constant, 1);
    EXPECT_EQ(proj.Parts.ArrayIndex, 0);
    EXPECT_EQ(kind, 0u);

    Manager::AutoUpdateId bone3 = m->FindAutoUpdateId(u"BoneMatrices_3", &kind);
    ASSERT_TRUE(bone3.IsValid());
    EXPECT_EQ(bone3.Parts.Group, 1);
    EXPECT_EQ(bone3.Parts.Constant, 0);
    EXPECT_EQ(bone3.Parts.ArrayIndex, 3);
    EXPECT_EQ(kind, 2u);
    // A name with its own "_" is found whole, and by element too.
    EXPECT_EQ(m->FindAutoUpdateId(u"Bone_Palette").Parts.Constant, 1);
    EXPECT_EQ(m->FindAutoUpdateId(u"Bone_Palette_12").Parts.ArrayIndex, 12);
    for (const char16_t* bad : {u"BoneMatrices_x", u"BoneMatrices_", u"BoneMatrices_3x", u"BoneMatrices_-1",
                                u"BoneMatrices_256", u"_3", u"Unknown_3", u"Bone_3", u"", u"bonematrices"})
        EXPECT_FALSE(m->FindAutoUpdateId(bad).IsValid()) << StringConvFuncs::ToAString(bad).c_str();
    EXPECT_EQ(m->FindAutoUpdateId(u"BoneMatrices_255").Parts.ArrayIndex, 255);
}

TEST(AutoUpdateConstants, RefusesBadRegistrationsWithALine)
{
    Fresh fresh;
    Manager* m = Manager::Ins();
    KovexTest::LogCapture log;
    EXPECT_EQ(m->RegisterUpdateConstantProcs(nullptr), -1);
    ASSERT_EQ(m->RegisterUpdateConstantProcs(&RegisterNothing), 0);
    EXPECT_TRUE(m->RegisterAutoUpdateConstant(u"Time", 0, 1));
    EXPECT_FALSE(m->RegisterAutoUpdateConstant(u"Time", 0, 1));
    EXPECT_TRUE(log->Contains(u"RegisterAutoUpdateConstant: [Time] is registered already.\n"));
    EXPECT_FALSE(m->RegisterAutoUpdateConstant(u"Other", 1, 0));
    EXPECT_TRUE(log->Contains(u"RegisterAutoUpdateConstant: [Other] names group 1, never handed out.\n"));
    EXPECT_FALSE(m->RegisterAutoUpdateConstant(u"Other", 0, ShaderConstant::kUpdateKinds));
    EXPECT_FALSE(m->RegisterAutoUpdateConstant(u"", 0, 0));
    for (unsigned i = 1; i < Manager::kMaxConstantsPerGroup; ++i)
        ASSERT_TRUE(m->RegisterAutoUpdateConstant(StringConvFuncs::ToWString(("C" + std::to_string(i)).c_str()), 0, 0));
    EXPECT_FALSE(m->RegisterAutoUpdateConstant(u"OneTooMany", 0, 0));
    EXPECT_TRUE(log->Contains(u"RegisterAutoUpdateConstant: group 0 is full.\n"));
    for (unsigned g = 1; g < Manager::kMaxGroups; ++g)
        ASSERT_EQ(m->RegisterUpdateConstantProcs(&RegisterNothing), int(g));
    EXPECT_EQ(m->RegisterUpdateConstantProcs(&RegisterNothing), -1);
}

namespace {
class PlainProgram : public BaseProgram
{
};
} // namespace

TEST(AutoUpdateConstants, ProgramsFileConstantsByGroupAndKind)
{
    Fresh fresh;
    Manager* m = Manager::Ins();
    m->RegisterUpdateConstantProcs(&RegisterCamera);
    m->RegisterUpdateConstantProcs(&RegisterSkin);
    Ptr<PlainProgram> p(new PlainProgram());
    ShaderConstant* view = p->NewConstant(TSharedString<WString>(u"ViewMatrix"));
    ShaderConstant* bone = p->NewConstant(TSharedString<WString>(u"BoneMatrices_2"));
    ShaderConstant* own = p->NewConstant(TSharedString<WString>(u"Colour"));
    EXPECT_TRUE(view->IsAutoUpdata());
    EXPECT_EQ(bone->GetAutoUpdateId().Parts.ArrayIndex, 2);
    EXPECT_EQ(bone->GetUpdateKind(), 2u);
    EXPECT_FALSE(own->IsAutoUpdata());
    const BaseProgram::GroupConstants* camera = p->GetAutoUpdateConstants(0);
    const BaseProgram::GroupConstants* skin = p->GetAutoUpdateConstants(1);
    ASSERT_NE(camera, nullptr);
    ASSERT_NE(skin, nullptr);
    ASSERT_EQ(camera->ByKind[0].Count(), 1u);
    EXPECT_EQ(camera->ByKind[0][0], view);
    ASSERT_EQ(skin->ByKind[2].Count(), 1u);
    EXPECT_EQ(skin->ByKind[2][0], bone);
    EXPECT_EQ(skin->ByKind[0].Count(), 0u);
    // Without the manager, constants are plain.
    Manager::Destroy();
    Ptr<PlainProgram> q(new PlainProgram());
    EXPECT_FALSE(q->NewConstant(TSharedString<WString>(u"ViewMatrix"))->IsAutoUpdata());
}

// Registrations and look-ups from several threads: every group gets a
// distinct number and every constant stays findable.
TEST(AutoUpdateThreads, ConcurrentRegistrationAndLookups)
{
    Fresh fresh;
    Manager* m = Manager::Ins();
    constexpr int kThreads = 4, kGroupsEach = 8;
    std::atomic<int> bad{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int g = 0; g < kGroupsEach; ++g)
            {
                int group = m->RegisterUpdateConstantProcs(&RegisterNothing);
                if (group < 0)
                {
                    ++bad;
                    continue;
                }
                WString name = StringConvFuncs::ToWString(("T" + std::to_string(t) + "G" + std::to_string(g)).c_str());
                if (!m->RegisterAutoUpdateConstant(name, (unsigned char)group, 0))
                    ++bad;
                WString element = StringConvFuncs::ToWString(("T" + std::to_string(t) + "G" + std::to_string(g) + "_4").c_str());
                Manager::AutoUpdateId id = m->FindAutoUpdateId(element);
                if (!id.IsValid() || id.Parts.Group != group || id.Parts.ArrayIndex != 4)
                    ++bad;
            }
        });
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(bad.load(), 0);
    EXPECT_EQ(m->GetNumGroups(), unsigned(kThreads * kGroupsEach));
}
