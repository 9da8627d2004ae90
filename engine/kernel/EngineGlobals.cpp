#include "kernel/EngineGlobals.h"

#include <sys/syscall.h>
#include <unistd.h>

namespace KovexEngine {

uint64 g_FrameIndex = 0;
uint32 g_GraphicsCommandCounter = 0;
bool g_IsNullRenderer = false;
bool g_kovexAsyncLoading = true;
bool g_kovexCacheShaders = false;
bool g_kovexLoadShadersFromCache = false;
uint32 g_kovexMainThreadId = 0;
bool g_kovexMobileDevice = false;
WString g_kovexRootPath;
Timer g_kovexTimer;

namespace LifecycleState {
bool systemInited = false;
KOVEX_CACHE_STRATEGY cacheStrategy = KOVEX_CACHE_DEFAULT;
} // namespace LifecycleState

uint32 Kovex_GetCurrentThreadId() { return uint32(::syscall(SYS_gettid)); }

void Kovex_SetCacheStrategy(KOVEX_CACHE_STRATEGY strategy)
{
    if (!LifecycleState::systemInited)
        LifecycleState::cacheStrategy = strategy;
}

KOVEX_CACHE_STRATEGY Kovex_GetCacheStrategy() { return LifecycleState::cacheStrategy; }

bool Kovex_System_IsInited() { return LifecycleState::systemInited; }

} // namespace KovexEngine
