#include "asio_velmora_ext.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "Settings.h"
#include "asio_velmora.h"
#include "platform/DriverPlatform.h"

namespace {

// Copies what fits of `value` with a NUL and answers its whole length.
std::uint32_t giveText(const std::string& value, char* text, std::uint32_t size) {
    if (text != nullptr && size > 0) {
        std::size_t length = std::min<std::size_t>(value.size(), size - 1);
        std::memcpy(text, value.data(), length);
        text[length] = '\0';
    }
    return std::uint32_t(value.size());
}

constexpr const char* companyName = "quintessarola";
constexpr std::size_t companyLength = 13;

}  // namespace

asio_velmora_find::asio_velmora_find(std::string vendor)
    : product(AsioVelmora::productId),
      folderName(AsioVelmora::productName),
      vendorWord(std::move(vendor)),
      versionText(AsioVelmora::versionText) {
    // The same rule as init's: a first FindID of 0 accepts every product.
    if (AsioVelmora::findIds[0] != 0) {
        filterId = product;
        for (const std::uint64_t* id = AsioVelmora::findIds; *id != ~std::uint64_t(0); ++id)
            ids.push_back(*id);
    }
    for (int i = 0; i < 8; ++i) productWord[i] = char(product >> (8 * i));
}

void ASIO_METHOD asio_velmora_find::destroy() {
    delete this;
}

std::uint32_t ASIO_METHOD asio_velmora_find::settingPath(char* text, std::uint32_t size) {
    return giveText(userSettingPath(DriverPlatform::userDataFolder()), text, size);
}

std::uint32_t ASIO_METHOD asio_velmora_find::settingOrgPath(char* text, std::uint32_t size) {
    // The tool lies beside the library, so its own folder holds the reference copy.
    return giveText(DriverPlatform::programDirectory() + "setting_org.inf", text, size);
}

std::uint32_t ASIO_METHOD asio_velmora_find::findIdList(std::uint64_t* list, std::uint32_t capacity) {
    if (list != nullptr) std::copy_n(ids.begin(), std::min<std::size_t>(ids.size(), capacity), list);
    return std::uint32_t(ids.size());
}

std::uint64_t ASIO_METHOD asio_velmora_find::findId() {
    return filterId;
}

std::uint64_t ASIO_METHOD asio_velmora_find::productId() {
    return product;
}

std::uint32_t ASIO_METHOD asio_velmora_find::assetPath(char* text, std::uint32_t size) {
    return giveText(assetPathText(), text, size);
}

std::uint32_t ASIO_METHOD asio_velmora_find::assetName(char* text, std::uint32_t size) {
    return giveText(assetNameText(), text, size);
}

std::string asio_velmora_find::vendorSuffix() const {
    // The character after the company name separates; it is skipped whatever it is.
    return vendorWord.size() > companyLength + 1 ? vendorWord.substr(companyLength + 1) : std::string();
}

std::string asio_velmora_find::assetPathText() const {
    if (vendorWord == "Velmora") return std::string(companyName) + "/Velmora/asio_sync";
    if (vendorWord.compare(0, companyLength, companyName) != 0) return vendorWord;
    std::string path = std::string(companyName) + "/" + std::string(productWord, 8) + "/asio_sync";
    if (std::string suffix = vendorSuffix(); !suffix.empty()) path += "_" + suffix;
    return path + "/";
}

std::string asio_velmora_find::assetNameText() const {
    if (vendorWord == "Velmora") return "Velmora_ASIO_" + versionText;
    if (vendorWord.compare(0, companyLength, companyName) != 0) return versionText;
    std::string name = std::string(productWord, 8) + "_ASIO_";
    if (std::string suffix = vendorSuffix(); !suffix.empty()) name += suffix + "_";
    return name + versionText;
}

extern "C" VELMORA::asio_velmora_find_call* WINAPI DllVelmorafind() {
    // No exception may cross into the calling program.
    try {
        return new asio_velmora_find();
    } catch (...) {
        return nullptr;
    }
}
