#pragma once

// Pixel data in main memory: the whole mip chain of one or several array
// slices in one contiguous buffer, laid out as its TextureDesc says.
//
// Threads: an image belongs to one thread at a time; nothing in it is shared
// or locked. Different images may be worked on by different threads at once.
// The one exception is a streamed image (graphics/TextureStreaming.h): its
// loader writes each level once, on the Texture Thread, and only levels
// already published are read elsewhere; desc and buffer stay put meanwhile.

#include "graphics/TextureDesc.h"
#include "reflection/Object.h"

namespace KovexEngine {

class Serializer;
class Texture;
struct MappedSubresource;

class KOVEX_API Image : public Object
{
    KOVEX_CLASS(Image)

public:
    // Largest width, height or depth, array size and mip count an image takes.
    static constexpr uint32 kMaxDimension = 65536;
    static constexpr uint32 kMaxArraySize = 2048;
    static constexpr uint32 kMaxMipLevels = 17;

    Image();
    ~Image() override;
    Image(const Image&) = delete;
    Image& operator=(const Image&) = delete;

    // Sizes the buffer for the desc; reallocates only when the size differs.
    // False, with no buffer, when the desc is unusable (see IsDescUsable).
    bool CreateData();
    // Without zeroFill a new buffer's bytes are undefined: for a decoder that
    // writes every byte before anyone reads one.
    bool CreateData(bool zeroFill);
    void DeleteData();
    void FillData(uint8 value);
    void SetDesc(const TextureDesc& desc) { m_desc = desc; }
    bool Create(const TextureDesc& desc);

    // A subresource; null without data, with mip beyond the chain, or format 0.
    uint8* GetData(uint32 arrayIndex, uint32 mip, uint32 slice) const;
    uint8* GetData() const { return m_data; }
    uint32 GetDataSize() const { return m_dataSize; }
    // Takes ownership of a buffer from the C heap (malloc).
    bool SetData(uint8* data, uint32 size);
    const TextureDesc& GetDesc() const { return m_desc; }
    uint32 GetFirstResidentMip() const { return m_firstResidentMip; }
    void SetFirstResidentMip(uint32 mip) { m_firstResidentMip = mip; }

    // Data pointer (null without data), row pitch and slice pitch of a mip;
    // false when the array index or mip is out of range.
    bool GetSubresourceLayout(uint32 arrayIndex, uint32 mip, uint8*& data, uint32& rowPitch,
                              uint32& slicePitch) const;

    // The same as a mapped record: true without data too (null pointer).
    bool GetMappedSubresource(MappedSubresource& mapped, uint32 arrayIndex, uint32 mip) const;
    // Writes mips [firstMip, firstMip + count) of every array slice into a
    // texture of the same size, array size and format. False, writing
    // nothing, for a null texture, a count of 0, a range beyond the chain or
    // a texture of another shape; also when the device takes no update.
    bool UploadData(Texture* texture) const;
    bool UploadData(Texture* texture, uint32 firstMip, uint32 count) const;

    // Opens the path through the stream manager and loads it with the loader
    // the registry picks; null when there is no stream or no loader takes it.
    static Ptr<Image> LoadImage(const WString& path);

    bool IsCompressed() const { return IsBlockCompressed(m_desc.Format); }

    // Converts to `format` (all mips, or mip 0 alone); true when the image
    // already has it. A conversion refused at its start leaves the image as
    // it was.
    bool Convert(uint32 format, bool allMips);
    // Between two of the fourteen plain formats only.
    bool ConvertUncompressed(uint32 format, bool allMips);
    // To a format the renderer takes as a 2D texture (all mips). False
    // without a renderer, or, with its line, when nothing compatible exists.
    bool ConvertToDeviceCompatibleFormat();
    // Fills mips 1 and up from mip 0 with a 2x2 box filter in a work format;
    // with convertBack the image returns to its format afterwards.
    bool GenerateMipmaps(bool convertBack);

    bool Load(Serializer* serializer) override;
    bool Save(Serializer* serializer) const override;

    // Block-compressed for the image code: the table's compressed rows except
    // GRAY_SCALE_UNORM, whose pixels are plain bytes.
    static bool IsBlockCompressed(uint32 format);
    // Sizes within the limits above, a known format and a buffer size that
    // fits 32 bits; `size` gets the whole buffer's size.
    static bool IsDescUsable(const TextureDesc& desc, uint32& size);

private:
    uint8* m_data = nullptr;
    uint32 m_dataSize = 0;
    uint32 m_firstResidentMip = 0;
    TextureDesc m_desc;
};

} // namespace KovexEngine
