#include "support/AllocCounter.h"

#include <atomic>
#include <cstdlib>

namespace {
std::atomic<size_t> s_mallocs{0};
std::atomic<size_t> s_mallocBytes{0};
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// The sanitizer owns malloc; it reports each allocation through this hook.
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*)(const volatile void*, size_t),
                                                          void (*)(const volatile void*));
namespace {
void OnMalloc(const volatile void*, size_t size)
{
    s_mallocs.fetch_add(1, std::memory_order_relaxed);
    s_mallocBytes.fetch_add(size, std::memory_order_relaxed);
}
void OnFree(const volatile void*) {}
const int s_installed = __sanitizer_install_malloc_and_free_hooks(OnMalloc, OnFree);
} // namespace
#else
// Interpose malloc itself: the library's calls resolve to this definition.
extern "C" void* __libc_malloc(size_t);
extern "C" void* malloc(size_t size)
{
    s_mallocs.fetch_add(1, std::memory_order_relaxed);
    s_mallocBytes.fetch_add(size, std::memory_order_relaxed);
    return __libc_malloc(size);
}
#endif

namespace KovexTest {
size_t MallocCount() { return s_mallocs.load(std::memory_order_relaxed); }
size_t MallocBytes() { return s_mallocBytes.load(std::memory_order_relaxed); }
} // namespace KovexTest
