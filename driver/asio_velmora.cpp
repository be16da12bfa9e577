#include "asio_velmora.h"

#include <algorithm>
#include <cstring>

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

constexpr const char* versionText = "3_148_9";

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
    return fail("init: target discovery and the stream are not available in this build");
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

ASIOBool AsioVelmora::fail(const char* text) {
    copyText(errorText, text, errorTextSize - 1);
    NORVA::LogLine(3) << text;
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
