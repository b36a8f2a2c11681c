// The version of Zerlan, the one place it is written: the top-level CMakeLists.txt reads it from
// here for the project's version.
#pragma once

#define ZERLAN_VERSION "0.1.0"
