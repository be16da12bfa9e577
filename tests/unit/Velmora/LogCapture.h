// Collects the log lines made while it lives, at every severity.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "System/Log.h"

class LogCapture {
  public:
    LogCapture() : threshold(NORVA::logThreshold.load()) {
        texts().clear();
        log.configure(16, &LogCapture::collect, 0);
        previous = NORVA::Syslog::install(&log);
        NORVA::logThreshold = 7;
    }
    ~LogCapture() {
        NORVA::logThreshold = threshold;
        NORVA::Syslog::install(previous);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // The texts of the lines, without the syslog header.
    const std::vector<std::string>& lines() const { return texts(); }
    bool has(std::string_view text) const {
        return std::find(lines().begin(), lines().end(), text) != lines().end();
    }
    bool hasPrefix(std::string_view prefix) const {
        return std::any_of(lines().begin(), lines().end(),
                           [&](const std::string& line) { return line.starts_with(prefix); });
    }

  private:
    static std::vector<std::string>& texts() {
        static std::vector<std::string> collected;
        return collected;
    }
    static void collect(const char* line) {
        std::string_view text(line);
        std::string_view::size_type start = text.find("localhost ");
        texts().emplace_back(start == std::string_view::npos ? text : text.substr(start + 10));
    }

    std::int32_t threshold;
    NORVA::Syslog log;
    NORVA::Syslog* previous = nullptr;
};
