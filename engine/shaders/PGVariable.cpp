#include "shaders/PGVariable.h"

#include "graphics/BaseProgram.h"
#include "graphics/RWBuffer.h"
#include "graphics/Texture.h"

namespace KovexEngine {

KOVEX_REGISTER_CLASS(PGVariable, u"Engine", Object)
KOVEX_REGISTER_CLASS(PGTexture, u"Engine", PGVariable)
KOVEX_REGISTER_CLASS(PGBuffer, u"Engine", PGVariable)
KOVEX_REGISTER_CLASS(PGVector, u"Engine", PGVariable)
KOVEX_REGISTER_CLASS(PGStream, u"Engine", PGVariable)

namespace {

constexpr uint32 kRegisterBytes = 16;
// The most registers a constant buffer holds (64 KiB): no value can be
// longer, so nothing asks for more.
constexpr unsigned kMaxRegisters = 4096;

} // namespace

bool PGVariable::OnRenderBegin(BaseProgram*) { return false; }

// --- PGTexture ----------------------------------------------------------------

PGTexture::PGTexture() = default;
PGTexture::PGTexture(const WString& name) : PGVariable(name) {}
PGTexture::~PGTexture() = default;

void PGTexture::SetTexture(const Ptr<Texture>& texture) { m_texture = texture; }

bool PGTexture::OnRenderBegin(BaseProgram* program)
{
    return program && !GetName().IsEmpty() && program->CommitTexture(*GetName(), m_texture);
}

void PGTexture::OnRecycle() { m_texture = nullptr; }

// --- PGBuffer -----------------------------------------------------------------

PGBuffer::PGBuffer() = default;
PGBuffer::PGBuffer(const WString& name) : PGVariable(name) {}
PGBuffer::~PGBuffer() = default;

void PGBuffer::SetBuffer(const Ptr<RWBuffer>& buffer) { m_buffer = buffer; }

bool PGBuffer::OnRenderBegin(BaseProgram* program)
{
    return program && !GetName().IsEmpty() && program->CommitBuffer(*GetName(), m_buffer);
}

void PGBuffer::OnRecycle() { m_buffer = nullptr; }

// --- PGVector -----------------------------------------------------------------

PGVector::PGVector() { m_values.Add(Vector4(0.0f, 0.0f, 0.0f, 0.0f)); }
PGVector::PGVector(const WString& name) : PGVariable(name) { m_values.Add(Vector4(0.0f, 0.0f, 0.0f, 0.0f)); }

const Vector4& PGVector::GetValue(unsigned index) const
{
    static const Vector4 zero(0.0f, 0.0f, 0.0f, 0.0f);
    return index < m_values.Count() ? m_values[index] : zero;
}

void PGVector::SetValue(const Vector4& value) { SetValues(&value, 1); }

void PGVector::SetValues(const Vector4* values, unsigned count)
{
    m_values.Clear();
    if (!values || count == 0 || count > kMaxRegisters)
    {
        m_values.Add(Vector4(0.0f, 0.0f, 0.0f, 0.0f));
        return;
    }
    if (!m_values.Reserve(count))
        return;
    for (unsigned i = 0; i < count; ++i)
        m_values.Add(values[i]);
}

void PGVector::SetValue(unsigned index, const Vector4& value)
{
    if (index >= kMaxRegisters)
        return;
    while (m_values.Count() <= index)
        if (m_values.Add(Vector4(0.0f, 0.0f, 0.0f, 0.0f)) == kNotFound)
            return;
    m_values[index] = value;
}

bool PGVector::OnRenderBegin(BaseProgram* program)
{
    return program && !GetName().IsEmpty() &&
           program->CommitConstantByName(*GetName(), &m_values[0].x, m_values.Count() * kRegisterBytes,
                                         kRegisterBytes);
}

// --- PGStream -----------------------------------------------------------------

PGStream::PGStream() = default;
PGStream::PGStream(const WString& name) : PGVariable(name) {}

bool PGStream::SetData(const float* values, unsigned count, unsigned components)
{
    if (components < 1 || components > 4 || count > kMaxRegisters || (count && !values))
        return false;
    TArray<float> copy;
    if (!copy.Reserve(count * components))
        return false;
    for (unsigned i = 0; i < count * components; ++i)
        copy.Add(values[i]);
    m_values.Swap(copy);
    m_components = components;
    return true;
}

void PGStream::Clear()
{
    m_values.Clear();
    m_components = 0;
}

bool PGStream::OnRenderBegin(BaseProgram* program)
{
    const unsigned count = GetCount();
    if (!program || GetName().IsEmpty() || count == 0)
        return false;
    // Each element starts a register; the size counts the registers' bytes,
    // the last one only as far as its element reaches.
    const uint32 rowBytes = m_components * 4;
    const uint32 size = (count - 1) * kRegisterBytes + rowBytes;
    return program->CommitConstantByName(*GetName(), m_values.Data(), size, rowBytes);
}

} // namespace KovexEngine
