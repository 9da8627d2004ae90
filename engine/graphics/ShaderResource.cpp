#include "graphics/ShaderResource.h"

#include <atomic>
#include <cstring>

#include "graphics/RWBuffer.h"
#include "graphics/RenderStates.h"
#include "graphics/Texture.h"

namespace KovexEngine {

namespace {
std::atomic<ShaderConstant::AutoUpdateResolver> g_resolver{nullptr};
// Far above any constant a shader model declares (4096 registers).
constexpr uint32 kMaxConstantBytes = 4096 * 16;
} // namespace

ShaderResource::ShaderResource()
{
    for (int& slot : m_slots)
        slot = -1;
}

ShaderResource::~ShaderResource() = default;

int ShaderResource::GetSlotInShader(ShaderType stage) const
{
    return unsigned(stage.value) < kStages ? m_slots[stage.value] : -1;
}

void ShaderResource::SetSlotInShader(ShaderType stage, int slot)
{
    if (unsigned(stage.value) < kStages)
        m_slots[stage.value] = slot;
}

ShaderTexture::ShaderTexture() = default;
ShaderTexture::~ShaderTexture() = default;
ShaderSampler::ShaderSampler() = default;
ShaderSampler::~ShaderSampler() = default;
ShaderBuffer::ShaderBuffer() = default;
ShaderBuffer::~ShaderBuffer() = default;
ShaderCBuffer::ShaderCBuffer() = default;
ShaderCBuffer::~ShaderCBuffer() = default;

void ShaderConstant::SetAutoUpdateResolver(AutoUpdateResolver resolver) { g_resolver.store(resolver); }
ShaderConstant::AutoUpdateResolver ShaderConstant::GetAutoUpdateResolver() { return g_resolver.load(); }

ShaderConstant::~ShaderConstant() { delete[] m_default; }

void ShaderConstant::AllocAutoUpdateId()
{
    m_id = AutoUpdateId();
    m_kind = 0;
    AutoUpdateResolver resolver = g_resolver.load();
    AutoUpdateId id;
    uint32 kind = 0;
    if (resolver && resolver(GetName().Get(), id, kind) && id.IsValid() && kind < kUpdateKinds)
    {
        m_id = id;
        m_kind = kind;
    }
}

bool ShaderConstant::SetDefaultValue(const void* data, uint32 size)
{
    if (!data || size == 0 || size > kMaxConstantBytes)
        return false;
    float* values = new float[(size + 3) / 4]();
    std::memcpy(values, data, size);
    delete[] m_default;
    m_default = values;
    m_size = size;
    return true;
}

} // namespace KovexEngine
