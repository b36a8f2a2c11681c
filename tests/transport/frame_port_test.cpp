// Which ZERLAN_FRAME_PORT values name a port: the boundaries on both sides, and what a shell
// or a typo can put in the variable. And the setting's lifetime: exit() does not end it.
#include "transport/FramePort.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <unistd.h>

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

namespace {

// Long enough to live outside any string's inline storage.
constexpr char kIgnored[] = "not a port, and far too long to fit inside a string object";

// Registered before the setting is first read, so it runs after whatever exit-time destructors
// the setting registered: the position of a poll cycle that still fetches while exit() runs.
void readSettingLate()
{
    const char *ignored = zerlan::transport::ignoredFramePort();
    bool intact = ignored && std::strcmp(ignored, kIgnored) == 0 && ZerlanFramePort() == 47654;
    std::fputs(intact ? "setting intact\n" : "setting destroyed\n", stderr);
    _exit(intact ? 0 : 3);
}

} // namespace

TEST(FramePortDeathTest, TheSettingOutlivesExit)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            setenv("ZERLAN_FRAME_PORT", kIgnored, 1);
            std::atexit(readSettingLate);
            ZerlanFramePort();
            std::exit(1);
        },
        ::testing::ExitedWithCode(0), "setting intact");
}
