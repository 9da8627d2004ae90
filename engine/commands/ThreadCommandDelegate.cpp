#include "commands/ThreadCommandDelegate.h"

namespace KovexEngine {

KOVEX_REGISTER_CLASS(ThreadCommand_Delegate, u"Engine", ThreadCommand)

} // namespace KovexEngine
