#include "System/Log.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <new>

#include "Platform/Platform.h"
#include "System/Threads.h"

namespace NORVA {

std::atomic<std::int32_t> logThreshold{-1};
std::atomic<Syslog*> Syslog::current{nullptr};
std::atomic<SyslogRing*> SyslogRing::current{nullptr};

namespace {

// The digits and the date are placeholders that Syslog::write overwrites.
constexpr char headerTemplate[] = "<000>MMM DD hh mm ss localhost ";
static_assert(sizeof(headerTemplate) - 1 == LogLine::headerLength);

constexpr char monthNames[12][4] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                    "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

void putTwoDigits(char* at, int value) {
    at[0] = static_cast<char>('0' + (value / 10) % 10);
    at[1] = static_cast<char>('0' + value % 10);
}

// The caller's text of a finished line: behind "<" up to three digits ">"
// and the 26 characters of date and host. Anything else is taken whole.
const char* callerText(const char* line) {
    if (line[0] != '<') return line;
    std::size_t close = 1;
    while (close < 4 && line[close] >= '0' && line[close] <= '9') ++close;
    if (close == 1 || line[close] != '>') return line;
    constexpr std::size_t dateAndHost = LogLine::headerLength - 5;
    const char* behind = line + close + 1;
    return behind + strnlen(behind, dateAndHost);
}

void printLine(const char* text) {
    std::fputs(text, stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

}  // namespace

// ---- LogLine ---------------------------------------------------------------

void LogLine::startWithSeverity(std::int32_t severity) {
    Syslog* log = Syslog::installed();
    std::int32_t facility = log != nullptr ? log->facility : 0;
    start(static_cast<std::uint8_t>((facility << 3) | severity));
}

void LogLine::start(std::uint8_t pri) {
    // A log call never fails: without memory the line is simply not made.
    block = new (std::nothrow) Block;
    if (block == nullptr) return;
    block->pri = pri;
    std::memcpy(block->text, headerTemplate, sizeof(headerTemplate));
    block->length = headerLength;
}

void LogLine::finish() {
    if (Syslog* log = Syslog::installed()) log->write(block->pri, block->text, block->length);
    delete block;
    block = nullptr;
}

// snprintf wrote at most bound - 1 characters; the line stays NUL-terminated.
void LogLine::advance(int printed, std::uint32_t bound) {
    if (printed > 0) block->length += std::min(static_cast<std::uint32_t>(printed), bound - 1);
}

void LogLine::appendInt(int value) {
    std::uint32_t bound = capacity - block->length;
    advance(std::snprintf(block->text + block->length, bound, "%d", value), bound);
}

void LogLine::appendUnsigned(unsigned value) {
    std::uint32_t bound = capacity - block->length;
    advance(std::snprintf(block->text + block->length, bound, "%u", value), bound);
}

void LogLine::appendLongLong(long long value) {
    std::uint32_t bound = capacity - block->length;
    advance(std::snprintf(block->text + block->length, bound, "%lld", value), bound);
}

void LogLine::appendUnsignedLongLong(unsigned long long value) {
    std::uint32_t bound = capacity - block->length;
    advance(std::snprintf(block->text + block->length, bound, "%llu", value), bound);
}

void LogLine::appendDouble(double value) {
    std::uint32_t bound = capacity - block->length;
    advance(std::snprintf(block->text + block->length, bound, "%lf", value), bound);
}

void LogLine::appendPrinted(const char* text) {
    if (text == nullptr) return;
    std::uint32_t bound = capacity - block->length;
    advance(std::snprintf(block->text + block->length, bound, "%s", text), bound);
}

void LogLine::appendCounted(const char* text, std::size_t length) {
    if (length >= capacity || block->length + 1 + length >= capacity) return;
    std::memcpy(block->text + block->length, text, length);
    block->length += static_cast<std::uint32_t>(length);
    block->text[block->length] = '\0';
}

void LogLine::appendAddress(const IPAddress& address) {
    std::string text = address.toStringScopePort();
    appendCounted(text.data(), text.size());
}

void LogLine::appendHex(std::uint64_t value) {
    if (block->length + 17 >= capacity) return;
    static constexpr char digits[] = "0123456789ABCDEF";
    char* at = block->text + block->length;
    for (int i = 15; i >= 0; --i) {
        at[i] = digits[value & 0xF];
        value >>= 4;
    }
    block->length += 16;
    block->text[block->length] = '\0';
}

// ---- Syslog ----------------------------------------------------------------

Syslog::~Syslog() {
    Syslog* self = this;
    current.compare_exchange_strong(self, nullptr, std::memory_order_acq_rel);
    if (sink == &Syslog::toRing) delete SyslogRing::install(nullptr);
}

bool Syslog::configure(std::int32_t newFacility, Sink newSink, std::uint16_t port) {
    facility = newFacility;
    sink = newSink;
    if (sink == &Syslog::toRing) {
        // The old ring's thread is stopped and joined by its destructor.
        delete SyslogRing::install(new SyslogRing());
    }
    if ((sink == &Syslog::toRing || sink == nullptr) && port != 0) return open(port);
    return true;
}

bool Syslog::open(std::uint16_t port) {
    if (socket.isOpen() || socket.kind == Socket::raw) return true;

    if (!socket.open(Socket::udp6)) return false;
    socket.setBlocking(false);
    // Port 0: the system picks the source port.
    IPAddress local = IPAddress::loopback(0);
    local.setScope(0);
    // Closed again on failure, so that a later call may try once more.
    if (!socket.bind(local) || !socket.setBlocking(false)) {
        socket.close();
        return false;
    }
    destination = IPAddress::loopback(port);
    destination.setScope(0);
    return true;
}

void Syslog::write(std::uint8_t pri, char* text, std::uint32_t length) {
    if (length < LogLine::headerLength) return;

    // PRI right-aligned so that its last digit stands at position 3; the
    // line starts at "<", with no leading zeros.
    std::uint32_t start;
    text[3] = static_cast<char>('0' + pri % 10);
    if (pri >= 100) {
        text[2] = static_cast<char>('0' + (pri / 10) % 10);
        text[1] = static_cast<char>('0' + pri / 100);
        start = 0;
    } else if (pri >= 10) {
        text[2] = static_cast<char>('0' + pri / 10);
        start = 1;
    } else {
        start = 2;
    }
    text[start] = '<';
    text[4] = '>';

    // "Mmm DD hh:mm:ss " at positions 5 to 20; "localhost " stays behind.
    Platform::CalendarTime now = Platform::localTimeNow();
    int month = std::clamp(now.month, 1, 12) - 1;
    std::memcpy(text + 5, monthNames[month], 3);
    text[8] = ' ';
    putTwoDigits(text + 9, now.day);
    text[11] = ' ';
    putTwoDigits(text + 12, now.hour);
    text[14] = ':';
    putTwoDigits(text + 15, now.minute);
    text[17] = ':';
    putTwoDigits(text + 18, now.second);
    text[20] = ' ';

    // No NUL and no line end go out; a failed datagram is ignored.
    if (socket.isOpen() || socket.kind == Socket::raw) {
        socket.sendTo(destination, true, text + start, length - start);
    }
    if (sink != nullptr) sink(text + start);
}

void Syslog::toRing(const char* line) {
    if (SyslogRing* ring = SyslogRing::installed()) ring->push(line);
}

bool setLogLevel(std::int32_t level) {
    logThreshold.store(level, std::memory_order_relaxed);
    Syslog* log = Syslog::installed();
    return log != nullptr && log->open(Syslog::defaultPort);
}

// ---- SyslogRing --------------------------------------------------------------

SyslogRing::SyslogRing(bool startDrain) {
    if (startDrain) thread = std::thread(&SyslogRing::drain, this);
}

SyslogRing::~SyslogRing() {
    stop.exchange(1);
    {
        // Taken so that the thread can't miss the wake-up between its test
        // of `stop` and its wait.
        std::lock_guard<std::mutex> guard(lock);
    }
    wake.notify_all();
    if (thread.joinable()) thread.join();
}

void SyslogRing::push(const char* line) {
    const char* text = callerText(line);
    if (text[0] == '\0') return;

    std::unique_lock<std::mutex> guard(lock);
    if (isFull()) {
        guard.unlock();
        bool room = false;
        for (int attempt = 0; attempt < 10 && stop.load() == 0; ++attempt) {
            wake.notify_one();
            if (attempt == 0) {
                printLine("wait debug out");
            } else {
                sleepMilliseconds(1);
            }
            guard.lock();
            if (!isFull()) {
                room = true;
                break;
            }
            guard.unlock();
        }
        if (!room) {
            printLine("timeout debug out");
            return;
        }
    }

    // Longer texts are cut to what one slot holds.
    std::uint32_t index = writeIndex.load();
    std::size_t length = strnlen(text, slotSize - 1);
    std::memcpy(slots[index], text, length);
    slots[index][length] = '\0';
    writeIndex.store((index + 1) % slotCount);
}

void SyslogRing::drain() {
    // A console is the least urgent thing in the process; refusal is harmless.
    setCurrentThreadLevel(levelIdle);

    while (stop.load() == 0) {
        std::uint32_t next = (readIndex.load() + 1) % slotCount;
        if (next == writeIndex.load()) {
            std::unique_lock<std::mutex> guard(lock);
            waitFor(wake, guard, std::chrono::milliseconds(100),
                    [&] { return next != writeIndex.load() || stop.load() != 0; });
            continue;
        }
        if (stop.load() != 0) break;
        // The writer can't reach this slot until readIndex has passed it.
        printLine(slots[next]);
        readIndex.store(next);
    }
}

// ---- Err and dump --------------------------------------------------------------

Err::Err(const char* file, std::int32_t line, std::uint32_t data)
    : file(file), line(line), code(0), data(data) {
    std::printf("\nNORVA ASSERT[%s]Line:%d[code:%d Data:%u]\n", file != nullptr ? file : "", line, code,
                data);
    std::fflush(stdout);
}

bool dump(const std::string& fileName, const void* data, std::size_t size) {
    std::string bytes(static_cast<const char*>(data), size);
    return Platform::writeWholeFile(fileName.empty() ? "dump" : fileName, bytes);
}

}  // namespace NORVA
