#include "ToolEngine.h"

#include <filesystem>
#include <mutex>

#include "CommandLine.h"
#include "KovexEngine.h"

using namespace KovexEngine;

namespace KovexTools {

namespace {

std::mutex s_lock;
std::vector<std::string> s_messages;

// Keeps warnings and errors, from any thread; drops the rest.
class Keeper : public LogProxy
{
public:
    void Print(unsigned level, const char16_t* text) override
    {
        if (level < LOG_WARNING)
            return;
        std::string line = StringConvFuncs::ToAString(text).c_str();
        while (!line.empty() && (line.back() == '\n' || line.back() == ' '))
            line.pop_back();
        std::lock_guard<std::mutex> hold(s_lock);
        s_messages.push_back(line);
    }
};

} // namespace

void AddDataOption(CommandLine& cl) { cl.Add(0, "data", true); }

bool StartEngine(const CommandLine& cl)
{
    std::string dir = cl.Value("data");
    Log::AddProxy(Ptr<LogProxy>(new Keeper()));
    g_IsNullRenderer = true;
    Kovex_Main_Initialize();
    if (cl.Has("data"))
    {
        if (!FileStream::DirectoryExists(StringConvFuncs::ToWString(dir.c_str())))
        {
            cl.Fail("the data directory '" + dir + "' does not exist");
            return false;
        }
        WString root = StringConvFuncs::ToWString(std::filesystem::absolute(dir).c_str());
        if (!root.EndsWith(u"/"))
            root.Append(u'/');
        bool loaded = Kovex_Main_LoadRequiredData(root());
        // A data root of assets alone lacks the built-in shaders: their lines
        // are the engine's start, not the tool's work.
        TakeEngineMessages();
        return loaded;
    }
    Kovex_Main_LoadRequiredData(nullptr); // a tool on explicit paths needs no root
    TakeEngineMessages();
    return true;
}

void StopEngine()
{
    Kovex_Main_Terminate();
    Kovex_Renderer_Terminate();
    Kovex_System_Terminate();
    Kovex_Main_Cleanup();
    Kovex_Renderer_Cleanup();
    Kovex_System_Cleanup();
}

std::vector<std::string> TakeEngineMessages()
{
    std::lock_guard<std::mutex> hold(s_lock);
    std::vector<std::string> out;
    out.swap(s_messages);
    return out;
}

} // namespace KovexTools
