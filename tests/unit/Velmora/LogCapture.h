// Collects the log lines made while it lives, at every severity and from any thread: a target's or
// a stream worker's lines arrive on threads of their own.
#pragma once

#include <algorithm>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "System/Log.h"

class LogCapture {
  public:
    LogCapture() : threshold(NORVA::logThreshold.load()) {
        log.configure(16, &LogCapture::collect, 0);
        previous = NORVA::Syslog::install(&log);
        NORVA::logThreshold = 7;
    }
    ~LogCapture() {
        NORVA::logThreshold = threshold;
        NORVA::Syslog::install(previous);
        std::lock_guard<std::mutex> lock(mutex);
        texts.clear();
    }

    // The texts of the lines so far, without the syslog header.
    std::vector<std::string> lines() const {
        std::lock_guard<std::mutex> lock(mutex);
        return texts;
    }
    bool has(std::string_view text) const { return std::ranges::count(lines(), text) != 0; }
    bool hasPrefix(std::string_view prefix) const {
        return std::ranges::any_of(lines(),
                                   [&](const std::string& line) { return line.starts_with(prefix); });
    }

  private:
    static inline std::mutex mutex;
    static inline std::vector<std::string> texts;

    static void collect(const char* line) {
        std::string_view text(line);
        std::string_view::size_type start = text.find("localhost ");
        std::lock_guard<std::mutex> lock(mutex);
        texts.emplace_back(start == std::string_view::npos ? text : text.substr(start + 10));
    }

    std::int32_t threshold;
    NORVA::Syslog log;
    NORVA::Syslog* previous = nullptr;
};
