#include "transport/FramePort.h"

#include "transport/FetchJPEG.h"

#include <cstdlib>
#include <string>

namespace zerlan::transport {

namespace {

struct Setting {
    uint16_t port = kFramePort;
    bool ignored = false;
    std::string value;
};

const Setting &setting()
{
    // Read once: an app that changes its environment later does not move the feed. Never
    // destroyed: a poll cycle may still be fetching while exit() runs the destructors of statics.
    static const Setting *read = new Setting([] {
        Setting s;
        const char *value = std::getenv("ZERLAN_FRAME_PORT");
        if (!value)
            return s;
        if (auto port = parseFramePort(value)) {
            s.port = *port;
        } else {
            s.ignored = true;
            s.value = value;
        }
        return s;
    }());
    return *read;
}

} // namespace

std::optional<uint16_t> parseFramePort(const char *value)
{
    if (!value || !*value)
        return std::nullopt;
    unsigned long port = 0;
    for (const char *c = value; *c; ++c) {
        if (*c < '0' || *c > '9')
            return std::nullopt;
        port = port * 10 + static_cast<unsigned long>(*c - '0');
        if (port > 65535)
            return std::nullopt;
    }
    if (port == 0)
        return std::nullopt;
    return static_cast<uint16_t>(port);
}

const char *ignoredFramePort()
{
    const Setting &s = setting();
    return s.ignored ? s.value.c_str() : nullptr;
}

} // namespace zerlan::transport

uint16_t ZerlanFramePort()
{
    return zerlan::transport::setting().port;
}
