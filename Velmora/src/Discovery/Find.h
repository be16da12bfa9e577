// The host's client for everything before a stream: finding targets on the
// local links, reading what they offer, reading and writing their settings,
// writing their slots, measuring the path MTU.
//
// Reads return false only when a socket call failed; a target that refuses
// or stays silent gives an empty result. The requests that change a target
// (restart, setting writes, commit) return whether the target agreed. Exchanges wait 30 ms a
// try, 3 tries, so nothing here waits long for a silent target.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Discovery/FindTypes.h"
#include "Network/BufferCS_const.h"
#include "Network/IPAddress.h"
#include "Protocol/Connection.h"

namespace VELMORA {

// Which of a target's two setting tables an operation addresses.
enum class SettingTable { first, second };

class Find : public Connection {
  public:
    static constexpr std::uint16_t releaseNumber = 148;
    static constexpr std::uint16_t controlPort = 19642;

    using AnswerMap = std::map<NORVA::IPAddress, std::unique_ptr<ConnectionBuffer>>;
    // Called at the start of each block of a slot transfer: block, blocks.
    using Progress = std::function<void(const unsigned short&, const unsigned short&)>;

    FindSettings settings;
    // The port that targets listen on; a tool or test may point it elsewhere.
    std::uint16_t targetPort = controlPort;

    explicit Find(const FindSettings& settings);
    // On the caller's socket, which Find neither opens nor closes.
    Find(const FindSettings& settings, NORVA::UDPV6& shared);

    // ---- open: fixes the socket and the local addresses used ----
    bool open();
    // One local address; a null one means open().
    bool open(const NORVA::IPAddress& address);
    // The link-local addresses of one interface; 0 means open().
    bool open(std::uint16_t interfaceNumber);
    // The first address of each named interface; one unknown name fails.
    bool open(const std::vector<std::string>& interfaceNames);
    bool open(const std::vector<NORVA::IPAddress>& addresses);

    // ---- discovery ----
    // One probe out of every local address (::1 directly, the others to
    // ff02::1) and the answers gathered for 30 ms each, keyed by source.
    bool FindMulti(ConnectionBuffer& probe, AnswerMap& answers, bool loopback);
    // Three rounds of discovery; the targets whose ProductID is accepted.
    bool searchTargets(TargetMap& targets);
    // `id`, or noProductId if the filter refuses it.
    std::uint64_t acceptTarget(std::uint64_t id);
    bool isAlive(const NORVA::IPAddress& address);
    // `id` is noProductId if nothing answers.
    bool probeTarget(const NORVA::IPAddress& address, std::uint64_t& id, std::string& name);
    bool setSyncName(const NORVA::IPAddress& address);
    // `map`, if given, is 512 bytes: bit i says whether port index i exists.
    bool readPortList(const NORVA::IPAddress& address, std::uint16_t& count, std::uint16_t& secondCount,
                      std::uint8_t* map);
    // `sinkAddress` comes back null if there is no usable sink at the index.
    bool readPort(const NORVA::IPAddress& address, std::uint16_t portIndex, NORVA::IPAddress& sinkAddress,
                  std::uint16_t& version, std::string& outputName, std::uint16_t channelInfo[4]);
    bool readTargetRecords(const TargetMap& targets, TargetRecordMap& records);
    // A sink of a target whose address is known, without discovery.
    bool readTarget(NORVA::IPAddress address, std::uint16_t portIndex, NORVA::IPAddress& sinkAddress,
                    TargetRecord& record);
    // The same for the lowest port index the target lists.
    bool readFirstTarget(const NORVA::IPAddress& address, NORVA::IPAddress& sinkAddress,
                         TargetRecord& record);

    // ---- information and control ----
    bool breakNop(const NORVA::IPAddress& address);
    bool readStatus(const TargetMap& targets, TargetStatusMap& statuses);
    bool readStatusCount(const NORVA::IPAddress& address, std::uint16_t& count);
    bool readStatusEntry(const NORVA::IPAddress& address, std::uint16_t index, NORVA::IPAddress& entryAddress,
                         std::uint16_t& version, std::string& text, NORVA::IPAddress& peer,
                         std::uint16_t& kind);
    // Who feeds local port `port` of the target at `address`, through the
    // links of `statuses`: the sink entry first, then each feeder behind
    // the link that it feeds.
    static void traceChain(std::uint16_t port, bool first, const NORVA::IPAddress& address,
                           const TargetStatusMap& statuses, std::vector<StatusLink>& chain);
    bool readText1(const NORVA::IPAddress& address, std::string& text);
    bool readText2(const NORVA::IPAddress& address, std::string& text);
    // Asks only whether the target may restart unless `doIt`; true if it may.
    bool restartTarget(const NORVA::IPAddress& address, bool doIt, std::uint16_t code);
    bool readInfoBytes(const NORVA::IPAddress& address, std::uint16_t selector,
                       std::vector<std::uint8_t>& bytes);
    bool readInfoText(const NORVA::IPAddress& address, std::uint16_t selector, std::string& text);
    bool readInfoList(const NORVA::IPAddress& address, std::uint16_t selector,
                      std::vector<std::string>& list);

    // ---- settings ----
    // Unlike the other reads, any missing or mismatched answer is a failure;
    // `list` keeps what was read until then.
    bool readSettings(SettingTable table, const NORVA::IPAddress& address, std::vector<TargetSetting>& list,
                      bool reapply);
    bool writeSetting(SettingTable table, const NORVA::IPAddress& address, std::uint16_t number,
                      std::uint16_t value, const std::string& text);
    // The same; `answerText` takes the body of the answer.
    bool writeSetting(SettingTable table, const NORVA::IPAddress& address, std::uint16_t number,
                      std::uint16_t value, const std::string& text, std::string& answerText);
    // Commits the table, or drops the changes.
    bool commitSettings(SettingTable table, const NORVA::IPAddress& address, bool drop);

    // ---- icons ----
    // `choice`: the icon number 1 to 8 in the low 16 bits, the set 0 to 2 in
    // the high ones. Falls back to related icons when the wanted one is
    // missing; an empty icon if none has pixels.
    bool readIcon(const NORVA::IPAddress& address, std::uint32_t choice, TargetIcon& icon,
                  std::uint16_t wantedWidth);
    // Exactly icon `number` of `set`, without falling back.
    bool readIconNumber(const NORVA::IPAddress& address, std::uint16_t set, std::uint16_t number,
                        TargetIcon& icon);

    // ---- slots ----
    // Writes `data` into slot `slot` (from 0) in windowed bursts, `limit`
    // capping the window in bytes (0: no cap), and checks its CRC. True only
    // if all of it stands in the slot.
    bool Transfer(const NORVA::IPAddress& address, int slot, NORVA::BufferCS_const data, unsigned int limit,
                  const Progress& progress);
    bool Transfer(const NORVA::IPAddress& address, int slot, NORVA::BufferCS_const data, unsigned int limit);
    bool checkTransfer(const NORVA::IPAddress& address, int slot, std::uint16_t crc, std::uint16_t& state);
    bool readSlotList(const NORVA::IPAddress& address, std::vector<SlotDescription>& list);

    // ---- MTU ----
    // The largest IP packet that reaches the target, by a binary search of
    // probes no larger than the interface allows. `activeMtu` stays 1500
    // when the target can't tell.
    bool measureMtu(const NORVA::IPAddress& address, std::uint32_t& activeMtu, std::uint32_t& interfaceMtu);
    bool measureMtu(const NORVA::IPAddress& address, std::uint32_t& activeMtu);
    // The MTU of the interface of `scope` (0: the loopback's).
    bool getInterfaceMtu(std::uint32_t scope, std::uint32_t& mtu);

  private:
    // One sendAck to `to` of a request of `type`, waiting for its answer type.
    bool ask(const NORVA::IPAddress& to, std::uint16_t type, std::uint16_t param0, std::uint16_t param1,
             std::uint16_t param2, std::uint16_t param3, ConnectionBuffer& answer);
    bool ask(const NORVA::IPAddress& to, ConnectionBuffer& request, ConnectionBuffer& answer);
    bool breakNopIfSet(const NORVA::IPAddress& address);
    bool readTargetName(const NORVA::IPAddress& address, std::string& targetName);
    bool readTextAnswer(const NORVA::IPAddress& address, std::uint16_t type, std::string& text);
    bool readIconByOrder(const NORVA::IPAddress& address, std::uint16_t set, std::uint16_t wanted,
                         TargetIcon& icon, std::uint16_t& found);
    bool readSetting(SettingTable table, const NORVA::IPAddress& address, std::uint16_t number, bool reapply,
                     TargetSetting& setting);
    bool readChoices(SettingTable table, const NORVA::IPAddress& address, std::uint16_t number,
                     TargetSetting& setting);
};

}  // namespace VELMORA
