#include "kernel/Log.h"

#include <unistd.h>

#include <cstdio>

#include "kernel/Containers.h"
#include "kernel/StringConv.h"

namespace KovexEngine {

TArray<Ptr<LogProxy>>* Log::ms_proxis = nullptr;

LogProxy::~LogProxy() = default;

const char16_t* LogProxy::GetBanner(unsigned int level)
{
    switch (level)
    {
    case LOG_INFO: return u"<<<Info>>>\n";
    case LOG_NOTICE: return u"<<<Notice>>>\n";
    case LOG_WARNING: return u"<<<Warning>>>\n";
    case LOG_ERROR: return u"<<<Error>>>\n";
    case LOG_CRITICAL: return u"<<<Critical>>>\n";
    default: return nullptr;
    }
}

void LogProxy_DebugOutput::Print(unsigned int level, const char16_t* text)
{
    AString utf8;
    StringConvFuncs::UTF16toUTF8(utf8, text);
    // Errors stand out with their banner, as a message box would.
    if (level == LOG_ERROR || level == LOG_CRITICAL)
    {
        AString banner;
        StringConvFuncs::UTF16toUTF8(banner, GetBanner(level));
        utf8 = banner + utf8;
    }
    ssize_t ignored = ::write(STDERR_FILENO, utf8(), utf8.Length());
    (void)ignored;
    m_lastLevel = level;
}

void Log::Init()
{
    if (!ms_proxis)
        ms_proxis = new TArray<Ptr<LogProxy>>();
    if (ms_proxis->IsEmpty())
        ms_proxis->Add(Ptr<LogProxy>(new LogProxy_DebugOutput()));
}

void Log::Clear()
{
    delete ms_proxis;
    ms_proxis = nullptr;
}

void Log::AddProxy(const Ptr<LogProxy>& proxy)
{
    if (!ms_proxis)
        ms_proxis = new TArray<Ptr<LogProxy>>();
    ms_proxis->Add(proxy);
}

void Log::RemoveProxy(const Ptr<LogProxy>& proxy)
{
    if (ms_proxis)
        ms_proxis->Remove(proxy);
}

bool Log::HasProxies() { return ms_proxis && !ms_proxis->IsEmpty(); }

bool Log::IsLevelWanted(unsigned int level)
{
    if (!ms_proxis)
        return false;
    for (const Ptr<LogProxy>& proxy : *ms_proxis)
        if (proxy->Accepts(level))
            return true;
    return false;
}

void Log::Print(unsigned int level, const char16_t* text)
{
    if (!ms_proxis || !text)
        return;
    for (const Ptr<LogProxy>& proxy : *ms_proxis)
        if (proxy->Accepts(level))
            proxy->Print(level, text);
}

void Log::Format(unsigned int level, const char16_t* format, ...)
{
    if (!IsLevelWanted(level))
        return;
    va_list args;
    va_start(args, format);
    WString text;
    text.FormatArgList(format, args);
    va_end(args);
    Print(level, text());
}

void Log::Format(unsigned int level, unsigned size, const char16_t* format, ...)
{
    if (!IsLevelWanted(level))
        return;
    va_list args;
    va_start(args, format);
    WString text;
    text.FormatArgList(size, format, args);
    va_end(args);
    Print(level, text());
}

unsigned Log::GetNumProcessors()
{
    long n = ::sysconf(_SC_NPROCESSORS_ONLN);
    return n > 0 ? unsigned(n) : 1u;
}

} // namespace KovexEngine
