// Interface enumeration on Windows with GetAdaptersAddresses.
// winsock2.h first: iphlpapi.h builds on its types.
#include <winsock2.h>
#include <ws2tcpip.h>

#include <iphlpapi.h>

#include <cstring>
#include <vector>

#include "Platform/NativeSocketAddress.h"

namespace NORVA::Platform {

namespace {

std::string toUtf8(const wchar_t* text) {
    if (text == nullptr || text[0] == L'\0') return {};
    int size = WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
    if (size <= 1) return {};
    std::string result(std::size_t(size), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text, -1, result.data(), size, nullptr, nullptr);
    result.resize(std::size_t(size - 1));
    return result;
}

}  // namespace

bool listAdapterAddresses(bool ipv6, std::vector<AdapterAddress>& out) {
    out.clear();
    // Both families are asked for and filtered here: Wine answers a request
    // for AF_INET6 alone with a bogus error, while AF_UNSPEC works everywhere.
    const ULONG family = AF_UNSPEC;
    // The first call only asks for the size; any other answer is a failure.
    ULONG size = 0;
    if (GetAdaptersAddresses(family, 0, nullptr, nullptr, &size) != ERROR_BUFFER_OVERFLOW) return false;
    std::vector<std::uint8_t> buffer(size);
    auto* adapters = reinterpret_cast<IP_ADAPTER_ADDRESSES*>(buffer.data());
    if (GetAdaptersAddresses(family, 0, nullptr, adapters, &size) != NO_ERROR) return false;

    for (const IP_ADAPTER_ADDRESSES* adapter = adapters; adapter != nullptr; adapter = adapter->Next) {
        for (const IP_ADAPTER_UNICAST_ADDRESS* unicast = adapter->FirstUnicastAddress; unicast != nullptr;
             unicast = unicast->Next) {
            AdapterAddress record{};
            if (!addressBytes(unicast->Address.lpSockaddr, ipv6, record.address)) continue;
            // Wine leaves the IPv6 index at 0; the adapter's index is the same
            // number there.
            record.interfaceIndex =
                ipv6 && adapter->Ipv6IfIndex != 0 ? adapter->Ipv6IfIndex : adapter->IfIndex;
            record.friendlyName = toUtf8(adapter->FriendlyName);
            record.description = toUtf8(adapter->Description);
            record.adapterName = adapter->AdapterName != nullptr ? adapter->AdapterName : "";
            record.mtu = adapter->Mtu;
            std::memcpy(record.mac, adapter->PhysicalAddress,
                        adapter->PhysicalAddressLength < 6 ? adapter->PhysicalAddressLength : 6);
            out.push_back(std::move(record));
        }
    }
    return true;
}

}  // namespace NORVA::Platform
