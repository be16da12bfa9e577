// The target's side of the protocol: one thread answers every control
// message on the control port, takes the port and status registrations of
// the local sink programs, and passes their log lines on.
//
// A target program derives from Target to keep slot data and settings; the
// plain class collects slot data in memory and has no settings to change.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Discovery/TargetConfig.h"
#include "Network/BufferCS_const.h"
#include "Network/ByteArray.h"
#include "Network/IPAddress.h"
#include "Network/Socket.h"
#include "Network/SocketSet.h"
#include "Network/TimeValue.h"
#include "Protocol/Receive.h"
#include "Protocol/Send.h"

namespace VELMORA {

class Target {
  public:
    static constexpr std::uint32_t releaseNumber = 148;
    // Loop results: still running, ended by a failed wait or receive (also
    // by close), ended by a message (restart or commit).
    static constexpr std::uint32_t loopRunning = 0;
    static constexpr std::uint32_t loopFailed = 2;
    static constexpr std::uint32_t loopEndedByMessage = 3;

    // What a host told with SYNCNAME_SET.
    struct SyncName {
        std::string name;
        std::uint64_t productId = 0;
    };

    explicit Target(const TargetConfig& config);
    virtual ~Target();
    Target(const Target&) = delete;
    Target& operator=(const Target&) = delete;

    // Joins the discovery group on every interface that appears.
    bool open(bool withLog);
    // Joins on that one address; the all-zero address means open(withLog).
    bool open(const NORVA::IPAddress& address, bool withLog);
    // 0: open(withLog). -1: the loopback address, if allowed. Otherwise every
    // link-local address of that scope.
    bool open(int scope, bool withLog);
    // Ends the loop and closes the sockets. Not from the loop's own thread.
    void close();

    std::uint32_t loopResult() const { return result.load(); }
    std::uint16_t exitCode() const { return code.load(); }
    bool hasActive() const { return anyActive.load(); }
    // The ports the sockets are bound to, once open.
    const TargetPorts& boundPorts() const { return bound; }
    // Addresses on which the discovery group was joined.
    std::vector<NORVA::IPAddress> joinedAddresses() const;
    std::map<NORVA::IPAddress, SyncName> syncNames() const;

    // What the loop does with one datagram from the port it came in on;
    // callable without sockets, on the loop's thread or with no loop at all.
    enum class Port { control, registration, log };
    void takeDatagram(Port port, const NORVA::ByteArray& datagram, const NORVA::IPAddress& source);

  protected:
    // The data of one TRANSFERDATA_SET that came in sequence. The plain sink
    // starts over at packet 0 of block 0 and appends.
    virtual void dataReceived(NORVA::BufferCS_const data, std::uint16_t slotIndex, std::uint16_t packetIndex,
                              std::uint16_t block);
    // The end of a transfer. On a wrong CRC the plain check writes the right
    // one into `crc` and refuses.
    virtual bool transferCheck(std::uint16_t slotIndex, std::uint16_t& crc, std::uint16_t& state);
    // The current text or value of setting `index` (from 0).
    virtual bool readSetting(std::uint16_t index, std::string& text, std::uint16_t& value);
    virtual bool writeSetting(std::uint16_t index, const std::string& text, std::uint16_t& value,
                              bool reapply);
    // `keep` true: make the written settings last; false: drop them. True
    // ends the loop with exit code 1, so the program can start again.
    virtual bool commit(bool keep);

    const TargetConfig config;
    // The plain sink's data and CRC of the last transfer, kept up to the
    // slot's geometry (packet size x packets per block x blocks), and never
    // beyond maxSlotBytes.
    static constexpr std::size_t maxSlotBytes = std::size_t{64} << 20;
    std::size_t slotBytes() const;
    NORVA::ByteArray transferData;
    std::uint16_t transferCrc = 0;
    bool transferOverrun = false;

  private:
    struct HoldOff {
        NORVA::TimeValue since;
        NORVA::TimeValue duration;
    };
    struct TargetPort {
        NORVA::TimeValue lastSeen;
        bool pinned = false;
        std::uint16_t port = 0;
        bool active = false;
        std::string name;
        std::map<NORVA::IPAddress, HoldOff> holdOff;
    };
    using PortList = std::map<std::uint16_t, TargetPort>;
    struct TargetStatusEntry {
        NORVA::TimeValue lastSeen;
        std::uint16_t version = 0;
        std::uint16_t port = 0;
        bool active = false;
        std::string text;
        std::int16_t kind = 0;
        NORVA::IPAddress peer;
    };
    struct SourceReport {
        std::uint16_t lastParam0 = 0;
        NORVA::TimeValue lastTime;
    };
    struct HostClock {
        std::int64_t offset = 0;
        std::int64_t candidate = 0;
        bool force = false;
        std::int32_t count = 0;
        std::map<std::uint16_t, SourceReport> sources;
    };
    // What lives only while the loop runs.
    struct LoopState {
        PortList lists[6];
        std::map<std::uint16_t, TargetStatusEntry> statuses;
        NORVA::IPAddress debugHost;
        std::uint16_t expected = 0;
        std::uint16_t currentSlot = 0;
        NORVA::TimeValue now;
        bool end = false;  // a message ended the loop
    };

    bool openCommon(const std::vector<NORVA::IPAddress>& addresses, bool withLog);
    bool openRegistrationSocket();
    bool openControlSocket();
    bool openLogSocket();
    void joinGroups(const std::vector<NORVA::IPAddress>& addresses);
    bool joinGroup(const NORVA::IPAddress& address);

    void run();
    std::uint32_t loop();
    void fillStaticPorts();
    void expire();
    void scanInterfaces();
    bool receiveControl();
    bool receiveLog();
    bool receiveRegistration();

    void handleControl(const Receive& request, const NORVA::IPAddress& source);
    bool handleInformation(const Receive& request, const NORVA::IPAddress& source);
    bool handleLocal(const Receive& request, const NORVA::IPAddress& source);

    // TargetControl.cpp
    void discover(const Receive& request, const NORVA::IPAddress& source);
    void portRequest(const Receive& request, const NORVA::IPAddress& source);
    void portListAnswer(const Receive& request, int base, std::uint16_t portClass,
                        const NORVA::IPAddress& source);
    void onePortAnswer(const Receive& request, const PortList& list, std::uint16_t index,
                       const NORVA::IPAddress& source);
    void textAnswer(std::uint16_t type, const std::string& text, const NORVA::IPAddress& source);
    void syncName(const Receive& request, const NORVA::IPAddress& source);
    void restart(const Receive& request, const NORVA::IPAddress& source);
    void hostDebug(const Receive& request, const NORVA::IPAddress& source);
    void nopBreak(const NORVA::IPAddress& source);
    void targetInfo(const Receive& request, const NORVA::IPAddress& source);
    void status(const Receive& request, const NORVA::IPAddress& source);
    void icon(const Receive& request, const NORVA::IPAddress& source);
    void mtuTest(const Receive& request, const NORVA::IPAddress& source);

    // TargetSettings.cpp
    void settingList(const Receive& request, const NORVA::IPAddress& source);
    void settingValue(const Receive& request, const NORVA::IPAddress& source);
    void settingChoice(const Receive& request, const NORVA::IPAddress& source);
    bool settingWrite(const Receive& request, const TargetSettingRow& row, std::uint16_t& value,
                      std::string& body);

    // TargetSlots.cpp
    void transferInfo(const Receive& request, const NORVA::IPAddress& source);
    void transferDataSet(const Receive& request, const NORVA::IPAddress& source);
    void transferCheckRequest(const Receive& request, const NORVA::IPAddress& source);
    void slotList(const Receive& request, const NORVA::IPAddress& source);

    // TargetLocal.cpp
    void portRegistration(const Receive& request, const NORVA::IPAddress& source);
    void statusRegistration(const Receive& request, const NORVA::IPAddress& source);
    void nopTargetSet(const Receive& request);
    void synchro(const Receive& request, const NORVA::IPAddress& source);
    void forwardClock(const NORVA::IPAddress& reporter, const HostClock& clock);
    void forwardAllClocks(std::uint16_t port);
    void logDatagram(const NORVA::ByteArray& datagram);
    void logHostCap(const char* what);

    // True, logged, if the target is read-only: `what` from `source` is
    // then refused.
    bool refusedAsReadOnly(const char* what, const NORVA::IPAddress& source) const;
    // Sends a finished answer; a failure is logged with `place`.
    bool reply(Send& message, const NORVA::IPAddress& to, int place);
    bool sendRaw(const void* data, std::size_t size, const NORVA::IPAddress& to, int place);
    // A bare header of that type, flags 0: the answer to what isn't served.
    void echo(std::uint16_t type, const NORVA::IPAddress& source);
    PortList* listOf(int base, bool sink);
    bool isOwnAddress(const NORVA::IPAddress& source) const;

    NORVA::UDPV6 controlSocket;
    NORVA::UDPV6 registrationSocket;
    NORVA::UDPV6 logSocket;
    NORVA::SocketSet sockets;
    TargetPorts bound;

    std::thread thread;
    std::atomic<std::uint8_t> stopping{0};
    std::atomic<std::uint32_t> result{1};
    std::atomic<std::uint16_t> code{0};
    std::atomic<bool> anyActive{false};

    bool autoMulticast = false;
    NORVA::TimeValue lastScan;
    mutable std::mutex sharedLock;  // for joined and names, which others read
    std::vector<NORVA::IPAddress> joined;
    std::vector<NORVA::IPAddress> failedJoin;
    // Both per host that sent: a host beyond the caps is not recorded.
    static constexpr std::size_t maxHosts = 256;
    static constexpr std::size_t maxClockSources = 16;
    std::map<NORVA::IPAddress, SyncName> names;
    std::map<NORVA::IPAddress, HostClock> hostClocks;
    bool hostCapLogged = false;

    LoopState state;
    NORVA::ByteArray controlDatagram;
    NORVA::ByteArray localDatagram;
};

}  // namespace VELMORA
