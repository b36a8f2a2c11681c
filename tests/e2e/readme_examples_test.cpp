// Every example of README.md that can run on Linux, run as written: the README is read when the
// test runs, so an edited README is what is tested.
//
// What runs: each ```sh block, with /bin/sh from a folder where build/ is this build (a block
// that starts with #! is a script and runs as one; any other runs with sh -e, so a failing line
// fails the block), and each ```json block that is a scenario (a list of steps), played by
// zerlan serve --scenario with the pictures it names made up. Every block runs in this test's
// own network, where 127.0.0.1:47654 is free, and must end by itself, leaving nothing running.
//
// What does not: the blocks of a section whose heading names macOS, and a block whose last line
// before the fence is an HTML comment, which readers of the rendered page do not see:
//     <!-- not run by make test: why -->
#include "E2eSupport.h"

#include <sys/prctl.h>

using namespace zerlan::e2e;

namespace {

struct Example {
    std::string section; // the heading of its ## section
    int line = 0;        // of the opening fence, from 1
    std::string language;
    std::string code;
    std::string notRun; // why it is not run, or empty

    std::string where() const { return "README.md:" + std::to_string(line) + " (" + section + ")"; }
};

std::vector<Example> readmeExamples()
{
    std::istringstream in(readFile(fs::path(ZERLAN_SOURCE_DIR) / "README.md"));
    static const std::regex fence(R"(^( *)```([A-Za-z0-9_-]*) *$)");
    static const std::regex marker(R"(^<!-- not run by make test: (.+) -->$)");
    std::vector<Example> examples;
    std::string section, lastText;
    std::optional<Example> open;
    size_t indent = 0;
    int number = 0;
    for (std::string line; std::getline(in, line);) {
        ++number;
        std::smatch m;
        if (open) {
            if (std::regex_match(line, m, fence) && m[2].length() == 0) {
                examples.push_back(*open);
                open.reset();
            } else {
                open->code += (line.size() >= indent ? line.substr(indent) : std::string()) + "\n";
            }
            continue;
        }
        if (std::regex_match(line, m, fence)) {
            open = Example{section, number, m[2], {}, {}};
            indent = static_cast<size_t>(m[1].length());
            if (std::regex_match(lastText, m, marker))
                open->notRun = m[1];
            else if (section.find("macOS") != std::string::npos)
                open->notRun = "macOS: it needs a Mac with Xcode and a Simulator";
            continue;
        }
        if (line.rfind("# ", 0) == 0 || line.rfind("## ", 0) == 0)
            section = line.substr(line.find(' ') + 1);
        if (line.find_first_not_of(' ') != std::string::npos)
            lastText = line;
    }
    return examples;
}

bool isScenario(const Example &e)
{
    if (e.language != "json")
        return false;
    auto steps = nlohmann::json::parse(e.code, nullptr, false);
    if (!steps.is_array() || steps.empty())
        return false;
    for (const auto &step : steps)
        if (!step.is_object() || (!step.contains("at") && !step.contains("after_fetches")))
            return false;
    return true;
}

std::vector<Example> runnable(bool (*kind)(const Example &))
{
    std::vector<Example> chosen;
    for (Example &e : readmeExamples())
        if (e.notRun.empty() && kind(e))
            chosen.push_back(std::move(e));
    return chosen;
}

bool isShell(const Example &e) { return e.language == "sh"; }
bool isScript(const Example &e) { return isShell(e) && e.code.rfind("#!", 0) == 0; }

// A folder that stands for the repository root: build/ is this build.
class ReadmeExample : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        // What a block leaves running when its parent shell is gone comes back to this process,
        // which can then see it and reap it.
        prctl(PR_SET_CHILD_SUBREAPER, 1);
    }

    void SetUp() override
    {
        root_ = fs::temp_directory_path() / ("zerlan-readme-" + std::to_string(getpid()));
        fs::remove_all(root_);
        fs::create_directories(root_ / "tmp");
        fs::create_symlink(fs::absolute(buildDir()), root_ / "build");
    }
    void TearDown() override { fs::remove_all(root_); }

    struct ShellRun {
        int status = -1; // its exit code; -1 when it did not finish or ended by a signal
        std::string out, err;
        std::string leftOver; // what it left running, if anything
    };

    // Runs a shell block in a process group of its own, within `limit`; anything of the group
    // still running a few seconds after the shell ended is what the block left behind (then
    // stopped).
    ShellRun runShell(const Example &example, Clock::duration limit)
    {
        std::ofstream(root_ / "example.sh") << example.code;
        std::vector<std::string> argv{"/bin/sh", "-c", "cd \"$0\" && exec /bin/sh $1 ./example.sh", root_.string(),
                                      isScript(example) ? "" : "-e"};
        // mktemp -d, where TearDown clears it.
        std::vector<std::string> env = environmentWith({{"ZERLAN_FRAME_PORT", kUnset}, {"LD_PRELOAD", kUnset},
                                                        {"ZERLAN_DEBUG", kUnset}, {"BUILD", kUnset},
                                                        {"TMPDIR", (root_ / "tmp").string()}});
        std::vector<char *> args = cStrings(argv), envp = cStrings(env);
        // Files, not pipes: a process a block leaves behind would hold a pipe open.
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&actions, 1, (root_ / "out.txt").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        posix_spawn_file_actions_addopen(&actions, 2, (root_ / "err.txt").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        posix_spawnattr_t attributes;
        posix_spawnattr_init(&attributes);
        posix_spawnattr_setpgroup(&attributes, 0);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
        pid_t shell = -1;
        int spawned = posix_spawn(&shell, args[0], &actions, &attributes, args.data(), envp.data());
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attributes);
        ShellRun run;
        if (spawned != 0) {
            run.err = "cannot start /bin/sh";
            return run;
        }
        int raw = 0;
        if (waitFor([&] { return waitpid(shell, &raw, WNOHANG) == shell; }, limit)) {
            run.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
        } else {
            kill(-shell, SIGKILL);
            waitpid(shell, &raw, 0);
            run.leftOver = "the block itself, still running after its time";
        }
        // Its processes keep the shell's group; a server being stopped needs a moment.
        auto groupGone = [&] {
            while (waitpid(-shell, nullptr, WNOHANG) > 0) {
            }
            return kill(-shell, 0) != 0 && errno == ESRCH;
        };
        if (!waitFor(groupGone, 10s)) {
            if (run.leftOver.empty()) {
                run.leftOver = "processes of its group, still running 10 s after it ended:";
                for (const ProcessEntry &p : processes())
                    if (p.group == shell)
                        run.leftOver += " " + p.name;
            }
            kill(-shell, SIGKILL);
            waitFor(groupGone, 10s);
        }
        run.out = readFile(root_ / "out.txt");
        run.err = readFile(root_ / "err.txt");
        return run;
    }

    fs::path root_;
};

std::string report(const Example &example, const std::string &out, const std::string &err)
{
    return example.where() + ":\n" + example.code + "--- its output:\n" + out + "--- its errors:\n" + err;
}

TEST_F(ReadmeExample, EachShellExampleRunsAsWritten)
{
    const auto examples = runnable(isShell);
    ASSERT_GE(examples.size(), 2u) << "the README's shell examples were not found";
    for (const Example &example : examples) {
        SCOPED_TRACE(example.where());
        ShellRun run = runShell(example, 120s);
        EXPECT_EQ(run.status, 0) << report(example, run.out, run.err);
        EXPECT_EQ(run.leftOver, "") << report(example, run.out, run.err);
        EXPECT_FALSE(somethingListens()) << "a server on 127.0.0.1:47654 after " << example.where();
    }
}

// A CI job that runs a README script beside a server that was left running (or another program
// on the port) must fail at once, without driving that other server.
TEST_F(ReadmeExample, ScriptsStopAtOnceWhenTheirServerCannotStart)
{
    const auto scripts = runnable(isScript);
    ASSERT_GE(scripts.size(), 1u) << "the README's UI-test script was not found";
    for (const Example &script : scripts) {
        SCOPED_TRACE(script.where());
        FrameServer other({});
        ASSERT_TRUE(other.waitUntilServing()) << other.log();
        ShellRun run = runShell(script, 60s);
        EXPECT_NE(run.status, 0) << report(script, run.out, run.err);
        EXPECT_NE(run.err.find("port 47654 is in use by another zerlan serve"), std::string::npos)
            << report(script, run.out, run.err);
        EXPECT_EQ(run.out, "") << "it went on: " << report(script, run.out, run.err);
        auto status = nlohmann::json::parse(http("GET", "/status").body, nullptr, false);
        ASSERT_TRUE(status.is_object()) << "the other server is unharmed";
        EXPECT_EQ(status["qr"], "zerlan") << "the other server was driven: " << status.dump();
        EXPECT_EQ(status["faults"]["stall"], 0) << status.dump();
        EXPECT_EQ(run.leftOver, "") << report(script, run.out, run.err);
    }
}

// A scenario is played with the files it names made up, while a client fetches frames so that
// "after_fetches" steps come too; every step must fire and be taken.
TEST_F(ReadmeExample, EachScenarioPlaysEveryStepAsWritten)
{
    const auto scenarios = runnable(isScenario);
    ASSERT_GE(scenarios.size(), 1u) << "the README's scenario was not found";
    for (const Example &example : scenarios) {
        SCOPED_TRACE(example.where());
        const fs::path file = root_ / "scenario.json";
        std::ofstream(file) << example.code;
        const auto steps = nlohmann::json::parse(example.code);
        double last = 0;
        bool stepped = false;
        for (const auto &step : steps) {
            last = std::max(last, step.value("at", 0.0));
            stepped = stepped || step.contains("step");
            auto make = [&](const fs::path &path, const std::string &ffmpegArgs) {
                fs::create_directories(path.parent_path());
                ASSERT_EQ(0, std::system(("ffmpeg -nostdin -loglevel error -y " + ffmpegArgs + " '" + path.string() + "'").c_str()));
            };
            if (step.contains("image"))
                make(root_ / step["image"].get<std::string>(), "-f lavfi -i color=c=blue:s=320x240 -frames:v 1");
            if (step.contains("video"))
                make(root_ / step["video"].get<std::string>(), "-f lavfi -i testsrc=size=320x240:rate=10 -t 2 -pix_fmt yuv420p");
            if (step.contains("dir"))
                for (const char *name : {"1.jpg", "2.jpg"})
                    make(root_ / step["dir"].get<std::string>() / name, "-f lavfi -i color=c=red:s=320x240 -frames:v 1");
        }
        std::vector<std::string> args{"--scenario", file.string()};
        if (stepped)
            args.push_back("--step");
        FrameServer server(args);
        ASSERT_TRUE(server.waitUntilServing()) << server.log();
        const std::string finished = "scenario " + file.string() + " finished";
        const bool played = waitFor(
            [&] {
                http("GET", "/frame");
                return server.log().find(finished) != std::string::npos;
            },
            std::chrono::seconds(static_cast<long>(last) + 60));
        const std::string log = server.log();
        EXPECT_TRUE(played) << log;
        EXPECT_EQ(log.find(": failed: "), std::string::npos) << "a step was refused as it fired:\n" << log;
        for (size_t i = 1; i <= steps.size(); ++i) {
            EXPECT_NE(log.find("scenario step " + std::to_string(i) + " of " + std::to_string(steps.size())),
                      std::string::npos)
                << log;
        }
    }
}

} // namespace
