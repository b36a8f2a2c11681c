// Runs a program of the build to completion with a chosen environment and collects its output;
// starts one that runs beside the test; waits for a condition.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <poll.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <map>
#include <string>
#include <thread>
#include <vector>

extern char **environ;

namespace zerlan::testing {

struct ProcessResult {
    int status = -1; // exit code, or -1 when it did not exit normally
    std::string out;
    std::string err;
    long maxResidentKb = 0; // the most it ever had resident
};

// The build directory, as ctest passes it to every test.
inline std::string buildDir()
{
    const char *dir = std::getenv("ZERLAN_BUILD_DIR");
    return dir ? dir : "build";
}

// A value of `set` below that removes the variable.
inline const char *const kUnset = "\x01unset";

// This process's environment changed by `set`, as "name=value" strings.
inline std::vector<std::string> environmentWith(const std::map<std::string, std::string> &set)
{
    std::map<std::string, std::string> env;
    for (char **e = environ; *e; ++e) {
        std::string entry = *e;
        if (auto eq = entry.find('='); eq != std::string::npos)
            env[entry.substr(0, eq)] = entry.substr(eq + 1);
    }
    for (const auto &[key, value] : set) {
        if (value == kUnset)
            env.erase(key);
        else
            env[key] = value;
    }
    std::vector<std::string> out;
    for (const auto &[key, value] : env)
        out.push_back(key + "=" + value);
    return out;
}

// The strings as the null-terminated array that exec takes; valid while they are.
inline std::vector<char *> cStrings(std::vector<std::string> &strings)
{
    std::vector<char *> out;
    for (std::string &s : strings)
        out.push_back(s.data());
    out.push_back(nullptr);
    return out;
}

// Runs argv with the current environment changed by `set`.
inline ProcessResult runProcess(std::vector<std::string> argv, const std::map<std::string, std::string> &set = {})
{
    std::vector<std::string> envStrings = environmentWith(set);
    std::vector<char *> envp = cStrings(envStrings), args = cStrings(argv);

    int outPipe[2], errPipe[2];
    if (pipe2(outPipe, O_CLOEXEC) != 0 || pipe2(errPipe, O_CLOEXEC) != 0)
        return {};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, outPipe[1], 1);
    posix_spawn_file_actions_adddup2(&actions, errPipe[1], 2);
    pid_t pid = -1;
    int spawned = posix_spawn(&pid, args[0], &actions, nullptr, args.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    close(outPipe[1]);
    close(errPipe[1]);
    ProcessResult result;
    if (spawned != 0) {
        close(outPipe[0]);
        close(errPipe[0]);
        result.err = "spawn failed";
        return result;
    }
    pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
    std::string *sinks[2] = {&result.out, &result.err};
    int open = 2;
    while (open > 0 && poll(fds, 2, -1) > 0) {
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP)))
                continue;
            char buffer[4096];
            ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
            if (n > 0) {
                sinks[i]->append(buffer, static_cast<size_t>(n));
            } else {
                close(fds[i].fd);
                fds[i].fd = -1;
                --open;
            }
        }
    }
    int status = 0;
    rusage usage{};
    wait4(pid, &status, 0, &usage);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.maxResidentKb = usage.ru_maxrss;
    return result;
}

// Polls the condition until it holds (true) or the limit has passed (false).
template <typename Condition>
inline bool waitFor(Condition condition, std::chrono::steady_clock::duration limit)
{
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

// Starts argv[0] beside the test, its standard error written to `log`; the child's pid, or -1.
// It must not outlive a test that crashes or is killed on a time-out: setpriv gives it a death
// signal, sent when the thread that started it ends. Spawned, not forked: a forked child of a
// many-threaded process can hang before its exec under ThreadSanitizer.
inline pid_t spawnLogged(std::vector<std::string> argv, const std::string &log)
{
    argv.insert(argv.begin(), {"/usr/bin/setpriv", "--pdeathsig", "KILL", "--"});
    std::vector<char *> raw = cStrings(argv);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 2, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t pid = -1;
    if (posix_spawn(&pid, raw[0], &actions, nullptr, raw.data(), environ) != 0)
        pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

// Ends a child started with spawnLogged and reaps it.
inline void stopChild(pid_t &pid, int signal)
{
    if (pid <= 0)
        return;
    kill(pid, signal);
    waitpid(pid, nullptr, 0);
    pid = -1;
}

} // namespace zerlan::testing
