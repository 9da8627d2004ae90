#pragma once

// The device binding of a vertex layout to a vertex shader's inputs. The
// factory has no logic of its own; a platform's subclass keeps the layouts
// it has made.
//
// Threads: as GraphicsObject.

#include "graphics/GraphicsObject.h"
#include "graphics/VertexDecl.h"

namespace KovexEngine {

class KOVEX_API InputLayout : public GraphicsObject
{
    KOVEX_CLASS(InputLayout)

public:
    InputLayout();
    ~InputLayout() override;

    void* GetDeviceHandle() const { return m_handle; }
    const Ptr<VertexDecl>& GetInputs() const { return m_inputs; }
    void SetInputs(const Ptr<VertexDecl>& inputs) { m_inputs = inputs; }

protected:
    void SetDeviceHandle(void* handle) { m_handle = handle; }

private:
    void* m_handle = nullptr;
    Ptr<VertexDecl> m_inputs;
};

class KOVEX_API InputLayoutFactory : public GraphicsFactory
{
public:
    InputLayoutFactory() : GraphicsFactory(FactoryType::InputLayoutFactory) {}
    static InputLayoutFactory* Get()
    {
        return static_cast<InputLayoutFactory*>(GetSlot(FactoryType::InputLayoutFactory));
    }
};

} // namespace KovexEngine
