// Package reads beside their physical baselines in the same run: a raw
// member against the same bytes read from a plain file, a compressed member
// against zlib's own uncompress of the same data; and mounting a package of
// 10,000 members.

#include <benchmark/benchmark.h>
#include <zlib.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "io/FileStream.h"
#include "io/Package.h"
#include "kernel/Log.h"
#include "kernel/StringConv.h"

using namespace KovexEngine;
namespace fs = std::filesystem;

namespace {

constexpr size_t kMemberSize = 16u << 20;

struct Fixture
{
    std::string dir;
    std::string data;
    std::string deflated;
    Package* raw = nullptr;
    Package* compressed = nullptr;
    Package* many = nullptr;
    WString plainPath;

    static bool Compress(Package::File* file)
    {
        file->compressionType = file->name.EndsWith(u".txt") ? 1 : 0;
        file->compressionLevel = 6;
        return true;
    }

    Fixture()
    {
        char pattern[] = "/tmp/kovex-bench-XXXXXX";
        dir = mkdtemp(pattern);
        // Text-like data: compressible, but not trivially.
        data.resize(kMemberSize);
        uint32_t state = 12345;
        for (size_t i = 0; i < data.size(); ++i)
        {
            state = state * 1103515245u + 12345u;
            data[i] = " etaoinshrdlu\n"[(state >> 16) % 14];
        }
        fs::create_directories(dir + "/src");
        std::ofstream(dir + "/src/member.bin", std::ios::binary) << data;
        std::ofstream(dir + "/src/member.txt", std::ios::binary) << data;
        plainPath = StringConvFuncs::ToWString((dir + "/src/member.bin").c_str());
        uLongf length = compressBound(uLong(data.size()));
        deflated.resize(length);
        compress2(reinterpret_cast<Bytef*>(deflated.data()), &length, reinterpret_cast<const Bytef*>(data.data()),
                  uLong(data.size()), 6);
        deflated.resize(length);

        FindFile find;
        find.AddInclude(WString(u"*"), StringConvFuncs::ToWString((dir + "/src").c_str()), 0);
        WString packagePath = StringConvFuncs::ToWString((dir + "/bench.kpk").c_str());
        Package::MakeNewPackage(packagePath, find, DelegateC<bool(Package::File*)>(&Compress), nullptr);
        raw = new Package(packagePath);
        raw->Mount(WString());
        compressed = raw;

        // 10,000 small raw members, written straight in the format.
        std::string bytes, table;
        auto put = [](std::string& out, uint64_t v, int n) {
            for (int i = 0; i < n; ++i)
                out.push_back(char((v >> (8 * i)) & 0xFF));
        };
        for (int i = 0; i < 10000; ++i)
        {
            std::string name = "assets/dir" + std::to_string(i % 97) + "/file" + std::to_string(i) + ".dat";
            uint64_t offset = bytes.size();
            bytes += "sixteen bytes!!!";
            std::string record;
            put(record, 0, 8);
            put(record, offset, 8);
            put(record, 16, 8);
            put(record, 0, 8);
            record.append(24, '\0');
            put(record, 0, 8);
            put(record, name.size(), 4);
            record += name;
            table += record;
        }
        uLongf tableLength = compressBound(uLong(table.size()));
        std::string packedTable(tableLength, '\0');
        compress2(reinterpret_cast<Bytef*>(packedTable.data()), &tableLength,
                  reinterpret_cast<const Bytef*>(table.data()), uLong(table.size()), 6);
        packedTable.resize(tableLength);
        bytes += packedTable;
        std::string header;
        put(header, 1000, 4);
        header += "KVPF";
        put(header, 10000, 8);
        put(header, table.size(), 4);
        put(header, packedTable.size(), 4);
        header.push_back(1);
        header.append(39, '\0');
        std::ofstream(dir + "/many.kpk", std::ios::binary) << bytes << header;
    }
    ~Fixture()
    {
        delete raw;
        fs::remove_all(dir);
    }
};

Fixture& Get()
{
    static Fixture fixture;
    return fixture;
}

} // namespace

static void BM_PlainFile_Read16MB(benchmark::State& state)
{
    Fixture& f = Get();
    std::vector<char> buffer(kMemberSize);
    for (auto _ : state)
    {
        Ptr<FileStream> file(new FileStream(f.plainPath));
        file->Open();
        file->Read(buffer.data(), int(buffer.size()));
        file->Close();
        benchmark::DoNotOptimize(buffer.data());
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kMemberSize));
}
BENCHMARK(BM_PlainFile_Read16MB)->UseRealTime();

static void BM_PackageRawMember_Read16MB(benchmark::State& state)
{
    Fixture& f = Get();
    std::vector<char> buffer(kMemberSize);
    WString name(u"member.bin");
    for (auto _ : state)
    {
        Ptr<Stream> member = f.raw->CreateStream(name);
        member->Open();
        member->Read(buffer.data(), int(buffer.size()));
        member->Close();
        benchmark::DoNotOptimize(buffer.data());
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kMemberSize));
}
BENCHMARK(BM_PackageRawMember_Read16MB)->UseRealTime();

static void BM_ZlibUncompress16MB(benchmark::State& state)
{
    Fixture& f = Get();
    std::vector<char> buffer(kMemberSize);
    for (auto _ : state)
    {
        uLongf length = uLongf(buffer.size());
        uncompress(reinterpret_cast<Bytef*>(buffer.data()), &length, reinterpret_cast<const Bytef*>(f.deflated.data()),
                   uLong(f.deflated.size()));
        benchmark::DoNotOptimize(buffer.data());
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kMemberSize));
}
BENCHMARK(BM_ZlibUncompress16MB)->UseRealTime();

static void BM_PackageCompressedMember_Read16MB(benchmark::State& state)
{
    Fixture& f = Get();
    std::vector<char> buffer(kMemberSize);
    WString name(u"member.txt");
    for (auto _ : state)
    {
        Ptr<Stream> member = f.compressed->CreateStream(name);
        member->Open();
        member->Read(buffer.data(), int(buffer.size()));
        member->Close();
        benchmark::DoNotOptimize(buffer.data());
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kMemberSize));
}
BENCHMARK(BM_PackageCompressedMember_Read16MB)->UseRealTime();

static void BM_Package_Mount10000Members(benchmark::State& state)
{
    Fixture& f = Get();
    WString path = StringConvFuncs::ToWString((f.dir + "/many.kpk").c_str());
    for (auto _ : state)
    {
        Package package(path);
        bool mounted = package.Mount(WString(u"/mount/"));
        benchmark::DoNotOptimize(mounted);
        if (!mounted || package.GetFiles().Count() != 10000)
            state.SkipWithError("mount failed");
    }
}
BENCHMARK(BM_Package_Mount10000Members)->Unit(benchmark::kMillisecond);

static void BM_Package_LookUpAmong10000(benchmark::State& state)
{
    Fixture& f = Get();
    Package package(StringConvFuncs::ToWString((f.dir + "/many.kpk").c_str()));
    package.Mount(WString());
    WString name(u"assets/dir5/file5000.dat");
    for (auto _ : state)
        benchmark::DoNotOptimize(package.GetFile(name));
}
BENCHMARK(BM_Package_LookUpAmong10000);

// The same member reached without the copy into the caller's buffer: the
// inflated bytes are mapped where they lie.
static void BM_PackageCompressedMember_Map16MB(benchmark::State& state)
{
    Fixture& f = Get();
    WString name(u"member.txt");
    for (auto _ : state)
    {
        Ptr<Stream> member = f.compressed->CreateStream(name);
        member->Open();
        benchmark::DoNotOptimize(member->Map(0, unsigned(member->GetSize())));
        member->Unmap();
        member->Close();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kMemberSize));
}
BENCHMARK(BM_PackageCompressedMember_Map16MB)->UseRealTime();
