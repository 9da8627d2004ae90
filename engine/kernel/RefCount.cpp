#include "kernel/RefCount.h"

namespace KovexEngine {

// Out of line so that the class's virtual table lives in the library.
ReferenceObj::~ReferenceObj() = default;

} // namespace KovexEngine
