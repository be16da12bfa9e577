// velmora-play: an ASIO host on the command line. It loads the driver as a
// DAW does, runs the host's side of the calling order, feeds the callbacks
// from a WAV file or a generated signal, and reports what it saw.
#include <cstdio>
#include <fstream>
#include <string>

#include "AsioHost.h"
#include "Compare.h"
#include "DriverLoader.h"
#include "PlayOptions.h"
#include "Report.h"

namespace {

constexpr int exitDiffers = 1;
constexpr int exitUsage = 2;
constexpr int exitNoDriver = 3;

int compare(const PlayOptions& options) {
    WavData given, sink;
    std::string error;
    if (!readWav(options.compare[0], given, error) || !readWav(options.compare[1], sink, error)) {
        std::fprintf(stderr, "velmora-play: %s\n", error.c_str());
        return exitUsage;
    }
    Comparison result = compareWav(given, sink);
    std::printf("%s", result.text().c_str());
    return result.exact ? 0 : exitDiffers;
}

bool writeFile(const std::string& path, const std::string& text) {
    std::ofstream file(path, std::ios::binary);
    file << text;
    return bool(file);
}

}  // namespace

int main(int argc, char** argv) {
    PlayOptions options;
    std::string error;
    if (!options.parse(argc, argv, error)) {
        std::fprintf(stderr, "velmora-play: %s\n%s", error.c_str(), PlayOptions::usage());
        return exitUsage;
    }
    if (options.help) {
        std::printf("%s", PlayOptions::usage());
        return 0;
    }
    if (!options.compare[0].empty()) return compare(options);

    PlayReport report;
    AsioHost host(options);
    if (!host.prepareInput(report)) {
        std::fprintf(stderr, "velmora-play: %s\n", report.failure.c_str());
        return report.exitCode;
    }
    if (!options.settingsFolder.empty() && !DriverLoader::useSettingsFolder(options.settingsFolder, error)) {
        std::fprintf(stderr, "velmora-play: %s\n", error.c_str());
        return exitUsage;
    }
    DriverLoader loader;
    IASIO* driver = loader.create(
        options.driverPath, options.driverName.empty() ? "KESTRANE Velmora" : options.driverName, error);
    report.driverOrigin = loader.origin;
    if (driver == nullptr) {
        std::fprintf(stderr, "velmora-play: %s\n", error.c_str());
        return exitNoDriver;
    }
    host.run(driver, report);

    // A run that failed before the source was made has nothing to write.
    bool anythingGiven = report.failure.empty() || report.framesGiven != 0;
    if (!options.givenPath.empty() && anythingGiven && !host.writeGiven(options.givenPath, report, error)) {
        report.failure += (report.failure.empty() ? "" : "; ") + error;
        if (report.exitCode == 0) report.exitCode = exitUsage;
    }
    if (!options.jsonPath.empty() && !writeFile(options.jsonPath, reportJson(report))) {
        report.failure += (report.failure.empty() ? "can't write " : "; can't write ") + options.jsonPath;
        if (report.exitCode == 0) report.exitCode = exitUsage;
    }
    std::printf("%s", reportText(report).c_str());
    return report.exitCode;
}
