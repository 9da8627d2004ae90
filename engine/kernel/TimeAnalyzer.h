#pragma once

#include "kernel/Containers.h"
#include "kernel/Strings.h"
#include "kernel/Thread.h"
#include "kernel/Timer.h"

namespace KovexEngine {

// A profiler of named sections. Begin and End nest per id; only the
// outermost span is timed. Safe from any thread.
class KOVEX_API TimeAnalyzer
{
public:
    TimeAnalyzer() = default;
    ~TimeAnalyzer();
    TimeAnalyzer(const TimeAnalyzer&) = delete;
    TimeAnalyzer& operator=(const TimeAnalyzer&) = delete;

    void Begin(int id, const char* name);
    void End(int id);
    // One call of a span timed elsewhere (on the GPU, say), in seconds; a
    // negative, NaN or absurd span is dropped.
    void Add(int id, const char* name, double seconds);
    // Deletes every entry.
    void Clear();
    // Zeroes the numbers and keeps the names.
    void Reset();
    // A table, greatest total first: "  time(ms)    calls    name  \n" and a
    // line " %8.3f %8.3f %s \n" per entry, both numbers times `scale`.
    void Analyze(AString& out, double scale);

    struct Entry
    {
        int64 totalTicks = 0;
        int64 startTicks = 0;
        uint32 calls = 0;
        uint32 depth = 0;
        AString name;
    };
    // A copy of an entry's numbers; false for an unknown id.
    bool GetEntry(int id, Entry& out);

private:
    Entry* FindOrAdd(int id, const char* name);

    Mutex m_mutex;
    TMap<int, Entry*> m_entries;
};

KOVEX_API extern TimeAnalyzer g_TimeAnalyzer;

// Logs, at level 1 when it leaves scope, the milliseconds since it was made.
class KOVEX_API OutputDeltaTime
{
public:
    // `format` takes one double; null means "Delta Time is %lf ms.\n".
    explicit OutputDeltaTime(const char16_t* format = nullptr);
    ~OutputDeltaTime();
    OutputDeltaTime(const OutputDeltaTime&) = delete;
    OutputDeltaTime& operator=(const OutputDeltaTime&) = delete;

private:
    Timer m_timer;
    const char16_t* m_format;
};

} // namespace KovexEngine
