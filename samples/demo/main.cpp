// The engine's demo: brings the engine up, finds its data root, loads assets
// from it in the calling thread and in the background, saves one in both
// serializer forms, then runs frames and reports what the frame clock
// measured. With a Vulkan device each frame draws a textured quad through a
// program the engine compiles from its shader templates, and the last frame
// is written to a PNG; without one (or with --null) the null renderer runs
// the frames through the graphics thread. A node of a small scene graph is
// moved by keyed animations on the way, cross-faded, with an event printed.

#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include "DemoAnimation.h"
#include "DemoScene.h"
#include "DemoWindow.h"
#include "KovexEngine.h"

using namespace KovexEngine;

namespace {
void ShutDown()
{
    Kovex_Main_Terminate();
    Kovex_Renderer_Terminate();
    Kovex_System_Terminate();
    Kovex_Main_Cleanup();
    Kovex_Renderer_Cleanup();
    Kovex_System_Cleanup();
}

std::string Utf8(const WString& text) { return StringConvFuncs::ToAString(text()).c_str(); }

Ptr<Resource> g_background;
bool g_backgroundDone = false;
void BackgroundLoaded(const Ptr<Resource>& resource)
{
    g_background = resource;
    g_backgroundDone = true;
}
void BackgroundFailed(const WString& path)
{
    std::printf("Background load of %s failed.\n", Utf8(path).c_str());
    g_backgroundDone = true;
}

// Loads the sample assets, one here and one on the resource thread, and
// saves the first in both forms to a temporary directory. False when an
// asset is missing or does not come back.
bool ShowResources()
{
    Ptr<Resource> greeting = Resource::LoadFromPath(WString(u"Samples/greeting.res"));
    if (!greeting)
        return false;
    std::printf("Loaded: \"%s\" from %s\n", Utf8(greeting->GetName()).c_str(), Utf8(greeting->GetPath()).c_str());

    Resource::AsyncLoadFromPath(WString(u"Samples/banner.res"), ResourceSucceedDelegate(&BackgroundLoaded),
                                ResourceFailedDelegate(&BackgroundFailed));
    // Frames run until the result is delivered; a frame here has nothing
    // else to do, so it leaves the processor to the loader between frames.
    unsigned frames = 0;
    auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    for (; !g_backgroundDone && std::chrono::steady_clock::now() < giveUp; ++frames)
    {
        Kovex_FrameBegin();
        Kovex_FrameEnd();
        std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
    if (!g_background)
        return false;
    std::printf("Loaded in the background: \"%s\" (delivered after %u frames)\n", Utf8(g_background->GetName()).c_str(),
                frames);
    g_background = nullptr;

    char pattern[] = "/tmp/kovex-demo-XXXXXX";
    if (!mkdtemp(pattern))
        return false;
    bool saved = true;
    for (bool xml : {false, true})
    {
        std::string file = std::string(pattern) + (xml ? "/greeting-copy.res" : "/greeting-copy-bin.res");
        Serializer::SetDefaultSerializer(xml);
        WString path = StringConvFuncs::ToWString(file.c_str());
        saved = saved && ResourceManager::Ins()->Save(greeting.Get(), path, Ptr<SerializerState>());
        Ptr<Resource> back = Resource::LoadFromPath(path);
        saved = saved && back && back->GetName() == greeting->GetName();
        std::printf("Saved and reloaded as %s: %ju bytes\n", xml ? "XML" : "binary",
                    std::uintmax_t(std::filesystem::file_size(file)));
    }
    Serializer::SetDefaultSerializer(false);
    std::filesystem::remove_all(pattern);
    return saved;
}
} // namespace

int Usage(FILE* to, const char* self)
{
    std::fprintf(to,
                 "usage: %s [--data DIR] [--null] [--offscreen] [--output PNG] [FRAMES]\n"
                 "Loads the sample assets, then runs FRAMES frames (default 300). With a\n"
                 "Vulkan device each frame draws a textured quad with a program compiled\n"
                 "from Data/shaders, and the last frame is written to PNG (default: a new\n"
                 "temporary directory's frame.png), whose path is printed. Without a device,\n"
                 "or with --null, the frames run on the null renderer. On a display ($DISPLAY)\n"
                 "the frames are shown in a window too, unless --offscreen.\n"
                 "The data root is DIR when given, else the \"Data\" directory beside the\n"
                 "executable or above it, else the installed or built-from data.\n"
                 "Exit status: 0 on success, 1 when the engine or the rendering fails,\n"
                 "2 for a wrong command line.\n",
                 self);
    return to == stdout ? EXIT_SUCCESS : 2;
}

int main(int argc, char** argv)
{
    unsigned frames = 300;
    std::string dataDir, output;
    bool forceNull = false, offscreen = false;
    for (int i = 1; i < argc; ++i)
    {
        std::string arg = argv[i];
        if (arg == "--help" || arg == "-h")
            return Usage(stdout, argv[0]);
        if (arg == "--data" && i + 1 < argc)
        {
            dataDir = argv[++i];
            continue;
        }
        if (arg == "--output" && i + 1 < argc)
        {
            output = argv[++i];
            continue;
        }
        if (arg == "--null")
        {
            forceNull = true;
            continue;
        }
        if (arg == "--offscreen")
        {
            offscreen = true;
            continue;
        }
        // Decimal digits only: the engine's own parser would take "abc" as hex.
        char* end = nullptr;
        unsigned long value = std::strtoul(argv[i], &end, 10);
        if (!std::isdigit(static_cast<unsigned char>(argv[i][0])) || *end || value < 2 || value > 10000000)
            return Usage(stderr, argv[0]);
        frames = unsigned(value);
    }

    g_IsNullRenderer = forceNull;
    Kovex_Main_Initialize();
    WString root;
    if (!dataDir.empty())
    {
        if (!std::filesystem::is_directory(dataDir))
        {
            std::fprintf(stderr, "The data directory %s does not exist.\n", dataDir.c_str());
            ShutDown();
            return 1;
        }
        root = StringConvFuncs::ToWString(std::filesystem::absolute(dataDir).c_str());
        if (!root.EndsWith(u"/"))
            root.Append(u'/');
    }
    if (!Kovex_Main_LoadRequiredData(root.IsEmpty() ? nullptr : root()))
    {
        std::fprintf(stderr, "No \"Data\" directory was found beside the executable or above it, nor an\n"
                             "installed one; name one with --data DIR.\n");
        ShutDown();
        return 1;
    }
    std::printf("Data root: %s\n", StringConvFuncs::ToAString(g_kovexRootPath()).c_str());
    if (!ShowResources())
    {
        std::fprintf(stderr, "The sample assets under Data/Samples could not be loaded and saved.\n");
        ShutDown();
        return 1;
    }

    // Vulkan when the machine has a device, else the null device with its
    // frames handed to the graphics thread and joined at each frame's end.
    // Vulkan frames are recorded here, on the thread that draws.
    bool vulkan = !forceNull && Renderer::SetupPlatformAuto() && g_ptrRenderer->GetPlatform() == RendererPlatform::Vulkan;
    if (!vulkan)
    {
        if (!forceNull)
            std::printf("No Vulkan device: the frames run on the null renderer.\n");
        if (g_ptrRenderer)
            Renderer::Destroy();
        g_IsNullRenderer = true;
        if (!Renderer::SetupPlatformAuto() || !GraphicsThread::Ins()->Start())
        {
            std::fprintf(stderr, "The null renderer or its graphics thread could not be started.\n");
            ShutDown();
            return 1;
        }
    }
    GraphicsParameters parameters;
    parameters.Width = 640;
    parameters.Height = 360;
    // On a display the Vulkan frames are shown too; the window outlives the
    // renderer (it is destroyed when main returns, after ShutDown).
    DemoWindow window;
    if (vulkan && !offscreen && window.Open(parameters.Width, parameters.Height))
    {
        parameters.WindowHandle = window.Handle();
        std::printf("Window: %ux%u on %s\n", parameters.Width, parameters.Height, std::getenv("DISPLAY"));
    }
    Kovex_InitRenderer(parameters);
    std::printf("Renderer: %s device %ux%u, %s, graphics thread %s\n", vulkan ? "Vulkan" : "null",
                g_ptrRenderer->GetParamters().Width, g_ptrRenderer->GetParamters().Height,
                g_ptrRenderer->GetDefaultBlendState() ? "default states made" : "no default states",
                GraphicsThread::Ins()->IsStarted() ? "running" : "stopped");
    DemoScene scene;
    if (vulkan && !scene.Create())
    {
        scene.Destroy();
        ShutDown();
        return 1;
    }

    // Each frame's delta is the time since the previous frame began, so the
    // first frame of the run only starts the clock: FRAMES frames give
    // FRAMES - 1 measured intervals, and their sum is the time reported.
    double shortest = 1e30, longest = 0, measured = 0;
    uint64 firstFrame = g_FrameIndex;
    DemoAnimation animation;
    for (unsigned i = 0; i < frames; ++i)
    {
        Kovex_FrameBegin();
        double delta = g_kovexTimer.GetDeltaTime();
        if (i > 0)
        {
            shortest = delta < shortest ? delta : shortest;
            longest = delta > longest ? delta : longest;
            measured += delta;
        }
        animation.Frame(i);
        if (vulkan && !scene.DrawFrame(i))
        {
            std::fprintf(stderr, "Frame %u could not be drawn (the log says why).\n", i);
            Kovex_FrameEnd();
            scene.Destroy();
            ShutDown();
            return 1;
        }
        Kovex_FrameEnd();
    }

    AString report;
    report.Format("Frames: %u run (%I64u in all), %u timed in %.3f ms (%.3f us a frame; shortest %.3f us, longest %.3f us)\n",
                  unsigned(g_FrameIndex - firstFrame), (unsigned long long)g_FrameIndex, frames - 1, measured * 1e3,
                  measured * 1e6 / double(frames - 1), shortest * 1e6, longest * 1e6);
    std::fputs(report(), stdout);
    animation.Report();
    {
        char pattern[] = "/tmp/kovex-demo-XXXXXX";
        bool same = mkdtemp(pattern) && animation.RoundTrip(pattern);
        std::filesystem::remove_all(pattern);
        if (!same)
        {
            std::fprintf(stderr, "The scene graph did not come back the same from its \".node\" files.\n");
            scene.Destroy();
            ShutDown();
            return 1;
        }
    }

    if (vulkan)
    {
        if (output.empty())
        {
            char pattern[] = "/tmp/kovex-demo-XXXXXX";
            output = mkdtemp(pattern) ? std::string(pattern) + "/frame.png" : std::string("kovex-demo-frame.png");
        }
        bool saved = scene.SaveFrame(output);
        scene.Destroy();
        if (!saved)
        {
            ShutDown();
            return 1;
        }
        std::printf("Last frame written to %s\n", output.c_str());
    }

    ShutDown();
    std::printf("Engine shut down cleanly.\n");
    return EXIT_SUCCESS;
}
