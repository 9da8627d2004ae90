#pragma once

#include "kernel/Types.h"

namespace KovexEngine {

// A high-resolution clock over the monotonic counter (nanosecond ticks).
class KOVEX_API Timer
{
public:
    Timer();

    // Computes the seconds per tick once per process.
    static void Setup();
    static int64 GetCPUTicks();
    static double TicksToSeconds(int64 ticks);
    static double GetSecondsPerTick();

    // Zeroes elapsed and delta and takes the counter as the last tick.
    void Start();
    // Delta is the time since the last tick; elapsed grows by it.
    void Update();
    // Advances by a counter reading taken by the caller.
    void UpdateTo(int64 ticks);

    double GetDeltaTime() const { return m_deltaTime; }
    double GetElapsedTime() const { return m_elapsedTime; }
    float GetDeltaTime32() const { return m_deltaTime32; }
    float GetElapsedTime32() const { return m_elapsedTime32; }
    int64 GetLastTick() const { return m_lastTick; }

private:
    double m_elapsedTime = 0;
    double m_deltaTime = 0;
    float m_deltaTime32 = 0;
    float m_elapsedTime32 = 0;
    int64 m_lastTick = 0;
};

} // namespace KovexEngine
