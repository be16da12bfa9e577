#include <algorithm>
#include <cstring>
#include <iterator>
#include <vector>

#include "Discovery/Find.h"
#include "Protocol/MessageTypes.h"
#include "System/Log.h"

namespace VELMORA {

namespace {

constexpr std::uint16_t iconCount = 8;
// An icon is a picture for a list: 1024 x 1024 is far beyond any, and
// keeps what a target's answer can make us allocate at 4 MB.
constexpr std::uint32_t maxIconPixels = 1024 * 1024;
// Pixel forms: 1 is 32-bit pixels, 2 alpha values only.
constexpr std::uint16_t pixelsOfAlpha = 2;
// A request for several rows aims at an answer of this many bytes or more,
// and never above the upper bound.
constexpr std::uint32_t rowsAnswerAim = 1200;
constexpr std::uint32_t rowsAnswerBound = 1400;

// For each wanted icon, the icons tried, in order: the same size first,
// then the nearest others.
constexpr std::uint16_t fallbackOrder[iconCount][4] = {
    {1, 2, 3, 4}, {2, 1, 4, 3}, {3, 1, 4, 2}, {4, 3, 2, 1},
    {5, 6, 7, 8}, {6, 5, 8, 7}, {7, 5, 8, 6}, {8, 7, 6, 5},
};

bool iconRequestType(std::uint16_t set, std::uint16_t& type) {
    static constexpr std::uint16_t types[] = {MessageType::ICON_REQ, MessageType::ICON1_REQ,
                                              MessageType::ICON2_REQ};
    if (set >= std::size(types)) return false;
    type = types[set];
    return true;
}

// Rows fetched in one request: several narrow rows at once, or 0 to let
// the target send what fits of one.
std::uint32_t rowsPerRequest(std::uint32_t rowBytes) {
    if (rowBytes >= rowsAnswerAim) return 0;
    std::uint32_t rows = std::max<std::uint32_t>(2, (rowsAnswerAim + rowBytes - 1) / rowBytes);
    if (rows * rowBytes > rowsAnswerBound) --rows;
    return rows <= 1 || rows * rowBytes > rowsAnswerBound ? 0 : rows;
}

}  // namespace

bool Find::readIcon(const NORVA::IPAddress& address, std::uint32_t choice, TargetIcon& icon,
                    std::uint16_t wantedWidth) {
    auto wanted = static_cast<std::uint16_t>(choice);
    auto set = static_cast<std::uint16_t>(choice >> 16);
    icon = TargetIcon();
    if (wanted < 1 || wanted > iconCount) return true;
    std::uint16_t found = 0;
    if (!readIconByOrder(address, set, wanted, icon, found)) return false;
    // An even icon is the larger of a pair; one that is only a little
    // larger than wanted loses to the odd list's choice.
    bool evenNearMiss = wanted % 2 == 0 && found % 2 == 0 && found != 0 && icon.width != wantedWidth &&
                        2 * icon.width < 3 * wantedWidth;
    if (evenNearMiss)
        return readIconByOrder(address, set, static_cast<std::uint16_t>(wanted - 1), icon, found);
    return true;
}

bool Find::readIconByOrder(const NORVA::IPAddress& address, std::uint16_t set, std::uint16_t wanted,
                           TargetIcon& icon, std::uint16_t& found) {
    found = 0;
    for (std::uint16_t number : fallbackOrder[wanted - 1]) {
        if (!readIconNumber(address, set, number, icon)) return false;
        if (!icon.pixels.empty()) {
            found = number;
            return true;
        }
    }
    return true;
}

bool Find::readIconNumber(const NORVA::IPAddress& address, std::uint16_t set, std::uint16_t number,
                          TargetIcon& icon) {
    icon = TargetIcon();
    std::uint16_t type = 0;
    if (!iconRequestType(set, type)) return false;
    ConnectionBuffer answer(*socket);
    if (!ask(address, type, number, 0, 0, 0, answer)) return false;
    std::uint16_t width = answer.param1();
    std::uint16_t height = answer.param2();
    std::uint16_t form = answer.param3();
    if (answer.isEmpty() || width == 0 || height == 0 || form > pixelsOfAlpha) return true;
    if (std::uint32_t{width} * height > maxIconPixels) {
        NORVA::LogLine(3) << "Find icon " << number << " too large: " << width << "x" << height;
        return true;
    }

    bool alphaOnly = form == pixelsOfAlpha;
    std::uint32_t pixelBytes = alphaOnly ? 1 : 4;
    std::uint32_t total = std::uint32_t{width} * height;
    std::uint32_t rows = rowsPerRequest(width * pixelBytes);
    std::vector<std::uint32_t> pixels(total);
    for (std::uint32_t at = 0; at < total;) {
        std::uint32_t x = at % width;
        std::uint32_t y = at / width;
        std::uint32_t wantedPixels = 0;
        if (x == 0 && rows != 0) wantedPixels = std::min(rows, height - y) * width + 1;
        if (!ask(address, type, number, static_cast<std::uint16_t>(x + 1), static_cast<std::uint16_t>(y + 1),
                 static_cast<std::uint16_t>(wantedPixels), answer)) {
            return false;
        }
        if (answer.isEmpty()) return true;
        std::uint32_t size = answer.bodySize();
        std::uint32_t count = size / pixelBytes;
        if (size % pixelBytes != 0 || count > total - at) return false;
        // A target that sends nothing would never let the read end.
        if (count == 0) return true;
        const std::uint8_t* body = answer.body();
        for (std::uint32_t i = 0; i < count; ++i) {
            if (alphaOnly) {
                pixels[at + i] = std::uint32_t{body[i]} << 24;
            } else {
                std::memcpy(&pixels[at + i], body + 4 * i, 4);
            }
        }
        at += count;
    }
    icon.alphaOnly = alphaOnly;
    icon.width = width;
    icon.pixels = std::move(pixels);
    return true;
}

}  // namespace VELMORA
