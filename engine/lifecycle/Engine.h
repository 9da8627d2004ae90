#pragma once

#include "kernel/EngineGlobals.h"

namespace KovexEngine {

struct GraphicsParameters;

// --- Lifecycle ---------------------------------------------------------------------
// The application's order: Kovex_Main_Initialize (which brings up the System
// and Renderer layers), Kovex_Main_LoadRequiredData, the renderer, frames
// bracketed by Kovex_FrameBegin/Kovex_FrameEnd; then the three Terminates
// (Main, Renderer, System) and last the three Cleanups in the same order.
// All of these run on the main thread.

// The process-wide globals, Kovex_SetCacheStrategy, Kovex_GetCacheStrategy,
// Kovex_System_IsInited and Kovex_GetCurrentThreadId are in
// kernel/EngineGlobals.h, where the layers below this one read them.

KOVEX_API void Kovex_System_Initialize();
KOVEX_API void Kovex_System_Terminate();
KOVEX_API void Kovex_System_Cleanup();

KOVEX_API void Kovex_Renderer_Initialize();
KOVEX_API void Kovex_Renderer_Terminate();
KOVEX_API void Kovex_Renderer_Cleanup();
KOVEX_API bool Kovex_Renderer_IsInited();

KOVEX_API void Kovex_Main_Initialize();
KOVEX_API void Kovex_Main_Terminate();
KOVEX_API void Kovex_Main_Cleanup();
KOVEX_API bool Kovex_Main_IsInited();

// Sets the root of the engine's data. A given path is taken as it stands
// (it should end with "/"; a warning is logged when it does not, or when the
// directory is missing). A null path searches for a directory named "Data"
// beside the executable and then in each directory above it; failing that,
// the installed data (<prefix>/share/KovexEngine/Data, beside this library's
// installation first) and then the source tree's Data directory the library
// was built from.
KOVEX_API bool Kovex_SetRootPath(const char16_t* path);
// Full path of the running executable.
KOVEX_API void Kovex_GetSelfFileName(WString& out);
KOVEX_API bool Kovex_Main_LoadRequiredData(const char16_t* rootPath);

// Opens the device of g_ptrRenderer (made by Renderer::SetupPlatform or
// SetupPlatformAuto); its result is the renderer's state and the log. With
// the graphics thread started, one empty frame runs so that the device's
// creations are done on return. Nothing happens without a renderer.
KOVEX_API void Kovex_InitRenderer(const GraphicsParameters& parameters);
KOVEX_API void Kovex_FrameBegin();
KOVEX_API void Kovex_FrameEnd();

} // namespace KovexEngine
