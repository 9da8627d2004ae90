#pragma once

#include "kernel/Containers.h"
#include "kernel/Log.h"

// Collects what the log prints while it is installed.
namespace KovexTest {

class CaptureProxy : public KovexEngine::LogProxy
{
public:
    struct Entry
    {
        unsigned level = 0;
        KovexEngine::WString text;
    };
    KovexEngine::TArray<Entry> entries;

    void Print(unsigned level, const char16_t* text) override { entries.Add(Entry{level, KovexEngine::WString(text)}); }
    bool Contains(const char16_t* text) const
    {
        for (const Entry& e : entries)
            if (e.text == text)
                return true;
        return false;
    }
};

class LogCapture
{
public:
    LogCapture() : proxy(new CaptureProxy()) { KovexEngine::Log::AddProxy(KovexEngine::Ptr<KovexEngine::LogProxy>(proxy.Get())); }
    ~LogCapture() { KovexEngine::Log::RemoveProxy(KovexEngine::Ptr<KovexEngine::LogProxy>(proxy.Get())); }
    CaptureProxy* operator->() { return proxy.Get(); }

    KovexEngine::Ptr<CaptureProxy> proxy;
};

} // namespace KovexTest
