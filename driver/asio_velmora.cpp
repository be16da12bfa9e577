#include "asio_velmora.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <span>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "Platform/Platform.h"
#include "System/InfFile.h"
#include "System/Log.h"
#include "System/Threads.h"
#include "platform/DriverPlatform.h"

namespace {

// The one log of the process, made by the first driver object and installed
// for the process's life.
NORVA::Syslog& processLog() {
    static NORVA::Syslog log;
    static bool installed = (NORVA::Syslog::install(&log), true);
    (void)installed;
    return log;
}

// Copies at most `limit` characters of `text` and a NUL into `out`.
void copyText(char* out, const std::string& text, std::size_t limit) {
    std::size_t length = std::min(text.size(), limit);
    std::memcpy(out, text.data(), length);
    out[length] = '\0';
}

}  // namespace

const CFactoryTemplate factoryTemplates[] = {{L"ASIOKESTRANE", &classIdVelmora, createAsioVelmora, nullptr}};
const int factoryTemplateCount = 1;

CUnknown* createAsioVelmora(IUnknown* outer, HRESULT* result) {
    // No exception may cross the COM boundary; the factory reports null as
    // out of memory.
    try {
        return new AsioVelmora(outer, result);
    } catch (...) {
        return nullptr;
    }
}

AsioVelmora::AsioVelmora(IUnknown* outer, HRESULT*) : CUnknown(outer) {
    processLog().configure(16, nullptr, NORVA::Syslog::defaultPort);

    const std::string libraryDirectory = DriverPlatform::libraryDirectory();
    SettingsFiles files = chooseSettingsFile(DriverPlatform::userDataFolder(), libraryDirectory);
    settingPath = files.settingPath;
    referencePath = files.referencePath;
    configToolPath = libraryDirectory + configToolName;
    // A file that can't be read leaves the defaults: the driver still starts.
    loadSettings();

    NORVA::LogLine(6) << "settingOrgPath : " << referencePath;
    NORVA::LogLine(6) << "Velmora ASIO DLL : " << versionText;

    if (wantsLocalService(settings)) LocalServiceExchange().up(settings, DriverPlatform::processId());
    NORVA::Platform::beginTimerPeriod();
}

AsioVelmora::~AsioVelmora() {
    stop();
    disposeBuffers();
    NORVA::Platform::endTimerPeriod();
    if (wantsLocalService(settings)) LocalServiceExchange().down(settings, DriverPlatform::processId());
}

bool AsioVelmora::loadSettings() {
    return settings.load(settingPath, NORVA::Platform::processorCount());
}

// ---- IUnknown ---------------------------------------------------------------

HRESULT STDMETHODCALLTYPE AsioVelmora::QueryInterface(REFIID iid, void** out) {
    return owner->QueryInterface(iid, out);
}

ULONG STDMETHODCALLTYPE AsioVelmora::AddRef() {
    return owner->AddRef();
}

ULONG STDMETHODCALLTYPE AsioVelmora::Release() {
    return owner->Release();
}

HRESULT STDMETHODCALLTYPE AsioVelmora::NonDelegatingQueryInterface(REFIID iid, void** out) {
    if (out == nullptr) return E_POINTER;
    if (iid == classIdVelmora) return handOut(static_cast<IASIO*>(this), out);
    return CUnknown::NonDelegatingQueryInterface(iid, out);
}

// ---- Identity and errors ------------------------------------------------------

ASIOBool ASIO_METHOD AsioVelmora::init(void* handle) {
    sysHandle = handle;
    if (initialised) return ASIOTrue;
    NORVA::LogLine(6) << "init ProductID=" << NORVA::Hex64{productId};

    // Lives for this call only; its socket closes on every way out.
    VELMORA::Find find(findSettings());
    find.targetPort = targetControlPort;
    if (!find.open(std::uint16_t(settings.interfaceNumber)))
        return fail("Velmora Find open err", "Velmora Find open err!");
    // FindIP gives bare addresses; a target answers discovery only on its
    // control port, so that is where the probe goes.
    find.extraTargets = settings.findAddresses;
    for (NORVA::IPAddress& extra : find.extraTargets) {
        if (extra.port() == 0) extra.setPort(targetControlPort);
    }

    NORVA::IPAddress sink;
    VELMORA::TargetRecord record;
    if (!chooseTarget(find, sink, record)) return ASIOFalse;
    const std::uint32_t mtu = pathMtu(find, sink);

    if (!sync.open(settings.thredMode, settings.infoCycle, std::uint16_t(sink.scope()), productName,
                   productId, settings.cpuSend, settings.cpuOther, settings.cpuOtherCount))
        return fail("Velmora Sync open err", "Velmora Sync open err!");
    if (!sync.getInfo(sink, settings.latencyBuffer, settings.nopBreak, mtu))
        return fail("Velmora get info err", "Velmora get info err!");
    const VELMORA::SinkFormats& masks = sync.format.sink;
    NORVA::LogLine(6) << "Velmora connect Sink " << NORVA::Hex64{masks.pcm.value} << " "
                      << NORVA::Hex64{masks.dsdLsb.value} << " " << NORVA::Hex64{masks.dsdMsb.value};
    if (!takeSinkFormat()) return ASIOFalse;
    channelCount = channelCountOf(masks.pcm.value);

    driverName = record.name;
    if (!record.outputName.empty()) driverName += "(" + record.outputName + ")";
    initialised = true;
    dsdMode = false;
    NORVA::LogLine(6) << "init compleat mode:" << NORVA::Hex64{formatMode} << " wid:" << sampleWidth
                      << " ch:" << channelCount;
    return ASIOTrue;
}

VELMORA::FindSettings AsioVelmora::findSettings() const {
    VELMORA::FindSettings find;
    // A first FindID of 0 accepts every target, whatever its ProductID.
    if (findIds[0] == 0) {
        find.filterId = VELMORA::anyProductId;
    } else {
        find.filterId = productId;
        for (const std::uint64_t* id = findIds; *id != ~std::uint64_t(0); ++id) {
            NORVA::LogLine(6) << "init FindID=" << NORVA::Hex64{*id};
            find.furtherIds.push_back(*id);
        }
    }
    find.protocolVersion = 1;
    find.clientName = productName;
    find.nopBreak = settings.nopBreak;
    find.withLoopback = settings.interLoopback;
    find.productId = productId;
    return find;
}

ASIOBool AsioVelmora::chooseTarget(VELMORA::Find& find, NORVA::IPAddress& sink,
                                   VELMORA::TargetRecord& record) {
    if (settings.targetAddress.isAnyNoPort()) return discoverTarget(find, sink, record);
    return askTarget(find, sink, record);
}

ASIOBool AsioVelmora::askTarget(VELMORA::Find& find, NORVA::IPAddress& sink, VELMORA::TargetRecord& record) {
    if (!find.readTarget(settings.targetAddress, settings.targetPort, sink, record))
        return fail("Velmora get Target err", "Velmora get Target err!");
    if (sink.isAnyNoPort()) return fail("Velmora can not find", "Velmora can not ReFind");
    NORVA::LogLine(6) << "Velmora get Target OK";
    return ASIOTrue;
}

ASIOBool AsioVelmora::discoverTarget(VELMORA::Find& find, NORVA::IPAddress& sink,
                                     VELMORA::TargetRecord& record) {
    VELMORA::TargetMap targets;
    VELMORA::TargetRecordMap records;
    if (!find.searchTargets(targets) || !find.readTargetRecords(targets, records))
        return fail("Velmora Find err", "Velmora Find err!");
    // This machine's own responder is never the one to stream to.
    auto found = std::find_if(records.begin(), records.end(),
                              [](const auto& entry) { return !entry.first.isLoopback(); });
    if (found == records.end()) return fail("Velmora can not Find", "Velmora can not Find");
    sink = found->first;
    record = found->second;
    NORVA::LogLine(6) << "Velmora Find OK";
    return ASIOTrue;
}

std::uint32_t AsioVelmora::pathMtu(VELMORA::Find& find, const NORVA::IPAddress& sink) {
    std::uint32_t mtu = 1500;
    if ((settings.thredMode & thredModeSkipMtuTest) != 0) {
        NORVA::LogLine(6) << "Skip MTU TEST=" << mtu;
        return mtu;
    }
    // A failed measurement leaves the value where it stopped; init goes on.
    if (!find.measureMtu(sink, mtu)) NORVA::LogLine(3) << "Fault measurement MTU";
    return mtu;
}

ASIOBool AsioVelmora::takeSinkFormat() {
    std::optional<SampleChoice> choice =
        chooseSampleFormat(sync.format.sink.pcm.value, settings.pcmRequest, settings.covertS32);
    if (!choice) {
        const bool fixed32 = settings.covertS32 && settings.pcmRequest >= 32 && settings.pcmRequest < 64;
        return fail(std::string(fixed32 ? "format miss err pcm32Fix" : "format miss err ") +
                        std::to_string(settings.pcmRequest),
                    "format miss err!");
    }
    formatMode = choice->formatBit;
    sampleWidth = choice->sampleWidth;
    return ASIOTrue;
}

namespace {

// The PCM bits to try, best first, for the bits per sample wanted.
// 0x200, 0x400, 0x800, 0x1000: integers of 16, 24, 32, 64 bits; 0x2000,
// 0x4000: floats of 32 and 64 bits.
std::span<const std::uint64_t> formatOrder(std::int32_t pcmRequest, bool covertS32) {
    static constexpr std::uint64_t from64[] = {0x4000, 0x800, 0x2000, 0x400, 0x200};
    static constexpr std::uint64_t fixed32[] = {0x800, 0x1000, 0x400, 0x200};
    static constexpr std::uint64_t from32[] = {0x800, 0x2000, 0x4000, 0x400, 0x200};
    static constexpr std::uint64_t from24[] = {0x400, 0x800, 0x2000, 0x4000, 0x200};
    static constexpr std::uint64_t from16[] = {0x200, 0x400, 0x800, 0x2000, 0x4000};
    static constexpr std::uint64_t below16[] = {0x400, 0x800, 0x2000, 0x4000};
    if (pcmRequest >= 64) return from64;
    if (pcmRequest >= 32) return covertS32 ? std::span<const std::uint64_t>(fixed32) : from32;
    if (pcmRequest >= 24) return from24;
    if (pcmRequest >= 16) return from16;
    return below16;
}

}  // namespace

std::optional<SampleChoice> chooseSampleFormat(std::uint64_t pcmMask, std::int32_t pcmRequest,
                                               bool covertS32) {
    const bool hostWrites32 = covertS32 && pcmRequest >= 32 && pcmRequest < 64;
    for (std::uint64_t bit : formatOrder(pcmRequest, covertS32)) {
        if ((pcmMask & bit) == 0) continue;
        // The host then always writes 32-bit integers, whatever goes on the wire.
        if (hostWrites32) return SampleChoice{bit, 4};
        return SampleChoice{bit, bit == 0x200 ? 2 : bit == 0x400 ? 3 : bit == 0x4000 ? 8 : 4};
    }
    return std::nullopt;
}

std::int32_t channelCountOf(std::uint64_t pcmMask) {
    static constexpr std::pair<std::uint64_t, std::int32_t> channelBits[] = {
        {0x01, 1}, {0x02, 2}, {0x04, 4}, {0x08, 6}, {0x10, 8}};
    std::int32_t count = 0;
    for (auto [bit, channels] : channelBits)
        if ((pcmMask & bit) != 0) count = channels;
    return count;
}

void ASIO_METHOD AsioVelmora::getDriverName(char* name) {
    NORVA::LogLine(6) << "getDriverName " << driverName;
    if (name != nullptr) copyText(name, driverName, 31);
}

AsioLong ASIO_METHOD AsioVelmora::getDriverVersion() {
    return 1;
}

void ASIO_METHOD AsioVelmora::getErrorMessage(char* text) {
    if (text != nullptr) copyText(text, errorText, hostErrorTextSize - 1);
}

ASIOBool AsioVelmora::fail(const std::string& logged, const char* shown) {
    copyText(errorText, shown, errorTextSize - 1);
    NORVA::LogLine(3) << logged;
    return ASIOFalse;
}

// ---- Settings -------------------------------------------------------------------

ASIOError ASIO_METHOD AsioVelmora::controlPanel() {
    NORVA::InfFile before;
    before.load(settingPath);
    if (!DriverPlatform::runAndWait(configToolPath)) {
        NORVA::LogLine(6) << configToolPath << " ERROR";
        return ASE_NotPresent;
    }
    NORVA::LogLine(6) << configToolPath;

    NORVA::InfFile after;
    after.load(settingPath);
    if (after == before) return ASE_OK;
    if (!loadSettings()) return ASE_NotPresent;
    initialised = false;
    // The host learns of a failed re-initialisation only through this value
    // (0) and getErrorMessage().
    return init(sysHandle);
}

// ---- Transport --------------------------------------------------------------------

namespace {

// The format word's bit for a count of output channels; 0 for a count that
// can't stream.
std::uint32_t channelBit(AsioLong channels) {
    switch (channels) {
        case 1:
            return 0x01;
        case 2:
            return 0x02;
        case 4:
            return 0x04;
        case 6:
            return 0x08;
        case 8:
            return 0x10;
        default:
            return 0;
    }
}

constexpr std::uint32_t dsdLsbWord = 0x2510000;  // 32-bit words, little-endian, LSB first
constexpr std::uint32_t dsdMsbWord = 0x2A10000;  // 32-bit words, big-endian, MSB first
// The planners' shortest cycle.
constexpr NORVA::TimeValue plannedCycleLimit = NORVA::TimeValue::fromUs(400);
// Play begins no sooner than this after connect().
constexpr std::int64_t leastStartDelayMs = 10;

std::uint64_t hzOf(NORVA::TimeValue cycle) {
    std::uint64_t us = cycle.toUs();
    return us == 0 ? 0 : 1000000 / us;
}

}  // namespace

ASIOError ASIO_METHOD AsioVelmora::start() {
    NORVA::LogLine(6) << "start";
    // A host that starts twice would leave the first start's thread behind.
    if (running || startThread.joinable()) {
        NORVA::LogLine(3) << "start error running";
        return ASE_NotPresent;
    }
    VELMORA::FormatID word;
    if (!word.setRate(sampleRate)) {
        NORVA::LogLine(3) << "speed error " << sampleRate;
        return ASE_NotPresent;
    }
    NORVA::LogLine(6) << "start SPEED=" << word.rate();
    const std::uint32_t channels = channelBit(activeChannels);
    if (channels == 0) {
        NORVA::LogLine(3) << "ch error " << activeChannels;
        return ASE_NotPresent;
    }

    const bool dsd = sampleRate > pcmRateLimit || dsdMode;
    if (!dsd) {
        word = VELMORA::FormatID(word.value | channels | formatMode);
        if (!sync.format.setFormat(word)) {
            NORVA::LogLine(3) << "fmt error PCM";
            return ASE_NotPresent;
        }
    } else {
        const bool msb = settings.dsdMsb;
        word = VELMORA::FormatID(word.value | channels | (msb ? dsdMsbWord : dsdLsbWord));
        if (!sync.format.setFormat(word)) {
            NORVA::LogLine(3) << (msb ? "fmt error DSDLSB" : "fmt error DSDMSB");
            return ASE_NotPresent;
        }
    }

    const std::uint8_t silence = word.muteByte();
    for (AsioLong c = 0; c < activeChannels; ++c)
        std::memset(channelBuffers[c].get(), silence, 2 * bufferBytes);

    std::int32_t multi = 1;
    if (settings.asioBufferMulti) {
        const std::int32_t base = sampleRate % 44100 == 0 ? 44100 : 48000;
        multi = dsdMode ? std::int32_t(sampleRate / (base * 64)) * 2 : std::int32_t(sampleRate / base);
    }
    if (!planTransfer(word, multi)) return ASE_NotPresent;
    logProfile();

    // The bridge's layout must fill the ring's slots exactly: a DSD rate
    // chosen without the DSD format meets the slot only with 4-byte samples.
    bridgeForm = bridgeFormFor(dsdMode, sync.format.sourceFormat.bytesPerSample(), sampleWidth,
                               settings.covertS32, formatMode);
    bridgeFrames = std::uint32_t(bufferBytes) / hostSampleBytes(bridgeForm);
    const std::uint32_t ringFrames = std::uint32_t(dsdMode ? bufferBytes / 4 : bufferBytes / sampleWidth);
    if (std::uint64_t(bridgeFrames) * slotSampleBytes(bridgeForm) * std::uint32_t(activeChannels) !=
        std::uint64_t(ringFrames) * sync.format.sourceFormat.frameBytes()) {
        NORVA::LogLine(3) << "fmt error width " << sampleWidth;
        return ASE_NotPresent;
    }
    positionStep = dsdMode ? std::uint64_t(bufferBytes) * 8 : std::uint64_t(bufferBytes / sampleWidth);

    if (callbacks.load() == nullptr) {
        NORVA::LogLine(3) << "error callbacks";
        return ASE_NotPresent;
    }
    samplePosition = 0;
    bufferIndex = 0;
    running = true;

    const std::uint32_t count = std::uint32_t(settings.syncBufferCount * multi);
    if (!sync.setupRing(ringFrames, count, count, VELMORA::FormatID())) {
        NORVA::LogLine(3) << "setupRing error " << count;
        return ASE_NotPresent;
    }
    sync.format.hostInvert = settings.phaseInvert;
    if (!sync.connectPrepare()) {
        NORVA::LogLine(3) << "connectPrepare error";
        return ASE_NotPresent;
    }
    placeProcess();
    if ((settings.thredMode & thredModeCpuSend) != 0 && settings.cpuOther != -1) placeThreads();
    if (!sync.connect()) {
        NORVA::LogLine(3) << "connect error";
        return ASE_NotPresent;
    }
    startTime = NORVA::TimeValue::now();
    try {
        // Under the state lock, which the thread takes before it can call
        // the host back: a stop from inside that call sees the thread set.
        std::lock_guard<std::mutex> lock(sync.stateMutex);
        startThread = std::thread([this] { connectAndPlay(); });
    } catch (const std::system_error&) {
        NORVA::LogLine(3) << "start thread error";
        return ASE_NotPresent;
    }
    NORVA::LogLine(6) << "start done";
    return ASE_OK;
}

bool AsioVelmora::planTransfer(VELMORA::FormatID word, std::int32_t multi) {
    VELMORA::TransferConfig& transfer = sync.transfer;
    const VELMORA::StreamPath path{sync.format.streamFormat, sync.maxPacketSize, sync.maxPacketCount};
    auto planned = [&](bool done, const char* failure) {
        if (!done) {
            NORVA::LogLine(3) << failure;
            return false;
        }
        sync.profiles[0] = transfer.profile();
        sync.profileCount = 1;
        return true;
    };

    if (settings.targetProfileLimitTime.raw() > 0) {
        NORVA::LogLine(6) << "configTransfer profile";
        auto profiles = transfer.configTransfer(path, settings.targetProfileLimitTime, NORVA::TimeValue(),
                                                settings.cycleTime);
        sync.profiles[0] = profiles[0];
        sync.profiles[1] = profiles[1];
        sync.profileCount = 2;
        // Cycles this long leave the worker time to sleep between them.
        if (sync.profiles[0].cycle >= NORVA::TimeValue::fromUs(1000))
            sync.threadFlags = settings.thredMode & ~std::uint32_t(VELMORA::ThreadFlag::noSleep4Core |
                                                                   VELMORA::ThreadFlag::noSleepForce);
        return true;
    }
    if (settings.flexFixAsio) return planFixedByHostBuffer(word, multi);

    transfer.setInputs(path, plannedCycleLimit);
    const std::int32_t fragment = settings.fragment;
    const NORVA::TimeValue cycle = settings.cycleTime;
    if (settings.fragmentOptimize && !settings.flexCycle) {
        NORVA::LogLine(6) << "configTransfer FixAuto";
        return planned(transfer.planFixAuto(cycle), "error configTransfer FixAuto");
    }
    if (settings.fragmentOptimize) {
        NORVA::LogLine(6) << "configTransfer VarAuto";
        return planned(transfer.planVarAuto(cycle), "error configTransfer VarAuto");
    }
    if (!settings.flexCycle) {
        NORVA::LogLine(6) << "configTransfer Fix";
        return planned(transfer.planFix(fragment, cycle), "error configTransfer Fix");
    }
    if (settings.flexMax) {
        // Whatever the search reached is used.
        transfer.setInputs(path, cycle);
        transfer.planMax();
        NORVA::LogLine(6) << "configTransfer VarMax";
        return planned(true, nullptr);
    }
    if (settings.flexRandom) {
        NORVA::LogLine(6) << "configTransfer Random";
        return planned(transfer.planRandom(fragment, cycle, settings.cycleMinTime),
                       "error configTransfer Var");
    }
    NORVA::LogLine(6) << "configTransfer Var";
    return planned(transfer.planVar(fragment, cycle), "error configTransfer Var");
}

// Packets of one host buffer each, or of an equal share of it where one
// buffer is more than a packet holds; the cycle is the time they carry.
bool AsioVelmora::planFixedByHostBuffer(VELMORA::FormatID word, std::int32_t multi) {
    VELMORA::TransferConfig& transfer = sync.transfer;
    transfer.setInputs({sync.format.streamFormat, sync.maxPacketSize, sync.maxPacketCount},
                       NORVA::TimeValue());
    const std::int64_t samples = (word.low() & VELMORA::FormatID::pcmMask) != 0
                                     ? bufferBytes / sampleWidth
                                     : std::int64_t(bufferBytes) * 8;
    const std::int64_t hostBytes =
        std::int64_t(word.bitsPerSample()) * word.channelCount() * samples / 8 * multi;
    const std::int64_t unit = sync.format.streamFormat.frameBytes();
    std::int64_t size = hostBytes - hostBytes % unit;
    std::int64_t packets = 1;
    while (size > sync.maxPacketSize) {
        ++packets;
        size = hostBytes / packets;
        size -= size % unit;
        if (size <= 0) {
            // Nothing smaller than a frame: the frame goes as it is.
            VELMORA::TransferProfile& first = sync.profiles[0];
            first = transfer.profile();
            first.fixedSize = std::uint32_t(size);
            first.packetCount = std::uint16_t(packets);
            sync.profileCount = 1;
            NORVA::LogLine(6) << "configTransfer VarASIO " << size << "x" << packets;
            return true;
        }
    }
    const double byteRate = double(sync.format.streamFormat.byteRate());
    const double cycleUs = std::ceil(1000000.0 / (byteRate / double(packets * size)));
    VELMORA::TransferProfile& first = sync.profiles[0];
    first = transfer.profile();
    first.cycle = NORVA::TimeValue::fromUs(std::uint64_t(cycleUs));
    first.fixedSize = std::uint32_t(size);
    first.dataSize = std::uint32_t(size);
    first.sizeQ14 = std::uint32_t(size / unit) << 14;
    first.packetCount = std::uint16_t(packets);
    first.mode = VELMORA::transferVar;
    sync.profileCount = 1;
    NORVA::LogLine(6) << "configTransfer VarASIO " << size << "x" << packets;
    return true;
}

void AsioVelmora::logProfile() {
    const VELMORA::TransferProfile& first = sync.profiles[0];
    const std::uint64_t size =
        first.fixedSize != 0 ? first.fixedSize
                             : std::uint64_t(sync.format.streamFormat.frameBytes()) * (first.sizeQ14 >> 14);
    NORVA::LogLine(6) << "start cycle=" << first.cycle.toUs() << "usec " << hzOf(first.cycle)
                      << "Hz size=" << size << " cycleMin=" << first.cycleMin.toUs() << "usec "
                      << hzOf(first.cycleMin) << "Hz " << size << "x" << first.packetCount << "ppc";
}

void AsioVelmora::placeProcess() {
    const DriverSettings& s = settings;
    if (!(((s.thredMode & thredModeCpuSend) != 0 && s.cpuSend != -1) || s.cpuOther != -1)) return;
    std::uint32_t mask = 0;
    if (!DriverPlatform::processAffinity(mask)) return;
    if (s.cpuSend != -1) mask |= NORVA::processorMask(s.cpuSend, 1);
    if (s.cpuOther != -1 && s.cpuOtherCount > 0) mask |= NORVA::processorMask(s.cpuOther, s.cpuOtherCount);
    DriverPlatform::setProcessAffinity(mask);
}

namespace {

// This process's threads; false, logged, if the system can't list them.
bool listThreads(std::vector<DriverPlatform::ThreadId>& threads, const char* firstFailed) {
    switch (DriverPlatform::processThreads(threads)) {
        case DriverPlatform::ThreadList::snapshotFailed:
            NORVA::LogLine(4) << "CreateToolhelp Error ";
            return false;
        case DriverPlatform::ThreadList::firstFailed:
            NORVA::LogLine(4) << firstFailed;
            return false;
        case DriverPlatform::ThreadList::listed:
            break;
    }
    return true;
}

// Sets a thread's processors and logs how that went with `what` ("Change"
// or "Revert"); true if it was set.
bool placeThread(DriverPlatform::ThreadId id, std::uint64_t mask, std::uint64_t& former, const char* what) {
    switch (DriverPlatform::setThreadAffinity(id, mask, former)) {
        case DriverPlatform::ThreadAffinity::changed:
            NORVA::LogLine(6) << "THREAD ID " << id << " Affinity " << what;
            return true;
        case DriverPlatform::ThreadAffinity::setFailed:
            NORVA::LogLine(4) << "THREAD ID " << id << " Affinity " << what << " Error";
            return false;
        case DriverPlatform::ThreadAffinity::openFailed:
            NORVA::LogLine(4) << "THREAD ID " << id << " Open Error";
            return false;
    }
    return false;
}

}  // namespace

void AsioVelmora::placeThreads() {
    std::vector<DriverPlatform::ThreadId> threads;
    if (!listThreads(threads, "Thread32First")) return;
    const std::int32_t count = settings.cpuOtherCount;
    const std::uint64_t mask = count == 0  ? 0xFFFFFFFFu
                               : count > 0 ? NORVA::processorMask(settings.cpuOther, count)
                                           : 0;
    for (DriverPlatform::ThreadId id : threads) {
        std::uint64_t former = 0;
        if (placeThread(id, mask, former, "Change")) savedAffinity[id] = former;
    }
}

void AsioVelmora::revertThreads() {
    std::vector<DriverPlatform::ThreadId> threads;
    if (!listThreads(threads, "Thread32 Error ")) return;
    for (DriverPlatform::ThreadId id : threads) {
        auto saved = savedAffinity.find(id);
        std::uint64_t former = 0;
        if (saved != savedAffinity.end()) placeThread(id, saved->second, former, "Revert");
    }
    savedAffinity.clear();
}

// The body of startThread: the host isn't held up while the connection is made.
void AsioVelmora::connectAndPlay() {
    if (!sync.connectWait()) {
        NORVA::LogLine(6) << "connectWait error";
        return;
    }
    const std::int32_t state = sync.connectState;
    if (state < VELMORA::Sync::starting || state > VELMORA::Sync::disconnecting) {
        NORVA::LogLine(6) << "is_connect error";
        return;
    }
    const std::int64_t elapsed = std::int64_t((NORVA::TimeValue::now() - startTime).toMs());
    const std::int64_t delay = settings.startDelay / 1000 + leastStartDelayMs;
    if (elapsed < delay) {
        NORVA::LogLine(6) << "start delay " << elapsed << "ms sleep " << delay - elapsed << "ms";
        NORVA::sleepMilliseconds(std::uint32_t(delay - elapsed));
    } else {
        NORVA::LogLine(6) << "start delay " << elapsed << "ms";
    }
    sync.play();
    if (resetSupported) watchForLoss();
}

// Stays on startThread until the stream ends. The stream worker only wakes
// it, as it wakes every waiter on a change of state, so the host's message
// handler, which may take its time or call back into the driver, never runs
// on the worker that paces the packets, nor on the one that fills the ring.
void AsioVelmora::watchForLoss() {
    {
        std::unique_lock<std::mutex> lock(sync.stateMutex);
        // Bounded steps: a wake-up that comes between a test and the wait
        // costs one step.
        while (running && sync.connectState != VELMORA::Sync::idle)
            NORVA::waitFor(sync.stateChanged, lock, lossWatchStep,
                           [this] { return !running || sync.connectState == VELMORA::Sync::idle; });
    }
    ASIOCallbacks* host = callbacks.load();
    if (!running || host == nullptr || host->asioMessage == nullptr) return;
    NORVA::LogLine(4) << "stream lost, kAsioResetRequest";
    // The host may stop, dispose and even release the driver from inside
    // the call: nothing of the object is touched after it.
    host->asioMessage(kAsioResetRequest, 0, nullptr, nullptr);
}

ASIOError ASIO_METHOD AsioVelmora::stop() {
    running = false;
    NORVA::LogLine(6) << "stop";
    {
        // Under the lock, so that the loss watch can't miss the change.
        std::lock_guard<std::mutex> lock(sync.stateMutex);
    }
    sync.stateChanged.notify_all();
    // play() must not come after the stream's end has begun. A host that
    // stops from inside the reset request is on startThread itself, which
    // ends as soon as that call returns.
    if (startThread.joinable()) {
        if (startThread.get_id() == std::this_thread::get_id()) {
            startThread.detach();
        } else {
            startThread.join();
        }
    }
    sync.disconnect();
    revertThreads();
    return ASE_OK;
}

// ---- The audio bridge ---------------------------------------------------------------

void AsioVelmora::Sync::fillBuffer(VELMORA::StreamBuffer& slot, bool) {
    owner->bridge(slot);
}

void AsioVelmora::bridge(VELMORA::StreamBuffer& slot) {
    ASIOCallbacks* host = callbacks.load(std::memory_order_acquire);
    if (running.load(std::memory_order_acquire) && host != nullptr) {
        if (!timeInfoMode) {
            if (host->bufferSwitch != nullptr) host->bufferSwitch(bufferIndex, ASIOTrue);
        } else if (host->bufferSwitchTimeInfo != nullptr) {
            ASIOTimeInfo& info = asioTime.timeInfo;
            getSamplePosition(&info.samplePosition, &info.systemTime);
            if (timeCodeRead) asioTime.timeCode.timeCodeSamples = info.samplePosition;
            host->bufferSwitchTimeInfo(&asioTime, bufferIndex, ASIOTrue);
            // The rate and clock changes are told once.
            std::atomic_ref<std::uint32_t>(info.flags)
                .fetch_and(~std::uint32_t(kSampleRateChanged | kClockSourceChanged));
        }
    }
    samplePosition.fetch_add(positionStep, std::memory_order_relaxed);
    bufferIndex ^= 1;

    // The half the host was handed one call earlier; the first slot carries
    // start()'s silence.
    const std::uint8_t* halves[maxOutputs];
    const std::size_t offset = bufferIndex == 0 ? 0 : std::size_t(bufferBytes);
    for (AsioLong c = 0; c < activeChannels; ++c) halves[c] = channelBuffers[c].get() + offset;
    interleave(bridgeForm, halves, std::uint32_t(activeChannels), bridgeFrames, slot.data);
}

// ---- Channels, formats and buffers -------------------------------------------------

namespace {

void splitWords(std::uint64_t value, std::uint32_t& hi, std::uint32_t& lo) {
    hi = std::uint32_t(value >> 32);
    lo = std::uint32_t(value);
}

const char* trueOrFalse(bool value) {
    return value ? "true" : "false";
}

}  // namespace

ASIOError ASIO_METHOD AsioVelmora::getChannels(AsioLong* numInputs, AsioLong* numOutputs) {
    NORVA::LogLine(6) << "getCh " << channelCount;
    if (numInputs != nullptr) *numInputs = 0;
    if (numOutputs != nullptr) *numOutputs = channelCount;
    return ASE_OK;
}

ASIOError ASIO_METHOD AsioVelmora::getLatencies(AsioLong* inputLatency, AsioLong* outputLatency) {
    if (inputLatency != nullptr) *inputLatency = 0;
    if (outputLatency != nullptr) *outputLatency = 0;
    return ASE_OK;
}

ASIOError ASIO_METHOD AsioVelmora::getBufferSize(AsioLong* minSize, AsioLong* maxSize,
                                                 AsioLong* preferredSize, AsioLong* granularity) {
    NORVA::LogLine(6) << "getBufferSize";
    // A DSD buffer size counts single-bit samples.
    const AsioLong scale = dsdMode ? 32 : 1;
    const DriverSettings& s = settings;
    const bool range = s.asioBufferSize == 0;
    if (minSize != nullptr) *minSize = (range ? s.asioBufferSizeMin : s.asioBufferSize) * scale;
    if (maxSize != nullptr) *maxSize = (range ? s.asioBufferSizeMax : s.asioBufferSize) * scale;
    if (preferredSize != nullptr) *preferredSize = (range ? s.asioBufferSizePre : s.asioBufferSize) * scale;
    // -1: powers of two.
    if (granularity != nullptr) *granularity = range ? -1 : 0;
    return ASE_OK;
}

ASIOError ASIO_METHOD AsioVelmora::canSampleRate(ASIOSampleRate rate) {
    NORVA::LogLine(6) << "canSa " << rate;
    VELMORA::FormatID word(rate > pcmRateLimit || dsdMode ? std::uint64_t(VELMORA::FormatID::dsdOneBit)
                                                          : formatMode);
    if (rate < 0 || rate > double(UINT32_MAX) || !word.setRate(std::uint32_t(rate))) return ASE_NoClock;
    return sync.format.sink.isSupported(word) ? ASE_OK : ASE_NoClock;
}

ASIOError ASIO_METHOD AsioVelmora::getSampleRate(ASIOSampleRate* rate) {
    if (rate != nullptr) *rate = sampleRate;
    NORVA::LogLine(6) << "getSa " << double(sampleRate);
    return ASE_OK;
}

ASIOError ASIO_METHOD AsioVelmora::setSampleRate(ASIOSampleRate rate) {
    NORVA::LogLine(6) << "SetSa " << rate;
    if (rate == double(sampleRate)) return ASE_OK;
    // start() refuses a rate that no format word can hold.
    sampleRate = rate < 0 || rate > double(UINT32_MAX) ? 0 : std::uint32_t(rate);
    std::atomic_ref<std::uint32_t>(asioTime.timeInfo.flags).fetch_or(kSampleRateChanged);
    asioTime.timeInfo.sampleRate = rate;
    ASIOCallbacks* host = callbacks.load();
    if (host != nullptr && host->sampleRateDidChange != nullptr) host->sampleRateDidChange(sampleRate);
    return ASE_OK;
}

ASIOError ASIO_METHOD AsioVelmora::getClockSources(ASIOClockSource* clocks, AsioLong* numSources) {
    NORVA::LogLine(6) << "getCS";
    if (clocks != nullptr) {
        clocks[0] = ASIOClockSource{};
        clocks[0].index = 0;
        clocks[0].associatedChannel = -1;
        clocks[0].associatedGroup = -1;
        clocks[0].isCurrentSource = ASIOTrue;
        copyText(clocks[0].name, "Internal", sizeof clocks[0].name - 1);
    }
    if (numSources != nullptr) *numSources = 1;
    return ASE_OK;
}

ASIOError ASIO_METHOD AsioVelmora::setClockSource(AsioLong reference) {
    NORVA::LogLine(6) << "setCS";
    if (reference != 0) return ASE_NotPresent;
    std::atomic_ref<std::uint32_t>(asioTime.timeInfo.flags).fetch_or(kClockSourceChanged);
    return ASE_OK;
}

ASIOError ASIO_METHOD AsioVelmora::getSamplePosition(ASIOSamples* position, ASIOTimeStamp* timeStamp) {
    if (position != nullptr)
        splitWords(samplePosition.load(std::memory_order_relaxed), position->hi, position->lo);
    if (timeStamp != nullptr)
        splitWords(std::uint64_t(NORVA::Platform::millisecondClock()) * 1000, timeStamp->hi, timeStamp->lo);
    return ASE_OK;
}

ASIOError ASIO_METHOD AsioVelmora::getChannelInfo(ASIOChannelInfo* info) {
    if (info == nullptr || info->channel < 0 || info->channel >= channelCount) return ASE_InvalidParameter;
    info->isActive = ASIOFalse;
    if (info->isInput != ASIOFalse) return ASE_InvalidParameter;
    info->channelGroup = 0;
    copyText(info->name, driverName, sizeof info->name - 1);
    if (sampleRate > pcmRateLimit || dsdMode) {
        info->type = settings.dsdMsb ? ASIOSTDSDInt8MSB1 : ASIOSTDSDInt8LSB1;
    } else if (settings.covertS32) {
        info->type = ASIOSTInt32LSB;
    } else {
        switch (formatMode) {
            case 0x4000:
                info->type = ASIOSTFloat64LSB;
                break;
            case 0x800:
                info->type = ASIOSTInt32LSB;
                break;
            case 0x2000:
                info->type = ASIOSTFloat32LSB;
                break;
            case 0x400:
                info->type = ASIOSTInt24LSB;
                break;
            default:
                info->type = ASIOSTInt16LSB;
                break;
        }
    }
    if (info->channel < activeChannels) info->isActive = ASIOTrue;
    NORVA::LogLine(6) << "getChannelInfo : " << info->channel << " : " << info->type << " "
                      << trueOrFalse(info->isActive != ASIOFalse);
    return ASE_OK;
}

ASIOError ASIO_METHOD AsioVelmora::createBuffers(ASIOBufferInfo* bufferInfos, AsioLong numChannels,
                                                 AsioLong bufferSize, ASIOCallbacks* hostCallbacks) {
    NORVA::LogLine(6) << "createBuffer : " << bufferSize << " ch:" << numChannels
                      << " callback:" << trueOrFalse(hostCallbacks != nullptr) << "  s:" << sampleRate;
    // Buffers made before, without disposeBuffers(), go with their stream.
    if (activeChannels > 0 || running) releaseBuffers();
    bufferBytes = dsdMode ? bufferSize / 8 : bufferSize * sampleWidth;
    if (numChannels > 0 && bufferInfos == nullptr) return ASE_InvalidParameter;
    for (AsioLong i = 0; i < numChannels; ++i) {
        ASIOBufferInfo& record = bufferInfos[i];
        if (record.isInput != ASIOFalse) continue;
        if (record.channelNum < 0 || record.channelNum >= channelCount || activeChannels == maxOutputs) {
            NORVA::LogLine(3) << "createBuffer channel error " << record.channelNum;
            disposeBuffers();
            return ASE_InvalidParameter;
        }
        if (bufferBytes <= 0) {
            NORVA::LogLine(3) << "createBuffer size error " << bufferSize;
            disposeBuffers();
            return ASE_InvalidParameter;
        }
        auto& block = channelBuffers[activeChannels];
        block = std::make_unique<std::uint8_t[]>(2 * std::size_t(bufferBytes));
        record.buffers[0] = block.get();
        record.buffers[1] = block.get() + bufferBytes;
        ++activeChannels;
    }
    callbacks = hostCallbacks;
    timeInfoMode = hostCallbacks != nullptr && hostCallbacks->asioMessage != nullptr &&
                   hostCallbacks->asioMessage(kAsioSupportsTimeInfo, 0, nullptr, nullptr) != 0;
    // Asked only when the setting wants the message: without it the host
    // hears nothing else from the driver.
    resetSupported =
        settings.resetOnLoss && hostCallbacks != nullptr && hostCallbacks->asioMessage != nullptr &&
        hostCallbacks->asioMessage(kAsioSelectorSupported, kAsioResetRequest, nullptr, nullptr) != 0;
    if (settings.resetOnLoss && !resetSupported)
        NORVA::LogLine(4) << "ResetOnLoss: the host doesn't take kAsioResetRequest";
    if (timeInfoMode) {
        asioTime = ASIOTime{};
        asioTime.timeInfo.speed = 1.0;
        asioTime.timeInfo.sampleRate = sampleRate;
        asioTime.timeInfo.flags = kSystemTimeValid | kSamplePositionValid | kSampleRateValid | kSpeedValid;
        asioTime.timeCode.speed = 1.0;
        asioTime.timeCode.flags = kTcRunning | kTcSpeedValid | (timeCodeRead ? std::uint32_t(kTcValid) : 0u);
    }
    NORVA::LogLine(6) << "createBuffer done " << bufferBytes << "byte x " << settings.syncBufferCount;
    return ASE_OK;
}

ASIOError ASIO_METHOD AsioVelmora::disposeBuffers() {
    NORVA::LogLine(6) << "disposeBuffers";
    releaseBuffers();
    return ASE_OK;
}

void AsioVelmora::releaseBuffers() {
    // The bridge sees no host from here on; stop() joins it before the
    // blocks go.
    callbacks = nullptr;
    stop();
    for (auto& block : channelBuffers) block.reset();
    activeChannels = 0;
}

ASIOError ASIO_METHOD AsioVelmora::future(AsioLong selector, void* opt) {
    NORVA::LogLine(6) << "future " << selector;
    auto* format = static_cast<ASIOIoFormat*>(opt);
    switch (selector) {
        case kAsioEnableTimeCodeRead:
            timeCodeRead = true;
            return ASE_SUCCESS;
        case kAsioDisableTimeCodeRead:
            timeCodeRead = false;
            return ASE_SUCCESS;
        case kAsioSetInputMonitor:
        case kAsioCanInputMonitor:
        case kAsioCanTimeInfo:
        case kAsioCanTimeCode:
            return ASE_SUCCESS;
        case kAsioSetIoFormat:
            if (format == nullptr) return ASE_InvalidParameter;
            dsdMode = format->FormatType == kASIODSDFormat;
            NORVA::LogLine(6) << "kAsioSetIoFormat " << (dsdMode ? "DSD" : "PCM");
            return ASE_SUCCESS;
        case kAsioGetIoFormat:
            if (format == nullptr) return ASE_InvalidParameter;
            format->FormatType = dsdMode ? kASIODSDFormat : kASIOPCMFormat;
            return ASE_SUCCESS;
        case kAsioCanDoIoFormat: {
            if (format == nullptr) return ASE_InvalidParameter;
            const VELMORA::SinkFormats& sink = sync.format.sink;
            if (format->FormatType == kASIODSDFormat && sink.dsdLsb.value == 0 && sink.dsdMsb.value == 0)
                return ASE_NotPresent;
            if (format->FormatType == kASIOPCMFormat && sink.pcm.value == 0) return ASE_NotPresent;
            return ASE_SUCCESS;
        }
        default:
            return ASE_NotPresent;
    }
}

ASIOError ASIO_METHOD AsioVelmora::outputReady() {
    // The host manages without that optimisation.
    return ASE_NotPresent;
}
