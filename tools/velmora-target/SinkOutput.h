// The output a sink of velmora-target plays to: its file (or nothing) on a
// simulated clock, or a sound device whose clock it follows.
#pragma once

#include <memory>
#include <string>

#include "Sink/PlayoutOutput.h"
#include "Sink/StreamSink.h"
#include "TargetOptions.h"

// Null for the sink's own file output, or on failure with `error` set. A
// device's output narrows the formats of `stream` to what it can play.
std::unique_ptr<VELMORA::PlayoutOutput> openSinkOutput(const TestSink& sink,
                                                       VELMORA::StreamSinkConfig& stream, std::string& error);
