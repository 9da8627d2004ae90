#include "graphics/InputLayout.h"

namespace KovexEngine {

KOVEX_REGISTER_CLASS(InputLayout, u"Engine", GraphicsObject)

InputLayout::InputLayout() = default;
InputLayout::~InputLayout() = default;

} // namespace KovexEngine
