#include "server/uploads.h"

#include <unistd.h>  // mkdtemp on macOS

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace zerlan::server {

namespace fs = std::filesystem;

namespace {

bool startsWithType(std::string_view contentType, std::string_view prefix) {
  if (contentType.size() < prefix.size()) return false;
  for (size_t i = 0; i < prefix.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(contentType[i])) != prefix[i]) return false;
  }
  return contentType.size() > prefix.size() && contentType[prefix.size()] != ';';
}

std::string cleanName(std::string_view name) {
  name = name.substr(
      name.find_last_of("/\\") == std::string_view::npos ? 0 : name.find_last_of("/\\") + 1);
  std::string clean;
  for (unsigned char c : name) {
    if (clean.size() >= 60) break;
    bool plain = std::isalnum(c) || c == '.' || c == '-' || c == '_';
    clean += plain ? static_cast<char>(c) : '_';
  }
  // No hidden files, no "." or "..".
  while (!clean.empty() && clean.front() == '.') clean.erase(0, 1);
  return clean.empty() ? "upload" : clean;
}

}  // namespace

UploadKind uploadKind(std::string_view contentType) {
  if (startsWithType(contentType, "image/")) return UploadKind::Picture;
  if (startsWithType(contentType, "video/")) return UploadKind::Video;
  return UploadKind::None;
}

size_t uploadLimit(UploadKind kind) {
  switch (kind) {
    case UploadKind::Picture:
      return kMaxUploadedPictureBytes;
    case UploadKind::Video:
      return kMaxUploadedVideoBytes;
    case UploadKind::None:
      break;
  }
  return 0;
}

std::string_view uploadNoun(UploadKind kind) {
  return kind == UploadKind::Video ? "video" : "picture";
}

std::string mebibytes(size_t bytes) { return std::to_string(bytes >> 20) + " MiB"; }

Result<void> checkUpload(UploadKind kind, size_t bytes) {
  if (kind == UploadKind::None) {
    return Error{
        "send a picture (Content-Type image/jpeg, image/png, ...) or a video (video/mp4, "
        "video/quicktime, ...)",
        415};
  }
  if (bytes > uploadLimit(kind)) {
    return Error{"the " + std::string(uploadNoun(kind)) + " is larger than " +
                     mebibytes(uploadLimit(kind)) + ", the most this server takes from the page",
                 413};
  }
  if (bytes == 0) return fail("the file is empty");
  return {};
}

UploadFolder::~UploadFolder() { removeAll(); }

void UploadFolder::removeAll() {
  std::lock_guard lock(mu_);
  std::error_code ignored;
  if (!folder_.empty()) fs::remove_all(folder_, ignored);
  folder_.clear();
  kept_ = 0;
  bytes_ = 0;
}

Result<std::string> UploadFolder::store(std::string_view bytes, std::string_view name) {
  std::lock_guard lock(mu_);
  if (bytes_ + bytes.size() > maxKeptBytes_) {
    return Error{"this server keeps " + mebibytes(maxKeptBytes_) +
                     " of dropped files at most, and has " + mebibytes(bytes_) +
                     ": restart zerlan serve to clear them, or serve the file by its path",
                 413};
  }
  if (folder_.empty()) {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = (fs::path(tmp && *tmp ? tmp : "/tmp") / "zerlan-uploads-XXXXXX").string();
    // mkdtemp makes the folder readable by this user alone.
    if (!::mkdtemp(pattern.data())) {
      return fail("cannot make a folder for dropped files in " +
                  fs::path(pattern).parent_path().string() + ": " + std::strerror(errno));
    }
    folder_ = pattern;
  }
  const fs::path path = folder_ / (std::to_string(++stored_) + "-" + cleanName(name));
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  out.close();
  if (!out) {
    std::error_code ignored;
    fs::remove(path, ignored);
    return fail("cannot write the dropped file to " + path.string() + ": " + std::strerror(errno));
  }
  ++kept_;
  bytes_ += bytes.size();
  return path.string();
}

void UploadFolder::remove(const std::string& path) {
  std::lock_guard lock(mu_);
  std::error_code error;
  const auto size = fs::file_size(path, error);
  if (error || !fs::remove(path, error)) return;
  --kept_;
  bytes_ -= size;
}

nlohmann::json UploadFolder::status() const {
  std::lock_guard lock(mu_);
  return {{"folder", folder_.empty() ? nlohmann::json() : nlohmann::json(folder_.string())},
          {"kept", kept_},
          {"bytes", bytes_},
          {"max_picture_bytes", kMaxUploadedPictureBytes},
          {"max_video_bytes", kMaxUploadedVideoBytes},
          {"max_kept_bytes", maxKeptBytes_}};
}

}  // namespace zerlan::server
