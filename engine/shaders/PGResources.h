#pragma once

// The engine's built-in program generator codes: three materials, thirteen
// attributes and the frameworks every render phase asks for, loaded from
// "[core]shaders/" with the configurations the phases name. This table is the
// contract between the engine and its shader files (Data/shaders/README.md):
// each file it loads must exist and honour each macro it sets.
//
// A file that cannot be loaded is logged by ProgramManager::LoadCode and
// leaves its static null; the phases that need it draw nothing.
//
// Threads: Initialize, Destroy and LoadWireframeFW belong to the thread that
// starts and ends the engine (Kovex_Main_LoadRequiredData and the cleanup);
// the statics are read by the render side in between, when nobody writes
// them. GetLightConfName and LightPassConfIndex are pure.

#include "kernel/SharedString.h"
#include "kernel/Strings.h"
#include "reflection/EngineEnums.h"
#include "reflection/Object.h"

namespace KovexEngine {

class PGCode;
class PGFramework;
class PGAttribute;
class PGMaterial;
class PGConfFW;
class PGConfAB;

class KOVEX_API PGResources
{
public:
    // --- Materials ------------------------------------------------------------
    static Ptr<PGMaterial> MT_Triangle;
    static Ptr<PGMaterial> MT_Font;
    static Ptr<PGMaterial> MT_LightVolume;

    // --- Attributes ---------------------------------------------------------------
    static Ptr<PGAttribute> AB_Base;
    static Ptr<PGAttribute> AB_Skinned;
    static Ptr<PGAttribute> AB_Tri2D;
    static Ptr<PGAttribute> AB_Tri3d;
    static Ptr<PGAttribute> AB_Tri3dBillboard;
    static Ptr<PGAttribute> AB_Line2d;
    static Ptr<PGAttribute> AB_Line3d;
    static Ptr<PGAttribute> AB_Quad;
    static Ptr<PGAttribute> AB_Font;
    static Ptr<PGAttribute> AB_LightVolume;
    static Ptr<PGAttribute> AB_ParticleSprite;
    static Ptr<PGAttribute> AB_Decal;
    static Ptr<PGAttribute> AB_Terrain;

    // --- Frameworks ---------------------------------------------------------------
    static Ptr<PGFramework> FW_DrawNull;
    static Ptr<PGFramework> FW_DrawClear;
    static Ptr<PGFramework> FW_DrawScreen;
    static Ptr<PGFramework> FW_DrawScreenModulate;
    static Ptr<PGFramework> FW_NoLighting;
    static Ptr<PGFramework> FW_RenderDepth;
    static Ptr<PGFramework> FW_RenderAmbient;
    static Ptr<PGFramework> FW_RenderGBuffer;
    static Ptr<PGFramework> FW_RenderDeferredLighting;
    static Ptr<PGFramework> FW_ObjectPass;
    static Ptr<PGFramework> FW_MotionBlur;
    static Ptr<PGFramework> FW_GenDistortion;
    static Ptr<PGFramework> FW_DrawDistortion;
    static Ptr<PGFramework> FW_Decal;
    static Ptr<PGFramework> FW_DownSample;
    static Ptr<PGFramework> FW_Blur;
    static Ptr<PGFramework> FW_OmniLightShadowDepth;
    static Ptr<PGFramework> FW_OmniLightDeferred;
    static Ptr<PGFramework> FW_OmniLightMultiPass;
    static Ptr<PGFramework> FW_SpotLightShadowDepth;
    static Ptr<PGFramework> FW_SpotLightDeferred;
    static Ptr<PGFramework> FW_SpotLightMultiPass;
    static Ptr<PGFramework> FW_DirectionalLightShadowDepth;
    static Ptr<PGFramework> FW_DirectionalLightDeferred;
    static Ptr<PGFramework> FW_DirectionalLightMultiPass;
    static Ptr<PGFramework> FW_SkyLightDeferred;
    static Ptr<PGFramework> FW_SkyLightMultiPass;
    static Ptr<PGFramework> FW_VolumetricLighting;
    static Ptr<PGFramework> FW_PixelPicking;
    // Loaded on demand by LoadWireframeFW.
    static Ptr<PGFramework> FW_Wireframe;

    // --- Configuration names (shared strings, made on first use; they stay
    // valid for the process, so references handed out never dangle) ---------
    // "DEFAULT[SQ_LOW]" ... "DEFAULT[SQ_HIGH][HWPCF]"; "DEFAULT[INSTANCE_RENDERING]";
    // "SOLID_WIRE".
    static const TSharedString<WString>& CFG_SQ_LOW();
    static const TSharedString<WString>& CFG_SQ_MEDIUM();
    static const TSharedString<WString>& CFG_SQ_HIGH();
    static const TSharedString<WString>& CFG_SQ_LOW_HWPCF();
    static const TSharedString<WString>& CFG_SQ_MEDIUM_HWPCF();
    static const TSharedString<WString>& CFG_SQ_HIGH_HWPCF();
    static const TSharedString<WString>& CFG_INSTANCE_RENDERING();
    static const TSharedString<WString>& CFG_SOLID_WIRE();

    // The light-pass configuration names, one slot per name:
    // [0] "DEFAULT" (no shadow), [1..3] low, medium, high, [4..6] the same
    // with hardware percentage-closer filtering. An index past the last
    // answers "DEFAULT".
    static constexpr unsigned kNumLightPassConfs = 7;
    static const TSharedString<WString>& CFG_PL_LIGHT_PASS_SHADOW(unsigned index);
    // The slot of a light pass: 0 without shadow, else 1 + quality (capped
    // to High), plus 3 with hardware filtering.
    static unsigned LightPassConfIndex(bool hasShadow, ShadowFilterQuality quality, bool hwpcf);
    static const TSharedString<WString>& GetLightConfName(bool hasShadow, ShadowFilterQuality quality, bool hwpcf);

    // Loads every code and makes its configurations; a second call does
    // nothing until Destroy and answers as the first did. False when any code
    // failed to load (the others are loaded all the same).
    static bool Initialize();
    // Lets every static go, in reverse order (FW_Wireframe first).
    static void Destroy();
    static bool IsLoaded();

    // The table of built-in codes in load order, FW_Wireframe last: the
    // static's name ("FW_DrawClear"), its file under "[core]shaders/" and
    // the code (null when not loaded). Null past the end.
    static unsigned GetNumCodes();
    static const char* GetCodeName(unsigned index);
    static const char16_t* GetCodeFile(unsigned index);
    static PGCode* GetCode(unsigned index);

    // Shadow macros and descriptions of one light-pass configuration:
    // "DRAW_SHADOW", "SHADOW_FILTER_QUALITY" (the quality as an integer), the
    // shadow map "ShadowDepthTexture" with a comparison sampler and
    // "USE_HWPCF" (hwpcf, unless the renderer lacks SupportHWPCF; with no
    // renderer yet the request stands) or a point clamp sampler, and for the
    // filtered qualities (medium, high) the rotation noise "RotRandomTexture"
    // from "[core]textures/rotrandom.dds" with a point wrap sampler. A second
    // call replaces what the first set. False for a null configuration.
    static bool InitLightPassConf(PGConfFW* conf, ShadowFilterQuality quality, bool hwpcf);
    // The attribute's "DEFAULT[INSTANCE_RENDERING]" configuration with
    // "USE_INSTANCE_RENDERING"; null when the attribute cannot instance.
    static PGConfAB* InitInstanceConf(PGAttribute* attribute);

    // "[core]shaders/Wireframe.ksl" with "DEFAULT" and "SOLID_WIRE" (macro
    // "USE_SOLD_WIRE"), loaded on first call; null when it cannot be loaded.
    static PGFramework* LoadWireframeFW();

private:
    static bool ms_loaded;
    static bool ms_complete; // every code of the table loaded
};

} // namespace KovexEngine
