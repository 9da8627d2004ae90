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

    // All three fields must be set; appended to the list.
    static bool RegisterParser(const Parser& parser);
    // The last parser in registration order whose format check accepts the
    // stream decides; null when none does. The position is restored.
    static Ptr<ImageLoader> CreateLoader(Stream* stream);
    // By extension: the first parser that accepts it.
    static Ptr<ImageLoader> CreateLoader(const WString& path);
    static void Destroy();

    void SetStream(const Ptr<Stream>& stream);
    // The header alone: fills the image's desc.
    bool Parse();
    // The pixels.
    bool Load();

    const Ptr<Image>& GetImage() const { return m_image; }
    const Ptr<Stream>& GetStream() const { return m_stream; }
    const TextureDesc& GetDesc() const { return m_image->GetDesc(); }
    void DeleteData() { m_image->DeleteData(); }

    // Palette expansion: entries are BMP words (blue low, alpha high). An
    // index beyond `paletteCount` reads as opaque black. `sourceStride` is
    // the step from one source row to the next. Rows are written bottom to
    // top with `flip`.
    static bool PalToX(uint8* target, const TextureDesc& desc, const uint8* source, uint32 bitsPerIndex,
                       const uint32* palette, uint32 paletteCount, size_t sourceStride, bool forceOpaque, bool flip);
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
