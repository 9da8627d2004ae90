// A first program: brings the engine up, finds its data, loads one resource,
// runs a few frames and shuts the engine down, checking every result.
//
// Build it against an installed engine with
//   find_package(KovexEngine REQUIRED)
//   target_link_libraries(first PRIVATE KovexEngine::KovexEngine)
// or with pkg-config:
//   g++ -std=c++20 first.cpp $(pkg-config --cflags --libs kovexengine)

#include <cstdio>

#include "KovexEngine.h"

using namespace KovexEngine;

namespace {
// Terminate every layer, then clean every layer up, in this order.
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

int main()
{
    g_IsNullRenderer = true; // no window: frames run without drawing
    Kovex_Main_Initialize();

    // The "Data" directory beside the executable or above it, else the
    // installed one.
    if (!Kovex_Main_LoadRequiredData(nullptr))
    {
        std::fprintf(stderr, "No data directory found.\n");
        ShutDown();
        return 1;
    }

    // Paths are relative to the data root.
    Ptr<Resource> greeting = Resource::LoadFromPath(WString(u"Samples/greeting.res"));
    if (!greeting)
    {
        std::fprintf(stderr, "Samples/greeting.res did not load.\n");
        ShutDown();
        return 1;
    }
    std::printf("Loaded \"%s\"\n", StringConvFuncs::ToAString(greeting->GetName()()).c_str());
    greeting = nullptr; // release it before the engine goes down

    for (int frame = 0; frame < 10; ++frame)
    {
        Kovex_FrameBegin();
        // update and draw here
        Kovex_FrameEnd();
    }
    std::printf("Ran %llu frames.\n", static_cast<unsigned long long>(g_FrameIndex));

    ShutDown();
    return 0;
}
