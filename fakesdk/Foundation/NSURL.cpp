// NSURL for file URLs and absolute URL strings: the text is kept percent-encoded, -path decodes.
// A file URL of an existing directory ends with a slash, as +fileURLWithPath: makes it on Apple's
// platforms.
#include "CoreFoundation/cfinternal.h"

#include <cctype>
#include <climits>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using fakecf::autoString;
using fakecf::utf8Of;

struct URLState {
    std::string text;
};

fakeobjc::StateSlot<URLState> gSlot;

bool isUnreserved(unsigned char c)
{
    return std::isalnum(c) || std::strchr("-._~", c);
}

// Characters a path keeps unescaped (RFC 3986 pchar plus '/').
std::string encodePath(const std::string &path)
{
    static const char hex[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : path) {
        if (isUnreserved(c) || std::strchr("!$&'()*+,;=:@/", c)) {
            out.push_back(static_cast<char>(c));
        } else {
            out.push_back('%');
            out.push_back(hex[c >> 4]);
            out.push_back(hex[c & 0xF]);
        }
    }
    return out;
}

std::string decode(const std::string &text)
{
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() && std::isxdigit(static_cast<unsigned char>(text[i + 1])) &&
            std::isxdigit(static_cast<unsigned char>(text[i + 2]))) {
            out.push_back(static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16)));
            i += 2;
        } else {
            out.push_back(text[i]);
        }
    }
    return out;
}

// RFC 3986's characters, with every '%' starting a two-digit escape.
bool isValidURLText(const std::string &text)
{
    if (text.empty())
        return false;
    for (size_t i = 0; i < text.size(); ++i) {
        auto c = static_cast<unsigned char>(text[i]);
        if (c == '%') {
            if (i + 2 >= text.size() || !std::isxdigit(static_cast<unsigned char>(text[i + 1])) ||
                !std::isxdigit(static_cast<unsigned char>(text[i + 2])))
                return false;
            continue;
        }
        if (!(isUnreserved(c) || std::strchr(":/?#[]@!$&'()*+,;=", c)))
            return false;
    }
    return true;
}

struct Parts {
    std::string scheme;
    std::string host;
    std::string path;
};

Parts partsOf(const std::string &text)
{
    Parts parts;
    size_t colon = text.find(':');
    size_t rest = 0;
    if (colon != std::string::npos && colon > 0 && std::isalpha(static_cast<unsigned char>(text[0])) &&
        text.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789+.-") >= colon) {
        parts.scheme = text.substr(0, colon);
        rest = colon + 1;
    }
    if (text.compare(rest, 2, "//") == 0) {
        size_t hostEnd = text.find_first_of("/?#", rest + 2);
        std::string authority = text.substr(rest + 2, hostEnd == std::string::npos ? std::string::npos : hostEnd - rest - 2);
        size_t at = authority.rfind('@');
        parts.host = at == std::string::npos ? authority : authority.substr(at + 1);
        size_t port = parts.host.rfind(':');
        if (port != std::string::npos && parts.host.find(']') == std::string::npos)
            parts.host.resize(port);
        rest = hostEnd == std::string::npos ? text.size() : hostEnd;
    }
    size_t pathEnd = text.find_first_of("?#", rest);
    parts.path = text.substr(rest, pathEnd == std::string::npos ? std::string::npos : pathEnd - rest);
    return parts;
}

id newURL(Class cls, std::string text)
{
    id obj = class_createInstance(cls, 0);
    gSlot.get(obj).text = std::move(text);
    return obj;
}

std::string fileURLText(std::string path, int isDirectory)
{
    if (path.empty() || path[0] != '/') {
        char cwd[PATH_MAX];
        std::string base = getcwd(cwd, sizeof cwd) ? cwd : "/";
        path = base + (path.empty() ? "" : "/" + path);
    }
    if (isDirectory < 0) {
        struct stat info {};
        isDirectory = ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
    }
    if (isDirectory && path.back() != '/')
        path.push_back('/');
    return "file://" + encodePath(path);
}

id fileURL(id self, SEL cmd, id path, int isDirectory)
{
    if (!path)
        fakeobjc::raiseFormat("NSInvalidArgumentException", "*** -[NSURL initFileURLWithPath:]: nil string parameter");
    return objc_autorelease(newURL(reinterpret_cast<Class>(self), fileURLText(utf8Of(path), isDirectory)));
}

id fileURLWithPath(id self, SEL cmd, id path)
{
    return fileURL(self, cmd, path, -1);
}

id fileURLWithPathIsDirectory(id self, SEL cmd, id path, bool isDirectory)
{
    return fileURL(self, cmd, path, isDirectory ? 1 : 0);
}

id urlWithString(id self, SEL, id string)
{
    if (!string)
        return nil;
    std::string text = utf8Of(string);
    if (!isValidURLText(text))
        return nil;
    return objc_autorelease(newURL(reinterpret_cast<Class>(self), text));
}

void dealloc(id self, SEL)
{
    fakeobjc::destroyStateThenSuper(gSlot, "NSURL", self);
}

id absoluteString(id self, SEL)
{
    return autoString(gSlot.get(self).text);
}

std::string pathOf(id self)
{
    std::string path = decode(partsOf(gSlot.get(self).text).path);
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    return path;
}

id path(id self, SEL)
{
    return autoString(pathOf(self));
}

id scheme(id self, SEL)
{
    std::string s = partsOf(gSlot.get(self).text).scheme;
    return s.empty() ? nil : autoString(s);
}

id host(id self, SEL)
{
    std::string h = partsOf(gSlot.get(self).text).host;
    return h.empty() ? nil : autoString(h);
}

bool isFileURL(id self, SEL)
{
    std::string s = partsOf(gSlot.get(self).text).scheme;
    return strcasecmp(s.c_str(), "file") == 0;
}

id lastPathComponent(id self, SEL)
{
    std::string path = pathOf(self);
    if (path.empty())
        return autoString("");
    return fakeobjc::msg<id>(autoString(path), "lastPathComponent");
}

id pathExtension(id self, SEL)
{
    return fakeobjc::msg<id>(autoString(pathOf(self)), "pathExtension");
}

id urlByAppendingPathComponent(id self, SEL, id component)
{
    const std::string &text = gSlot.get(self).text;
    std::string tail = encodePath(utf8Of(component));
    size_t cut = text.find_first_of("?#", partsOf(text).scheme.size());
    std::string head = text.substr(0, cut), query = cut == std::string::npos ? "" : text.substr(cut);
    if (!head.empty() && head.back() != '/')
        head.push_back('/');
    return objc_autorelease(newURL(object_getClass(self), head + tail + query));
}

bool isEqual(id self, SEL, id other)
{
    if (self == other)
        return true;
    if (!other || !fakecf::isKind(other, objc_getClass("NSURL")))
        return false;
    return gSlot.get(self).text == gSlot.get(other).text;
}

unsigned long hash(id self, SEL)
{
    return std::hash<std::string>()(gSlot.get(self).text);
}

id copyWithZone(id self, SEL, void *)
{
    return objc_retain(self);
}

__attribute__((constructor(120))) void declareNSURL()
{
    fakeobjc::ClassDef("NSURL", "NSObject")
        .stateIvar()
        .classMethod("fileURLWithPath:", fileURLWithPath)
        .classMethod("fileURLWithPath:isDirectory:", fileURLWithPathIsDirectory)
        .classMethod("URLWithString:", urlWithString)
        .method("dealloc", dealloc)
        .method("absoluteString", absoluteString)
        .method("description", absoluteString)
        .method("path", path)
        .method("scheme", scheme)
        .method("host", host)
        .method("isFileURL", isFileURL)
        .method("lastPathComponent", lastPathComponent)
        .method("pathExtension", pathExtension)
        .method("URLByAppendingPathComponent:", urlByAppendingPathComponent)
        .method("isEqual:", isEqual)
        .method("hash", hash)
        .method("copyWithZone:", copyWithZone)
        .registerWith(gSlot);
}

} // namespace
