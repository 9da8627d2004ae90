#pragma once

// The texture object as the renderer needs it to hold render targets: a
// graphics resource with a format and a size. Descriptions, pools and
// loading are built on it by the texture factory.
//
// Threads: as GraphicsObject.

#include "graphics/GraphicsFormat.h"
#include "graphics/GraphicsObject.h"

namespace KovexEngine {

class KOVEX_API Texture : public GraphicsResource
{
    KOVEX_CLASS(Texture)

public:
    GraphicsFormat GetFormat() const { return m_format; }
    uint32 GetWidth() const { return m_width; }
    uint32 GetHeight() const { return m_height; }
    void SetSize(GraphicsFormat format, uint32 width, uint32 height)
    {
        m_format = format;
        m_width = width;
        m_height = height;
    }

private:
    GraphicsFormat m_format = GraphicsFormat::UNKNOWN;
    uint32 m_width = 0;
    uint32 m_height = 0;
};

// Up to eight colour targets and a depth buffer, each with an array index.
struct KOVEX_API RenderTargetGroup
{
    static constexpr unsigned kMaxTargets = 8;
    Ptr<Texture> RenderTargets[kMaxTargets];
    uint32 ArrayIndices[kMaxTargets] = {};
    Ptr<Texture> DepthBuffer;
    uint32 DepthArrayIndex = 0;

    void Clear();
};

} // namespace KovexEngine
