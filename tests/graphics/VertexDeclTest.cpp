#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "graphics/VertexDecl.h"

using namespace KovexEngine;

namespace {
VertexElement E(GraphicsSemantic::TYPE name, uint32 index, GraphicsLayoutFormat::TYPE format, uint32 slot,
                uint32 offset)
{
    VertexElement e;
    e.Assign(name, index, format, slot, offset, GraphicsInputClass::PerVertex, 0);
    return e;
}
} // namespace

TEST(VertexDecl, StridesPerSlotAndLookUps)
{
    const VertexElement elements[] = {
        E(GraphicsSemantic::Position, 0, GraphicsLayoutFormat::Float3, 0, 0),
        E(GraphicsSemantic::TexCoord, 0, GraphicsLayoutFormat::Half2, 0, 12),
        E(GraphicsSemantic::TexCoord, 1, GraphicsLayoutFormat::UShort2N, 0, 16), // sized 0, as the table says
        E(GraphicsSemantic::Color, 0, GraphicsLayoutFormat::UByte4N, 3, 0),
        E(GraphicsSemantic::Normal, 0, GraphicsLayoutFormat::Float3, 40, 0), // beyond the slots: counted nowhere
    };
    VertexDecl decl(elements, 5);
    EXPECT_EQ(decl.ElementCount(), 5u);
    EXPECT_EQ(decl.GetFirstStride()[0], 16u);
    EXPECT_EQ(decl.GetFirstStride()[3], 4u);
    EXPECT_EQ(decl.GetFirstStride()[1], 0u);
    ASSERT_NE(decl.FindElement(GraphicsSemantic::TexCoord, 1), nullptr);
    EXPECT_EQ(decl.FindElement(GraphicsSemantic::TexCoord, 1)->AlignedByteOffset, 16u);
    EXPECT_EQ(decl.FindElement(GraphicsSemantic::Tangent, 0), nullptr);
    EXPECT_TRUE(decl.Equal(elements, 5));
    EXPECT_FALSE(decl.Equal(elements, 4));
    const VertexElement swapped[] = {elements[1], elements[0], elements[2], elements[3], elements[4]};
    EXPECT_FALSE(decl.Equal(swapped, 5)) << "order counts";
}

TEST(VertexDecl, ManagerMakesEachLayoutOnce)
{
    VertexDeclManager::Destroy();
    const VertexElement a[] = {E(GraphicsSemantic::Position, 0, GraphicsLayoutFormat::Float3, 0, 0)};
    const VertexElement b[] = {E(GraphicsSemantic::Position, 0, GraphicsLayoutFormat::Float4, 0, 0)};
    Ptr<VertexDecl> first = VertexDeclManager::Ins()->Create(a, 1);
    EXPECT_EQ(VertexDeclManager::Ins()->Create(a, 1).Get(), first.Get());
    EXPECT_NE(VertexDeclManager::Ins()->Create(b, 1).Get(), first.Get());
    EXPECT_FALSE(VertexDeclManager::Ins()->Create(nullptr, 3));
    EXPECT_FALSE(VertexDeclManager::Ins()->Create(a, 0));
    EXPECT_EQ(VertexDeclManager::Ins()->Count(), 2u);
    VertexDeclManager::Destroy();
    EXPECT_EQ(first->ElementCount(), 1u) << "a held declaration outlives the manager";
}

// Loader threads ask for the same few layouts at once: one object per layout.
TEST(VertexDeclThreads, ConcurrentCreatesAgree)
{
    VertexDeclManager::Destroy();
    constexpr int kThreads = 4, kRounds = 2000, kLayouts = 7;
    std::vector<std::vector<VertexDecl*>> seen(kThreads, std::vector<VertexDecl*>(kLayouts, nullptr));
    std::vector<std::thread> threads;
    std::atomic<int> mismatches{0};
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < kRounds; ++i)
            {
                int layout = (i + t) % kLayouts;
                const VertexElement e[] = {E(GraphicsSemantic::Position, 0, GraphicsLayoutFormat::Float3, 0, 0),
                                           E(GraphicsSemantic::TexCoord, uint32(layout), GraphicsLayoutFormat::Float2, 0, 12)};
                Ptr<VertexDecl> decl = VertexDeclManager::Ins()->Create(e, 2);
                VertexDecl*& slot = seen[t][layout];
                if (slot && slot != decl.Get())
                    ++mismatches;
                slot = decl.Get();
            }
        });
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(mismatches.load(), 0);
    EXPECT_EQ(VertexDeclManager::Ins()->Count(), unsigned(kLayouts));
    for (int t = 1; t < kThreads; ++t)
        EXPECT_EQ(seen[t], seen[0]);
    VertexDeclManager::Destroy();
}
