// The host's side of stream set-up across a real link: measures the path
// MTU to a target, takes its first sink and reads what the sink offers,
// then prints the packet size the set-up settled on.
//
//     netns_sync_probe ADDRESS%SCOPE
#include <cstdio>
#include <string>

#include "Discovery/Find.h"
#include "Stream/Sync.h"

namespace {

class NoRingSync : public VELMORA::Sync {
  public:
    bool getBuffer(VELMORA::StreamChunk&) override { return false; }
};

}  // namespace

int main(int argc, char** argv) {
    NORVA::IPAddress target;
    if (argc != 2 || !target.parse(argv[1])) {
        std::fprintf(stderr, "usage: %s ADDRESS%%SCOPE\n", argv[0]);
        return 2;
    }
    VELMORA::FindSettings settings;
    settings.filterId = VELMORA::anyProductId;
    VELMORA::Find find(settings);
    std::uint32_t activeMtu = 0;
    NORVA::IPAddress sink;
    VELMORA::TargetRecord record;
    if (!find.open() || !find.measureMtu(target, activeMtu) || !find.readTarget(target, 0, sink, record) ||
        sink.isAnyNoPort()) {
        std::fprintf(stderr, "no target or sink at %s\n", argv[1]);
        return 1;
    }
    NoRingSync sync;
    if (!sync.open(0, NORVA::TimeValue::fromMs(100), std::uint16_t(sink.scope()), "netns host", 0, -1, -1,
                   0) ||
        !sync.getInfo(sink, NORVA::TimeValue(), false, activeMtu)) {
        std::fprintf(stderr, "the sink's set-up failed\n");
        return 1;
    }
    std::printf("mtu=%u smtu=%u maxPacketSize=%u\n", activeMtu, sync.smtu, sync.maxPacketSize);
    return 0;
}
