// The one table of message type codes of the protocol.
//
// Requests have even codes, answers odd ones, and the answer to code n is
// n + 1. Codes from 0x8000 are local to one machine and never leave it.
// A new message gets its row here first; nothing else in the code writes a
// type number.
#pragma once

#include <cstdint>

namespace VELMORA {

#define VELMORA_MESSAGE_TYPES(X)      \
    X(DISCOVER, 0x0000)               \
    X(DISCOVER_ANS, 0x0001)           \
    X(PORT_REQ, 0x0002)               \
    X(PORT_ANS, 0x0003)               \
    X(FORMAT_REQ, 0x0004)             \
    X(FORMAT_ANS, 0x0005)             \
    X(LATENCY_REQ, 0x0006)            \
    X(LATENCY_ANS, 0x0007)            \
    X(CONNECT_REQ, 0x0008)            \
    X(CONNECT_ANS, 0x0009)            \
    X(STREAM_DATA, 0x000A)            \
    X(STREAM_ANS, 0x000B)             \
    X(DISCONNECT_REQ, 0x000C)         \
    X(DISCONNECT_ANS, 0x000D)         \
    X(DATASIZE_REQ, 0x000E)           \
    X(DATASIZE_ANS, 0x000F)           \
    X(TARGETNAME_REQ, 0x0010)         \
    X(TARGETNAME_ANS, 0x0011)         \
    X(CONNECTPRE_REQ, 0x0012)         \
    X(CONNECTPRE_ANS, 0x0013)         \
    X(SINKINFO_REQ, 0x0014)           \
    X(SINKINFO_ANS, 0x0015)           \
    X(SYNCNAME_SET, 0x0016)           \
    X(SYNCNAME_ANS, 0x0017)           \
    X(CONNECTNAME_SET, 0x0018)        \
    X(CONNECTNAME_ANS, 0x0019)        \
    X(TRANSFERINFO_REQ, 0x001A)       \
    X(TRANSFERINFO_ANS, 0x001B)       \
    X(TRANSFERDATA_SET, 0x001C)       \
    X(TRANSFERDATA_ANS, 0x001D)       \
    X(TRANSFERCHECK_REQ, 0x001E)      \
    X(TRANSFERCHECK_ANS, 0x001F)      \
    X(TARGETTEXT1_REQ, 0x0020)        \
    X(TARGETTEXT1_ANS, 0x0021)        \
    X(TARGETTEXT2_REQ, 0x0022)        \
    X(TARGETTEXT2_ANS, 0x0023)        \
    X(RESTART_REQ, 0x0024)            \
    X(RESTART_ANS, 0x0025)            \
    X(HOSTDEBUG_REQ, 0x0028)          \
    X(HOSTDEBUG_ANS, 0x0029)          \
    X(NOPBREAK_REQ, 0x002A)           \
    X(NOPBREAK_ANS, 0x002B)           \
    X(TARGETINFO_REQ, 0x002C)         \
    X(TARGETINFO_ANS, 0x002D)         \
    X(SETTINGLIST_REQ, 0x0030)        \
    X(SETTINGLIST_ANS, 0x0031)        \
    X(SETTINGVALUE_REQ, 0x0032)       \
    X(SETTINGVALUE_ANS, 0x0033)       \
    X(SETTINGLIST2_REQ, 0x0034)       \
    X(SETTINGLIST2_ANS, 0x0035)       \
    X(SETTINGVALUE2_REQ, 0x0036)      \
    X(SETTINGVALUE2_ANS, 0x0037)      \
    X(STATUS_REQ, 0x0038)             \
    X(STATUS_ANS, 0x0039)             \
    X(ICON_REQ, 0x0040)               \
    X(ICON_ANS, 0x0041)               \
    X(ICON1_REQ, 0x0042)              \
    X(ICON1_ANS, 0x0043)              \
    X(ICON2_REQ, 0x0044)              \
    X(ICON2_ANS, 0x0045)              \
    X(SYNCHRO, 0x0046)                \
    X(MSCONNECT_REQ, 0x0048)          \
    X(MSCONNECT_ANS, 0x0049)          \
    X(SYNCHRO_CHANNEL_REQ, 0x004A)    \
    X(SYNCHRO_CHANNEL_ANS, 0x004B)    \
    X(SYNCHRO_STATUS_REQ, 0x004C)     \
    X(SYNCHRO_STATUS_ANS, 0x004D)     \
    X(SLOTLIST_REQ, 0x004E)           \
    X(SLOTLIST_ANS, 0x004F)           \
    X(MTUTEST_REQ, 0x0050)            \
    X(MTUTEST_ANS, 0x0051)            \
    X(PORT_REGIST, 0x8002)            \
    X(STATUS_REGIST, 0x8003)          \
    X(TARGETID_REQ, 0x8004)           \
    X(TARGETID_ANS, 0x8005)           \
    X(NOPTA_SET, 0x8006)              \
    X(LOCALCPU_REQ, 0x8008)           \
    X(LOCALCPU_ANS, 0x8009)           \
    X(LOCALSERVICE_REQ, 0x800A)       \
    X(LOCALSERVICE_ANS, 0x800B)       \
    X(SYNCHRO_FORWARD, 0x800C)

// Type codes as plain 16-bit constants: they are compared with and written
// into frame headers, which hold a u16.
namespace MessageType {
#define VELMORA_MESSAGE_CONSTANT(name, code) inline constexpr std::uint16_t name = code;
VELMORA_MESSAGE_TYPES(VELMORA_MESSAGE_CONSTANT)
#undef VELMORA_MESSAGE_CONSTANT
}  // namespace MessageType

// The answer to a request of type n.
constexpr std::uint16_t answerTo(std::uint16_t request) { return static_cast<std::uint16_t>(request + 1); }
constexpr bool isRequest(std::uint16_t type) { return (type & 1) == 0; }
constexpr bool isLocalType(std::uint16_t type) { return type >= 0x8000; }

// The name of a type code, or null for a code without use.
const char* messageTypeName(std::uint16_t type);

}  // namespace VELMORA
