#include <cstring>

#include "Discovery/Find.h"
#include "Protocol/MessageTypes.h"
#include "System/Log.h"

namespace VELMORA {

namespace {

constexpr int searchRounds = 3;
// Far more targets than one link holds; beyond it, answers are a flood.
constexpr std::size_t maxAnswers = 256;
constexpr std::uint16_t portMapBytes = 512;
// Above this index a port is asked for without looking at the map.
constexpr std::uint16_t portMapLimit = 4095;
// The list form of PORT_REQ answers with both lists' maps.
constexpr std::uint32_t portAnswerBodySize = 2 * portMapBytes;
constexpr std::string_view myAddressMark = "[myaddress]";
// Reading one target's ports ends here, however many it lists: a target that
// lists thousands and then stays silent, or points each at a silent sink,
// would otherwise hold init for an hour.
constexpr NORVA::TimeValue portWalkLimit = NORVA::TimeValue::fromSeconds(2);

bool portWalkLeft(NORVA::TimeValue began, const NORVA::IPAddress& address) {
    if (NORVA::TimeValue::now() - began < portWalkLimit) return true;
    NORVA::LogLine(4) << "Velmora Find ports of " << address << " cut after " << portWalkLimit.toMs()
                      << " ms";
    return false;
}

bool isDiscoverAnswer(const ConnectionBuffer& frame) {
    return frame.isValid() && frame.type() == MessageType::DISCOVER_ANS && (frame.flags() & flagYes) != 0;
}

bool portIsListed(const std::uint8_t* map, std::uint16_t count, std::uint16_t index) {
    if (count > portMapLimit || index > portMapLimit) return true;
    return (map[index / 8] >> (index % 8) & 1) != 0;
}

// The first "[myaddress]" becomes the target's address in brackets.
void fillInMyAddress(std::string& text, const NORVA::IPAddress& address) {
    std::string::size_type at = text.find(myAddressMark);
    if (at != std::string::npos) text.replace(at, myAddressMark.size(), "[" + address.toString() + "]");
}

}  // namespace

bool Find::FindMulti(ConnectionBuffer& probe, AnswerMap& answers, bool loopback) {
    bool capLogged = false;
    std::vector<LocalAddressEntry> locals;
    getMyLocalAddresV6(locals, loopback, true);
    for (const LocalAddressEntry& local : locals) {
        NORVA::LogLine(7) << "Find Multi Send : " << local.address.scope();
        NORVA::IPAddress destination = local.address.isLoopback()
                                           ? NORVA::IPAddress::loopback(targetPort)
                                           : NORVA::IPAddress::multicast(0xff02, targetPort);
        if (!local.address.isLoopback()) destination.setScope(local.address.scope());
        // An interface that refuses multicast simply gives no answers.
        probe.frame->setPeer(destination);
        probe.frame->commit();
        socket->send(*probe.frame);
        for (const NORVA::IPAddress& extra : extraTargets) {
            probe.frame->setPeer(extra);
            probe.frame->commit();
            socket->send(*probe.frame);
        }

        // What is already there is taken after the deadline too; the list
        // stops growing at its cap, so a flood can't swell a search.
        NORVA::TimeValue deadline = NORVA::TimeValue::now() + ackTimeout;
        for (;;) {
            auto frame = std::make_unique<ConnectionBuffer>(*socket);
            NORVA::TimeValue now = NORVA::TimeValue::now();
            NORVA::TimeValue wait = deadline > now ? deadline - now : NORVA::TimeValue();
            NORVA::IPAddress source;
            if (!receive(*frame, &source, wait)) return false;
            if (frame->isEmpty()) break;
            NORVA::LogLine(7) << "Find Multi Ack Rcv";
            if (!isDiscoverAnswer(*frame)) continue;
            NORVA::LogLine(7) << "FindMultiAck[" << source.scope() << "]Valid : " << source;
            if (answers.size() >= maxAnswers && answers.find(source) == answers.end()) {
                if (!capLogged)
                    NORVA::LogLine(4) << "Find Multi more than " << maxAnswers << " targets, ignored";
                capLogged = true;
                continue;
            }
            answers[source] = std::move(frame);
        }
    }
    return true;
}

bool Find::searchTargets(TargetMap& targets) {
    targets.clear();
    ConnectionBuffer probe(*socket, NORVA::IPAddress(), MessageType::DISCOVER);
    AnswerMap answers;
    for (int round = 0; round < searchRounds; ++round) {
        if (!FindMulti(probe, answers, settings.withLoopback)) return false;
    }
    // Every target that answered hears our name, also one that the filter refuses.
    for (const auto& [source, answer] : answers) {
        if (!setSyncName(source)) return false;
        std::uint64_t id = acceptTarget(answer->paramU64());
        if (id == noProductId) continue;
        TargetEntry& entry = targets[source];
        entry.productId = id;
        answer->bodyText(entry.name);
    }
    return true;
}

bool Find::isAlive(const NORVA::IPAddress& address) {
    ConnectionBuffer answer(*socket);
    return ask(address, MessageType::DISCOVER, 0, 0, 0, 0, answer) && !answer.isEmpty();
}

bool Find::probeTarget(const NORVA::IPAddress& address, std::uint64_t& id, std::string& name) {
    id = noProductId;
    name.clear();
    ConnectionBuffer answer(*socket);
    if (!ask(address, MessageType::DISCOVER, 0, 0, 0, 0, answer)) return false;
    if (!answer.isEmpty()) {
        answer.bodyText(name);
        id = acceptTarget(answer.paramU64());
    }
    return setSyncName(address);
}

bool Find::setSyncName(const NORVA::IPAddress& address) {
    ConnectionBuffer request(*socket, address);
    request.setHeader(MessageType::SYNCNAME_SET, flagYes, settings.productId);
    request.setBodyText(settings.clientName);
    request.finish();
    ConnectionBuffer answer(*socket);
    return ask(address, request, answer);
}

bool Find::readPortList(const NORVA::IPAddress& address, std::uint16_t& count, std::uint16_t& secondCount,
                        std::uint8_t* map) {
    count = 0;
    secondCount = 0;
    // Without a map from the target every index up to the count is asked for.
    if (map != nullptr) std::memset(map, 0xFF, portMapBytes);
    if (!breakNopIfSet(address)) return false;
    ConnectionBuffer answer(*socket);
    if (!ask(address, MessageType::PORT_REQ, 0, 0, 0, 1, answer)) return false;
    if (answer.isEmpty()) return true;
    // A target with classes of ports: ask for class 1.
    if (answer.param2() != 0) {
        if (!ask(address, MessageType::PORT_REQ, 0, 0, 1, 1, answer)) return false;
        if (answer.isEmpty()) return true;
    }
    if ((answer.param2() & 1) == 0 && answer.param2() != 0) return true;
    count = answer.param0();
    secondCount = answer.param1();
    if (map != nullptr && answer.bodySize() == portAnswerBodySize)
        std::memcpy(map, answer.body(), portMapBytes);
    return true;
}

bool Find::readPort(const NORVA::IPAddress& address, std::uint16_t portIndex, NORVA::IPAddress& sinkAddress,
                    std::uint16_t& version, std::string& outputName, std::uint16_t channelInfo[4]) {
    sinkAddress.clear();
    std::fill(channelInfo, channelInfo + 4, 0);
    if (!breakNopIfSet(address)) return false;
    ConnectionBuffer answer(*socket);
    if (!ask(address, MessageType::PORT_REQ, portIndex, 0, 1, 1, answer)) return false;
    if (answer.isEmpty() || answer.param2() == 0) return true;
    version = answer.param3();
    answer.bodyText(outputName);
    if (settings.protocolVersion != 0 && version > settings.protocolVersion) {
        NORVA::LogLine(6) << "Velmora Find protocol version not much : " << settings.protocolVersion << "<"
                          << version;
        return true;
    }
    sinkAddress = address;
    sinkAddress.setPort(answer.param2());
    if (!ask(sinkAddress, MessageType::SYNCHRO_CHANNEL_REQ, 0, 0, 0, 0, answer)) return false;
    if (!answer.isEmpty()) {
        for (int i = 0; i < 4; ++i) channelInfo[i] = answer.received().param(i);
    }
    return true;
}

bool Find::readTargetName(const NORVA::IPAddress& address, std::string& targetName) {
    targetName.clear();
    ConnectionBuffer answer(*socket);
    if (!ask(address, MessageType::TARGETNAME_REQ, 0, 0, 0, 0, answer)) return false;
    if (answer.isEmpty()) return true;
    answer.bodyText(targetName);
    fillInMyAddress(targetName, address);
    return true;
}

bool Find::readTargetRecords(const TargetMap& targets, TargetRecordMap& records) {
    records.clear();
    for (const auto& [address, target] : targets) {
        std::uint16_t count = 0;
        std::uint16_t secondCount = 0;
        std::uint8_t map[portMapBytes];
        std::string targetName;
        if (!setSyncName(address) || !readPortList(address, count, secondCount, map)) return false;
        if (!readTargetName(address, targetName)) return false;

        TargetRecord* previous = nullptr;
        const NORVA::TimeValue began = NORVA::TimeValue::now();
        for (std::uint32_t index = 1; index <= count; ++index) {
            auto portIndex = static_cast<std::uint16_t>(index);
            if (!portIsListed(map, count, portIndex)) continue;
            if (!portWalkLeft(began, address)) break;
            NORVA::IPAddress sinkAddress;
            TargetRecord found;
            if (!readPort(address, portIndex, sinkAddress, found.version, found.outputName,
                          found.channelInfo)) {
                return false;
            }
            if (sinkAddress.isAnyNoPort()) continue;
            TargetRecord& record = records[sinkAddress];
            record = found;
            record.productId = target.productId;
            record.name = target.name;
            record.portIndex = portIndex;
            record.targetName = targetName;
            record.targetAddress = address;
            NORVA::LogLine(7) << "Velmora Find Sink Out: " << record.name << " " << record.portIndex << " "
                              << record.version << " [" << address.scope() << "]";
            if (previous != nullptr) previous->severalSinks = record.severalSinks = true;
            previous = &record;
        }
    }
    return true;
}

bool Find::readTarget(NORVA::IPAddress address, std::uint16_t portIndex, NORVA::IPAddress& sinkAddress,
                      TargetRecord& record) {
    sinkAddress.clear();
    address.setPort(targetPort);
    // Ports count from 1. Index 0, the default, takes the first port the target
    // lists rather than failing, so a user who names only a target gets its sink.
    if (portIndex == 0) return readFirstTarget(address, sinkAddress, record);
    std::vector<LocalAddressEntry> locals;
    getMyLocalAddresV6(locals, settings.withLoopback, false);
    for (const LocalAddressEntry& local : locals) {
        // ::1 reaches only ::1, and a link address only the links.
        if (address.isLoopback() != local.address.isLoopback()) continue;
        address.setScope(local.address.scope());
        record.name.clear();
        std::string outputName;  // the caller's record keeps its own
        if (!readPort(address, portIndex, sinkAddress, record.version, outputName, record.channelInfo)) {
            return false;
        }
        if (sinkAddress.isAnyNoPort()) continue;
        record.portIndex = portIndex;
        record.controlIndex = 0;
        record.targetAddress = address;
        ConnectionBuffer answer(*socket);
        if (!ask(address, MessageType::DISCOVER, 0, 0, 0, 0, answer)) return false;
        if (!answer.isEmpty()) answer.bodyText(record.name);
        return readTargetName(address, record.targetName);
    }
    return true;
}

bool Find::readFirstTarget(const NORVA::IPAddress& address, NORVA::IPAddress& sinkAddress,
                           TargetRecord& record) {
    std::vector<LocalAddressEntry> locals;
    getMyLocalAddresV6(locals, settings.withLoopback, false);
    for (const LocalAddressEntry& local : locals) {
        if (address.isLoopback() != local.address.isLoopback()) continue;
        NORVA::IPAddress scoped = address;
        scoped.setScope(local.address.scope());
        std::uint16_t count = 0;
        std::uint16_t secondCount = 0;
        std::uint8_t map[portMapBytes];
        if (!readPortList(scoped, count, secondCount, map)) return false;
        const NORVA::TimeValue began = NORVA::TimeValue::now();
        for (std::uint32_t index = 1; index <= count; ++index) {
            if (!portIsListed(map, count, std::uint16_t(index))) continue;
            if (!portWalkLeft(began, scoped)) break;
            if (!readTarget(address, std::uint16_t(index), sinkAddress, record)) return false;
            if (!sinkAddress.isAnyNoPort()) return true;
        }
    }
    return true;
}

}  // namespace VELMORA
