// POST /control's body handling on a running server: any bytes give a status or an error,
// never an exception or a crash. Runs in an empty folder so relative paths find nothing.
#include "server/server.h"

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string_view>
#include <unistd.h>

namespace {

zerlan::server::Server &server()
{
    static std::unique_ptr<zerlan::server::Server> running = [] {
        static const auto dir =
            std::filesystem::temp_directory_path() / ("zerlan-fuzz-control-" + std::to_string(getpid()));
        std::filesystem::create_directories(dir);
        std::filesystem::current_path(dir);
        std::atexit([] {
            std::error_code ignored;
            std::filesystem::remove_all(dir, ignored);
        });
        zerlan::server::ServerOptions options;
        options.port = 0;
        options.threads = 1;
        auto started = zerlan::server::Server::start(options, zerlan::server::SourceChoice::pattern(),
                                                     zerlan::server::FrameSettings{}, [](const std::string &) {});
        if (!started)
            std::abort();
        return std::move(started.value());
    }();
    return *running;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    auto result = server().controlBody(std::string_view(reinterpret_cast<const char *>(data), size));
    if (!result && result.error().message.empty())
        std::abort(); // every refusal says why
    return 0;
}
