// The engine's demo: brings the engine up, finds its data root, runs frames
// on the null path and reports what the frame clock measured.

#include <cstdio>
#include <cstdlib>

#include "KovexEngine.h"

using namespace KovexEngine;

namespace {
void ShutDown()
{
    Kovex_Main_Terminate();
    Kovex_Renderer_Terminate();
    Kovex_System_Terminate();
    Kovex_Main_Cleanup();
    Kovex_Renderer_Cleanup();
    Kovex_System_Cleanup();
}
} // namespace

int main(int argc, char** argv)
{
    unsigned frames = 300;
    if (argc > 1)
    {
        AString count(argv[1]);
        uint32 value = 0;
        if (!count.AsValue(value) || value == 0 || value > 10000000)
        {
            std::fprintf(stderr, "usage: %s [frames]\n", argv[0]);
            return 2;
        }
        frames = value;
    }

    g_IsNullRenderer = true;
    Kovex_Main_Initialize();
    if (!Kovex_Main_LoadRequiredData(nullptr))
    {
        std::fprintf(stderr, "No \"Data\" directory was found beside the executable or above it.\n");
        ShutDown();
        return 1;
    }
    std::printf("Data root: %s\n", StringConvFuncs::ToAString(g_kovexRootPath()).c_str());

    double shortest = 1e30, longest = 0;
    for (unsigned i = 0; i < frames; ++i)
    {
        Kovex_FrameBegin();
        double delta = g_kovexTimer.GetDeltaTime();
        if (i > 0)
        {
            shortest = delta < shortest ? delta : shortest;
            longest = delta > longest ? delta : longest;
        }
        Kovex_FrameEnd();
    }

    AString report;
    report.Format("Frames: %I64u in %.3f ms (%.3f us a frame; shortest %.3f us, longest %.3f us)\n",
                  (unsigned long long)g_FrameIndex, g_kovexTimer.GetElapsedTime() * 1e3,
                  g_kovexTimer.GetElapsedTime() * 1e6 / double(frames), shortest * 1e6, longest * 1e6);
    std::fputs(report(), stdout);

    ShutDown();
    std::printf("Engine shut down cleanly.\n");
    return EXIT_SUCCESS;
}
