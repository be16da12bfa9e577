#include <algorithm>
#include <cstring>

#include "Discovery/Find.h"
#include "Protocol/Crc16.h"
#include "Protocol/MessageTypes.h"
#include "System/Log.h"

namespace VELMORA {

namespace {

// TRANSFERDATA_SET: the slot number's bit that asks for an acknowledgement.
constexpr std::uint16_t ackWanted = 0x8000;
constexpr std::uint16_t slotNumberMask = 0x7FFF;
// The state word of a check; any other value from the target fails it.
constexpr std::uint16_t checkState = 0xFFFF;
constexpr std::uint16_t unlimitedWindow = 0xFFFF;
constexpr int maxRepetitions = 10;
// The largest body of one frame.
constexpr std::uint32_t maxPacketSize = 0xFFF8 - headerSize;
const NORVA::TimeValue ackWait = NORVA::TimeValue::fromSeconds(1);
const NORVA::TimeValue drainWait = NORVA::TimeValue::fromMs(100);

// Numbers of the socket error lines, telling the four places apart.
constexpr int firstSendFailed = 682;
constexpr int repeatedSendFailed = 701;
constexpr int ackReceiveFailed = 719;
constexpr int drainReceiveFailed = 756;

bool socketError(int place) {
    NORVA::LogLine(3) << "UDP stream send error " << place;
    return false;
}

bool failure(const char* text) {
    NORVA::LogLine(3) << text;
    return false;
}

// Each value on the wire is one less than it stands for.
struct SlotGeometry {
    std::uint32_t packetSize;
    std::uint32_t packetsPerBlock;
    std::uint32_t blockCount;

    explicit SlotGeometry(const ConnectionBuffer& answer)
        : packetSize(answer.param1() + 1u),
          packetsPerBlock(answer.param2() + 1u),
          blockCount(answer.param3() + 1u) {}
    // In 32 bits, as the target computes it.
    std::uint32_t capacity() const { return packetSize * packetsPerBlock * blockCount; }
};

// Sends the data of one transfer in windowed bursts, each ended by a frame
// that asks for an acknowledgement; repeats a burst from the first frame
// that the target missed.
class SlotWriter {
  public:
    SlotWriter(NORVA::UDPV6& socket, const NORVA::IPAddress& address, std::uint16_t slotNumber,
               NORVA::BufferCS_const data, std::uint32_t window, const SlotGeometry& geometry)
        : socket(socket),
          slotNumber(slotNumber),
          data(data),
          window(window),
          geometry(geometry),
          pool(socket, address, noMac, noMac, 0, 0, FramingMode::header),
          ackFrame(socket),
          remaining(data.size) {
        pool.resize(geometry.packetsPerBlock);
    }

    bool run(const Find::Progress& progress) {
        for (std::uint32_t block = 0; remaining != 0; ++block) {
            progress(static_cast<unsigned short>(block), static_cast<unsigned short>(geometry.blockCount));
            packetIndex = 0;
            std::uint32_t packets = (remaining + geometry.packetSize - 1) / geometry.packetSize;
            packetsLeft = std::min(packets, geometry.packetsPerBlock);
            while (packetsLeft != 0) {
                if (!sendBurst(static_cast<std::uint16_t>(block))) return false;
            }
        }
        return true;
    }

  private:
    static constexpr std::uint8_t noMac[6] = {};

    // Fills the pool's first buffers with the frames of the next burst.
    std::size_t buildBurst(std::uint16_t block) {
        std::uint32_t burstBytes = 0;
        std::size_t count = 0;
        for (bool last = false; !last; ++count) {
            ConnectionBuffer& frame = pool[count];
            std::uint32_t chunk = std::min(geometry.packetSize, remaining);
            frame.setBodySize(static_cast<std::uint16_t>(chunk));
            std::memcpy(frame.body(), data.data + (data.size - remaining), chunk);
            burstBytes += chunk;
            remaining -= chunk;
            --packetsLeft;
            last = burstBytes >= window || remaining == 0 || packetsLeft == 0;
            auto param0 = static_cast<std::uint16_t>(slotNumber | (last ? ackWanted : 0));
            frame.setHeader(MessageType::TRANSFERDATA_SET, 0, param0, sequence, packetIndex, block);
            frame.finish();
            lastSequence = sequence++;
            ++packetIndex;
        }
        return count;
    }

    bool sendBurst(std::uint16_t block) {
        std::size_t count = buildBurst(block);
        for (std::size_t i = 0; i < count; ++i) {
            if (!socket.send(*pool[i].frame)) return socketError(firstSendFailed);
        }
        for (int repetitions = 0;;) {
            std::uint16_t ack = 0;
            if (!awaitAck(ack)) return false;
            if (ack == lastSequence) return true;
            if (ack == lastSequence + 1u) {
                NORVA::LogLine(6) << "Retry Redy Pass " << lastSequence << " " << ack;
                return true;
            }
            NORVA::LogLine(6) << "Retry Detect err " << lastSequence << " " << ack;
            if (!drainAcks()) return false;
            shrinkWindow();
            NORVA::LogLine(6) << "resend " << count;
            if (++repetitions > maxRepetitions) {
                NORVA::LogLine(3) << "Transfer error " << repetitions;
                return false;
            }
            if (!repeatFrom(ack, count)) return false;
        }
    }

    // The target names the first sequence number that it missed; the last
    // frame goes again in any case, since it carries the request for an
    // acknowledgement.
    bool repeatFrom(std::uint16_t ack, std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            ConnectionBuffer& frame = pool[i];
            if (frame.header.param(1) < ack && i + 1 != count) continue;
            NORVA::LogLine(6) << "resend " << frame.header.param(3) << " " << frame.header.param(2) << " "
                              << frame.header.param(1) << " data=" << frame.bodySize();
            if (!socket.send(*frame.frame)) return socketError(repeatedSendFailed);
        }
        return true;
    }

    // Further acknowledgements of the burst would be taken for the answer
    // to its repetition.
    bool drainAcks() {
        if (!socket.receive(ackFrame.frame.get(), drainWait)) return socketError(drainReceiveFailed);
        return true;
    }

    void shrinkWindow() {
        if (window > 1000) {
            window -= 1000;
        } else if (window > 1) {
            window -= 1;
        }
    }

    bool awaitAck(std::uint16_t& ack) {
        NORVA::TimeValue deadline = NORVA::TimeValue::now() + ackWait;
        for (;;) {
            NORVA::TimeValue now = NORVA::TimeValue::now();
            NORVA::TimeValue left = deadline > now ? deadline - now : NORVA::TimeValue();
            NORVA::IPAddress source;
            if (!socket.receiveFrom(ackFrame.frame.get(), source, left)) return socketError(ackReceiveFailed);
            // A lost last frame or acknowledgement isn't repeated: it ends the transfer.
            if (ackFrame.isEmpty()) return failure("Transfer Timeout error ");
            if (ackFrame.type() != MessageType::TRANSFERDATA_ANS) continue;
            if ((ackFrame.flags() & flagYes) == 0) return failure("Transfer NAK error ");
            if (ackFrame.param0() != slotNumber) return failure("Transfer NO error ");
            ack = ackFrame.param1();
            return true;
        }
    }

    NORVA::UDPV6& socket;
    std::uint16_t slotNumber;
    NORVA::BufferCS_const data;
    std::uint32_t window;
    SlotGeometry geometry;
    ConnectionBufferPool pool;
    ConnectionBuffer ackFrame;
    std::uint32_t remaining;
    std::uint32_t packetsLeft = 0;
    std::uint16_t packetIndex = 0;
    std::uint16_t sequence = 0;
    std::uint16_t lastSequence = 0;
};

}  // namespace

bool Find::Transfer(const NORVA::IPAddress& address, int slot, NORVA::BufferCS_const data,
                    unsigned int limit) {
    return Transfer(address, slot, data, limit,
                    [](const unsigned short& block, const unsigned short& blocks) {
                        NORVA::LogLine(7) << "Transfer " << block << "/" << blocks;
                    });
}

bool Find::Transfer(const NORVA::IPAddress& address, int slot, NORVA::BufferCS_const data, unsigned int limit,
                    const Progress& progress) {
    NORVA::LogLine(6) << "check Transfer " << address << " index=" << slot;
    if (slot < 0 || slot >= slotNumberMask) return failure("no support slot ");
    auto slotNumber = static_cast<std::uint16_t>(slot + 1);

    ConnectionBuffer answer(*socket);
    if (!ask(address, MessageType::TRANSFERINFO_REQ, 0, 0, 0, 0, answer)) {
        return failure("no support or scoket err ");
    }
    if (answer.isEmpty()) return failure("no support Transfer ");
    if (answer.param0() < slotNumber) {
        NORVA::LogLine(3) << "no support Transfer " << answer.param0();
        return false;
    }
    std::uint32_t window = answer.param1() == unlimitedWindow ? ~0u : answer.param1();
    if (limit != 0) window = std::min(window, limit);

    if (!ask(address, MessageType::TRANSFERINFO_REQ, slotNumber, 0, 0, 0, answer)) {
        return failure("no support slot or scoket err ");
    }
    if (answer.isEmpty()) return failure("no support slot ");
    if (answer.param0() != slotNumber) {
        NORVA::LogLine(3) << "no support slot " << answer.param0();
        return false;
    }
    SlotGeometry geometry(answer);
    if (geometry.capacity() < data.size) {
        NORVA::LogLine(3) << "slot siz miss " << geometry.capacity() << "<" << data.size << " "
                          << answer.param1() << " " << answer.param2() << answer.param3();
        return false;
    }
    if (geometry.packetSize > maxPacketSize && data.size > maxPacketSize) {
        NORVA::LogLine(3) << "slot packet size too large " << geometry.packetSize;
        return false;
    }

    NORVA::LogLine(6) << "start Transfer " << data.size << " " << window;
    if (!SlotWriter(*socket, address, slotNumber, data, window, geometry).run(progress)) return false;

    std::uint16_t state = checkState;
    if (!checkTransfer(address, slot, crc16(data.data, data.size), state))
        return failure("TransferFinish error ");
    if (state != checkState) return failure("TransferStrp error ");
    NORVA::LogLine(6) << "compleat Transfer ";
    return true;
}

bool Find::checkTransfer(const NORVA::IPAddress& address, int slot, std::uint16_t crc, std::uint16_t& state) {
    auto slotNumber = static_cast<std::uint16_t>(slot + 1);
    ConnectionBuffer answer(*socket);
    if (!ask(address, MessageType::TRANSFERCHECK_REQ, slotNumber, crc, state, 0, answer)) return false;
    if (answer.isEmpty() || answer.param0() != slotNumber || answer.param1() != crc) return false;
    state = answer.param2();
    return true;
}

bool Find::readSlotList(const NORVA::IPAddress& address, std::vector<SlotDescription>& list) {
    list.clear();
    ConnectionBuffer answer(*socket);
    if (!ask(address, MessageType::SLOTLIST_REQ, 0, 0, 0, 0, answer) || answer.isEmpty()) return false;
    std::uint16_t count = answer.param0();
    for (std::uint32_t number = 1; number <= count; ++number) {
        if (!ask(address, MessageType::SLOTLIST_REQ, static_cast<std::uint16_t>(number), 0, 0, 0, answer)) {
            return false;
        }
        if (answer.isEmpty() || answer.param0() != number) return false;
        std::vector<std::string> strings;
        answer.bodyTextList(strings);
        if (strings.size() < 2) return false;
        list.push_back(SlotDescription{strings[0], strings[1], answer.param1()});
    }
    return true;
}

}  // namespace VELMORA
