// The engine's outer skin: three layers brought up and down by the
// application, the root path, and the frame bracket.
//
// Each layer calls into subsystems in a fixed order. Steps whose subsystem
// has not landed yet stand as comments at their place in that order, so the
// order is kept as the pieces arrive.

#include "kernel/Engine.h"

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "io/StreamManager.h"
#include "kernel/CommandThread.h"
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

namespace KovexEngine {

uint64 g_FrameIndex = 0;
uint32 g_GraphicsCommandCounter = 0;
bool g_IsNullRenderer = false;
bool g_kovexAsyncLoading = true;
bool g_kovexCacheShaders = false;
bool g_kovexLoadShadersFromCache = false;
uint32 g_kovexMainThreadId = 0;
bool g_kovexMobileDevice = false;
WString g_kovexRootPath;
Timer g_kovexTimer;

namespace {

bool s_systemInited = false;
bool s_rendererInited = false;
bool s_mainInited = false;
KOVEX_CACHE_STRATEGY s_cacheStrategy = KOVEX_CACHE_DEFAULT;

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

void NormaliseRootPath()
{
    g_kovexRootPath.FormatDir();
    g_kovexRootPath.ConvertSlashes();
}

} // namespace

uint32 Kovex_GetCurrentThreadId() { return uint32(::syscall(SYS_gettid)); }

void Kovex_SetCacheStrategy(KOVEX_CACHE_STRATEGY strategy)
{
    if (!s_systemInited)
        s_cacheStrategy = strategy;
}

KOVEX_CACHE_STRATEGY Kovex_GetCacheStrategy() { return s_cacheStrategy; }

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

bool Kovex_System_IsInited() { return s_systemInited; }

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
    // ProgramManager::Ins();
    s_rendererInited = true;
}

void Kovex_Renderer_Terminate()
{
    if (!s_rendererInited)
        return;
    // delete SinglePassLightingFWBuilder (if left), PrimitiveRDIUtility;
    // PGResources::Destroy(); delete ProgramManager, VertexDeclManager;
    // TStaticRenderState::Destroy(); delete ProgramCachedLibrary;
    // Renderer::Destroy();
    s_rendererInited = false;
}

void Kovex_Renderer_Cleanup()
{
    // BaseRDI::DestroyAllUpdateConstantProcs(); delete the
    // AutoUpdateConstantManager and BaseRDI's table of update procedures.
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
    // 1. g_ptrRenderer->Cleanup()
    // 2. ScriptEnvironment::Destroy()
    // 3. delete the SinglePassLightingFWBuilder singleton
    // The resource thread stops first: a load it has under way finishes and
    // reaches its factory's cache before the factories let their caches go.
    ResourceThread::Destroy();
    ResourceManager::Ins()->TermFactories();
    // 6. FontFace::Destroy()
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
            return false;
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
    // PGResources::Initialize();
    // SinglePassLightingFWBuilder::Ins()->Initialize("[core]shaders/SinglePass_Template.ksl");
    // ResourceThread::Ins(), created and started as "Resource Thread" if it
    // has no thread yet; a failure to start is not reported.
    return true;
}

// --- Frame bracket ----------------------------------------------------------------------

void Kovex_FrameBegin()
{
    // 1. GraphicsThread::Ins()
    // 2. M_Precache on each of g_ptrRenderer's graphics factories
    g_kovexTimer.Update();
    // 4. GraphicsThread::BeginRender: count a frame to render if started;
    //    ProcessATCommandList; ProcessMTCommandList inline if not started.
    g_GraphicsCommandCounter = 0;
    if (ResourceThread::Exists())
        ResourceThread::Ins()->ProcessATCommandList();
    // 6. g_ptrRenderer->Tick(delta, elapsed)
}

void Kovex_FrameEnd()
{
    // GraphicsThread::Ins(): when started, wait for its rendered frame and
    // take it off the count.
    ++g_FrameIndex;
}

} // namespace KovexEngine
