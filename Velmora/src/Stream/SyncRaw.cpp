// The host's side of the raw frame transfer mode: the packet library's
// adapter on the target's interface, opened while the stream is set up and
// kept only for a stream that takes it. The frames themselves are built by
// the worker's pool (framing mode 3) and go out through `rawSocket`, while
// the target's answers arrive on `socket`.
#include "Network/Socket.h"
#include "Stream/Sync.h"
#include "System/Log.h"

namespace VELMORA {

void Sync::resetRawSocket() {
    if (!ownsSocket() || rawSocket == nullptr) return;
    rawSocket->close();
    rawSocket->open(NORVA::Socket::raw);
    NORVA::LogLine(6) << "Open Raw Socket";
}

bool Sync::offerRawFrames(const NORVA::IPAddress& target) {
    // Without the library openRaw fails without a word: the mode isn't offered.
    return rawSocket != nullptr && rawSocket->openRaw(std::uint16_t(target.scope()));
}

void Sync::keepRawFramesFor(std::uint32_t mode) {
    // An open adapter captures the whole link for nobody.
    if (mode != msModeRawFrames && rawSocket != nullptr) rawSocket->close();
}

}  // namespace VELMORA
