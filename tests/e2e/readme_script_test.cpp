// The README's UI-test script, run as it stands there: it must keep working as written.
#include "Process.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

using namespace zerlan::testing;
namespace fs = std::filesystem;

namespace {

// The first sh block after the heading, or nothing.
std::string scriptAfter(const std::string &readme, const std::string &heading)
{
    size_t at = readme.find("\n" + heading + "\n");
    if (at == std::string::npos)
        return {};
    // The block that follows the prose, not the JSON example inside the list above it.
    size_t open = readme.find("\n```sh\n", at);
    if (open == std::string::npos)
        return {};
    open += 7;
    size_t close = readme.find("\n```\n", open);
    return close == std::string::npos ? std::string() : readme.substr(open, close - open + 1);
}

// A port nothing listens on, so the script's server needs no lock on 47654.
uint16_t freePort()
{
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
    getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &len);
    close(fd);
    return ntohs(addr.sin_port);
}

TEST(ReadmeScript, TheCameraScenarioScriptRunsAsWritten)
{
    std::ifstream in(fs::path(ZERLAN_SOURCE_DIR) / "README.md");
    std::stringstream text;
    text << in.rdbuf();
    const std::string script = scriptAfter(text.str(), "## Camera scenarios in automated tests");
    ASSERT_NE(script.find("zerlan serve --step"), std::string::npos) << "no script found:\n" << script;

    fs::path dir = fs::temp_directory_path() / ("zerlan-readme-script-" + std::to_string(getpid()));
    fs::create_directories(dir);
    std::ofstream(dir / "scenario.sh") << script;
    // Run in its own folder, so serve.log and app.json land there.
    ProcessResult run = runProcess({"/bin/sh", "-c", "cd \"$0\" && exec /bin/sh ./scenario.sh", dir.string()},
                                   {{"BUILD", fs::absolute(buildDir()).string()},
                                    {"ZERLAN_FRAME_PORT", std::to_string(freePort())},
                                    {"ZERLAN_DEBUG", kUnset},
                                    {"LD_PRELOAD", kUnset}});
    std::ifstream log(dir / "serve.log");
    std::stringstream serveLog;
    serveLog << log.rdbuf();
    EXPECT_EQ(run.status, 0) << run.out << run.err << "\nserve.log:\n" << serveLog.str();
    EXPECT_NE(run.out.find("the app scanned LOGIN-42 and its camera recovered from a stall"), std::string::npos)
        << run.out;
    EXPECT_NE(run.out.find("mode           step"), std::string::npos) << run.out;
    EXPECT_NE(serveLog.str().find("fault on GET /frame: stall for 1 s"), std::string::npos) << serveLog.str();
    fs::remove_all(dir);
}

} // namespace
