// The packet capture library, loaded at run time so that the driver starts
// without it: "wpcap.dll" (WinPcap, Npcap) on Windows, libpcap on Linux.
#pragma once

namespace NORVA::Platform {

// The address of the library's function `name`; null if the library can't
// be loaded or doesn't offer it. The first call that finds the library loads
// it for the rest of the process; while it is missing, each call tries
// again, so that an install takes effect without a restart.
void* packetLibrarySymbol(const char* name);

// Whether this system's library must offer the send queue (WinPcap's
// pcap_sendqueue_*). libpcap on Linux has none and sends frame by frame.
bool packetSendQueueRequired();

}  // namespace NORVA::Platform
