#include "asio_velmora.h"

#include <algorithm>
#include <cstring>
#include <span>
#include <string>
#include <utility>

#include "Platform/Platform.h"
#include "System/InfFile.h"
#include "System/Log.h"
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
    find.extraTargets = settings.findAddresses;

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
    if (text != nullptr) std::memcpy(text, errorText, std::strlen(errorText) + 1);
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

// ---- Transport, channels and buffers ----------------------------------------------

ASIOError AsioVelmora::notAvailable(const char* operation) {
    NORVA::LogLine(6) << operation << ": not available in this build";
    return ASE_NotPresent;
}

ASIOError ASIO_METHOD AsioVelmora::start() {
    return notAvailable("start");
}

ASIOError ASIO_METHOD AsioVelmora::stop() {
    return notAvailable("stop");
}

ASIOError ASIO_METHOD AsioVelmora::getChannels(AsioLong*, AsioLong*) {
    return notAvailable("getCh");
}

ASIOError ASIO_METHOD AsioVelmora::getLatencies(AsioLong*, AsioLong*) {
    return notAvailable("getLatencies");
}

ASIOError ASIO_METHOD AsioVelmora::getBufferSize(AsioLong*, AsioLong*, AsioLong*, AsioLong*) {
    return notAvailable("getBufferSize");
}

ASIOError ASIO_METHOD AsioVelmora::canSampleRate(ASIOSampleRate) {
    return notAvailable("canSa");
}

ASIOError ASIO_METHOD AsioVelmora::getSampleRate(ASIOSampleRate*) {
    return notAvailable("getSa");
}

ASIOError ASIO_METHOD AsioVelmora::setSampleRate(ASIOSampleRate) {
    return notAvailable("SetSa");
}

ASIOError ASIO_METHOD AsioVelmora::getClockSources(ASIOClockSource*, AsioLong*) {
    return notAvailable("getCS");
}

ASIOError ASIO_METHOD AsioVelmora::setClockSource(AsioLong) {
    return notAvailable("setCS");
}

ASIOError ASIO_METHOD AsioVelmora::getSamplePosition(ASIOSamples*, ASIOTimeStamp*) {
    return notAvailable("getSamplePosition");
}

ASIOError ASIO_METHOD AsioVelmora::getChannelInfo(ASIOChannelInfo*) {
    return notAvailable("getChannelInfo");
}

ASIOError ASIO_METHOD AsioVelmora::createBuffers(ASIOBufferInfo*, AsioLong, AsioLong, ASIOCallbacks*) {
    return notAvailable("createBuffers");
}

ASIOError ASIO_METHOD AsioVelmora::disposeBuffers() {
    return notAvailable("disposeBuffers");
}

ASIOError ASIO_METHOD AsioVelmora::future(AsioLong, void*) {
    return notAvailable("future");
}

ASIOError ASIO_METHOD AsioVelmora::outputReady() {
    return notAvailable("outputReady");
}
