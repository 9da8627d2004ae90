#include "kernel/TimeAnalyzer.h"

#include <algorithm>

#include "kernel/Log.h"

namespace KovexEngine {

TimeAnalyzer g_TimeAnalyzer;

TimeAnalyzer::~TimeAnalyzer() { Clear(); }

void TimeAnalyzer::Begin(int id, const char* name)
{
    MutexLock lock(m_mutex);
    Entry** found = m_entries.FindValue(id);
    Entry* entry;
    if (found)
        entry = *found;
    else
    {
        entry = new Entry();
        entry->name = name;
        m_entries.Insert(id, entry);
    }
    ++entry->calls;
    if (entry->depth++ == 0)
        entry->startTicks = Timer::GetCPUTicks();
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
