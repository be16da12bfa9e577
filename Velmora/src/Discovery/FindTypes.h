// The records that VELMORA::Find fills: its settings, and what it reads of
// targets. TargetIcon and SlotDescription serve the target's side as well.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "Network/IPAddress.h"

namespace VELMORA {

inline constexpr std::uint64_t anyProductId = 0;
inline constexpr std::uint64_t noProductId = ~0ull;

struct FindSettings {
    // The ProductID that discovery accepts; 0 accepts every target.
    std::uint64_t filterId = noProductId;
    // The highest protocol version of a sink that this host accepts; 0 any.
    std::uint16_t protocolVersion = 1;
    // Announced to every target found, with productId.
    std::string clientName;
    // Take this host out of the targets' hold-off sets before reading ports
    // and status.
    bool nopBreak = false;
    // ::1 counts as a local address, so a target on this machine is found.
    bool withLoopback = false;
    std::vector<std::uint64_t> furtherIds;
    std::uint64_t productId = noProductId;
};

// A target that answered discovery.
struct TargetEntry {
    std::uint64_t productId = 0;
    std::string name;
};
// Keyed by the address, port and scope that the answer came from.
using TargetMap = std::map<NORVA::IPAddress, TargetEntry>;

// What the driver needs to know of one sink.
struct TargetRecord {
    std::uint64_t productId = 0;
    std::uint16_t controlIndex = 0;
    std::uint16_t portIndex = 0;
    std::uint16_t version = 0;
    std::string name;        // of the target, from discovery
    std::string targetName;  // with "[myaddress]" filled in
    NORVA::IPAddress targetAddress;
    std::string outputName;
    bool severalSinks = false;
    std::uint16_t channelInfo[4] = {};  // the sink's transfer modes, kept for the stream set-up
};
// Keyed by the sink's address: the target's address and scope, the sink's port.
using TargetRecordMap = std::map<NORVA::IPAddress, TargetRecord>;

// One entry of a target's status list.
struct TargetStatus {
    std::uint64_t productId = 0;
    std::uint16_t index = 0;
    std::uint16_t version = 0;
    std::string name;
    std::uint16_t kind = 0;  // 0 a control port, otherwise a sink
    // The far end of the link: an address, and in the port the index of its
    // status entry there.
    NORVA::IPAddress peer;
    std::string statusText;
};
// Keyed by the target's address and scope with the entry's port.
using TargetStatusMap = std::map<NORVA::IPAddress, TargetStatus>;

// One link of a chain of targets that feed each other.
struct StatusLink : TargetStatus {
    NORVA::IPAddress entryAddress;
    bool last = false;
    bool origin = false;
};

// A setting as the host shows it.
namespace SettingKind {
inline constexpr std::int32_t text = 1;
inline constexpr std::int32_t number = 2;
inline constexpr std::int32_t onOff = 3;
inline constexpr std::int32_t choice = 4;
inline constexpr std::int32_t textChoice = 5;  // a choice that the target keeps as its text
inline constexpr std::int32_t shownNumber = 6;
}  // namespace SettingKind

struct TargetSetting {
    std::int32_t kind = 0;
    std::string name;
    std::string text;
    std::vector<std::string> choices;
    std::int32_t value = 0;
    std::int32_t minimum = 0;
    std::int32_t maximum = 0;
    std::int32_t heldValue = 0;
};

struct TargetIcon {
    bool alphaOnly = false;             // pixels hold an 8-bit alpha value in their top byte
    std::vector<std::uint32_t> pixels;  // row-major, width times height
    std::uint16_t width = 0;
};

struct SlotDescription {
    std::string name;
    std::string text;
    std::uint16_t value = 0;
};

}  // namespace VELMORA
