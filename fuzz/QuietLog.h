// Fuzz targets log into a proxy that drops every line: the formatting code
// still runs on hostile text (a proxy must want the level for that), while
// the output stays silent.

#pragma once

#include "kernel/Log.h"

namespace KovexFuzz {

struct QuietProxy : KovexEngine::LogProxy
{
    void Print(unsigned, const char16_t*) override {}
};

// Replaces whatever proxies are installed by the quiet one; once per process.
inline void QuietLog()
{
    static bool done = [] {
        KovexEngine::Log::Clear();
        KovexEngine::Log::AddProxy(KovexEngine::Ptr<KovexEngine::LogProxy>(new QuietProxy()));
        return true;
    }();
    (void)done;
}

} // namespace KovexFuzz
