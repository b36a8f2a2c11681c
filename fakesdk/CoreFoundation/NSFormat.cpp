// The format engine behind +stringWithFormat:, NSLog and +[NSException raise:format:]: printf's
// conversions plus Foundation's %@ (an object's description), %C/%S (UTF-16) and %D/%U/%O.
// Each C conversion is handed to snprintf alone with its one argument read by its exact type,
// so the va_list is never passed through to a libc function that would consume it differently.
#include "cfinternal.h"

#include <cstdio>
#include <cstring>
#include <cwchar>
#include <sys/types.h>

namespace fakecf {
namespace {

template <typename T>
void appendConversion(std::string &out, const std::string &spec, T value)
{
    char small[128];
    int n = std::snprintf(small, sizeof small, spec.c_str(), value);
    if (n < 0)
        return;
    if (static_cast<size_t>(n) < sizeof small) {
        out.append(small, static_cast<size_t>(n));
        return;
    }
    std::string big(static_cast<size_t>(n) + 1, '\0');
    std::snprintf(big.data(), big.size(), spec.c_str(), value);
    out.append(big.data(), static_cast<size_t>(n));
}

void appendCodePoint(std::string &out, uint32_t cp)
{
    if (cp < 0x80) {
        out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

std::string utf8FromUTF16(const unichar *units)
{
    std::string out;
    if (!units)
        return "(null)";
    for (size_t i = 0; units[i]; ++i) {
        uint32_t cp = units[i];
        if (cp >= 0xD800 && cp <= 0xDBFF && units[i + 1] >= 0xDC00 && units[i + 1] <= 0xDFFF) {
            cp = 0x10000 + ((cp - 0xD800) << 10) + (units[i + 1] - 0xDC00);
            ++i;
        } else if (cp >= 0xD800 && cp <= 0xDFFF) {
            cp = 0xFFFD;
        }
        appendCodePoint(out, cp);
    }
    return out;
}

enum class Length { None, hh, h, l, ll, L, z, t, j };

} // namespace

std::string formatV(const char *format, va_list callerArgs)
{
    std::string out;
    if (!format)
        return out;
    va_list args;
    va_copy(args, callerArgs);
    for (const char *p = format; *p;) {
        if (*p != '%') {
            const char *next = std::strchr(p, '%');
            size_t n = next ? static_cast<size_t>(next - p) : std::strlen(p);
            out.append(p, n);
            p += n;
            continue;
        }
        const char *start = p++;
        std::string flags;
        while (*p && std::strchr("-+ #0'", *p))
            flags.push_back(*p++);
        std::string width;
        if (*p == '*') {
            int w = va_arg(args, int);
            if (w < 0) {
                flags.push_back('-');
                w = -w;
            }
            width = std::to_string(w);
            ++p;
        } else {
            while (*p >= '0' && *p <= '9')
                width.push_back(*p++);
        }
        std::string precision;
        if (*p == '.') {
            ++p;
            if (*p == '*') {
                int prec = va_arg(args, int);
                if (prec >= 0)
                    precision = "." + std::to_string(prec);
                ++p;
            } else {
                precision = ".";
                while (*p >= '0' && *p <= '9')
                    precision.push_back(*p++);
            }
        }
        Length length = Length::None;
        if (p[0] == 'h' && p[1] == 'h') {
            length = Length::hh;
            p += 2;
        } else if (p[0] == 'l' && p[1] == 'l') {
            length = Length::ll;
            p += 2;
        } else if (*p == 'h') {
            length = Length::h;
            ++p;
        } else if (*p == 'l') {
            length = Length::l;
            ++p;
        } else if (*p == 'q') {
            length = Length::ll;
            ++p;
        } else if (*p == 'L') {
            length = Length::L;
            ++p;
        } else if (*p == 'z') {
            length = Length::z;
            ++p;
        } else if (*p == 't') {
            length = Length::t;
            ++p;
        } else if (*p == 'j') {
            length = Length::j;
            ++p;
        }
        char conv = *p;
        if (!conv) {
            out.append(start);
            break;
        }
        ++p;
        // Foundation's aliases for the long conversions.
        if (conv == 'D' || conv == 'U' || conv == 'O') {
            length = Length::l;
            conv = conv == 'D' ? 'd' : conv == 'U' ? 'u' : 'o';
        }
        std::string base = "%" + flags + width + precision;
        auto lengthText = [&]() -> const char * {
            switch (length) {
            case Length::hh:
                return "hh";
            case Length::h:
                return "h";
            case Length::l:
                return "l";
            case Length::ll:
            case Length::L:
                return "ll";
            case Length::z:
                return "z";
            case Length::t:
                return "t";
            case Length::j:
                return "j";
            default:
                return "";
            }
        };
        switch (conv) {
        case '%':
            out.push_back('%');
            break;
        case 'd':
        case 'i': {
            std::string spec = base + lengthText() + conv;
            switch (length) {
            case Length::l:
                appendConversion(out, spec, va_arg(args, long));
                break;
            case Length::ll:
            case Length::L:
                appendConversion(out, spec, va_arg(args, long long));
                break;
            case Length::z:
                appendConversion(out, spec, va_arg(args, ssize_t));
                break;
            case Length::t:
                appendConversion(out, spec, va_arg(args, ptrdiff_t));
                break;
            case Length::j:
                appendConversion(out, spec, va_arg(args, intmax_t));
                break;
            default:
                appendConversion(out, spec, va_arg(args, int));
                break;
            }
            break;
        }
        case 'o':
        case 'u':
        case 'x':
        case 'X': {
            std::string spec = base + lengthText() + conv;
            switch (length) {
            case Length::l:
                appendConversion(out, spec, va_arg(args, unsigned long));
                break;
            case Length::ll:
            case Length::L:
                appendConversion(out, spec, va_arg(args, unsigned long long));
                break;
            case Length::z:
                appendConversion(out, spec, va_arg(args, size_t));
                break;
            case Length::t:
                appendConversion(out, spec, va_arg(args, ptrdiff_t));
                break;
            case Length::j:
                appendConversion(out, spec, va_arg(args, uintmax_t));
                break;
            default:
                appendConversion(out, spec, va_arg(args, unsigned int));
                break;
            }
            break;
        }
        case 'f':
        case 'F':
        case 'e':
        case 'E':
        case 'g':
        case 'G':
        case 'a':
        case 'A':
            if (length == Length::L)
                appendConversion(out, base + "L" + conv, va_arg(args, long double));
            else
                appendConversion(out, base + conv, va_arg(args, double));
            break;
        case 'c':
            if (length == Length::l)
                appendConversion(out, base + "lc", va_arg(args, wint_t));
            else
                appendConversion(out, base + "c", va_arg(args, int));
            break;
        case 'C': {
            std::string text;
            appendCodePoint(text, static_cast<unichar>(va_arg(args, int)));
            appendConversion(out, base + "s", text.c_str());
            break;
        }
        case 's':
            if (length == Length::l) {
                appendConversion(out, base + "ls", va_arg(args, const wchar_t *));
            } else {
                const char *text = va_arg(args, const char *);
                appendConversion(out, base + "s", text ? text : "(null)");
            }
            break;
        case 'S':
            appendConversion(out, base + "s", utf8FromUTF16(va_arg(args, const unichar *)).c_str());
            break;
        case 'p':
            appendConversion(out, base + "p", va_arg(args, void *));
            break;
        case '@': {
            std::string text = describe(va_arg(args, id));
            appendConversion(out, base + "s", text.c_str());
            break;
        }
        case 'n':
            // Writing through a caller's pointer from a log line is never wanted: consumed, ignored.
            (void)va_arg(args, void *);
            break;
        default:
            out.append(start, static_cast<size_t>(p - start));
            break;
        }
    }
    va_end(args);
    return out;
}

} // namespace fakecf
