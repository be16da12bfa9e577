// The driver object a host creates through COM and talks to through IASIO.
//
// This build has the object's face, its settings and its life; target
// discovery and the stream are not part of it yet, so init() and the
// transport operations answer that they are not available.
#pragma once

#include <cstdint>
#include <string>

#include "ComServer.h"
#include "LocalService.h"
#include "Settings.h"
#include "asio/Asio.h"

// The 64-bit ProductID: the brand word's eight characters, the first in the
// lowest byte; all ones for a shorter word.
constexpr std::uint64_t makeProductId(const char* word) {
    std::uint64_t id = 0;
    for (int i = 0; i < 8; ++i) {
        if (word[i] == '\0') return ~std::uint64_t(0);
        id |= std::uint64_t(std::uint8_t(word[i])) << (8 * i);
    }
    return id;
}

class AsioVelmora : public IASIO, public CUnknown {
  public:
    static constexpr std::uint64_t productId = makeProductId("KESTRANE");
    // Target ProductIDs discovery accepts, ended by all ones; a first entry
    // of 0 accepts every target.
    static constexpr std::uint64_t findIds[] = {0, ~std::uint64_t(0)};
    static constexpr const char* productName = "KESTRANE Velmora";
    static constexpr const char* configToolName = "velmora_asio_configura.exe";
    // The host's ASIODriverInfo::errorMessage holds 124 bytes.
    static constexpr std::size_t errorTextSize = 124;

    // `outer` is the aggregating object or null; `result` is left alone.
    AsioVelmora(IUnknown* outer, HRESULT* result);
    ~AsioVelmora() override;

    // IUnknown, forwarded to the owner.
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override;
    ULONG STDMETHODCALLTYPE AddRef() override;
    ULONG STDMETHODCALLTYPE Release() override;

    // The driver's identifier gives IASIO, IUnknown the inner unknown.
    HRESULT STDMETHODCALLTYPE NonDelegatingQueryInterface(REFIID iid, void** out) override;

    ASIOBool ASIO_METHOD init(void* sysHandle) override;
    void ASIO_METHOD getDriverName(char* name) override;
    AsioLong ASIO_METHOD getDriverVersion() override;
    void ASIO_METHOD getErrorMessage(char* text) override;
    ASIOError ASIO_METHOD start() override;
    ASIOError ASIO_METHOD stop() override;
    ASIOError ASIO_METHOD getChannels(AsioLong* numInputChannels, AsioLong* numOutputChannels) override;
    ASIOError ASIO_METHOD getLatencies(AsioLong* inputLatency, AsioLong* outputLatency) override;
    ASIOError ASIO_METHOD getBufferSize(AsioLong* minSize, AsioLong* maxSize, AsioLong* preferredSize,
                                        AsioLong* granularity) override;
    ASIOError ASIO_METHOD canSampleRate(ASIOSampleRate rate) override;
    ASIOError ASIO_METHOD getSampleRate(ASIOSampleRate* rate) override;
    ASIOError ASIO_METHOD setSampleRate(ASIOSampleRate rate) override;
    ASIOError ASIO_METHOD getClockSources(ASIOClockSource* clocks, AsioLong* numSources) override;
    ASIOError ASIO_METHOD setClockSource(AsioLong reference) override;
    ASIOError ASIO_METHOD getSamplePosition(ASIOSamples* position, ASIOTimeStamp* timeStamp) override;
    ASIOError ASIO_METHOD getChannelInfo(ASIOChannelInfo* info) override;
    ASIOError ASIO_METHOD createBuffers(ASIOBufferInfo* bufferInfos, AsioLong numChannels,
                                        AsioLong bufferSize, ASIOCallbacks* callbacks) override;
    ASIOError ASIO_METHOD disposeBuffers() override;
    // Runs the configuration tool and waits for it; if it changed the
    // settings file, reads it again and runs init() again.
    ASIOError ASIO_METHOD controlPanel() override;
    ASIOError ASIO_METHOD future(AsioLong selector, void* opt) override;
    ASIOError ASIO_METHOD outputReady() override;

    // Reads `settingPath` into `settings`; false leaves the defaults.
    bool loadSettings();

    std::string driverName;  // the chosen target's name; empty until init() succeeds
    DriverSettings settings;
    std::string settingPath;  // the settings file in force
    std::string referencePath;
    std::string configToolPath;
    void* sysHandle = nullptr;  // init()'s argument, kept for the init() of controlPanel()
    std::uint64_t samplePosition = 0;
    std::uint32_t sampleRate = 44100;
    ASIOCallbacks* callbacks = nullptr;
    AsioLong bufferBytes = 1024;
    AsioLong activeChannels = 0;
    AsioLong bufferIndex = 0;
    bool initialised = false;
    bool running = false;
    bool timeInfoMode = false;
    bool timeCodeRead = false;
    char errorText[errorTextSize] = {};

  private:
    // Writes the text for getErrorMessage(), logs it, and answers false.
    ASIOBool fail(const char* text);
    // Logs the operation's entry and answers that it isn't in this build.
    ASIOError notAvailable(const char* operation);
};

static_assert(AsioVelmora::productId != 0 && AsioVelmora::productId != ~std::uint64_t(0));

// The creation function of the factory's template entry: the object's
// CUnknown part, or null.
CUnknown* createAsioVelmora(IUnknown* outer, HRESULT* result);
