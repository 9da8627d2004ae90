#pragma once

#include "kernel/Types.h"

namespace KovexEngine {

// The engine's own 15-bit generator: Next() gives 0 to 32767, the range
// code written against the C library's rand() expects. Each owner keeps its
// own state, so a seeded sequence replays exactly on every platform.
class Random15
{
public:
    static constexpr uint32 kMax = 32767;

    explicit constexpr Random15(uint32 seed = 1) : m_state(seed) {}
    constexpr void Seed(uint32 seed) { m_state = seed; }
    constexpr uint32 GetState() const { return m_state; }
    constexpr uint32 Next()
    {
        m_state = m_state * 214013u + 2531011u;
        return (m_state >> 16) & kMax;
    }
    // A number in [0, 1], both ends included.
    constexpr float NextUnit() { return float(Next()) / float(kMax); }

private:
    uint32 m_state;
};

} // namespace KovexEngine
