// An IPv6 address with port and scope, passed by value. IPv4 addresses are
// held in the mapped form ::ffff:a.b.c.d.
#pragma once

#include <cstdint>
#include <string>

namespace NORVA {

class IPAddress {
  public:
    std::uint8_t address[16] = {};
    std::uint16_t portNetworkOrder = 0;  // as it lies in a socket address
    std::uint32_t scopeId = 0;           // interface index; 0 means none

    IPAddress() = default;
    // ::ffff:a.b.c.d with the port, scope 0.
    IPAddress(std::uint8_t a, std::uint8_t b, std::uint8_t c, std::uint8_t d, std::uint16_t port);

    static IPAddress loopback(std::uint16_t port);
    static IPAddress loopback4();
    // The 16-bit prefix, twelve zero bytes, then 00 01: multicast(0xff02, p) is ff02::1.
    static IPAddress multicast(std::uint16_t prefix, std::uint16_t port);

    void clear() { *this = IPAddress(); }
    bool isAny() const;
    bool isAnyNoPort() const { return isAny() && portNetworkOrder == 0; }
    bool noPort() const { return portNetworkOrder == 0; }
    bool isLoopback() const;
    bool isLinkLocal() const { return address[0] == 0xfe && address[1] == 0x80; }

    std::uint16_t group(int index) const;
    std::uint16_t port() const;
    void setPort(std::uint16_t port);
    std::uint32_t scope() const { return scopeId; }
    void setScope(std::uint32_t scope) { scopeId = scope; }
    void copyBytes(std::uint8_t out[16]) const;
    void setBytes(const std::uint8_t in[16]);
    void setV4(std::uint32_t a);

    // -1, 0 or 1: the address bytes, then the port bytes in memory order,
    // then the scope.
    int compare(const IPAddress& other) const;
    bool operator<(const IPAddress& other) const { return compare(other) < 0; }
    bool operator==(const IPAddress& other) const { return compare(other) == 0; }

    // Text forms: "fe80::1", "fe80::1,19640", "fe80::1%12,19640".
    void toString(std::string& text) const;
    void toStringPort(std::string& text) const;
    void toStringScopePort(std::string& text) const;
    std::string toString() const;
    std::string toStringPort() const;
    std::string toStringScopePort() const;

    // Parsers; false on bad input (see the .cpp for what each accepts).
    bool parseV6(const std::string& text);
    bool parseV6Port(const std::string& text);
    bool parse(const std::string& text);
};

}  // namespace NORVA
