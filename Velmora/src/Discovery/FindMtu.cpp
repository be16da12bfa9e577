#include <cstdlib>
#include <string>

#include "Discovery/Find.h"
#include "Protocol/MessageTypes.h"
#include "System/Log.h"

namespace VELMORA {

namespace {

// IPv6 and UDP headers: a probe for an MTU m carries m - 48 bytes.
constexpr std::uint32_t ipAndUdpHeaders = 48;
// At or below this the probe would hold no body.
constexpr std::uint32_t smallestCandidate = 64;
constexpr std::uint32_t assumedMtu = 1500;
constexpr int probeTries = 3;
const NORVA::TimeValue probeWait = NORVA::TimeValue::fromMs(10);

enum class Probe { passed, silent, damaged, unsupported, socketFailed };

const char* const noSupport = "nosupport";

void logResult(const std::string& interfaceMtu, const std::string& activeMtu) {
    NORVA::LogLine(6) << "InterfaceMTU=" << interfaceMtu << " ActiveMtu=" << activeMtu;
}

// Waits 10 ms for the answer to the probe of `bit`: a late answer to an
// earlier probe, or a datagram from elsewhere, doesn't end the wait.
Probe awaitProbeAnswer(Connection& connection, const NORVA::IPAddress& destination, std::uint32_t candidate,
                       std::uint16_t bit, std::uint16_t sum) {
    ConnectionBuffer answer(*connection.socket);
    NORVA::TimeValue deadline = NORVA::TimeValue::now() + probeWait;
    for (;;) {
        NORVA::TimeValue now = NORVA::TimeValue::now();
        NORVA::TimeValue left = deadline > now ? deadline - now : NORVA::TimeValue();
        NORVA::IPAddress source;
        if (!connection.receive(answer, &source, left)) return Probe::socketFailed;
        if (answer.isEmpty()) return Probe::silent;
        if (!answer.isValid()) {
            NORVA::LogLine(7) << "sendAck RCV errpacket";
            continue;
        }
        if (!(source == destination)) continue;
        if (answer.type() == MessageType::MTUTEST_REQ) return Probe::unsupported;
        if (answer.type() != MessageType::MTUTEST_ANS || answer.param1() != bit) continue;
        if (answer.bodySize() < 4) continue;
        const std::uint8_t* body = answer.body();
        std::uint32_t received = readU16(body) | std::uint32_t{readU16(body + 2)} << 16;
        bool whole = received == candidate - ipAndUdpHeaders && answer.param3() == sum;
        return whole ? Probe::passed : Probe::damaged;
    }
}

// A frame of exactly m - 48 bytes of random body; its length field is
// rounded down, so the target must count what arrived.
std::uint16_t buildProbe(ConnectionBuffer& probe, std::uint32_t candidate, std::uint16_t bit) {
    auto size = static_cast<std::uint16_t>(candidate - ipAndUdpHeaders);
    probe.setFrameSize(size);
    std::uint16_t sum = 0;
    std::uint8_t* body = probe.body();
    for (std::uint32_t i = 0; i < size - headerSize; ++i) {
        body[i] = static_cast<std::uint8_t>(std::rand());
        sum = static_cast<std::uint16_t>(sum + body[i]);
    }
    probe.setHeader(MessageType::MTUTEST_REQ, 0, 0, bit, 0, 0);
    probe.finish();
    return sum;
}

}  // namespace

bool Find::getInterfaceMtu(std::uint32_t scope, std::uint32_t& mtu) {
    mtu = 0;
    std::vector<LocalAddressEntry> locals;
    getMyLocalAddresV6(locals, true, false);
    for (const LocalAddressEntry& local : locals) {
        if (local.address.scope() != scope) continue;
        mtu = local.mtu;
        return true;
    }
    return false;
}

bool Find::measureMtu(const NORVA::IPAddress& address, std::uint32_t& activeMtu) {
    std::uint32_t interfaceMtu = 0;
    return measureMtu(address, activeMtu, interfaceMtu);
}

bool Find::measureMtu(const NORVA::IPAddress& address, std::uint32_t& activeMtu,
                      std::uint32_t& interfaceMtu) {
    activeMtu = assumedMtu;
    interfaceMtu = 0;
    NORVA::IPAddress destination = address;
    destination.setPort(targetPort);
    if (!getInterfaceMtu(destination.scope(), interfaceMtu)) return false;

    std::uint32_t result = 0;
    for (int bit = 15; bit >= 0; --bit) {
        std::uint32_t candidate = result | 1u << bit;
        if (candidate > interfaceMtu) continue;
        if (candidate <= smallestCandidate) {
            logResult(noSupport, noSupport);
            return false;
        }
        ConnectionBuffer probe(*socket, destination);
        std::uint16_t sum = buildProbe(probe, candidate, static_cast<std::uint16_t>(bit));
        Probe outcome = Probe::silent;
        for (int tries = 0; tries < probeTries && outcome == Probe::silent; ++tries) {
            if (!socket->send(*probe.frame)) return false;
            outcome = awaitProbeAnswer(*this, destination, candidate, static_cast<std::uint16_t>(bit), sum);
        }
        if (outcome == Probe::socketFailed) return false;
        if (outcome == Probe::unsupported) {
            logResult(std::to_string(interfaceMtu), noSupport);
            return true;
        }
        if (outcome == Probe::passed) result = candidate;
    }
    activeMtu = result;
    logResult(std::to_string(interfaceMtu), std::to_string(activeMtu));
    return true;
}

}  // namespace VELMORA
