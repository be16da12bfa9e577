// velmora-find: lists the targets on the local links and what they offer,
// measures the MTU to one, and writes a file into one of its slots.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "Discovery/Find.h"
#include "FindOptions.h"
#include "System/Log.h"

namespace {

using NORVA::IPAddress;
using VELMORA::Find;

constexpr int exitOk = 0;
constexpr int exitFailed = 1;
constexpr int exitUsage = 2;
constexpr int iconCount = 8;

std::string addressText(const IPAddress& address) {
    return address.scope() == 0 ? address.toStringPort() : address.toStringScopePort();
}

int fail(const std::string& text) {
    std::fprintf(stderr, "velmora-find: %s\n", text.c_str());
    return exitFailed;
}

// The library says why an exchange failed in its log lines: the last
// error is kept for the message, and with --verbose every line is shown.
bool verbose = false;
std::string lastError;

void takeLogLine(const char* line) {
    std::string text = line;
    std::string::size_type start = text.find("localhost ");
    text = text.substr(start == std::string::npos ? 0 : start + 10);
    if (verbose) std::fprintf(stderr, "  [log] %s\n", text.c_str());
    // The severity is the low 3 bits of the PRI at the start: "<131>".
    if (line[0] == '<' && (std::atoi(line + 1) & 7) <= 3) lastError = text;
}

// What a failed slot write's last error line means.
std::string transferFailure(int slot) {
    struct Reason {
        const char* prefix;
        std::string text;
    };
    const Reason reasons[] = {
        {"no support Transfer ",
         "the target has no slot " + std::to_string(slot) + ", or takes no slot writes"},
        {"no support slot", "the target refused slot " + std::to_string(slot)},
        {"slot siz miss", "the file is larger than the slot"},
        {"Transfer Timeout", "the target stopped acknowledging: a frame or its acknowledgement was lost"},
        {"Transfer error", "the target kept missing frames after 10 repetitions"},
        {"Transfer NAK", "the target refused the data"},
        {"TransferFinish", "the target's CRC check of the slot failed"},
        {"UDP stream send", "the socket refused to send or receive"},
    };
    for (const Reason& reason : reasons) {
        if (lastError.starts_with(reason.prefix)) return reason.text + " (" + lastError + ")";
    }
    return lastError.empty() ? "the target refused it" : lastError;
}

std::string quoted(const std::string& text) {
    return "\"" + text + "\"";
}

std::string productText(std::uint64_t id) {
    char text[24];
    std::snprintf(text, sizeof text, "0x%016llX", static_cast<unsigned long long>(id));
    return text;
}

// An address of the target's host and link, whatever its port.
bool onTarget(IPAddress key, const IPAddress& target) {
    key.setPort(target.port());
    return key == target;
}

void printSinks(const VELMORA::TargetRecordMap& records, const IPAddress& target) {
    bool any = false;
    for (const auto& [sink, record] : records) {
        if (!(record.targetAddress == target)) continue;
        any = true;
        std::printf("  sink %u: %s, port %u, protocol %u, transfer modes %u %u %u %u\n", record.portIndex,
                    quoted(record.outputName).c_str(), sink.port(), record.version, record.channelInfo[0],
                    record.channelInfo[1], record.channelInfo[2], record.channelInfo[3]);
    }
    if (!any) std::printf("  no sinks\n");
}

void printTarget(const IPAddress& address, const VELMORA::TargetEntry& target,
                 const std::string& targetName) {
    std::printf("target %s at %s, ProductID %s\n", quoted(target.name).c_str(), addressText(address).c_str(),
                productText(target.productId).c_str());
    if (!targetName.empty()) std::printf("  target name: %s\n", targetName.c_str());
}

const char* noTargetHint(const FindOptions& options) {
    return options.settings.withLoopback ? "" : " (--loopback also looks on this machine)";
}

// The targets on the links, or why there are none.
std::string search(Find& find, const FindOptions& options, VELMORA::TargetMap& targets) {
    if (!find.searchTargets(targets)) return "the search failed: the socket was refused";
    if (targets.empty()) return std::string("no target answered on the local links") + noTargetHint(options);
    return {};
}

int listTargets(Find& find, const FindOptions& options) {
    VELMORA::TargetMap targets;
    VELMORA::TargetRecordMap records;
    if (std::string why = search(find, options, targets); !why.empty()) return fail(why);
    if (!find.readTargetRecords(targets, records))
        return fail("reading the sinks failed: the socket was refused");
    for (const auto& [address, target] : targets) {
        auto first = std::find_if(records.begin(), records.end(), [&address = address](const auto& entry) {
            return entry.second.targetAddress == address;
        });
        printTarget(address, target, first == records.end() ? std::string() : first->second.targetName);
        printSinks(records, address);
    }
    return exitOk;
}

void printChains(const IPAddress& address, const VELMORA::TargetStatusMap& statuses) {
    for (const auto& [key, status] : statuses) {
        if (!onTarget(key, address) || status.kind == 0 || !status.peer.isLoopback()) continue;
        std::vector<VELMORA::StatusLink> chain;
        Find::traceChain(status.peer.port(), status.kind == 1, address, statuses, chain);
        std::printf("  chain of local port %u:", status.peer.port());
        for (const VELMORA::StatusLink& link : chain) {
            std::printf(" %s entry %u%s", addressText(link.entryAddress).c_str(), link.index,
                        link.last ? "" : " <-");
        }
        std::printf("\n");
    }
}

int listStatus(Find& find, const FindOptions& options) {
    VELMORA::TargetMap targets;
    VELMORA::TargetStatusMap statuses;
    if (std::string why = search(find, options, targets); !why.empty()) return fail(why);
    if (!find.readStatus(targets, statuses)) return fail("reading the status failed: the socket was refused");
    for (const auto& [address, target] : targets) {
        printTarget(address, target, "");
        bool any = false;
        for (const auto& [key, status] : statuses) {
            if (!onTarget(key, address)) continue;
            any = true;
            std::printf("  entry %u (%s), port %u, protocol %u, peer %s: %s\n", status.index,
                        status.kind == 0 ? "control" : "sink", key.port(), status.version,
                        status.peer.toStringPort().c_str(), status.statusText.c_str());
        }
        if (!any) std::printf("  no status entries\n");
        printChains(address, statuses);
    }
    return exitOk;
}

// Nothing answers discovery there: every command on one target starts here.
bool reachTarget(Find& find, const IPAddress& address, VELMORA::TargetEntry& entry) {
    std::uint64_t id = 0;
    if (!find.probeTarget(address, id, entry.name) || id == VELMORA::noProductId) return false;
    entry.productId = id;
    return true;
}

void printText(const char* label, const std::string& text) {
    if (!text.empty()) std::printf("  %s: %s\n", label, text.c_str());
}

void printList(const char* label, const std::vector<std::string>& list) {
    for (std::size_t i = 0; i < list.size(); ++i) std::printf("  %s %zu: %s\n", label, i, list[i].c_str());
}

void printInformation(Find& find, const IPAddress& address) {
    std::string text;
    std::vector<std::string> list;
    find.readText1(address, text);
    printText("text 1", text);
    find.readText2(address, text);
    printText("text 2", text);
    find.readInfoText(address, 0, text);
    printText("information", text);
    find.readInfoList(address, 1, list);
    printList("information item", list);
    find.readInfoText(address, 4, text);
    printText("second information", text);
    find.readInfoList(address, 5, list);
    printList("second information item", list);
    find.readInfoText(address, 6, text);
    printText("identity check", text);
}

void printSettings(Find& find, const IPAddress& address) {
    std::vector<VELMORA::TargetSetting> settings;
    if (!find.readSettings(VELMORA::SettingTable::first, address, settings, false)) {
        std::printf("  settings: none offered\n");
        return;
    }
    for (std::size_t i = 0; i < settings.size(); ++i) {
        const VELMORA::TargetSetting& setting = settings[i];
        std::string shown = setting.text;
        if (shown.empty() && setting.kind == VELMORA::SettingKind::onOff) {
            shown = setting.value != 0 ? "enable" : "disable";
        } else if (shown.empty() && setting.kind == VELMORA::SettingKind::choice) {
            bool listed =
                setting.value >= 0 && setting.value < static_cast<std::int32_t>(setting.choices.size());
            shown = listed ? setting.choices[static_cast<std::size_t>(setting.value)]
                           : std::to_string(setting.value);
        } else if (shown.empty()) {
            shown = std::to_string(setting.value) + " (" + std::to_string(setting.minimum) + " to " +
                    std::to_string(setting.maximum) + ")";
        }
        std::printf("  setting %zu: %s = %s\n", i + 1, setting.name.c_str(), shown.c_str());
    }
}

void printSlotsAndIcons(Find& find, const IPAddress& address) {
    std::vector<VELMORA::SlotDescription> slots;
    if (find.readSlotList(address, slots)) {
        for (std::size_t i = 0; i < slots.size(); ++i) {
            std::printf("  slot description %zu: %s, %s, value %u\n", i + 1, slots[i].name.c_str(),
                        slots[i].text.c_str(), slots[i].value);
        }
    }
    for (std::uint16_t number = 1; number <= iconCount; ++number) {
        VELMORA::TargetIcon icon;
        if (!find.readIconNumber(address, 0, number, icon) || icon.pixels.empty()) continue;
        std::printf("  icon %u: %u x %zu, %s\n", number, icon.width, icon.pixels.size() / icon.width,
                    icon.alphaOnly ? "alpha only" : "32-bit pixels");
    }
}

int showTarget(Find& find, const FindOptions& options) {
    VELMORA::TargetEntry entry;
    if (!reachTarget(find, options.target, entry)) {
        return fail("no target answers at " + addressText(options.target));
    }
    VELMORA::TargetMap targets{{options.target, entry}};
    VELMORA::TargetRecordMap records;
    if (!find.readTargetRecords(targets, records))
        return fail("reading the sinks failed: the socket was refused");
    printTarget(options.target, entry, records.empty() ? std::string() : records.begin()->second.targetName);
    printInformation(find, options.target);
    printSettings(find, options.target);
    printSlotsAndIcons(find, options.target);
    printSinks(records, options.target);
    return exitOk;
}

int measureMtu(Find& find, const FindOptions& options) {
    VELMORA::TargetEntry entry;
    if (!reachTarget(find, options.target, entry)) {
        return fail("no target answers at " + addressText(options.target));
    }
    std::uint32_t activeMtu = 0;
    std::uint32_t interfaceMtu = 0;
    if (!find.measureMtu(options.target, activeMtu, interfaceMtu)) {
        if (interfaceMtu == 0)
            return fail("no local interface has the scope of " + addressText(options.target));
        return fail("the target answered no MTU probe");
    }
    std::printf("MTU to %s: %u bytes (local interface %u)\n", addressText(options.target).c_str(), activeMtu,
                interfaceMtu);
    return exitOk;
}

// The bar runs over the slot's blocks; a small file ends early.
void drawProgress(unsigned block, unsigned blocks) {
    constexpr unsigned width = 30;
    unsigned done = (block + 1) * width / blocks;
    std::fprintf(stderr, "\r[%s%s] block %u of %u", std::string(done, '#').c_str(),
                 std::string(width - done, '.').c_str(), block + 1, blocks);
    std::fflush(stderr);
}

int writeSlot(Find& find, const FindOptions& options) {
    std::ifstream file(options.file, std::ios::binary);
    if (!file) {
        std::fprintf(stderr, "velmora-find: can't read %s\n", options.file.c_str());
        return exitUsage;
    }
    std::vector<std::uint8_t> data((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    VELMORA::TargetEntry entry;
    if (!reachTarget(find, options.target, entry)) {
        return fail("no target answers at " + addressText(options.target));
    }
    unsigned blocks = 0;
    bool written =
        find.Transfer(options.target, options.slot, {data.data(), static_cast<std::uint32_t>(data.size())},
                      options.window, [&blocks](const unsigned short& block, const unsigned short& count) {
                          blocks = count;
                          drawProgress(block, count);
                      });
    if (blocks != 0) std::fprintf(stderr, written ? " - done\n" : " - stopped\n");
    if (!written) {
        return fail("writing " + options.file + " into slot " + std::to_string(options.slot) +
                    " failed: " + transferFailure(options.slot));
    }
    std::printf("wrote %zu bytes into slot %d of %s; the target's CRC check passed\n", data.size(),
                options.slot, addressText(options.target).c_str());
    return exitOk;
}

bool openFind(Find& find, const FindOptions& options) {
    return options.interfaces.empty() ? find.open() : find.open(options.interfaces);
}

int run(const FindOptions& options) {
    Find find(options.settings);
    find.targetPort = options.port;
    if (!openFind(find, options)) return fail("can't open the socket, or an interface named is unknown");
    switch (options.command) {
        case Command::list:
            return listTargets(find, options);
        case Command::status:
            return listStatus(find, options);
        case Command::show:
            return showTarget(find, options);
        case Command::mtu:
            return measureMtu(find, options);
        case Command::write:
            return writeSlot(find, options);
        case Command::help:
            break;
    }
    return exitOk;
}

}  // namespace

int main(int argc, char** argv) {
    FindOptions options;
    std::string error;
    if (!parseOptions(argc, argv, options, error)) {
        std::fprintf(stderr, "velmora-find: %s (velmora-find --help lists the options)\n", error.c_str());
        return exitUsage;
    }
    if (options.command == Command::help) {
        std::printf("%s", usageText);
        return exitOk;
    }
    // The library says why an exchange failed in its log lines: errors
    // always, everything with --verbose.
    verbose = options.verbose;
    NORVA::Syslog log;
    log.configure(16, takeLogLine, 0);
    NORVA::Syslog::install(&log);
    NORVA::logThreshold = verbose ? 7 : 3;
    int result = run(options);
    NORVA::Syslog::install(nullptr);
    return result;
}
