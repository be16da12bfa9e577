// What a target program hands to VELMORA::Target: its names, texts, lists,
// settings, icons, slots and static ports. The object keeps its own copy.
// TargetIcon and SlotDescription are the records that Find reads back.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Discovery/FindTypes.h"
#include "Network/TimeValue.h"

namespace VELMORA {

// A port that exists without registration. `portClass` 1, 2 or 4 picks the
// pair of lists; any other value leaves the port out.
struct StaticPort {
    std::uint16_t port = 0;
    std::uint16_t index = 0;
    std::string name;
    bool sink = true;  // the pair's sink list; false: its second list
    std::uint16_t portClass = 1;
};

// One row of the setting table. `kind` is the wire kind: 1 unsigned, 2
// signed, 3 switch, 4 text, 5 choice by index, 6 choice kept as text, 7
// number shown by the target.
struct TargetSettingRow {
    std::int16_t kind = 1;
    std::string name;
    std::string text;
    std::uint16_t minimum = 0;
    std::uint16_t maximum = 0;
    std::uint16_t value = 0;
    std::vector<std::string> choices;
};

// The UDP ports of the target's sockets and of the system log it forwards
// to. Tests use 0 for ports of the system's choice.
struct TargetPorts {
    std::uint16_t control = 19642;
    std::uint16_t registration = 19638;
    std::uint16_t log = 19641;
    std::uint16_t systemLog = 514;
};

struct TargetConfig {
    std::uint64_t productId = 0;
    std::uint16_t portClass = 1;  // reported for a port request of class 0
    std::string name;             // DISCOVER_ANS
    std::string targetName;       // TARGETNAME_ANS
    std::string text1;
    std::string text2;
    std::uint64_t identity = 0;
    bool restartAllowed = false;
    // Nobody on the link may change the target: setting writes and the
    // commit, restart requests and slot data are refused and logged. The
    // protocol has no authentication; this is the switch for links where
    // that matters.
    bool readOnly = false;
    bool forwardLog = false;
    std::string infoText;
    std::vector<std::string> infoList;
    std::vector<std::string> infoList2;
    std::string infoText2;
    bool allowLoopback = false;
    bool synchro = false;
    std::vector<StaticPort> staticPorts;
    std::uint16_t window = 0xFFFF;  // bytes per burst of a slot transfer; 0xFFFF: no limit
    std::uint16_t slotCount = 0;
    // packetSize - 1, packetsPerBlock - 1, blockCount - 1 of every slot.
    std::uint16_t slots[3] = {};
    std::vector<SlotDescription> slotDescriptions;
    TargetIcon icons[8];
    std::vector<TargetSettingRow> settings;

    TargetPorts ports;
    // How long a registered port or status entry lives without being
    // registered again.
    NORVA::TimeValue registrationLifetime = NORVA::TimeValue::fromSeconds(10);
    // Without synchro the loop runs at idle priority. On Linux that is
    // SCHED_IDLE, which gets no processor while anything else runs; a target
    // sharing a busy machine turns this off.
    bool idleWithoutSynchro = true;
};

}  // namespace VELMORA
