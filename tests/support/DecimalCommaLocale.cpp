#include "support/DecimalCommaLocale.h"

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>

namespace KovexTest {
namespace {

bool SetAndCheck()
{
    if (!std::setlocale(LC_ALL, DecimalCommaLocale::kName))
        return false;
    const char* point = std::localeconv()->decimal_point;
    return point && std::string(point) == ",";
}

// Builds the locale once per machine: into a private directory first, then
// renamed into place, so that test processes running side by side never see
// a half-written one.
std::string BuildWithLocaledef(const std::string& root)
{
    if (std::system("command -v localedef >/dev/null 2>&1") != 0)
        return "localedef is not available to build the locale";
    std::string target = root + "/" + DecimalCommaLocale::kName;
    if (std::filesystem::exists(target))
        return {};
    std::filesystem::create_directories(root);
    std::string scratch = root + "/build-" + std::to_string(getpid());
    std::filesystem::create_directories(scratch);
    std::string command = "localedef -c -i de_DE -f UTF-8 '" + scratch + "/" + DecimalCommaLocale::kName +
                          "' >/dev/null 2>&1";
    int status = std::system(command.c_str());
    std::error_code ignored;
    std::filesystem::rename(scratch + "/" + DecimalCommaLocale::kName, target, ignored);
    std::filesystem::remove_all(scratch, ignored);
    if (!std::filesystem::exists(target))
        return "localedef failed (status " + std::to_string(status) + ")";
    return {};
}

} // namespace

std::string DecimalCommaLocale::Enter()
{
    if (SetAndCheck())
        return {};
    std::string root = std::filesystem::temp_directory_path().string() + "/kovex-locales-" + std::to_string(getuid());
    std::string error = BuildWithLocaledef(root);
    if (!error.empty())
        return error;
    setenv("LOCPATH", root.c_str(), 1);
    if (!SetAndCheck())
        return std::string("the locale ") + kName + " built in " + root + " does not give a decimal comma";
    return {};
}

} // namespace KovexTest
