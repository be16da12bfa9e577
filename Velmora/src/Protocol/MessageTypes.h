// The one table of message type codes of the protocol: name, code, and the
// type that its sender waits for.
//
// Requests have even codes, answers odd ones, and the answer to code n is
// n + 1. Codes from 0x8000 are local to one machine and never leave it.
// A new message gets its row here first; nothing else in the code writes a
// type number. ICON_REQ serves icon set 0, ICON1_REQ and ICON2_REQ sets 1
// and 2.
#pragma once

#include <cstdint>

namespace VELMORA {

#define VELMORA_MESSAGE_TYPES(X)                        \
    X(DISCOVER, 0x0000, DISCOVER_ANS)                   \
    X(DISCOVER_ANS, 0x0001, noAnswer)                   \
    X(PORT_REQ, 0x0002, PORT_ANS)                       \
    X(PORT_ANS, 0x0003, noAnswer)                       \
    X(FORMAT_REQ, 0x0004, FORMAT_ANS)                   \
    X(FORMAT_ANS, 0x0005, noAnswer)                     \
    X(LATENCY_REQ, 0x0006, LATENCY_ANS)                 \
    X(LATENCY_ANS, 0x0007, noAnswer)                    \
    X(CONNECT_REQ, 0x0008, CONNECT_ANS)                 \
    X(CONNECT_ANS, 0x0009, noAnswer)                    \
    X(STREAM_DATA, 0x000A, STREAM_ANS)                  \
    X(STREAM_ANS, 0x000B, noAnswer)                     \
    X(DISCONNECT_REQ, 0x000C, DISCONNECT_ANS)           \
    X(DISCONNECT_ANS, 0x000D, noAnswer)                 \
    X(DATASIZE_REQ, 0x000E, DATASIZE_ANS)               \
    X(DATASIZE_ANS, 0x000F, noAnswer)                   \
    X(TARGETNAME_REQ, 0x0010, TARGETNAME_ANS)           \
    X(TARGETNAME_ANS, 0x0011, noAnswer)                 \
    X(CONNECTPRE_REQ, 0x0012, CONNECTPRE_ANS)           \
    X(CONNECTPRE_ANS, 0x0013, noAnswer)                 \
    X(SINKINFO_REQ, 0x0014, SINKINFO_ANS)               \
    X(SINKINFO_ANS, 0x0015, noAnswer)                   \
    X(SYNCNAME_SET, 0x0016, SYNCNAME_ANS)               \
    X(SYNCNAME_ANS, 0x0017, noAnswer)                   \
    X(CONNECTNAME_SET, 0x0018, CONNECTNAME_ANS)         \
    X(CONNECTNAME_ANS, 0x0019, noAnswer)                \
    X(TRANSFERINFO_REQ, 0x001A, TRANSFERINFO_ANS)       \
    X(TRANSFERINFO_ANS, 0x001B, noAnswer)               \
    X(TRANSFERDATA_SET, 0x001C, TRANSFERDATA_ANS)       \
    X(TRANSFERDATA_ANS, 0x001D, noAnswer)               \
    X(TRANSFERCHECK_REQ, 0x001E, TRANSFERCHECK_ANS)     \
    X(TRANSFERCHECK_ANS, 0x001F, noAnswer)              \
    X(TARGETTEXT1_REQ, 0x0020, TARGETTEXT1_ANS)         \
    X(TARGETTEXT1_ANS, 0x0021, noAnswer)                \
    X(TARGETTEXT2_REQ, 0x0022, TARGETTEXT2_ANS)         \
    X(TARGETTEXT2_ANS, 0x0023, noAnswer)                \
    X(RESTART_REQ, 0x0024, RESTART_ANS)                 \
    X(RESTART_ANS, 0x0025, noAnswer)                    \
    X(HOSTDEBUG_REQ, 0x0028, HOSTDEBUG_ANS)             \
    X(HOSTDEBUG_ANS, 0x0029, noAnswer)                  \
    X(NOPBREAK_REQ, 0x002A, FORMAT_ANS)                 \
    X(NOPBREAK_ANS, 0x002B, noAnswer)                   \
    X(TARGETINFO_REQ, 0x002C, TARGETINFO_ANS)           \
    X(TARGETINFO_ANS, 0x002D, noAnswer)                 \
    X(SETTINGLIST_REQ, 0x0030, SETTINGLIST_ANS)         \
    X(SETTINGLIST_ANS, 0x0031, noAnswer)                \
    X(SETTINGVALUE_REQ, 0x0032, SETTINGVALUE_ANS)       \
    X(SETTINGVALUE_ANS, 0x0033, noAnswer)               \
    X(SETTINGLIST2_REQ, 0x0034, SETTINGLIST2_ANS)       \
    X(SETTINGLIST2_ANS, 0x0035, noAnswer)               \
    X(SETTINGVALUE2_REQ, 0x0036, SETTINGVALUE2_ANS)     \
    X(SETTINGVALUE2_ANS, 0x0037, noAnswer)              \
    X(STATUS_REQ, 0x0038, STATUS_ANS)                   \
    X(STATUS_ANS, 0x0039, noAnswer)                     \
    X(ICON_REQ, 0x0040, ICON_ANS)                       \
    X(ICON_ANS, 0x0041, noAnswer)                       \
    X(ICON1_REQ, 0x0042, ICON1_ANS)                     \
    X(ICON1_ANS, 0x0043, noAnswer)                      \
    X(ICON2_REQ, 0x0044, ICON2_ANS)                     \
    X(ICON2_ANS, 0x0045, noAnswer)                      \
    X(SYNCHRO, 0x0046, noAnswer)                        \
    X(MSCONNECT_REQ, 0x0048, MSCONNECT_ANS)             \
    X(MSCONNECT_ANS, 0x0049, noAnswer)                  \
    X(SYNCHRO_CHANNEL_REQ, 0x004A, SYNCHRO_CHANNEL_ANS) \
    X(SYNCHRO_CHANNEL_ANS, 0x004B, noAnswer)            \
    X(SYNCHRO_STATUS_REQ, 0x004C, SYNCHRO_STATUS_ANS)   \
    X(SYNCHRO_STATUS_ANS, 0x004D, noAnswer)             \
    X(SLOTLIST_REQ, 0x004E, SLOTLIST_ANS)               \
    X(SLOTLIST_ANS, 0x004F, noAnswer)                   \
    X(MTUTEST_REQ, 0x0050, MTUTEST_ANS)                 \
    X(MTUTEST_ANS, 0x0051, noAnswer)                    \
    X(PORT_REGIST, 0x8002, noAnswer)                    \
    X(STATUS_REGIST, 0x8003, noAnswer)                  \
    X(TARGETID_REQ, 0x8004, TARGETID_ANS)               \
    X(TARGETID_ANS, 0x8005, noAnswer)                   \
    X(NOPTA_SET, 0x8006, noAnswer)                      \
    X(LOCALCPU_REQ, 0x8008, LOCALCPU_ANS)               \
    X(LOCALCPU_ANS, 0x8009, noAnswer)                   \
    X(LOCALSERVICE_REQ, 0x800A, LOCALSERVICE_ANS)       \
    X(LOCALSERVICE_ANS, 0x800B, noAnswer)               \
    X(SYNCHRO_FORWARD, 0x800C, noAnswer)

// Type codes as plain 16-bit constants: they are compared with and written
// into frame headers, which hold a u16.
namespace MessageType {
// The third column of a row without an answer to wait for.
inline constexpr std::uint16_t noAnswer = 0xFFFF;
#define VELMORA_MESSAGE_CONSTANT(name, code, awaited) inline constexpr std::uint16_t name = code;
VELMORA_MESSAGE_TYPES(VELMORA_MESSAGE_CONSTANT)
#undef VELMORA_MESSAGE_CONSTANT
}  // namespace MessageType

constexpr bool isRequest(std::uint16_t type) {
    return (type & 1) == 0;
}
constexpr bool isLocalType(std::uint16_t type) {
    return type >= 0x8000;
}

// The name of a type code, or null for a code without use.
const char* messageTypeName(std::uint16_t type);
// The type that a sender of `type` waits for: by rule its code plus 1, but
// NOPBREAK_REQ waits for FORMAT_ANS. MessageType::noAnswer for a message
// that isn't answered, or a code without use.
std::uint16_t awaitedAnswer(std::uint16_t type);

}  // namespace VELMORA
