#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "kernel/StringConv.h"

// A temporary directory for a test, removed with everything in it.
namespace KovexTest {

class TempDir
{
public:
    TempDir()
    {
        char pattern[] = "/tmp/kovex-test-XXXXXX";
        path = mkdtemp(pattern);
    }
    ~TempDir() { std::filesystem::remove_all(path); }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    // A path below the directory, as engine text.
    KovexEngine::WString W(const std::string& relative) const
    {
        return KovexEngine::StringConvFuncs::ToWString((path + "/" + relative).c_str());
    }
    // Writes a file, making its directories.
    void Write(const std::string& relative, const std::string& content) const
    {
        std::filesystem::create_directories(std::filesystem::path(path + "/" + relative).parent_path());
        std::ofstream(path + "/" + relative, std::ios::binary) << content;
    }

    std::string path;
};

} // namespace KovexTest
