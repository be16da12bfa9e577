// What the local programs tell the target: port and status registrations,
// hold-offs, and log lines; and the clock reports passed on to them.
#include <cstdlib>
#include <cstring>

#include "Discovery/Target.h"
#include "Protocol/MessageTypes.h"
#include "System/Log.h"

namespace VELMORA {

namespace {

constexpr std::uint16_t activeFlag = 0x0002;
// A hold-off frame carries a stored address: 16 bytes, port, scope.
constexpr std::uint32_t holdOffFrameSize = 40;
constexpr std::uint32_t clockRecordSize = 26;
constexpr std::uint32_t clockFrameBody = 1000;
// The syslog head of a log line, which the debug host doesn't need.
constexpr std::uint32_t syslogHeadSize = 31;
// Reports whose running number jumps further than this start a new window.
constexpr int runningNumberJump = 6;
constexpr std::int32_t windowReports = 36;
constexpr NORVA::TimeValue otherSourceSpan = NORVA::TimeValue::fromSeconds(30);

std::uint64_t sizeOf(std::int64_t value) {
    return value < 0 ? 0 - static_cast<std::uint64_t>(value) : static_cast<std::uint64_t>(value);
}

void writeClockRecord(std::uint8_t* record, const NORVA::IPAddress& reporter, std::int64_t offset) {
    for (int i = 0; i < 8; ++i)
        record[i] = static_cast<std::uint8_t>(static_cast<std::uint64_t>(offset) >> (8 * i));
    reporter.copyBytes(record + 8);
    writeU16(record + 24, static_cast<std::uint16_t>(reporter.scope()));
}

}  // namespace

void Target::portRegistration(const Receive& request, const NORVA::IPAddress& source) {
    NORVA::LogLine(7) << "Receive Port Regist";
    const std::uint16_t sinkIndex = request.param0(), secondIndex = request.param1();
    if (sinkIndex != 0 && secondIndex != 0) return;
    const int base = request.param3() == 4 ? 4 : 0;
    const bool sink = sinkIndex != 0;
    const std::uint16_t index = sink ? sinkIndex : secondIndex;
    const std::uint16_t port = request.param2() != 0 ? request.param2() : source.port();
    std::string name;
    request.bodyText(name);

    TargetPort& entry = (*listOf(base, sink))[index];
    if (entry.port != port || entry.name != name) {
        entry = TargetPort();
        entry.port = port;
        entry.name = name;
        NORVA::LogLine(6) << "Regist Port : " << (base + (sink ? 1 : 0)) << " : " << index << " : " << port
                          << " : " << name;
    }
    entry.lastSeen = NORVA::TimeValue::now();
    entry.active = (request.flags() & activeFlag) != 0;
    if (!hostClocks.empty()) forwardAllClocks(port);
}

void Target::statusRegistration(const Receive& request, const NORVA::IPAddress& source) {
    NORVA::LogLine(7) << "Receive Status Regist";
    const std::uint16_t index = request.param0();
    if (index == 0) return;
    TargetStatusEntry fresh;
    fresh.kind = static_cast<std::int16_t>(request.param1());
    fresh.version = request.param3();
    fresh.port = source.port();
    request.bodyAddressAndText(fresh.peer, fresh.text);

    TargetStatusEntry& entry = state.statuses[index];
    if (entry.kind != fresh.kind || entry.version != fresh.version || entry.port != fresh.port ||
        !(entry.peer == fresh.peer) || entry.text != fresh.text) {
        entry = fresh;
        NORVA::LogLine(6) << "Regist Status : " << index << " " << entry.port << " " << entry.kind;
    }
    entry.lastSeen = NORVA::TimeValue::now();
    entry.active = (request.flags() & activeFlag) != 0;
}

// Hides a port from one host for a while, or shows it to all again.
void Target::nopTargetSet(const Receive& request) {
    const std::uint16_t portClass = request.param3();
    if (portClass != 1 && portClass != 2 && portClass != 4) return;
    const int base = portClass == 1 ? 0 : portClass;
    const bool sink = request.param0() != 0;
    const std::uint16_t index = sink ? request.param0() : request.param1();
    PortList& list = *listOf(base, sink);
    auto found = list.find(index);
    if (found == list.end()) {
        // A port made here lives as long as a registration would.
        found = list.emplace(index, TargetPort()).first;
        found->second.lastSeen = state.now;
    }
    TargetPort& entry = found->second;
    if (frameSizeOf(request.length()) != holdOffFrameSize) {
        entry.holdOff.clear();
        NORVA::LogLine(6) << "Nop TA clear:" << entry.port;
        return;
    }
    NORVA::IPAddress host;
    host.setBytes(request.body());
    entry.holdOff[host] = HoldOff{state.now, NORVA::TimeValue::fromSeconds(request.param2())};
    NORVA::LogLine(6) << "Nop TA add:" << entry.port << " " << host;
}

// Once per target's life: a flood would otherwise flood the log too.
void Target::logHostCap(const char* what) {
    if (hostCapLogged) return;
    hostCapLogged = true;
    NORVA::LogLine(4) << what << " from more than " << maxHosts << " hosts, or " << maxClockSources
                      << " ports of one, ignored";
}

// Keeps, for each reporter, the offset of the smallest size seen in a window
// of reports, and passes a new one on to the local programs.
void Target::synchro(const Receive& request, const NORVA::IPAddress& source) {
    if (source.isLoopback() || !config.synchro || request.bodySize() < 8) return;
    const NORVA::TimeValue now = state.now;
    std::uint64_t reading = 0;
    for (int i = 0; i < 8; ++i) reading |= static_cast<std::uint64_t>(request.body()[i]) << (8 * i);
    const std::int64_t delta = static_cast<std::int64_t>((reading - now.raw()) | 1);
    const std::uint16_t number = request.param0();

    NORVA::IPAddress reporter = source;
    reporter.setPort(0);
    auto known = hostClocks.find(reporter);
    if (known == hostClocks.end() && hostClocks.size() >= maxHosts) return logHostCap("SYNCHRO");
    HostClock& clock = hostClocks[reporter];
    if (clock.sources.size() >= maxClockSources && clock.sources.count(source.port()) == 0) {
        return logHostCap("SYNCHRO source");
    }
    SourceReport& report = clock.sources[source.port()];
    const int jump = static_cast<std::int16_t>(static_cast<std::uint16_t>(number - report.lastParam0));
    if (number == 0 || jump > runningNumberJump) {
        bool otherRecent = false;
        for (const auto& [port, other] : clock.sources) {
            bool recent = other.lastTime.isSet() && !(now - other.lastTime > otherSourceSpan);
            otherRecent = otherRecent || (port != source.port() && recent);
        }
        if (!otherRecent) clock.force = true;
    }
    report.lastTime = now;
    report.lastParam0 = number;
    if (clock.count == 0 || sizeOf(clock.candidate) > sizeOf(delta)) clock.candidate = delta;
    ++clock.count;
    if (!clock.force && clock.count < windowReports && !(sizeOf(clock.offset) > sizeOf(clock.candidate)))
        return;

    NORVA::LogLine(7) << "Receive SYNCHRO:" << reporter << " " << clock.count << " "
                      << clock.offset / 1'000'000 << " " << clock.candidate / 1'000'000;
    clock.offset = clock.candidate;
    clock.force = false;
    clock.count = 0;
    forwardClock(reporter, clock);
}

void Target::forwardClock(const NORVA::IPAddress& reporter, const HostClock& clock) {
    SendBuffer forward(MessageType::SYNCHRO_FORWARD, 0);
    forward.setBodySize(clockRecordSize);
    writeClockRecord(forward.body(), reporter, clock.offset);
    for (const PortList& list : state.lists) {
        for (const auto& entry : list)
            reply(forward, NORVA::IPAddress::loopback(entry.second.port), MessageType::SYNCHRO_FORWARD);
    }
}

// Everything known of the reporters' clocks, to a program that has just
// registered.
void Target::forwardAllClocks(std::uint16_t port) {
    const NORVA::IPAddress destination = NORVA::IPAddress::loopback(port);
    std::vector<std::uint8_t> records;
    auto flush = [&] {
        SendBuffer forward(MessageType::SYNCHRO_FORWARD, 0);
        forward.setBodySize(static_cast<std::uint16_t>(records.size()));
        std::memcpy(forward.body(), records.data(), records.size());
        reply(forward, destination, MessageType::SYNCHRO_FORWARD);
        records.clear();
    };
    for (const auto& [reporter, clock] : hostClocks) {
        std::uint8_t record[clockRecordSize];
        writeClockRecord(record, reporter, clock.offset);
        records.insert(records.end(), record, record + clockRecordSize);
        if (records.size() >= clockFrameBody) flush();
    }
    if (!records.empty()) flush();
}

// A log line of a local program: to the system's log, and to the host that
// asked for debug text.
void Target::logDatagram(const NORVA::ByteArray& datagram) {
    if (config.forwardLog) {
        sendRaw(datagram.data(), datagram.size(), NORVA::IPAddress::loopback(config.ports.systemLog), 514);
    }
    if (state.debugHost.isAnyNoPort()) return;
    // A datagram too short for a syslog head has none to skip.
    const std::uint32_t skip = datagram.size() >= syslogHeadSize ? syslogHeadSize : 0;
    SendBuffer line(MessageType::HOSTDEBUG_ANS, flagYes, 2, 0, 0, 0);
    line.setBodySize(static_cast<std::uint16_t>(datagram.size() - skip));
    std::memcpy(line.body(), datagram.data() + skip, datagram.size() - skip);
    reply(line, state.debugHost, MessageType::HOSTDEBUG_ANS);
}

}  // namespace VELMORA
