// The finder export: what the configuration tool, a program of its own that
// loads this library, asks of it: where the settings lie, which products
// count, and the names of this driver's files.
//
// The interface crosses a boundary between separately built programs, so it
// holds nothing that depends on a compiler's runtime: no standard strings or
// containers, no virtual destructor (whose vtable slots differ between
// compilers), only plain buffers, fixed-width integers and one calling
// convention. A text call copies as much as fits into `text` (`size` bytes,
// NUL included) and answers the whole text's length without the NUL, so a
// caller can size its buffer and ask again. The caller frees the object
// through destroy() before it unloads the library.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "asio/Asio.h"

namespace VELMORA {

class asio_velmora_find_call {
  public:
    virtual void ASIO_METHOD destroy() = 0;
    virtual std::uint32_t ASIO_METHOD settingPath(char* text, std::uint32_t size) = 0;
    virtual std::uint32_t ASIO_METHOD settingOrgPath(char* text, std::uint32_t size) = 0;
    // Copies at most `capacity` ids and answers how many there are.
    virtual std::uint32_t ASIO_METHOD findIdList(std::uint64_t* ids, std::uint32_t capacity) = 0;
    virtual std::uint64_t ASIO_METHOD findId() = 0;
    virtual std::uint64_t ASIO_METHOD productId() = 0;
    virtual std::uint32_t ASIO_METHOD assetPath(char* text, std::uint32_t size) = 0;
    virtual std::uint32_t ASIO_METHOD assetName(char* text, std::uint32_t size) = 0;

  protected:
    ~asio_velmora_find_call() = default;
};

}  // namespace VELMORA

// The answering object; it holds no pointer into a driver object.
class asio_velmora_find final : public VELMORA::asio_velmora_find_call {
  public:
    static constexpr const char* defaultVendorWord = "quintessarola";

    explicit asio_velmora_find(std::string vendorWord = defaultVendorWord);

    void ASIO_METHOD destroy() override;
    std::uint32_t ASIO_METHOD settingPath(char* text, std::uint32_t size) override;
    std::uint32_t ASIO_METHOD settingOrgPath(char* text, std::uint32_t size) override;
    std::uint32_t ASIO_METHOD findIdList(std::uint64_t* list, std::uint32_t capacity) override;
    std::uint64_t ASIO_METHOD findId() override;
    std::uint64_t ASIO_METHOD productId() override;
    std::uint32_t ASIO_METHOD assetPath(char* text, std::uint32_t size) override;
    std::uint32_t ASIO_METHOD assetName(char* text, std::uint32_t size) override;

    // The relative folder and the base name of this driver's files, built
    // from vendor, product and version.
    std::string assetPathText() const;
    std::string assetNameText() const;

    std::vector<std::uint64_t> ids;  // the FindIDs if the table's first isn't 0
    std::uint64_t filterId = 0;
    char productWord[8] = {};
    std::uint64_t product = 0;
    std::string folderName;
    std::string vendorWord;
    std::string versionText;

  private:
    ~asio_velmora_find() = default;
    // The vendor word's part after the company name and one separator.
    std::string vendorSuffix() const;
};

extern "C" VELMORA::asio_velmora_find_call* WINAPI DllVelmorafind();
