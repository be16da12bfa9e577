// Our declarations of the published ASIO driver interface, binary-compatible
// with hosts built against Steinberg's headers on 32-bit and 64-bit Windows.
//
// Layout rules a host depends on:
// - Windows' `long` is 32 bits on both targets; AsioLong keeps that width on
//   Linux too, so the records have one layout everywhere.
// - The records are packed to 4 bytes, as the hosts' headers pack them under
//   Microsoft's compiler: doubles inside them lie on 4-byte boundaries.
// - IASIO's own operations use the compiler's member convention (__thiscall
//   on i686); the three of IUnknown are __stdcall, as COM's. The callbacks
//   are plain C functions.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/Com.h"

#if defined(_WIN32) && defined(__i386__)
#define ASIO_METHOD __thiscall
#define ASIO_CALLBACK __cdecl
#else
#define ASIO_METHOD
#define ASIO_CALLBACK
#endif

using AsioLong = std::int32_t;
using ASIOBool = AsioLong;
using ASIOError = AsioLong;
using ASIOSampleType = AsioLong;
using ASIOSampleRate = double;

inline constexpr ASIOBool ASIOFalse = 0;
inline constexpr ASIOBool ASIOTrue = 1;

// Error codes.
enum : ASIOError {
    ASE_OK = 0,
    ASE_SUCCESS = 0x3f4847a0,  // answer of future() to a selector it handles
    ASE_NotPresent = -1000,
    ASE_HWMalfunction = -999,
    ASE_InvalidParameter = -998,
    ASE_InvalidMode = -997,
    ASE_SPNotAdvancing = -996,
    ASE_NoClock = -995,
    ASE_NoMemory = -994,
};

// Sample types of ASIOChannelInfo::type.
enum : ASIOSampleType {
    ASIOSTInt16MSB = 0,
    ASIOSTInt24MSB = 1,
    ASIOSTInt32MSB = 2,
    ASIOSTFloat32MSB = 3,
    ASIOSTFloat64MSB = 4,
    ASIOSTInt32MSB16 = 8,
    ASIOSTInt32MSB18 = 9,
    ASIOSTInt32MSB20 = 10,
    ASIOSTInt32MSB24 = 11,
    ASIOSTInt16LSB = 16,
    ASIOSTInt24LSB = 17,
    ASIOSTInt32LSB = 18,
    ASIOSTFloat32LSB = 19,
    ASIOSTFloat64LSB = 20,
    ASIOSTInt32LSB16 = 24,
    ASIOSTInt32LSB18 = 25,
    ASIOSTInt32LSB20 = 26,
    ASIOSTInt32LSB24 = 27,
    ASIOSTDSDInt8LSB1 = 32,
    ASIOSTDSDInt8MSB1 = 33,
    ASIOSTDSDInt8NER8 = 40,
};

// Selectors of IASIO::future.
enum : AsioLong {
    kAsioEnableTimeCodeRead = 1,
    kAsioDisableTimeCodeRead = 2,
    kAsioSetInputMonitor = 3,
    kAsioTransport = 4,
    kAsioSetInputGain = 5,
    kAsioGetInputMeter = 6,
    kAsioSetOutputGain = 7,
    kAsioGetOutputMeter = 8,
    kAsioCanInputMonitor = 9,
    kAsioCanTimeInfo = 10,
    kAsioCanTimeCode = 11,
    kAsioCanTransport = 12,
    kAsioCanInputGain = 13,
    kAsioCanInputMeter = 14,
    kAsioCanOutputGain = 15,
    kAsioCanOutputMeter = 16,
    kAsioOptionalOne = 17,
    kAsioSetIoFormat = 0x23111961,
    kAsioGetIoFormat = 0x23111983,
    kAsioCanDoIoFormat = 0x23112004,
    kAsioCanReportOverload = 0x24042012,
    kAsioGetInternalBufferSamples = 0x25042012,
    kAsioSupportsInputResampling = 0x26092017,
};

// Selectors of ASIOCallbacks::asioMessage.
enum : AsioLong {
    kAsioSelectorSupported = 1,
    kAsioEngineVersion = 2,
    kAsioResetRequest = 3,
    kAsioBufferSizeChange = 4,
    kAsioResyncRequest = 5,
    kAsioLatenciesChanged = 6,
    kAsioSupportsTimeInfo = 7,
    kAsioSupportsTimeCode = 8,
    kAsioMMCCommand = 9,
    kAsioSupportsInputMonitor = 10,
    kAsioSupportsInputGain = 11,
    kAsioSupportsInputMeter = 12,
    kAsioSupportsOutputGain = 13,
    kAsioSupportsOutputMeter = 14,
    kAsioOverload = 15,
};

// ASIOTimeInfo::flags.
enum : std::uint32_t {
    kSystemTimeValid = 1u << 0,
    kSamplePositionValid = 1u << 1,
    kSampleRateValid = 1u << 2,
    kSpeedValid = 1u << 3,
    kSampleRateChanged = 1u << 4,
    kClockSourceChanged = 1u << 5,
};

// ASIOTimeCode::flags.
enum : std::uint32_t {
    kTcValid = 1u << 0,
    kTcRunning = 1u << 1,
    kTcReverse = 1u << 2,
    kTcOnspeed = 1u << 3,
    kTcStill = 1u << 4,
    kTcSpeedValid = 1u << 8,
};

// ASIOIoFormat::FormatType.
enum ASIOIoFormatType : std::int32_t {
    kASIOFormatInvalid = -1,
    kASIOPCMFormat = 0,
    kASIODSDFormat = 1,
};

#pragma pack(push, 4)

// A 64-bit count in the two-word form the interface uses on Windows.
struct ASIOSamples {
    std::uint32_t hi;
    std::uint32_t lo;
};

// Nanoseconds, in the same two-word form.
struct ASIOTimeStamp {
    std::uint32_t hi;
    std::uint32_t lo;
};

struct ASIOTimeCode {
    double speed;
    ASIOSamples timeCodeSamples;
    std::uint32_t flags;
    char future[64];
};

struct ASIOTimeInfo {
    double speed;
    ASIOTimeStamp systemTime;
    ASIOSamples samplePosition;
    ASIOSampleRate sampleRate;
    std::uint32_t flags;
    char reserved[12];
};

struct ASIOTime {
    AsioLong reserved[4];
    ASIOTimeInfo timeInfo;
    ASIOTimeCode timeCode;
};

struct ASIOCallbacks {
    void(ASIO_CALLBACK* bufferSwitch)(AsioLong doubleBufferIndex, ASIOBool directProcess);
    void(ASIO_CALLBACK* sampleRateDidChange)(ASIOSampleRate rate);
    AsioLong(ASIO_CALLBACK* asioMessage)(AsioLong selector, AsioLong value, void* message, double* opt);
    ASIOTime*(ASIO_CALLBACK* bufferSwitchTimeInfo)(ASIOTime* params, AsioLong doubleBufferIndex,
                                                   ASIOBool directProcess);
};

struct ASIOClockSource {
    AsioLong index;
    AsioLong associatedChannel;
    AsioLong associatedGroup;
    ASIOBool isCurrentSource;
    char name[32];
};

struct ASIOChannelInfo {
    AsioLong channel;
    ASIOBool isInput;
    ASIOBool isActive;
    AsioLong channelGroup;
    ASIOSampleType type;
    char name[32];
};

struct ASIOBufferInfo {
    ASIOBool isInput;
    AsioLong channelNum;
    void* buffers[2];
};

struct ASIOIoFormat {
    ASIOIoFormatType FormatType;
    char future[512 - sizeof(ASIOIoFormatType)];
};

#pragma pack(pop)

// The driver object as a host sees it. The slot order is the interface;
// never add, move or overload an operation, and never give it a destructor.
class IASIO : public IUnknown {
  public:
    virtual ASIOBool ASIO_METHOD init(void* sysHandle) = 0;
    virtual void ASIO_METHOD getDriverName(char* name) = 0;
    virtual AsioLong ASIO_METHOD getDriverVersion() = 0;
    virtual void ASIO_METHOD getErrorMessage(char* text) = 0;
    virtual ASIOError ASIO_METHOD start() = 0;
    virtual ASIOError ASIO_METHOD stop() = 0;
    virtual ASIOError ASIO_METHOD getChannels(AsioLong* numInputChannels, AsioLong* numOutputChannels) = 0;
    virtual ASIOError ASIO_METHOD getLatencies(AsioLong* inputLatency, AsioLong* outputLatency) = 0;
    virtual ASIOError ASIO_METHOD getBufferSize(AsioLong* minSize, AsioLong* maxSize, AsioLong* preferredSize,
                                                AsioLong* granularity) = 0;
    virtual ASIOError ASIO_METHOD canSampleRate(ASIOSampleRate rate) = 0;
    virtual ASIOError ASIO_METHOD getSampleRate(ASIOSampleRate* rate) = 0;
    virtual ASIOError ASIO_METHOD setSampleRate(ASIOSampleRate rate) = 0;
    virtual ASIOError ASIO_METHOD getClockSources(ASIOClockSource* clocks, AsioLong* numSources) = 0;
    virtual ASIOError ASIO_METHOD setClockSource(AsioLong reference) = 0;
    virtual ASIOError ASIO_METHOD getSamplePosition(ASIOSamples* position, ASIOTimeStamp* timeStamp) = 0;
    virtual ASIOError ASIO_METHOD getChannelInfo(ASIOChannelInfo* info) = 0;
    virtual ASIOError ASIO_METHOD createBuffers(ASIOBufferInfo* bufferInfos, AsioLong numChannels,
                                                AsioLong bufferSize, ASIOCallbacks* callbacks) = 0;
    virtual ASIOError ASIO_METHOD disposeBuffers() = 0;
    virtual ASIOError ASIO_METHOD controlPanel() = 0;
    virtual ASIOError ASIO_METHOD future(AsioLong selector, void* opt) = 0;
    virtual ASIOError ASIO_METHOD outputReady() = 0;
};

// ---- What hosts rely on: sizes and offsets on both Windows targets ----------

static_assert(sizeof(AsioLong) == 4 && sizeof(ASIOSampleRate) == 8);
static_assert(sizeof(ASIOIoFormatType) == 4);

static_assert(sizeof(ASIOSamples) == 8 && offsetof(ASIOSamples, lo) == 4);
static_assert(sizeof(ASIOTimeStamp) == 8 && offsetof(ASIOTimeStamp, lo) == 4);

static_assert(sizeof(ASIOTimeCode) == 84);
static_assert(offsetof(ASIOTimeCode, timeCodeSamples) == 8);
static_assert(offsetof(ASIOTimeCode, flags) == 16);
static_assert(offsetof(ASIOTimeCode, future) == 20);

static_assert(sizeof(ASIOTimeInfo) == 48);
static_assert(offsetof(ASIOTimeInfo, systemTime) == 8);
static_assert(offsetof(ASIOTimeInfo, samplePosition) == 16);
static_assert(offsetof(ASIOTimeInfo, sampleRate) == 24);
static_assert(offsetof(ASIOTimeInfo, flags) == 32);
static_assert(offsetof(ASIOTimeInfo, reserved) == 36);

static_assert(sizeof(ASIOTime) == 148);
static_assert(offsetof(ASIOTime, timeInfo) == 16);
static_assert(offsetof(ASIOTime, timeCode) == 64);

static_assert(sizeof(ASIOClockSource) == 48);
static_assert(offsetof(ASIOClockSource, associatedChannel) == 4);
static_assert(offsetof(ASIOClockSource, associatedGroup) == 8);
static_assert(offsetof(ASIOClockSource, isCurrentSource) == 12);
static_assert(offsetof(ASIOClockSource, name) == 16);

static_assert(sizeof(ASIOChannelInfo) == 52);
static_assert(offsetof(ASIOChannelInfo, isInput) == 4);
static_assert(offsetof(ASIOChannelInfo, isActive) == 8);
static_assert(offsetof(ASIOChannelInfo, channelGroup) == 12);
static_assert(offsetof(ASIOChannelInfo, type) == 16);
static_assert(offsetof(ASIOChannelInfo, name) == 20);

static_assert(sizeof(ASIOIoFormat) == 512 && offsetof(ASIOIoFormat, future) == 4);

// Pointer-sized members: 4 bytes on i686, 8 on x86_64, with no padding
// under 4-byte packing either way.
inline constexpr std::size_t asioPointerSize = sizeof(void*);
static_assert(asioPointerSize == 4 || asioPointerSize == 8);

static_assert(sizeof(ASIOBufferInfo) == 8 + 2 * asioPointerSize);
static_assert(offsetof(ASIOBufferInfo, channelNum) == 4);
static_assert(offsetof(ASIOBufferInfo, buffers) == 8);

static_assert(sizeof(ASIOCallbacks) == 4 * asioPointerSize);
static_assert(offsetof(ASIOCallbacks, sampleRateDidChange) == 1 * asioPointerSize);
static_assert(offsetof(ASIOCallbacks, asioMessage) == 2 * asioPointerSize);
static_assert(offsetof(ASIOCallbacks, bufferSwitchTimeInfo) == 3 * asioPointerSize);

// A host calls through a bare vtable pointer at the object's start.
static_assert(sizeof(IASIO) == asioPointerSize);
