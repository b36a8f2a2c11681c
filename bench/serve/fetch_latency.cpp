// Sequential fetches with the library's own transport against each port given, interleaved so
// that both servers see the same machine load; prints one line per port:
//   PORT frames=N failures=F p50_ms=X p99_ms=Y max_ms=Z
#include "transport/FetchJPEG.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

using namespace zerlan;

int main(int argc, char **argv)
{
    if (argc < 3) {
        std::fprintf(stderr, "usage: bench-fetch-latency COUNT PORT [PORT...]\n");
        return 2;
    }
    int count = std::atoi(argv[1]);
    std::vector<int> ports;
    for (int i = 2; i < argc; ++i)
        ports.push_back(std::atoi(argv[i]));
    std::vector<std::vector<double>> samples(ports.size());
    std::vector<int> failures(ports.size());
    for (int round = 0; round < count; ++round) {
        for (size_t p = 0; p < ports.size(); ++p) {
            objc::AutoreleasePool pool;
            auto endpoint = transport::loopbackEndpoint(static_cast<uint16_t>(ports[p]));
            auto start = std::chrono::steady_clock::now();
            objc::Strong<> frame = transport::fetchJPEG(endpoint);
            double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
            if (frame)
                samples[p].push_back(ms);
            else
                ++failures[p];
        }
    }
    for (size_t p = 0; p < ports.size(); ++p) {
        auto &s = samples[p];
        std::sort(s.begin(), s.end());
        auto at = [&](double q) { return s.empty() ? 0.0 : s[std::min(s.size() - 1, static_cast<size_t>(q * s.size()))]; };
        std::printf("%d frames=%zu failures=%d p50_ms=%.3f p99_ms=%.3f max_ms=%.3f\n", ports[p], s.size(), failures[p],
                    at(0.50), at(0.99), s.empty() ? 0.0 : s.back());
    }
    return 0;
}
