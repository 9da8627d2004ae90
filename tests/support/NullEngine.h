#pragma once

#include "graphics/Renderer.h"
#include "kernel/EngineGlobals.h"
#include "lifecycle/Engine.h"

namespace KovexTest {

// The engine brought up on the null renderer for one test, and taken down
// again in the lifecycle's order.
class NullEngine
{
public:
    explicit NullEngine(unsigned width = 320, unsigned height = 200)
    {
        using namespace KovexEngine;
        g_IsNullRenderer = true;
        Kovex_Main_Initialize();
        Renderer::SetupPlatformAuto();
        GraphicsParameters parameters;
        parameters.Width = width;
        parameters.Height = height;
        Kovex_InitRenderer(parameters);
    }
    ~NullEngine()
    {
        using namespace KovexEngine;
        Kovex_Main_Terminate();
        Kovex_Renderer_Terminate();
        Kovex_System_Terminate();
        g_IsNullRenderer = false;
    }
    NullEngine(const NullEngine&) = delete;
    NullEngine& operator=(const NullEngine&) = delete;
};

} // namespace KovexTest
