#pragma once

// The constants that render-data classes refresh by themselves ("WorldMatrix",
// "ViewProjMatrix", "BoneMatrices", ...). Each class registers once: it gets
// a group number and, in its registration procedure, enters its constants
// by name with their update kind; the constant's index within the group is
// its order of registration. Programs then file each constant they declare
// by group (CommitConstantInterface::NewConstant, through the resolver this
// manager installs), so a class refreshes exactly its own constants.
//
// FindAutoUpdateId: an exact name, else "Name_N" with N a whole number
// addresses element N of the array constant "Name".
//
// Threads: registration and lookups take the manager's lock, so any thread
// may call them; registrations belong to engine start-up in practice
// (groups are numbered in call order). Ins() and Destroy() belong to the
// thread that starts and ends the engine.

#include "graphics/ShaderResource.h"
#include "kernel/Strings.h"

namespace KovexEngine {

class KOVEX_API AutoUpdateConstantManager
{
public:
    using AutoUpdateId = ShaderConstant::AutoUpdateId;
    using RegisterProc = void (*)(unsigned char group);
    static constexpr unsigned kMaxGroups = 255;       // group 255 would read as invalid
    static constexpr unsigned kMaxConstantsPerGroup = 255;

    // Created on first use, which installs the resolver in ShaderConstant.
    static AutoUpdateConstantManager* Ins();
    // Frees the maps and puts back the resolver that was there before.
    static void Destroy();

    // The next group number, after calling `proc` with it (outside the
    // lock, so proc registers its constants). -1, with a log line, when the
    // groups are used up or proc is null.
    int RegisterUpdateConstantProcs(RegisterProc proc);
    // False, with a log line, for an empty or taken name, a group that was
    // never handed out, a kind not below ShaderConstant::kUpdateKinds, or a
    // full group.
    bool RegisterAutoUpdateConstant(const WString& name, unsigned char group, uint32 kind);
    // The id (invalid when none) and, through `kind`, the update kind.
    AutoUpdateId FindAutoUpdateId(const WString& name, uint32* kind = nullptr) const;
    // Name of a group's constant, "" when none (tools, messages).
    WString GetConstantName(unsigned char group, unsigned char constant) const;
    unsigned GetNumGroups() const;
    unsigned GetNumConstants(unsigned char group) const;

private:
    AutoUpdateConstantManager();
    ~AutoUpdateConstantManager();
    AutoUpdateConstantManager(const AutoUpdateConstantManager&) = delete;
    AutoUpdateConstantManager& operator=(const AutoUpdateConstantManager&) = delete;

    struct Impl;
    Impl* m_impl;
};

} // namespace KovexEngine
