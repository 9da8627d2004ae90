#include "kernel/Log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <atomic>
#include <mutex>

#include "kernel/Containers.h"
#include "kernel/StringConv.h"
#include "kernel/Thread.h"

namespace KovexEngine {

TArray<Ptr<LogProxy>>* Log::ms_proxis = nullptr;

namespace {

bool WriteAll(int fd, const char* data, size_t size)
{
    while (size)
    {
        ssize_t n = ::write(fd, data, size);
        if (n < 0)
        {
            if (errno == EINTR)
                continue;
            return false;
        }
        data += n;
        size -= size_t(n);
    }
    return true;
}

} // namespace


LogProxy::~LogProxy() = default;

void LogProxy::SetLevelMask(uint32 mask)
{
    m_levelMask.store(mask, std::memory_order_relaxed);
    Log::RefreshWantedLevels();
}

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
    WriteAll(STDERR_FILENO, utf8(), utf8.Length());
    m_lastLevel = level;
}

// --- Console ----------------------------------------------------------------------

Ptr<LogProxy_Console> LogProxy_Console::ms_ptrConsoleProxy;

unsigned int LogProxy_Console::GetTextAttr(unsigned int level) const
{
    switch (level)
    {
    case LOG_INFO: return 7;
    case LOG_NOTICE: return 15;
    case LOG_WARNING: return 6;
    case LOG_ERROR: return 4;
    case LOG_CRITICAL: return 12;
    default: return 1;
    }
}

void LogProxy_Console::Init(void* data)
{
    if (ms_ptrConsoleProxy)
        return;
    ms_ptrConsoleProxy = new LogProxy_Console();
    // A caller may hand over a descriptor to write to instead of standard error.
    ms_ptrConsoleProxy->m_handle = data ? int(reinterpret_cast<intptr_t>(data)) : -1;
    ms_ptrConsoleProxy->CreateConsole();
}

void LogProxy_Console::CreateConsole()
{
    m_created = true;
    if (m_handle < 0)
        m_handle = STDERR_FILENO;
    m_colours = ::isatty(m_handle) == 1;
}

void LogProxy_Console::Destroy() { ms_ptrConsoleProxy = nullptr; }

namespace {
// Guards the hand-over between a thread waiting for the close and the one
// that reports it.
std::mutex s_consoleClosing;
} // namespace

void LogProxy_Console::WaitCloseAndDestroy()
{
    Semaphore closing(0);
    {
        std::lock_guard<std::mutex> guard(s_consoleClosing);
        LogProxy_Console* console = ms_ptrConsoleProxy.Get();
        if (!console || console->m_closing)
            return;
        console->m_closing = &closing;
    }
    closing.Wait();
    std::lock_guard<std::mutex> guard(s_consoleClosing);
    if (ms_ptrConsoleProxy)
        ms_ptrConsoleProxy->m_closing = nullptr;
    Destroy();
}

void LogProxy_Console::NotifyClose()
{
    std::lock_guard<std::mutex> guard(s_consoleClosing);
    LogProxy_Console* console = ms_ptrConsoleProxy.Get();
    if (!console)
        return;
    if (console->m_closing)
        console->m_closing->Release();
    else
        Destroy();
}

void LogProxy_Console::Print(unsigned int level, const char16_t* text)
{
    if (!m_created || m_handle < 0)
        return;
    AString out;
    if (level != m_lastLevel && m_colours)
    {
        // Windows console attributes to ANSI: bit 0 blue, 1 green, 2 red, 3 bright.
        unsigned attr = GetTextAttr(level);
        unsigned colour = ((attr & 4) ? 1 : 0) | ((attr & 2) ? 2 : 0) | ((attr & 1) ? 4 : 0);
        out.Format("\x1b[%u;%um", (attr & 8) ? 1u : 0u, 30u + colour);
    }
    m_lastLevel = level;
    AString utf8;
    StringConvFuncs::UTF16toUTF8(utf8, text);
    out.Append(utf8);
    WriteAll(m_handle, out(), out.Length());
}

// --- File ---------------------------------------------------------------------------

namespace {
std::atomic<LogProxy_File::PathResolver> s_pathResolver{nullptr};
} // namespace

void LogProxy_File::SetPathResolver(PathResolver resolver) { s_pathResolver.store(resolver, std::memory_order_release); }

LogProxy_File::LogProxy_File(const WString& path)
{
    m_buffer.Reserve(kFlushThreshold);
    WString absolute(path);
    PathResolver resolve = s_pathResolver.load(std::memory_order_acquire);
    if (resolve && !resolve(absolute))
    {
        Log::Format(LOG_WARNING, u"Create File %s failed, error = %d.\n", path(), ENOENT);
        return;
    }
    StringConvFuncs::UTF16toUTF8(m_path, absolute());

    // Create each directory along the path; the last component is the file.
    for (unsigned i = 1; i < m_path.Length(); ++i)
        if (m_path[i] == '/')
        {
            AString directory(m_path(), i);
            ::mkdir(directory(), 0777);
        }
    int fd = ::open(m_path(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0)
    {
        int error = errno;
        Log::Format(LOG_WARNING, u"Create File %s failed, error = %d.\n", absolute(), error);
        return;
    }
    ::close(fd);
    m_open = true;
}

LogProxy_File::~LogProxy_File() { FlushLocked(); }

unsigned int LogProxy_File::GetBufferedLength() const
{
    CriticalSection::Scope guard(m_lock);
    return m_buffer.Length();
}

void LogProxy_File::Print(unsigned int level, const char16_t* text)
{
    if (!text || !*text)
        return;
    if (const char16_t* banner = GetBanner(level))
        m_buffer.Append(banner);
    m_buffer.Append(text);
    m_buffer.Append(u"\r\n");
    m_lastLevel = level;
    if (m_buffer.Length() >= kFlushThreshold)
        FlushLocked();
}

bool LogProxy_File::Flush()
{
    CriticalSection::Scope guard(m_lock);
    return FlushLocked();
}

bool LogProxy_File::FlushLocked()
{
    if (m_buffer.IsEmpty())
        return true;
    if (!m_open)
    {
        m_buffer.TerminateAtIndex(0);
        return false;
    }
    int fd = ::open(m_path(), O_WRONLY | O_APPEND | O_CLOEXEC);
    if (fd < 0)
        return false;
    StringConvFuncs::UTF16toUTF8(m_conversion, m_buffer(), m_buffer.Length());
    bool ok = WriteAll(fd, m_conversion(), m_conversion.Length());
    ::close(fd);
    m_buffer.TerminateAtIndex(0);
    return ok;
}

// --- Log ----------------------------------------------------------------------------

namespace {

// A published list of proxies. It never changes: writers publish a new one,
// and each reader holds a reference to the one it walks.
struct ProxyList
{
    std::atomic<int> references{1};
    TArray<Ptr<LogProxy>> proxies;

    void Release()
    {
        if (references.fetch_sub(1, std::memory_order_acq_rel) == 1)
            delete this;
    }
};

// Guards publication (constant-initialised, so usable from static initialisers).
std::mutex s_listLock;
ProxyList* s_list = nullptr;
// The union of the masks of the listed proxies: the masked-off path reads
// only this.
std::atomic<uint32> s_wantedLevels{0};
// Set while this thread is inside a proxy's Print: a message logged from
// there would wait for the lock its own thread holds.
thread_local bool t_printing = false;

uint32 WantedLevels(const ProxyList* list)
{
    uint32 levels = 0;
    if (list)
        for (const Ptr<LogProxy>& proxy : list->proxies)
            levels |= proxy->GetLevelMask();
    return levels;
}

ProxyList* AcquireList()
{
    std::lock_guard<std::mutex> guard(s_listLock);
    if (s_list)
        s_list->references.fetch_add(1, std::memory_order_relaxed);
    return s_list;
}

// Publishes what `change` makes of a copy of the current list (a null
// result removes the list). The old list is let go outside the lock, since
// the proxies it may take with it can log as they go.
template <typename Change>
void Publish(Change&& change)
{
    ProxyList* old;
    {
        std::lock_guard<std::mutex> guard(s_listLock);
        old = s_list;
        ProxyList* next = new ProxyList();
        if (old)
            next->proxies = old->proxies;
        if (!change(next))
        {
            delete next;
            next = nullptr;
        }
        s_list = next;
        Log::ms_proxis = next ? &next->proxies : nullptr;
        s_wantedLevels.store(WantedLevels(next), std::memory_order_relaxed);
    }
    if (old)
        old->Release();
}

} // namespace

void Log::Init()
{
    Publish([](ProxyList* list) {
        if (list->proxies.IsEmpty())
            list->proxies.Add(Ptr<LogProxy>(new LogProxy_DebugOutput()));
        return true;
    });
}

void Log::Clear()
{
    Publish([](ProxyList*) { return false; });
}

void Log::AddProxy(const Ptr<LogProxy>& proxy)
{
    Publish([&](ProxyList* list) {
        list->proxies.Add(proxy);
        return true;
    });
}

void Log::RemoveProxy(const Ptr<LogProxy>& proxy)
{
    Publish([&](ProxyList* list) {
        list->proxies.Remove(proxy);
        return true;
    });
}

void Log::RefreshWantedLevels()
{
    std::lock_guard<std::mutex> guard(s_listLock);
    s_wantedLevels.store(WantedLevels(s_list), std::memory_order_relaxed);
}

bool Log::HasProxies()
{
    std::lock_guard<std::mutex> guard(s_listLock);
    return s_list && !s_list->proxies.IsEmpty();
}

bool Log::IsLevelWanted(unsigned int level)
{
    return (s_wantedLevels.load(std::memory_order_relaxed) >> (level & 31)) & 1u;
}

void Log::Print(unsigned int level, const char16_t* text)
{
    if (!text || !IsLevelWanted(level) || t_printing)
        return;
    ProxyList* list = AcquireList();
    if (!list)
        return;
    t_printing = true;
    for (const Ptr<LogProxy>& proxy : list->proxies)
        if (proxy->Accepts(level))
        {
            CriticalSection::Scope guard(proxy->m_lock);
            proxy->Print(level, text);
        }
    t_printing = false;
    list->Release();
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
