#include "CommandLine.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>

namespace KovexTools {

const char* const kExitStatusHelp =
    "\nExit status: 0 success, 1 failure (the reason is on standard error),\n"
    "2 usage error (an unknown command or option, a missing operand).\n";

CommandLine::CommandLine(const char* tool, std::string help) : m_tool(tool), m_help(std::move(help))
{
    Add('h', "help", false);
    Add(0, "version", false);
}

void CommandLine::Add(char shortName, const char* longName, bool takesValue)
{
    m_defs.push_back(OptionDef{shortName, longName ? longName : "", takesValue});
}

const CommandLine::OptionDef* CommandLine::FindShort(char letter) const
{
    for (const OptionDef& def : m_defs)
        if (def.shortName && def.shortName == letter)
            return &def;
    return nullptr;
}

const CommandLine::OptionDef* CommandLine::FindLong(const std::string& name) const
{
    for (const OptionDef& def : m_defs)
        if (!def.longName.empty() && def.longName == name)
            return &def;
    return nullptr;
}

std::string CommandLine::KeyOf(const OptionDef& def)
{
    return def.longName.empty() ? std::string(1, def.shortName) : def.longName;
}

int CommandLine::Parse(int argc, char** argv)
{
    bool optionsEnded = false;
    for (int i = 1; i < argc; ++i)
    {
        std::string arg = argv[i];
        if (optionsEnded || arg.size() < 2 || arg[0] != '-')
        {
            m_operands.push_back(arg); // "-" alone is an operand: standard output or input
            continue;
        }
        if (arg == "--")
        {
            optionsEnded = true;
            continue;
        }
        const OptionDef* def = nullptr;
        std::string value;
        bool hasValue = false;
        if (arg[1] == '-')
        {
            std::string name = arg.substr(2);
            size_t equals = name.find('=');
            if (equals != std::string::npos)
            {
                value = name.substr(equals + 1);
                name.resize(equals);
                hasValue = true;
            }
            def = FindLong(name);
            if (!def)
                return UsageError("unknown option '--" + name + "'");
            if (hasValue && !def->takesValue)
                return UsageError("option '--" + name + "' takes no value");
        }
        else
        {
            def = FindShort(arg[1]);
            if (!def)
                return UsageError(std::string("unknown option '-") + arg[1] + "'");
            if (arg.size() > 2)
            {
                if (!def->takesValue)
                    return UsageError("unknown option '" + arg + "'");
                value = arg.substr(2);
                hasValue = true;
            }
        }
        if (def->takesValue && !hasValue)
        {
            if (i + 1 >= argc)
                return UsageError("option '" + arg + "' needs a value");
            value = argv[++i];
        }
        m_given.push_back(Given{def, value});
    }
    if (Has("help"))
    {
        std::fputs(m_help.c_str(), stdout);
        return kExitSuccess;
    }
    if (Has("version"))
    {
        std::printf("%s (KovexEngine) %s\n", m_tool, KOVEX_VERSION);
        return kExitSuccess;
    }
    return -1;
}

bool CommandLine::Has(const char* name) const
{
    for (const Given& given : m_given)
        if (KeyOf(*given.def) == name)
            return true;
    return false;
}

std::string CommandLine::Value(const char* name, const std::string& fallback) const
{
    std::string result = fallback;
    for (const Given& given : m_given)
        if (KeyOf(*given.def) == name)
            result = given.value;
    return result;
}

std::vector<std::string> CommandLine::Values(const char* name) const
{
    std::vector<std::string> result;
    for (const Given& given : m_given)
        if (KeyOf(*given.def) == name)
            result.push_back(given.value);
    return result;
}

int CommandLine::Fail(const std::string& message) const
{
    std::fprintf(stderr, "%s: %s\n", m_tool, message.c_str());
    return kExitFailure;
}

int CommandLine::UsageError(const std::string& message) const
{
    std::fprintf(stderr, "%s: %s\nTry '%s --help'.\n", m_tool, message.c_str(), m_tool);
    return kExitUsage;
}

bool CommandLine::ReadInput(const std::string& path, std::string& out, uint64_t limit) const
{
    if (path == "-")
    {
        out.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
        if (out.size() <= limit)
            return true;
        out.clear();
        Fail("standard input holds more than " + HumanBytes(limit));
        return false;
    }
    const std::string quoted = "'" + path + "'";
    struct stat info;
    if (::stat(path.c_str(), &info) != 0)
    {
        Fail(quoted + (errno == ENOENT ? " does not exist" : std::string(": ") + std::strerror(errno)));
        return false;
    }
    if (S_ISDIR(info.st_mode))
    {
        Fail(quoted + " is a directory");
        return false;
    }
    if (uint64_t(info.st_size) > limit)
    {
        Fail(quoted + " is larger than " + HumanBytes(limit));
        return false;
    }
    std::ifstream in(path, std::ios::binary);
    if (!in)
    {
        Fail(quoted + " cannot be read: " + std::strerror(errno));
        return false;
    }
    out.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return true;
}

void CommandLine::Warn(const std::string& message) const { std::fprintf(stderr, "%s: %s\n", m_tool, message.c_str()); }

bool WildMatch(const std::string& text, const std::string& pattern, bool ignoreCase)
{
    auto same = [ignoreCase](char a, char b) {
        return ignoreCase ? std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b))
                          : a == b;
    };
    size_t t = 0, p = 0, star = std::string::npos, resume = 0;
    while (t < text.size())
    {
        if (p < pattern.size() && pattern[p] == '*')
        {
            star = p++;
            resume = t;
        }
        else if (p < pattern.size() && (pattern[p] == '?' || same(pattern[p], text[t])))
        {
            ++p;
            ++t;
        }
        else if (star != std::string::npos)
        {
            // Back to the last star, which now takes one more character.
            p = star + 1;
            t = ++resume;
        }
        else
            return false;
    }
    while (p < pattern.size() && pattern[p] == '*')
        ++p;
    return p == pattern.size();
}

std::string HumanBytes(uint64_t bytes)
{
    char text[32];
    if (bytes < 1024)
        std::snprintf(text, sizeof text, "%llu bytes", static_cast<unsigned long long>(bytes));
    else if (bytes < (1ull << 20))
        std::snprintf(text, sizeof text, "%.1f KiB", double(bytes) / 1024.0);
    else if (bytes < (1ull << 30))
        std::snprintf(text, sizeof text, "%.1f MiB", double(bytes) / double(1ull << 20));
    else
        std::snprintf(text, sizeof text, "%.2f GiB", double(bytes) / double(1ull << 30));
    return text;
}

ProgressLine::ProgressLine(const char* verb) : m_verb(verb), m_enabled(::isatty(STDERR_FILENO) == 1) {}

ProgressLine::~ProgressLine()
{
    if (m_shown)
        std::fprintf(stderr, "\r\033[K");
}

void ProgressLine::Update(uint64_t done, uint64_t total, const std::string& item)
{
    if (!m_enabled || total < kMinimum)
        return;
    if (done > total)
        done = total;
    unsigned permille = unsigned(done * 1000 / total);
    if (permille == m_lastPermille)
        return;
    m_lastPermille = permille;
    std::fprintf(stderr, "\r\033[K%s: %3u%%  %s of %s  %.40s", m_verb, permille / 10, HumanBytes(done).c_str(),
                 HumanBytes(total).c_str(), item.c_str());
    std::fflush(stderr);
    m_shown = true;
}

} // namespace KovexTools
