// The HTML of GET /: a live view of /frame and the counters of /status, refreshed by script.
#pragma once

#include <string_view>

namespace zerlan::server {

std::string_view statusPageHtml();

}  // namespace zerlan::server
