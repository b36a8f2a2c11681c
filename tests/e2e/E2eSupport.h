// What the end-to-end tests share: plain HTTP to the frame port, a real `zerlan serve` on it, and
// sample apps run with or without ZerlanInject preloaded.
#pragma once

#include "Process.h"
#include "transport/FetchJPEG.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <regex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace zerlan::e2e {

using namespace zerlan::testing;
using namespace std::chrono_literals;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

inline constexpr uint16_t kFramePort = 47654;

struct HttpAnswer {
    int status = 0; // 0: no answer
    std::string body;
};

// One request to a frame server on loopback, read until the server closes.
inline HttpAnswer http(uint16_t port, const std::string &method, const std::string &path, const std::string &body = {})
{
    HttpAnswer answer;
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    timeval timeout{3, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    if (zerlan::transport::connectLoopback(fd, zerlan::transport::loopbackEndpoint(port))) {
        std::string request = method + " " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n";
        if (!body.empty())
            request += "Content-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) + "\r\n";
        request += "\r\n" + body;
        send(fd, request.data(), request.size(), MSG_NOSIGNAL);
        std::string raw;
        char buffer[8192];
        for (ssize_t n; (n = recv(fd, buffer, sizeof buffer, 0)) > 0;)
            raw.append(buffer, static_cast<size_t>(n));
        size_t headerEnd = raw.find("\r\n\r\n");
        if (std::sscanf(raw.c_str(), "HTTP/1.%*d %d", &answer.status) == 1 && headerEnd != std::string::npos)
            answer.body = raw.substr(headerEnd + 4);
    }
    close(fd);
    return answer;
}

// The same to the frame port.
inline HttpAnswer http(const std::string &method, const std::string &path, const std::string &body = {})
{
    return http(kFramePort, method, path, body);
}

inline bool somethingListens()
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    bool listening = zerlan::transport::connectLoopback(fd, zerlan::transport::loopbackEndpoint(kFramePort));
    close(fd);
    return listening;
}

inline std::string readFile(const fs::path &path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// `zerlan serve` with the options until the test is done (SIGTERM): on the frame port, or on
// port 0 with the port it picked read from its start line.
class FrameServer {
public:
    explicit FrameServer(std::vector<std::string> options, uint16_t port = kFramePort) : port_(port)
    {
        static std::atomic<int> made{0};
        log_ = fs::temp_directory_path()
            / ("zerlan-e2e-serve-" + std::to_string(getpid()) + "-" + std::to_string(made++) + ".log");
        std::vector<std::string> argv{buildDir() + "/bin/zerlan", "serve", "--port", std::to_string(port)};
        argv.insert(argv.end(), options.begin(), options.end());
        pid_ = spawnLogged(argv, log_);
        std::regex listening("listening on http://127\\.0\\.0\\.1:([0-9]+)/");
        waitFor(
            [&] {
                std::smatch m;
                std::string text = log();
                if (port_ == 0 && std::regex_search(text, m, listening))
                    port_ = static_cast<uint16_t>(std::stoi(m[1]));
                return port_ != 0 || pid_ <= 0;
            },
            10s);
    }
    ~FrameServer()
    {
        stop(SIGTERM);
        std::error_code ignored;
        fs::remove(log_, ignored);
    }

    // Whether it serves frames before the deadline (a frame, not just a listening socket).
    bool waitUntilServing()
    {
        bool exited = false;
        waitFor(
            [&] {
                exited = pid_ <= 0 || waitpid(pid_, nullptr, WNOHANG) == pid_;
                return exited || request("GET", "/frame").status == 200;
            },
            10s);
        if (exited)
            pid_ = -1;
        return !exited && request("GET", "/frame").status == 200;
    }

    void stop(int signal) { stopChild(pid_, signal); }
    uint16_t port() const { return port_; }
    std::string log() const { return readFile(log_); }
    HttpAnswer request(const std::string &method, const std::string &path, const std::string &body = {}) const
    {
        return http(port_, method, path, body);
    }
    nlohmann::json status() const { return nlohmann::json::parse(request("GET", "/status").body, nullptr, false); }
    long served() const
    {
        nlohmann::json now = status();
        return now.is_object() ? now.value("frames_served", -1L) : -1;
    }

private:
    pid_t pid_ = -1;
    uint16_t port_;
    fs::path log_;
};

// ffprobe's view of a movie: codec, size and bit rate of its streams, the container's brand and
// duration.
inline nlohmann::json ffprobe(const fs::path &movie)
{
    ProcessResult probe = runProcess({"/usr/bin/ffprobe", "-v", "error", "-show_entries",
                                      "stream=codec_type,codec_name,width,height,bit_rate:format=duration:format_tags=major_brand",
                                      "-of", "json", movie.string()});
    return nlohmann::json::parse(probe.out, nullptr, false);
}

// The processes of this machine as /proc shows them.
struct ProcessEntry {
    pid_t pid, parent, group;
    std::string name;
};

inline std::vector<ProcessEntry> processes()
{
    std::vector<ProcessEntry> found;
    for (const auto &entry : fs::directory_iterator("/proc")) {
        if (!std::isdigit(static_cast<unsigned char>(entry.path().filename().string()[0])))
            continue; // self, thread-self and what is not a process
        const std::string stat = readFile(entry.path() / "stat");
        size_t open = stat.find('('), close = stat.rfind(')');
        char state = 0;
        ProcessEntry p{0, 0, 0, {}};
        if (open != std::string::npos && close != std::string::npos
            && std::sscanf(stat.c_str() + close + 1, " %c %d %d", &state, &p.parent, &p.group) == 3) {
            p.pid = std::stoi(entry.path().filename().string());
            p.name = stat.substr(open + 1, close - open - 1);
            found.push_back(p);
        }
    }
    return found;
}

struct AppRun {
    ProcessResult process;
    nlohmann::json out;
};

// Runs a sample app of the build, with the library preloaded or not, and parses its JSON line.
inline AppRun runApp(const std::string &app, bool withLibrary, std::vector<std::string> args,
                     std::map<std::string, std::string> env = {})
{
    std::vector<std::string> argv{buildDir() + "/bin/" + app};
    argv.insert(argv.end(), args.begin(), args.end());
    AppRun run;
    env.emplace("LD_PRELOAD", withLibrary ? buildDir() + "/lib/libZerlanInject.so" : kUnset);
    env.emplace("ZERLAN_DEBUG", kUnset);
    run.process = runProcess(argv, env);
    run.out = nlohmann::json::parse(run.process.out, nullptr, false);
    return run;
}

} // namespace zerlan::e2e
