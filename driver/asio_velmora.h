// The driver object a host creates through COM and talks to through IASIO.
//
// init() finds the target and reads what its sink takes; createBuffers()
// makes the host's double buffers; start() plans and connects the stream,
// whose buffer worker then calls the host and interleaves its buffers into
// the ring.
//
// The class has no lock. The buffer worker shares running, callbacks,
// bufferIndex, samplePosition, asioTime and the buffers with the control
// thread; the order of start, stop and disposeBuffers keeps that safe:
// everything is set before connect() starts the worker, and stop() joins it
// before anything is freed.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "AudioBridge.h"
#include "ComServer.h"
#include "Discovery/Find.h"
#include "LocalService.h"
#include "Samples/SyncBuffer.h"
#include "Settings.h"
#include "asio/Asio.h"
#include "platform/CpuPlacement.h"

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

// The PCM format bit that init() takes from a sink's mask, and the bytes per
// sample of the host's buffers that go with it.
struct SampleChoice {
    std::uint64_t formatBit = 0;
    std::int32_t sampleWidth = 0;
};
// The first bit of `pcmMask` in the order that `pcmRequest` (bits per sample
// wanted) and `covertS32` (the host always writes 32-bit integers) give;
// nothing if the sink takes none of them.
std::optional<SampleChoice> chooseSampleFormat(std::uint64_t pcmMask, std::int32_t pcmRequest,
                                               bool covertS32);
// The output channels that a sink's mask offers: its highest channel bit
// counts; 0 without one.
std::int32_t channelCountOf(std::uint64_t pcmMask);

class AsioVelmora : public IASIO, public CUnknown {
  public:
    // The stream to the chosen sink; its buffer worker fills each free ring
    // slot through the driver's bridge.
    class Sync : public VELMORA::SyncBuffer {
      public:
        explicit Sync(AsioVelmora& driver) : owner(&driver) {}
        ~Sync() override { shutdown(); }
        void fillBuffer(VELMORA::StreamBuffer& slot, bool mark) override;

        AsioVelmora* owner;
    };

    static constexpr std::uint64_t productId = makeProductId("KESTRANE");
    // Target ProductIDs discovery accepts, ended by all ones; a first entry
    // of 0 accepts every target.
    static constexpr std::uint64_t findIds[] = {0, ~std::uint64_t(0)};
    static constexpr const char* productName = "KESTRANE Velmora";
    static constexpr const char* versionText = "3_148_9";
    static constexpr const char* configToolName = "velmora_asio_configura.exe";
    static constexpr std::size_t errorTextSize = 128;
    // A host hands getErrorMessage a buffer the size of its
    // ASIODriverInfo::errorMessage, 124 bytes; the text is cut to fit.
    static constexpr std::size_t hostErrorTextSize = 124;
    // Above this rate a stream is DSD, whatever the host chose.
    static constexpr std::uint32_t pcmRateLimit = 1536000;
    static constexpr AsioLong maxOutputs = 8;

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

    // One ring slot, on the buffer worker: calls the host for the next
    // buffer, then interleaves the half the host finished one call earlier.
    void bridge(VELMORA::StreamBuffer& slot);

    Sync sync{*this};
    std::string driverName;  // the chosen target's name; empty until init() succeeds
    DriverSettings settings;
    std::string settingPath;  // the settings file in force
    std::string referencePath;
    std::string configToolPath;
    void* sysHandle = nullptr;  // init()'s argument, kept for the init() of controlPanel()
    // Samples per channel handed to the ring since start().
    std::atomic<std::uint64_t> samplePosition{0};
    std::uint32_t sampleRate = 44100;
    // Null unless buffers exist; disposeBuffers() clears it while a stream may
    // still run, so that the bridge stops calling the host at once.
    std::atomic<ASIOCallbacks*> callbacks{nullptr};
    ASIOTime asioTime{};
    // One block of two halves per active channel, in the order of the host's
    // records.
    std::array<std::unique_ptr<std::uint8_t[]>, maxOutputs> channelBuffers;
    AsioLong bufferBytes = 1024;  // one half of a channel's block
    AsioLong activeChannels = 0;
    std::int32_t channelCount = 0;  // output channels of the sink, set by init()
    std::uint64_t formatMode = 0;   // the one PCM format bit init() chose
    std::int32_t sampleWidth = 0;   // bytes per sample in the host's buffers
    bool dsdMode = false;           // the host asked for DSD
    // The port targets answer control requests on; tests point it at a
    // responder of their own.
    std::uint16_t targetControlPort = VELMORA::Find::controlPort;
    AsioLong bufferIndex = 0;
    bool initialised = false;
    std::atomic<bool> running{false};
    bool timeInfoMode = false;
    // ResetOnLoss is on and the host takes kAsioResetRequest; set by
    // createBuffers().
    bool resetSupported = false;
    std::atomic<bool> timeCodeRead{false};
    char errorText[errorTextSize] = {};
    // Thread affinities that start() changed, to restore in stop().
    std::map<DriverPlatform::ThreadId, std::uint64_t> savedAffinity;
    std::thread startThread;
    NORVA::TimeValue startTime;  // the end of connect()

  private:
    // Logs `logged`, keeps `shown` for getErrorMessage(), and answers false.
    ASIOBool fail(const std::string& logged, const char* shown);
    VELMORA::FindSettings findSettings() const;
    // The sink to stream to: the configured address, else the first one
    // that discovery finds beyond this machine.
    ASIOBool chooseTarget(VELMORA::Find& find, NORVA::IPAddress& sink, VELMORA::TargetRecord& record);
    ASIOBool askTarget(VELMORA::Find& find, NORVA::IPAddress& sink, VELMORA::TargetRecord& record);
    ASIOBool discoverTarget(VELMORA::Find& find, NORVA::IPAddress& sink, VELMORA::TargetRecord& record);
    std::uint32_t pathMtu(VELMORA::Find& find, const NORVA::IPAddress& sink);
    ASIOBool takeSinkFormat();

    // start()'s steps.
    bool planTransfer(VELMORA::FormatID word, std::int32_t multi);
    bool planFixedByHostBuffer(VELMORA::FormatID word, std::int32_t multi);
    void logProfile();
    void placeProcess();
    void placeThreads();
    void revertThreads();
    void connectAndPlay();
    // Waits while the stream runs; a stream that ends before stop() asks the
    // host to reset the driver.
    void watchForLoss();
    static constexpr std::chrono::milliseconds lossWatchStep{100};
    // Ends a stream and frees the host's buffers.
    void releaseBuffers();

    // Fixed by start() for the bridge.
    BridgeForm bridgeForm = BridgeForm::copy4;
    std::uint32_t bridgeFrames = 0;
    std::uint64_t positionStep = 0;
};

static_assert(AsioVelmora::productId != 0 && AsioVelmora::productId != ~std::uint64_t(0));

// The creation function of the factory's template entry: the object's
// CUnknown part, or null.
CUnknown* createAsioVelmora(IUnknown* outer, HRESULT* result);
