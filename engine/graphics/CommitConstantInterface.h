#pragma once

// Constants by name, shared by programs and constant buffers: a sorted map
// from name to the constants it owns, and per auto-update group the lists of
// the group's constants by update kind, so that a render-data class refreshes
// exactly the constants it feeds.
//
// Threads: belongs to the thread that builds and commits (main or graphics
// side, one at a time), like the object that derives from it.

#include "graphics/ShaderResource.h"
#include "kernel/Containers.h"

namespace KovexEngine {

class KOVEX_API CommitConstantInterface
{
public:
    struct GroupConstants
    {
        TArray<ShaderConstant*> ByKind[ShaderConstant::kUpdateKinds];
    };

    CommitConstantInterface() = default;
    CommitConstantInterface(const CommitConstantInterface&) = delete;
    CommitConstantInterface& operator=(const CommitConstantInterface&) = delete;
    virtual ~CommitConstantInterface();

    // The constant of this name, made (named, its auto-update id looked up,
    // entered in its group's list) when there is none yet.
    ShaderConstant* NewConstant(const TSharedString<WString>& name);
    ShaderConstant* FindConstant(const WString& name) const;
    unsigned GetNumConstants() const { return m_constants.Count(); }
    // False for an unknown name, else what CommitConstant answers.
    bool CommitConstantByName(const WString& name, const void* data, uint32 size, uint32 rowStride);
    // Commits each constant's default value, registers of 16 bytes.
    void ApplyConstantDefaultValue();
    // Deletes every constant and every group list.
    void CleanupConstants();

    // The lists of a group; null until a constant of it appears.
    virtual const GroupConstants* GetAutoUpdateConstants(uint32 group) const;
    virtual bool CommitConstant(ShaderConstant* constant, const void* data, uint32 size, uint32 rowStride) = 0;

protected:
    // The constant factory: a subclass may keep more per constant.
    virtual ShaderConstant* CreateConstant() { return new ShaderConstant(); }

private:
    TMap<WString, ShaderConstant*> m_constants;
    TArray<GroupConstants*> m_groups;
};

} // namespace KovexEngine
