#pragma once

// Blend, rasterizer, depth-stencil and sampler state objects and their
// keyed factories. A factory maps each key to one shared object for its
// whole life (the map is never pruned). Look-up goes by the key's words
// first (a hash of a few integers, no text); a miss formats the key text,
// and descriptors whose texts agree share the object of that text.
//
// Threads: Create may be called from any thread (loaders build materials on
// workers); the maps are guarded by one spin lock per factory, held only for
// the look-up and insertion, never across device work.

#include <atomic>
#include <unordered_map>

#include "graphics/GraphicsObject.h"
#include "graphics/StateDesc.h"

namespace KovexEngine {

class Renderer;

// The key maps' lock: held for a look-up or an insertion only, so a spin
// (pausing, then yielding) costs less than a mutex on the hit path.
class KOVEX_API StateMapLock
{
public:
    void Enter();
    void Leave() { m_held.store(false, std::memory_order_release); }
    struct Scope
    {
        explicit Scope(StateMapLock& lock) : m_lock(lock) { m_lock.Enter(); }
        ~Scope() { m_lock.Leave(); }
        StateMapLock& m_lock;
    };

private:
    std::atomic<bool> m_held{false};
};

struct StateKeyHash
{
    size_t operator()(const StateKey& key) const { return key.HashValue(); }
};

// The state object of one descriptor type. Commit hands it to the device
// through the renderer; the null device accepts anything.
template <typename DESC>
class KOVEX_API TRenderState : public GraphicsObject
{
public:
    using Desc = DESC;
    const DESC& GetDesc() const { return m_desc; }
    void SetDesc(const DESC& desc) { m_desc = desc; }

protected:
    DESC m_desc;
};

class KOVEX_API BlendState : public TRenderState<BlendStateDesc>
{
    KOVEX_CLASS(BlendState)
public:
    Vector4 Factor{0.0f, 0.0f, 0.0f, 0.0f}; // per object, outside the key
    uint32 SampleMask = 0xFFFFFFFFu;
    bool CreateDeviceHandle() override { return true; }
    void ReleaseDeviceHandle() override {}
};

class KOVEX_API RasterizerState : public TRenderState<RasterizerStateDesc>
{
    KOVEX_CLASS(RasterizerState)
public:
    bool CreateDeviceHandle() override { return true; }
    void ReleaseDeviceHandle() override {}
};

class KOVEX_API DepthStencilState : public TRenderState<DepthStencilStateDesc>
{
    KOVEX_CLASS(DepthStencilState)
public:
    uint32 StencilRef = 0; // per object, outside the key
    bool CreateDeviceHandle() override { return true; }
    void ReleaseDeviceHandle() override {}
};

class KOVEX_API SamplerState : public TRenderState<SamplerStateDesc>
{
    KOVEX_CLASS(SamplerState)
public:
    bool CreateDeviceHandle() override { return true; }
    void ReleaseDeviceHandle() override {}
};

// The keyed cache shared by the four state factories. A backend subclasses
// the concrete factory and overrides NewState to make its own object.
template <typename STATE>
class KOVEX_API TStateFactory : public GraphicsFactory
{
public:
    using Desc = typename STATE::Desc;

    explicit TStateFactory(FactoryType slot) : GraphicsFactory(slot) {}
    Ptr<STATE> Create(const Desc& desc);
    static void Hash(const Desc& desc, AString& out) { desc.Hash(out); }
    // Distinct objects made so far (one per key text).
    unsigned GetNumStates();
    void OnExit() override;

protected:
    virtual STATE* NewState() { return new STATE(); }

private:
    StateMapLock m_mapLock;
    std::unordered_map<StateKey, Ptr<STATE>, StateKeyHash> m_byWords;
    std::unordered_map<std::string, Ptr<STATE>> m_byText;
};

class KOVEX_API BlendStateFactory : public TStateFactory<BlendState>
{
public:
    BlendStateFactory() : TStateFactory(FactoryType::BlendStateFactory) {}
    static BlendStateFactory* Get() { return static_cast<BlendStateFactory*>(GetSlot(FactoryType::BlendStateFactory)); }
    void OnDeviceCreated() override;
    void OnExit() override;

    // Presets: render target 0 blending, colour by the prefix, alpha by the family.
#define KOVEX_BLEND_PRESET_FAMILY(prefix)                  \
    const Ptr<BlendState>& prefix##ReplaceState() const;   \
    const Ptr<BlendState>& prefix##NoRepState() const;     \
    const Ptr<BlendState>& prefix##MinState() const;       \
    const Ptr<BlendState>& prefix##MaxState() const;
    KOVEX_BLEND_PRESET_FAMILY(GetAdditive)
    KOVEX_BLEND_PRESET_FAMILY(GetModulate)
    KOVEX_BLEND_PRESET_FAMILY(GetSubtractive)
    KOVEX_BLEND_PRESET_FAMILY(GetCombine)
#undef KOVEX_BLEND_PRESET_FAMILY
    const Ptr<BlendState>& GetColorDisableState() const { return m_colorDisable; }

private:
    Ptr<BlendState> m_presets[4][4]; // [colour prefix][alpha family]
    Ptr<BlendState> m_colorDisable;
};

class KOVEX_API RasterizerStateFactory : public TStateFactory<RasterizerState>
{
public:
    RasterizerStateFactory() : TStateFactory(FactoryType::RasterizerStateFactory) {}
    static RasterizerStateFactory* Get() { return static_cast<RasterizerStateFactory*>(GetSlot(FactoryType::RasterizerStateFactory)); }
    void OnDeviceCreated() override;
    void OnExit() override;

    const Ptr<RasterizerState>& GetWireframeState() const { return m_presets[0]; }
    const Ptr<RasterizerState>& GetBackFaceState() const { return m_presets[1]; }
    const Ptr<RasterizerState>& GetTwoSideState() const { return m_presets[2]; }
    const Ptr<RasterizerState>& GetTwoSideWireframeState() const { return m_presets[3]; }
    const Ptr<RasterizerState>& GetLVFrontFaceState() const { return m_presets[4]; }
    const Ptr<RasterizerState>& GetLVBackFaceState() const { return m_presets[5]; }

private:
    Ptr<RasterizerState> m_presets[6];
};

class KOVEX_API DepthStencilStateFactory : public TStateFactory<DepthStencilState>
{
public:
    DepthStencilStateFactory() : TStateFactory(FactoryType::DepthStencilStateFactory) {}
    static DepthStencilStateFactory* Get() { return static_cast<DepthStencilStateFactory*>(GetSlot(FactoryType::DepthStencilStateFactory)); }
    void OnDeviceCreated() override;
    void OnExit() override;

    const Ptr<DepthStencilState>& GetDepthWriteState() const { return m_presets[0]; }
    const Ptr<DepthStencilState>& GetDepthDisableState() const { return m_presets[1]; }
    const Ptr<DepthStencilState>& GetDepthTestState() const { return m_presets[2]; }
    const Ptr<DepthStencilState>& GetDepthWriteNoTestState() const { return m_presets[3]; }
    const Ptr<DepthStencilState>& GetLightVolumePass1State() const { return m_presets[4]; }
    const Ptr<DepthStencilState>& GetLightVolumePass2State() const { return m_presets[5]; }
    const Ptr<DepthStencilState>& GetLightVolumePass3State() const { return m_presets[6]; }
    const Ptr<DepthStencilState>& GetLightStencilCullPass1State() const { return m_presets[7]; }
    const Ptr<DepthStencilState>& GetLightStencilCullPass2State() const { return m_presets[8]; }

private:
    Ptr<DepthStencilState> m_presets[9];
};

class KOVEX_API SamplerStateFactory : public TStateFactory<SamplerState>
{
public:
    SamplerStateFactory() : TStateFactory(FactoryType::SamplerStateFactory) {}
    static SamplerStateFactory* Get() { return static_cast<SamplerStateFactory*>(GetSlot(FactoryType::SamplerStateFactory)); }
};

} // namespace KovexEngine
