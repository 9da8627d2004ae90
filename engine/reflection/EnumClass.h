#pragma once

#include "reflection/ValueClass.h"

namespace KovexEngine {

struct EnumMember
{
    const char16_t* name = nullptr;
    const char16_t* displayName = nullptr;
    int value = 0;
};

// The class of a wrapper enum: its members in the order of declaration. The
// value is always a 32-bit int.
class KOVEX_API EnumClass : public ValueClass
{
public:
    EnumClass(const char16_t* name, const char16_t* module);

    bool IsEnum() const override { return true; }
    void Delete(void* data) const override;
    void Copy(void* destination, const void* source) const override;
    void* Clone(const void* source) const override;
    bool IsEqual(const void* a, const void* b) const override;
    // Exact equality: the epsilon is ignored.
    bool Compare(const void* a, const void* b, float epsilon) const override;

    void AddMember(int value, const char16_t* name) { AddMember(value, name, name); }
    void AddMember(int value, const char16_t* name, const char16_t* displayName);
    unsigned int GetNumMembers() const { return m_members.Count(); }
    const TArray<EnumMember>& GetMembers() const { return m_members; }
    const EnumMember* GetMemberByIndex(unsigned int index) const;
    const EnumMember* GetMember(int value) const;
    const EnumMember* GetMember(const WString& name) const;
    unsigned int GetMemberIndex(int value) const;
    unsigned int GetMemberIndex(const WString& name) const;
    // The empty string for a value that is no member.
    const char16_t* GetMemberName(int value) const;
    // 0xCDCDCDCD for a name that is no member.
    int GetMemberValue(const WString& name) const;

    static constexpr int kUnknownValue = int(0xCDCDCDCD);
    // The members of no enum.
    static const TArray<EnumMember> Empty;

private:
    TArray<EnumMember> m_members;
};

} // namespace KovexEngine
