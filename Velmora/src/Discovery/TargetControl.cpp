// The control messages of discovery and information: what a host reads
// from a target.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "Discovery/Target.h"
#include "Network/Interfaces.h"
#include "Protocol/Crc16.h"
#include "Protocol/MessageTypes.h"
#include "System/Log.h"

namespace VELMORA {

namespace {

// The bit maps of the port lists cover indices 0 to 4095.
constexpr std::uint32_t bitMapBytes = 512;
constexpr std::uint16_t highestMapped = 4095;
constexpr std::uint16_t tableEntries = 512;
constexpr std::uint16_t all = 0xFFFF;
// A body must leave room for the header in the largest frame.
constexpr std::uint32_t largestBody = 65528 - headerSize - 8;
constexpr std::uint32_t addressListLimit = 1000;
constexpr std::uint32_t addressBytes = 16;

NORVA::IPAddress hostOf(const NORVA::IPAddress& source) {
    NORVA::IPAddress host = source;
    host.setPort(0);
    host.setScope(0);
    return host;
}

template <class List>
std::uint16_t highestKey(const List& list) {
    return list.empty() ? 0 : list.rbegin()->first;
}

template <class List>
void writeBitMap(const List& list, std::uint8_t* map) {
    if (list.empty()) return;
    std::uint16_t highest = std::min(highestKey(list), highestMapped);
    for (std::uint32_t i = 0; i <= highest; ++i) map[i / 8] |= static_cast<std::uint8_t>(1u << (i % 8));
}

template <class List>
void writePortTable(const List& list, std::uint16_t first, std::uint8_t* table) {
    for (std::uint32_t i = 0; i < tableEntries && first + i <= all; ++i) {
        auto port = list.find(static_cast<std::uint16_t>(first + i));
        writeU16(table + 2 * i, port == list.end() ? 0 : port->second.port);
    }
}

}  // namespace

void Target::discover(const Receive&, const NORVA::IPAddress& source) {
    if (isOwnAddress(source) || (!config.allowLoopback && source.isLoopback())) {
        NORVA::LogLine(7) << "Block : " << source;
        return;
    }
    NORVA::LogLine(7) << "Receive DISCOVER : " << source;
    SendBuffer answer(MessageType::DISCOVER_ANS, flagYes, config.productId);
    answer.setBodyText(config.name);
    answer.finish();
    if (controlSocket.sendTo(source, false, answer.bytes.data, answer.bytes.size)) return;
    // A host whose address has gone since it asked is no error of ours.
    if (controlSocket.lastError != NORVA::Platform::errorAddressNotAvailable) {
        NORVA::LogLine(3) << "UDP send error " << MessageType::DISCOVER_ANS << ":" << controlSocket.lastError;
    }
}

// The port lists come in pairs, picked by the class: 0 and 1 the first,
// 2 the second, 4 the third pair.
void Target::portRequest(const Receive& request, const NORVA::IPAddress& source) {
    const std::uint16_t p0 = request.param0(), p1 = request.param1(), requestedClass = request.param2();
    const int base = requestedClass <= 1 ? 0 : requestedClass;
    const bool refused = (p0 != 0 && p0 != all && p1 != 0 && p1 != all) || listOf(base, true) == nullptr;
    if (refused) {
        NORVA::LogLine(7) << "PORT_ANS : " << p0 << " " << p1 << " " << requestedClass << " refused";
        Send answer(MessageType::PORT_ANS, 0, 0, 0, 0, 1);
        reply(answer, source, MessageType::PORT_ANS);
        return;
    }
    const std::uint16_t portClass = requestedClass == 0 ? config.portClass : requestedClass;
    if (p0 == all || p1 == all || (p0 == 0 && p1 == 0)) {
        portListAnswer(request, base, portClass, source);
    } else if (p1 == 0) {
        onePortAnswer(request, *listOf(base, true), p0, source);
    } else {
        onePortAnswer(request, *listOf(base, false), p1, source);
    }
}

// The list, table and count forms.
void Target::portListAnswer(const Receive& request, int base, std::uint16_t portClass,
                            const NORVA::IPAddress& source) {
    const PortList& sinks = *listOf(base, true);
    const PortList& second = *listOf(base, false);
    const std::uint16_t p0 = request.param0(), p1 = request.param1();
    SendBuffer answer(MessageType::PORT_ANS, flagYes, highestKey(sinks), highestKey(second), portClass, 1);
    if (p0 == 0 && p1 == 0) {
        answer.setBodySize(2 * bitMapBytes);
        std::memset(answer.body(), 0, 2 * bitMapBytes);
        writeBitMap(sinks, answer.body());
        writeBitMap(second, answer.body() + bitMapBytes);
    } else if (p0 != all || p1 != all) {
        answer.setBodySize(2 * tableEntries);
        if (p1 == all) {
            writePortTable(sinks, p0, answer.body());
        } else {
            writePortTable(second, p1, answer.body());
        }
    }
    reply(answer, source, MessageType::PORT_ANS);
}

void Target::onePortAnswer(const Receive& request, const PortList& list, std::uint16_t index,
                           const NORVA::IPAddress& source) {
    auto found = list.find(index);
    bool visible = found != list.end() && found->second.holdOff.count(hostOf(source)) == 0;
    std::uint16_t port = visible ? found->second.port : 0;
    SendBuffer answer(MessageType::PORT_ANS, visible ? flagYes : 0, request.param0(), request.param1(), port,
                      1);
    if (visible) answer.setBodyText(found->second.name);
    NORVA::LogLine(7) << "PORT_ANS : " << request.param0() << " " << request.param1() << " " << port << " "
                      << 1;
    reply(answer, source, MessageType::PORT_ANS);
}

// A text answer; an empty text is a no.
void Target::textAnswer(std::uint16_t type, const std::string& text, const NORVA::IPAddress& source) {
    SendBuffer answer(type, text.empty() ? 0 : flagYes);
    answer.setBodyText(text);
    reply(answer, source, type);
}

void Target::syncName(const Receive& request, const NORVA::IPAddress& source) {
    SyncName entry;
    request.bodyText(entry.name);
    entry.productId = request.paramU64();
    NORVA::LogLine(7) << "SYNCNAME_SET : " << source << " " << entry.name;
    {
        std::lock_guard<std::mutex> guard(sharedLock);
        NORVA::IPAddress host = hostOf(source);
        if (names.size() < maxHosts || names.count(host) != 0) {
            names[host] = std::move(entry);
        } else {
            logHostCap("SYNCNAME_SET");
        }
    }
    Send answer(MessageType::SYNCNAME_ANS, flagYes);
    reply(answer, source, MessageType::SYNCNAME_ANS);
}

void Target::restart(const Receive& request, const NORVA::IPAddress& source) {
    if (!config.restartAllowed || refusedAsReadOnly("restart", source)) {
        Send answer(MessageType::RESTART_ANS, 0);
        reply(answer, source, MessageType::RESTART_ANS);
        return;
    }
    Send answer(MessageType::RESTART_ANS, flagYes, request.param0(), 0, 0, 0);
    reply(answer, source, MessageType::RESTART_ANS);
    if (request.param0() != 0) {
        code = request.param0();
        state.end = true;
    }
}

void Target::hostDebug(const Receive& request, const NORVA::IPAddress& source) {
    if (request.param0() == 1) {
        if (!(source == state.debugHost)) {
            state.debugHost = source;
            NORVA::LogLine(6) << "Host Debug : " << source;
        }
    } else if (!state.debugHost.isAnyNoPort()) {
        state.debugHost.clear();
        NORVA::LogLine(6) << "Host Debug : disable";
    }
    Send answer(MessageType::HOSTDEBUG_ANS, flagYes, request.param0(), 0, 0, 0);
    reply(answer, source, MessageType::HOSTDEBUG_ANS);
}

void Target::nopBreak(const NORVA::IPAddress& source) {
    const NORVA::IPAddress host = hostOf(source);
    for (PortList& list : state.lists) {
        for (auto& entry : list) {
            if (entry.second.holdOff.erase(host) != 0) NORVA::LogLine(6) << "Nop BREAK Target Out";
        }
    }
    Send answer(MessageType::NOPBREAK_ANS, flagYes);
    reply(answer, source, MessageType::NOPBREAK_ANS);
}

void Target::targetInfo(const Receive& request, const NORVA::IPAddress& source) {
    const std::uint16_t selector = request.param0(), index = request.param1();
    SendBuffer answer(MessageType::TARGETINFO_ANS, flagYes, selector, 0, 0, 0);
    auto listEntry = [&](const std::vector<std::string>& list) {
        const auto size = static_cast<std::uint16_t>(list.size());
        bool present = index < list.size();
        answer.setHeader(MessageType::TARGETINFO_ANS, present ? flagYes : 0, selector, index, size, 0);
        if (present) answer.setBodyText(list[index]);
    };
    switch (selector) {
        case 0:
            answer.setBodyText(config.infoText);
            break;
        case 1:
            listEntry(config.infoList);
            break;
        case 2: {
            NORVA::IPAddress reporter = source;
            reporter.setPort(0);
            auto clock = hostClocks.find(reporter);
            std::uint64_t offset =
                clock == hostClocks.end() ? 0 : static_cast<std::uint64_t>(clock->second.offset);
            answer.setBodySize(8);
            for (int i = 0; i < 8; ++i) answer.body()[i] = static_cast<std::uint8_t>(offset >> (8 * i));
            break;
        }
        case 3: {
            NORVA::InterfaceMap map;
            NORVA::getMyLocalAddresV6(map, config.allowLoopback);
            std::vector<std::uint8_t> bytes;
            // The list stops before it would cross the limit.
            for (auto entry = map.begin();
                 entry != map.end() && bytes.size() + addressBytes <= addressListLimit; ++entry) {
                std::uint8_t address[addressBytes];
                entry->first.copyBytes(address);
                bytes.insert(bytes.end(), address, address + addressBytes);
            }
            answer.setBodySize(static_cast<std::uint16_t>(bytes.size()));
            if (!bytes.empty()) std::memcpy(answer.body(), bytes.data(), bytes.size());
            break;
        }
        case 4:
            answer.setBodyText(config.infoText2);
            break;
        case 5:
            listEntry(config.infoList2);
            break;
        case 6: {
            std::uint8_t identity[8];
            for (int i = 0; i < 8; ++i) identity[i] = static_cast<std::uint8_t>(config.identity >> (8 * i));
            char text[8];
            std::snprintf(text, sizeof text, "%04X", static_cast<unsigned>(crc16(identity, sizeof identity)));
            answer.setBodyText(config.identity == 0 ? "Invalid" : text);
            break;
        }
        default:
            answer.setHeader(MessageType::TARGETINFO_ANS, 0, selector, 0, 0, 0);
            break;
    }
    reply(answer, source, MessageType::TARGETINFO_ANS);
}

void Target::status(const Receive& request, const NORVA::IPAddress& source) {
    const std::uint16_t index = request.param0();
    SendBuffer answer;
    if (index == 0) {
        answer.setHeader(MessageType::STATUS_ANS, flagYes, highestKey(state.statuses), 0, 0, 1);
        NORVA::LogLine(7) << "STATUS_ANS : " << highestKey(state.statuses);
        reply(answer, source, MessageType::STATUS_ANS);
        return;
    }
    auto found = state.statuses.find(index);
    if (found == state.statuses.end()) {
        answer.setHeader(MessageType::STATUS_ANS, 0, index, 0, 0, 1);
        NORVA::LogLine(7) << "STATUS_ANS : " << index << " none";
    } else {
        const TargetStatusEntry& entry = found->second;
        answer.setHeader(MessageType::STATUS_ANS, flagYes, index, static_cast<std::uint16_t>(entry.kind),
                         entry.port, entry.version);
        answer.setAddressBody(entry.peer, entry.text);
        NORVA::LogLine(7) << "STATUS_ANS : " << index << " " << entry.port << " "
                          << (entry.kind == 0 ? "controll" : "sink") << " " << entry.version;
    }
    reply(answer, source, MessageType::STATUS_ANS);
}

// Icon set 0: its size, or a run of its pixels from (x, y) on.
void Target::icon(const Receive& request, const NORVA::IPAddress& source) {
    const std::uint16_t number = request.param0();
    const TargetIcon* chosen = number >= 1 && number <= 8 ? &config.icons[number - 1] : nullptr;
    if (chosen == nullptr || chosen->width == 0 || chosen->pixels.empty() ||
        chosen->pixels.size() % chosen->width != 0) {
        Send answer(MessageType::ICON_ANS, 0, number, request.param1(), request.param2(), request.param3());
        reply(answer, source, MessageType::ICON_ANS);
        return;
    }
    const TargetIcon& icon = *chosen;
    const std::uint32_t width = icon.width;
    const std::uint32_t height = static_cast<std::uint32_t>(icon.pixels.size() / width);
    const std::uint32_t pixelBytes = icon.alphaOnly ? 1 : 4;
    std::uint16_t p1 = request.param1(), p2 = request.param2(), p3 = request.param3();
    SendBuffer answer;
    if (p1 == 0 || p2 == 0) {
        if (p1 == 0) p1 = static_cast<std::uint16_t>(width);
        if (p2 == 0) p2 = static_cast<std::uint16_t>(height);
        if (p3 == 0) p3 = icon.alphaOnly ? 2 : 1;
    } else if (std::uint32_t x = p1 - 1u, y = p2 - 1u; x < width && y < height) {
        const std::uint32_t start = y * width + x;
        std::uint32_t count = p3 < 2 ? std::min<std::uint32_t>(width - x, icon.alphaOnly ? 1000 : 300)
                                     : std::min<std::uint32_t>(p3 - 1u, width * height - start);
        count = std::min(count, largestBody / pixelBytes);
        answer.setBodySize(static_cast<std::uint16_t>(count * pixelBytes));
        for (std::uint32_t i = 0; i < count; ++i) {
            std::uint32_t pixel = icon.pixels[start + i];
            if (icon.alphaOnly) {
                answer.body()[i] = static_cast<std::uint8_t>(pixel >> 24);
            } else {
                for (std::uint32_t b = 0; b < 4; ++b)
                    answer.body()[4 * i + b] = static_cast<std::uint8_t>(pixel >> (8 * b));
            }
        }
        p3 = static_cast<std::uint16_t>(count + 1);
        NORVA::LogLine(7) << "Icon Load " << number << " " << x << " " << y << " " << count;
    } else {
        p3 = 0;
    }
    answer.setHeader(MessageType::ICON_ANS, flagYes, number, p1, p2, p3);
    reply(answer, source, MessageType::ICON_ANS);
}

// The size and sum of what arrived, so that the host learns what the path
// carries whole.
void Target::mtuTest(const Receive& request, const NORVA::IPAddress& source) {
    if (request.param0() != 0) {
        // The whole datagram back, as received, under the answer's type.
        std::vector<std::uint8_t> copy(request.frame, request.frame + request.size);
        writeU16(copy.data() + FrameHeader::typeAt, MessageType::MTUTEST_ANS);
        writeU16(copy.data() + FrameHeader::flagsAt, flagYes);
        sendRaw(copy.data(), copy.size(), source, MessageType::MTUTEST_ANS);
        return;
    }
    std::uint16_t sum = 0;
    for (std::uint32_t i = headerSize; i < request.size; ++i)
        sum = static_cast<std::uint16_t>(sum + request.frame[i]);
    SendBuffer answer(MessageType::MTUTEST_ANS, flagYes, 0, request.param1(), 0, sum);
    answer.setBodySize(4);
    for (int i = 0; i < 4; ++i) answer.body()[i] = static_cast<std::uint8_t>(request.size >> (8 * i));
    reply(answer, source, MessageType::MTUTEST_ANS);
}

}  // namespace VELMORA
