// The setting table: descriptions, values, writes and the commit. The rows
// of the configuration describe the settings; a target program keeps their
// values through readSetting and writeSetting.
#include <algorithm>

#include "Discovery/Target.h"
#include "Protocol/MessageTypes.h"
#include "System/Log.h"

namespace VELMORA {

namespace {

enum Kind : std::int16_t {
    unsignedNumber = 1,
    signedNumber = 2,
    switchKind = 3,
    textKind = 4,
    choiceByIndex = 5,
    choiceByText = 6,
    shownNumber = 7,
};

enum Operation : std::uint16_t { readValue = 0, writeValue = 1, reapplyValue = 2, readChoice = 3 };

const char* switchText(std::uint16_t value) {
    return value == 0 ? "disable" : "enable";
}

std::string choiceText(const TargetSettingRow& row, std::uint16_t index) {
    return index < row.choices.size() ? row.choices[index] : "unknown";
}

// The value as the row shows it when it has no text of its own.
std::string shownText(const TargetSettingRow& row, std::uint16_t value) {
    if (!row.text.empty()) return row.text;
    if (row.kind == switchKind) return switchText(value);
    if (row.kind == choiceByIndex || row.kind == choiceByText) return choiceText(row, value);
    return row.text;
}

}  // namespace

void Target::settingList(const Receive& request, const NORVA::IPAddress& source) {
    const std::uint16_t number = request.param0();
    const auto count = static_cast<std::uint16_t>(config.settings.size());
    SendBuffer answer(MessageType::SETTINGLIST_ANS, flagYes, count, request.param1(), 0, 0);
    if (number > count) {
        answer.setHeader(MessageType::SETTINGLIST_ANS, 0, number, request.param1(), 0, 0);
    } else if (number != 0) {
        const TargetSettingRow& row = config.settings[number - 1];
        std::uint16_t low = row.minimum, high = row.maximum;
        if (!row.choices.empty()) {
            low = 0;
            high = static_cast<std::uint16_t>(row.choices.size() - 1);
        } else if (row.kind == switchKind) {
            low = 0;
            high = 1;
        }
        answer.setHeader(MessageType::SETTINGLIST_ANS, flagYes, number, static_cast<std::uint16_t>(row.kind),
                         low, high);
        answer.setBodyText(row.name);
    }
    reply(answer, source, MessageType::SETTINGLIST_ANS);
}

void Target::settingValue(const Receive& request, const NORVA::IPAddress& source) {
    const std::uint16_t number = request.param0(), operation = request.param1();
    const bool writing = operation == writeValue || operation == reapplyValue;
    // Refused writes get the answer of a write that failed: flags 0 and,
    // for a setting, the value that stands.
    const bool refused =
        writing && refusedAsReadOnly(number == 0 ? "settings commit" : "setting write", source);
    if (number == 0) {
        bool done = writing && !refused && commit(operation == writeValue);
        Send answer(MessageType::SETTINGVALUE_ANS, done ? flagYes : 0);
        reply(answer, source, MessageType::SETTINGVALUE_ANS);
        if (done) {
            code = 1;
            state.end = true;
        }
        return;
    }
    if (operation == readChoice) {
        settingChoice(request, source);
        return;
    }
    SendBuffer answer(MessageType::SETTINGVALUE_ANS, 0, number, 0, 0, 0);
    if (number > config.settings.size()) {
        reply(answer, source, MessageType::SETTINGVALUE_ANS);
        return;
    }
    const TargetSettingRow& row = config.settings[number - 1];
    const std::uint16_t index = number - 1;
    std::uint16_t value = row.value;
    std::string body = shownText(row, value);
    bool success = operation == readValue;
    if (refused) {
        success = false;
    } else if (operation == reapplyValue) {
        std::string text = row.kind == textKind ? row.text : std::string();
        bool known = row.kind >= unsignedNumber && row.kind <= shownNumber && row.kind != choiceByText;
        success = known && writeSetting(index, text, value, true);
    } else if (operation == writeValue) {
        success = settingWrite(request, row, value, body);
    }

    std::string readText;
    std::uint16_t readValue = value;
    if (readSetting(index, readText, readValue)) {
        if (row.kind == textKind) {
            body = readText;
        } else if (row.kind == choiceByIndex || row.kind == choiceByText) {
            if (readText.empty()) {
                value = readValue;
            } else {
                auto found = std::find(row.choices.begin(), row.choices.end(), readText);
                if (found != row.choices.end())
                    value = static_cast<std::uint16_t>(found - row.choices.begin());
                body = row.kind == choiceByIndex ? std::string() : readText;
            }
        } else {
            value = readValue;
            if (row.kind == switchKind && readText == "disable") value = 0;
            if (row.kind == switchKind && readText == "enable") value = 1;
        }
    }
    answer.setHeader(MessageType::SETTINGVALUE_ANS, success ? flagYes : 0, number, value, 0, row.value);
    answer.setBodyText(body);
    reply(answer, source, MessageType::SETTINGVALUE_ANS);
}

// Entry `param2` of a setting's list of texts.
void Target::settingChoice(const Receive& request, const NORVA::IPAddress& source) {
    const std::uint16_t number = request.param0(), choice = request.param2();
    SendBuffer answer(MessageType::SETTINGVALUE_ANS, flagYes, number, 0, 0, 0);
    if (number > config.settings.size()) {
        answer.setHeader(MessageType::SETTINGVALUE_ANS, 0, number, 0, 0, 0);
    } else {
        const TargetSettingRow& row = config.settings[number - 1];
        if (!row.choices.empty()) {
            answer.setBodyText(choiceText(row, choice));
        } else if (row.kind == switchKind) {
            answer.setBodyText(switchText(choice));
        }
    }
    reply(answer, source, MessageType::SETTINGVALUE_ANS);
}

// Hands a written value to the target program, as text or number by kind.
bool Target::settingWrite(const Receive& request, const TargetSettingRow& row, std::uint16_t& value,
                          std::string& body) {
    const std::uint16_t index = request.param0() - 1;
    value = request.param2();
    switch (row.kind) {
        case textKind: {
            std::string text;
            request.bodyText(text);
            body = text;
            return writeSetting(index, text, value, false);
        }
        case unsignedNumber:
        case signedNumber:
        case shownNumber:
            return writeSetting(index, std::string(), value, false);
        case switchKind:
            return writeSetting(index, switchText(value), value, false);
        case choiceByIndex:
            return writeSetting(index, choiceText(row, value), value, false);
        default:
            return false;
    }
}

}  // namespace VELMORA
