// Auto-update constants: groups handed out in order, names found exactly or
// as "Name_N" array elements, and programs filing their constants by group.

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "graphics/CommitConstantInterface.h"
#include "shaders/AutoUpdateConstantManager.h"
#include "support/LogCapture.h"

using namespace KovexEngine;

namespace {

void RegisterCamera(unsigned char group)
{
    auto* m = AutoUpdateConstantManager::Ins();
    m->RegisterAutoUpdateConstant(u"AUTest.ViewMatrix", group, 0);
    m->RegisterAutoUpdateConstant(u"AUTest.ProjMatrix", group, 0);
}

void RegisterSkin(unsigned char group)
{
    auto* m = AutoUpdateConstantManager::Ins();
    m->RegisterAutoUpdateConstant(u"BoneMatrices", group, 2);
    m->RegisterAutoUpdateConstant(u"Bone_Tex_Param", group, 1);
}

// A constant holder that keeps nothing: only the filing is under test.
class Holder : public CommitConstantInterface
{
public:
    bool CommitConstant(ShaderConstant*, const void*, uint32, uint32) override { return true; }
};

struct FreshManager
{
    FreshManager() { AutoUpdateConstantManager::Destroy(); }
    ~FreshManager() { AutoUpdateConstantManager::Destroy(); }
};

} // namespace

TEST(AutoUpdateConstants, GroupsAndNamesResolveByTheArrayRule)
{
    FreshManager fresh;
    AutoUpdateConstantManager* m = AutoUpdateConstantManager::Ins();
    EXPECT_EQ(m->RegisterUpdateConstantProcs(&RegisterCamera), 0);
    EXPECT_EQ(m->RegisterUpdateConstantProcs(&RegisterSkin), 1);
    EXPECT_EQ(m->GetNumGroups(), 2u);
    EXPECT_EQ(m->GetNumConstants(1), 2u);
    EXPECT_EQ(m->GetConstantName(0, 1), WString(u"AUTest.ProjMatrix"));

    uint32 kind = 99;
    auto id = m->FindAutoUpdateId(u"AUTest.ProjMatrix", &kind);
    ASSERT_TRUE(id.IsValid());
    EXPECT_EQ(id.Parts.Group, 0);
    EXPECT_EQ(id.Parts.Constant, 1);
    EXPECT_EQ(id.Parts.ArrayIndex, 0);
    EXPECT_EQ(kind, 0u);

    id = m->FindAutoUpdateId(u"BoneMatrices_3", &kind);
    ASSERT_TRUE(id.IsValid());
    EXPECT_EQ(id.Parts.Group, 1);
    EXPECT_EQ(id.Parts.Constant, 0);
    EXPECT_EQ(id.Parts.ArrayIndex, 3);
    EXPECT_EQ(kind, 2u);
    EXPECT_FALSE(m->FindAutoUpdateId(u"BoneMatrices_x").IsValid());
    EXPECT_FALSE(m->FindAutoUpdateId(u"BoneMatrices_").IsValid());
    EXPECT_FALSE(m->FindAutoUpdateId(u"BoneMatrices_3x").IsValid());
    EXPECT_FALSE(m->FindAutoUpdateId(u"BoneMatrices_256").IsValid());
    EXPECT_FALSE(m->FindAutoUpdateId(u"_3").IsValid());
    EXPECT_FALSE(m->FindAutoUpdateId(u"Unknown_3").IsValid());
    // An exact name with "_" wins over the array reading; its own array
    // elements split at the last "_".
    id = m->FindAutoUpdateId(u"Bone_Tex_Param");
    EXPECT_EQ(id.Parts.Constant, 1);
    EXPECT_EQ(id.Parts.ArrayIndex, 0);
    EXPECT_EQ(m->FindAutoUpdateId(u"Bone_Tex_Param_12").Parts.ArrayIndex, 12);

    // Refusals, each logged.
    KovexTest::LogCapture log;
    EXPECT_FALSE(m->RegisterAutoUpdateConstant(u"BoneMatrices", 1, 0));
    EXPECT_TRUE(log->Contains(u"Can't register auto-update constant [BoneMatrices] in group 1.\n"));
    EXPECT_FALSE(m->RegisterAutoUpdateConstant(u"Free", 7, 0));
    EXPECT_FALSE(m->RegisterAutoUpdateConstant(u"Free", 0, ShaderConstant::kUpdateKinds));
    EXPECT_FALSE(m->RegisterAutoUpdateConstant(u"", 0, 0));
    EXPECT_EQ(m->RegisterUpdateConstantProcs(nullptr), -1);
    EXPECT_EQ(log->entries.Count(), 5u);
}

TEST(AutoUpdateConstants, ProgramsFileTheirConstantsByGroup)
{
    FreshManager fresh;
    AutoUpdateConstantManager* m = AutoUpdateConstantManager::Ins();
    m->RegisterUpdateConstantProcs(&RegisterCamera);
    m->RegisterUpdateConstantProcs(&RegisterSkin);
    Holder holder;
    ShaderConstant* view = holder.NewConstant(TSharedString<WString>(u"AUTest.ViewMatrix"));
    ShaderConstant* bone = holder.NewConstant(TSharedString<WString>(u"BoneMatrices_2"));
    ShaderConstant* plain = holder.NewConstant(TSharedString<WString>(u"MaterialColor"));
    EXPECT_TRUE(view->IsAutoUpdata());
    EXPECT_TRUE(bone->IsAutoUpdata());
    EXPECT_FALSE(plain->IsAutoUpdata());
    EXPECT_EQ(bone->GetAutoUpdateId().Parts.ArrayIndex, 2);
    EXPECT_EQ(bone->GetUpdateKind(), 2u);
    const auto* camera = holder.GetAutoUpdateConstants(0);
    const auto* skin = holder.GetAutoUpdateConstants(1);
    ASSERT_NE(camera, nullptr);
    ASSERT_NE(skin, nullptr);
    EXPECT_EQ(camera->ByKind[0].Count(), 1u);
    EXPECT_EQ(camera->ByKind[0][0], view);
    EXPECT_EQ(skin->ByKind[2].Count(), 1u);
    EXPECT_EQ(skin->ByKind[2][0], bone);

    // Destroy puts the previous resolver back: nothing resolves any more.
    AutoUpdateConstantManager::Destroy();
    Holder after;
    EXPECT_FALSE(after.NewConstant(TSharedString<WString>(u"AUTest.ViewMatrix"))->IsAutoUpdata());
}

TEST(AutoUpdateConstantThreads, LookupsRunBesideRegistrations)
{
    FreshManager fresh;
    AutoUpdateConstantManager* m = AutoUpdateConstantManager::Ins();
    m->RegisterUpdateConstantProcs(&RegisterSkin);
    std::atomic<bool> stop{false};
    std::atomic<int> wrong{0};
    std::vector<std::thread> readers;
    for (int t = 0; t < 3; ++t)
        readers.emplace_back([&] {
            Holder holder;
            for (int i = 0; !stop.load() || i < 200; ++i)
            {
                auto id = m->FindAutoUpdateId(u"BoneMatrices_5");
                if (!id.IsValid() || id.Parts.ArrayIndex != 5)
                    wrong.fetch_add(1);
                if (i < 200)
                    holder.NewConstant(TSharedString<WString>(WString(u"BoneMatrices_") + WString(i % 200)));
            }
        });
    for (int g = 0; g < 50; ++g)
        m->RegisterUpdateConstantProcs([](unsigned char group) {
            AutoUpdateConstantManager::Ins()->RegisterAutoUpdateConstant(WString(u"AUThreads.") + WString(int(group)),
                                                                          group, 1);
        });
    stop.store(true);
    for (auto& t : readers)
        t.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(m->GetNumGroups(), 51u);
    EXPECT_TRUE(m->FindAutoUpdateId(u"AUThreads.50").IsValid());
}
