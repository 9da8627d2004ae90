#pragma once

#include <pthread.h>

#include "kernel/Types.h"

namespace KovexEngine {

// A lock that spins briefly before it sleeps, for short critical sections
// that are rarely contended (glibc's adaptive mutex).
class KOVEX_API CriticalSection
{
public:
    CriticalSection();
    ~CriticalSection();
    CriticalSection(const CriticalSection&) = delete;
    CriticalSection& operator=(const CriticalSection&) = delete;

    void Enter() { pthread_mutex_lock(&m_mutex); }
    bool TryEnter() { return pthread_mutex_trylock(&m_mutex) == 0; }
    void Leave() { pthread_mutex_unlock(&m_mutex); }

    class Scope
    {
    public:
        explicit Scope(CriticalSection& section) : m_section(section) { m_section.Enter(); }
        ~Scope() { m_section.Leave(); }
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;

    private:
        CriticalSection& m_section;
    };

private:
    pthread_mutex_t m_mutex;
};

} // namespace KovexEngine
