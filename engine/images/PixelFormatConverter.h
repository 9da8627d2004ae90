#pragma once

// Per-pixel conversion between the fourteen plain formats. A pixel reads into
// a canonical 32-bit word (red in bits 0-7, green 8-15, blue 16-23, alpha
// 24-31) or a Vector4 and writes back from one.
//
// ImageFormatConverter::Create hands out one member of a generated family,
// one class per ordered pair, whose row loop is straight code with both
// formats fixed at compile time. The run-time forms I and F pay two virtual
// calls a pixel and exist for callers that pick formats one pixel at a time.
//
// Converters hold no state beyond their formats: one object may be used from
// several threads at once.

#include "kernel/Export.h"
#include "kernel/Types.h"

namespace KovexEngine {

class Vector4;

struct KOVEX_API PixelFormatConverter
{
    virtual ~PixelFormatConverter();
    virtual void ToInt(uint32& word, const void* source) const = 0;
    virtual void ToFloat(Vector4& vector, const void* source) const = 0;
    virtual void FromInt(void* target, uint32 word) const = 0;
    virtual void FromFloat(void* target, const Vector4& vector) const = 0;
    virtual uint32 GetStride() const = 0;

    // The converter of one of the fourteen formats (owned by the caller), null
    // for any other.
    static PixelFormatConverter* Create(int format);
    // Whether the format is one of the fourteen.
    static bool IsPlainFormat(int format);
};

struct KOVEX_API ImageFormatConverter
{
    virtual ~ImageFormatConverter();
    virtual void ExecuteS(void* target, const void* source) const = 0;
    virtual void ExecuteM(void* target, const void* source, uint32 count) const = 0;
    // Rows top to bottom; a pitch of 0 is width times that format's stride.
    virtual void Execute(void* target, const void* source, uint32 targetPitch, uint32 sourcePitch, uint32 width,
                         uint32 height) const;
    // The same with the source rows taken bottom to top.
    virtual void ExecuteFlip(void* target, const void* source, uint32 targetPitch, uint32 sourcePitch, uint32 width,
                             uint32 height) const;

    virtual uint32 GetTargetStride() const = 0;
    virtual uint32 GetSourceStride() const = 0;

    // The generated converter of the pair (owned by the caller); null when
    // either format is outside the fourteen.
    static ImageFormatConverter* Create(int target, int source);
};

// Run-time forms: two owned pixel converters, through the canonical word (I)
// or a Vector4 (F).
struct KOVEX_API ImageFormatConverterI : ImageFormatConverter
{
    ImageFormatConverterI(PixelFormatConverter* target, PixelFormatConverter* source);
    ~ImageFormatConverterI() override;
    void ExecuteS(void* target, const void* source) const override;
    void ExecuteM(void* target, const void* source, uint32 count) const override;
    uint32 GetTargetStride() const override;
    uint32 GetSourceStride() const override;

    ImageFormatConverterI(const ImageFormatConverterI&) = delete;
    ImageFormatConverterI& operator=(const ImageFormatConverterI&) = delete;

protected:
    PixelFormatConverter* m_target;
    PixelFormatConverter* m_source;
};

struct KOVEX_API ImageFormatConverterF : ImageFormatConverterI
{
    using ImageFormatConverterI::ImageFormatConverterI;
    void ExecuteS(void* target, const void* source) const override;
    void ExecuteM(void* target, const void* source, uint32 count) const override;
};

} // namespace KovexEngine
