#pragma once

// The renderer of a machine without a graphics API (g_IsNullRenderer): every
// device operation is the null answer of KOVEX_RENDERER_DEVICE_OPS, textures
// own no device memory, and every object's device side is created at once.
// All layers above the device run on it unchanged.

#include "graphics/ConstantBuffer.h"
#include "graphics/IndexBuffer.h"
#include "graphics/InputLayout.h"
#include "graphics/RWBuffer.h"
#include "graphics/Renderer.h"
#include "graphics/Shader.h"
#include "graphics/TextureFactory.h"
#include "graphics/VertexBuffer.h"

namespace KovexEngine {

// A resource without device memory: created at once, never mappable.
template <typename BASE>
class TNullResource : public BASE
{
public:
    bool CreateDeviceHandle() override { return true; }
    void ReleaseDeviceHandle() override {}

protected:
    bool DeviceMap(MappedSubresource&, MapType, uint32) override { return false; }
    void DeviceUnmap(uint32) override {}
};

class KOVEX_API NullTexture : public TNullResource<Texture>
{
    KOVEX_CLASS(NullTexture)
public:
    // Takes the initial pixels as a device would, keeping only their count.
    bool CreateDeviceHandle() override
    {
        m_uploaded.store(GetInitialDataSize());
        DropInitialData();
        return true;
    }
    uint32 GetUploadedBytes() const { return m_uploaded.load(); }
    // Bytes and calls of UpdateSubresource since creation.
    uint32 GetUpdatedBytes() const { return m_updatedBytes.load(); }
    uint32 GetUpdateCount() const { return m_updates.load(); }

protected:
    bool DeviceUpdateSubresource(uint32 subresource, const MappedSubresource& data, const MappedBox* box) override
    {
        m_updatedBytes.fetch_add(CalculateDataSize(subresource, data, box));
        m_updates.fetch_add(1);
        return true;
    }

private:
    std::atomic<uint32> m_uploaded{0};
    std::atomic<uint32> m_updatedBytes{0};
    std::atomic<uint32> m_updates{0};
};

class KOVEX_API NullTextureFactory : public TextureFactory
{
protected:
    Texture* NewTexture() override { return new NullTexture(); }
};

class KOVEX_API NullIndexBuffer : public TNullResource<IndexBuffer>
{
    KOVEX_CLASS(NullIndexBuffer)
};

class KOVEX_API NullIndexBufferFactory : public IndexBufferFactory
{
protected:
    IndexBuffer* NewIndexBuffer() override { return new NullIndexBuffer(); }
};

class KOVEX_API NullVertexBuffer : public TNullResource<VertexBuffer>
{
    KOVEX_CLASS(NullVertexBuffer)
};

class KOVEX_API NullVertexBufferFactory : public VertexBufferFactory
{
protected:
    VertexBuffer* NewVertexBuffer() override { return new NullVertexBuffer(); }
};

class KOVEX_API NullConstantBuffer : public ConstantBuffer
{
    KOVEX_CLASS(NullConstantBuffer)
public:
    void ReleaseDeviceHandle() override {}

protected:
    bool DeviceCreateBuffer() override { return true; }
    bool DeviceMap(MappedSubresource&, MapType, uint32) override { return false; }
    void DeviceUnmap(uint32) override {}
};

class KOVEX_API NullConstantBufferFactory : public ConstantBufferFactory
{
protected:
    ConstantBuffer* NewConstantBuffer() override { return new NullConstantBuffer(); }
};

class KOVEX_API NullRWBuffer : public TNullResource<RWBuffer>
{
    KOVEX_CLASS(NullRWBuffer)
};

class KOVEX_API NullRWBufferFactory : public RWBufferFactory
{
protected:
    RWBuffer* NewRWBuffer() override { return new NullRWBuffer(); }
};

class KOVEX_API NullGraphicsWindow : public GraphicsWindow
{
    KOVEX_CLASS(NullGraphicsWindow)
protected:
    Ptr<Texture> OnCreateBackBuffer() override;
    Ptr<Texture> OnCreateDepthBuffer() override;
};

class KOVEX_API NullGraphicsWindowFactory : public GraphicsWindowFactory
{
protected:
    GraphicsWindow* NewWindow() override { return new NullGraphicsWindow(); }
};

class KOVEX_API NullRenderer : public Renderer
{
    KOVEX_CLASS(NullRenderer)

public:
    NullRenderer();

#define KOVEX_DEVICE_OP_NULL_DECL(result, name, params, nullResult) result name params override;
    KOVEX_RENDERER_DEVICE_OPS(KOVEX_DEVICE_OP_NULL_DECL)
#undef KOVEX_DEVICE_OP_NULL_DECL

    static Ptr<Texture> NewNullTexture(GraphicsFormat format, uint32 width = 0, uint32 height = 0);

private:
    bool NullCreateDevice(const GraphicsParameters& parameters);
    // A buffer of the size last applied.
    Ptr<Texture> NewNullBuffer(GraphicsFormat format)
    {
        return NewNullTexture(format, m_parameters.Width, m_parameters.Height);
    }
    static GraphicsFactory* NewNullWindowFactory() { return new NullGraphicsWindowFactory(); }
};

} // namespace KovexEngine
