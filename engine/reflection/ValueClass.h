#pragma once

#include "reflection/Class.h"

namespace KovexEngine {

// A class that describes a value type rather than an Object. Structs, enums
// and delegates manage their values through the operations below; plain
// types need none of them.
class KOVEX_API ValueClass : public Class
{
public:
    ValueClass(const char16_t* name, unsigned int size, const char16_t* module, KOVEX_BASE_TYPE type);
    bool IsValueClass() const override;
    bool IsBaseType() const override;
    KOVEX_BASE_TYPE GetType() const override { return m_type; }

    // Deletes a value made by Clone.
    virtual void Delete(void* data) const;
    // Assigns one value to another.
    virtual void Copy(void* destination, const void* source) const;
    // A new heap copy, or null.
    virtual void* Clone(const void* source) const;
    virtual bool IsEqual(const void* a, const void* b) const;
    virtual bool Compare(const void* a, const void* b, float epsilon) const;
    // Constructs a copy, or the default value, in raw memory of GetSize()
    // bytes; and destroys one made so.
    virtual void CopyConstruct(void* destination, const void* source) const;
    virtual void DefaultConstruct(void* destination) const;
    virtual void DestroyInPlace(void* data) const;

protected:
    KOVEX_BASE_TYPE m_type;
};

} // namespace KovexEngine
