// What the stream worker reads from a sink: the answers of the set-up
// exchanges, the connect answer, and the feedback and resend requests of
// STREAM_ANS, each read from any valid frame as the worker would.
#include <cstddef>
#include <cstdint>

#include "Protocol/Receive.h"
#include "Stream/StreamMessages.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    VELMORA::Receive frame(data, static_cast<std::uint32_t>(size));
    if (!frame.isValid()) return 0;
    (void)VELMORA::readStreamAnswer(frame);
    (void)VELMORA::readConnectAnswer(frame);
    (void)VELMORA::readLatencyAnswer(frame);
    (void)VELMORA::readSinkInfoAnswer(frame);
    VELMORA::DataSizeAnswer sizes = VELMORA::readDataSizeAnswer(frame);
    (void)VELMORA::probeEchoed(sizes, static_cast<std::uint32_t>(size), 0);
    return 0;
}
