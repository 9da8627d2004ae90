#pragma once

// Pixel formats: one table, one row per format, from which the wrapper enum,
// its registration and every format query are generated. The rows are kept
// as the engine has always had them, odd flags included (float and typeless
// rows signed but D32_FLOAT not, B5G5R5X1 laid out BGRA, B4G4R4A4 laid out
// BGRX, GRAY_SCALE_UNORM flagged compressed with BC1's block size).
//
// For a compressed row the size column is bytes per 4x4 block, not bits.
//
// All operations are constant table look-ups, safe from any thread.

#include "reflection/EngineEnums.h"

// ROW_(PASS_, name, value, type, layout, size column, signed, compressed)
#define KOVEX_GRAPHICS_FORMAT_TABLE(ROW_, PASS_)                                      \
    ROW_(PASS_, UNKNOWN, 0, Unknown, UNSUPPORTED, 0, false, false)                    \
    ROW_(PASS_, A8_UNORM, 1, Norm, A, 8, false, false)                                \
    ROW_(PASS_, R8_UNORM, 2, Norm, R, 8, false, false)                                \
    ROW_(PASS_, R10G10B10A2_UNORM, 3, Norm, RGBA, 32, false, false)                   \
    ROW_(PASS_, R8G8_SNORM, 4, Norm, RG, 16, true, false)                             \
    ROW_(PASS_, R8G8B8A8_UNORM, 5, Norm, RGBA, 32, false, false)                      \
    ROW_(PASS_, R8G8B8A8_SNORM, 6, Norm, RGBA, 32, true, false)                       \
    ROW_(PASS_, B8G8R8A8_UNORM, 7, Norm, BGRA, 32, false, false)                      \
    ROW_(PASS_, B8G8R8X8_UNORM, 8, Norm, BGRX, 32, false, false)                      \
    ROW_(PASS_, R8G8B8X8_UNORM, 9, Norm, RGBX, 32, false, false)                      \
    ROW_(PASS_, B8G8R8_UNORM, 10, Norm, BGR, 24, false, false)                        \
    ROW_(PASS_, R8G8B8_UNORM, 11, Norm, RGB, 24, false, false)                        \
    ROW_(PASS_, R16G16_UNORM, 12, Norm, RG, 32, false, false)                         \
    ROW_(PASS_, R16G16_SNORM, 13, Norm, RG, 32, true, false)                          \
    ROW_(PASS_, R16G16B16A16_UNORM, 14, Norm, RGBA, 64, false, false)                 \
    ROW_(PASS_, R16G16B16A16_SNORM, 15, Norm, RGBA, 64, true, false)                  \
    ROW_(PASS_, R16_FLOAT, 16, Float, R, 16, true, false)                             \
    ROW_(PASS_, R16G16_FLOAT, 17, Float, RG, 32, true, false)                         \
    ROW_(PASS_, R16G16B16A16_FLOAT, 18, Float, RGBA, 64, true, false)                 \
    ROW_(PASS_, R32_FLOAT, 19, Float, R, 32, true, false)                             \
    ROW_(PASS_, R32G32_FLOAT, 20, Float, RG, 64, true, false)                         \
    ROW_(PASS_, R32G32B32A32_FLOAT, 21, Float, RGBA, 128, true, false)                \
    ROW_(PASS_, BC1_UNORM, 22, Norm, DEFAULT, 8, false, true)                         \
    ROW_(PASS_, BC2_UNORM, 23, Norm, DEFAULT, 16, false, true)                        \
    ROW_(PASS_, BC3_UNORM, 24, Norm, DEFAULT, 16, false, true)                        \
    ROW_(PASS_, BC4_UNORM, 25, Norm, DEFAULT, 8, false, true)                         \
    ROW_(PASS_, BC5_UNORM, 26, Norm, DEFAULT, 16, false, true)                        \
    ROW_(PASS_, D16_UNORM, 27, Norm, DEFAULT, 16, false, false)                       \
    ROW_(PASS_, D32_FLOAT, 28, Float, DEFAULT, 32, false, false)                      \
    ROW_(PASS_, D24_UNORM_S8_UINT, 29, Norm, DEFAULT, 32, false, false)               \
    ROW_(PASS_, B5G6R5_UNORM, 30, Norm, BGR, 16, false, false)                        \
    ROW_(PASS_, B5G5R5A1_UNORM, 31, Norm, BGRA, 16, false, false)                     \
    ROW_(PASS_, B5G5R5X1_UNORM, 32, Norm, BGRA, 16, false, false)                     \
    ROW_(PASS_, B4G4R4A4_UNORM, 33, Norm, BGRX, 16, false, false)                     \
    ROW_(PASS_, B4G4R4X4_UNORM, 34, Norm, BGRX, 16, false, false)                     \
    ROW_(PASS_, B2G3R3A8_UNORM, 35, Norm, BGRA, 16, false, false)                     \
    ROW_(PASS_, R32G32B32A32_UINT, 36, Int, RGBA, 128, false, false)                  \
    ROW_(PASS_, R16G16B16A16_UINT, 37, Int, RGBA, 64, false, false)                   \
    ROW_(PASS_, R32G32_UINT, 38, Int, RG, 64, false, false)                           \
    ROW_(PASS_, R10G10B10A2_UINT, 39, Int, RGBA, 32, false, false)                    \
    ROW_(PASS_, R8G8B8A8_UINT, 40, Int, RGBA, 32, false, false)                       \
    ROW_(PASS_, R16G16_UINT, 41, Int, RG, 32, false, false)                           \
    ROW_(PASS_, R32_UINT, 42, Int, R, 32, false, false)                               \
    ROW_(PASS_, R8G8_UINT, 43, Int, RG, 16, false, false)                             \
    ROW_(PASS_, R16_UINT, 44, Int, R, 16, false, false)                               \
    ROW_(PASS_, R32G32B32A32_SINT, 45, Int, RGBA, 128, true, false)                   \
    ROW_(PASS_, R16G16B16A16_SINT, 46, Int, RGBA, 64, true, false)                    \
    ROW_(PASS_, R32G32_SINT, 47, Int, RG, 64, true, false)                            \
    ROW_(PASS_, R8G8B8A8_SINT, 48, Int, RGBA, 32, true, false)                        \
    ROW_(PASS_, R16G16_SINT, 49, Int, RG, 32, true, false)                            \
    ROW_(PASS_, R32_SINT, 50, Int, R, 32, true, false)                                \
    ROW_(PASS_, R8G8_SINT, 51, Int, RG, 16, true, false)                              \
    ROW_(PASS_, R16_SINT, 52, Int, R, 16, true, false)                                \
    ROW_(PASS_, R11G11B10_FLOAT, 53, Float, RGB, 32, true, false)                     \
    ROW_(PASS_, R8G8_UNORM, 54, Norm, RG, 16, false, false)                           \
    ROW_(PASS_, R16_UNORM, 55, Norm, R, 16, false, false)                             \
    ROW_(PASS_, R16_SNORM, 56, Norm, R, 16, true, false)                              \
    ROW_(PASS_, R32G32B32A32_TYPELESS, 57, Typeless, RGBA, 128, true, false)          \
    ROW_(PASS_, R16G16B16A16_TYPELESS, 58, Typeless, RGBA, 64, true, false)           \
    ROW_(PASS_, R32G32_TYPELESS, 59, Typeless, RG, 64, true, false)                   \
    ROW_(PASS_, R10G10B10A2_TYPELESS, 60, Typeless, RGBA, 32, true, false)            \
    ROW_(PASS_, R8G8B8A8_TYPELESS, 61, Typeless, RGBA, 32, true, false)               \
    ROW_(PASS_, R16G16_TYPELESS, 62, Typeless, RG, 32, true, false)                   \
    ROW_(PASS_, R32_TYPELESS, 63, Typeless, R, 32, true, false)                       \
    ROW_(PASS_, R8G8_TYPELESS, 64, Typeless, RG, 16, true, false)                     \
    ROW_(PASS_, R16_TYPELESS, 65, Typeless, R, 16, true, false)                       \
    ROW_(PASS_, R24G8_TYPELESS, 66, Typeless, RG, 32, true, false)                    \
    ROW_(PASS_, R24_UNORM_X8_TYPELESS, 67, Typeless, R, 32, true, false)              \
    ROW_(PASS_, COLOR_NULL, 68, Unknown, DEFAULT, 0, false, false)                    \
    ROW_(PASS_, INTZ, 69, Norm, DEFAULT, 24, false, false)                            \
    ROW_(PASS_, ATI_DF16, 70, Norm, DEFAULT, 16, false, false)                        \
    ROW_(PASS_, ATI_DF24, 71, Norm, DEFAULT, 24, false, false)                        \
    ROW_(PASS_, ATC_RGB, 72, Norm, DEFAULT, 8, false, true)                           \
    ROW_(PASS_, ATC_RGBA_Explicit, 73, Norm, DEFAULT, 16, false, true)                \
    ROW_(PASS_, ATC_RGBA_Interpolated, 74, Norm, DEFAULT, 16, false, true)            \
    ROW_(PASS_, ETC_RGB, 75, Norm, DEFAULT, 8, false, true)                           \
    ROW_(PASS_, PVRTC_RGB_2BPP, 76, Norm, DEFAULT, 8, false, true)                    \
    ROW_(PASS_, PVRTC_RGB_4BPP, 77, Norm, DEFAULT, 16, false, true)                   \
    ROW_(PASS_, PVRTC_RGBA_2BPP, 78, Norm, DEFAULT, 8, false, true)                   \
    ROW_(PASS_, PVRTC_RGBA_4BPP, 79, Norm, DEFAULT, 16, false, true)                  \
    ROW_(PASS_, GRAY_SCALE_UNORM, 80, Norm, DEFAULT, 8, false, true)

// PASS_ is passed through to each row: here the enum table's member macro.
#define KOVEX_GRAPHICS_FORMAT_AS_MEMBER(M, name, value, type, layout, bits, sign, compressed) M(name, value)
#define KOVEX_ENUM_TABLE_GraphicsFormat(M, D) KOVEX_GRAPHICS_FORMAT_TABLE(KOVEX_GRAPHICS_FORMAT_AS_MEMBER, M)

namespace KovexEngine {

KOVEX_DECLARE_ENUM_EX(GraphicsFormat, KOVEX_ENUM_TABLE_GraphicsFormat,
    /* Number of rows; a value outside 0..COUNT-1 answers as UNKNOWN. */
    static constexpr unsigned COUNT = 81;
    static bool IsFloat(int format);
    static bool IsInt(int format);
    static bool IsNorm(int format);
    static bool IsTypeless(int format);
    static bool IsSigned(int format);
    static bool IsCompressed(int format);
    static ::KovexEngine::GraphicsFormatType GetType(int format);
    static ::KovexEngine::GraphicsFormatLayout GetLayout(int format);
    /* The size column: bits per pixel, or bytes per 4x4 block when compressed. */
    static unsigned GetFormatBits(int format);
    /* The size column divided by 8, also for compressed rows (1 for BC1). */
    static unsigned GetFormatBytes(int format);
    static bool IsFormatBitsEqual(int a, int b);
    /* Bytes of one row (of pixels, or of 4x4 blocks) and number of rows; block
       counts round up, GRAY_SCALE_UNORM is one byte a pixel. */
    static void GetFormatInfo(unsigned& rowBytes, unsigned& rows, unsigned width, unsigned height, int format);
    /* rowBytes * rows, in 64 bits so that no size wraps. */
    static ::KovexEngine::uint64 GetFormatSize(unsigned width, unsigned height, int format);)

// Candidates for a format a device lacks, best first; the renderer takes the
// first its CheckTextureFormat accepts. Returns the number written (at most 8).
KOVEX_API unsigned GetCompatibleFormatCandidates(GraphicsFormat format, GraphicsFormat (&out)[8]);

} // namespace KovexEngine
