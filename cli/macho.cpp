#include "cli/macho.h"

#include <sys/utsname.h>

#include <cstdint>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

namespace zerlan::cli {

namespace {

// Values from <mach-o/loader.h> and <mach-o/fat.h>, which only Apple's SDKs have. A thin file
// of these architectures is little-endian; a universal file's table is big-endian.
constexpr uint32_t kMachOMagic64 = 0xfeedfacf;  // MH_MAGIC_64
constexpr uint32_t kFatMagic = 0xcafebabe;      // FAT_MAGIC
constexpr uint32_t kFatMagic64 = 0xcafebabf;    // FAT_MAGIC_64
constexpr uint32_t kDylib = 6;                  // MH_DYLIB
constexpr uint32_t kBuildVersion = 0x32;        // LC_BUILD_VERSION
constexpr uint32_t kIOSSimulator = 7;           // PLATFORM_IOSSIMULATOR
constexpr size_t kHeaderSize = 32;              // sizeof(mach_header_64)
constexpr uint32_t kMostSlices = 64;
constexpr uint32_t kMostCommandBytes = 1 << 20;  // a dylib's are a few KiB: more is damage

struct Named {
  uint32_t value;
  const char* name;
};

constexpr Named kCpuTypes[] = {{0x0100000c, "arm64"}, {0x01000007, "x86_64"}, {12, "arm"}, {7, "i386"}};

constexpr Named kPlatforms[] = {
    {1, "macOS"},
    {2, "iOS devices"},
    {3, "tvOS"},
    {4, "watchOS"},
    {6, "Mac Catalyst"},
    {8, "the tvOS Simulator"},
    {9, "the watchOS Simulator"},
    {11, "visionOS"},
    {12, "the visionOS Simulator"},
};

template <size_t N>
std::string nameOf(const Named (&table)[N], uint32_t value, const char* kind) {
  for (const Named& entry : table) {
    if (entry.value == value) return entry.name;
  }
  return kind + std::string(" ") + std::to_string(value);
}

uint32_t little32(const std::string& bytes, size_t at) {
  uint32_t value = 0;
  for (int i = 3; i >= 0; --i) value = value << 8 | static_cast<uint8_t>(bytes[at + i]);
  return value;
}

uint64_t big(const std::string& bytes, size_t at, int size) {
  uint64_t value = 0;
  for (int i = 0; i < size; ++i) value = value << 8 | static_cast<uint8_t>(bytes[at + i]);
  return value;
}

struct Slice {
  uint32_t cpuType;
  uint64_t offset;
};

class File {
 public:
  explicit File(const std::string& path) : in_(path, std::ios::binary) {}
  bool open() const { return in_.is_open(); }

  // `size` bytes at `offset`, or nothing when the file ends first.
  std::optional<std::string> read(uint64_t offset, size_t size) {
    std::string bytes(size, '\0');
    in_.clear();
    in_.seekg(static_cast<std::streamoff>(offset));
    if (!in_.read(bytes.data(), static_cast<std::streamsize>(size))) return std::nullopt;
    return bytes;
  }

 private:
  std::ifstream in_;
};

// The slices of a thin or universal Mach-O file, or a problem.
std::optional<std::string> readSlices(File& file, std::vector<Slice>& slices) {
  auto head = file.read(0, 8);
  if (!head) return "is too short to be a library";
  if (head->compare(0, 4,
                    "\x7f"
                    "ELF") == 0)
    return "is an ELF library (a Linux build's .so), not a Mach-O one";
  if (little32(*head, 0) == kMachOMagic64) {
    slices.push_back({little32(*head, 4), 0});
    return std::nullopt;
  }
  uint32_t magic = static_cast<uint32_t>(big(*head, 0, 4));
  if (magic != kFatMagic && magic != kFatMagic64) return "is not a Mach-O library";
  uint32_t count = static_cast<uint32_t>(big(*head, 4, 4));
  if (count == 0 || count > kMostSlices) return "is not a Mach-O library";
  // fat_arch: cputype, cpusubtype, offset, size, align (32-bit fields); fat_arch_64 widens
  // offset and size to 64 bits and adds a reserved field.
  const size_t entry = magic == kFatMagic64 ? 32 : 20;
  auto table = file.read(8, entry * count);
  if (!table) return "is a damaged universal file (its table of architectures is cut short)";
  for (uint32_t i = 0; i < count; ++i) {
    size_t at = i * entry;
    uint64_t offset = magic == kFatMagic64 ? big(*table, at + 8, 8) : big(*table, at + 8, 4);
    slices.push_back({static_cast<uint32_t>(big(*table, at, 4)), offset});
  }
  return std::nullopt;
}

// The platform in a slice's LC_BUILD_VERSION, if it has one; or a problem.
std::optional<std::string> checkSlice(File& file, const Slice& slice, std::optional<uint32_t>& platform) {
  auto header = file.read(slice.offset, kHeaderSize);
  if (!header || little32(*header, 0) != kMachOMagic64 || little32(*header, 4) != slice.cpuType)
    return "is a damaged Mach-O file (its " + nameOf(kCpuTypes, slice.cpuType, "CPU type") +
           " part does not start where its table says)";
  if (little32(*header, 12) != kDylib) return "is a Mach-O file but not a dynamic library";
  uint32_t commands = little32(*header, 16);
  uint32_t commandBytes = little32(*header, 20);
  auto bytes =
      commandBytes <= kMostCommandBytes ? file.read(slice.offset + kHeaderSize, commandBytes) : std::nullopt;
  if (!bytes) return "is a damaged Mach-O file (its load commands are cut short)";
  size_t at = 0;
  for (uint32_t i = 0; i < commands && at + 8 <= bytes->size(); ++i) {
    uint32_t command = little32(*bytes, at), size = little32(*bytes, at + 4);
    if (size < 8 || at + size > bytes->size()) break;
    if (command == kBuildVersion && size >= 12) platform = little32(*bytes, at + 8);
    at += size;
  }
  return std::nullopt;
}

}  // namespace

std::string hostArchitecture() {
  utsname name{};
  if (uname(&name) != 0) return {};
  std::string_view machine = name.machine;
  if (machine == "arm64" || machine == "aarch64") return "arm64";
  if (machine == "x86_64") return "x86_64";
  return {};
}

std::optional<std::string> simulatorLibraryProblem(const std::string& path, std::string_view architecture) {
  File file(path);
  if (!file.open()) return "cannot be read";
  std::vector<Slice> slices;
  if (auto problem = readSlices(file, slices)) return problem;

  const Slice* chosen = nullptr;
  std::string held;
  for (const Slice& slice : slices) {
    std::string name = nameOf(kCpuTypes, slice.cpuType, "CPU type");
    held += (held.empty() ? "" : " and ") + name;
    if (!chosen && (architecture.empty() || name == architecture)) chosen = &slice;
  }
  if (!chosen)
    return "holds " + held + " code only, and this Mac runs the Simulator as " + std::string(architecture);

  std::optional<uint32_t> platform;
  if (auto problem = checkSlice(file, *chosen, platform)) return problem;
  // A library without LC_BUILD_VERSION predates it (Xcode 10); dyld is the judge of those.
  if (platform && *platform != kIOSSimulator)
    return "is built for " + nameOf(kPlatforms, *platform, "platform") + ", not for the iOS Simulator";
  return std::nullopt;
}

}  // namespace zerlan::cli
