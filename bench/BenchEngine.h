#pragma once

// The engine brought up on the null renderer with a 64x64 device, as the
// benchmarks that need factories but no pixels start it.

#include "KovexEngine.h"

inline void StartNullEngine()
{
    using namespace KovexEngine;
    g_IsNullRenderer = true;
    Kovex_Main_Initialize();
    Log::Clear();
    Renderer::SetupPlatformAuto();
    GraphicsParameters parameters;
    parameters.Width = 64;
    parameters.Height = 64;
    Kovex_InitRenderer(parameters);
}
