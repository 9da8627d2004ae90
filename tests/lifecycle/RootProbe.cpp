// Reports the data root that the engine finds from this executable's place.
//   RootProbe root   Kovex_SetRootPath(nullptr)
//   RootProbe load   Kovex_Main_LoadRequiredData(nullptr)
// Prints the root and exits with 0 on success, 1 on failure.

#include <cstdio>
#include <cstring>

#include "lifecycle/Engine.h"
#include "kernel/StringConv.h"

using namespace KovexEngine;

int main(int argc, char** argv)
{
    bool load = argc > 1 && std::strcmp(argv[1], "load") == 0;
    bool ok = load ? Kovex_Main_LoadRequiredData(nullptr) : Kovex_SetRootPath(nullptr);
    std::printf("%s", StringConvFuncs::ToAString(g_kovexRootPath()).c_str());
    return ok ? 0 : 1;
}
