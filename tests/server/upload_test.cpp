// Files dropped onto the status page (POST /upload) and the page's own view of the feed, over
// real connections: what is taken, what is refused before a byte of the body is read, where the
// files are kept and when they go.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "server/http.h"
#include "server/uploads.h"
#include "support.h"

namespace zerlan::test {
namespace {

using nlohmann::json;
namespace fs = std::filesystem;

Reply upload(uint16_t port, std::string_view bytes, const std::string& type,
             const std::string& extraHeaders = {}, const std::string& name = "x") {
  return roundTrip(port,
                   "POST /upload?name=" + name + " HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: " +
                       type + "\r\nContent-Length: " + std::to_string(bytes.size()) + "\r\n" +
                       extraHeaders + "\r\n" + std::string(bytes),
                   30s);
}

TEST(Upload, PicturesAndVideosAreKeptPrivatelyAndServedUntilTheServerStops) {
  TempDir dir;
  auto s = startServer();
  ASSERT_TRUE(s.server);
  Reply picture = upload(s.port(), solidJpeg(320, 240, {0, 0, 255}), "IMAGE/JPEG; q=1", "",
                         "..%2F..%2Fmy%20card.jpg");
  ASSERT_EQ(picture.status, 200) << picture.body;
  const json status = json::parse(picture.body);
  EXPECT_EQ(status["source_kind"], "image");
  EXPECT_EQ(nearest(centreColour(get(s.port(), "/frame").body), {{255, 0, 0}, {0, 0, 255}}), 1u);
  const fs::path folder = status["uploads"]["folder"].get<std::string>();
  EXPECT_EQ(folder.parent_path(), fs::temp_directory_path());
  EXPECT_EQ(fs::status(folder).permissions(), fs::perms::owner_all) << "this user's alone";
  EXPECT_TRUE(fs::exists(folder / "1-my_card.jpg")) << "named after the file, inside the folder";

  const std::string video =
      readFile(makeVideo(dir, "clip.mp4", {{255, 0, 0}, {0, 255, 0}}, 10, 160, 120));
  Reply played = upload(s.port(), video, "video/mp4");
  ASSERT_EQ(played.status, 200) << played.body;
  EXPECT_EQ(json::parse(played.body)["source_kind"], "video");
  EXPECT_EQ(statusOf(s.port())["uploads"]["kept"], 2);
  EXPECT_EQ(statusOf(s.port())["uploads"]["bytes"],
            fs::file_size(folder / "1-my_card.jpg") + video.size());

  // What cannot be served is refused with the reason, and not kept.
  Reply broken = upload(s.port(), "no picture at all", "image/png");
  EXPECT_EQ(broken.status, 400);
  EXPECT_NE(broken.body.find("cannot be served"), std::string::npos) << broken.body;
  EXPECT_EQ(statusOf(s.port())["uploads"]["kept"], 2);
  EXPECT_EQ(statusOf(s.port())["source_kind"], "video");

  s.server->stop();
  EXPECT_FALSE(fs::exists(folder)) << "removed when the server stops";
}

TEST(Upload, RefusedBeforeTheBodyIsRead) {
  auto s = startServer();
  ASSERT_TRUE(s.server);
  const uint16_t port = s.port();
  struct Case {
    std::string type;
    size_t length;
    std::string headers;
    int status;
    std::string says;
  };
  const Case cases[] = {
      {"text/plain", 10, "", 415, "send a picture"},
      {"image/", 10, "", 415, "send a picture"},
      {"application/json", 10, "", 415, "send a picture"},
      {"image/png", server::kMaxUploadedPictureBytes + 1, "", 413,
       "the picture is larger than 32 MiB"},
      {"video/mp4", server::kMaxUploadedVideoBytes + 1, "", 413, "the video is larger than 64 MiB"},
      {"image/png", 10, "Origin: http://127.0.0.1:1\r\n", 403, "requests from other web pages"},
      {"image/png", 10, "Origin: null\r\n", 403, "requests from other web pages"},
      {"image/png", 10, "Host: evil.example\r\n", 421, "this server answers requests for"},
  };
  for (const Case& c : cases) {
    // Only the head: a refusal must not wait for the body.
    Reply r = roundTrip(
        port,
        "POST /upload HTTP/1.1\r\n" +
            std::string(c.headers.starts_with("Host") ? "" : "Host: 127.0.0.1\r\n") +
            "Content-Type: " + c.type + "\r\nContent-Length: " + std::to_string(c.length) + "\r\n" +
            c.headers + "\r\n",
        5s);
    EXPECT_EQ(r.status, c.status) << c.type << " " << c.headers << r.body;
    EXPECT_NE(r.body.find(c.says), std::string::npos) << r.body;
  }
  EXPECT_EQ(get(port, "/upload").status, 405);
  EXPECT_TRUE(statusOf(port)["uploads"]["folder"].is_null()) << "nothing was stored";
  EXPECT_EQ(statusOf(port)["source_kind"], "pattern");
}

TEST(Upload, TheLimitItselfIsTaken) {
  auto s = startServer();
  ASSERT_TRUE(s.server);
  // Exactly the limit passes the size check; then it is no picture, and said so.
  Reply r = upload(s.port(), std::string(server::kMaxUploadedPictureBytes, 'x'), "image/jpeg");
  EXPECT_EQ(r.status, 400) << r.body;
  EXPECT_NE(r.body.find("cannot be served"), std::string::npos) << r.body;
}

TEST(Upload, TheFolderKeepsAtMostItsLimit) {
  server::UploadFolder folder(3u << 20);
  const std::string mib(1u << 20, 'x');
  std::vector<std::string> paths;
  for (int i = 0; i < 3; ++i) {
    auto path = folder.store(mib, "../../a b.jpg");
    ASSERT_TRUE(path) << path.error().message;
    EXPECT_EQ(fs::path(*path).filename(), std::to_string(i + 1) + "-a_b.jpg");
    paths.push_back(*path);
  }
  auto full = folder.store("x", "one.jpg");
  ASSERT_FALSE(full);
  EXPECT_EQ(full.error().status, 413);
  EXPECT_NE(full.error().message.find("restart zerlan serve"), std::string::npos);
  folder.remove(paths[0]);
  EXPECT_FALSE(fs::exists(paths[0]));
  EXPECT_TRUE(folder.store("x", ".hidden")) << "room again";
  EXPECT_EQ(folder.status()["kept"], 3);
  EXPECT_EQ(folder.status()["bytes"], (2u << 20) + 1);
  const fs::path where = fs::path(paths[1]).parent_path();
  folder.removeAll();
  EXPECT_FALSE(fs::exists(where));
  EXPECT_TRUE(folder.status()["folder"].is_null());
}

TEST(Upload, TheStatusPagesOwnViewIsNoAppFetchAndGetsNoFault) {
  auto s = startServer();
  ASSERT_TRUE(s.server);
  ASSERT_EQ(post(s.port(), "/control", R"({"fault": "http-error", "requests": 1})").status, 200);
  EXPECT_EQ(get(s.port(), "/frame?n=4&view=panel").status, 200);
  EXPECT_EQ(get(s.port(), "/frame?view=panel").status, 200);
  json status = statusOf(s.port());
  EXPECT_EQ(status["panel_frames"], 2);
  EXPECT_EQ(status["frames_served"], 0);
  EXPECT_TRUE(status["last_fetch"].is_null());
  EXPECT_EQ(status["fault"]["requests_left"], 1) << "the fault waits for the app";
  EXPECT_EQ(get(s.port(), "/frame?view=panels").status, 503) << "only view=panel is the page";
  EXPECT_EQ(get(s.port(), "/frame").status, 200);
  EXPECT_EQ(statusOf(s.port())["frames_served"], 1);
}

TEST(Upload, QueryParameters) {
  struct Case {
    std::string target;
    std::optional<std::string> view;
  };
  const Case cases[] = {
      {"/frame?view=panel", "panel"},
      {"/frame?n=3&view=panel&x", "panel"},
      {"/frame?viewer=panel", {}},
      {"/frame", {}},
      {"/frame?view", ""},
      {"/frame?view=a%20b+c%2", "a b c%2"},
      {"/frame?view=%zz#view=x", "%zz"},
      {"/frame?a=1#view=panel", {}},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(server::http::queryParam(c.target, "view"), c.view) << c.target;
  }
}

}  // namespace
}  // namespace zerlan::test
