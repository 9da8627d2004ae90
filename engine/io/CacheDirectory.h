#pragma once

// Where the engine keeps what it derives and may throw away (compiled
// programs, the device's pipeline cache): the root path when the engine may
// write there, else the user's cache directory ($XDG_CACHE_HOME/KovexEngine/,
// by default ~/.cache/KovexEngine/), so that an installed engine with
// read-only data still caches.
//
// Threads: safe from any thread.

#include "kernel/Strings.h"

namespace KovexEngine {

// The directory, with a trailing '/', made when it is missing. Empty, with
// the log line "No writable cache directory.\n", when neither place can be
// written.
KOVEX_API WString GetEngineCacheDirectory();

} // namespace KovexEngine
