#pragma once

#include <cstddef>

// Counts the heap allocations made through malloc (and so by the engine's
// strings) while a scope is alive, on any thread.
namespace KovexTest {

size_t MallocCount();

class AllocationScope
{
public:
    AllocationScope() : m_start(MallocCount()) {}
    size_t Count() const { return MallocCount() - m_start; }

private:
    size_t m_start;
};

} // namespace KovexTest
