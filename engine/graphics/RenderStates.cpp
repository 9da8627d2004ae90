#include "graphics/RenderStates.h"

#include "kernel/Spin.h"

namespace KovexEngine {

KOVEX_REGISTER_CLASS(BlendState, u"Engine", GraphicsObject)
KOVEX_REGISTER_CLASS(RasterizerState, u"Engine", GraphicsObject)
KOVEX_REGISTER_CLASS(DepthStencilState, u"Engine", GraphicsObject)
KOVEX_REGISTER_CLASS(SamplerState, u"Engine", GraphicsObject)

void StateMapLock::Enter()
{
    SpinWait spin;
    while (m_held.exchange(true, std::memory_order_acquire))
        spin.Pause();
}

template <typename STATE>
Ptr<STATE> TStateFactory<STATE>::Create(const Desc& desc)
{
    StateKey key;
    desc.MakeKey(key);
    {
        StateMapLock::Scope lock(m_mapLock);
        auto hit = m_byWords.find(key);
        if (hit != m_byWords.end())
            return hit->second;
    }
    AString text;
    desc.Hash(text);
    std::string textKey(text(), text.Length());
    Ptr<STATE> state;
    bool made = false;
    {
        StateMapLock::Scope lock(m_mapLock);
        auto hit = m_byText.find(textKey);
        if (hit != m_byText.end())
            state = hit->second;
        else
        {
            state = NewState();
            state->SetDesc(desc);
            m_byText.emplace(textKey, state);
            made = true;
        }
        m_byWords.emplace(key, state);
    }
    if (made)
        M_PostObject(Ptr<GraphicsObject>(state.Get()), nullptr);
    return state;
}

template <typename STATE>
unsigned TStateFactory<STATE>::GetNumStates()
{
    StateMapLock::Scope lock(m_mapLock);
    return unsigned(m_byText.size());
}

template <typename STATE>
void TStateFactory<STATE>::OnExit()
{
    std::unordered_map<StateKey, Ptr<STATE>, StateKeyHash> words;
    std::unordered_map<std::string, Ptr<STATE>> texts;
    {
        StateMapLock::Scope lock(m_mapLock);
        words.swap(m_byWords);
        texts.swap(m_byText);
    }
    words.clear();
    texts.clear(); // the last references: the objects go to the dispose list
    GraphicsFactory::OnExit();
}

template class TStateFactory<BlendState>;
template class TStateFactory<RasterizerState>;
template class TStateFactory<DepthStencilState>;
template class TStateFactory<SamplerState>;

// --- Blend ----------------------------------------------------------------------


void BlendStateFactory::OnDeviceCreated()
{
    static const GraphicsBlend::TYPE colour[4][2] = {{GraphicsBlend::SrcAlpha, GraphicsBlend::One},
                                                      {GraphicsBlend::SrcAlpha, GraphicsBlend::InvSrcAlpha},
                                                      {GraphicsBlend::Zero, GraphicsBlend::InvSrcColor},
                                                      {GraphicsBlend::One, GraphicsBlend::One}};
    struct Alpha
    {
        GraphicsBlend::TYPE src, dest;
        GraphicsBlendOp::TYPE op;
    };
    static const Alpha alpha[4] = {{GraphicsBlend::One, GraphicsBlend::Zero, GraphicsBlendOp::Add},
                                   {GraphicsBlend::Zero, GraphicsBlend::One, GraphicsBlendOp::Add},
                                   {GraphicsBlend::One, GraphicsBlend::One, GraphicsBlendOp::Min},
                                   {GraphicsBlend::One, GraphicsBlend::One, GraphicsBlendOp::Max}};
    for (unsigned c = 0; c < 4; ++c)
        for (unsigned a = 0; a < 4; ++a)
        {
            BlendStateDesc desc;
            RenderTargetBlendDesc& rt = desc.RenderTarget0;
            rt.BlendEnable = true;
            rt.SrcBlend = colour[c][0];
            rt.DestBlend = colour[c][1];
            rt.SrcBlendAlpha = alpha[a].src;
            rt.DestBlendAlpha = alpha[a].dest;
            rt.BlendOpAlpha = alpha[a].op;
            m_presets[c][a] = Create(desc);
        }
    BlendStateDesc off;
    for (unsigned i = 0; i < 8; ++i)
    {
        off.Target(i).BlendEnable = false;
        off.Target(i).RenderTargetWriteMask = 0;
    }
    m_colorDisable = Create(off);
}

void BlendStateFactory::OnExit()
{
    for (auto& row : m_presets)
        for (auto& preset : row)
            preset = nullptr;
    m_colorDisable = nullptr;
    TStateFactory<BlendState>::OnExit();
}

#define KOVEX_BLEND_PRESET_FAMILY(prefix, c)                                                         \
    const Ptr<BlendState>& BlendStateFactory::prefix##ReplaceState() const { return m_presets[c][0]; } \
    const Ptr<BlendState>& BlendStateFactory::prefix##NoRepState() const { return m_presets[c][1]; }   \
    const Ptr<BlendState>& BlendStateFactory::prefix##MinState() const { return m_presets[c][2]; }     \
    const Ptr<BlendState>& BlendStateFactory::prefix##MaxState() const { return m_presets[c][3]; }
KOVEX_BLEND_PRESET_FAMILY(GetAdditive, 0)
KOVEX_BLEND_PRESET_FAMILY(GetModulate, 1)
KOVEX_BLEND_PRESET_FAMILY(GetSubtractive, 2)
KOVEX_BLEND_PRESET_FAMILY(GetCombine, 3)
#undef KOVEX_BLEND_PRESET_FAMILY

// --- Rasterizer --------------------------------------------------------------------


void RasterizerStateFactory::OnDeviceCreated()
{
    struct Preset
    {
        GraphicsFillMode::TYPE fill;
        GraphicsCullMode::TYPE cull;
        bool depthClip;
    };
    static const Preset presets[6] = {
        {GraphicsFillMode::Wireframe, GraphicsCullMode::Back, true}, {GraphicsFillMode::Solid, GraphicsCullMode::Front, true},
        {GraphicsFillMode::Solid, GraphicsCullMode::None, true},     {GraphicsFillMode::Wireframe, GraphicsCullMode::None, true},
        {GraphicsFillMode::Solid, GraphicsCullMode::Back, false},    {GraphicsFillMode::Solid, GraphicsCullMode::Front, false}};
    for (unsigned i = 0; i < 6; ++i)
    {
        RasterizerStateDesc desc;
        desc.FillMode = presets[i].fill;
        desc.CullMode = presets[i].cull;
        desc.DepthClipEnable = presets[i].depthClip;
        m_presets[i] = Create(desc);
    }
}

void RasterizerStateFactory::OnExit()
{
    for (auto& preset : m_presets)
        preset = nullptr;
    TStateFactory<RasterizerState>::OnExit();
}

// --- Depth-stencil ----------------------------------------------------------------------


void DepthStencilStateFactory::OnDeviceCreated()
{
    using C = GraphicsComparison;
    using S = GraphicsStencilOp;
    struct Face
    {
        S::TYPE fail, depthFail, pass;
        C::TYPE func;
    };
    struct Preset
    {
        bool depth, write;
        C::TYPE func;
        bool stencil;
        uint32 readMask, writeMask;
        Face front, back;
        uint32 ref;
    };
    const Face keep{S::Keep, S::Keep, S::Keep, C::Always};
    const Face replace{S::Keep, S::Replace, S::Keep, C::Always};
    const Preset presets[9] = {
        {true, true, C::LessEqual, false, 0xFF, 0xFF, keep, keep, 0},
        {false, false, C::LessEqual, false, 0xFF, 0xFF, keep, keep, 0},
        {true, false, C::LessEqual, false, 0xFF, 0xFF, keep, keep, 0},
        {false, true, C::LessEqual, false, 0xFF, 0xFF, keep, keep, 0},
        {true, false, C::LessEqual, true, 0x01, 0xFF, replace, replace, 1},
        {true, false, C::LessEqual, true, 0xFF, 0xFF, replace, replace, 1},
        {true, false, C::Always, true, 0xFF, 0x00, {S::Keep, S::Keep, S::Keep, C::LessEqual},
         {S::Keep, S::Keep, S::Keep, C::LessEqual}, 1},
        {true, false, C::LessEqual, true, 0xFF, 0xFF, replace, keep, 1},
        {true, false, C::GreaterEqual, true, 0xFF, 0xFF, replace, {S::Zero, S::Keep, S::Keep, C::Equal}, 0}};
    auto face = [](StencilOpDesc& out, const Face& in) {
        out.StencilFailOp = in.fail;
        out.StencilDepthFailOp = in.depthFail;
        out.StencilPassOp = in.pass;
        out.StencilFunc = in.func;
    };
    for (unsigned i = 0; i < 9; ++i)
    {
        const Preset& p = presets[i];
        DepthStencilStateDesc desc;
        desc.DepthEnable = p.depth;
        desc.DepthWriteEnable = p.write;
        desc.DepthFunc = p.func;
        desc.StencilEnable = p.stencil;
        desc.StencilReadMask = p.readMask;
        desc.StencilWriteMask = p.writeMask;
        face(desc.FrontFace, p.front);
        face(desc.BackFace, p.back);
        m_presets[i] = Create(desc);
        // StencilRef lives on the object: presets with the same descriptor
        // and another reference would share it, which none of these do.
        m_presets[i]->StencilRef = p.ref;
    }
}

void DepthStencilStateFactory::OnExit()
{
    for (auto& preset : m_presets)
        preset = nullptr;
    TStateFactory<DepthStencilState>::OnExit();
}

// --- Sampler ------------------------------------------------------------------------------


} // namespace KovexEngine
