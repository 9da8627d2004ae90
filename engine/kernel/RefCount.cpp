#include "kernel/RefCount.h"

#include <pthread.h>

#include <cstdio>
#include <cstdlib>

#include "kernel/Sanitizers.h"

#if KOVEX_ASAN
#include <sanitizer/asan_interface.h>
#endif

namespace KovexEngine {

// Out of line so that the class's virtual table lives in the library.
ReferenceObj::~ReferenceObj() = default;

namespace {

struct StackRange
{
    const char* low = nullptr;
    const char* high = nullptr;
};

// The calling thread's stack, looked up once per thread.
const StackRange& ThreadStack()
{
    thread_local StackRange range = [] {
        StackRange r;
        pthread_attr_t attr;
        if (pthread_getattr_np(pthread_self(), &attr) == 0)
        {
            void* base = nullptr;
            size_t size = 0;
            if (pthread_attr_getstack(&attr, &base, &size) == 0)
            {
                r.low = static_cast<const char*>(base);
                r.high = r.low + size;
            }
            pthread_attr_destroy(&attr);
        }
        return r;
    }();
    return range;
}

} // namespace

void ReferenceObj::CheckNotOnStack() const
{
    const char* self = reinterpret_cast<const char*>(this);
    const StackRange& stack = ThreadStack();
    bool onStack = self >= stack.low && self < stack.high;
#if KOVEX_ASAN
    // AddressSanitizer may keep locals in a "fake stack" on the heap.
    if (void* fake = __asan_get_current_fake_stack())
        onStack = onStack || __asan_addr_is_in_fake_stack(fake, const_cast<char*>(self), nullptr, nullptr);
#endif
    if (!onStack)
        return;
    std::fprintf(stderr,
                 "KovexEngine: a reference-counted object at %p lies on the stack, and a Ptr now owns it: "
                 "its last release would delete a non-heap address. Create it with new.\n",
                 static_cast<const void*>(this));
    std::abort();
}

} // namespace KovexEngine
