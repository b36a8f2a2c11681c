#include "webdriver.h"

#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <thread>

namespace zerlan::test {

namespace {

using nlohmann::json;

// The key under which WebDriver names an element.
const std::string kElement = "element-6066-11e4-a52e-4f735466cecf";

std::string base64Decode(std::string_view text) {
  static const std::string_view kDigits =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  int bits = 0;
  uint32_t buffer = 0;
  for (char c : text) {
    size_t v = kDigits.find(c);
    if (v == std::string_view::npos) continue;  // padding
    buffer = (buffer << 6) | static_cast<uint32_t>(v);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out += static_cast<char>((buffer >> bits) & 0xFF);
    }
  }
  return out;
}

// One request to chromedriver and its answer: status and body. chromedriver may keep the
// connection open after answering, Connection: close or not, so the answer ends where its
// Content-Length says.
std::pair<int, std::string> ask(uint16_t port, const std::string& request) {
  int fd = connectTo(port);
  if (fd < 0 || !sendAll(fd, request)) {
    if (fd >= 0) ::close(fd);
    return {0, "cannot reach chromedriver on port " + std::to_string(port)};
  }
  std::string got;
  size_t end = 0, length = 0;
  auto whole = [&](const std::string& got) {
    if ((end = got.find("\r\n\r\n")) == std::string::npos) return false;
    std::string head = got.substr(0, end);
    for (char& c : head) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    size_t at = head.find("content-length:");
    length = at == std::string::npos ? 0 : std::strtoul(head.c_str() + at + 15, nullptr, 10);
    return got.size() >= end + 4 + length;
  };
  readUntil(fd, in(60s), got, whole);
  ::close(fd);
  if (!whole(got)) return {0, "no whole answer from chromedriver: " + got};
  return {std::atoi(got.c_str() + 9), got.substr(end + 4, length)};
}

}  // namespace

std::string browserMissing() {
  for (const std::string program : {"chromium", "chromedriver"}) {
    if (std::system(("command -v " + program + " >/dev/null").c_str()) != 0) {
      return std::string("no ") + program +
             " on PATH: scripts/setup installs Debian's chromium and chromium-driver";
    }
  }
  return {};
}

std::unique_ptr<Browser> Browser::start() {
  std::unique_ptr<Browser> b(new Browser);
  // chromedriver names the port it took on standard output.
  b->driver_ = std::make_unique<Child>(
      "/bin/sh", std::vector<std::string>{"-c", "exec chromedriver --port=0 1>&2"});
  auto line = b->driver_->waitForLine("started successfully on port ", in(30s));
  if (!line) {
    ADD_FAILURE() << "chromedriver did not start: " << b->driver_->stderrText();
    return nullptr;
  }
  b->port_ = static_cast<uint16_t>(std::atoi(line->c_str() + line->find("on port ") + 8));
  // This machine's network is closed, and a profile of its own keeps runs apart.
  json args = {"--headless",
               "--no-sandbox",
               "--disable-gpu",
               "--disable-quic",
               "--no-first-run",
               "--disable-background-networking",
               "--disable-component-update",
               "--disable-sync",
               "--disable-breakpad",
               "--force-device-scale-factor=1",
               "--window-size=1280,900",
               "--user-data-dir=" + b->profile_.path().string()};
  json session = b->command(
      "POST", "/session",
      {{"capabilities",
        {{"alwaysMatch", {{"browserName", "chrome"}, {"goog:chromeOptions", {{"args", args}}}}}}}});
  if (!session.is_object() || !session.contains("sessionId")) {
    ADD_FAILURE() << "Chromium did not start: " << session.dump();
    return nullptr;
  }
  b->session_ = session["sessionId"].get<std::string>();
  b->browserPid_ = session["capabilities"].value("goog:processID", 0);
  return b;
}

Browser::~Browser() {
  if (!session_.empty()) command("DELETE", "/session/" + session_);
  // A browser left behind by a failed quit goes too: it is this test's own.
  for (int i = 0; browserPid_ > 0 && ::kill(browserPid_, 0) == 0; ++i) {
    if (i == 50) ::kill(browserPid_, SIGKILL);
    std::this_thread::sleep_for(100ms);
  }
}

json Browser::command(const std::string& method, const std::string& path, const json& body) {
  std::string payload = method == "POST" ? body.dump() : "";
  std::string request = method + " " + path +
                        " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port_) +
                        "\r\nConnection: close\r\nContent-Type: application/json; charset=utf-8\r\n"
                        "Content-Length: " +
                        std::to_string(payload.size()) + "\r\n\r\n" + payload;
  auto [status, text] = ask(port_, request);
  json answer = json::parse(text, nullptr, false);
  if (status != 200 || !answer.is_object()) {
    ADD_FAILURE() << method << " " << path << ": HTTP " << status << " " << text;
    return json();
  }
  return answer["value"];
}

std::string Browser::element(const std::string& css) {
  json found = command("POST", "/session/" + session_ + "/element",
                       {{"using", "css selector"}, {"value", css}});
  if (!found.is_object() || !found.contains(kElement)) {
    ADD_FAILURE() << "no element " << css;
    return "none";
  }
  return found[kElement].get<std::string>();
}

void Browser::open(const std::string& url) {
  command("POST", "/session/" + session_ + "/url", {{"url", url}});
}

json Browser::run(const std::string& script, const json& args) {
  return command("POST", "/session/" + session_ + "/execute/sync",
                 {{"script", script}, {"args", args}});
}

void Browser::click(const std::string& css) {
  command("POST", "/session/" + session_ + "/element/" + element(css) + "/click");
}

void Browser::type(const std::string& css, const std::string& text) {
  const std::string id = element(css);
  // Through the page: WebDriver's own clear refuses a file input that the page keeps hidden.
  run("arguments[0].value = '';", json::array({{{kElement, id}}}));
  command("POST", "/session/" + session_ + "/element/" + id + "/value", {{"text", text}});
}

std::string Browser::text(const std::string& css) {
  json value = command("GET", "/session/" + session_ + "/element/" + element(css) + "/text");
  return value.is_string() ? value.get<std::string>() : std::string();
}

std::string Browser::screenshotPng(bool whole) {
  if (whole) {
    json size =
        run("return [window.outerWidth, document.documentElement.scrollHeight + "
            "window.outerHeight - window.innerHeight];");
    command("POST", "/session/" + session_ + "/window/rect",
            {{"width", size[0]}, {"height", size[1]}});
  }
  json value = command("GET", "/session/" + session_ + "/screenshot");
  return value.is_string() ? base64Decode(value.get<std::string>()) : std::string();
}

}  // namespace zerlan::test
