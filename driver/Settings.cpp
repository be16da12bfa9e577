#include "Settings.h"

#include <algorithm>
#include <limits>

#include "System/InfFile.h"
#include "System/Log.h"
#include "platform/DriverPlatform.h"

namespace {

// Targets take questions only here; a TargetAddress is asked on this port.
constexpr std::uint16_t targetControlPort = 19642;

// The leading decimal number of a text (optional sign, then digits up to the
// first other character), saturated to 32 bits; 0 if there are no digits, as
// a plain text-to-integer conversion reads it.
std::int32_t leadingNumber(const std::string& text) {
    std::size_t i = text.find_first_not_of(" \t");
    if (i == std::string::npos) return 0;
    bool negative = text[i] == '-';
    if (text[i] == '-' || text[i] == '+') ++i;
    std::int64_t magnitude = 0;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
        magnitude = std::min<std::int64_t>(magnitude * 10 + (text[i] - '0'), std::int64_t(1) << 31);
    }
    std::int64_t value = negative ? -magnitude : magnitude;
    return std::int32_t(std::clamp<std::int64_t>(value, std::numeric_limits<std::int32_t>::min(),
                                                 std::numeric_limits<std::int32_t>::max()));
}

// Reads keys of the selected section. A key is present when its value isn't
// empty; a present value that its key refuses leaves the default and says so
// in the log.
class KeyReader {
  public:
    explicit KeyReader(const NORVA::InfFile& file) : file(file) {}

    std::string text(const char* key) const { return file.read(key); }

    // A number that `accept` takes; otherwise the default stays.
    template <typename Test>
    bool number(const char* key, std::int32_t& value, Test accept) const {
        std::string found = text(key);
        if (found.empty()) return false;
        std::int32_t read = leadingNumber(found);
        if (!accept(read)) return refuse(key, found);
        value = read;
        return true;
    }

    // True for `onWord`; "disable" is the quiet way of saying no.
    bool keyword(const char* key, const char* onWord) const {
        std::string found = text(key);
        if (found == onWord) return true;
        if (!found.empty() && found != "disable") refuse(key, found);
        return false;
    }

    bool refuse(const char* key, const std::string& value) const {
        NORVA::LogLine(4) << "setting refused, default kept: " << key << "=" << value;
        return false;
    }

  private:
    const NORVA::InfFile& file;
};

bool any(std::int32_t) {
    return true;
}

auto atLeast(std::int32_t least) {
    return [least](std::int32_t value) { return value >= least; };
}

// A CPU number: the literal "0", or a number 1 or more; -1 for anything else.
std::int32_t cpuNumber(const std::string& text) {
    if (text == "0") return 0;
    std::int32_t value = leadingNumber(text);
    return value >= 1 ? value : -1;
}

// "first-last" or a single CPU, as the first CPU and a count. The two sides
// of a range are read on their own: a side that isn't a CPU number reads as
// -1 (the count then stays -1 if it is the last), and the count is not
// checked, so that "5-4" gives 5 with a count of 0. False if nothing was read.
bool readCpuRange(const std::string& text, std::int32_t& first, std::int32_t& count) {
    std::size_t dash = text.find('-');
    first = cpuNumber(text.substr(0, dash));
    if (dash == std::string::npos) {
        count = first < 0 ? -1 : 1;
        return first >= 0;
    }
    std::int32_t last = cpuNumber(text.substr(dash + 1));
    count = last < 0 ? -1 : std::int32_t(std::int64_t(last) - first + 1);
    return first >= 0 && last >= 0;
}

NORVA::TimeValue microseconds(std::int32_t value) {
    return NORVA::TimeValue::fromUs(std::uint64_t(value));
}

std::string folderOf(const std::string& path) {
    return path.substr(0, path.rfind(DriverPlatform::pathSeparator) + 1);
}

}  // namespace

bool DriverSettings::load(const std::string& settingPath, std::uint16_t processors) {
    *this = DriverSettings();
    NORVA::InfFile file;
    if (!file.load(settingPath)) return false;
    NORVA::LogLine(6) << "load : " << settingPath;

    const std::string debugPath = folderOf(settingPath) + "debug.inf";
    bool debugRead = file.load(debugPath);

    // Read before anything can select another section.
    std::string debug = file.read("Debug");
    if (debug == "enable") {
        NORVA::setLogLevel(6);
    } else if (debug == "debug") {
        NORVA::setLogLevel(7);
    }

    NORVA::LogLine(6) << "use 32bit ASIO";
    NORVA::LogLine(6) << "LoadInf : " << settingPath;
    if (debugRead) NORVA::LogLine(6) << "load debug: " << debugPath;

    readKeys(file, processors);
    return true;
}

void DriverSettings::readKeys(NORVA::InfFile& file, std::uint16_t processors) {
    KeyReader keys(file);
    std::int32_t n = 0;

    dsdMsb = keys.keyword("DSDMSB", "enable");

    if (keys.text("PCMRequest") == "CovertS32") {
        pcmRequest = 32;
        covertS32 = true;
    } else if (keys.number("PCMRequest", n, atLeast(0))) {
        pcmRequest = n;
    }

    if (keys.number("StartDelay", n, atLeast(0))) startDelay = n;

    std::string target = keys.text("TargetAddress");
    if (!target.empty() && !targetAddress.parseV6Port(target)) {
        targetAddress.clear();
        keys.refuse("TargetAddress", target);
    } else if (!target.empty() && targetAddress.port() != targetControlPort) {
        // Targets answer only on their control port, which the query uses
        // whatever the file says; the user should know.
        NORVA::LogLine(4) << "TargetAddress port " << targetAddress.port() << " not used: targets answer on "
                          << targetControlPort;
    }
    if (keys.number("TargetPO", n, atLeast(0))) targetPort = std::uint16_t(n);

    std::string list = keys.text("FindIP");
    for (std::size_t start = 0; start <= list.size();) {
        std::size_t end = std::min(list.find(';', start), list.size());
        std::string item = list.substr(start, end - start);
        NORVA::IPAddress address;
        if (address.parseV6(item)) {
            findAddresses.push_back(address);
        } else if (!item.empty()) {
            keys.refuse("FindIP", item);
        }
        start = end + 1;
    }

    if (keys.number("ASIOBufferSize", n, atLeast(1))) asioBufferSize = n;
    if (keys.number("ASIOBufferSizeMin", n, atLeast(1))) asioBufferSizeMin = n;
    if (keys.number("ASIOBufferSizeMax", n, atLeast(1))) asioBufferSizeMax = n;
    if (keys.number("ASIOBufferSizePre", n, atLeast(1))) asioBufferSizePre = n;
    if (keys.number("SyncBufferCount", n, atLeast(2))) syncBufferCount = n;

    // From here on, a small machine may read its own section only.
    if (keys.number("CPULOW", n, any) && n != 0 && processors <= n) {
        file.select("LOW");
        NORVA::LogLine(6) << "Change Low Profile : " << processors;
    }

    // Only a CycleTime of 0 is refused; a negative time wraps to a span far
    // beyond any limit, which the planner's bounded searches then refuse.
    if (keys.number("CycleTime", n, [](std::int32_t v) { return v != 0; })) cycleTime = microseconds(n);
    if (keys.number("CycleMinTime", n, any)) cycleMinTime = microseconds(n);
    if (keys.number("TargetProfileLimitTime", n, atLeast(101))) targetProfileLimitTime = microseconds(n);

    std::string fragmentText = keys.text("Fragment");
    if (fragmentText == "disable") {
        fragment = 1;
    } else if (fragmentText == "enable") {
        fragment = 0;
    } else if (fragmentText == "Optimize") {
        fragmentOptimize = true;
    } else if (keys.number("Fragment", n, atLeast(0))) {
        fragment = std::uint16_t(n);
    }

    if (keys.number("ThredMode", n, atLeast(0))) thredMode = std::uint32_t(n);
    if (keys.number("InfoCycle", n, any)) infoCycle = microseconds(n);

    std::string flex = keys.text("FlexCycle");
    if (flex == "enable") {
        flexCycle = true;
    } else if (flex == "fixAsio") {
        flexFixAsio = true;
    } else if (flex == "random" || flex == "max") {
        (flex == "random" ? flexRandom : flexMax) = true;
        flexCycle = true;
        fragmentOptimize = false;
    } else if (!flex.empty() && flex != "disable") {
        keys.refuse("FlexCycle", flex);
    }

    asioBufferMulti = keys.keyword("ASIOBufferMulti", "enable");
    if (keys.number("Interface", n, atLeast(0))) interfaceNumber = n;
    interLoopback = keys.keyword("InterLoopback", "enable");
    if (keys.number("LatencyBuffer", n, atLeast(0))) latencyBuffer = microseconds(n);
    phaseInvert = keys.keyword("Phase", "Invert");
    nopBreak = keys.keyword("NopBreak", "enable");

    std::string send = keys.text("CpuSend");
    if (!send.empty()) {
        cpuSend = cpuNumber(send);
        if (cpuSend < 0) keys.refuse("CpuSend", send);
    }

    std::string other = keys.text("CpuOther");
    if (!other.empty() && !readCpuRange(other, cpuOther, cpuOtherCount)) keys.refuse("CpuOther", other);

    ackProcessCtl = keys.keyword("AckProcessctl", "enable");
    resetOnLoss = keys.keyword("ResetOnLoss", "enable");
}

std::string userSettingPath(const std::string& userFolder) {
    constexpr char separator = DriverPlatform::pathSeparator;
    return userFolder + separator + "KESTRANE Velmora" + separator + "setting.inf";
}

SettingsFiles chooseSettingsFile(const std::string& userFolder, const std::string& libraryDirectory) {
    SettingsFiles files;
    if (!userFolder.empty()) {
        files.settingPath = userSettingPath(userFolder);
    }
    files.referencePath = libraryDirectory + "setting_org.inf";

    NORVA::InfFile user;
    if (!user.load(files.settingPath)) {
        // A missing pointer file or key leaves an empty path, which can't load.
        NORVA::InfFile pointer;
        pointer.load(libraryDirectory + "setting_path.inf");
        std::string elsewhere = pointer.read("SettingPath");
        if (user.load(elsewhere)) {
            files.settingPath = elsewhere;
        } else {
            files.settingPath = files.referencePath;
            files.referenceInUse = true;
        }
    }

    NORVA::InfFile reference;
    if (!files.referenceInUse && reference.load(files.referencePath)) {
        // An installer's new version wins over everything the user changed.
        if (user.read("Version") != reference.read("Version")) {
            user.assign(reference);
            if (!user.write(files.settingPath)) {
                NORVA::LogLine(3) << "settings not replaced, can't write " << files.settingPath;
            }
        }
    }
    return files;
}
