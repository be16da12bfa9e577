// The target's end of a slot transfer: the slots' geometry, the data frames
// in sequence, the final check, and the slot description list.
#include <algorithm>

#include "Discovery/Target.h"
#include "Protocol/Crc16.h"
#include "Protocol/MessageTypes.h"
#include "System/Log.h"

namespace VELMORA {

namespace {

constexpr std::uint16_t ackWanted = 0x8000;
constexpr std::uint16_t slotBits = 0x7FFF;
constexpr std::uint16_t plainState = 0xFFFF;

}  // namespace

void Target::transferInfo(const Receive& request, const NORVA::IPAddress& source) {
    const std::uint16_t slot = request.param0();
    Send answer(MessageType::TRANSFERINFO_ANS, flagYes, config.slotCount, config.window, 0, 0);
    if (slot > config.slotCount) {
        answer.setHeader(MessageType::TRANSFERINFO_ANS, 0);
    } else if (slot != 0) {
        answer.setHeader(MessageType::TRANSFERINFO_ANS, flagYes, slot, config.slots[0], config.slots[1],
                         config.slots[2]);
    }
    reply(answer, source, MessageType::TRANSFERINFO_ANS);
}

// Frames are taken only in sequence; the acknowledgement names the first
// sequence number still missing, so that the host repeats from there.
void Target::transferDataSet(const Receive& request, const NORVA::IPAddress& source) {
    const std::uint16_t slot = request.param0() & slotBits;
    const bool wantsAck = (request.param0() & ackWanted) != 0;
    if (slot == 0 || slot > config.slotCount) {
        NORVA::LogLine(3) << "TRANSFERDATA_SET error " << request.param0() << " / " << config.slotCount;
        return;
    }
    if (config.readOnly) {
        // Only the frame that wants an answer hears the refusal, which ends
        // the host's transfer; the others are dropped unlogged.
        if (wantsAck && refusedAsReadOnly("slot data", source)) {
            Send answer(MessageType::TRANSFERDATA_ANS, 0, slot, 0, 0, 0);
            reply(answer, source, MessageType::TRANSFERDATA_ANS);
        }
        return;
    }
    const std::uint16_t slotIndex = slot - 1;
    const std::uint16_t sequence = request.param1(), packet = request.param2(), block = request.param3();
    if (sequence == 0 && packet == 0 && block == 0) {
        state.expected = 0;
        state.currentSlot = slotIndex;
    }
    if (wantsAck) {
        Send answer(MessageType::TRANSFERDATA_ANS, flagYes, slot, state.expected, 0, 0);
        reply(answer, source, MessageType::TRANSFERDATA_ANS);
    }
    if (state.expected != sequence || state.currentSlot != slotIndex) {
        NORVA::LogLine(6) << "TRANSFERDATA miss " << state.expected << " " << sequence << " "
                          << state.currentSlot << " " << slotIndex << " " << (wantsAck ? 1 : 0);
        return;
    }
    ++state.expected;
    dataReceived(NORVA::BufferCS_const{request.body(), request.bodySize()}, slotIndex, packet, block);
}

void Target::transferCheckRequest(const Receive& request, const NORVA::IPAddress& source) {
    const std::uint16_t slot = request.param0();
    std::uint16_t crc = request.param1(), checkState = request.param2();
    bool passed = slot != 0 && slot <= config.slotCount && !refusedAsReadOnly("slot check", source) &&
                  transferCheck(slot - 1, crc, checkState);
    Send answer(MessageType::TRANSFERCHECK_ANS, 0);
    if (passed) answer.setHeader(MessageType::TRANSFERCHECK_ANS, flagYes, slot, crc, checkState, 0);
    reply(answer, source, MessageType::TRANSFERCHECK_ANS);
}

void Target::slotList(const Receive& request, const NORVA::IPAddress& source) {
    const std::uint16_t number = request.param0();
    const auto count = static_cast<std::uint16_t>(config.slotDescriptions.size());
    SendBuffer answer(MessageType::SLOTLIST_ANS, flagYes, count, 0, 0, 0);
    if (number > count) {
        answer.setHeader(MessageType::SLOTLIST_ANS, 0);
    } else if (number != 0) {
        const SlotDescription& description = config.slotDescriptions[number - 1];
        answer.setHeader(MessageType::SLOTLIST_ANS, flagYes, number, description.value, 0, 0);
        answer.setBodyText(description.name);
        answer.appendBodyText(description.text);
    }
    reply(answer, source, MessageType::SLOTLIST_ANS);
}

void Target::dataReceived(NORVA::BufferCS_const data, std::uint16_t, std::uint16_t packetIndex,
                          std::uint16_t block) {
    if (packetIndex == 0 && block == 0) {
        transferData.clear();
        transferCrc = crc16(nullptr, 0);
        transferOverrun = false;
    }
    // The sequence number wraps, so frames in sequence alone don't end a
    // transfer: what is kept stops at the slot's size.
    std::size_t start = transferData.size();
    if (data.size > slotBytes() - std::min(start, slotBytes())) {
        if (!transferOverrun)
            NORVA::LogLine(3) << "TRANSFERDATA_SET beyond the slot's " << slotBytes() << " bytes";
        transferOverrun = true;
        return;
    }
    transferCrc = crc16(data.data, data.size, transferCrc);
    transferData.resize(start + data.size);
    if (data.size != 0) std::copy(data.data, data.data + data.size, transferData.data() + start);
}

std::size_t Target::slotBytes() const {
    std::uint64_t bytes =
        std::uint64_t{config.slots[0] + 1u} * (config.slots[1] + 1u) * (config.slots[2] + 1u);
    return static_cast<std::size_t>(std::min<std::uint64_t>(bytes, maxSlotBytes));
}

bool Target::transferCheck(std::uint16_t, std::uint16_t& crc, std::uint16_t& checkState) {
    if (checkState != plainState) return false;
    if (crc == transferCrc) return true;
    crc = transferCrc;
    return false;
}

}  // namespace VELMORA
