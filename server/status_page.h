// The HTML of GET /, the control panel: the live view (/frame?view=panel), the source, steps,
// faults and counters, driven through the same /status, /control, /upload and /cameras as any
// client. One page, no framework, nothing fetched from elsewhere.
#pragma once

#include <string_view>

namespace zerlan::server {

std::string_view statusPageHtml();

}  // namespace zerlan::server
