#include "logging/LogInternal.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <optional>

namespace nimbrel::logdetail {

namespace {

// Widths and precisions are capped so that no format can ask for gigabytes of padding.
constexpr int kMaxFieldSize = 65535;

struct Directive
{
    unsigned flags = 0; // bits numbered as in kFlagChars
    bool widthFromArgument = false;
    int width = -1;
    bool precisionFromArgument = false;
    int precision = -1;
    int shortLength = 0; // 1 for "h", 2 for "hh": integers are narrowed as printf does
    char conversion = 0;
    size_t end = 0; // index just past the directive
};

constexpr std::string_view kFlagChars = "-+ #0'";
constexpr unsigned kLeftAlign = 1;

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

// Switches rather than string searches: this runs for every directive of every line.
int flagIndex(char c)
{
    switch (c) {
    case '-':
        return 0;
    case '+':
        return 1;
    case ' ':
        return 2;
    case '#':
        return 3;
    case '0':
        return 4;
    case '\'':
        return 5;
    default:
        return -1;
    }
}

bool isConversion(char c)
{
    switch (c) {
    case 'd':
    case 'i':
    case 'u':
    case 'o':
    case 'x':
    case 'X':
    case 'c':
    case 's':
    case 'f':
    case 'F':
    case 'e':
    case 'E':
    case 'g':
    case 'G':
    case 'a':
    case 'A':
    case 'p':
    case '@':
        return true;
    default:
        return false;
    }
}

int parseNumber(std::string_view f, size_t& i)
{
    int value = 0;
    while (i < f.size() && isDigit(f[i])) {
        value = std::min(value * 10 + (f[i] - '0'), kMaxFieldSize);
        ++i;
    }
    return value;
}

// Parses the directive whose '%' is at `start`; nothing when it is not a complete known directive.
std::optional<Directive> parseDirective(std::string_view f, size_t start)
{
    Directive d;
    size_t i = start + 1;
    for (int flag; i < f.size() && (flag = flagIndex(f[i])) >= 0; ++i)
        d.flags |= 1u << flag;
    if (i < f.size() && f[i] == '*') {
        d.widthFromArgument = true;
        ++i;
    } else if (i < f.size() && isDigit(f[i])) {
        d.width = parseNumber(f, i);
    }
    if (i < f.size() && f[i] == '.') {
        ++i;
        if (i < f.size() && f[i] == '*') {
            d.precisionFromArgument = true;
            ++i;
        } else {
            d.precision = parseNumber(f, i);
        }
    }
    if (i < f.size() && f[i] == 'h') {
        ++i;
        d.shortLength = 1;
        if (i < f.size() && f[i] == 'h') {
            ++i;
            d.shortLength = 2;
        }
    } else if (i < f.size() && f[i] == 'l') {
        ++i;
        if (i < f.size() && f[i] == 'l')
            ++i;
    } else if (i < f.size() && (f[i] == 'j' || f[i] == 'z' || f[i] == 't' || f[i] == 'q' || f[i] == 'L')) {
        ++i;
    }
    if (i >= f.size() || !isConversion(f[i]))
        return std::nullopt;
    d.conversion = f[i];
    d.end = i + 1;
    return d;
}

const std::string* stringOf(const LogArgument& a)
{
    return std::get_if<std::string>(&a);
}

long long toSigned(const LogArgument& a)
{
    if (auto v = std::get_if<long long>(&a))
        return *v;
    if (auto v = std::get_if<unsigned long long>(&a))
        return static_cast<long long>(*v);
    if (auto v = std::get_if<double>(&a)) {
        if (std::isnan(*v))
            return 0;
        if (*v >= 9.2e18)
            return LLONG_MAX;
        if (*v <= -9.2e18)
            return LLONG_MIN;
        return static_cast<long long>(*v);
    }
    if (auto v = std::get_if<const void*>(&a))
        return static_cast<long long>(reinterpret_cast<uintptr_t>(*v));
    return 0;
}

unsigned long long toUnsigned(const LogArgument& a)
{
    if (auto v = std::get_if<unsigned long long>(&a))
        return *v;
    if (auto v = std::get_if<double>(&a); v && *v >= 1.8e19)
        return ULLONG_MAX;
    return static_cast<unsigned long long>(toSigned(a));
}

double toDouble(const LogArgument& a)
{
    if (auto v = std::get_if<double>(&a))
        return *v;
    if (auto v = std::get_if<unsigned long long>(&a))
        return static_cast<double>(*v);
    return static_cast<double>(toSigned(a));
}

void appendPadded(std::string& out, std::string_view s, const Directive& d)
{
    if (d.precision >= 0 && s.size() > static_cast<size_t>(d.precision))
        s = s.substr(0, static_cast<size_t>(d.precision));
    const size_t pad = d.width > 0 && static_cast<size_t>(d.width) > s.size() ? d.width - s.size() : 0;
    if (!(d.flags & kLeftAlign))
        out.append(pad, ' ');
    out.append(s);
    if (d.flags & kLeftAlign)
        out.append(pad, ' ');
}

template <class T> void appendChars(std::string& out, T value)
{
    char buffer[32];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    out.append(buffer, result.ptr);
}

// Formats one value with snprintf, rebuilding the directive from its parsed parts.
template <class T> void appendPrintf(std::string& out, const Directive& d, const char* length, T value)
{
    char pattern[32];
    char* p = pattern;
    *p++ = '%';
    for (size_t i = 0; i < kFlagChars.size(); ++i)
        if (d.flags & (1u << i))
            *p++ = kFlagChars[i];
    if (d.width >= 0)
        p = std::to_chars(p, pattern + 16, d.width).ptr;
    if (d.precision >= 0) {
        *p++ = '.';
        p = std::to_chars(p, pattern + 24, d.precision).ptr;
    }
    while (*length)
        *p++ = *length++;
    *p++ = d.conversion;
    *p = '\0';

    char buffer[128];
    const int n = std::snprintf(buffer, sizeof buffer, pattern, value);
    if (n < 0)
        return;
    if (static_cast<size_t>(n) < sizeof buffer) {
        out.append(buffer, static_cast<size_t>(n));
        return;
    }
    const size_t old = out.size();
    out.resize(old + static_cast<size_t>(n) + 1);
    std::snprintf(out.data() + old, static_cast<size_t>(n) + 1, pattern, value);
    out.resize(old + static_cast<size_t>(n));
}

// What "%@" (or "%s") shows for an argument that is not a string.
void appendDescription(std::string& out, const LogArgument& a, const Directive& d)
{
    std::string text;
    if (auto v = std::get_if<const void*>(&a)) {
        char buffer[32];
        const int n = std::snprintf(buffer, sizeof buffer, "%p", *v);
        text.assign(buffer, n > 0 ? static_cast<size_t>(n) : 0);
    } else if (auto v = std::get_if<double>(&a)) {
        appendChars(text, *v);
    } else if (auto v = std::get_if<unsigned long long>(&a)) {
        appendChars(text, *v);
    } else {
        appendChars(text, toSigned(a));
    }
    appendPadded(out, text, d);
}

void appendCharacter(std::string& out, long long c, const Directive& d)
{
    std::string text;
    if (c >= -128 && c <= 255) {
        text.push_back(static_cast<char>(c)); // a byte, as printf writes it
    } else if (c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF) || c < 0) {
        text = "\xEF\xBF\xBD"; // U+FFFD
    } else if (c < 0x800) {
        text += static_cast<char>(0xC0 | (c >> 6));
        text += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        text += static_cast<char>(0xE0 | (c >> 12));
        text += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        text += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        text += static_cast<char>(0xF0 | (c >> 18));
        text += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        text += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        text += static_cast<char>(0x80 | (c & 0x3F));
    }
    Directive noPrecision = d;
    noPrecision.precision = -1;
    appendPadded(out, text, noPrecision);
}

void appendArgument(std::string& out, Directive d, const LogArgument& a)
{
    const std::string* s = stringOf(a);
    switch (d.conversion) {
    case 's':
    case '@':
        if (s)
            appendPadded(out, *s, d);
        else
            appendDescription(out, a, d);
        return;
    case 'c':
        if (s)
            appendPadded(out, *s, d);
        else
            appendCharacter(out, toSigned(a), d);
        return;
    default:
        break;
    }
    if (s) { // a string given for a number: show the string
        appendPadded(out, *s, d);
        return;
    }
    switch (d.conversion) {
    case 'd':
    case 'i': {
        long long v = toSigned(a);
        if (d.shortLength == 1)
            v = static_cast<short>(v);
        else if (d.shortLength == 2)
            v = static_cast<signed char>(v);
        appendPrintf(out, d, "ll", v);
        return;
    }
    case 'u':
    case 'o':
    case 'x':
    case 'X': {
        unsigned long long v = toUnsigned(a);
        if (d.shortLength == 1)
            v = static_cast<unsigned short>(v);
        else if (d.shortLength == 2)
            v = static_cast<unsigned char>(v);
        appendPrintf(out, d, "ll", v);
        return;
    }
    case 'p': {
        const void* v = std::holds_alternative<const void*>(a)
                            ? std::get<const void*>(a)
                            : reinterpret_cast<const void*>(static_cast<uintptr_t>(toUnsigned(a)));
        appendPrintf(out, d, "", v);
        return;
    }
    default: // the floating-point conversions
        appendPrintf(out, d, "", toDouble(a));
        return;
    }
}

} // namespace

void appendFormatted(std::string& out, std::string_view f, const std::vector<LogArgument>& arguments)
{
    size_t next = 0; // the next unused argument
    size_t i = 0;
    while (i < f.size()) {
        // A plain loop: the runs between directives are short, too short for memchr to pay off.
        size_t percent = i;
        while (percent < f.size() && f[percent] != '%')
            ++percent;
        if (percent == f.size()) {
            out.append(f.substr(i));
            return;
        }
        out.append(f.substr(i, percent - i));
        if (percent + 1 < f.size() && f[percent + 1] == '%') {
            out.push_back('%');
            i = percent + 2;
            continue;
        }
        std::optional<Directive> d = parseDirective(f, percent);
        const size_t needed = d ? 1 + d->widthFromArgument + d->precisionFromArgument : 0;
        if (!d || arguments.size() - next < needed) {
            // Copied as it stands: the '%' now, what follows as ordinary text.
            out.push_back('%');
            i = percent + 1;
            continue;
        }
        if (d->widthFromArgument) {
            const long long w =
                std::clamp<long long>(toSigned(arguments[next++]), -kMaxFieldSize, kMaxFieldSize);
            if (w < 0)
                d->flags |= kLeftAlign;
            d->width = static_cast<int>(w < 0 ? -w : w);
        }
        if (d->precisionFromArgument) {
            const long long p = toSigned(arguments[next++]);
            d->precision = p < 0 ? -1 : static_cast<int>(std::min<long long>(p, kMaxFieldSize));
        }
        const LogArgument& a = arguments[next++];
        const bool plain = d->flags == 0 && d->width < 0 && d->precision < 0 && d->shortLength == 0;
        if (plain && (d->conversion == 'd' || d->conversion == 'i') && std::holds_alternative<long long>(a))
            appendChars(out, std::get<long long>(a));
        else if (plain && (d->conversion == '@' || d->conversion == 's') && stringOf(a))
            out.append(*stringOf(a));
        else
            appendArgument(out, *d, a);
        i = d->end;
    }
}

bool needsEscaping(std::string_view message)
{
    if (message.size() > kMaxMessageBytes)
        return true;
    for (const char byte : message) {
        const auto c = static_cast<unsigned char>(byte);
        if (c < 0x20 || c == 0x7F || c == 0xC2) // 0xC2 may begin a C1 control
            return true;
    }
    return false;
}

void appendEscapedMessage(std::string& out, std::string_view message)
{
    static constexpr char kHex[] = "0123456789ABCDEF";
    const auto byteAt = [&message](size_t i) { return static_cast<unsigned char>(message[i]); };
    const size_t start = out.size();
    size_t i = 0;
    while (i < message.size()) {
        const unsigned char c = byteAt(i);
        // How many bytes the character takes here, and how many it takes written. A C1 control is
        // U+0080..U+009F: 0xC2 followed by 0x80..0x9F in UTF-8.
        // A malformed sequence counts byte by byte, so no newline ever hides inside one.
        size_t length = c < 0xC0 ? 1 : c < 0xE0 ? 2 : c < 0xF0 ? 3 : 4;
        for (size_t k = 1; k < length; ++k) {
            if (i + k >= message.size() || (byteAt(i + k) & 0xC0) != 0x80) {
                length = 1;
                break;
            }
        }
        const bool control = c < 0x20 || c == 0x7F || (c == 0xC2 && length == 2 && byteAt(i + 1) < 0xA0);
        const size_t written = c == '\n' ? 2 : control ? 4 * length : length;
        if (out.size() - start + written > kMaxMessageBytes)
            break;
        if (c == '\n') {
            out.append("\\n");
        } else if (control) {
            for (size_t k = i; k < i + length; ++k) {
                out.append("\\x");
                out.push_back(kHex[byteAt(k) >> 4]);
                out.push_back(kHex[byteAt(k) & 0xF]);
            }
        } else {
            out.append(message.substr(i, length));
        }
        i += length;
    }
    if (i < message.size()) {
        out.append(" [\u2026 ");
        out.append(std::to_string(message.size() - i));
        out.append(" more bytes]");
    }
}

void appendLogDate(std::string& out, double seconds)
{
    if (!std::isfinite(seconds) || seconds < -1e15 || seconds > 1e15)
        seconds = 0;
    const double whole = std::floor(seconds);
    const long long second = static_cast<long long>(whole);
    // A tenth of a microsecond absorbs the rounding of a double near 1.7e9 (x.125 must stay 125).
    const int millisecond = std::clamp(static_cast<int>((seconds - whole) * 1000.0 + 1e-4), 0, 999);

    // Local time changes only with the second: the formatted part is kept for the next lines.
    static long long cachedSecond = LLONG_MIN;
    static char cached[48];
    static size_t cachedSize = 0;
    if (second != cachedSecond) {
        const time_t t = static_cast<time_t>(second);
        struct tm local = {};
        localtime_r(&t, &local);
        const int n =
            std::snprintf(cached, sizeof cached, "%04d-%02d-%02d %02d:%02d:%02d", local.tm_year + 1900,
                          local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
        cachedSize = n > 0 ? std::min(static_cast<size_t>(n), sizeof cached - 1) : 0;
        cachedSecond = second;
    }
    char tail[4] = {'.', static_cast<char>('0' + millisecond / 100),
                    static_cast<char>('0' + millisecond / 10 % 10),
                    static_cast<char>('0' + millisecond % 10)};
    out.append(cached, cachedSize);
    out.append(tail, sizeof tail);
}

std::string rotatedLogNameDate(long long seconds)
{
    static constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                              "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const time_t t = static_cast<time_t>(seconds);
    struct tm local = {};
    localtime_r(&t, &local);
    char buffer[64];
    const int n = std::snprintf(buffer, sizeof buffer, " %s %2d, %02d.%02d.%02d", kMonths[local.tm_mon % 12],
                                local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    return std::string(buffer, n > 0 ? static_cast<size_t>(n) : 0);
}

} // namespace nimbrel::logdetail
