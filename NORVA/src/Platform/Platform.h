// The only interface between NORVA and the operating system.
//
// Everything above this header is the same code on Windows and Linux. Each
// function has one implementation in posix/ and one in win32/; the values it
// takes and gives are those of the Windows calls the driver was designed on
// (priority values, priority classes, Winsock error codes), so that the logic
// above can be tested on either system with the same expectations.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace NORVA::Platform {

// ---- Time ---------------------------------------------------------------

// Monotonic high-resolution counter and its ticks per second
// (QueryPerformanceCounter / CLOCK_MONOTONIC at 1 GHz).
std::uint64_t counterFrequency();
std::uint64_t counterNow();

// Wall clock broken down in the local time zone.
struct CalendarTime {
    int year;
    int month;  // 1..12
    int day;    // 1..31
    int hour;
    int minute;
    int second;
};
CalendarTime localTimeNow();

// Millisecond clock (timeGetTime) and the 1 ms timer granularity request.
std::uint32_t millisecondClock();
void beginTimerPeriod();
void endTimerPeriod();

void sleepMilliseconds(std::uint32_t ms);
// May end early where the system sleeps in coarse steps (Windows): callers
// that must reach a point in time loop on the clock.
void sleepMicroseconds(std::uint64_t us);
void yieldThread();  // Sleep(0)

// ---- Threads and processors ---------------------------------------------

// Windows thread id; on Linux the kernel task id (gettid), which the
// scheduler and affinity calls accept per thread.
using ThreadId = std::uint64_t;
ThreadId currentThreadId();

// Windows SetThreadPriority values: 15 time critical, 2 highest, 0 normal,
// -15 idle. On Linux: SCHED_FIFO high, SCHED_FIFO lower, SCHED_OTHER,
// SCHED_IDLE. A refusal by the system is a failure.
bool setThreadPriorityValue(ThreadId thread, int value);
bool setThreadAffinity(ThreadId thread, std::uint32_t mask);
// For a thread that will wait by spinning, never sleeping: where the system
// throttles real-time threads that never sleep (Linux takes the CPU from
// them for 50 ms in each second), it moves to the strongest normal priority
// instead. False where it stays as it is.
bool keepSpinnerRunnable(ThreadId thread);

// Sleeps while `word` still holds `seen`, at most `timeoutUs`; wakeWord ends
// the sleeps on it. A change between the caller's look and the sleep isn't
// lost: the sleep doesn't begin (futex; WaitOnAddress where Windows has it,
// otherwise short sleeps). May return early, as a condition variable may.
void waitOnWord(std::atomic<std::uint32_t>& word, std::uint32_t seen, std::uint64_t timeoutUs);
void wakeWord(std::atomic<std::uint32_t>& word);

std::uint16_t processorCount();
// The processor the calling thread runs on (GetCurrentProcessorNumber /
// sched_getcpu).
std::uint32_t currentProcessor();

// The process priority class as its Windows value (256 realtime, 128 high,
// 32768 above normal, 32 normal, 16384 below normal, 64 idle).
std::uint32_t processPriorityClass();

// ---- Files ---------------------------------------------------------------

// Paths are UTF-8. Whole-file reads and writes, as bytes.
bool readWholeFile(const std::string& path, std::string& bytes);
bool writeWholeFile(const std::string& path, const std::string& bytes);

// ---- Network interfaces -----------------------------------------------------

// One unicast address of one adapter (GetAdaptersAddresses / getifaddrs).
// For IPv4 the address is in the mapped form ::ffff:a.b.c.d.
struct AdapterAddress {
    std::uint8_t address[16];
    std::uint32_t interfaceIndex;
    std::string friendlyName;  // UTF-8
    std::string description;   // UTF-8
    std::string adapterName;
    std::uint32_t mtu;
    std::uint8_t mac[6];
};
// Adapters in the system's order, each with its addresses of one family.
bool listAdapterAddresses(bool ipv6, std::vector<AdapterAddress>& out);

// ---- Sockets --------------------------------------------------------------

using SocketHandle = std::intptr_t;
inline constexpr SocketHandle noSocket = -1;

// Error codes are reported in Winsock numbering, whatever the system, but
// for "address not available": 99 on every system, the code by which a
// target keeps quiet about answering a host that has gone.
inline constexpr int errorAddressNotAvailable = 99;   // not WSAEADDRNOTAVAIL (10049)
inline constexpr int errorInterrupted = 10004;        // WSAEINTR
inline constexpr int errorWouldBlock = 10035;         // WSAEWOULDBLOCK
inline constexpr int errorConnectionReset = 10054;    // WSAECONNRESET
inline constexpr int errorShutdown = 10058;           // WSAESHUTDOWN
inline constexpr int errorNoBuffers = 10055;          // WSAENOBUFS
inline constexpr int errorConnectionRefused = 10061;  // WSAECONNREFUSED

// Starts the socket library once for the process (WSAStartup and its
// clean-up at exit). 0 on success, 84 if the clean-up could not be
// registered, 87 if the library did not start.
int startSocketLibrary();

// The error of the last failed socket call of this thread.
int lastSocketError();

enum class SocketFamily { v4, v6 };
enum class SocketType { stream, datagram };
SocketHandle socketCreate(SocketFamily family, SocketType type);
void socketClose(SocketHandle handle, bool shutdownFirst);
// Ends, for good, any wait or receive on the socket in another thread, and
// makes later ones return at once; the handle stays valid until closed, so
// that the other thread never meets a handle that was reused meanwhile.
// Closing alone doesn't wake a thread in poll on Linux.
void socketInterrupt(SocketHandle handle);
bool socketSetNonBlocking(SocketHandle handle, bool nonBlocking);

enum class SocketOption {
    broadcast,           // SO_BROADCAST
    noDelay,             // TCP_NODELAY
    reuseAddress,        // SO_REUSEADDR
    dontFragment,        // IPv4: no fragmentation by this host
    pathMtuDiscovery,    // IPv4: MTU discovery on the path
    v6Only,              // IPV6_V6ONLY
    multicastInterface,  // IPV6_MULTICAST_IF
    unicastInterface,    // IPV6_UNICAST_IF, where the system has it
    multicastLoop,       // IPV6_MULTICAST_LOOP
    multicastHops,       // IPV6_MULTICAST_HOPS
    receiveBufferSize,   // SO_RCVBUF
    sendBufferSize,      // SO_SNDBUF
    arrivalStamps        // SO_TIMESTAMPNS, where the system has it
};
bool socketSetOption(SocketHandle handle, SocketOption option, int value);

// An IPv6 socket address: 16 bytes in network order, the port in network
// byte order as it lies in memory, and the scope (interface index).
struct SocketAddress6 {
    std::uint8_t bytes[16];
    std::uint16_t portNetworkOrder;
    std::uint32_t scope;
};

bool socketBind6(SocketHandle handle, const SocketAddress6& address);
bool socketListen(SocketHandle handle, int backlog);
bool socketLocalAddress6(SocketHandle handle, SocketAddress6& address);
bool socketJoinGroup6(SocketHandle handle, const std::uint8_t group[16], std::uint32_t scope);

// IPv4 sockets take their addresses in the mapped form ::ffff:a.b.c.d.
bool socketBind4(SocketHandle handle, const SocketAddress6& address);
bool socketConnect(SocketHandle handle, const SocketAddress6& address, SocketFamily family);
// The accepted connection, or noSocket; `peer` may be null.
SocketHandle socketAccept(SocketHandle handle, SocketAddress6* peer);
// Joins the IPv4 group `group` on the interface with the address
// `interfaceAddress` (all zeros: the system's choice); both 4 bytes.
bool socketJoinGroup4(SocketHandle handle, const std::uint8_t group[4],
                      const std::uint8_t interfaceAddress[4]);
// IPv4 multicast leaves out of the interface with this address.
bool socketSetMulticastInterface4(SocketHandle handle, const std::uint8_t interfaceAddress[4]);

// Bytes sent, or -1 on failure (see lastSocketError).
std::int64_t socketSend(SocketHandle handle, const void* data, std::size_t length);
std::int64_t socketSendTo4(SocketHandle handle, const void* data, std::size_t length,
                           const SocketAddress6& peer);
std::int64_t socketSendTo6(SocketHandle handle, const void* data, std::size_t length,
                           const SocketAddress6& peer);
// Bytes received (0 for an empty datagram), or -1 on failure. peer may be null.
std::int64_t socketReceiveFrom6(SocketHandle handle, void* data, std::size_t size, SocketAddress6* peer);

// The datagrams that wait, up to `count`, in one call where the system has
// one; never waits. Datagram i goes to data[i], cut to `size` bytes; its
// length lands in received[i], its sender in peers[i], and in agesNs[i] how
// long it had waited in the socket: 0 where the socket doesn't stamp
// arrivals (SocketOption::arrivalStamps). How many were taken (0 for none),
// or -1 on failure.
int socketReceiveMany6(SocketHandle handle, std::uint8_t* const* data, std::size_t size,
                       std::size_t* received, SocketAddress6* peers, std::int64_t* agesNs, std::size_t count);

// select() on one socket for reading: 0 error, 1 timed out, 2 readable.
int socketWaitReadable(SocketHandle handle, std::uint64_t timeoutMicroseconds);

// The most sockets one wait takes (Winsock's FD_SETSIZE).
inline constexpr std::size_t maxWaitSockets = 64;
// select() on up to maxWaitSockets sockets for reading, with the results of
// socketWaitReadable; on 2, ready[i] tells whether handles[i] is readable.
int socketWaitAnyReadable(const SocketHandle* handles, std::size_t count, std::uint64_t timeoutMicroseconds,
                          bool* ready);

}  // namespace NORVA::Platform
