#pragma once

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
class KOVEX_API LogProxy : public ReferenceObj
{
public:
    ~LogProxy() override;
    virtual void Print(unsigned int level, const char16_t* text) = 0;

    bool Accepts(unsigned int level) const { return (m_levelMask >> (level & 31)) & 1u; }
    void SetLevelMask(uint32 mask) { m_levelMask = mask; }
    uint32 GetLevelMask() const { return m_levelMask; }

    // "<<<Info>>>\n" and its kin; null for levels without a banner.
    static const char16_t* GetBanner(unsigned int level);

protected:
    uint32 m_levelMask = 0xFFFFFFFFu;
    unsigned int m_lastLevel = 0;
};

// The platform's debug output: standard error, as UTF-8.
class KOVEX_API LogProxy_DebugOutput : public LogProxy
{
public:
    void Print(unsigned int level, const char16_t* text) override;
};

// Static front to the list of proxies. The list changes only while the engine
// starts and stops, so printing takes no lock.
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

    static TArray<Ptr<LogProxy>>* ms_proxis;
};

} // namespace KovexEngine
