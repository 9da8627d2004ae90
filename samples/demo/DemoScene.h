#pragma once

// The demo's rendering mode: a textured quad drawn each frame by a program
// the engine compiles from the shader templates under Data/shaders, its
// tint set by constant name, and the last frame read back into a PNG.

#include <string>

#include "KovexEngine.h"

class DemoScene
{
public:
    // Builds the program, the texture (an image from Data/Samples, through
    // the image loaders) and the quad. False, with a message on stderr,
    // when any of them fails.
    bool Create();
    // Clears, draws the quad tinted by the frame number and presents.
    bool DrawFrame(unsigned frame);
    // The current back buffer into a PNG file; false when it cannot be read
    // or written.
    bool SaveFrame(const std::string& path);
    void Destroy();

private:
    // The codes own the configurations a program points to.
    KovexEngine::Ptr<KovexEngine::PGFramework> m_framework;
    KovexEngine::Ptr<KovexEngine::PGAttribute> m_attribute;
    KovexEngine::Ptr<KovexEngine::PGMaterial> m_material;
    KovexEngine::Ptr<KovexEngine::Program> m_program;
    KovexEngine::Ptr<KovexEngine::Texture> m_texture;
    KovexEngine::Ptr<KovexEngine::VertexBuffer> m_quad;
    KovexEngine::Ptr<KovexEngine::IndexBuffer> m_indices;
};
