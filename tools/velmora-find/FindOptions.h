// The command line of velmora-find.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Discovery/Find.h"
#include "Network/IPAddress.h"

enum class Command { list, status, show, mtu, write, help };

struct FindOptions {
    Command command = Command::list;
    VELMORA::FindSettings settings;
    std::vector<std::string> interfaces;
    std::uint16_t port = VELMORA::Find::controlPort;
    NORVA::IPAddress target;  // of show, mtu and write
    int slot = 0;
    std::string file;
    unsigned int window = 0;
    bool verbose = false;
};

// Fills `options` from the arguments; false with `error` set on a bad one.
bool parseOptions(int argc, char** argv, FindOptions& options, std::string& error);
// "fe80::1%eth0", "fe80::1%3,19642", "::1": the interface may go by name.
bool parseTargetAddress(const std::string& text, std::uint16_t defaultPort, NORVA::IPAddress& address,
                        std::string& error);
extern const char* const usageText;
