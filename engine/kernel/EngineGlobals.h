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
// Written by the application and the lifecycle, read by every layer; kept
// here, at the bottom, so that no layer has to reach up to the lifecycle.
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

// Main thread only: stores the strategy, ignored once the System layer is
// initialised.
KOVEX_API void Kovex_SetCacheStrategy(KOVEX_CACHE_STRATEGY strategy);
KOVEX_API KOVEX_CACHE_STRATEGY Kovex_GetCacheStrategy();
// Whether the System layer stands (Kovex_System_Initialize has run and no
// Kovex_System_Terminate since).
KOVEX_API bool Kovex_System_IsInited();

// The identifier of the calling thread, as g_kovexMainThreadId holds it.
KOVEX_API uint32 Kovex_GetCurrentThreadId();

// The lifecycle's own state that the layers below it read. Written by the
// lifecycle only.
namespace LifecycleState {
extern bool systemInited;
extern KOVEX_CACHE_STRATEGY cacheStrategy;
} // namespace LifecycleState

} // namespace KovexEngine
