// The target of velmora-target: settings kept in memory until a commit, and
// slot data written to files once its check has passed.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "Discovery/Target.h"

class ToolTarget : public VELMORA::Target {
  public:
    ToolTarget(const VELMORA::TargetConfig& config, std::string slotDirectory);

  protected:
    bool transferCheck(std::uint16_t slotIndex, std::uint16_t& crc, std::uint16_t& state) override;
    bool readSetting(std::uint16_t index, std::string& text, std::uint16_t& value) override;
    bool writeSetting(std::uint16_t index, const std::string& text, std::uint16_t& value,
                      bool reapply) override;
    bool commit(bool keep) override;

  private:
    struct Value {
        std::string text;
        std::uint16_t value = 0;
    };
    std::string slotDirectory;
    std::map<std::uint16_t, Value> written;
};
