#include "Network/IPAddress.h"

#include <cstdio>
#include <cstring>

namespace NORVA {

namespace {

bool isMappedV4(const std::uint8_t (&bytes)[16]) {
    for (int i = 0; i < 10; ++i) {
        if (bytes[i] != 0) return false;
    }
    return bytes[10] == 0xff && bytes[11] == 0xff;
}

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool isDecimal(char c) {
    return c >= '0' && c <= '9';
}

// A signed decimal number as a person types it: optional sign, then digits.
// Anything behind the digits is ignored, as is a number with no digit at all
// (it reads as 0).
long long readSigned(const std::string& text) {
    std::size_t i = 0;
    bool negative = false;
    if (i < text.size() && (text[i] == '-' || text[i] == '+')) negative = text[i++] == '-';
    long long value = 0;
    for (; i < text.size() && isDecimal(text[i]) && value < 0x100000000LL; ++i)
        value = value * 10 + (text[i] - '0');
    return negative ? -value : value;
}

}  // namespace

IPAddress::IPAddress(std::uint8_t a, std::uint8_t b, std::uint8_t c, std::uint8_t d, std::uint16_t port) {
    setV4((std::uint32_t(a) << 24) | (std::uint32_t(b) << 16) | (std::uint32_t(c) << 8) | d);
    setPort(port);
}

IPAddress IPAddress::loopback(std::uint16_t port) {
    IPAddress result;
    result.address[15] = 1;
    result.setPort(port);
    return result;
}

IPAddress IPAddress::loopback4() {
    return IPAddress(127, 0, 0, 1, 0);
}

IPAddress IPAddress::multicast(std::uint16_t prefix, std::uint16_t port) {
    IPAddress result;
    result.address[0] = std::uint8_t(prefix >> 8);
    result.address[1] = std::uint8_t(prefix);
    result.address[15] = 1;
    result.setPort(port);
    return result;
}

bool IPAddress::isAny() const {
    for (std::uint8_t byte : address) {
        if (byte != 0) return false;
    }
    return true;
}

bool IPAddress::isLoopback() const {
    for (int i = 0; i < 15; ++i) {
        if (address[i] != 0) return false;
    }
    return address[15] == 1;
}

std::uint16_t IPAddress::group(int index) const {
    return std::uint16_t((address[2 * index] << 8) | address[2 * index + 1]);
}

std::uint16_t IPAddress::port() const {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&portNetworkOrder);
    return std::uint16_t((bytes[0] << 8) | bytes[1]);
}

void IPAddress::setPort(std::uint16_t port) {
    auto* bytes = reinterpret_cast<std::uint8_t*>(&portNetworkOrder);
    bytes[0] = std::uint8_t(port >> 8);
    bytes[1] = std::uint8_t(port);
}

void IPAddress::copyBytes(std::uint8_t out[16]) const {
    std::memcpy(out, address, 16);
}

void IPAddress::setBytes(const std::uint8_t in[16]) {
    std::memcpy(address, in, 16);
}

void IPAddress::setV4(std::uint32_t a) {
    std::memset(address, 0, 10);
    address[10] = 0xff;
    address[11] = 0xff;
    address[12] = std::uint8_t(a >> 24);
    address[13] = std::uint8_t(a >> 16);
    address[14] = std::uint8_t(a >> 8);
    address[15] = std::uint8_t(a);
}

int IPAddress::compare(const IPAddress& other) const {
    int order = std::memcmp(address, other.address, 16);
    if (order == 0) order = std::memcmp(&portNetworkOrder, &other.portNetworkOrder, 2);
    if (order == 0 && scopeId != other.scopeId) order = scopeId < other.scopeId ? -1 : 1;
    return order < 0 ? -1 : (order > 0 ? 1 : 0);
}

void IPAddress::toString(std::string& text) const {
    char buffer[48];
    if (isMappedV4(address)) {
        std::snprintf(buffer, sizeof buffer, "%u.%u.%u.%u", address[12], address[13], address[14],
                      address[15]);
        text = buffer;
        return;
    }

    // The first run of two or more zero groups is written as "::", not the
    // longest one.
    int runStart = -1;
    int runEnd = -1;
    for (int i = 0; i < 8 && runStart < 0; ++i) {
        int end = i;
        while (end < 8 && group(end) == 0) ++end;
        if (end - i >= 2) {
            runStart = i;
            runEnd = end;
        }
    }

    text.clear();
    for (int i = 0; i < 8; ++i) {
        if (i == runStart) {
            text += "::";
            i = runEnd - 1;
            continue;
        }
        if (i > 0 && i != runEnd) text += ':';
        std::snprintf(buffer, sizeof buffer, "%x", group(i));
        text += buffer;
    }
}

void IPAddress::toStringPort(std::string& text) const {
    toString(text);
    text += ',';
    text += std::to_string(port());
}

void IPAddress::toStringScopePort(std::string& text) const {
    toString(text);
    text += '%';
    text += std::to_string(scopeId & 0xFFFF);
    text += ',';
    text += std::to_string(port());
}

std::string IPAddress::toString() const {
    std::string text;
    toString(text);
    return text;
}

std::string IPAddress::toStringPort() const {
    std::string text;
    toStringPort(text);
    return text;
}

std::string IPAddress::toStringScopePort() const {
    std::string text;
    toStringScopePort(text);
    return text;
}

// Every ":" that doesn't open a gap ends a group, also a leading one, which
// so stands for a zero group: ":1:2:3:4:5:6:7" has eight groups, and
// "::1:2:3:4:5:6:7" eight and a gap, which is one too many. A trailing ":"
// leaves a last group of 0.
bool IPAddress::parseV6(const std::string& text) {
    std::uint16_t groups[8] = {};
    int index = 0;
    int digits = 0;
    int gapAt = -1;  // index of the first group behind "::"
    std::uint16_t value = 0;
    char previous = '\0';

    for (char c : text) {
        if (c == ':') {
            digits = 0;
            if (previous == ':') {
                if (gapAt >= 0) return false;
                gapAt = index;
            } else {
                groups[index++] = value;
                value = 0;
                if (index == 8) return false;
            }
        } else {
            int digit = hexDigit(c);
            if (digit < 0 || ++digits > 4) return false;
            value = std::uint16_t((value << 4) | digit);
        }
        previous = c;
    }
    groups[index] = value;
    const int count = index + 1;

    if (gapAt < 0) {
        if (count != 8) return false;
    } else {
        if (count >= 8) return false;  // a gap must stand for at least one zero group
        int behind = count - gapAt;
        std::uint16_t moved[8] = {};
        for (int i = 0; i < gapAt; ++i) moved[i] = groups[i];
        for (int i = 0; i < behind; ++i) moved[8 - behind + i] = groups[gapAt + i];
        std::memcpy(groups, moved, sizeof groups);
    }

    for (int i = 0; i < 8; ++i) {
        address[2 * i] = std::uint8_t(groups[i] >> 8);
        address[2 * i + 1] = std::uint8_t(groups[i]);
    }
    return true;
}

bool IPAddress::parseV6Port(const std::string& text) {
    std::size_t comma = text.find(',');
    if (comma == std::string::npos) return false;
    if (!parseV6(text.substr(0, comma))) return false;
    std::uint16_t value = 0;
    for (std::size_t i = comma + 1; i < text.size(); ++i) {
        if (!isDecimal(text[i])) return false;
        value = std::uint16_t(value * 10 + (text[i] - '0'));
    }
    setPort(value);
    return true;
}

bool IPAddress::parse(const std::string& input) {
    std::size_t first = input.find_first_not_of(' ');
    std::string text = first == std::string::npos ? std::string() : input.substr(first);
    text = text.substr(0, text.find(' '));
    std::erase(text, '[');
    std::erase(text, ']');

    std::size_t comma = text.find(',');
    if (comma != std::string::npos && comma + 1 < text.size()) {
        long long number = readSigned(text.substr(comma + 1));
        if (number < 0) {
            clear();
            return false;
        }
        setPort(std::uint16_t(number));
        text.resize(comma);
    }
    std::size_t percent = text.find('%');
    if (percent != std::string::npos && percent + 1 < text.size()) {
        long long number = readSigned(text.substr(percent + 1));
        if (number < 0) {
            clear();
            return false;
        }
        setScope(std::uint32_t(number));
        text.resize(percent);
    }
    if (!parseV6(text)) {
        clear();
        return false;
    }
    return true;
}

}  // namespace NORVA
