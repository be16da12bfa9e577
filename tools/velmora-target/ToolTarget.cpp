#include "ToolTarget.h"

#include <cstdio>
#include <fstream>
#include <utility>

ToolTarget::ToolTarget(const VELMORA::TargetConfig& targetConfig, std::string directory)
    : Target(targetConfig), slotDirectory(std::move(directory)) {}

bool ToolTarget::transferCheck(std::uint16_t slotIndex, std::uint16_t& crc, std::uint16_t& checkState) {
    if (!Target::transferCheck(slotIndex, crc, checkState)) {
        std::printf("slot %u: check failed, CRC %04X\n", slotIndex + 1u, crc);
        return false;
    }
    std::printf("slot %u: %zu bytes, CRC %04X\n", slotIndex + 1u, transferData.size(), crc);
    if (slotDirectory.empty()) return true;
    std::string path = slotDirectory + "/slot" + std::to_string(slotIndex + 1) + ".bin";
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(transferData.data()),
               static_cast<std::streamsize>(transferData.size()));
    if (file) return true;
    std::printf("slot %u: can't write %s\n", slotIndex + 1u, path.c_str());
    return false;
}

bool ToolTarget::readSetting(std::uint16_t index, std::string& text, std::uint16_t& value) {
    auto found = written.find(index);
    if (found == written.end()) return false;
    text = found->second.text;
    value = found->second.value;
    return true;
}

bool ToolTarget::writeSetting(std::uint16_t index, const std::string& text, std::uint16_t& value,
                              bool reapply) {
    if (index >= config.settings.size()) return false;
    if (!reapply) written[index] = Value{text, value};
    return true;
}

bool ToolTarget::commit(bool keep) {
    for (const auto& [index, entry] : written) {
        std::printf("setting %u %s: %u %s\n", index + 1u, keep ? "committed" : "dropped", entry.value,
                    entry.text.c_str());
    }
    written.clear();
    return true;
}
