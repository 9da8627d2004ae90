#pragma once

// Turns a Stream into an Image. One reflected class per file format, each
// registering a parser record (format check by content and by extension)
// when its class is initialised, which happens as the library loads.
//
// Threads: the parser list is written only while classes register, at load
// time; CreateLoader may then be called from any thread. A loader object
// belongs to one thread at a time.

#include "images/Image.h"
#include "kernel/Containers.h"
#include "kernel/Strings.h"

namespace KovexEngine {

class Stream;
class Texture;
struct MappedSubresource;

class KOVEX_API ImageLoader : public Object
{
    KOVEX_CLASS(ImageLoader)

public:
    enum FILE_FORMAT
    {
        BMP = 1,
        JPG = 2,
        TGA = 3,
        PNG = 4,
        DDS = 5,
    };

    // A 16-bit pixel layout named by its channel masks.
    enum BIT_FIELD_FORMAT_16
    {
        BIT_FIELD_UNKNOWN = 0,
        BIT_FIELD_R5G6B5 = 1,
        BIT_FIELD_X1R5G5B5 = 2,
        BIT_FIELD_A1R5G5B5 = 3,
        BIT_FIELD_X4R4G4B4 = 4,
        BIT_FIELD_A4R4G4B4 = 5,
    };

    struct Parser
    {
        const Class* cls = nullptr;
        bool (*StaticCheckFormat)(Stream* stream) = nullptr;
        bool (*StaticCheckExtension)(const AString& extension) = nullptr;
    };

    ImageLoader();
    ~ImageLoader() override;

    virtual int GetFileFormat() const = 0;
    uint8* GetData(uint32 arrayIndex, uint32 mip, uint32 slice) const { return m_image->GetData(arrayIndex, mip, slice); }
    virtual bool SupportStreaming() const { return false; }
    virtual bool IsCompleted() const { return m_image->GetFirstResidentMip() == 0; }
    // Streaming, for loaders that SupportStreaming: Begin reads the header
    // and the levels from `mip` down to the smallest; each Continue reads the
    // next larger level, until IsCompleted. The base streams nothing.
    virtual bool Begin(uint32 mip) { (void)mip; return false; }
    virtual bool Continue() { return false; }
    virtual void End() {}

    // All three fields must be set; appended to the list.
    static bool RegisterParser(const Parser& parser);
    // The last parser in registration order whose format check accepts the
    // stream decides; null when none does. The position is restored.
    static Ptr<ImageLoader> CreateLoader(Stream* stream);
    // By extension: the first parser that accepts it.
    static Ptr<ImageLoader> CreateLoader(const WString& path);
    static void Destroy();

    // Levels to leave out at the small end (DDS only), set by whoever
    // streams textures before Parse, Load or Begin.
    void SetMipReduction(uint32 levels) { m_mipReduction = levels; }
    uint32 GetMipReduction() const { return m_mipReduction; }

    void SetStream(const Ptr<Stream>& stream);
    // The header alone: fills the image's desc.
    bool Parse();
    // The pixels.
    bool Load();

    const Ptr<Image>& GetImage() const { return m_image; }
    const Ptr<Stream>& GetStream() const { return m_stream; }
    const TextureDesc& GetDesc() const { return m_image->GetDesc(); }
    void DeleteData() { m_image->DeleteData(); }
    bool GetMappedSubresource(MappedSubresource& mapped, uint32 arrayIndex, uint32 mip) const;
    bool UploadData(Texture* texture, uint32 firstMip, uint32 count) const;

    // The layout of four 16-bit masks (red, green, blue, alpha). The blue
    // mask is overwritten with 31 once the 4-4-4 layouts are ruled out, as
    // the 5-bit layouts do not look at it.
    static uint32 ParseBitFieldFormat16(uint32 masks[4]);
    // Whether the renderer takes the format as a 2D texture; false without one.
    static bool SupportFormat(uint32 format);
    static bool SupportR8();
    static bool SupportB5G5R5A1();
    static bool SupportB5G6R5();
    static bool SupportB8G8R8();
    static bool SupportB8G8R8X8();
    static bool SupportB8G8R8A8();
    static bool SupportR8G8B8A8();
    // The format a loader decodes to, by what the renderer takes; the last
    // choice of each is R8G8B8A8_UNORM.
    static uint32 AutoGet24BitFormat();
    static uint32 AutoGet32BitFormat(bool hasAlpha);
    static uint32 AutoGet16BitFormat(uint32 bitField);

    // Palette expansion: entries are BMP words (blue low, alpha high). An
    // index beyond `paletteCount` reads as opaque black. `sourceStride` is
    // the step from one source row to the next. Rows are written bottom to
    // top with `flip`.
    static bool PalToX(uint8* target, const TextureDesc& desc, const uint8* source, uint32 bitsPerIndex,
                       const uint32* palette, uint32 paletteCount, size_t sourceStride, bool forceOpaque, bool flip);
    // 1-bit images have no decoder: always false.
    static bool Pal1toX(uint8* target, const TextureDesc& desc, const uint8* source, uint32 pitch, bool flip);
    // A rectangle between two of the fourteen plain formats; the target rows
    // are packed (pixel bytes times width). False, with a line, when no
    // converter joins them.
    static bool XtoX(uint8* target, const uint8* source, uint32 sourceFormat, uint32 targetFormat,
                     uint32 sourcePitch, uint32 width, uint32 height, bool flip);
    static bool XtoX(uint8* target, const TextureDesc& desc, const uint8* source, uint32 sourcePitch,
                     uint32 sourceFormat, bool flip);
    // Exchanges bits 0-9 and 20-29 of each of `count` 32-bit words.
    static void B10G10R10A2toR10G10B10A2(uint32* target, const uint32* source, uint32 count);
    // Copies rows in reverse order; false when any argument is 0.
    static bool Flip(uint8* target, const uint8* source, uint32 rowBytes, uint32 rows);

protected:
    virtual bool InternalParse() = 0;
    virtual bool InternalLoad() = 0;

    uint32 m_mipReduction = 0;
    Ptr<Image> m_image;
    Ptr<Stream> m_stream;

private:
    static TArray<Parser>* ms_pParsers;
};

} // namespace KovexEngine
