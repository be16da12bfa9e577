#include "Format/FormatNegotiation.h"

#include <algorithm>
#include <bit>

#include "System/Log.h"

namespace VELMORA {

namespace {

bool hasWord32(FormatID mask) {
    return (mask.low() & FormatID::dsdWord32) != 0;
}

// What a row asks of the sink mask it uses: whether that mask has the word
// order that would spare the byte swap.
enum class MaskTest { any, hasBig, lacksBig, hasLittle, lacksLittle };
using enum MaskTest;

bool passes(MaskTest test, FormatID mask) {
    bool big = (mask.low() & FormatID::dsdBigEndian) != 0;
    bool little = (mask.low() & FormatID::dsdLittleEndian) != 0;
    switch (test) {
        case MaskTest::hasBig:
            return big;
        case MaskTest::lacksBig:
            return !big;
        case MaskTest::hasLittle:
            return little;
        case MaskTest::lacksLittle:
            return !little;
        default:
            return true;
    }
}

// One row of the DSD conversion table: source bit order, the bit order of
// the sink mask used, source word order, and the test on that mask.
struct Conversion {
    bool sourceLsb;
    bool sinkLsb;
    bool sourceLittle;
    MaskTest test;
    const char* text;
    std::uint32_t target;
    KernelForm form;
};

constexpr std::uint32_t lsbLittle = 0x2510000;
constexpr std::uint32_t lsbBig = 0x2910000;
constexpr std::uint32_t msbLittle = 0x2610000;
constexpr std::uint32_t msbBig = 0x2A10000;
constexpr bool lsb = true, msb = false, little = true, big = false;

// clang-format off
constexpr Conversion conversions[] = {
    {lsb, lsb, little, any,         "DSD COVERT LSB little -> LSB Big",      lsbBig,    KernelForm::swap},
    {lsb, lsb, big,    any,         "DSD COVERT LSB Big -> LSB little",      lsbLittle, KernelForm::swap},
    {lsb, msb, little, hasBig,      "DSD COVERT LSB little -> MSB Big",      msbBig,    KernelForm::reverse},
    {lsb, msb, little, lacksBig,    "DSD COVERT LSB little -> MSB little",   msbLittle, KernelForm::reverseSwap},
    {lsb, msb, big,    hasLittle,   "DSD COVERT LSB Big -> MSB little",      msbLittle, KernelForm::reverse},
    {lsb, msb, big,    lacksLittle, "DSD COVERT LSB Big -> MSB Big",         msbBig,    KernelForm::reverseSwap},
    {msb, msb, little, any,         "DSD COVERT MSB littele -> MSB Big",     msbBig,    KernelForm::swap},
    {msb, msb, big,    any,         "DSD COVERT MSB Big -> MSB littele",     msbLittle, KernelForm::swap},
    {msb, lsb, little, hasBig,      "DSD COVERT MSB littele -> LSB Big",     lsbBig,    KernelForm::reverse},
    {msb, lsb, little, lacksBig,    "DSD COVERT MSB littele -> LSB littele", lsbLittle, KernelForm::reverseSwap},
    {msb, lsb, big,    hasLittle,   "DSD COVERT MSB Big -> LSB littele",     lsbLittle, KernelForm::reverse},
    {msb, lsb, big,    lacksLittle, "DSD COVERT MSB Big -> LSB Big",         lsbBig,    KernelForm::reverseSwap},
};
// clang-format on

// Every combination has exactly one row.
const Conversion& findConversion(bool sourceLsb, bool sinkLsb, bool sourceLittle, FormatID mask) {
    for (const Conversion& row : conversions) {
        if (row.sourceLsb == sourceLsb && row.sinkLsb == sinkLsb && row.sourceLittle == sourceLittle &&
            passes(row.test, mask)) {
            return row;
        }
    }
    return conversions[0];
}

std::uint32_t unitMeasure(FormatID mask, bool withMultiplier) {
    std::uint64_t measure = std::uint64_t{mask.greatestBits()} * mask.greatestChannels();
    if (withMultiplier) measure *= mask.leastMultiplier();
    return static_cast<std::uint32_t>(measure / 8);
}

// Calls `use` with the measure of each mask that isn't 0, and logs it.
template <typename Use>
void forEachMeasure(const SinkFormats& sink, bool withMultiplier, Use use) {
    struct Named {
        const char* name;
        FormatID mask;
    };
    const Named masks[] = {{"sinkSupportPCM=", sink.pcm},
                           {"sinkSupportDSDlsb=", sink.dsdLsb},
                           {"sinkSupportDSDmsb=", sink.dsdMsb}};
    for (const Named& entry : masks) {
        if (entry.mask.value == 0) continue;
        std::uint32_t measure = unitMeasure(entry.mask, withMultiplier);
        NORVA::LogLine(6) << entry.name << entry.mask.value << " si=" << measure;
        use(measure);
    }
}

}  // namespace

bool SinkFormats::isSupported(FormatID word) const {
    std::uint32_t low = word.low();
    FormatID mask;
    if ((low & FormatID::pcmMask) != 0) {
        mask = pcm;
    } else if ((low & FormatID::dsdMask) == 0) {
        return false;
    } else if ((low & FormatID::dsdLsbFirst) != 0) {
        mask = dsdLsb;
    } else if ((low & FormatID::dsdMsbFirst) != 0) {
        mask = dsdMsb;
    } else {
        mask = dsdLsb.value | dsdMsb.value;
    }
    return (word.value & mask.value) == word.value;
}

std::uint32_t SinkFormats::unitLeast() const {
    std::uint32_t least = UINT32_MAX;
    forEachMeasure(*this, true, [&](std::uint32_t measure) {
        if (measure != 0) least = std::min(least, measure);
    });
    return least;
}

std::uint32_t SinkFormats::unitGreatest() const {
    std::uint32_t greatest = 0;
    forEachMeasure(*this, false, [&](std::uint32_t measure) { greatest = std::max(greatest, measure); });
    return greatest;
}

FormatChoice chooseFormat(FormatID source, const SinkFormats& sink) {
    FormatChoice choice;
    if (sink.isSupported(source)) {
        choice.accepted = true;
        choice.streamFormat = source;
        return choice;
    }
    std::uint32_t sampleForm = source.low() & FormatID::sampleMask;
    if (sampleForm != FormatID::dsdOneBit && sampleForm != FormatID::dsdFourBit) return choice;
    if (((sink.dsdLsb.low() | sink.dsdMsb.low()) & FormatID::dsdOneBit) == 0) return choice;
    if (source.bytesPerSample() != 4) return choice;

    bool sourceLsb = (source.low() & FormatID::dsdLsbFirst) != 0;
    const FormatID& ownOrder = sourceLsb ? sink.dsdLsb : sink.dsdMsb;
    const FormatID& otherOrder = sourceLsb ? sink.dsdMsb : sink.dsdLsb;
    bool sinkLsb = hasWord32(ownOrder) ? sourceLsb : !sourceLsb;
    const FormatID& mask = hasWord32(ownOrder) ? ownOrder : otherOrder;
    if (!hasWord32(mask)) return choice;

    bool sourceLittle = (source.low() & FormatID::dsdLittleEndian) != 0;
    const Conversion& row = findConversion(sourceLsb, sinkLsb, sourceLittle, mask);
    choice.conversion = row.text;
    FormatID converted = source;
    converted.replace(row.target, 0);
    if (!sink.isSupported(converted)) return choice;
    choice.accepted = true;
    choice.streamFormat = converted;
    choice.form = row.form;
    return choice;
}

bool isValidStream(FormatID word) {
    std::uint32_t low = word.low();
    std::uint32_t channels = low & FormatID::channelMask;
    if (!std::has_single_bit(channels) || channels > 0x20) return false;
    std::uint32_t form = low & FormatID::sampleMask;
    std::uint32_t upper = low & 0xFFF00000;
    if ((form & FormatID::pcmMask) == form && std::has_single_bit(form) && form <= 0x4000) return upper == 0;
    if (form != FormatID::dsdOneBit && form != FormatID::dsdFourBit) return false;
    bool oneBitOrder = std::has_single_bit(low & (FormatID::dsdLsbFirst | FormatID::dsdMsbFirst));
    bool oneWordOrder = std::has_single_bit(low & (FormatID::dsdLittleEndian | FormatID::dsdBigEndian));
    bool word32 = (low & FormatID::wordSizeMask) == FormatID::dsdWord32;
    return oneBitOrder && oneWordOrder && word32 && word.rate() >= 2822400;
}

bool FormatNegotiation::setFormat(FormatID word) {
    FormatChoice choice = chooseFormat(word, sink);
    if (choice.conversion != nullptr) NORVA::LogLine(6) << choice.conversion;
    if (!choice.accepted) return false;
    sourceFormat = word;
    streamFormat = choice.streamFormat;
    form = choice.form;
    copyKernel = kernelFor(form, false);
    return true;
}

void FormatNegotiation::applyPhase(bool sinkInvert) {
    playInvert = hostInvert != sinkInvert;
    NORVA::LogLine(6) << "Host Phase " << (hostInvert ? "Invert" : "Normal");
    NORVA::LogLine(6) << "Play Phase " << (playInvert ? "Invert" : "Normal");
    copyKernel = kernelFor(form, playInvert);
}

std::uint8_t FormatNegotiation::silenceByte() const {
    std::uint8_t mute = streamFormat.muteByte();
    return playInvert ? static_cast<std::uint8_t>(~mute) : mute;
}

}  // namespace VELMORA
