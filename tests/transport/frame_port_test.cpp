// Which ZERLAN_FRAME_PORT values name a port: the boundaries on both sides, and what a shell
// or a typo can put in the variable.
#include "transport/FramePort.h"

#include <gtest/gtest.h>

#include <optional>

using zerlan::transport::parseFramePort;

TEST(FramePort, OnlyDecimalPortsFrom1To65535)
{
    struct Case {
        const char *value;
        std::optional<uint16_t> port;
    };
    const Case cases[] = {
        {"47654", 47654}, {"1", 1},         {"65535", 65535},   {"0", std::nullopt},
        {"65536", std::nullopt}, {"0080", 80}, {"99999999999999999999", std::nullopt},
        {"", std::nullopt}, {nullptr, std::nullopt}, {" 8080", std::nullopt},
        {"8080 ", std::nullopt}, {"+8080", std::nullopt}, {"-1", std::nullopt},
        {"80x", std::nullopt}, {"0x50", std::nullopt}, {"port", std::nullopt},
    };
    for (const Case &c : cases)
        EXPECT_EQ(parseFramePort(c.value), c.port) << (c.value ? c.value : "(null)");
}
