// kitebench: what telemetry events cost, measured through the library's own reporter.
//
//   kitebench events <count>   reports <count> error events one after another; prints events/s
//   kitebench one              reports one error event; prints the seconds it took
//
// The configuration is fetched from the download server as in any process (registry value
// KiteConfigServer); benchmarks/run.sh points it at the loopback servers.
#include "telemetry/TelemetryReporter.h"

#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

double Seconds() {
    LARGE_INTEGER now, frequency;
    ::QueryPerformanceCounter(&now);
    ::QueryPerformanceFrequency(&frequency);
    return static_cast<double>(now.QuadPart) / static_cast<double>(frequency.QuadPart);
}

}  // namespace

int main(int argc, char** argv) {
    const bool events = argc == 3 && std::strcmp(argv[1], "events") == 0;
    if (!events && !(argc == 2 && std::strcmp(argv[1], "one") == 0)) {
        std::fprintf(stderr, "usage: kitebench events <count> | kitebench one\n");
        return 2;
    }
    kite::TelemetryReporter& reporter = kite::TelemetryReporter::Instance();
    if (!reporter.ledEnabled) {
        std::fprintf(stderr, "kitebench: the error channel is not enabled\n");
        return 1;
    }
    const int count = events ? std::atoi(argv[2]) : 1;
    const double start = Seconds();
    try {
        for (int i = 0; i < count; ++i) {
            const std::string message = "kitebench event " + std::to_string(i);
            reporter.ReportEvent(0, message.c_str(), true);
        }
    } catch (int code) {
        std::fprintf(stderr, "kitebench: the transport raised %d\n", code);
        return 1;
    }
    const double elapsed = Seconds() - start;
    if (events) {
        std::printf("%d events in %.2f s: %.1f events/s\n", count, elapsed, count / elapsed);
    } else {
        std::printf("one event: %.2f s\n", elapsed);
    }
    return 0;
}
