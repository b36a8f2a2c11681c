// The sample apps, with ZerlanInject preloaded, against a server that answers with pictures no
// camera gives: a JPEG whose header claims 30000 x 30000 over a few hundred bytes, a real 8000 x
// 8000 JPEG, a 30000 x 30000 PNG, and a JPEG that claims 65500 x 65500 under an address-space
// limit. `zerlan serve` refuses such pictures, so a scripted server plays them until the app has
// fetched a few, then answers with good frames. The apps never die of a signal, the large picture
// costs bounded memory, and frames flow again.
#include "E2eSupport.h"
#include "Pictures.h"
#include "ScriptedServer.h"

#include <tuple>

using namespace zerlan::e2e;

namespace {

enum class Picture { claims30000, real8000, png30000, claims65500 };

const char *const kPictureNames[] = {"Claims30000", "Real8000", "Png30000", "Claims65500UnderAnAddressSpaceLimit"};

// One frame of a `zerlan serve` test pattern in step mode (a large one takes a while to draw).
std::string patternFrame(std::vector<std::string> options)
{
    options.push_back("--step");
    FrameServer server(std::move(options), 0);
    EXPECT_NE(server.port(), 0) << server.log();
    HttpAnswer frame;
    EXPECT_TRUE(waitFor([&] { return (frame = server.request("GET", "/frame")).status == 200; }, 60s)) << server.log();
    return frame.body;
}

class HostilePictures : public ::testing::TestWithParam<std::tuple<Picture, const char *>> {};

TEST_P(HostilePictures, NoSignalBoundedMemoryAndFramesAgainOnceTheServerIsGood)
{
    const auto [picture, app] = GetParam();
    const bool addressLimit = picture == Picture::claims65500;
    if (addressLimit && zerlan::testing::kSanitized)
        GTEST_SKIP() << "sanitizers reserve more address space than any limit leaves";
    const std::string good = patternFrame({"--qr", "recovered"});
    std::string hostile;
    switch (picture) {
    case Picture::claims30000:
        hostile = zerlan::testing::claimSize(good, 30000, 30000);
        break;
    case Picture::real8000:
        hostile = patternFrame({"--size", "8000x8000", "--qr", "large"});
        break;
    case Picture::png30000:
        hostile = zerlan::testing::blackPng(30000, 30000);
        break;
    case Picture::claims65500:
        hostile = zerlan::testing::claimSize(good, 65500, 65500);
        break;
    }
    ASSERT_FALSE(good.empty());

    std::atomic<bool> serveGood{false};
    std::atomic<int> hostileServed{0}, goodServed{0};
    zerlan::testing::ScriptedServer server([&](int fd) {
        zerlan::testing::ScriptedServer::readHead(fd);
        bool isGood = serveGood;
        zerlan::testing::ScriptedServer::writeAll(
            fd, "HTTP/1.1 200 OK\r\nContent-Type: image/jpeg\r\nConnection: close\r\n\r\n" + (isGood ? good : hostile));
        ++(isGood ? goodServed : hostileServed);
        return true;
    });

    const bool capture = std::string(app) == "capture-app";
    std::vector<std::string> args = capture ? std::vector<std::string>{"--seconds", "12"}
                                            : std::vector<std::string>{"--action", "auto", "--timeout", "30"};
    const std::string library = buildDir() + "/lib/libZerlanInject.so";
    std::vector<std::string> argv{buildDir() + "/bin/" + app};
    std::map<std::string, std::string> env{{"ZERLAN_FRAME_PORT", std::to_string(server.port())},
                                           {"ZERLAN_DEBUG", kUnset}, {"LD_PRELOAD", library}};
    if (addressLimit) {
        // 2 GiB of address space: far more than the app needs, far less than 65500 x 65500 pixels.
        argv.insert(argv.begin(), {"/bin/sh", "-c", "ulimit -v 2097152 && export LD_PRELOAD=\"$0\" && exec \"$@\"",
                                   library});
        env["LD_PRELOAD"] = kUnset;
    }
    argv.insert(argv.end(), args.begin(), args.end());
    auto running = std::async(std::launch::async, [&] { return zerlan::testing::runProcess(argv, env); });

    // A few hostile answers (or a while, for an app that is done first), then good frames.
    auto deadline = Clock::now() + 6s;
    while (hostileServed < 2 && Clock::now() < deadline
           && running.wait_for(20ms) == std::future_status::timeout) {
    }
    serveGood = true;
    zerlan::testing::ProcessResult run = running.get();
    nlohmann::json out = nlohmann::json::parse(run.out, nullptr, false);

    ASSERT_EQ(0, run.status) << "exit status (-1: killed by a signal)\n" << run.out << run.err;
    EXPECT_GE(hostileServed.load(), 1);
    EXPECT_TRUE(out["error"].is_null()) << out["error"];
    if (capture) {
        EXPECT_GT(out["videoFrames"].get<long>(), 0);
        EXPECT_GE(goodServed.load(), 1);
        std::vector<std::string> codes = out["qr"];
        EXPECT_NE(std::find(codes.begin(), codes.end(), "recovered"), codes.end()) << out["qr"];
        if (picture == Picture::real8000)
            EXPECT_NE(std::find(codes.begin(), codes.end(), "large"), codes.end()) << "a large frame is read too";
    } else {
        // The photo is the first frame the screen could show: the large one, or a good one.
        EXPECT_EQ(picture == Picture::real8000 ? 8000 : 640, out["imageWidth"]) << run.out;
    }
    // Decoded whole, with what the detector and an app make of it, 8000 x 8000 took over 600 MiB.
    if (!zerlan::testing::kSanitized)
        EXPECT_LT(run.maxResidentKb, 400 * 1024) << "most resident memory, KiB";
}

INSTANTIATE_TEST_SUITE_P(EachPictureAndApp, HostilePictures,
                         ::testing::Combine(::testing::Values(Picture::claims30000, Picture::real8000,
                                                              Picture::png30000, Picture::claims65500),
                                            ::testing::Values("capture-app", "picker-app")),
                         [](const auto &info) {
                             std::string app = std::get<1>(info.param);
                             return std::string(kPictureNames[int(std::get<0>(info.param))]) +
                                    (app == "capture-app" ? "_CaptureApp" : "_PickerApp");
                         });

} // namespace
