#pragma once

#include <cstddef>

// Counts the heap allocations made through malloc (and so by the engine's
// strings) while a scope is alive, on any thread.
namespace KovexTest {

size_t MallocCount();
// The bytes asked for by those allocations.
size_t MallocBytes();

class AllocationScope
{
public:
    AllocationScope() : m_start(MallocCount()), m_startBytes(MallocBytes()) {}
    size_t Count() const { return MallocCount() - m_start; }
    size_t Bytes() const { return MallocBytes() - m_startBytes; }

private:
    size_t m_start;
    size_t m_startBytes;
};

} // namespace KovexTest
