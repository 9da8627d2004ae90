#include "shaders/AutoUpdateConstantManager.h"

#include <atomic>
#include <map>
#include <mutex>
#include <vector>

#include "kernel/Log.h"

namespace KovexEngine {

namespace {

std::mutex g_insLock;
std::atomic<AutoUpdateConstantManager*> g_manager{nullptr};

bool Resolve(const WString& name, ShaderConstant::AutoUpdateId& id, uint32& kind)
{
    AutoUpdateConstantManager* manager = g_manager.load(std::memory_order_acquire);
    if (!manager)
        return false;
    id = manager->FindAutoUpdateId(name, &kind);
    return id.IsValid();
}

// "12" as a whole number below 256 (an array index byte); false for
// anything else, an empty text included.
bool ParseIndex(const char16_t* text, unsigned length, uint8& out)
{
    if (length == 0 || length > 3)
        return false;
    unsigned value = 0;
    for (unsigned i = 0; i < length; ++i)
    {
        if (text[i] < u'0' || text[i] > u'9')
            return false;
        value = value * 10 + unsigned(text[i] - u'0');
    }
    if (value > 255)
        return false;
    out = uint8(value);
    return true;
}

} // namespace

struct AutoUpdateConstantManager::Impl
{
    struct Entry
    {
        AutoUpdateId id;
        uint32 kind = 0;
    };
    mutable std::mutex lock;
    std::map<WString, Entry> byName;
    std::vector<unsigned> constantsPerGroup; // index: group
};

AutoUpdateConstantManager::AutoUpdateConstantManager() : m_impl(new Impl()) {}
AutoUpdateConstantManager::~AutoUpdateConstantManager() { delete m_impl; }

AutoUpdateConstantManager* AutoUpdateConstantManager::Ins()
{
    AutoUpdateConstantManager* manager = g_manager.load(std::memory_order_acquire);
    if (manager)
        return manager;
    std::lock_guard<std::mutex> guard(g_insLock);
    manager = g_manager.load(std::memory_order_relaxed);
    if (!manager)
    {
        manager = new AutoUpdateConstantManager();
        g_manager.store(manager, std::memory_order_release);
        ShaderConstant::SetAutoUpdateResolver(&Resolve);
    }
    return manager;
}

void AutoUpdateConstantManager::Destroy()
{
    std::lock_guard<std::mutex> guard(g_insLock);
    AutoUpdateConstantManager* manager = g_manager.exchange(nullptr);
    if (manager)
        ShaderConstant::SetAutoUpdateResolver(nullptr);
    delete manager;
}

int AutoUpdateConstantManager::RegisterUpdateConstantProcs(RegisterProc proc)
{
    if (!proc)
    {
        Log::Format(LOG_WARNING, u"RegisterUpdateConstantProcs: no procedure.\n");
        return -1;
    }
    unsigned group;
    {
        std::lock_guard<std::mutex> guard(m_impl->lock);
        if (m_impl->constantsPerGroup.size() >= kMaxGroups)
        {
            Log::Format(LOG_WARNING, u"RegisterUpdateConstantProcs: all %u groups are taken.\n", kMaxGroups);
            return -1;
        }
        group = unsigned(m_impl->constantsPerGroup.size());
        m_impl->constantsPerGroup.push_back(0);
    }
    proc(static_cast<unsigned char>(group));
    return int(group);
}

bool AutoUpdateConstantManager::RegisterAutoUpdateConstant(const WString& name, unsigned char group, uint32 kind)
{
    if (name.IsEmpty() || kind >= ShaderConstant::kUpdateKinds)
    {
        Log::Format(LOG_WARNING, u"RegisterAutoUpdateConstant: bad name [%s] or kind %u.\n", name.c_str(), kind);
        return false;
    }
    std::lock_guard<std::mutex> guard(m_impl->lock);
    if (group >= m_impl->constantsPerGroup.size())
    {
        Log::Format(LOG_WARNING, u"RegisterAutoUpdateConstant: [%s] names group %u, never handed out.\n",
                    name.c_str(), unsigned(group));
        return false;
    }
    if (m_impl->byName.count(name))
    {
        Log::Format(LOG_WARNING, u"RegisterAutoUpdateConstant: [%s] is registered already.\n", name.c_str());
        return false;
    }
    unsigned& count = m_impl->constantsPerGroup[group];
    if (count >= kMaxConstantsPerGroup)
    {
        Log::Format(LOG_WARNING, u"RegisterAutoUpdateConstant: group %u is full.\n", unsigned(group));
        return false;
    }
    Impl::Entry entry;
    entry.id.Parts.Group = group;
    entry.id.Parts.Constant = uint8(count++);
    entry.id.Parts.Spare = 0;
    entry.id.Parts.ArrayIndex = 0;
    entry.kind = kind;
    m_impl->byName.emplace(name, entry);
    return true;
}

AutoUpdateConstantManager::AutoUpdateId AutoUpdateConstantManager::FindAutoUpdateId(const WString& name,
                                                                                   uint32* kind) const
{
    std::lock_guard<std::mutex> guard(m_impl->lock);
    auto it = m_impl->byName.find(name);
    if (it != m_impl->byName.end())
    {
        if (kind)
            *kind = it->second.kind;
        return it->second.id;
    }
    // "Name_N": element N of the array constant "Name".
    const char16_t* text = name.c_str();
    const unsigned length = name.Length();
    unsigned underscore = length;
    for (unsigned i = length; i-- > 0;)
        if (text[i] == u'_')
        {
            underscore = i;
            break;
        }
    uint8 index = 0;
    if (underscore == 0 || underscore + 1 >= length ||
        !ParseIndex(text + underscore + 1, length - underscore - 1, index))
        return AutoUpdateId();
    it = m_impl->byName.find(name.SubString(0, underscore));
    if (it == m_impl->byName.end())
        return AutoUpdateId();
    AutoUpdateId id = it->second.id;
    id.Parts.ArrayIndex = index;
    if (kind)
        *kind = it->second.kind;
    return id;
}

unsigned AutoUpdateConstantManager::GetNumGroups() const
{
    std::lock_guard<std::mutex> guard(m_impl->lock);
    return unsigned(m_impl->constantsPerGroup.size());
}

unsigned AutoUpdateConstantManager::GetNumConstants(unsigned char group) const
{
    std::lock_guard<std::mutex> guard(m_impl->lock);
    return group < m_impl->constantsPerGroup.size() ? m_impl->constantsPerGroup[group] : 0;
}

} // namespace KovexEngine
