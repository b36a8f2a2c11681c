// What the end-to-end tests share: plain HTTP to the frame port, a real `zerlan serve` on it, and
// sample apps run with or without ZerlanInject preloaded.
#pragma once

#include "Process.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>

#include <nlohmann/json.hpp>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <regex>
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
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0) {
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
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(kFramePort);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bool listening = connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0;
    close(fd);
    return listening;
}

inline long framesServed()
{
    HttpAnswer status = http("GET", "/status");
    if (status.status != 200)
        return -1;
    return nlohmann::json::parse(status.body).value("frames_served", -1L);
}

template <typename Condition>
inline bool waitFor(Condition condition, Clock::duration limit)
{
    auto deadline = Clock::now() + limit;
    while (!condition()) {
        if (Clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(20ms);
    }
    return true;
}

inline std::string readFile(const fs::path &path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// `zerlan serve` on the frame port, stopped with SIGTERM (or killed) when the test is done.
// Starts argv[0] with its standard error written to `log`; the child's pid, or -1.
inline pid_t spawnLogged(std::vector<std::string> argv, const fs::path &log)
{
    std::vector<char *> raw;
    for (auto &s : argv)
        raw.push_back(s.data());
    raw.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 2, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t pid = -1;
    if (posix_spawn(&pid, raw[0], &actions, nullptr, raw.data(), environ) != 0)
        pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

class FrameServer {
public:
    explicit FrameServer(std::vector<std::string> args)
    {
        std::vector<std::string> argv{buildDir() + "/bin/zerlan", "serve", "--port", std::to_string(kFramePort)};
        argv.insert(argv.end(), args.begin(), args.end());
        log_ = fs::temp_directory_path() / ("zerlan-e2e-serve-" + std::to_string(getpid()) + ".log");
        pid_ = spawnLogged(argv, log_);
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
                int status = 0;
                exited = pid_ <= 0 || waitpid(pid_, &status, WNOHANG) == pid_;
                return exited || http("GET", "/frame").status == 200;
            },
            10s);
        if (exited)
            pid_ = -1;
        return !exited && http("GET", "/frame").status == 200;
    }

    void stop(int signal)
    {
        if (pid_ <= 0)
            return;
        kill(pid_, signal);
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = -1;
    }

    std::string log() const { return readFile(log_); }

private:
    pid_t pid_ = -1;
    fs::path log_;
};

// `zerlan serve --port 0` in step mode (every frame of a step is the same bytes), with more
// options if given, its port read from its start line.
class StepServer {
public:
    explicit StepServer(std::vector<std::string> options = {})
    {
        static std::atomic<int> made{0};
        log_ = fs::temp_directory_path()
            / ("zerlan-e2e-step-" + std::to_string(getpid()) + "-" + std::to_string(made++) + ".log");
        std::vector<std::string> argv{buildDir() + "/bin/zerlan", "serve", "--port", "0", "--step"};
        argv.insert(argv.end(), options.begin(), options.end());
        pid_ = spawnLogged(argv, log_);
        std::regex listening("listening on http://127\\.0\\.0\\.1:([0-9]+)/");
        waitFor(
            [&] {
                std::smatch m;
                std::string text = log();
                if (std::regex_search(text, m, listening))
                    port_ = static_cast<uint16_t>(std::stoi(m[1]));
                return port_ != 0 || pid_ <= 0;
            },
            10s);
    }
    ~StepServer()
    {
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            int status = 0;
            waitpid(pid_, &status, 0);
        }
        fs::remove(log_);
    }

    uint16_t port() const { return port_; }
    std::string log() const { return readFile(log_); }

    HttpAnswer request(const std::string &method, const std::string &path, const std::string &body = {}) const
    {
        return http(port_, method, path, body);
    }
    nlohmann::json status() const { return nlohmann::json::parse(request("GET", "/status").body, nullptr, false); }
    long served() const { return status().value("frames_served", -1L); }

private:
    pid_t pid_ = -1;
    uint16_t port_ = 0;
    fs::path log_;
};

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
