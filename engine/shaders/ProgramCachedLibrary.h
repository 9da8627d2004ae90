#pragma once

// "shader.cache": the byte code of compiled programs, kept across runs so
// that a later run skips the compiler. The compiler asks LoadFromCache
// before it compiles and Cache after a successful compile; nothing else is
// needed of it.
//
// The file (all integers little-endian u32):
//   0            program chunks, one after the other (an append may leave
//                dead bytes between them); per stage of the
//                record's mask, ascending: tag "SV","SP","SG","SH","SD","SC"
//                padded with two zero bytes, code size, code bytes
//   tableOffset  four name tables: hardware macro strings (platform
//                first), framework, attribute, material configurations;
//                each "TCPC", entry count, blob size, then the blob: UTF-8
//                names from its start, 24-byte entries (0, 0, id, spare,
//                name offset, name length) at its end
//   then         `count` records of 32 bytes sorted by their first 16 bytes:
//                attribute id, framework id, material id, macro-string id,
//                chunk offset, chunk size, stage mask (bit n = ShaderType
//                n), HashBytes of the chunk (the spare word)
//   end - 12     "CCPC", count, tableOffset
// A new program's chunk goes behind the last chunk, where the old tables
// stood; the tables, records and footer are written again behind both the
// chunk and the file as it stood, the footer last, and only then the chunk
// (its hash tells a chunk cut short). So a crash in an append loses at most
// that program: the previous footer is still whole and is found again. The
// bytes an append leaves dead (old tables under a small chunk) are bounded:
// when they outweigh the live ones the file is written anew beside itself
// and renamed over.
//
// Keys: a configuration's name text is "name@relative-template-path#hash";
// the framework's hash is the compiler's hash of the whole preprocessed
// unit and its macros (unitHash), the attribute's and the material's a hash
// of their own code text, so an edited template never reuses a stale
// program. The macro-string table keys the device: "[PLATFORM=n];" and the
// capability macros, so devices and platforms live side by side.
//
// A file that does not hold together (footer, counts, offsets, sizes,
// tables, tags) and has no whole earlier footer is ignored with one log
// line and replaced whole by an empty one, written beside it and renamed
// over it. A damaged chunk misses (logged) and is written again by the
// next Cache of its program.
//
// Platforms: the compiler asks the library where Renderer::AllowCacheShaders
// holds and the switches g_kovexLoadShadersFromCache / g_kovexCacheShaders
// say so. The null renderer reports the platform it was set up with (D3D11
// unless told otherwise) and compiles to SPIR-V like Vulkan, so it caches
// too; that is what the tests use.
//
// Threads: every member is safe from any thread; all run under the
// library's lock, so compile workers share one file. A Record handed out
// stays valid until Destroy; its Offset changes when the file is rewritten.
// Ins() and Destroy() belong to the thread that starts and ends the engine (Destroy while
// another thread still calls in is a use after free).

#include "kernel/Containers.h"
#include "kernel/Strings.h"

namespace KovexEngine {

class BaseProgram;
class PGCodeConf;
class Stream;

class KOVEX_API ProgramCachedLibrary
{
public:
    // The four ids of a program: attribute, framework, material, hardware
    // macro string (the record's first 16 bytes, its sort order).
    struct Key
    {
        uint32 Words[4] = {0, 0, 0, 0};
        uint32 Attribute() const { return Words[0]; }
        uint32 Framework() const { return Words[1]; }
        uint32 Material() const { return Words[2]; }
        uint32 MacroString() const { return Words[3]; }
        bool operator<(const Key& other) const;
        bool operator==(const Key& other) const;
    };

    // One cached program, as the file stores it.
    struct Record
    {
        Key ProgramKey;
        uint32 Offset = 0;
        uint32 Size = 0;
        uint32 StageMask = 0;
        uint32 Hash = 0;
    };

    // What InspectFile finds in a file, without a renderer.
    struct InspectedRecord
    {
        Record Entry;
        // The name texts behind the key's ids ("" for 0 or an unknown id).
        AString MacroString, Framework, Attribute, Material;
        // Per stage of the mask, ascending: tag, size of its code.
        TArray<AString> StageTags;
        TArray<uint32> StageSizes;
    };
    struct Inspection
    {
        bool Empty = false; // shorter than a footer: a new library
        uint32 Count = 0;
        uint32 TableOffset = 0;
        uint64 FileSize = 0;
        // Names by table (macro strings, framework, attribute, material),
        // "id text" each.
        TArray<AString> TableNames[4];
        TArray<InspectedRecord> Records;
        // Every inconsistency found, one line each; empty when the file is
        // sound.
        TArray<AString> Problems;
    };

    static ProgramCachedLibrary* Ins();
    // Closes the file and frees the records.
    static void Destroy();

    // The file's path; by default GetEngineCacheDirectory() + "shader.cache".
    // A new path closes the file in use (tests, tools).
    void SetFilePath(const WString& path);
    WString GetFilePath();

    // On a hit whose stages are those the program expects, builds each
    // stage's Shader (ShaderFactory::CreateShader) and sets it on the
    // program: true. False on a miss (the compile goes on as normal).
    bool LoadFromCache(BaseProgram* program, uint64 unitHash);
    // Writes a compiled program's stages; the record, or the one already
    // listed under its key. Null for a null or Failed program, a program
    // without Vertex and Pixel first (compute: without Compute), a file
    // that cannot be opened or a key that cannot be made.
    const Record* Cache(BaseProgram* program, uint64 unitHash);
    // The program's ids, new names entered in the tables. False (with a log
    // line) when a configuration's template path cannot be made relative or
    // the program has no configuration.
    bool GetKey(Key& key, BaseProgram* program, uint64 unitHash);
    const Record* Find(BaseProgram* program, uint64 unitHash);
    const Record* Find(const Key& key);
    // Reads tables and records from a stream holding a whole cache file.
    // False (the library then empty) when the stream is shorter than a
    // footer or does not hold together.
    bool LoadHeader(Stream& stream);
    // Writes tables, records and footer at the write position (behind the
    // last chunk) and cuts the stream there.
    bool SaveHeader(Stream& stream);

    // Number of programs listed (opens the file when needed).
    unsigned GetCount();

    // Lower-level access for tools and tests: the id of a text in a table
    // (0 hardware macro strings, 1 framework, 2 attribute, 3 material),
    // entered when new (0 for no such table).
    uint32 GetNameId(unsigned table, const AString& text);
    // Writes stages (code per ShaderType, null/0 where absent; whole words)
    // under a key, with the stage rules of Cache; the record listed already
    // under the key when there is one.
    const Record* CacheStages(const Key& key, const void* const codes[6], const uint32 sizes[6]);
    // Reads a record's stages back (empty where absent). False on a short
    // read, a wrong tag or bytes that do not match their hash.
    bool ReadStages(const Record& record, TArray<uint8> codes[6]);
    // The name text a configuration gets in its table, "" when none can be
    // made: "name@relative-template-path#hash".
    static AString MakeConfigText(const PGCodeConf* conf, uint64 hash);
    // "[PLATFORM=n];" and the capability macros of the current renderer.
    static AString MakeMacroString();

    // Reads a cache file and checks it: the records with their keys' texts,
    // stage tags and sizes, and every inconsistency. False when the file
    // cannot be read at all.
    static bool InspectFile(const WString& path, Inspection& out);
    static void InspectBytes(const uint8* data, uint64 size, Inspection& out);

    // The record's hash word: a multiplicative hash over little-endian
    // 64-bit words, folded to 32 bits.
    static uint32 HashBytes(const void* data, uint64 size, uint32 seed = 2166136261u);

private:
    ProgramCachedLibrary();
    ~ProgramCachedLibrary();
    ProgramCachedLibrary(const ProgramCachedLibrary&) = delete;
    ProgramCachedLibrary& operator=(const ProgramCachedLibrary&) = delete;

    struct Impl;
    Impl* m_impl;
};

} // namespace KovexEngine
