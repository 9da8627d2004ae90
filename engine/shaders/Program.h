#pragma once

// Programs of the program generator: one compiled set of shaders for a
// framework, attribute and material configuration (Program), or for one
// compute configuration (ComputeProgram). Made by ProgramManager through the
// ProgramCompiler, owned by the framework's lookup maps.
//
// Instancing: an attribute template that honours "USE_INSTANCE_RENDERING"
// reads the per-instance world matrix from the constant named
// Program::kInstanceConstantName ("WorldMatrix", the primitive's auto-update
// constant); PostCompiled caches it when it is an auto-update constant of
// the per-instance update kind (Program::kInstanceUpdateKind).
//
// Threads: as BaseProgram. The configuration pointers are fixed at creation.

#include "graphics/BaseProgram.h"

namespace KovexEngine {

class PGConfFW;
class PGConfAB;
class PGConfMT;
class BlendState;
class DepthStencilState;

class KOVEX_API Program : public BaseProgram
{
    KOVEX_CLASS(Program)

public:
    static constexpr const char16_t* kInstanceConstantName = u"WorldMatrix";
    // The update kind whose constants carry one value per instance.
    static constexpr uint32 kInstanceUpdateKind = 1;

    Program() = default;
    Program(const PGConfFW* fw, const PGConfAB* ab, const PGConfMT* mt);
    ~Program() override;

    const PGConfFW* GetConfFW() const { return m_fw; }
    const PGConfAB* GetConfAB() const { return m_ab; }
    const PGConfMT* GetConfMT() const { return m_mt; }

    // The non-null configurations, framework, attribute, material; `out`
    // has room for three.
    void GetConfigs(const PGCodeConf** out, unsigned& count) const override;
    // The three configurations' macros in that order, each in map order, then
    // a null pair. *count in: room (pairs, the null pair included); out: the
    // pairs written without the null pair. A null `out` gives the number.
    void GetMacros(ShaderMacro* out, unsigned* count) const override;
    // Number of macros GetMacros writes (without the null pair).
    unsigned GetNumMacros() const;

    // The material's blend state; the shared null state without one.
    const Ptr<BlendState>& GetBlendState() const;
    // Null (the default) without a material or for Opaque and Mask; else by
    // translucent depth mode: NoTest disables depth, WriteAndTest writes and
    // tests, the others test only.
    const Ptr<DepthStencilState>& GetTranslucentDepthState() const;

    void PostCompiled() override;
    bool IsInstancing() const { return m_isInstancing; }
    bool HasInstanceConstants() const { return m_hasInstanceConstants; }
    ShaderConstant* GetInstanceConstant() const { return m_instanceConstant; }

private:
    const PGConfFW* m_fw = nullptr;
    const PGConfAB* m_ab = nullptr;
    const PGConfMT* m_mt = nullptr;
    ShaderConstant* m_instanceConstant = nullptr;
    bool m_isInstancing = false;
    bool m_hasInstanceConstants = false;
};

class KOVEX_API ComputeProgram : public BaseProgram
{
    KOVEX_CLASS(ComputeProgram)

public:
    ComputeProgram() = default;
    explicit ComputeProgram(const PGCodeConf* conf) : m_conf(conf) {}
    ~ComputeProgram() override;

    const PGCodeConf* GetConf() const { return m_conf; }
    bool IsCompute() const override { return true; }
    void GetConfigs(const PGCodeConf** out, unsigned& count) const override;
    // The configuration's macros, then "USE_CS" = "1", then a null pair.
    void GetMacros(ShaderMacro* out, unsigned* count) const override;

private:
    const PGCodeConf* m_conf = nullptr;
};

} // namespace KovexEngine
