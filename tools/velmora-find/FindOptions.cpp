#include "FindOptions.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <map>

#include "Network/Interfaces.h"

const char* const usageText =
    "usage: velmora-find [options] [command]\n"
    "\n"
    "commands:\n"
    "  list                     the targets on the local links and their sinks (the default)\n"
    "  status                   the targets' status entries and the chains that feed their sinks\n"
    "  show ADDRESS             one target: texts, information, settings, slots, icons and sinks\n"
    "  mtu ADDRESS              the largest IP packet that reaches the target\n"
    "  write ADDRESS SLOT FILE  write FILE into slot SLOT (counted from 0) of the target\n"
    "\n"
    "ADDRESS is the target's address with its interface, by name or number, and an\n"
    "optional port: fe80::1%eth0, fe80::1%3,19642, ::1\n"
    "\n"
    "options:\n"
    "  --loopback         also look for a target on this machine (::1)\n"
    "  --interface NAME   search on this interface only (may be repeated)\n"
    "  --product ID       accept only targets of this ProductID (may be repeated; default: all)\n"
    "  --protocol N       the highest protocol version of a sink to accept (default 1; 0: any)\n"
    "  --nop-break        ask the targets to stop holding their ports back from this host\n"
    "  --name TEXT        the name this host announces (default velmora-find)\n"
    "  --port N           the targets' control port (default 19642)\n"
    "  --window BYTES     cap the bytes sent between acknowledgements of a slot write\n"
    "  --verbose          print the library's log lines\n"
    "  --help             this text\n";

namespace {

template <class T>
bool parseNumber(const std::string& text, T& value) {
    int base = text.starts_with("0x") || text.starts_with("0X") ? 16 : 10;
    const char* begin = text.data() + (base == 16 ? 2 : 0);
    const char* end = text.data() + text.size();
    auto [stop, problem] = std::from_chars(begin, end, value, base);
    return begin != end && problem == std::errc() && stop == end;
}

bool isNumber(const std::string& text) {
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c); });
}

// The interface index of a name, from the system's address list.
bool interfaceIndex(const std::string& name, std::uint32_t& index) {
    NORVA::InterfaceMap map;
    if (!NORVA::enumerateV6(map)) return false;
    for (const auto& [address, info] : map) {
        if (info.friendlyName != name) continue;
        index = address.scope();
        return true;
    }
    return false;
}

using Handler = bool (*)(FindOptions&, const std::string&, std::string&);

bool takeProduct(FindOptions& options, const std::string& value, std::string& error) {
    std::uint64_t id = 0;
    if (!parseNumber(value, id)) {
        error = "--product wants a number, not '" + value + "'";
        return false;
    }
    if (options.settings.filterId == VELMORA::anyProductId) {
        options.settings.filterId = id;
    } else {
        options.settings.furtherIds.push_back(id);
    }
    return true;
}

const std::map<std::string, Handler>& valueOptions() {
    static const std::map<std::string, Handler> handlers{
        {"--interface",
         [](FindOptions& options, const std::string& value, std::string&) {
             options.interfaces.push_back(value);
             return true;
         }},
        {"--product", takeProduct},
        {"--protocol",
         [](FindOptions& options, const std::string& value, std::string& error) {
             if (parseNumber(value, options.settings.protocolVersion)) return true;
             error = "--protocol wants a number, not '" + value + "'";
             return false;
         }},
        {"--name",
         [](FindOptions& options, const std::string& value, std::string&) {
             options.settings.clientName = value;
             return true;
         }},
        {"--port",
         [](FindOptions& options, const std::string& value, std::string& error) {
             if (parseNumber(value, options.port) && options.port != 0) return true;
             error = "--port wants a port number from 1 to 65535, not '" + value + "'";
             return false;
         }},
        {"--window",
         [](FindOptions& options, const std::string& value, std::string& error) {
             if (parseNumber(value, options.window) && options.window != 0) return true;
             error = "--window wants a number of bytes above 0, not '" + value + "'";
             return false;
         }},
    };
    return handlers;
}

bool parseFlag(const std::string& argument, FindOptions& options) {
    if (argument == "--loopback") {
        options.settings.withLoopback = true;
    } else if (argument == "--nop-break") {
        options.settings.nopBreak = true;
    } else if (argument == "--verbose") {
        options.verbose = true;
    } else if (argument == "--help") {
        options.command = Command::help;
    } else {
        return false;
    }
    return true;
}

bool parseCommand(const std::vector<std::string>& words, FindOptions& options, std::string& error) {
    static const std::map<std::string, std::pair<Command, std::size_t>> commands{
        {"list", {Command::list, 0}}, {"status", {Command::status, 0}}, {"show", {Command::show, 1}},
        {"mtu", {Command::mtu, 1}},   {"write", {Command::write, 3}},
    };
    if (words.empty()) return true;
    auto found = commands.find(words[0]);
    if (found == commands.end()) {
        error = "unknown command '" + words[0] + "'";
        return false;
    }
    auto [command, arguments] = found->second;
    if (words.size() != arguments + 1) {
        error = "'" + words[0] + "' takes " + std::to_string(arguments) + " argument(s)";
        return false;
    }
    if (options.command != Command::help) options.command = command;
    if (arguments == 0) return true;
    if (!parseTargetAddress(words[1], options.port, options.target, error)) return false;
    if (command != Command::write) return true;
    if (!parseNumber(words[2], options.slot) || options.slot < 0) {
        error = "the slot is a number from 0, not '" + words[2] + "'";
        return false;
    }
    options.file = words[3];
    return true;
}

}  // namespace

bool parseTargetAddress(const std::string& text, std::uint16_t defaultPort, NORVA::IPAddress& address,
                        std::string& error) {
    std::string host = text.substr(0, text.find(','));
    std::string port = text.substr(host.size());
    std::string::size_type percent = host.find('%');
    std::string scope = percent == std::string::npos ? "" : host.substr(percent + 1);
    if (!scope.empty() && !isNumber(scope)) {
        std::uint32_t index = 0;
        if (!interfaceIndex(scope, index)) {
            error = "no interface named '" + scope + "'";
            return false;
        }
        host = host.substr(0, percent) + "%" + std::to_string(index);
    }
    if (port == "," || !address.parse(host + port)) {
        error = "'" + text + "' is not an IPv6 address";
        return false;
    }
    if (address.isLinkLocal() && address.scope() == 0) {
        error = "'" + text + "' is link-local: give its interface, as in fe80::1%eth0";
        return false;
    }
    if (address.noPort()) address.setPort(defaultPort);
    return true;
}

bool parseOptions(int argc, char** argv, FindOptions& options, std::string& error) {
    options.settings.filterId = VELMORA::anyProductId;
    options.settings.clientName = "velmora-find";
    std::vector<std::string> words;
    // The port applies to addresses wherever they stand, so take options first.
    for (int i = 1; i < argc; ++i) {
        std::string argument = argv[i];
        if (parseFlag(argument, options)) continue;
        auto handler = valueOptions().find(argument);
        if (handler != valueOptions().end()) {
            if (i + 1 == argc) {
                error = argument + " needs a value";
                return false;
            }
            if (!handler->second(options, argv[++i], error)) return false;
        } else if (argument.starts_with("--")) {
            error = "unknown option " + argument;
            return false;
        } else {
            words.push_back(argument);
        }
    }
    return parseCommand(words, options, error);
}
