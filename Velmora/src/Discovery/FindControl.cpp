#include <algorithm>

#include "Discovery/Find.h"
#include "Protocol/MessageTypes.h"
#include "System/Log.h"

namespace VELMORA {

namespace {

constexpr std::uint16_t statusKindControl = 0;
constexpr std::uint16_t statusKindFirstSink = 1;
constexpr std::uint16_t statusKindOtherSink = 2;

bool sameHost(const NORVA::IPAddress& a, const NORVA::IPAddress& b) {
    NORVA::IPAddress left = a;
    NORVA::IPAddress right = b;
    left.setPort(0);
    right.setPort(0);
    return left == right;
}

bool sameAddressBytes(const NORVA::IPAddress& a, const NORVA::IPAddress& b) {
    return std::equal(std::begin(a.address), std::end(a.address), std::begin(b.address));
}

StatusLink linkOf(const NORVA::IPAddress& key, const TargetStatus& status, bool origin) {
    StatusLink link;
    static_cast<TargetStatus&>(link) = status;
    link.entryAddress = key;
    link.last = true;
    link.origin = origin;
    return link;
}

// Puts the feeder behind the first link that its peer names; false if none does.
bool attachFeeder(const NORVA::IPAddress& key, const TargetStatus& status, std::vector<StatusLink>& chain) {
    for (std::size_t i = 0; i < chain.size(); ++i) {
        if (!sameAddressBytes(status.peer, chain[i].entryAddress) || status.peer.port() != chain[i].index) {
            continue;
        }
        chain[i].last = false;
        chain.insert(chain.begin() + static_cast<std::ptrdiff_t>(i) + 1, linkOf(key, status, false));
        return true;
    }
    return false;
}

}  // namespace

// ---- status --------------------------------------------------------------------

bool Find::readStatus(const TargetMap& targets, TargetStatusMap& statuses) {
    statuses.clear();
    for (const auto& [address, target] : targets) {
        std::uint16_t count = 0;
        if (!setSyncName(address) || !readStatusCount(address, count)) return false;
        for (std::uint32_t index = 1; index <= count; ++index) {
            TargetStatus status;
            NORVA::IPAddress entryAddress;
            status.index = static_cast<std::uint16_t>(index);
            if (!readStatusEntry(address, status.index, entryAddress, status.version, status.statusText,
                                 status.peer, status.kind)) {
                return false;
            }
            if (entryAddress.isAnyNoPort()) continue;
            status.productId = target.productId;
            status.name = target.name;
            NORVA::LogLine(7) << "Velmora Find Status: " << status.statusText << " " << status.index << " "
                              << status.version << " [" << status.peer.scope() << "]" << status.kind;
            statuses[entryAddress] = status;
        }
    }
    return true;
}

bool Find::readStatusCount(const NORVA::IPAddress& address, std::uint16_t& count) {
    count = 0;
    if (!breakNopIfSet(address)) return false;
    ConnectionBuffer answer(*socket);
    if (!ask(address, MessageType::STATUS_REQ, 0, 0, 0, 1, answer)) return false;
    if (!answer.isEmpty()) count = answer.param0();
    return true;
}

bool Find::readStatusEntry(const NORVA::IPAddress& address, std::uint16_t index,
                           NORVA::IPAddress& entryAddress, std::uint16_t& version, std::string& text,
                           NORVA::IPAddress& peer, std::uint16_t& kind) {
    entryAddress.clear();
    if (!breakNopIfSet(address)) return false;
    ConnectionBuffer answer(*socket);
    if (!ask(address, MessageType::STATUS_REQ, index, 0, 0, 1, answer)) return false;
    if (answer.isEmpty()) return true;
    version = answer.param3();
    answer.bodyAddressAndText(peer, text);
    if (settings.protocolVersion != 0 && settings.protocolVersion < version) {
        NORVA::LogLine(6) << "Velmora Find protocol version not much : " << settings.protocolVersion << "<"
                          << version;
        return true;
    }
    entryAddress = address;
    entryAddress.setPort(answer.param2());
    kind = answer.param1();
    return true;
}

void Find::traceChain(std::uint16_t port, bool first, const NORVA::IPAddress& address,
                      const TargetStatusMap& statuses, std::vector<StatusLink>& chain) {
    chain.clear();
    std::uint16_t sinkKind = first ? statusKindFirstSink : statusKindOtherSink;
    for (const auto& [key, status] : statuses) {
        if (status.kind == sinkKind && status.peer.isLoopback() && status.peer.port() == port &&
            sameHost(key, address)) {
            chain.push_back(linkOf(key, status, true));
        }
    }
    bool grown = true;
    while (grown) {
        grown = false;
        for (const auto& [key, status] : statuses) {
            if (status.kind != statusKindControl || status.peer.isLoopback()) continue;
            if (!address.isLoopback() && !key.isLoopback() && key.scope() != address.scope()) continue;
            // A named reference: clang 14 can't capture a structured binding.
            const NORVA::IPAddress& entry = key;
            bool known = std::any_of(chain.begin(), chain.end(),
                                     [&entry](const StatusLink& link) { return link.entryAddress == entry; });
            if (!known && attachFeeder(key, status, chain)) grown = true;
        }
    }
}

// ---- texts, restart, information -----------------------------------------------

bool Find::readTextAnswer(const NORVA::IPAddress& address, std::uint16_t type, std::string& text) {
    text.clear();
    ConnectionBuffer answer(*socket);
    if (!ask(address, type, 0, 0, 0, 0, answer)) return false;
    if (!answer.isEmpty()) answer.bodyText(text);
    return true;
}

bool Find::readText1(const NORVA::IPAddress& address, std::string& text) {
    return readTextAnswer(address, MessageType::TARGETTEXT1_REQ, text);
}

bool Find::readText2(const NORVA::IPAddress& address, std::string& text) {
    return readTextAnswer(address, MessageType::TARGETTEXT2_REQ, text);
}

bool Find::restartTarget(const NORVA::IPAddress& address, bool doIt, std::uint16_t code) {
    ConnectionBuffer answer(*socket);
    return ask(address, MessageType::RESTART_REQ, doIt ? code : 0, 0, 0, 0, answer) && !answer.isEmpty();
}

bool Find::readInfoBytes(const NORVA::IPAddress& address, std::uint16_t selector,
                         std::vector<std::uint8_t>& bytes) {
    bytes.clear();
    ConnectionBuffer answer(*socket);
    if (!ask(address, MessageType::TARGETINFO_REQ, selector, 0, 0, 0, answer)) return false;
    if (!answer.isEmpty()) bytes.assign(answer.body(), answer.body() + answer.bodySize());
    return true;
}

bool Find::readInfoText(const NORVA::IPAddress& address, std::uint16_t selector, std::string& text) {
    text.clear();
    ConnectionBuffer answer(*socket);
    if (!ask(address, MessageType::TARGETINFO_REQ, selector, 0, 0, 0, answer)) return false;
    if (!answer.isEmpty()) answer.bodyText(text);
    return true;
}

bool Find::readInfoList(const NORVA::IPAddress& address, std::uint16_t selector,
                        std::vector<std::string>& list) {
    list.clear();
    ConnectionBuffer answer(*socket);
    if (!ask(address, MessageType::TARGETINFO_REQ, selector, 0, 0, 0, answer)) return false;
    if (answer.isEmpty()) return true;
    std::uint16_t size = answer.param2();
    for (std::uint16_t index = 0;;) {
        answer.bodyText(list.emplace_back());
        if (++index >= size) return true;
        if (!ask(address, MessageType::TARGETINFO_REQ, selector, index, 0, 0, answer)) return false;
        if (answer.isEmpty()) return true;
    }
}

}  // namespace VELMORA
