// Pictures and videos a person drops onto the status page (POST /upload): which are taken, how
// large they may be, and where they are kept: a private folder of the server's own (mode 0700,
// in TMPDIR), made at the first upload and removed with everything in it when the server
// stops, so a dropped file can be served, and served again, for the server's life.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "server/result.h"

namespace zerlan::server {

enum class UploadKind { None, Picture, Video };

inline constexpr size_t kMaxUploadedPictureBytes = size_t{32} << 20;
inline constexpr size_t kMaxUploadedVideoBytes = size_t{64} << 20;
inline constexpr size_t kMaxUploadsBytes = size_t{512} << 20;  // all that one server keeps

// A picture for image/..., a video for video/... (parameters after ';' aside); None otherwise.
UploadKind uploadKind(std::string_view contentType);

// The most bytes one upload of `kind` may have; 0 for None.
size_t uploadLimit(UploadKind kind);

// "picture" or "video", and its limit: "32 MiB".
std::string_view uploadNoun(UploadKind kind);
std::string mebibytes(size_t bytes);

// Whether an upload of `kind` and `bytes` is taken; the error (415 or 413) says why not and
// what is.
Result<void> checkUpload(UploadKind kind, size_t bytes);

// Safe for any thread.
class UploadFolder {
 public:
  explicit UploadFolder(size_t maxKeptBytes = kMaxUploadsBytes) : maxKeptBytes_(maxKeptBytes) {}
  ~UploadFolder();  // removes the folder and everything in it
  UploadFolder(const UploadFolder&) = delete;
  UploadFolder& operator=(const UploadFolder&) = delete;

  // Writes `bytes` to a new file named after `name` (its last path part, reduced to letters,
  // digits, '.', '-' and '_') and returns its path. Fails (413) when the kept files would pass
  // `maxKeptBytes`, or when the folder cannot be made or written.
  Result<std::string> store(std::string_view bytes, std::string_view name);
  // Removes a stored file that turned out to be of no use.
  void remove(const std::string& path);
  // Removes the folder and everything in it; a later store makes a new one.
  void removeAll();

  // {"folder": PATH or null, "kept": N, "bytes": B, "max_picture_bytes": ..., "max_video_bytes":
  // ..., "max_kept_bytes": ...}
  nlohmann::json status() const;

 private:
  const size_t maxKeptBytes_;
  mutable std::mutex mu_;
  std::filesystem::path folder_;  // empty until the first upload
  uint64_t stored_ = 0;           // files written so far: numbers the next one
  size_t kept_ = 0;
  size_t bytes_ = 0;
};

}  // namespace zerlan::server
