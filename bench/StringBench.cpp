// Strings against their baselines: std::string, snprintf into a stack
// buffer, and glibc's iconv, each in the same run.

#include <benchmark/benchmark.h>
#include <iconv.h>

#include <cstdio>
#include <string>
#include <vector>

#include "kernel/StringConv.h"
#include "kernel/Strings.h"

using namespace KovexEngine;

// --- Short strings: inline storage against the heap ---------------------------------

static void BM_AString_Short(benchmark::State& state)
{
    const char* text = "twenty-three characters";
    for (auto _ : state)
    {
        AString s(text);
        AString copy(s);
        benchmark::DoNotOptimize(copy());
    }
}
BENCHMARK(BM_AString_Short);

static void BM_WString_Short(benchmark::State& state)
{
    const char16_t* text = u"elevenchars";
    for (auto _ : state)
    {
        WString s(text);
        WString copy(s);
        benchmark::DoNotOptimize(copy());
    }
}
BENCHMARK(BM_WString_Short);

// The same length on the heap: one character more than fits inline.
static void BM_AString_HeapOfSameSize(benchmark::State& state)
{
    const char* text = "twenty-four characters!!";
    for (auto _ : state)
    {
        AString s(text);
        AString copy(s);
        benchmark::DoNotOptimize(copy());
    }
}
BENCHMARK(BM_AString_HeapOfSameSize);

// Baseline: std::string keeps only 15 characters inline.
static void BM_StdString_23Chars(benchmark::State& state)
{
    const char* text = "twenty-three characters";
    for (auto _ : state)
    {
        std::string s(text);
        std::string copy(s);
        benchmark::DoNotOptimize(copy.data());
    }
}
BENCHMARK(BM_StdString_23Chars);

static void BM_StdU16String_11Chars(benchmark::State& state)
{
    const char16_t* text = u"elevenchars";
    for (auto _ : state)
    {
        std::u16string s(text);
        std::u16string copy(s);
        benchmark::DoNotOptimize(copy.data());
    }
}
BENCHMARK(BM_StdU16String_11Chars);

// --- Formatting a typical log line ------------------------------------------------------

static void BM_AString_FormatLogLine(benchmark::State& state)
{
    AString s;
    for (auto _ : state)
    {
        s.Format("Loaded %s (%u KiB) in %.2f ms, %d objects\n", "textures/rotrandom.dds", 1024u, 3.75, 17);
        benchmark::DoNotOptimize(s());
    }
}
BENCHMARK(BM_AString_FormatLogLine);

static void BM_WString_FormatLogLine(benchmark::State& state)
{
    WString s;
    for (auto _ : state)
    {
        s.Format(u"Loaded %s (%u KiB) in %.2f ms, %d objects\n", u"textures/rotrandom.dds", 1024u, 3.75, 17);
        benchmark::DoNotOptimize(s());
    }
}
BENCHMARK(BM_WString_FormatLogLine);

static void BM_Snprintf_LogLine(benchmark::State& state)
{
    char buffer[2048];
    for (auto _ : state)
    {
        std::snprintf(buffer, sizeof buffer, "Loaded %s (%u KiB) in %.2f ms, %d objects\n", "textures/rotrandom.dds",
                      1024u, 3.75, 17);
        benchmark::DoNotOptimize(buffer);
    }
}
BENCHMARK(BM_Snprintf_LogLine);

static void BM_AString_FormatIntegers(benchmark::State& state)
{
    AString s;
    for (auto _ : state)
    {
        s.Format("frame %I64u: %d draws, %u triangles, %x flags", 123456789ull, 4321, 987654u, 0xBEEFu);
        benchmark::DoNotOptimize(s());
    }
}
BENCHMARK(BM_AString_FormatIntegers);

static void BM_Snprintf_Integers(benchmark::State& state)
{
    char buffer[2048];
    for (auto _ : state)
    {
        std::snprintf(buffer, sizeof buffer, "frame %llu: %d draws, %u triangles, %x flags", 123456789ull, 4321,
                      987654u, 0xBEEFu);
        benchmark::DoNotOptimize(buffer);
    }
}
BENCHMARK(BM_Snprintf_Integers);

// --- UTF-8 and UTF-16 ---------------------------------------------------------------------

namespace {

// Mixed text: mostly ASCII paths with some Latin, CJK and emoji.
const std::string& SampleUtf8()
{
    static const std::string text = [] {
        std::string s;
        while (s.size() < 64 * 1024)
            s += "[core]shaders/Material_Template.ksl Grüße aus Köln, 東京の夜 \xF0\x9F\x98\x80 ";
        return s;
    }();
    return text;
}

const std::u16string& SampleUtf16()
{
    static const std::u16string text = [] {
        WString w;
        StringConvFuncs::UTF8toUTF16(w, SampleUtf8().c_str());
        return std::u16string(w(), w.Length());
    }();
    return text;
}

} // namespace

static void BM_Utf8ToUtf16_Engine(benchmark::State& state)
{
    const std::string& in = SampleUtf8();
    std::vector<char16_t> out(in.size() + 1);
    for (auto _ : state)
        benchmark::DoNotOptimize(StringConvFuncs::UTF8toUTF16(out.data(), in.c_str(), unsigned(in.size())));
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(in.size()));
}
BENCHMARK(BM_Utf8ToUtf16_Engine);

static void BM_Utf8ToUtf16_Iconv(benchmark::State& state)
{
    const std::string& in = SampleUtf8();
    std::vector<char16_t> out(in.size() + 1);
    iconv_t cd = iconv_open("UTF-16LE", "UTF-8");
    for (auto _ : state)
    {
        char* src = const_cast<char*>(in.data());
        size_t srcLeft = in.size();
        char* dst = reinterpret_cast<char*>(out.data());
        size_t dstLeft = out.size() * 2;
        iconv(cd, &src, &srcLeft, &dst, &dstLeft);
        benchmark::DoNotOptimize(dst);
    }
    iconv_close(cd);
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(in.size()));
}
BENCHMARK(BM_Utf8ToUtf16_Iconv);

static void BM_Utf16ToUtf8_Engine(benchmark::State& state)
{
    const std::u16string& in = SampleUtf16();
    std::vector<char> out(in.size() * 3 + 1);
    for (auto _ : state)
        benchmark::DoNotOptimize(StringConvFuncs::UTF16toUTF8(out.data(), in.c_str(), unsigned(in.size())));
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(in.size() * 2));
}
BENCHMARK(BM_Utf16ToUtf8_Engine);

static void BM_Utf16ToUtf8_Iconv(benchmark::State& state)
{
    const std::u16string& in = SampleUtf16();
    std::vector<char> out(in.size() * 3 + 1);
    iconv_t cd = iconv_open("UTF-8", "UTF-16LE");
    for (auto _ : state)
    {
        char* src = reinterpret_cast<char*>(const_cast<char16_t*>(in.data()));
        size_t srcLeft = in.size() * 2;
        char* dst = out.data();
        size_t dstLeft = out.size();
        iconv(cd, &src, &srcLeft, &dst, &dstLeft);
        benchmark::DoNotOptimize(dst);
    }
    iconv_close(cd);
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(in.size() * 2));
}
BENCHMARK(BM_Utf16ToUtf8_Iconv);
