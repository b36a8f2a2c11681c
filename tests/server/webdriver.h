// A WebDriver client for the browser tests: chromedriver on a free loopback port, one session
// of headless Chromium with a new empty profile, and the few commands the tests use, as plain
// HTTP requests (the W3C WebDriver protocol). A command the browser refuses fails the test.
#pragma once

#include <sys/types.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "support.h"

namespace zerlan::test {

// Why the browser tests cannot run here (no chromium or chromedriver on PATH), or empty.
std::string browserMissing();

class Browser {
 public:
  // Starts chromedriver and a session; null, with the test failed, when either does not start.
  static std::unique_ptr<Browser> start();
  ~Browser();  // ends the session, so Chromium quits, and stops chromedriver
  Browser(const Browser&) = delete;
  Browser& operator=(const Browser&) = delete;

  void open(const std::string& url);
  // Runs `script` as the body of a function in the page, with `arguments` = `args`, and
  // returns what it returns (a promise is awaited).
  nlohmann::json run(const std::string& script,
                     const nlohmann::json& args = nlohmann::json::array());
  void click(const std::string& css);
  // Clears the field, then types `text` into it; a file input takes a path this way.
  void type(const std::string& css, const std::string& text);
  std::string text(const std::string& css);
  // A PNG of the page as the window shows it; with `whole`, the window is made as tall as the
  // page first.
  std::string screenshotPng(bool whole = false);

 private:
  Browser() = default;
  nlohmann::json command(const std::string& method, const std::string& path,
                         const nlohmann::json& body = nlohmann::json::object());
  std::string element(const std::string& css);

  std::unique_ptr<Child> driver_;
  TempDir profile_;
  uint16_t port_ = 0;
  std::string session_;
  pid_t browserPid_ = 0;
};

}  // namespace zerlan::test
