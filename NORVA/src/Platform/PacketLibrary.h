// The packet capture library, loaded at run time so that the driver starts
// without it: "wpcap.dll" (WinPcap, Npcap) on Windows, libpcap on Linux.
#pragma once

#include <cstddef>
#include <cstdint>

#include "Platform/Platform.h"

namespace NORVA::Platform {

// The address of the library's function `name`; null if the library can't
// be loaded or doesn't offer it. The first call that finds the library loads
// it for the rest of the process; while it is missing, each call tries
// again, so that an install takes effect without a restart.
void* packetLibrarySymbol(const char* name);

// Whether this system's library must offer the send queue (WinPcap's
// pcap_sendqueue_*). libpcap on Linux has none and sends frame by frame.
bool packetSendQueueRequired();

// ---- Packet sockets: the receiving end of raw frames, for a target -------

// A non-blocking socket that takes the frames of `etherType` arriving on the
// interface `interfaceName` (Linux: AF_PACKET). noSocket with `error` set
// (the system's number) where it can't be had; Windows has none.
SocketHandle packetSocketOpen(const char* interfaceName, std::uint16_t etherType, int& error);
// One frame from the link, from its destination address on, cut to `size`.
// 0 when nothing is there (or the frame was this host's own); -1 on a
// failure, with `error` set.
std::int64_t packetSocketReceive(SocketHandle handle, void* data, std::size_t size, int& error);
void packetSocketClose(SocketHandle handle);

}  // namespace NORVA::Platform
