// Compile workers share one "shader.cache": several threads cache and read
// back different programs at once, and a later run finds them all.

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "shaders/ProgramCachedLibrary.h"
#include "support/TempDir.h"
#include "shaders/ShaderCacheTestSupport.h"

using namespace KovexEngine;
using namespace KovexTest;

TEST(ShaderCacheThreads, WorkersCacheAndLoadIntoOneFile)
{
    TempDir dir;
    const std::string path = dir.path + "/shader.cache";
    Reopen(path);
    constexpr unsigned kThreads = 4, kEach = 20;
    auto keyOf = [](unsigned t, unsigned i) {
        return MakeKey("[T" + std::to_string(t % 2) + "];", "F" + std::to_string(t) + "@f#" + std::to_string(i),
                       "A" + std::to_string(i % 3) + "@a#0", "M" + std::to_string(t) + "@m#0");
    };
    auto stagesOf = [](unsigned t, unsigned i, std::string (&s)[6]) {
        s[0] = FakeCode(t * 1000 + i, 2 + i % 7);
        s[1] = FakeCode(t * 1000 + i + 500, 3);
        if (i % 4 == 0)
            s[2] = FakeCode(t + i, 5);
    };
    std::atomic<int> bad{0};
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            ProgramCachedLibrary* lib = ProgramCachedLibrary::Ins();
            for (unsigned i = 0; i < kEach; ++i)
            {
                std::string s[6];
                stagesOf(t, i, s);
                auto key = keyOf(t, i);
                const ProgramCachedLibrary::Record* r = CacheStrings(key, s);
                if (!r)
                {
                    ++bad;
                    continue;
                }
                // Read back one written earlier by this thread.
                auto earlier = keyOf(t, i / 2);
                const ProgramCachedLibrary::Record* e = lib->Find(earlier);
                TArray<uint8> codes[6];
                std::string expect[6];
                stagesOf(t, i / 2, expect);
                if (!e || !lib->ReadStages(*e, codes) ||
                    std::string(reinterpret_cast<const char*>(codes[0].Data()), codes[0].Count()) != expect[0])
                    ++bad;
            }
        });
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(bad.load(), 0);

    Reopen(path);
    ProgramCachedLibrary* lib = ProgramCachedLibrary::Ins();
    EXPECT_EQ(lib->GetCount(), kThreads * kEach);
    for (unsigned t = 0; t < kThreads; ++t)
        for (unsigned i = 0; i < kEach; ++i)
        {
            const ProgramCachedLibrary::Record* r = lib->Find(keyOf(t, i));
            ASSERT_NE(r, nullptr) << t << " " << i;
            TArray<uint8> codes[6];
            std::string expect[6];
            stagesOf(t, i, expect);
            ASSERT_TRUE(lib->ReadStages(*r, codes));
            for (unsigned s = 0; s < 6; ++s)
                EXPECT_EQ(std::string(reinterpret_cast<const char*>(codes[s].Data()), codes[s].Count()), expect[s]);
        }
    CacheFile f = CacheFile::Read(ReadWhole(path));
    EXPECT_TRUE(f.ok);
    EXPECT_EQ(f.count, kThreads * kEach);
    ProgramCachedLibrary::Destroy();
}
