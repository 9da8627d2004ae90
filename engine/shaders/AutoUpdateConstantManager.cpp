#include "shaders/AutoUpdateConstantManager.h"

#include <atomic>
#include <map>
#include <vector>

#include "kernel/CriticalSection.h"
#include "kernel/Log.h"

namespace KovexEngine {

namespace {

struct Registered
{
    ShaderConstant::AutoUpdateId Id;
    uint32 Kind = 0;
};

std::atomic<AutoUpdateConstantManager*> g_manager{nullptr};
CriticalSection g_managerLock;

bool Resolve(const WString& name, ShaderConstant::AutoUpdateId& id, uint32& kind);

// "Name_N" with N a whole number that fits an array index: true, base and
// index out.
bool SplitArrayName(const WString& name, WString& base, unsigned& index)
{
    const char16_t* text = name();
    unsigned length = name.Length();
    unsigned underscore = length;
    for (unsigned i = length; i-- > 0;)
        if (text[i] == u'_')
        {
            underscore = i;
            break;
        }
    if (underscore == length || underscore == 0 || underscore + 1 == length)
        return false;
    unsigned value = 0;
    for (unsigned i = underscore + 1; i < length; ++i)
    {
        if (text[i] < u'0' || text[i] > u'9')
            return false;
        value = value * 10 + unsigned(text[i] - u'0');
        if (value > 0xFF) // the id holds one byte of index
            return false;
    }
    base = name.SubString(0, underscore);
    index = value;
    return true;
}

} // namespace

struct AutoUpdateConstantManager::Impl
{
    mutable CriticalSection Lock;
    std::map<WString, Registered> Constants;
    // Per group handed out: its constants' names in index order.
    std::vector<std::vector<WString>> Groups;
    ShaderConstant::AutoUpdateResolver Previous = nullptr;
};

AutoUpdateConstantManager::AutoUpdateConstantManager() : m_impl(new Impl) {}
AutoUpdateConstantManager::~AutoUpdateConstantManager() { delete m_impl; }

AutoUpdateConstantManager* AutoUpdateConstantManager::Ins()
{
    CriticalSection::Scope scope(g_managerLock);
    AutoUpdateConstantManager* manager = g_manager.load();
    if (!manager)
    {
        manager = new AutoUpdateConstantManager();
        manager->m_impl->Previous = ShaderConstant::GetAutoUpdateResolver();
        g_manager.store(manager);
        ShaderConstant::SetAutoUpdateResolver(&Resolve);
    }
    return manager;
}

void AutoUpdateConstantManager::Destroy()
{
    CriticalSection::Scope scope(g_managerLock);
    AutoUpdateConstantManager* manager = g_manager.load();
    if (!manager)
        return;
    if (ShaderConstant::GetAutoUpdateResolver() == &Resolve)
        ShaderConstant::SetAutoUpdateResolver(manager->m_impl->Previous);
    g_manager.store(nullptr);
    delete manager;
}

int AutoUpdateConstantManager::RegisterUpdateConstantProcs(RegisterProc proc)
{
    if (!proc)
    {
        Log::Print(LOG_WARNING, u"RegisterUpdateConstantProcs: no procedure.\n");
        return -1;
    }
    unsigned group;
    {
        CriticalSection::Scope scope(m_impl->Lock);
        if (m_impl->Groups.size() >= kMaxGroups)
        {
            Log::Print(LOG_WARNING, u"RegisterUpdateConstantProcs: no group number is left.\n");
            return -1;
        }
        group = unsigned(m_impl->Groups.size());
        m_impl->Groups.emplace_back();
    }
    proc((unsigned char)group);
    return int(group);
}

bool AutoUpdateConstantManager::RegisterAutoUpdateConstant(const WString& name, unsigned char group, uint32 kind)
{
    CriticalSection::Scope scope(m_impl->Lock);
    if (name.IsEmpty() || group >= m_impl->Groups.size() || kind >= ShaderConstant::kUpdateKinds)
    {
        Log::Format(LOG_WARNING, u"Can't register auto-update constant [%s] in group %u.\n", name(), unsigned(group));
        return false;
    }
    std::vector<WString>& members = m_impl->Groups[group];
    if (m_impl->Constants.count(name) || members.size() >= kMaxConstantsPerGroup)
    {
        Log::Format(LOG_WARNING, u"Can't register auto-update constant [%s] in group %u.\n", name(), unsigned(group));
        return false;
    }
    Registered r;
    r.Id.Parts.Group = group;
    r.Id.Parts.Constant = uint8(members.size());
    r.Id.Parts.Spare = 0;
    r.Id.Parts.ArrayIndex = 0;
    r.Kind = kind;
    members.push_back(name);
    m_impl->Constants.emplace(name, r);
    return true;
}

AutoUpdateConstantManager::AutoUpdateId AutoUpdateConstantManager::FindAutoUpdateId(const WString& name,
                                                                                    uint32* kind) const
{
    CriticalSection::Scope scope(m_impl->Lock);
    auto it = m_impl->Constants.find(name);
    unsigned index = 0;
    if (it == m_impl->Constants.end())
    {
        WString base;
        if (!SplitArrayName(name, base, index))
            return AutoUpdateId();
        it = m_impl->Constants.find(base);
        if (it == m_impl->Constants.end())
            return AutoUpdateId();
    }
    AutoUpdateId id = it->second.Id;
    id.Parts.ArrayIndex = uint8(index);
    if (kind)
        *kind = it->second.Kind;
    return id;
}

WString AutoUpdateConstantManager::GetConstantName(unsigned char group, unsigned char constant) const
{
    CriticalSection::Scope scope(m_impl->Lock);
    if (group >= m_impl->Groups.size() || constant >= m_impl->Groups[group].size())
        return WString();
    return m_impl->Groups[group][constant];
}

unsigned AutoUpdateConstantManager::GetNumGroups() const
{
    CriticalSection::Scope scope(m_impl->Lock);
    return unsigned(m_impl->Groups.size());
}

unsigned AutoUpdateConstantManager::GetNumConstants(unsigned char group) const
{
    CriticalSection::Scope scope(m_impl->Lock);
    return group < m_impl->Groups.size() ? unsigned(m_impl->Groups[group].size()) : 0u;
}

namespace {

bool Resolve(const WString& name, ShaderConstant::AutoUpdateId& id, uint32& kind)
{
    // The resolver is installed only while the manager lives.
    AutoUpdateConstantManager* manager = g_manager.load();
    if (!manager)
        return false;
    uint32 k = 0;
    ShaderConstant::AutoUpdateId found = manager->FindAutoUpdateId(name, &k);
    if (!found.IsValid())
        return false;
    id = found;
    kind = k;
    return true;
}

} // namespace

} // namespace KovexEngine
