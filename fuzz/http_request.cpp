// The frame server's request parser, fed whatever bytes a client could send, cut where a read
// could stop: it must answer Incomplete, Complete or a 4xx/5xx, never crash. A Complete head lies
// inside what it was given, its fields point into it (an absolute target without a path stands
// for "/"), and every shorter cut of that head is still Incomplete: the serving loop parses after
// each read, so an early verdict would refuse a good request that arrived in pieces. A Complete
// head also says which server it is for as the addressing checks need: HTTP/1.1 carries a Host,
// an absolute target yields its authority, and Host, Origin and Content-Type come at most once.
#include "server/http.h"

#include <cstdint>
#include <cstdlib>
#include <string_view>

namespace http = zerlan::server::http;

namespace {

void require(bool condition)
{
    if (!condition)
        std::abort();
}

bool inside(std::string_view field, std::string_view head)
{
    return field.empty() || (field.data() >= head.data() && field.data() + field.size() <= head.data() + head.size());
}

bool named(std::string_view line, std::string_view name)
{
    if (line.size() <= name.size() || line[name.size()] != ':')
        return false;
    for (size_t i = 0; i < name.size(); ++i) {
        if ((line[i] | 0x20) != (name[i] | 0x20))
            return false;
    }
    return true;
}

// Header lines of `head` named `name`, counted apart from the parser.
size_t headerCount(std::string_view head, std::string_view name)
{
    size_t count = 0;
    for (size_t start = head.find('\n'); start != std::string_view::npos; start = head.find('\n', start + 1))
        count += named(head.substr(start + 1), name);
    return count;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string_view bytes(reinterpret_cast<const char *>(data), size);
    for (size_t maxHead : {size_t(64), size_t(8192)}) {
        http::ParseResult result = http::parseRequestHead(bytes, maxHead);
        if (result.state == http::Parse::Error) {
            require(result.status >= 400 && result.status <= 599);
            require(!result.reason.empty());
            continue;
        }
        if (result.state != http::Parse::Complete)
            continue;
        const http::Request &request = result.request;
        require(request.headSize <= bytes.size() && request.headSize <= maxHead);
        std::string_view head = bytes.substr(0, request.headSize);
        for (std::string_view field : {request.method, request.target, request.host, request.origin, request.contentType, request.authority})
            require(inside(field, head));
        require(request.minorVersion == 0 || request.hasHost);
        require(request.absolute == (request.target.starts_with("http://") || request.target.starts_with("https://")));
        if (request.absolute)
            require(request.target.substr(request.target.find("//") + 2).starts_with(request.authority));
        else
            require(request.authority.empty());
        for (std::string_view name : {"Host", "Origin", "Content-Type"})
            require(headerCount(head, name) <= 1);
        // An absolute target with no path ("http://host") stands for "/".
        require(inside(request.path, head) || request.path == "/");
        require(!request.method.empty() && !request.target.empty());

        size_t step = request.headSize <= 256 ? 1 : request.headSize / 16;
        for (size_t cut = 0; cut < request.headSize; cut += step)
            require(http::parseRequestHead(bytes.substr(0, cut), maxHead).state == http::Parse::Incomplete);
        require(http::parseRequestHead(head, maxHead).state == http::Parse::Complete);
    }
    return 0;
}
