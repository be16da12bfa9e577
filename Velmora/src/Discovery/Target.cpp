#include "Discovery/Target.h"

#include <cstdio>
#include <string>

#include "Network/Interfaces.h"
#include "Protocol/MessageTypes.h"
#include "System/Log.h"
#include "System/Threads.h"

namespace VELMORA {

namespace {

constexpr std::uint32_t controlReceiveSize = 16080;
// Log lines of our own LogLine are at most this long.
constexpr std::uint32_t logReceiveSize = 4096;
constexpr NORVA::TimeValue passWait = NORVA::TimeValue::fromSeconds(1);
constexpr NORVA::TimeValue scanAfterTimeout = NORVA::TimeValue::fromSeconds(5);
constexpr NORVA::TimeValue scanAfterDatagram = NORVA::TimeValue::fromSeconds(10);

NORVA::IPAddress discoveryGroup(std::uint32_t scope) {
    NORVA::IPAddress group = NORVA::IPAddress::multicast(0xff02, 0);
    group.setScope(scope);
    return group;
}

// The frame in hexadecimal, for the detail log.
std::string hexOf(const Receive& frame) {
    std::string text;
    char digits[4];
    for (std::uint32_t i = 0; i < frame.size; ++i) {
        std::snprintf(digits, sizeof digits, "%02X ", frame.frame[i]);
        text += digits;
    }
    return text;
}

}  // namespace

Target::Target(const TargetConfig& targetConfig) : config(targetConfig) {}

Target::~Target() {
    close();
}

std::vector<NORVA::IPAddress> Target::joinedAddresses() const {
    std::lock_guard<std::mutex> guard(sharedLock);
    return joined;
}

std::map<NORVA::IPAddress, Target::SyncName> Target::syncNames() const {
    std::lock_guard<std::mutex> guard(sharedLock);
    return names;
}

// ---- open and close -----------------------------------------------------

bool Target::open(bool withLog) {
    return openCommon({}, withLog);
}

bool Target::open(const NORVA::IPAddress& address, bool withLog) {
    if (address.isAnyNoPort()) return open(withLog);
    return openCommon({address}, withLog);
}

bool Target::open(int scope, bool withLog) {
    if (scope == 0) return open(withLog);
    NORVA::InterfaceMap map;
    if (!NORVA::getMyLocalAddresV6(map, config.allowLoopback)) {
        NORVA::LogLine(3) << "error getMyLocalAddresV6 Find::open";
        return false;
    }
    std::vector<NORVA::IPAddress> addresses;
    for (const auto& entry : map) {
        NORVA::IPAddress address = entry.first;
        bool wanted = scope == -1
                          ? address.isLoopback()
                          : address.isLinkLocal() && address.scope() == static_cast<std::uint32_t>(scope);
        if (!wanted) continue;
        if (address.isLoopback()) address.setScope(0);
        addresses.push_back(address);
    }
    if (addresses.empty()) return false;
    return openCommon(addresses, withLog);
}

bool Target::openRegistrationSocket() {
    if (!registrationSocket.open(NORVA::Socket::udp6)) {
        NORVA::LogLine(3) << "registsocker  open error:" << registrationSocket.lastError;
        return false;
    }
    if (!registrationSocket.setBlocking(false)) return false;
    NORVA::IPAddress any;
    any.setPort(config.ports.registration);
    any.setScope(NORVA::firstLinkLocalScope());
    if (!registrationSocket.bind(any)) {
        NORVA::LogLine(3) << "registsocker  bind error:" << registrationSocket.lastError;
        return false;
    }
    bound.registration = any.port();
    return true;
}

bool Target::openControlSocket() {
    if (!controlSocket.open(NORVA::Socket::udp6)) {
        NORVA::LogLine(3) << "udp  open error:" << controlSocket.lastError;
        return false;
    }
    if (!controlSocket.setBlocking(false)) return false;
    controlSocket.receiveSize = controlReceiveSize;
    NORVA::IPAddress any;
    any.setPort(config.ports.control);
    if (!controlSocket.bind(any)) {
        NORVA::LogLine(3) << "MULTI  bind error:" << controlSocket.lastError;
        return false;
    }
    bound.control = any.port();
    return true;
}

bool Target::openLogSocket() {
    if (!logSocket.openNonBlocking()) {
        NORVA::LogLine(3) << "syslog  open error:" << logSocket.lastError;
        return false;
    }
    logSocket.receiveSize = logReceiveSize;
    NORVA::IPAddress local = NORVA::IPAddress::loopback(config.ports.log);
    if (!logSocket.bind(local)) {
        NORVA::LogLine(3) << "syslog bind error:" << logSocket.lastError;
        return false;
    }
    bound.log = local.port();
    return true;
}

bool Target::joinGroup(const NORVA::IPAddress& address) {
    return controlSocket.joinGroup(discoveryGroup(address.scope()));
}

void Target::joinGroups(const std::vector<NORVA::IPAddress>& addresses) {
    autoMulticast = addresses.empty();
    if (autoMulticast) {
        NORVA::LogLine(6) << "Multi Address Auto Find";
        return;
    }
    for (const NORVA::IPAddress& address : addresses) {
        if (address.isLoopback()) continue;
        NORVA::LogLine(6) << "member multi:" << address.scope();
        if (!joinGroup(address)) {
            NORVA::LogLine(3) << "MULTI udp member error:" << controlSocket.lastError;
            continue;
        }
        std::lock_guard<std::mutex> guard(sharedLock);
        joined.push_back(address);
    }
}

bool Target::openCommon(const std::vector<NORVA::IPAddress>& addresses, bool withLog) {
    NORVA::LogLine(6) << "Velmora Target Library ReleaseNo : " << releaseNumber;
    if (thread.joinable()) return false;
    if (!openRegistrationSocket() || !openControlSocket()) return false;
    joinGroups(addresses);
    if (withLog && !openLogSocket()) return false;

    sockets.clear();
    sockets.add(controlSocket);
    if (logSocket.isOpen()) sockets.add(logSocket);
    sockets.add(registrationSocket);
    stopping = 0;
    result = loopRunning;
    code = 0;
    thread = std::thread([this] { run(); });
    return true;
}

void Target::close() {
    NORVA::LogLine(6) << "Target close";
    if (thread.joinable()) {
        stopping = 1;
        // Wakes the wait at once; without it the loop still ends within a pass.
        NORVA::UDPV6 waker;
        if (waker.openNonBlocking()) {
            waker.sendTo(NORVA::IPAddress::loopback(bound.control), false, nullptr, 0);
        }
        thread.join();
    }
    controlSocket.close();
    logSocket.close();
    registrationSocket.close();
}

// ---- the loop -------------------------------------------------------------

void Target::run() {
    if (config.synchro) {
        if (!NORVA::setCurrentThreadLevel(NORVA::levelCritical))
            NORVA::setCurrentThreadLevel(NORVA::levelHigh);
    } else if (config.idleWithoutSynchro) {
        NORVA::setCurrentThreadLevel(NORVA::levelIdle);
    }
    result = loop();
}

void Target::fillStaticPorts() {
    for (const StaticPort& fixed : config.staticPorts) {
        PortList* list = listOf(fixed.portClass == 1 ? 0 : fixed.portClass, fixed.sink);
        if (list == nullptr) continue;
        TargetPort& entry = (*list)[fixed.index];
        entry = TargetPort();
        entry.pinned = true;
        entry.port = fixed.port;
        entry.name = fixed.name;
    }
}

std::uint32_t Target::loop() {
    state = LoopState();
    fillStaticPorts();
    lastScan = NORVA::TimeValue::now() - scanAfterDatagram;

    for (;;) {
        int waited = sockets.wait(passWait);
        state.now = NORVA::TimeValue::now();
        if (waited == 0 || stopping.load() != 0) return loopFailed;

        expire();
        if (autoMulticast) {
            NORVA::TimeValue since = state.now - lastScan;
            if (since > (waited == 1 ? scanAfterTimeout : scanAfterDatagram)) scanInterfaces();
        }
        if (waited == 1) continue;

        // Hosts first, then the local programs, one datagram of each per
        // pass: a stream of local registrations can't hold up an answer.
        if (sockets.isReady(controlSocket)) {
            if (!receiveControl()) return loopFailed;
            if (state.end) return loopEndedByMessage;
        }
        if (logSocket.isOpen() && sockets.isReady(logSocket) && !receiveLog()) return loopFailed;
        if (sockets.isReady(registrationSocket) && !receiveRegistration()) return loopFailed;
    }
}

// Drops ports and status entries that were not registered again in time,
// and hold-offs that have run out.
void Target::expire() {
    const NORVA::TimeValue now = state.now;
    auto outlived = [&](NORVA::TimeValue lastSeen) { return now > lastSeen + config.registrationLifetime; };
    bool active = false;
    for (PortList& list : state.lists) {
        for (auto port = list.begin(); port != list.end();) {
            if (!port->second.pinned && outlived(port->second.lastSeen)) {
                NORVA::LogLine(6) << "Unregist out Port : " << port->first;
                port = list.erase(port);
                continue;
            }
            std::erase_if(port->second.holdOff, [&](const auto& host) {
                if (!(now - host.second.since > host.second.duration)) return false;
                NORVA::LogLine(6) << "Nop remove to " << host.first;
                return true;
            });
            active = active || port->second.active;
            ++port;
        }
    }
    std::erase_if(state.statuses, [&](const auto& entry) {
        if (!outlived(entry.second.lastSeen)) return false;
        NORVA::LogLine(6) << "Unregist status Port : " << entry.first;
        return true;
    });
    for (const auto& entry : state.statuses) active = active || entry.second.active;
    anyActive = active;
}

// Joins the discovery group on interfaces that have appeared, but never
// while a stream runs.
void Target::scanInterfaces() {
    lastScan = state.now;
    if (anyActive.load()) return;
    NORVA::InterfaceMap map;
    if (!NORVA::getMyLocalAddresV6(map, false)) {
        NORVA::LogLine(3) << "error getMyLocalAddresV6 Find::open";
        return;
    }
    for (const auto& entry : map) {
        const NORVA::IPAddress& address = entry.first;
        if (address.isLoopback() || isOwnAddress(address)) continue;
        bool failedBefore = false;
        for (const NORVA::IPAddress& failed : failedJoin) failedBefore = failedBefore || failed == address;
        if (failedBefore) continue;
        NORVA::LogLine(6) << "Add Multi Member : " << address.toString() << "%" << address.scope();
        if (joinGroup(address)) {
            std::lock_guard<std::mutex> guard(sharedLock);
            joined.push_back(address);
        } else {
            NORVA::LogLine(3) << "MULTI udp member error:" << controlSocket.lastError;
            failedJoin.push_back(address);
        }
    }
}

bool Target::isOwnAddress(const NORVA::IPAddress& source) const {
    std::lock_guard<std::mutex> guard(sharedLock);
    for (const NORVA::IPAddress& address : joined) {
        NORVA::IPAddress bare = source;
        bare.setPort(0);
        NORVA::IPAddress own = address;
        own.setPort(0);
        if (bare == own) return true;
    }
    return false;
}

bool Target::receiveControl() {
    NORVA::IPAddress source;
    if (!controlSocket.receiveFrom(controlDatagram, source)) return false;
    takeDatagram(Port::control, controlDatagram, source);
    return true;
}

bool Target::receiveLog() {
    NORVA::IPAddress source;
    if (!logSocket.receiveFrom(localDatagram, source)) return false;
    takeDatagram(Port::log, localDatagram, source);
    return true;
}

bool Target::receiveRegistration() {
    NORVA::IPAddress source;
    if (!registrationSocket.receiveFrom(localDatagram, source)) return false;
    takeDatagram(Port::registration, localDatagram, source);
    return true;
}

void Target::takeDatagram(Port port, const NORVA::ByteArray& datagram, const NORVA::IPAddress& source) {
    if (datagram.empty()) return;
    if (port == Port::log) return logDatagram(datagram);
    Receive request(datagram.data(), static_cast<std::uint32_t>(datagram.size()));
    if (port == Port::registration) {
        if (!request.isValid() || !source.isLoopback()) return;
        if (request.type() == MessageType::PORT_REGIST) portRegistration(request, source);
        if (request.type() == MessageType::STATUS_REGIST) statusRegistration(request, source);
        return;
    }
    if (!request.isValid()) {
        NORVA::LogLine(6) << source << " Receive Data Err:" << request.size;
        return;
    }
    if (NORVA::logThreshold.load() > 6) {
        if (request.size <= 400) NORVA::LogLine(7) << hexOf(request);
        NORVA::LogLine(7) << "Receive udp:" << request.type();
    }
    if (!isRequest(request.type()) && request.type() != MessageType::STATUS_REGIST) {
        NORVA::LogLine(7) << "drop message :" << request.type();
        return;
    }
    handleControl(request, source);
}

// ---- dispatch -------------------------------------------------------------

void Target::handleControl(const Receive& request, const NORVA::IPAddress& source) {
    if (handleInformation(request, source) || handleLocal(request, source)) return;
    echo(request.type(), source);
}

// The exchanges of discovery, information, settings and slots.
bool Target::handleInformation(const Receive& request, const NORVA::IPAddress& source) {
    using namespace MessageType;
    switch (request.type()) {
        case DISCOVER:
            discover(request, source);
            return true;
        case PORT_REQ:
            portRequest(request, source);
            return true;
        case TARGETNAME_REQ:
            textAnswer(TARGETNAME_ANS, config.targetName, source);
            return true;
        case SYNCNAME_SET:
            syncName(request, source);
            return true;
        case TRANSFERINFO_REQ:
            transferInfo(request, source);
            return true;
        case TRANSFERDATA_SET:
            transferDataSet(request, source);
            return true;
        case TRANSFERCHECK_REQ:
            transferCheckRequest(request, source);
            return true;
        case SLOTLIST_REQ:
            slotList(request, source);
            return true;
        case TARGETTEXT1_REQ:
            textAnswer(TARGETTEXT1_ANS, config.text1, source);
            return true;
        case TARGETTEXT2_REQ:
            textAnswer(TARGETTEXT2_ANS, config.text2, source);
            return true;
        case RESTART_REQ:
            restart(request, source);
            return true;
        case HOSTDEBUG_REQ:
            hostDebug(request, source);
            return true;
        case NOPBREAK_REQ:
            nopBreak(source);
            return true;
        case TARGETINFO_REQ:
            targetInfo(request, source);
            return true;
        case SETTINGLIST_REQ:
            settingList(request, source);
            return true;
        case SETTINGVALUE_REQ:
            settingValue(request, source);
            return true;
        case STATUS_REQ:
            status(request, source);
            return true;
        case ICON_REQ:
            icon(request, source);
            return true;
        case MTUTEST_REQ:
            mtuTest(request, source);
            return true;
        default:
            return false;
    }
}

// Clock reports, and the local programs' requests, which only the loopback
// address may make.
bool Target::handleLocal(const Receive& request, const NORVA::IPAddress& source) {
    using namespace MessageType;
    switch (request.type()) {
        case SYNCHRO:
            synchro(request, source);
            return true;
        case TARGETID_REQ:
            if (!source.isLoopback()) return false;
            {
                Send answer(TARGETID_ANS, 0, config.identity);
                reply(answer, source, TARGETID_ANS);
            }
            return true;
        case NOPTA_SET:
            if (!source.isLoopback()) return false;
            nopTargetSet(request);
            return true;
        default:
            return false;
    }
}

// ---- sending --------------------------------------------------------------

bool Target::sendRaw(const void* data, std::size_t size, const NORVA::IPAddress& to, int place) {
    if (controlSocket.sendTo(to, false, data, size)) return true;
    NORVA::LogLine(3) << "UDP send error " << place << ":" << controlSocket.lastError;
    return false;
}

bool Target::reply(Send& message, const NORVA::IPAddress& to, int place) {
    message.finish();
    return sendRaw(message.bytes.data, message.bytes.size, to, place);
}

void Target::echo(std::uint16_t type, const NORVA::IPAddress& source) {
    Send answer(type, 0);
    reply(answer, source, type);
}

bool Target::refusedAsReadOnly(const char* what, const NORVA::IPAddress& source) const {
    if (!config.readOnly) return false;
    NORVA::LogLine(4) << "read-only, " << what << " not allowed from " << source;
    return true;
}

Target::PortList* Target::listOf(int base, bool sink) {
    if (base != 0 && base != 2 && base != 4) return nullptr;
    return &state.lists[base + (sink ? 1 : 0)];
}

// ---- what a target program overrides ----------------------------------------

bool Target::readSetting(std::uint16_t, std::string&, std::uint16_t&) {
    return false;
}

bool Target::writeSetting(std::uint16_t, const std::string&, std::uint16_t&, bool) {
    return false;
}

bool Target::commit(bool) {
    return false;
}

}  // namespace VELMORA
