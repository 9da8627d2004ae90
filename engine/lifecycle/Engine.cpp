// The engine's outer skin: three layers brought up and down by the
// application, the root path, and the frame bracket.
//
// Each layer calls into subsystems in a fixed order. Steps whose subsystem
// has not landed yet stand as comments at their place in that order, so the
// order is kept as the pieces arrive.

#include "lifecycle/Engine.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include "io/StreamManager.h"
#include "commands/CommandThread.h"
#include "graphics/GraphicsThread.h"
#include "graphics/Renderer.h"
#include "graphics/VertexDecl.h"
#include "kernel/Log.h"
#include "kernel/SharedString.h"
#include "kernel/StringConv.h"
#include "math/Bounds.h"
#include "math/MathUtil.h"
#include "math/Plane.h"
#include "math/Quaternion.h"
#include "math/Transform.h"
#include "reflection/ObjectManager.h"
#include "resources/Resource.h"
#include "resources/ResourceThread.h"
#include "serialization/BinSerializer.h"
#include "serialization/XmlSerializer.h"
#include "shaders/AutoUpdateConstantManager.h"
#include "shaders/PGResources.h"
#include "shaders/ProgramCachedLibrary.h"
#include "shaders/ProgramManager.h"

namespace KovexEngine {

namespace {

bool& s_systemInited = LifecycleState::systemInited; // read below the lifecycle too
bool s_rendererInited = false;
bool s_mainInited = false;

constexpr unsigned kMaxSelfFileName = 1023;

// Looks for `start + name`: a directory ends the search with success, a
// plain file of that name ends it with failure, and nothing there moves the
// search to the parent of `start`, up to and including the file-system root.
bool FindDirectoryUpwards(const WString& name, const WString& start, WString& out)
{
    WString directory(start);
    for (;;)
    {
        WString candidate = directory + name;
        AString path;
        StringConvFuncs::UTF16toUTF8(path, candidate());
        struct stat info;
        if (::stat(path(), &info) == 0)
        {
            if (!S_ISDIR(info.st_mode))
                return false;
            out = candidate + u"/";
            return true;
        }
        WString parent;
        directory.ExtractLastDir(parent);
        if (parent.IsEmpty())
        {
            // The text rule stops below the root: "/usr/" has no parent by
            // it. The root itself is still searched, once.
            if (directory.Length() > 1 && (directory()[0] == u'/' || directory()[0] == u'\\'))
                parent = u"/";
            else
                return false;
        }
        directory.Swap(parent);
    }
}

// True when `path` (UTF-8) names an existing directory.
bool IsDirectory(const char* path)
{
    struct stat info;
    return ::stat(path, &info) == 0 && S_ISDIR(info.st_mode);
}

// Where a program that is not beside its data looks next: the data directory
// of an installation, first relative to wherever this library now lies (an
// installation that was moved), then where it was installed to, and last the
// source tree the library was built from (a build outside that tree).
bool FindInstalledData(WString& out)
{
    std::string candidates[3];
    Dl_info info;
    if (::dladdr(reinterpret_cast<void*>(&Kovex_SetRootPath), &info) && info.dli_fname)
    {
        std::string library(info.dli_fname);
        size_t slash = library.rfind('/');
        if (slash != std::string::npos)
            candidates[0] = library.substr(0, slash + 1) + "../share/KovexEngine/Data";
    }
#ifdef KOVEX_INSTALL_DATA_DIR
    candidates[1] = KOVEX_INSTALL_DATA_DIR;
#endif
#ifdef KOVEX_SOURCE_DATA_DIR
    candidates[2] = KOVEX_SOURCE_DATA_DIR;
#endif
    for (const std::string& candidate : candidates)
    {
        if (candidate.empty() || !IsDirectory(candidate.c_str()))
            continue;
        char resolved[PATH_MAX];
        const char* path = ::realpath(candidate.c_str(), resolved) ? resolved : candidate.c_str();
        StringConvFuncs::UTF8toUTF16(out, path, unsigned(std::strlen(path)));
        out.Append(u'/');
        return true;
    }
    return false;
}

void NormaliseRootPath()
{
    g_kovexRootPath.FormatDir();
    g_kovexRootPath.ConvertSlashes();
}

// The root the engine last gave to "[core]"; empty when it gave none.
WString s_coreFromRoot;

// "[core]" names the data root, where the engine's own shaders and textures
// lie, unless the application mounted a core package of its own.
void KnowCoreAlias()
{
    const WString core(u"core");
    StreamManager* streams = StreamManager::Ins();
    WString current = streams->GetPackagePath(core);
    if (!current.IsEmpty() && current != s_coreFromRoot)
        return;
    if (!current.IsEmpty())
        streams->UnsetPackagePath(core);
    s_coreFromRoot.Clear();
    if (streams->SetPackagePath(core, g_kovexRootPath))
        s_coreFromRoot = streams->GetPackagePath(core);
}

} // namespace

// --- System layer ----------------------------------------------------------------

void Kovex_System_Initialize()
{
    if (s_systemInited)
    {
        ObjectManager::Ins()->Initialize(); // a no-op while the layer stands
        return;
    }
    g_kovexMainThreadId = Kovex_GetCurrentThreadId();
    Log::Init();
    Math::Init();
    Class::Setup();
    ObjectManager::Ins()->Initialize();
    // The core classes, in this order.
    Vector2::StaticGetClass();
    Vector3::StaticGetClass();
    Vector4::StaticGetClass();
    Quaternion::StaticGetClass();
    Matrix2::StaticGetClass();
    Matrix3::StaticGetClass();
    Matrix4::StaticGetClass();
    Transform::StaticGetClass();
    Aabb::StaticGetClass();
    Obb::StaticGetClass();
    Sphere::StaticGetClass();
    Plane::StaticGetClass();
    ThreadCommand2::StaticGetClass();
    Serializer::StaticGetClass();
    BinSerializer::StaticGetClass();
    XmlSerializer::StaticGetClass();
    Resource::StaticGetClass();
    DefaultResourceFactory::Init();
    ResourceManager::Ins()->InitFactories();
    ResourceThread::Ins()->Init();
    g_kovexTimer.Start();
    s_systemInited = true;
}

void Kovex_System_Terminate()
{
    if (!s_systemInited)
        return;
    ResourceThread::Destroy(); // loads in flight finish or are dropped before factories go
    ObjectManager::Ins()->TermFactories();
    StreamManager::Destroy();
    SharedStringPool::PerformGarbageCollection();
    s_systemInited = false;
}

void Kovex_System_Cleanup()
{
    ObjectManager::Destroy();
    Class::Destroy();
    SharedStringPool::Destroy();
    Log::Clear();
}

// --- Renderer layer ----------------------------------------------------------------

void Kovex_Renderer_Initialize()
{
    if (s_rendererInited)
        return;
    // StaticGetClass, in this order: BaseRDI, CameraRDI, PrimitiveRDI,
    // LightRDI, PrimitiveRDI, BloomRenderPhase, DepthRenderPhase,
    // DepthAmbientRenderPhase, DistortionRenderPhase, DOFRenderPhase,
    // DrawMaterialRenderPhase, DrawTranslucentMaterialRenderPhase,
    // Element2DRenderPhase, SortedElement2DRenderPhase, NoLightingRenderPhase,
    // DecalRenderPhase, SinglePassLightingRenderPhase,
    // MultiPassLightingRenderPhase, TranslucentRenderPhase,
    // WireframeRenderPhase, RenderPhaseSettings, HDRRenderPhase,
    // FXAARenderPhase, DeferredLightingRenderPhase, MotionBlurRenderPhase,
    // LightPrepassRenderPhase, SSAORenderPhase, ImageLoaderDDS,
    // ImageLoaderBMP, ImageLoaderJPG, ImageLoaderPNG, ImageLoaderTGA.
    ProgramManager::Ins();
    s_rendererInited = true;
}

void Kovex_Renderer_Terminate()
{
    if (!s_rendererInited)
        return;
    // delete SinglePassLightingFWBuilder (if left), PrimitiveRDIUtility;
    PGResources::Destroy();
    ProgramManager::Destroy();
    VertexDeclManager::Destroy();
    // TStaticRenderState::Destroy() is the state factories' OnExit, run by
    // Renderer::Destroy.
    ProgramCachedLibrary::Destroy();
    Renderer::Destroy();
    GraphicsThread::Destroy();
    s_rendererInited = false;
}

void Kovex_Renderer_Cleanup()
{
    // BaseRDI::DestroyAllUpdateConstantProcs(); BaseRDI's table of update
    // procedures.
    AutoUpdateConstantManager::Destroy();
}

bool Kovex_Renderer_IsInited() { return s_rendererInited; }

// --- Main layer ----------------------------------------------------------------------

void Kovex_Main_Initialize()
{
    if (s_mainInited)
    {
        ResourceManager::Ins()->InitFactories();
        Kovex_System_Initialize();
        Kovex_Renderer_Initialize();
        return;
    }
    Kovex_System_Initialize();
    Kovex_Renderer_Initialize();
    // StaticGetClass, in this order: Node, Mesh, DirectionalLight, SpotLight,
    // OmniLight, Camera, Decal, Terrain, Line2d, Line3d, Tri2d, Tri3d,
    // Tri3dBillboard, FontFace, TraceModifier, SkinModifier,
    // PropertyModifier, MorphModifier, MaterialTree, MaterialInstance.
    // MaterialTree::StaticSetup(); Particle::StaticSetup();
    g_FrameIndex = 0;
    s_mainInited = true;
}

void Kovex_Main_Terminate()
{
    if (!s_mainInited)
        return;
    if (g_ptrRenderer)
        g_ptrRenderer->Cleanup();
    // 2. ScriptEnvironment::Destroy()
    // 3. delete the SinglePassLightingFWBuilder singleton
    // The resource thread stops first: a load it has under way finishes and
    // reaches its factory's cache before the factories let their caches go.
    ResourceThread::Destroy();
    ResourceManager::Ins()->TermFactories();
    // 6. FontFace::Destroy()
    if (!s_coreFromRoot.IsEmpty() && StreamManager::Ins()->GetPackagePath(WString(u"core")) == s_coreFromRoot)
        StreamManager::Ins()->UnsetPackagePath(WString(u"core"));
    s_coreFromRoot.Clear();
    g_kovexRootPath.Clear();
    s_mainInited = false;
}

void Kovex_Main_Cleanup()
{
    ResourceManager::Destroy();
    // KeyFrame::StaticDestroy();
}

bool Kovex_Main_IsInited() { return s_mainInited; }

// --- Root path ---------------------------------------------------------------------------

void Kovex_GetSelfFileName(WString& out)
{
    char buffer[4096];
    ssize_t n = ::readlink("/proc/self/exe", buffer, sizeof buffer - 1);
    if (n <= 0)
    {
        out.Clear();
        return;
    }
    StringConvFuncs::UTF8toUTF16(out, buffer, unsigned(n));
    out.TerminateAtIndex(kMaxSelfFileName);
}

bool Kovex_SetRootPath(const char16_t* path)
{
    if (path)
    {
        g_kovexRootPath.Clear();
        WString copy(path);
        copy.FormatDir();
        copy.ConvertSlashes();
        g_kovexRootPath.Swap(copy);
        // The contract takes the path as given; but every relative load
        // fails silently under a root that is missing or lacks its slash,
        // so say so once here.
        AString utf8;
        StringConvFuncs::UTF16toUTF8(utf8, g_kovexRootPath());
        if (!IsDirectory(utf8()))
            Log::Format(LOG_WARNING, u"Root path %s is not an existing directory.\n", g_kovexRootPath());
        else if (!g_kovexRootPath.EndsWith(u"/"))
            Log::Format(LOG_WARNING, u"Root path %s has no trailing slash; relative paths will not resolve under it.\n",
                        g_kovexRootPath());
    }
    else
    {
        WString self, directory;
        Kovex_GetSelfFileName(self);
        self.ExtractLastDir(directory);
        if (directory.Length() > 1 && directory()[1] == u':' && directory()[0] >= u'a' && directory()[0] <= u'z')
            directory()[0] = char16_t(directory()[0] - u'a' + u'A');
        g_kovexRootPath.Clear();
        WString found;
        if (!FindDirectoryUpwards(WString(u"Data"), directory, found))
        {
            if (!FindInstalledData(found))
                return false;
            Log::Format(LOG_INFO, u"No \"Data\" directory above %s; using %s.\n", directory(), found());
        }
        g_kovexRootPath.Swap(found);
    }
    NormaliseRootPath();
    return true;
}

bool Kovex_Main_LoadRequiredData(const char16_t* rootPath)
{
    if (g_kovexRootPath.IsEmpty() || (rootPath && g_kovexRootPath.Compare(rootPath) != 0))
    {
        if (!Kovex_SetRootPath(rootPath))
            return false;
    }
    KnowCoreAlias();
    // The built-in codes belong to the renderer layer (its ProgramManager);
    // loading them compiles nothing, so the null renderer and a renderer not
    // opened yet are fine. A missing file is logged and does not fail here.
    if (s_rendererInited)
        PGResources::Initialize();
    // SinglePassLightingFWBuilder::Ins()->Initialize("[core]shaders/SinglePass_Template.ksl");
    // ResourceThread::Ins(), created and started as "Resource Thread" if it
    // has no thread yet; a failure to start is not reported.
    return true;
}

// --- Frame bracket ----------------------------------------------------------------------

void Kovex_InitRenderer(const GraphicsParameters& parameters)
{
    if (!g_ptrRenderer)
        return;
    g_ptrRenderer->Init(parameters);
    if (GraphicsThread::Exists() && GraphicsThread::Ins()->IsStarted())
    {
        Kovex_FrameBegin();
        Kovex_FrameEnd();
    }
}

void Kovex_FrameBegin()
{
    GraphicsThread* graphics = GraphicsThread::Ins();
    if (g_ptrRenderer)
        g_ptrRenderer->M_Precache();
    g_kovexTimer.Update();
    // Hands the frame to the graphics thread if started, else runs its
    // device commands here; either way its finished commands run here.
    graphics->BeginRender();
    g_GraphicsCommandCounter = 0;
    if (ResourceThread::Exists())
        ResourceThread::Ins()->ProcessATCommandList();
    if (g_ptrRenderer)
        g_ptrRenderer->Tick(g_kovexTimer.GetDeltaTime32(), g_kovexTimer.GetElapsedTime());
}

void Kovex_FrameEnd()
{
    // A full join: the graphics thread has rendered the frame.
    if (GraphicsThread::Exists())
        GraphicsThread::Ins()->EndRender();
    ++g_FrameIndex;
}

} // namespace KovexEngine
