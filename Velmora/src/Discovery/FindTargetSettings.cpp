#include "Discovery/Find.h"
#include "Protocol/MessageTypes.h"

namespace VELMORA {

namespace {

// How the target describes a setting on the wire.
namespace WireKind {
constexpr std::uint16_t unsignedNumber = 1;
constexpr std::uint16_t signedNumber = 2;
constexpr std::uint16_t onOff = 3;
constexpr std::uint16_t text = 4;
constexpr std::uint16_t choice = 5;
constexpr std::uint16_t textChoice = 6;
constexpr std::uint16_t shownNumber = 7;
}  // namespace WireKind

// The second parameter of SETTINGVALUE_REQ.
namespace ValueAction {
constexpr std::uint16_t read = 0;
constexpr std::uint16_t write = 1;    // with number 0: commit
constexpr std::uint16_t reapply = 2;  // with number 0: drop the changes
constexpr std::uint16_t readChoice = 3;
}  // namespace ValueAction

std::uint16_t listType(SettingTable table) {
    return table == SettingTable::first ? MessageType::SETTINGLIST_REQ : MessageType::SETTINGLIST2_REQ;
}
std::uint16_t valueType(SettingTable table) {
    return table == SettingTable::first ? MessageType::SETTINGVALUE_REQ : MessageType::SETTINGVALUE2_REQ;
}

std::int32_t asSigned(std::uint16_t value) {
    return static_cast<std::int16_t>(value);
}

// Kind and limits from a description; false for a wire kind we don't know.
bool describe(const ConnectionBuffer& answer, TargetSetting& setting, bool& isSigned) {
    std::uint16_t wireKind = answer.param1();
    isSigned = wireKind == WireKind::signedNumber;
    setting.minimum = answer.param2();
    setting.maximum = answer.param3();
    switch (wireKind) {
        case WireKind::text:
            setting.kind = SettingKind::text;
            setting.minimum = setting.maximum = 0;
            return true;
        case WireKind::unsignedNumber:
            setting.kind = SettingKind::number;
            return true;
        case WireKind::signedNumber:
            setting.kind = SettingKind::number;
            setting.minimum = asSigned(answer.param2());
            setting.maximum = asSigned(answer.param3());
            return true;
        case WireKind::onOff:
            setting.kind = SettingKind::onOff;
            setting.minimum = 0;
            setting.maximum = 1;
            return true;
        case WireKind::choice:
            setting.kind = SettingKind::choice;
            return true;
        case WireKind::textChoice:
            setting.kind = SettingKind::textChoice;
            return true;
        case WireKind::shownNumber:
            setting.kind = SettingKind::shownNumber;
            return true;
    }
    return false;
}

bool hasChoices(std::int32_t kind) {
    return kind == SettingKind::onOff || kind == SettingKind::choice || kind == SettingKind::textChoice;
}

}  // namespace

bool Find::readSettings(SettingTable table, const NORVA::IPAddress& address, std::vector<TargetSetting>& list,
                        bool reapply) {
    list.clear();
    ConnectionBuffer answer(*socket);
    if (!ask(address, listType(table), 0, 0, 0, 0, answer) || answer.isEmpty()) return false;
    std::uint16_t count = answer.param0();
    for (std::uint32_t number = 1; number <= count; ++number) {
        TargetSetting setting;
        if (!readSetting(table, address, static_cast<std::uint16_t>(number), reapply, setting)) return false;
        list.push_back(setting);
    }
    return true;
}

bool Find::readSetting(SettingTable table, const NORVA::IPAddress& address, std::uint16_t number,
                       bool reapply, TargetSetting& setting) {
    ConnectionBuffer answer(*socket);
    if (!ask(address, listType(table), number, 0, 0, 0, answer)) return false;
    bool isSigned = false;
    if (answer.isEmpty() || answer.param0() != number || !describe(answer, setting, isSigned)) return false;
    answer.bodyText(setting.name);

    std::uint16_t action =
        reapply && setting.kind != SettingKind::textChoice ? ValueAction::reapply : ValueAction::read;
    if (!ask(address, valueType(table), number, action, 0, 0, answer)) return false;
    if (answer.isEmpty() || answer.param0() != number) return false;
    setting.value = isSigned ? asSigned(answer.param1()) : answer.param1();
    setting.heldValue = isSigned ? asSigned(answer.param3()) : answer.param3();
    if (setting.kind == SettingKind::text || setting.kind == SettingKind::textChoice)
        answer.bodyText(setting.text);

    if (hasChoices(setting.kind) && !readChoices(table, address, number, setting)) return false;
    if (setting.kind == SettingKind::textChoice && setting.text.empty()) {
        bool listed =
            setting.heldValue >= 0 && setting.heldValue < static_cast<std::int32_t>(setting.choices.size());
        setting.text = listed ? setting.choices[static_cast<std::size_t>(setting.heldValue)] : "unknown";
    }
    return true;
}

// The texts of a setting's values; a switch without texts of its own shows
// "disable" and "enable".
bool Find::readChoices(SettingTable table, const NORVA::IPAddress& address, std::uint16_t number,
                       TargetSetting& setting) {
    ConnectionBuffer answer(*socket);
    for (std::int32_t index = setting.minimum; index <= setting.maximum; ++index) {
        auto choice = static_cast<std::uint16_t>(index);
        if (!ask(address, valueType(table), number, ValueAction::readChoice, choice, 0, answer)) return false;
        std::string& text = setting.choices.emplace_back();
        if (!answer.isEmpty()) answer.bodyText(text);
        if (setting.kind == SettingKind::onOff && text.empty()) text = index == 0 ? "disable" : "enable";
    }
    return true;
}

bool Find::writeSetting(SettingTable table, const NORVA::IPAddress& address, std::uint16_t number,
                        std::uint16_t value, const std::string& text) {
    std::string answerText;
    return writeSetting(table, address, number, value, text, answerText);
}

bool Find::writeSetting(SettingTable table, const NORVA::IPAddress& address, std::uint16_t number,
                        std::uint16_t value, const std::string& text, std::string& answerText) {
    answerText.clear();
    ConnectionBuffer request(*socket, address);
    request.setHeader(valueType(table), 0, number, ValueAction::write, value, 0);
    request.setBodyText(text);
    request.finish();
    ConnectionBuffer answer(*socket);
    if (!ask(address, request, answer)) return false;
    if (answer.isEmpty()) return false;
    answer.bodyText(answerText);
    return true;
}

bool Find::commitSettings(SettingTable table, const NORVA::IPAddress& address, bool drop) {
    ConnectionBuffer answer(*socket);
    std::uint16_t action = drop ? ValueAction::reapply : ValueAction::write;
    return ask(address, valueType(table), 0, action, 0, 0, answer) && !answer.isEmpty();
}

}  // namespace VELMORA
