#include "kernel/Timer.h"

#include <time.h>

namespace KovexEngine {
namespace {
// CLOCK_MONOTONIC counts nanoseconds, so the frequency is fixed.
constexpr double kSecondsPerTick = 1e-9;
} // namespace

Timer::Timer() { Setup(); }

void Timer::Setup() {}

double Timer::GetSecondsPerTick() { return kSecondsPerTick; }

int64 Timer::GetCPUTicks()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

double Timer::TicksToSeconds(int64 ticks) { return double(ticks) * kSecondsPerTick; }

void Timer::Start()
{
    m_elapsedTime = m_deltaTime = 0;
    m_elapsedTime32 = m_deltaTime32 = 0;
    m_lastTick = GetCPUTicks();
}

void Timer::Update() { UpdateTo(GetCPUTicks()); }

void Timer::UpdateTo(int64 ticks)
{
    int64 difference = int64(uint64(ticks) - uint64(m_lastTick));
    m_lastTick = ticks;
    m_deltaTime = double(difference) * kSecondsPerTick;
    m_elapsedTime += m_deltaTime;
    m_deltaTime32 = float(m_deltaTime);
    m_elapsedTime32 = float(m_elapsedTime);
}

} // namespace KovexEngine
