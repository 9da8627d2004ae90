#include "kernel/TimeAnalyzer.h"

#include <algorithm>

#include "kernel/Log.h"

namespace KovexEngine {

TimeAnalyzer g_TimeAnalyzer;

TimeAnalyzer::~TimeAnalyzer() { Clear(); }

TimeAnalyzer::Entry* TimeAnalyzer::FindOrAdd(int id, const char* name)
{
    Entry** found = m_entries.FindValue(id);
    if (found)
        return *found;
    Entry* entry = new Entry();
    entry->name = name;
    m_entries.Insert(id, entry);
    return entry;
}

void TimeAnalyzer::Begin(int id, const char* name)
{
    MutexLock lock(m_mutex);
    Entry* entry = FindOrAdd(id, name);
    ++entry->calls;
    if (entry->depth++ == 0)
        entry->startTicks = Timer::GetCPUTicks();
}

void TimeAnalyzer::Add(int id, const char* name, double seconds)
{
    if (!(seconds >= 0.0) || seconds > 1.0e6)
        return;
    MutexLock lock(m_mutex);
    Entry* entry = FindOrAdd(id, name);
    ++entry->calls;
    entry->totalTicks += int64(seconds / Timer::GetSecondsPerTick());
}

void TimeAnalyzer::End(int id)
{
    int64 now = Timer::GetCPUTicks();
    MutexLock lock(m_mutex);
    Entry** found = m_entries.FindValue(id);
    // Ending what was never begun is ignored rather than trusted.
    if (!found || (*found)->depth == 0)
        return;
    Entry* entry = *found;
    if (--entry->depth == 0)
        entry->totalTicks += now - entry->startTicks;
}

void TimeAnalyzer::Clear()
{
    MutexLock lock(m_mutex);
    for (auto& pair : m_entries)
        delete pair.value;
    m_entries.Free();
}

void TimeAnalyzer::Reset()
{
    MutexLock lock(m_mutex);
    for (auto& pair : m_entries)
    {
        pair.value->totalTicks = 0;
        pair.value->startTicks = 0;
        pair.value->calls = 0;
        pair.value->depth = 0;
    }
}

bool TimeAnalyzer::GetEntry(int id, Entry& out)
{
    MutexLock lock(m_mutex);
    Entry** found = m_entries.FindValue(id);
    if (!found)
        return false;
    out = **found;
    return true;
}

void TimeAnalyzer::Analyze(AString& out, double scale)
{
    TArray<Entry> entries;
    {
        MutexLock lock(m_mutex);
        for (auto& pair : m_entries)
            entries.Add(*pair.value);
    }
    std::stable_sort(entries.begin(), entries.end(),
                     [](const Entry& a, const Entry& b) { return a.totalTicks > b.totalTicks; });
    out.Reserve(out.Length() + 64 * (entries.Count() + 1));
    out.Append("  time(ms)    calls    name  \n");
    for (const Entry& entry : entries)
        out.AppendFormat(" %8.3f %8.3f %s \n", Timer::TicksToSeconds(entry.totalTicks) * 1000.0 * scale,
                         double(entry.calls) * scale, entry.name());
}

OutputDeltaTime::OutputDeltaTime(const char16_t* format) : m_format(format) { m_timer.Start(); }

OutputDeltaTime::~OutputDeltaTime()
{
    m_timer.Update();
    Log::Format(LOG_INFO, m_format ? m_format : u"Delta Time is %lf ms.\n", m_timer.GetDeltaTime() * 1000.0);
}

} // namespace KovexEngine
