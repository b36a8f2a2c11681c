# The language, warning and blocks flags of every build, and the frameworks the library links.
# One place for two readers: the CMake build (every preset, the ios-simulator dylib included)
# includes this file, and scripts/ios-check runs it (`cmake -P`) to compile the library against
# Apple's SDK with exactly these flags. The OS version is not here: the preset and the check each
# choose their own deployment target.
set(ZERLAN_CXX_STANDARD 20)

# The library is C++ that talks to Objective-C runtimes through blocks; Apple's clang enables
# them by default, elsewhere they need the flag (and libBlocksRuntime on Linux).
set(ZERLAN_COMPILE_OPTIONS -fblocks -Wall -Wextra -Wno-unused-parameter)

set(ZERLAN_FRAMEWORKS Foundation CoreFoundation CoreMedia CoreVideo CoreGraphics CoreImage QuartzCore AVFoundation UIKit)

if(CMAKE_SCRIPT_MODE_FILE STREQUAL CMAKE_CURRENT_LIST_FILE)
  # For scripts: one line per setting, its name then its values separated by spaces.
  foreach(setting ZERLAN_CXX_STANDARD ZERLAN_COMPILE_OPTIONS ZERLAN_FRAMEWORKS)
    list(JOIN ${setting} " " values)
    execute_process(COMMAND ${CMAKE_COMMAND} -E echo "${setting} ${values}")
  endforeach()
endif()
