// Message formats: printf directives, "%@", and formats that must not fail.
#include "logging/LogInternal.h"

#include <climits>
#include <gtest/gtest.h>

namespace nimbrel::test {
namespace {

struct FormatCase
{
    const char* format;
    std::vector<LogArgument> arguments;
    std::string expected;
};

std::string format(std::string_view f, const std::vector<LogArgument>& arguments)
{
    std::string out;
    logdetail::appendFormatted(out, f, arguments);
    return out;
}

TEST(LogFormat, Directives)
{
    using A = std::vector<LogArgument>;
    const std::vector<FormatCase> cases = {
        {"%d %ld %s %%", A{42LL, 7LL, std::string("x")}, "42 7 x %"},
        {"%i|%u|%llu", A{-3LL, 4ULL, ULLONG_MAX}, "-3|4|18446744073709551615"},
        {"%5d|%-5d|%05.1f|%+d", A{42LL, 42LL, 3.14159, 5LL}, "   42|42   |003.1|+5"},
        {"%x %X %o %#x", A{255LL, 255ULL, 8LL, 16LL}, "ff FF 10 0x10"},
        {"%*d|%-*s|%.*s", A{4LL, 7LL, 3LL, std::string("ab"), 2LL, std::string("abcdef")}, "   7|ab |ab"},
        {"%*d", A{-4LL, 7LL}, "7   "},
        {"%hhd %hu", A{300LL, 70000LL}, "44 4464"},
        {"%.3s|%6@|%-4@|", A{std::string("abcdef"), std::string("r"), std::string("l")}, "abc|     r|l   |"},
        {"%c%c%lc", A{65LL, 66LL, 0x20ACLL}, "AB\xE2\x82\xAC"},
        {"%@ %@ %@ %s", A{3.5, 12LL, 18ULL, -1LL}, "3.5 12 18 -1"},
        {"%d|%f", A{std::string("text"), std::string("more")}, "text|more"},
        {"%.2f %g %e", A{2LL, 0.5, 1500.0}, "2.00 0.5 1.500000e+03"},
        {"%d", A{1e300}, "9223372036854775807"},
        {"%p", A{static_cast<const void*>(nullptr)}, "(nil)"},
    };
    for (const FormatCase& c : cases)
        EXPECT_EQ(format(c.format, c.arguments), c.expected) << c.format;
}

TEST(LogFormat, DirectivesWithoutArgumentsStayAsWritten)
{
    using A = std::vector<LogArgument>;
    const std::vector<FormatCase> cases = {
        {"100% sure %d %s %@ %5.2f %-*d %", A{}, "100% sure %d %s %@ %5.2f %-*d %"},
        {"%d and %d", A{1LL}, "1 and %d"},
        {"%*d", A{5LL}, "%*d"},
        {"%n %d", A{5LL}, "%n 5"},                  // never a write through an argument
        {"%y %hq %lv %5", A{1LL}, "%y %hq %lv %5"}, // unknown conversions use no argument
        {"%%d", A{1LL}, "%d"},
        {"", A{1LL}, ""},
    };
    for (const FormatCase& c : cases)
        EXPECT_EQ(format(c.format, c.arguments), c.expected) << c.format;
}

TEST(LogFormat, HugeFieldsAreCapped)
{
    EXPECT_EQ(format("%999999999999d", {1LL}).size(), 65535u);
    EXPECT_EQ(format("%.99999999f", {1.0}).size(), 65537u);
    EXPECT_EQ(format("%*s", {LLONG_MIN, std::string("x")}).size(), 65535u);
}

TEST(LogFormat, RotatedNameDate)
{
    qputenv("TZ", "UTC0");
    tzset();
    EXPECT_EQ(logdetail::rotatedLogNameDate(1709544413), " Mar  4, 09.26.53");
    EXPECT_EQ(logdetail::rotatedLogNameDate(1700000000), " Nov 14, 22.13.20");
    qunsetenv("TZ");
    tzset();
}

} // namespace
} // namespace nimbrel::test
