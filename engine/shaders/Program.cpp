#include "shaders/Program.h"

#include <initializer_list>

#include "graphics/RenderStates.h"
#include "graphics/Renderer.h"
#include "graphics/StateDesc.h"
#include "shaders/PGCode.h"
#include "shaders/PGCodeConf.h"

namespace KovexEngine {

KOVEX_REGISTER_CLASS(Program, u"Engine", BaseProgram)
KOVEX_REGISTER_CLASS(ComputeProgram, u"Engine", BaseProgram)

namespace {

// Appends a configuration's macros while there is room for them and the null
// pair behind them.
void AppendMacros(const PGCodeConf* conf, ShaderMacro* out, unsigned room, unsigned& written)
{
    if (!conf)
        return;
    for (const auto& macro : conf->GetMacros())
    {
        if (written + 1 >= room)
            return;
        out[written].Name = macro.key();
        out[written].Definition = macro.value();
        ++written;
    }
}

// The macro array of a program: each configuration's macros in turn, then
// `extra` when given, then a null pair; a null `out` asks for the count.
void FillMacros(std::initializer_list<const PGCodeConf*> configs, const ShaderMacro* extra, ShaderMacro* out,
                unsigned* count)
{
    if (!count)
        return;
    if (!out)
    {
        unsigned total = extra ? 1 : 0;
        for (const PGCodeConf* conf : configs)
            total += conf ? conf->GetMacros().Count() : 0;
        *count = total;
        return;
    }
    const unsigned room = *count;
    unsigned written = 0;
    for (const PGCodeConf* conf : configs)
        AppendMacros(conf, out, room, written);
    if (extra && written + 1 < room)
        out[written++] = *extra;
    if (written < room)
        out[written] = ShaderMacro{};
    *count = written;
}

} // namespace

Program::Program(const PGConfFW* fw, const PGConfAB* ab, const PGConfMT* mt) : m_fw(fw), m_ab(ab), m_mt(mt) {}

Program::~Program() = default;

void Program::GetConfigs(const PGCodeConf** out, unsigned& count) const
{
    count = 0;
    const PGCodeConf* configs[3] = {m_fw, m_ab, m_mt};
    for (const PGCodeConf* conf : configs)
        if (conf)
            out[count++] = conf;
}

void Program::GetMacros(ShaderMacro* out, unsigned* count) const
{
    FillMacros({m_fw, m_ab, m_mt}, nullptr, out, count);
}

unsigned Program::GetNumMacros() const
{
    unsigned count = 0;
    FillMacros({m_fw, m_ab, m_mt}, nullptr, nullptr, &count);
    return count;
}

const Ptr<BlendState>& Program::GetBlendState() const
{
    static const Ptr<BlendState> s_none;
    return m_mt ? PGMaterial::GetBlendState(m_mt->GetBlendMode(), m_mt->GetBlendAlphaMode()) : s_none;
}

const Ptr<DepthStencilState>& Program::GetTranslucentDepthState() const
{
    static const Ptr<DepthStencilState> s_none;
    DepthStencilStateFactory* factory = DepthStencilStateFactory::Get();
    if (!m_mt || m_mt->GetBlendMode().value < BlendMode::AdditiveMask || !factory)
        return s_none;
    switch (m_mt->GetTranslucentDepthMode().value)
    {
    case TranslucentDepthMode::NoTest: return factory->GetDepthDisableState();
    case TranslucentDepthMode::WriteAndTest: return factory->GetDepthWriteState();
    default: return factory->GetDepthTestState();
    }
}

void Program::PostCompiled()
{
    m_instanceConstant = FindConstant(WString(kInstanceConstantName));
    if (m_instanceConstant &&
        !(m_instanceConstant->IsAutoUpdata() && m_instanceConstant->GetUpdateKind() == kInstanceUpdateKind))
        m_instanceConstant = nullptr;

    m_isInstancing = false;
    m_hasInstanceConstants = false;
    const HWCapability* capability = g_ptrRenderer ? g_ptrRenderer->GetHWCapability().Get() : nullptr;
    const PGAttribute* attribute = m_ab ? m_ab->GetAttribute() : nullptr;
    if (capability && capability->SupportInstanceRendering && attribute && attribute->IsInstancingAllowed() &&
        m_ab->GetName()->IndexOf(u"[INSTANCE_RENDERING]") != kNotFound)
    {
        m_isInstancing = true;
        // Group numbers are one byte (ShaderConstant::AutoUpdateId).
        for (uint32 group = 0; group < 256 && !m_hasInstanceConstants; ++group)
        {
            const GroupConstants* constants = GetAutoUpdateConstants(group);
            m_hasInstanceConstants = constants && !constants->ByKind[kInstanceUpdateKind].IsEmpty();
        }
    }
}

ComputeProgram::~ComputeProgram() = default;

void ComputeProgram::GetConfigs(const PGCodeConf** out, unsigned& count) const
{
    count = 0;
    if (m_conf)
        out[count++] = m_conf;
}

void ComputeProgram::GetMacros(ShaderMacro* out, unsigned* count) const
{
    static const ShaderMacro useCs{"USE_CS", "1"};
    FillMacros({m_conf}, &useCs, out, count);
}

} // namespace KovexEngine
