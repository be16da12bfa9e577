// Whether this system grants a thread the stream worker's high priority.
// Where it doesn't, the worker ends before it connects, so stream tests skip.
#pragma once

#include <thread>

#include "System/Threads.h"

inline bool workerPriorityGranted() {
    static const bool granted = [] {
        bool set = false;
        std::thread([&] { set = NORVA::setCurrentThreadLevel(NORVA::levelHigh); }).join();
        return set;
    }();
    return granted;
}
