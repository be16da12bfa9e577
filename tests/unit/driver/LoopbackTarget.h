// A target on [::1], on ports of the system's choice, whose one sink, at
// port index 1, is an in-process StreamSink.
#pragma once

#include <memory>

#include "Discovery/Target.h"
#include "Sink/StreamSink.h"

class LoopbackTarget {
  public:
    explicit LoopbackTarget(const VELMORA::StreamSinkConfig& sinkConfig) : sink(sinkConfig) {
        if (!sink.start()) return;
        VELMORA::TargetConfig config;
        config.ports = VELMORA::TargetPorts{0, 0, 0, 0};
        config.allowLoopback = true;
        config.idleWithoutSynchro = false;
        config.name = "Studio";
        config.staticPorts.push_back(VELMORA::StaticPort{sink.port(), 1, "Out A", true, 1});
        target = std::make_unique<VELMORA::Target>(config);
        opened = target->open(NORVA::IPAddress::loopback(0), false);
    }
    ~LoopbackTarget() {
        if (target) target->close();
    }
    std::uint16_t control() const { return target->boundPorts().control; }

    VELMORA::StreamSink sink;
    std::unique_ptr<VELMORA::Target> target;
    bool opened = false;
};
