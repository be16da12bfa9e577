// The exchange with a service on this machine that places the driver's
// threads on CPUs: who the process is when the driver comes up, and its
// goodbye when it goes. Nothing depends on the service being there.
#pragma once

#include <cstdint>

#include "Network/TimeValue.h"
#include "Settings.h"

struct LocalServiceExchange {
    static constexpr std::uint16_t defaultPort = 19639;  // one below the log's

    std::uint16_t port = defaultPort;
    // With waitForAnswers, each request goes out again after this long
    // without its answer, and both together stop after `limit`.
    NORVA::TimeValue answerWait = NORVA::TimeValue::fromMs(300);
    NORVA::TimeValue limit = NORVA::TimeValue::fromSeconds(10);

    void up(const DriverSettings& settings, std::uint64_t processId) const;
    void down(const DriverSettings& settings, std::uint64_t processId) const;
};

// The settings ask for CPU placement: of the send side (with its thread mode
// bit), or of the other threads.
bool wantsLocalService(const DriverSettings& settings);
