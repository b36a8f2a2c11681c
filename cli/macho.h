// What `zerlan launch` reads from a library's Mach-O headers before it asks the Simulator to
// insert it: an inserted library that dyld cannot load ends the app at launch, so a library of
// the wrong kind is refused here, with what to do instead.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace zerlan::cli {

// The Mach-O name of the architecture this machine runs the Simulator on ("arm64", "x86_64"),
// or empty when it is neither.
std::string hostArchitecture();

// Why the file at `path` cannot be inserted into a Simulator app on a machine of `architecture`
// (as hostArchitecture() names it; empty skips that test), or nothing when it can: it must be
// a Mach-O dynamic library, thin or universal, with a slice of that architecture built for the
// iOS Simulator.
std::optional<std::string> simulatorLibraryProblem(const std::string& path, std::string_view architecture);

}  // namespace zerlan::cli
