#pragma once

// The engine as the tools run it: all layers up on the null renderer, the
// data root from --data DIR or the engine's own search, and the engine's log
// kept back so that a tool can quote it as the cause of a failure instead of
// printing developer chatter.

#include <string>
#include <vector>

namespace KovexTools {

class CommandLine;

// Adds --data DIR to a command line.
void AddDataOption(CommandLine& cl);

// Starts the engine. With --data DIR the root is DIR; without it the search
// runs, and failing that the tool still runs without a root. False (after
// saying why) when DIR is not a directory.
bool StartEngine(const CommandLine& cl);
void StopEngine();

// The engine's warnings and errors since the last Take, oldest first, one
// line each.
std::vector<std::string> TakeEngineMessages();

} // namespace KovexTools
