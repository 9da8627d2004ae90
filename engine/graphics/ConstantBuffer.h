#pragma once

// Constant buffers: a dynamic, CPU-writable buffer whose stream holds the
// constants as registers of 16 bytes, and which commits constants by name as
// a program does. A buffer made for a named shader buffer is found again by
// it through the factory.
//
// Threads: ConstantBufferFactory::Create and Find are safe from any thread.
// A buffer's writes belong to the thread that records the frame.

#include "graphics/CommitConstantInterface.h"
#include "graphics/GraphicsBuffer.h"

namespace KovexEngine {

class KOVEX_API ConstantBuffer : public GraphicsBuffer, public CommitConstantInterface
{
    KOVEX_CLASS(ConstantBuffer)

public:
    class KOVEX_API Stream : public GraphicsStream3
    {
        KOVEX_CLASS(Stream)
    };

    ConstantBuffer();
    ~ConstantBuffer() override;

    // The size itself when a multiple of 16, else the next multiple.
    static uint32 RoundSize(uint32 size) { return (size & 15u) ? (size & ~15u) + 16u : size; }

    // The device creation; on failure logs "Create constant buffer failed !"
    // and answers false. On success the stream spans the byte width from 0.
    bool CreateDeviceHandle() final;

    // `size` bytes at `offset`: a row stride of 16 copies straight; below
    // 16 each row of `rowStride` source bytes lands in its own 16-byte
    // register; above 16 refuses. Dirties the stream.
    bool WriteConstant(uint32 offset, const void* data, uint32 size, uint32 rowStride);
    // The writer fills the destination and may shrink the size; false
    // from it fails the write.
    using ConstantWriter = bool (*)(void* destination, uint32* size, void* userData);
    bool WriteConstant(uint32 offset, ConstantWriter writer, void* userData, uint32 size);
    // Registers back to packed rows: for reading a shader's defaults.
    static void CopyConstant(void* dst, const void* src, uint32 size, uint32 rowStride);

    const Ptr<ShaderCBuffer>& GetShaderCBuffer() const { return m_cbuffer; }
    void SetShaderCBuffer(const Ptr<ShaderCBuffer>& cbuffer) { m_cbuffer = cbuffer; }
    bool IsNamedCBuffer() const { return m_cbuffer && !m_cbuffer->GetName().IsEmpty(); }

    // Writes at the constant's byte offset (Location[0]).
    bool CommitConstant(ShaderConstant* constant, const void* data, uint32 size, uint32 rowStride) override;

protected:
    virtual bool DeviceCreateBuffer() = 0;

private:
    Ptr<ShaderCBuffer> m_cbuffer;
};

class KOVEX_API ConstantBufferFactory : public GraphicsFactory
{
public:
    ConstantBufferFactory() : GraphicsFactory(FactoryType::ConstantBufferFactory) {}
    ~ConstantBufferFactory() override;
    static ConstantBufferFactory* Get()
    {
        return static_cast<ConstantBufferFactory*>(GetSlot(FactoryType::ConstantBufferFactory));
    }

    // A posted buffer of the rounded size; null for 0 or an absurd size.
    Ptr<ConstantBuffer> Create(uint32 size, std::atomic<int32>* pending = nullptr);
    // Only with the capability SupportNamedConstantBuffer and a named shader
    // buffer; the buffer is then found again by Find.
    Ptr<ConstantBuffer> Create(const Ptr<ShaderCBuffer>& cbuffer, uint32 size, std::atomic<int32>* pending = nullptr);
    // The buffer made for this shader buffer; null on a miss. A copy, not a
    // reference into the map: another thread's Create may move the map.
    Ptr<ConstantBuffer> Find(const Ptr<ShaderCBuffer>& cbuffer);

    // Forgets the named buffers, then the base work.
    void OnExit() override;

protected:
    virtual ConstantBuffer* NewConstantBuffer() = 0;

private:
    TMap<const ShaderCBuffer*, Ptr<ConstantBuffer>> m_named;
    CriticalSection m_namedLock;
};

} // namespace KovexEngine
