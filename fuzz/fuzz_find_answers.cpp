// What Find reads from a target: discovery answers, port lists and ports,
// names and texts, status entries, the setting table, icons, slot lists and
// acknowledgements, and the MTU probes' answers. A responder on [::1]
// answers each request Find sends with the next record of the input, as the
// answer type of that request, so that every answer reaches Find's reading
// of it; once the input is used up it refuses, which ends any read at once.
//
// Input: one byte choosing the read, then records of
//   u16 body size, flags, param0..param3 (little-endian), then the body.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "Discovery/Find.h"
#include "Network/BufferCS_const.h"
#include "Network/ByteArray.h"
#include "Network/Socket.h"
#include "Protocol/Receive.h"
#include "Protocol/Send.h"

namespace {

class Responder {
  public:
    NORVA::UDPV6 socket;
    NORVA::IPAddress address = NORVA::IPAddress::loopback(0);

    Responder() {
        socket.openNonBlocking();
        socket.receiveSize = 70000;
        socket.bind(address);
        std::thread([this] { serve(); }).detach();  // lives as long as the fuzzing process
    }

    void load(const std::uint8_t* data, std::size_t size) {
        std::lock_guard<std::mutex> guard(lock);
        input.assign(data, data + size);
        at = 0;
    }

  private:
    static constexpr std::size_t recordHeader = 12;

    std::uint16_t word(std::size_t offset) const {
        return std::uint16_t(input[offset] | input[offset + 1] << 8);
    }

    // The next record as the answer to `request`.
    void answer(const VELMORA::Receive& request, const NORVA::IPAddress& to) {
        const std::uint16_t type = std::uint16_t(request.type() + 1);
        std::lock_guard<std::mutex> guard(lock);
        // Past the input a record reads as zeros: no body and no flags, a refusal.
        if (at + recordHeader > input.size()) input.resize(at + recordHeader);
        const std::size_t bodySize = std::min<std::size_t>(word(at), input.size() - at - recordHeader);
        VELMORA::SendBuffer frame(type, word(at + 2), word(at + 4), word(at + 6), word(at + 8),
                                  word(at + 10));
        frame.setBodySize(std::uint16_t(bodySize));
        if (bodySize != 0) std::memcpy(frame.body(), &input[at + recordHeader], bodySize);
        at += recordHeader + bodySize;
        frame.finish();
        socket.sendTo(to, true, frame.bytes.data, frame.bytes.size);
    }

    void serve() {
        NORVA::ByteArray datagram;
        NORVA::IPAddress from;
        for (;;) {
            if (socket.waitReadable(NORVA::TimeValue::fromMs(100)) != 2 ||
                !socket.receiveFrom(datagram, from) || datagram.size() < 16)
                continue;
            answer(VELMORA::Receive(datagram.data(), static_cast<std::uint32_t>(datagram.size())), from);
        }
    }

    std::mutex lock;
    std::vector<std::uint8_t> input;
    std::size_t at = 0;
};

VELMORA::FindSettings loopbackSettings() {
    VELMORA::FindSettings settings;
    settings.withLoopback = true;
    settings.filterId = VELMORA::anyProductId;
    settings.clientName = "fuzz";
    return settings;
}

void read(VELMORA::Find& find, const NORVA::IPAddress& target, std::uint8_t choice) {
    using VELMORA::SettingTable;
    std::uint64_t id = 0;
    std::uint32_t mtu = 0;
    std::uint16_t count = 0, second = 0, version = 0, kind = 0, state = 0xFFFF;
    std::uint8_t map[512];
    const std::uint8_t data[64] = {1, 2, 3};
    std::string text;
    std::vector<std::string> list;
    std::vector<std::uint8_t> bytes;
    NORVA::IPAddress sink, peer;
    VELMORA::TargetRecord record;
    std::vector<VELMORA::TargetSetting> settings;
    VELMORA::TargetIcon icon;
    std::vector<VELMORA::SlotDescription> slots;
    const std::function<void()> reads[] = {
        [&] { find.probeTarget(target, id, text); },
        [&] { find.readPortList(target, count, second, map); },
        [&] { find.readFirstTarget(target, sink, record); },
        [&] {
            find.readText1(target, text);
            find.readInfoList(target, 1, list);
            find.readInfoBytes(target, 2, bytes);
            find.readInfoText(target, 6, text);
        },
        [&] {
            find.readStatusCount(target, count);
            find.readStatusEntry(target, 1, sink, version, text, peer, kind);
        },
        [&] {
            find.readSettings(SettingTable::first, target, settings, false);
            find.readSettings(SettingTable::second, target, settings, true);
        },
        [&] {
            find.readIconNumber(target, 0, 1, icon);
            find.readIcon(target, 0x10002, icon, 32);
        },
        [&] {
            find.readSlotList(target, slots);
            find.checkTransfer(target, 0, 0x1234, state);
        },
        [&] { find.measureMtu(target, mtu); },
        [&] {
            find.writeSetting(SettingTable::first, target, 1, 5, "text", text);
            find.commitSettings(SettingTable::first, target, false);
            find.restartTarget(target, false, 0);
            find.Transfer(target, 0, NORVA::BufferCS_const{data, sizeof data}, 16);
        },
    };
    reads[choice % 10]();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Responder responder;
    static VELMORA::Find find(loopbackSettings());
    static bool opened = find.open();
    if (!opened || size < 1) return 0;
    find.targetPort = responder.address.port();
    responder.load(data + 1, size - 1);
    read(find, responder.address, data[0]);
    return 0;
}
