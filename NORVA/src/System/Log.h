// The diagnostic channel and the exception type of the system.
//
// A log call is a temporary that is streamed into:
//
//     NORVA::LogLine(6) << "start done, rate " << rate;
//
// When it dies at the end of the statement, the line goes out as one BSD
// syslog datagram to the loopback address (and to an optional sink). While
// the threshold is below the line's severity the call costs one comparison:
// no allocation, no formatting, no system call, so log calls may stand on
// real-time paths.
#pragma once

#include <atomic>
#include <concepts>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "Network/IPAddress.h"
#include "Network/Socket.h"

namespace NORVA {

// Lines are built only if their severity (0..7) is at or below this; -1 at
// start, so nothing is built until the settings raise it.
extern std::atomic<std::int32_t> logThreshold;

// Stores the threshold and opens the log socket to the default port. False
// if no Syslog is installed or its socket can't be opened.
bool setLogLevel(std::int32_t level);

// Streamed into a LogLine: exactly 16 upper-case hexadecimal digits.
struct Hex64 {
    std::uint64_t value;
};

// A PRI value given whole (facility shifted left by 3, or'ed with severity).
struct LogPri {
    std::uint8_t value;
};

class LogLine {
  public:
    static constexpr std::uint32_t capacity = 2048;    // characters of text, header included
    static constexpr std::uint32_t headerLength = 31;  // "<000>MMM DD hh mm ss localhost "
    static constexpr std::uint32_t textStart = headerLength;

    // One line's heap block. The header is a template that Syslog::write
    // patches in place when it sends.
    struct Block {
        std::uint8_t pri;
        char text[capacity + 1];
        std::uint32_t length;  // of the text, header included
    };

    // PRI from the installed Syslog's facility (0 if none) and the severity.
    explicit LogLine(std::int32_t severity) {
        if ((severity & 7) <= logThreshold.load(std::memory_order_relaxed)) startWithSeverity(severity);
    }
    LogLine(std::int32_t severity, const char* text) : LogLine(severity) { *this << text; }
    LogLine(std::int32_t severity, const std::string& text) : LogLine(severity) { *this << text; }
    LogLine(std::int32_t facility, std::int32_t severity) {
        if ((severity & 7) <= logThreshold.load(std::memory_order_relaxed)) {
            start(static_cast<std::uint8_t>((facility << 3) | severity));
        }
    }
    explicit LogLine(LogPri pri) {
        if ((pri.value & 7) <= logThreshold.load(std::memory_order_relaxed)) start(pri.value);
    }

    // The new line takes the block; the old one sends nothing.
    LogLine(LogLine&& other) noexcept : block(other.block), owner(other.owner) {
        other.block = nullptr;
        other.owner = false;
    }
    LogLine(const LogLine&) = delete;
    LogLine& operator=(const LogLine&) = delete;
    LogLine& operator=(LogLine&&) = delete;

    ~LogLine() {
        if (block != nullptr && owner) finish();
    }

    // Signed values print as "%d"/"%lld", unsigned ones as "%u"/"%llu". A
    // number that doesn't fit is cut at the end of the line.
    template <std::integral T>
    requires(!std::same_as<T, char>) LogLine& operator<<(T value) {
        if (block == nullptr) return *this;
        if constexpr (std::is_signed_v<T>) {
            if constexpr (sizeof(T) <= 4) {
                appendInt(static_cast<int>(value));
            } else {
                appendLongLong(static_cast<long long>(value));
            }
        } else {
            if constexpr (sizeof(T) <= 4) {
                appendUnsigned(static_cast<unsigned>(value));
            } else {
                appendUnsignedLongLong(static_cast<unsigned long long>(value));
            }
        }
        return *this;
    }
    // A character would otherwise print as a number.
    LogLine& operator<<(char) = delete;

    LogLine& operator<<(double value) {
        if (block != nullptr) appendDouble(value);
        return *this;
    }
    // Printed with "%s": cut at the end of the line if it doesn't fit.
    LogLine& operator<<(const char* text) {
        if (block != nullptr) appendPrinted(text);
        return *this;
    }
    // Counted text is copied whole, or dropped whole if it doesn't fit.
    LogLine& operator<<(std::string_view text) {
        if (block != nullptr) appendCounted(text.data(), text.size());
        return *this;
    }
    LogLine& operator<<(const std::string& text) {
        if (block != nullptr) appendCounted(text.data(), text.size());
        return *this;
    }
    // The address as "fe80::1%12,19640".
    LogLine& operator<<(const IPAddress& address) {
        if (block != nullptr) appendAddress(address);
        return *this;
    }
    LogLine& operator<<(Hex64 value) {
        if (block != nullptr) appendHex(value.value);
        return *this;
    }

    // The line being built; null if the threshold rejected it.
    const Block* data() const { return block; }

  private:
    void startWithSeverity(std::int32_t severity);
    void start(std::uint8_t pri);
    void finish();

    void appendInt(int value);
    void appendUnsigned(unsigned value);
    void appendLongLong(long long value);
    void appendUnsignedLongLong(unsigned long long value);
    void appendDouble(double value);
    void appendPrinted(const char* text);
    void appendCounted(const char* text, std::size_t length);
    void appendAddress(const IPAddress& address);
    void appendHex(std::uint64_t value);
    void advance(int printed, std::uint32_t bound);

    Block* block = nullptr;
    bool owner = true;
};

// The process-wide log: stamps each finished line and sends it to
// [::1]:port as one datagram, and hands it to `sink` if there is one.
class Syslog {
  public:
    using Sink = void (*)(const char* line);
    static constexpr std::uint16_t defaultPort = 19640;

    UDPV6 socket;
    std::int32_t facility = 16;  // local0
    Sink sink = nullptr;
    IPAddress destination;

    Syslog() = default;
    // Uninstalls itself if installed, and ends the ring if it feeds it.
    ~Syslog();
    Syslog(const Syslog&) = delete;
    Syslog& operator=(const Syslog&) = delete;

    // The installed log, or null. Lines made while none is installed are
    // dropped.
    static Syslog* installed() { return current.load(std::memory_order_acquire); }
    // Installs `log` (null to remove); returns the one installed before.
    static Syslog* install(Syslog* log) { return current.exchange(log, std::memory_order_acq_rel); }

    // Stores facility and sink; `toRing` starts a new console ring and ends
    // an old one. Without another sink and with a port, opens the socket.
    bool configure(std::int32_t newFacility, Sink newSink, std::uint16_t port);
    // Makes and binds the log socket, once; later calls change nothing.
    bool open(std::uint16_t port);
    // Patches the header of `text` (a LogLine block's text of `length`
    // characters, NUL-terminated) in place and sends it.
    void write(std::uint8_t pri, char* text, std::uint32_t length);

    // The sink that feeds the console ring.
    static void toRing(const char* line);

    std::int32_t getFacility() const { return facility; }
    void setFacility(std::int32_t value) { facility = value; }
    Sink getSink() const { return sink; }

  private:
    static std::atomic<Syslog*> current;
};

// A console destination behind a ring of 120 slots and an idle-priority
// thread that prints them. Holds at most 119 lines; a writer that finds it
// full waits about 9 ms and then drops its line.
class SyslogRing {
  public:
    static constexpr std::uint32_t slotCount = 120;
    static constexpr std::uint32_t slotSize = 1500;

    // Without `startDrain` nothing empties the ring (for inspection).
    explicit SyslogRing(bool startDrain = true);
    // Stops and joins the drain thread. Lines still in the ring are lost.
    ~SyslogRing();
    SyslogRing(const SyslogRing&) = delete;
    SyslogRing& operator=(const SyslogRing&) = delete;

    static SyslogRing* installed() { return current.load(std::memory_order_acquire); }
    static SyslogRing* install(SyslogRing* ring) { return current.exchange(ring, std::memory_order_acq_rel); }

    // Stores the caller's text of a finished line, cut to fit one slot.
    void push(const char* line);

    bool isEmpty() const { return (readIndex.load() + 1) % slotCount == writeIndex.load(); }
    bool isFull() const { return readIndex.load() == writeIndex.load(); }

    std::thread thread;
    std::atomic<std::uint8_t> stop{0};
    char slots[slotCount][slotSize];
    std::atomic<std::uint32_t> writeIndex{0};             // slot the next line goes into
    std::atomic<std::uint32_t> readIndex{slotCount - 1};  // slot last drained
    std::mutex lock;
    std::condition_variable wake;

  private:
    void drain();

    static std::atomic<SyslogRing*> current;
};

// The one exception type: for conditions that can't be continued from. It
// prints itself to standard output when it is made.
class Err {
  public:
    const char* file;
    std::int32_t line;
    std::int32_t code;
    std::uint32_t data;

    Err(const char* file, std::int32_t line, std::uint32_t data);
};

// Debugging aid: writes the bytes to a file ("dump" if the name is empty).
bool dump(const std::string& fileName, const void* data, std::size_t size);

}  // namespace NORVA
