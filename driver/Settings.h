// The driver's tuning, read from the user's settings file with "debug.inf"
// laid over it, and the choice of which settings file is in force.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Network/IPAddress.h"
#include "Network/TimeValue.h"

namespace NORVA {
class InfFile;
}

// Every field holds its default until load() takes a value from the file.
// Times in the files are microseconds.
struct DriverSettings {
    bool dsdMsb = false;
    std::int32_t pcmRequest = 32;
    bool covertS32 = false;
    std::int32_t startDelay = 0;     // microseconds
    NORVA::IPAddress targetAddress;  // all zero: find the target by discovery
    std::uint16_t targetPort = 0;
    std::vector<NORVA::IPAddress> findAddresses;
    std::int32_t asioBufferSize = 0;  // 0: offer the range below
    std::int32_t asioBufferSizeMin = 1;
    std::int32_t asioBufferSizeMax = 16384;
    std::int32_t asioBufferSizePre = 512;
    std::int32_t syncBufferCount = 6;
    NORVA::TimeValue cycleTime = NORVA::TimeValue::fromUs(1000);
    NORVA::TimeValue cycleMinTime;
    NORVA::TimeValue targetProfileLimitTime;
    std::uint16_t fragment = 0;
    bool fragmentOptimize = false;
    std::uint32_t thredMode = 1;
    NORVA::TimeValue infoCycle = NORVA::TimeValue::fromUs(100000);
    bool flexCycle = false;
    bool flexFixAsio = false;
    bool flexRandom = false;
    bool flexMax = false;
    bool asioBufferMulti = false;
    std::int32_t interfaceNumber = 0;
    bool interLoopback = false;
    NORVA::TimeValue latencyBuffer;
    bool phaseInvert = false;
    bool nopBreak = false;
    std::int32_t cpuSend = -1;  // -1: no placement
    std::int32_t cpuOther = -1;
    std::int32_t cpuOtherCount = -1;
    bool ackProcessCtl = false;
    // A stream that ends without the host's stop asks the host, if it takes
    // the message, to reset the driver, so that its next init looks for the
    // target again.
    bool resetOnLoss = false;

    // Resets every field, then reads `settingPath` and the "debug.inf" beside
    // it. A "CPULOW" value no smaller than `processors` switches the keys
    // behind it to section "LOW". False if the settings file can't be read:
    // the defaults stand.
    bool load(const std::string& settingPath, std::uint16_t processors);

  private:
    void readKeys(NORVA::InfFile& file, std::uint16_t processors);
};

// Thread mode bits that the driver front itself looks at.
inline constexpr std::uint32_t thredModeCpuSend = 0x10;
inline constexpr std::uint32_t thredModeSkipMtuTest = 0x2000;

// Which settings file is in force, and the installer's reference copy.
struct SettingsFiles {
    std::string settingPath;
    std::string referencePath;
    bool referenceInUse = false;
};

// "setting.inf" in the driver's folder of the per-user folder `userFolder`.
std::string userSettingPath(const std::string& userFolder);

// The user's "setting.inf" in `userFolder`, else the file that
// "setting_path.inf" in `libraryDirectory` names, else the reference copy
// "setting_org.inf" there. A user's file whose "Version" differs from the
// reference copy's is replaced by that copy whole.
SettingsFiles chooseSettingsFile(const std::string& userFolder, const std::string& libraryDirectory);
