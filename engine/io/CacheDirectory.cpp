#include "io/CacheDirectory.h"

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "kernel/EngineGlobals.h"
#include "kernel/Log.h"
#include "kernel/StringConv.h"

namespace KovexEngine {

namespace {

bool Writable(const std::string& dir) { return !dir.empty() && ::access(dir.c_str(), W_OK | X_OK) == 0; }

// mkdir -p, 0700 for what it makes: the cache is the user's own.
bool MakeDirectories(const std::string& dir)
{
    for (size_t at = 1; at <= dir.size(); ++at)
    {
        if (at != dir.size() && dir[at] != '/')
            continue;
        std::string part = dir.substr(0, at);
        if (::mkdir(part.c_str(), 0700) != 0 && errno != EEXIST)
            return false;
    }
    struct stat info;
    return ::stat(dir.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

} // namespace

WString GetEngineCacheDirectory()
{
    AString root;
    StringConvFuncs::UTF16toUTF8(root, g_kovexRootPath());
    std::string dir = root.IsEmpty() ? std::string("./") : std::string(root());
    if (dir.back() != '/')
        dir += '/';
    if (!Writable(dir))
    {
        const char* xdg = std::getenv("XDG_CACHE_HOME");
        const char* home = std::getenv("HOME");
        if (xdg && xdg[0] == '/')
            dir = std::string(xdg) + "/KovexEngine/";
        else if (home && home[0] == '/')
            dir = std::string(home) + "/.cache/KovexEngine/";
        else
            dir.clear();
        if (dir.empty() || !MakeDirectories(dir.substr(0, dir.size() - 1)) || !Writable(dir))
        {
            Log::Print(LOG_WARNING, u"No writable cache directory.\n");
            return WString();
        }
    }
    return StringConvFuncs::ToWString(dir.c_str());
}

} // namespace KovexEngine
