#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

#include "support/DecimalCommaLocale.h"

// Exit status CTest reads as "skipped".
constexpr int kSkipped = 77;

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    // The locale run: every selected suite under a decimal-comma locale, as
    // an application on a German desktop would have it.
    if (std::getenv("KOVEX_TEST_DECIMAL_COMMA"))
    {
        std::string error = KovexTest::DecimalCommaLocale::Enter();
        if (!error.empty())
        {
            std::fprintf(stderr, "Skipping the decimal-comma run: %s\n", error.c_str());
            return kSkipped;
        }
    }
    return RUN_ALL_TESTS();
}
