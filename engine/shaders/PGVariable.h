#pragma once

// Program variables: a value bound to a program by name, committed when a
// draw begins with that program. Render tasks, phases and observers carry
// them for what is not a material parameter or an auto-update constant (a
// scene texture copy, a task's target, clip planes); a material parameter
// makes one to hand its value to the programs of its material.
//
// OnRenderBegin commits the value under the variable's name and answers
// whether the program took it. A program that does not read the name takes
// nothing and is left as it was: with many programs sharing one observer
// that is the usual case, so it is not logged. OnRecycle drops references to
// device objects once the frame no longer needs them.
//
// Threads: a variable is set and committed by the render side, one thread;
// it has no lock.

#include "kernel/Containers.h"
#include "kernel/SharedString.h"
#include "kernel/Strings.h"
#include "math/Vector.h"
#include "reflection/Object.h"

namespace KovexEngine {

class BaseProgram;
class Texture;
class RWBuffer;

class KOVEX_API PGVariable : public Object
{
    KOVEX_CLASS(PGVariable)

public:
    PGVariable() = default;
    explicit PGVariable(const WString& name) : m_name(name) {}

    const TSharedString<WString>& GetName() const { return m_name; }
    void SetName(const WString& name) { m_name = TSharedString<WString>(name); }
    void SetName(const TSharedString<WString>& name) { m_name = name; }

    // Commits the value into `program` under the name: false for a null
    // program, an empty name, or a name the program does not read. The base
    // carries no value and commits nothing.
    virtual bool OnRenderBegin(BaseProgram* program);
    // Lets go of what the frame held; the base has nothing.
    virtual void OnRecycle() {}

private:
    TSharedString<WString> m_name;
};

// A texture committed with BaseProgram::CommitTexture. A null texture is
// committed too: it clears the program's binding of the name.
class KOVEX_API PGTexture : public PGVariable
{
    KOVEX_CLASS(PGTexture)

public:
    PGTexture();
    explicit PGTexture(const WString& name);
    ~PGTexture() override;

    const Ptr<Texture>& GetTexture() const { return m_texture; }
    void SetTexture(const Ptr<Texture>& texture);

    bool OnRenderBegin(BaseProgram* program) override;
    void OnRecycle() override;

private:
    Ptr<Texture> m_texture;
};

// A read-write buffer committed with BaseProgram::CommitBuffer.
class KOVEX_API PGBuffer : public PGVariable
{
    KOVEX_CLASS(PGBuffer)

public:
    PGBuffer();
    explicit PGBuffer(const WString& name);
    ~PGBuffer() override;

    const Ptr<RWBuffer>& GetBuffer() const { return m_buffer; }
    void SetBuffer(const Ptr<RWBuffer>& buffer);

    bool OnRenderBegin(BaseProgram* program) override;
    void OnRecycle() override;

private:
    Ptr<RWBuffer> m_buffer;
};

// A float4 constant, or an array of them (one register each), committed
// with CommitConstantByName. Holds one zero vector until set; a shorter
// array in the program takes the first elements.
class KOVEX_API PGVector : public PGVariable
{
    KOVEX_CLASS(PGVector)

public:
    PGVector();
    explicit PGVector(const WString& name);

    unsigned GetCount() const { return m_values.Count(); }
    const Vector4& GetValue(unsigned index = 0) const;
    void SetValue(const Vector4& value);
    // Replaces the array; a count of 0, or more than a constant buffer's
    // 4096 registers, keeps one zero vector.
    void SetValues(const Vector4* values, unsigned count);
    // One element, growing the array with zero vectors up to it; an index
    // past 4095 is ignored.
    void SetValue(unsigned index, const Vector4& value);

    bool OnRenderBegin(BaseProgram* program) override;

private:
    TArray<Vector4> m_values;
};

// An array of elements of 1 to 4 floats, committed by name with each element
// in its own register, as an HLSL array of float..float4 lies in a constant
// buffer: the clip planes of a render context ("UserClipPlanes", float4) are
// one. Empty until set; an empty stream commits nothing.
class KOVEX_API PGStream : public PGVariable
{
    KOVEX_CLASS(PGStream)

public:
    PGStream();
    explicit PGStream(const WString& name);

    // `count` elements of `components` floats each, packed; false (and
    // nothing changes) for components outside 1..4 or more than 4096
    // elements (a constant buffer's registers).
    bool SetData(const float* values, unsigned count, unsigned components);
    void SetVectors(const Vector4* values, unsigned count) { SetData(&values->x, count, 4); }
    void Clear();

    unsigned GetCount() const { return m_components ? m_values.Count() / m_components : 0; }
    unsigned GetComponents() const { return m_components; }
    const float* GetData() const { return m_values.Data(); }

    bool OnRenderBegin(BaseProgram* program) override;

private:
    TArray<float> m_values;
    unsigned m_components = 0;
};

} // namespace KovexEngine
