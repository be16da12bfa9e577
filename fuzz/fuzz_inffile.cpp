// A settings file as it lies on disk, read as the driver reads it.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "System/InfFile.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    NORVA::InfFile file;
    file.loadText(std::string_view(reinterpret_cast<const char*>(data), size));
    // The keys and sections the driver reads, as it reads them.
    for (const char* key : {"TargetAddress", "CycleTime", "ASIOBufferSize", "Debug", ""}) {
        (void)file.read(key);
        (void)file.readNumber(key);
    }
    (void)file.sectionText("");
    NORVA::InfFile copy(file);
    (void)(copy == file);
    return 0;
}
