#pragma once

// What every kovex-* tool shares on its command line: options before or after
// the operands ("--" ends them), --help on standard output with exit 0,
// --version, a usage error with exit 2, failures with exit 1, and progress
// that appears only on a terminal.

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace KovexTools {

enum ExitCode
{
    kExitSuccess = 0,
    kExitFailure = 1,
    kExitUsage = 2,
};

// The paragraph every tool's help ends with.
extern const char* const kExitStatusHelp;

class CommandLine
{
public:
    // `help` is printed as it stands by --help; it should start with the
    // usage lines and end with kExitStatusHelp.
    CommandLine(const char* tool, std::string help);

    // An option known by a short letter (0 for none) and a long name (null for
    // none); one that takes a value reads it from the next argument, or from
    // "-zVALUE" and "--name=VALUE".
    void Add(char shortName, const char* longName, bool takesValue);

    // Returns -1 when the tool should go on, else the exit status to return
    // at once: 0 after --help or --version, 2 after a usage error (already
    // reported).
    int Parse(int argc, char** argv);

    // `name` is the long name, or the short letter for options without one.
    bool Has(const char* name) const;
    std::string Value(const char* name, const std::string& fallback = std::string()) const;
    std::vector<std::string> Values(const char* name) const;
    const std::vector<std::string>& Operands() const { return m_operands; }

    // The whole of a file, or of standard input for "-". False, after
    // saying why (missing, a directory, unreadable, over `limit` bytes).
    bool ReadInput(const std::string& path, std::string& out, uint64_t limit = UINT64_MAX) const;

    // "tool: message" on standard error; return the matching exit status.
    int Fail(const std::string& message) const;
    int UsageError(const std::string& message) const;
    void Warn(const std::string& message) const;
    const char* Tool() const { return m_tool; }

private:
    struct OptionDef
    {
        char shortName;
        std::string longName;
        bool takesValue;
    };
    struct Given
    {
        const OptionDef* def;
        std::string value;
    };
    const OptionDef* FindShort(char letter) const;
    const OptionDef* FindLong(const std::string& name) const;
    static std::string KeyOf(const OptionDef& def);

    const char* m_tool;
    std::string m_help;
    std::vector<OptionDef> m_defs;
    std::vector<Given> m_given;
    std::vector<std::string> m_operands;
};

// Shell-style wildcard match of the whole text: '*' any run, '?' any one
// character.
bool WildMatch(const std::string& text, const std::string& pattern, bool ignoreCase);

// Sizes for people: "512 bytes", "1.5 KiB", "27.1 MiB".
std::string HumanBytes(uint64_t bytes);

// One line of progress on standard error, redrawn in place, by bytes. It shows
// nothing unless standard error is a terminal, and nothing for jobs under
// kMinimum bytes, which end before it could be read.
class ProgressLine
{
public:
    explicit ProgressLine(const char* verb);
    ~ProgressLine();
    void Update(uint64_t done, uint64_t total, const std::string& item);
    static constexpr uint64_t kMinimum = 1u << 20;

private:
    const char* m_verb;
    bool m_enabled;
    bool m_shown = false;
    unsigned m_lastPermille = ~0u;
};

} // namespace KovexTools
