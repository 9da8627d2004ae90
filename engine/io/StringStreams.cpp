// Strings saved into and loaded from streams: a 32-bit count, then the
// characters.

#include "io/Stream.h"
#include "kernel/Strings.h"

namespace KovexEngine {
namespace {

template <typename C, typename Source>
bool LoadString(TString<C>& out, Source& source, int64 available)
{
    uint8 count[4];
    if (!source.Read(count, 4))
    {
        out.Clear();
        return true; // nothing there reads as an empty string
    }
    int32 length = int32(uint32(count[0]) | uint32(count[1]) << 8 | uint32(count[2]) << 16 | uint32(count[3]) << 24);
    if (length < 0)
        return false;
    if (length == 0)
    {
        out.Clear();
        return true;
    }
    // The count must fit in what the source still holds.
    if (int64(length) * int64(sizeof(C)) > available - 4 || !out.SetLength(unsigned(length)))
        return false;
    if constexpr (sizeof(C) == 1)
        return source.Read(out(), unsigned(length));
    else
    {
        uint8 bytes[512];
        unsigned done = 0;
        while (done < unsigned(length))
        {
            unsigned chunk = unsigned(length) - done < 256 ? unsigned(length) - done : 256;
            if (!source.Read(bytes, chunk * 2))
                return false;
            for (unsigned i = 0; i < chunk; ++i)
                out()[done + i] = char16_t(bytes[2 * i] | (bytes[2 * i + 1] << 8));
            done += chunk;
        }
        return true;
    }
}

template <typename C, typename Target>
bool SaveString(const TString<C>& text, Target& target)
{
    uint32 length = text.Length();
    uint8 count[4] = {uint8(length), uint8(length >> 8), uint8(length >> 16), uint8(length >> 24)};
    if (!target.Write(count, 4))
        return false;
    if (length == 0)
        return true;
    if constexpr (sizeof(C) == 1)
        return target.Write(text(), length);
    else
    {
        uint8 bytes[512];
        unsigned done = 0;
        while (done < length)
        {
            unsigned chunk = length - done < 256 ? length - done : 256;
            for (unsigned i = 0; i < chunk; ++i)
            {
                bytes[2 * i] = uint8(text()[done + i]);
                bytes[2 * i + 1] = uint8(text()[done + i] >> 8);
            }
            if (!target.Write(bytes, chunk * 2))
                return false;
            done += chunk;
        }
        return true;
    }
}

// Streams take int counts; DataStream takes unsigned.
struct StreamAdapter
{
    Stream& stream;
    bool Read(void* p, unsigned n) { return stream.Read(p, int(n)); }
    bool Write(const void* p, unsigned n) { return stream.Write(p, int(n)); }
};

} // namespace

template <typename C>
bool TString<C>::Load(Stream& stream)
{
    StreamAdapter adapter{stream};
    return LoadString(*this, adapter, stream.GetSize() - stream.GetPosition());
}

template <typename C>
bool TString<C>::Save(Stream& stream) const
{
    StreamAdapter adapter{stream};
    return SaveString(*this, adapter);
}

template <typename C>
bool TString<C>::Load(DataStream& stream)
{
    return LoadString(*this, stream, int64(stream.GetLength()) - stream.GetPosition());
}

template <typename C>
bool TString<C>::Save(DataStream& stream) const
{
    return SaveString(*this, stream);
}

template bool TString<char>::Load(Stream&);
template bool TString<char>::Save(Stream&) const;
template bool TString<char>::Load(DataStream&);
template bool TString<char>::Save(DataStream&) const;
template bool TString<char16_t>::Load(Stream&);
template bool TString<char16_t>::Save(Stream&) const;
template bool TString<char16_t>::Load(DataStream&);
template bool TString<char16_t>::Save(DataStream&) const;

} // namespace KovexEngine
