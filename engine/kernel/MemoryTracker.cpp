#include "kernel/MemoryTracker.h"

#include "kernel/Log.h"

namespace KovexEngine {

MemoryTracker::MemState::~MemState() = default;

MemoryTracker::MemState* MemoryTracker::BeginCapture() { return nullptr; }

void MemoryTracker::EndCapture(MemState*) {}

void MemoryTracker::ReportLeaks()
{
    Log::Print(LOG_INFO, u"==================Memory Leaks==================\n");
    Log::Print(LOG_INFO, u"==================End==================\n");
}

} // namespace KovexEngine
