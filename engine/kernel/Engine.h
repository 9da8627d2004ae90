#pragma once

#include "kernel/Strings.h"
#include "kernel/Timer.h"

namespace KovexEngine {

// How resource factories decide whether a cached resource is stale.
enum KOVEX_CACHE_STRATEGY : int
{
    // Resources never expire: time stamps read as unknown.
    KOVEX_CACHE_DEFAULT = 0,
    // A file changed on disk invalidates the resource cached from it.
    KOVEX_CACHE_TIME_MASKED = 1,
};

// --- Process-wide switches and state ---------------------------------------------
KOVEX_API extern uint64 g_FrameIndex;
KOVEX_API extern uint32 g_GraphicsCommandCounter;
KOVEX_API extern bool g_IsNullRenderer;
KOVEX_API extern bool g_kovexAsyncLoading;
KOVEX_API extern bool g_kovexCacheShaders;
KOVEX_API extern bool g_kovexLoadShadersFromCache;
KOVEX_API extern uint32 g_kovexMainThreadId;
KOVEX_API extern bool g_kovexMobileDevice;
KOVEX_API extern WString g_kovexRootPath;
KOVEX_API extern Timer g_kovexTimer;

// --- Lifecycle ---------------------------------------------------------------------
// The application's order: Kovex_Main_Initialize (which brings up the System
// and Renderer layers), Kovex_Main_LoadRequiredData, the renderer, frames
// bracketed by Kovex_FrameBegin/Kovex_FrameEnd; then the three Terminates
// (Main, Renderer, System) and last the three Cleanups in the same order.
// All of these run on the main thread.

KOVEX_API void Kovex_SetCacheStrategy(KOVEX_CACHE_STRATEGY strategy);
KOVEX_API KOVEX_CACHE_STRATEGY Kovex_GetCacheStrategy();

KOVEX_API void Kovex_System_Initialize();
KOVEX_API void Kovex_System_Terminate();
KOVEX_API void Kovex_System_Cleanup();
KOVEX_API bool Kovex_System_IsInited();

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

KOVEX_API void Kovex_FrameBegin();
KOVEX_API void Kovex_FrameEnd();

// The identifier of the calling thread, as g_kovexMainThreadId holds it.
KOVEX_API uint32 Kovex_GetCurrentThreadId();

} // namespace KovexEngine
