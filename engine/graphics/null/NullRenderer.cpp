#include "graphics/null/NullRenderer.h"

namespace KovexEngine {

KOVEX_REGISTER_CLASS(NullRenderer, u"Engine", Renderer)
KOVEX_REGISTER_CLASS(NullTexture, u"Engine", Texture)
KOVEX_REGISTER_CLASS(NullIndexBuffer, u"Engine", IndexBuffer)
KOVEX_REGISTER_CLASS(NullVertexBuffer, u"Engine", VertexBuffer)
KOVEX_REGISTER_CLASS(NullConstantBuffer, u"Engine", ConstantBuffer)
KOVEX_REGISTER_CLASS(NullRWBuffer, u"Engine", RWBuffer)
KOVEX_REGISTER_CLASS(NullGraphicsWindow, u"Engine", GraphicsWindow)

Renderer* NewNullRenderer() { return new NullRenderer(); }

NullRenderer::NullRenderer()
{
    SetPlatform(RendererPlatform::D3D11);
    // Known before the device opens, so that Init's defaulting finds them.
    SetDefaultFormat(GraphicsFormat::R8G8B8A8_UNORM, GraphicsFormat::D24_UNORM_S8_UINT);
}

Ptr<Texture> NullRenderer::NewNullTexture(GraphicsFormat format, uint32 width, uint32 height)
{
    Ptr<Texture> texture(new NullTexture());
    texture->SetSize(format, width, height);
    texture->SetState(GraphicsObject::Created);
    return texture;
}

// The null answers, generated from the one list of device operations.
// Parameters are unnamed where the answer ignores them.
#define KOVEX_DEVICE_OP_NULL_BODY(result, name, params, nullResult)        \
    _Pragma("GCC diagnostic push")                                         \
    _Pragma("GCC diagnostic ignored \"-Wunused-parameter\"")               \
    result NullRenderer::name params { return nullResult; }                \
    _Pragma("GCC diagnostic pop")
KOVEX_RENDERER_DEVICE_OPS(KOVEX_DEVICE_OP_NULL_BODY)
#undef KOVEX_DEVICE_OP_NULL_BODY

// The device comes up with what the shader templates of a modest
// shader-model-5 part would see.
bool NullRenderer::NullCreateDevice(const GraphicsParameters&)
{
    HWCapability& caps = *GetHWCapability();
    caps.Profile = D3DShaderProfile::SM_5_0;
    caps.SupportGeometryShader = true;
    caps.SupportTexture2DArray = true;
    caps.SupportDepthTexture2D = true;
    caps.SupportInstanceRendering = true;
    caps.SupportComputeShader = true;
    caps.NumSimultaneousRTs = 8;
    caps.MaxAnisotropy = 16;
    caps.UpdateMacros();
    SetDefaultFormat(GraphicsFormat::R8G8B8A8_UNORM, GraphicsFormat::D24_UNORM_S8_UINT);
    SetGPUVendor("Null Device");
    return true;
}

Ptr<Texture> NullGraphicsWindow::OnCreateBackBuffer()
{
    return NullRenderer::NewNullTexture(GetParameters().BackBufferFormat, GetParameters().Width,
                                        GetParameters().Height);
}

Ptr<Texture> NullGraphicsWindow::OnCreateDepthBuffer()
{
    return NullRenderer::NewNullTexture(GetParameters().DepthStencilFormat, GetParameters().Width,
                                        GetParameters().Height);
}

} // namespace KovexEngine
