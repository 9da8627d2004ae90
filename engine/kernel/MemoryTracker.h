#pragma once

#include "kernel/Types.h"

namespace KovexEngine {

// The seam for a tracking allocator. This build tracks nothing: captures are
// null and the leak report is empty.
class KOVEX_API MemoryTracker
{
public:
    class KOVEX_API MemState
    {
    public:
        virtual ~MemState();
    };

    static MemState* BeginCapture();
    static void EndCapture(MemState* state);
    static void ReportLeaks();
};

} // namespace KovexEngine
