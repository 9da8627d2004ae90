#pragma once

#include "kernel/CriticalSection.h"
#include "kernel/RefCount.h"
#include "kernel/Strings.h"

namespace KovexEngine {

template <typename T> class TArray;

// Message levels.
enum : unsigned int
{
    LOG_INFO = 1,
    LOG_NOTICE = 2,
    LOG_WARNING = 3,
    LOG_ERROR = 4,
    LOG_CRITICAL = 5,
};

// One destination of log messages. It takes a message only when bit `level`
// (modulo 32) of its mask is set.
//
// Threads: Log calls Print under the proxy's own lock, so a proxy sees one
// message at a time whichever threads log; Print must not log itself (such a
// nested message is dropped). Calling Print directly, bypassing Log, is for
// one thread only. The level mask may be read and set from any thread.
class KOVEX_API LogProxy : public ReferenceObj
{
public:
    ~LogProxy() override;
    virtual void Print(unsigned int level, const char16_t* text) = 0;

    bool Accepts(unsigned int level) const { return (GetLevelMask() >> (level & 31)) & 1u; }
    void SetLevelMask(uint32 mask);
    uint32 GetLevelMask() const { return m_levelMask.load(std::memory_order_relaxed); }

    // "<<<Info>>>\n" and its kin; null for levels without a banner.
    static const char16_t* GetBanner(unsigned int level);

protected:
    friend class Log;
    // Held around Print while Log calls it.
    mutable CriticalSection m_lock;
    std::atomic<uint32> m_levelMask{0xFFFFFFFFu};
    unsigned int m_lastLevel = 0;
};

// The platform's debug output: standard error, as UTF-8.
class KOVEX_API LogProxy_DebugOutput : public LogProxy
{
public:
    void Print(unsigned int level, const char16_t* text) override;
};

class Semaphore;

// A console: standard error, with the level shown in colour (ANSI escapes
// when standard error is a terminal). One per process.
class KOVEX_API LogProxy_Console : public LogProxy
{
public:
    void Print(unsigned int level, const char16_t* text) override;
    // The console attribute of a level: 7, 15, 6, 4, 12 for levels 1 to 5,
    // 1 otherwise (bit 0 blue, 1 green, 2 red, 3 bright).
    virtual unsigned int GetTextAttr(unsigned int level) const;

    static LogProxy_Console* Get() { return ms_ptrConsoleProxy.Get(); }
    // Creates the console proxy if there is none.
    static void Init(void* data = nullptr);
    static void Destroy();
    // Blocks until the console is closed (NotifyClose), then destroys it.
    static void WaitCloseAndDestroy();
    // The console's close event: wakes a waiter, or destroys the proxy.
    static void NotifyClose();

    static Ptr<LogProxy_Console> ms_ptrConsoleProxy;

private:
    LogProxy_Console() = default;
    void CreateConsole();

    int m_handle = -1;
    bool m_created = false;
    bool m_colours = false;
    Semaphore* m_closing = nullptr;
};

// Buffers messages and appends them to a file in runs of at least 1024
// characters: each run opens the file, writes at its end and closes it
// again, so the file is never held open between runs.
class KOVEX_API LogProxy_File : public LogProxy
{
public:
    // Makes the path absolute (relative paths are taken from the root path),
    // creates its directory and creates the file empty. When that fails it
    // logs "Create File %s failed, error = %d.\n" at level 3 and IsOpen is
    // false.
    explicit LogProxy_File(const WString& path);
    // Writes what is still buffered, so that the end of a run is not lost.
    ~LogProxy_File() override;

    void Print(unsigned int level, const char16_t* text) override;
    bool IsOpen() const { return m_open; }
    const AString& GetPath() const { return m_path; }
    unsigned int GetBufferedLength() const;
    // Writes the buffer out now; safe from any thread.
    bool Flush();

    static constexpr unsigned kFlushThreshold = 1024;

    // Makes a path absolute the way every other file's path is made so. The
    // stream layer, which lies above the log, installs it when the library
    // loads; with none installed a path stays as given. Safe from any thread.
    using PathResolver = bool (*)(WString& path);
    static void SetPathResolver(PathResolver resolver);

private:
    bool FlushLocked();

    WString m_buffer;
    AString m_path;
    AString m_conversion;
    bool m_open = false;
};

// Static front to the list of proxies.
//
// Threads: every function is safe from any thread. The list is copied on
// write: AddProxy, RemoveProxy, Init and Clear publish a new list, and a
// message goes to the proxies of the list it found, each under that proxy's
// lock. A level nobody takes costs one atomic read (IsLevelWanted), so
// callers test it to skip formatting that nobody would read.
class KOVEX_API Log
{
public:
    static void Init();
    static void Clear();
    static void AddProxy(const Ptr<LogProxy>& proxy);
    static void RemoveProxy(const Ptr<LogProxy>& proxy);
    static bool HasProxies();
    // True when some proxy would take a message of this level: callers test it
    // to skip formatting that nobody would read.
    static bool IsLevelWanted(unsigned int level);

    static void Print(unsigned int level, const char16_t* text);
    static void print(unsigned int level, const WString& text) { Print(level, text()); }
    static void Format(unsigned int level, const char16_t* format, ...);
    static void Format(unsigned int level, unsigned size, const char16_t* format, ...);

    static unsigned GetNumProcessors();

    // The current list, null when there is none. A published list never
    // changes; read it only on a thread that no other thread logs beside.
    static TArray<Ptr<LogProxy>>* ms_proxis;

private:
    friend class LogProxy;
    // Recomputes the levels some proxy takes.
    static void RefreshWantedLevels();
};

} // namespace KovexEngine
