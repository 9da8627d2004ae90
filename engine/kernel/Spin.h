#pragma once

#include <sched.h>

namespace KovexEngine {

// A busy wait that pauses the core and, after a bounded number of spins,
// yields: on two cores a pure spin starves the thread it waits for.
class SpinWait
{
public:
    void Pause()
    {
        if (++m_spins < kSpinsBeforeYield)
        {
#if defined(__x86_64__) || defined(__i386__)
            __builtin_ia32_pause();
#elif defined(__aarch64__)
            asm volatile("yield");
#endif
        }
        else
        {
            m_spins = 0;
            sched_yield();
        }
    }

private:
    static constexpr unsigned kSpinsBeforeYield = 64;
    unsigned m_spins = 0;
};

} // namespace KovexEngine
