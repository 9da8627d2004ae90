#pragma once

#include <clocale>
#include <string>

// Puts the process under a German locale, which writes "0,5" and folds "Ä"
// to "ä", as a GUI toolkit does from the user's environment. A machine
// without that locale gets it built with localedef into a shared temporary
// directory that LOCPATH then points at.
namespace KovexTest {

class DecimalCommaLocale
{
public:
    // The name tests and the CTest locale run use.
    static constexpr const char* kName = "de_DE.UTF-8";

    // Switches the whole process; returns an empty text on success and the
    // reason otherwise.
    static std::string Enter();

    // Sets the locale for the life of the object and restores the one before
    // it; `error` is empty when the switch took place.
    DecimalCommaLocale()
    {
        const char* current = std::setlocale(LC_ALL, nullptr);
        m_previous = current ? current : "C";
        error = Enter();
    }
    ~DecimalCommaLocale() { std::setlocale(LC_ALL, m_previous.c_str()); }
    DecimalCommaLocale(const DecimalCommaLocale&) = delete;
    DecimalCommaLocale& operator=(const DecimalCommaLocale&) = delete;

    std::string error;

private:
    std::string m_previous;
};

} // namespace KovexTest
