// kovex-image: describes image files as the engine loads them, converts them
// between formats and file types, and unpacks every surface to PNG. All of
// it goes through the engine's own loaders, converters and savers, so what
// it shows is what a game built on the engine gets. The help text is the
// manual.

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "KovexEngine.h"
#include "ToolEngine.h"

using namespace KovexEngine;
using namespace KovexTools;
namespace fs = std::filesystem;

namespace {

const std::string kHelp = std::string(
    "usage: kovex-image info FILE...\n"
    "       kovex-image convert IN OUT [--format NAME] [--mips]\n"
    "       kovex-image png IN OUTDIR\n"
    "\n"
    "Reads BMP, TGA, DDS, JPEG and PNG files through the engine's loaders (by\n"
    "content, or by extension for a TGA without its footer). FILE or IN \"-\"\n"
    "is standard input (a TGA there needs its footer).\n"
    "\n"
    "info     describes each FILE as the engine loads it: the loader, width,\n"
    "         height, depth, format, mip levels, array slices or cube faces,\n"
    "         and the bytes its pixels take.\n"
    "convert  loads IN, builds its mip chain from level 0 with --mips,\n"
    "         converts it with --format, and saves it by OUT's extension:\n"
    "           .dds  any format with a DDS pixel format; mip chains, cube\n"
    "                 maps and volumes\n"
    "           .png  one surface in R8G8B8A8_UNORM, B8G8R8A8_UNORM,\n"
    "                 R8G8B8_UNORM, B8G8R8_UNORM or R8_UNORM\n"
    "           .bmp  one surface in B8G8R8A8_UNORM, B8G8R8_UNORM,\n"
    "                 B4G4R4A4_UNORM or B4G4R4X4_UNORM (the engine writes\n"
    "                 the 5-6-5 and 5-5-5 formats with masks no reader takes)\n"
    "         Without --format, an image a PNG or BMP cannot hold as it is\n"
    "         becomes R8G8B8A8_UNORM (PNG) or B8G8R8A8_UNORM (BMP), or the\n"
    "         8-bit RGB format of each for formats without alpha; block\n"
    "         compression is decoded. A PNG or BMP gets level 0 of a mip chain\n"
    "         (a note says so). A combination the file type cannot hold (a BC\n"
    "         format or --mips in a PNG, a cube map in a BMP) is refused.\n"
    "         The engine's serialized image (\"IMG\") has no file form of its\n"
    "         own and is not offered.\n"
    "png      writes every array slice and mip level of IN as a PNG in OUTDIR\n"
    "         (made if missing), block compression decoded, named\n"
    "         NAME_sSLICE_mMIP.png after IN's name (NAME_sSLICE_mMIP_zZ.png for\n"
    "         the depth slices of a volume), and prints each path.\n"
    "\n"
    "  -f, --format NAME  the target format, a name of the engine's format\n"
    "                     table in any case: one of the fourteen plain formats\n"
    "                     (R8G8B8A8_UNORM, B8G8R8A8_UNORM, B8G8R8X8_UNORM,\n"
    "                     R8G8B8X8_UNORM, B8G8R8_UNORM, R8G8B8_UNORM,\n"
    "                     R16G16B16A16_FLOAT, B5G6R5_UNORM, B5G5R5A1_UNORM,\n"
    "                     B5G5R5X1_UNORM, B4G4R4A4_UNORM, B4G4R4X4_UNORM,\n"
    "                     B2G3R3A8_UNORM, GRAY_SCALE_UNORM) or BC1_UNORM to\n"
    "                     BC5_UNORM, encoded with libsquish\n"
    "      --bc1, --bc2, --bc3\n"
    "                     short for --format BC1_UNORM, BC2_UNORM, BC3_UNORM\n"
    "  -m, --mips         build the whole mip chain from level 0 (2x2 box\n"
    "                     filter); not for volumes\n"
    "  -h, --help         this text\n"
    "      --version      the version\n"
    "\n"
    "Progress is shown on standard error, by bytes, when it is a terminal.\n") +
    kExitStatusHelp;

CommandLine* g_cl = nullptr;
int Fail(const std::string& message) { return g_cl->Fail(message); }
std::string Quote(const std::string& text) { return "'" + text + "'"; }
std::string Utf8(const char16_t* text) { return StringConvFuncs::ToAString(text).c_str(); }

std::string FormatName(uint32 format)
{
    const char16_t* name = GraphicsFormat(int(format)).GetName();
    return name && *name ? Utf8(name) : "format " + std::to_string(format);
}

const char* LoaderName(int fileFormat)
{
    switch (fileFormat)
    {
    case ImageLoader::BMP: return "BMP";
    case ImageLoader::JPG: return "JPEG";
    case ImageLoader::TGA: return "TGA";
    case ImageLoader::PNG: return "PNG";
    case ImageLoader::DDS: return "DDS";
    default: return "?";
    }
}

// The first warning or error the engine logged since the last call, as the
// cause of a failure; empty when there is none.
std::string EngineCause()
{
    std::vector<std::string> messages = TakeEngineMessages();
    return messages.empty() ? std::string() : ": " + messages.front();
}

// --- Reading -----------------------------------------------------------------------------------

// The loader with the file's pixels; null after saying why.
Ptr<ImageLoader> LoadFile(const std::string& path)
{
    std::string bytes;
    // The loaders read from a DataStream, which holds up to 2 GiB.
    if (!g_cl->ReadInput(path, bytes, DataStream::kMaxSize))
        return nullptr;
    auto* data = new DataStream(unsigned(bytes.size()));
    if (!bytes.empty())
        std::memcpy(data->GetPointer(), bytes.data(), bytes.size());
    Ptr<Stream> stream(new MemoryStream(data, true));
    TakeEngineMessages();
    Ptr<ImageLoader> loader = ImageLoader::CreateLoader(stream.Get());
    if (!loader)
        loader = ImageLoader::CreateLoader(StringConvFuncs::ToWString(path.c_str()));
    if (!loader)
    {
        Fail(Quote(path) + " is not an image file the engine reads (BMP, TGA, DDS, JPEG, PNG)");
        return nullptr;
    }
    loader->SetStream(stream);
    if (!loader->Load())
    {
        std::string cause = EngineCause();
        Fail(Quote(path) + " is not a " + LoaderName(loader->GetFileFormat()) +
             " file the engine can decode (damaged, truncated or of an unsupported kind)" + cause);
        return nullptr;
    }
    return loader;
}

// --- Writing -----------------------------------------------------------------------------------

mode_t CurrentUmask()
{
    const mode_t mask = ::umask(0);
    ::umask(mask);
    return mask;
}


// Written beside `path` and renamed over it, so that a failed write leaves
// an existing file (IN itself, perhaps) as it was.
bool WriteFile(const std::string& path, const uint8* bytes, size_t size)
{
    std::string temporary = path + ".XXXXXX";
    const int fd = ::mkstemp(temporary.data());
    if (fd < 0)
        return Fail("cannot write " + Quote(path) + ": " + std::strerror(errno)), false;
    ::fchmod(fd, 0644 & ~CurrentUmask());
    size_t done = 0;
    while (done < size)
    {
        const ssize_t wrote = ::write(fd, bytes + done, size - done);
        if (wrote < 0 && errno == EINTR)
            continue;
        if (wrote <= 0)
            break;
        done += size_t(wrote);
    }
    const int writeError = done < size ? errno : 0;
    const bool closed = ::close(fd) == 0;
    if (done < size || !closed || ::rename(temporary.c_str(), path.c_str()) != 0)
    {
        const int error = writeError ? writeError : errno;
        ::unlink(temporary.c_str());
        return Fail("cannot write " + Quote(path) + ": " + std::strerror(error ? error : EIO)), false;
    }
    return true;
}

enum class FileType
{
    None,
    Dds,
    Png,
    Bmp,
};

FileType TypeOf(const std::string& path)
{
    std::string ext = fs::path(path).extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    return ext == ".dds" ? FileType::Dds : ext == ".png" ? FileType::Png : ext == ".bmp" ? FileType::Bmp : FileType::None;
}

const char* TypeName(FileType type) { return type == FileType::Dds ? "DDS" : type == FileType::Png ? "PNG" : "BMP"; }

bool Holds(FileType type, uint32 format)
{
    using F = GraphicsFormat;
    static const uint32 kPng[] = {F::R8G8B8A8_UNORM, F::B8G8R8A8_UNORM, F::R8G8B8_UNORM, F::B8G8R8_UNORM, F::R8_UNORM};
    // The saver writes B5G6R5 and the 5-5-5 formats with masks that overlap,
    // which no reader (the engine's included) takes back: they are not offered.
    static const uint32 kBmp[] = {F::B8G8R8A8_UNORM, F::B8G8R8_UNORM, F::B4G4R4A4_UNORM, F::B4G4R4X4_UNORM};
    if (type == FileType::Dds)
    {
        DDS_PIXELFORMAT pf;
        return ImageLoaderDDS::SetTargetFormat(pf, format);
    }
    const uint32* begin = type == FileType::Png ? std::begin(kPng) : std::begin(kBmp);
    const uint32* end = type == FileType::Png ? std::end(kPng) : std::end(kBmp);
    return std::find(begin, end, format) != end;
}

// Formats whose pixels carry no alpha: saved to PNG or BMP without one.
bool IsOpaque(uint32 format)
{
    using F = GraphicsFormat;
    static const uint32 kOpaque[] = {F::B8G8R8X8_UNORM, F::R8G8B8X8_UNORM, F::B8G8R8_UNORM,    F::R8G8B8_UNORM,
                                     F::B5G6R5_UNORM,   F::B5G5R5X1_UNORM, F::B4G4R4X4_UNORM, F::GRAY_SCALE_UNORM};
    return std::find(std::begin(kOpaque), std::end(kOpaque), format) != std::end(kOpaque);
}

// One surface (array slice, mip, depth slice) as an image of its own.
Ptr<Image> Surface(const Image& image, uint32 arrayIndex, uint32 mip, uint32 slice)
{
    const TextureDesc& from = image.GetDesc();
    TextureDesc desc;
    desc.Width = from.GetMipWidth(mip);
    desc.Height = from.GetMipHeight(mip);
    desc.Format = from.Format;
    desc.Dimension = TextureDimension::_2D;
    Ptr<Image> surface(new Image());
    const uint8* source = image.GetData(arrayIndex, mip, slice);
    if (!source || !surface->Create(desc))
        return nullptr;
    std::memcpy(surface->GetData(), source, surface->GetDataSize());
    return surface;
}

// Saves through the engine's saver for `type` into memory, then to `path`.
bool Save(const Image& image, FileType type, const std::string& path)
{
    auto* data = new DataStream();
    Ptr<Stream> stream(new MemoryStream(data, false));
    stream->SetWriteable(true);
    TakeEngineMessages();
    // The PNG saver writes to an open stream; the others open one that is not.
    bool saved = stream->Open() && (type == FileType::Dds   ? ImageLoaderDDS::StaticSave(&image, stream.Get(), 0)
                 : type == FileType::Png ? ImageLoaderPNG::StaticSave(&image, stream.Get(), 0, 0)
                                         : ImageLoaderBMP::StaticSave(&image, stream.Get(), 0, 0, 0));
    stream = nullptr;
    if (!saved)
        Fail("cannot save " + Quote(path) + " as " + TypeName(type) + EngineCause());
    else
        saved = WriteFile(path, data->GetPointer(), data->GetLength());
    delete data;
    return saved;
}

// --- Commands ------------------------------------------------------------------------------------

int Info(const std::vector<std::string>& files)
{
    int status = kExitSuccess;
    bool first = true;
    for (const std::string& file : files)
    {
        Ptr<ImageLoader> loader = LoadFile(file);
        if (!loader)
        {
            status = kExitFailure;
            continue;
        }
        const Image& image = *loader->GetImage();
        const TextureDesc& desc = image.GetDesc();
        std::string slices = std::to_string(desc.ArraySize);
        if (desc.Dimension == TextureDimension::Cube)
            slices += " (cube faces)";
        const char16_t* dimension = TextureDimension(int(desc.Dimension)).GetName();
        std::printf("%s%s\n"
                    "  loader     %s\n"
                    "  width      %u\n"
                    "  height     %u\n"
                    "  depth      %u\n"
                    "  format     %s (%u)\n"
                    "  mips       %u\n"
                    "  slices     %s\n"
                    "  dimension  %s\n"
                    "  bytes      %u\n",
                    first ? "" : "\n", file.c_str(), LoaderName(loader->GetFileFormat()), desc.Width, desc.Height,
                    desc.Depth, FormatName(desc.Format).c_str(), desc.Format, desc.MipLevels, slices.c_str(),
                    dimension && *dimension ? Utf8(dimension[0] == u'_' ? dimension + 1 : dimension).c_str() : "?",
                    image.GetDataSize());
        first = false;
    }
    return status;
}

// The format named on the command line, 0 for none; -1 after a usage error.
int TargetFormat(const CommandLine& cl)
{
    std::vector<std::string> names = cl.Values("format");
    for (const char* bc : {"bc1", "bc2", "bc3"})
        if (cl.Has(bc))
            names.push_back(std::string("BC") + bc[2] + "_UNORM");
    if (names.empty())
        return 0;
    if (names.size() > 1)
        return cl.UsageError("give one target format (--format, --bc1, --bc2 or --bc3)"), -1;
    auto upper = [](std::string text) {
        std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return char(std::toupper(c)); });
        return text;
    };
    const std::string wanted = upper(names[0]);
    for (const EnumMember& member : GraphicsFormat::GetEnumMembers())
    {
        if (upper(Utf8(member.name)) != wanted)
            continue;
        if (!PixelFormatConverter::IsPlainFormat(member.value) && !ImageConverter_BC::IsHandled(uint32(member.value)))
            return cl.UsageError("the engine cannot convert to " + Utf8(member.name) +
                                 "; see --help for the formats it converts to"),
                   -1;
        return member.value;
    }
    return cl.UsageError("unknown format " + Quote(names[0]) + "; see --help for the names"), -1;
}

// The mip chain rebuilt from level 0 of each array slice.
bool BuildMips(Ptr<Image>& image, const std::string& in)
{
    TextureDesc desc = image->GetDesc();
    if (desc.Depth > 1)
        return Fail("cannot build mips for " + Quote(in) + ": mip generation does not filter volumes"), false;
    uint32 levels = 1;
    for (uint32 side = std::max(desc.Width, desc.Height); side > 1; side >>= 1)
        ++levels;
    desc.MipLevels = levels;
    Ptr<Image> chain(new Image());
    if (!chain->Create(desc))
        return Fail("cannot build mips for " + Quote(in) + ": the chain is too large"), false;
    chain->FillData(0);
    const uint64 level0 = image->GetDesc().GetSlicePitch(0, desc.Format);
    for (uint32 a = 0; a < desc.ArraySize; ++a)
        std::memcpy(chain->GetData(a, 0, 0), image->GetData(a, 0, 0), size_t(level0));
    TakeEngineMessages();
    if (levels > 1 && !chain->GenerateMipmaps(true))
        return Fail("cannot build mips for " + Quote(in) + " in " + FormatName(desc.Format) + EngineCause()), false;
    // A block format went through 8-bit colour and back: level 0 keeps its
    // original blocks rather than an encoding of their decode.
    for (uint32 a = 0; a < desc.ArraySize; ++a)
        std::memcpy(chain->GetData(a, 0, 0), image->GetData(a, 0, 0), size_t(level0));
    image = chain;
    return true;
}

int Convert(const CommandLine& cl, const std::string& in, const std::string& out)
{
    const FileType type = TypeOf(out);
    if (type == FileType::None)
        return cl.UsageError("cannot tell the file type of " + Quote(out) + " from its extension (.dds, .png or .bmp)");
    const int format = TargetFormat(cl);
    if (format < 0)
        return kExitUsage;
    const bool mips = cl.Has("mips");
    if (format && !Holds(type, uint32(format)))
        return cl.UsageError(std::string("a ") + TypeName(type) + " file cannot hold " + FormatName(uint32(format)) +
                             (type == FileType::Dds ? "" : "; block-compressed and other formats go to .dds"));
    if (mips && type != FileType::Dds)
        return cl.UsageError(std::string("a ") + TypeName(type) +
                             " file holds one surface, not a mip chain; --mips needs .dds (then 'png' shows every level)");

    Ptr<ImageLoader> loader = LoadFile(in);
    if (!loader)
        return kExitFailure;
    Ptr<Image> image = loader->GetImage();
    const TextureDesc& desc = image->GetDesc();
    if (type != FileType::Dds && (desc.ArraySize > 1 || desc.Depth > 1))
        return Fail(Quote(in) + " holds " +
                    (desc.ArraySize > 1 ? std::to_string(desc.ArraySize) +
                                              (desc.Dimension == TextureDimension::Cube ? " cube faces" : " array slices")
                                        : std::to_string(desc.Depth) + " depth slices") +
                    "; a " + TypeName(type) + " file holds one surface (use 'png' to write each, or .dds)");
    if (mips && !BuildMips(image, in))
        return kExitFailure;
    uint32 target = uint32(format);
    if (!target && !Holds(type, image->GetDesc().Format) && type != FileType::Dds)
        target = IsOpaque(image->GetDesc().Format)
                     ? (type == FileType::Png ? GraphicsFormat::R8G8B8_UNORM : GraphicsFormat::B8G8R8_UNORM)
                     : (type == FileType::Png ? GraphicsFormat::R8G8B8A8_UNORM : GraphicsFormat::B8G8R8A8_UNORM);
    if (!target && !Holds(type, image->GetDesc().Format))
        return Fail("a DDS file cannot hold " + FormatName(image->GetDesc().Format) + "; convert it with --format");
    TakeEngineMessages();
    if (target && !image->Convert(target, true))
        return Fail("cannot convert " + Quote(in) + " from " + FormatName(image->GetDesc().Format) + " to " +
                    FormatName(target) + EngineCause());
    if (type != FileType::Dds && image->GetDesc().MipLevels > 1)
    {
        g_cl->Warn("note: " + Quote(out) + " gets level 0 alone; a " + TypeName(type) + " file holds no mip chain");
        image = Surface(*image, 0, 0, 0);
        if (!image)
            return Fail("cannot take level 0 of " + Quote(in));
    }
    return Save(*image, type, out) ? kExitSuccess : kExitFailure;
}

int Unpack(const std::string& in, const std::string& dir)
{
    std::error_code error;
    if (fs::exists(dir, error) && !fs::is_directory(dir, error))
        return Fail(Quote(dir) + " exists and is not a directory");
    if (!fs::exists(dir, error) && !fs::create_directory(dir, error))
        return Fail("cannot make the directory " + Quote(dir) + ": " + error.message());
    Ptr<ImageLoader> loader = LoadFile(in);
    if (!loader)
        return kExitFailure;
    Ptr<Image> image = loader->GetImage();
    const uint32 format = image->GetDesc().Format;
    TakeEngineMessages();
    if (!Holds(FileType::Png, format) && !image->Convert(GraphicsFormat::R8G8B8A8_UNORM, true))
        return Fail("cannot decode " + Quote(in) + " from " + FormatName(format) + " to R8G8B8A8_UNORM" + EngineCause());
    const TextureDesc& desc = image->GetDesc();
    const std::string stem = in == "-" ? "stdin" : fs::path(in).stem().string();
    ProgressLine progress("png");
    uint64 done = 0;
    for (uint32 a = 0; a < desc.ArraySize; ++a)
        for (uint32 mip = 0; mip < desc.MipLevels; ++mip)
            for (uint32 z = 0; z < desc.GetMipDepth(mip); ++z)
            {
                std::string name = stem + "_s" + std::to_string(a) + "_m" + std::to_string(mip) +
                                   (desc.Depth > 1 ? "_z" + std::to_string(z) : "") + ".png";
                std::string path = (fs::path(dir) / name).string();
                Ptr<Image> surface = Surface(*image, a, mip, z);
                if (!surface)
                    return Fail("cannot take slice " + std::to_string(a) + ", mip " + std::to_string(mip) + " of " +
                                Quote(in));
                if (!Save(*surface, FileType::Png, path))
                    return kExitFailure;
                std::printf("%s\n", path.c_str());
                done += surface->GetDataSize();
                progress.Update(done, image->GetDataSize(), name);
            }
    return kExitSuccess;
}

} // namespace

int main(int argc, char** argv)
{
    CommandLine cl("kovex-image", kHelp);
    cl.Add('f', "format", true);
    cl.Add(0, "bc1", false);
    cl.Add(0, "bc2", false);
    cl.Add(0, "bc3", false);
    cl.Add('m', "mips", false);
    g_cl = &cl;
    int status = cl.Parse(argc, argv);
    if (status >= 0)
        return status;
    const std::vector<std::string>& args = cl.Operands();
    if (args.empty())
        return cl.UsageError("no command given (info, convert or png)");
    const std::string& command = args[0];
    const bool converts = cl.Has("format") || cl.Has("bc1") || cl.Has("bc2") || cl.Has("bc3") || cl.Has("mips");
    if (command == "info" && args.size() < 2)
        return cl.UsageError("info needs at least one FILE");
    if (command == "convert" && args.size() != 3)
        return cl.UsageError("convert needs IN and OUT");
    if (command == "png" && args.size() != 3)
        return cl.UsageError("png needs IN and OUTDIR");
    if (command != "info" && command != "convert" && command != "png")
        return cl.UsageError("unknown command " + Quote(command));
    if (converts && command != "convert")
        return cl.UsageError("--format, --bc1, --bc2, --bc3 and --mips belong to convert");
    if (!StartEngine(cl))
    {
        StopEngine();
        return kExitFailure;
    }
    if (command == "info")
        status = Info(std::vector<std::string>(args.begin() + 1, args.end()));
    else if (command == "convert")
        status = Convert(cl, args[1], args[2]);
    else
        status = Unpack(args[1], args[2]);
    StopEngine();
    return status;
}
