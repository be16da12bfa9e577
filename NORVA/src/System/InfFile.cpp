#include "System/InfFile.h"

#include <limits>

#include "Platform/Platform.h"

namespace NORVA {

namespace {

const char* const globalName = "global";

std::string_view trimBlanks(std::string_view text) {
    std::size_t begin = text.find_first_not_of(' ');
    if (begin == std::string_view::npos) return {};
    std::size_t end = text.find_last_not_of(' ');
    return text.substr(begin, end - begin + 1);
}

bool hasControlByte(std::string_view text) {
    for (char c : text) {
        auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 && byte != '\r' && byte != '\n') return true;
    }
    return false;
}

}  // namespace

InfFile::InfFile(const InfFile& other)
    : sections(other.sections), selectedName(other.selectedName), counter(other.counter), path(other.path) {
    // The selection pointers must point into our own copy.
    select(selectedName);
}

InfFile& InfFile::operator=(const InfFile& other) {
    if (this != &other) {
        assign(other);
        path = other.path;
    }
    return *this;
}

bool InfFile::load(const std::string& filePath) {
    std::string bytes;
    if (!Platform::readWholeFile(filePath, bytes)) return false;
    if (!parse(bytes, true)) return false;
    path = filePath;
    return true;
}

void InfFile::loadText(std::string_view text) {
    parse(text, false);
}

bool InfFile::parse(std::string_view text, bool rejectControls) {
    if (text.substr(0, 3) == "\xEF\xBB\xBF") text.remove_prefix(3);
    // Checked in full before anything is stored, so a bad file changes nothing.
    if (rejectControls && hasControlByte(text)) return false;

    std::string current = globalName;
    std::size_t pos = 0;
    while (pos < text.size()) {
        std::size_t end = text.find_first_of("\r\n", pos);
        if (end == std::string_view::npos) end = text.size();
        std::string_view line = text.substr(pos, end - pos);
        pos = end + 1;

        std::size_t first = line.find_first_not_of(' ');
        if (first == std::string_view::npos) continue;
        line.remove_prefix(first);

        if (line[0] == ';' || line[0] == '#' || line.substr(0, 2) == "//") continue;
        if (line[0] == '[') {
            std::string_view header = trimBlanks(line);
            if (header.size() < 2 || header.back() != ']') continue;
            std::string_view name = trimBlanks(header.substr(1, header.size() - 2));
            current = name.empty() ? std::string(globalName) : std::string(name);
            continue;
        }
        std::size_t equals = line.find('=');
        if (equals == std::string_view::npos) continue;
        std::string_view key = trimBlanks(line.substr(0, equals));
        if (key.empty()) continue;
        Value& value = sections[current][std::string(key)];
        value.text = std::string(trimBlanks(line.substr(equals + 1)));
        value.sequence = ++counter;
    }
    select(selectedName);
    return true;
}

const InfFile::Section* InfFile::findSection(const std::string& name) const {
    auto found = sections.find(name);
    return found == sections.end() ? nullptr : &found->second;
}

void InfFile::select(const std::string& name) {
    selectedName = name.empty() ? std::string(globalName) : name;
    std::size_t dot = selectedName.find('.');
    if (dot == std::string::npos) {
        selectedParent = findSection(selectedName);
        selectedChild = nullptr;
    } else {
        selectedParent = findSection(selectedName.substr(0, dot));
        selectedChild = findSection(selectedName);
    }
}

std::string InfFile::read(const std::string& key) const {
    // A child section, once it exists, hides its parent entirely.
    const Section* section = selectedChild != nullptr ? selectedChild : selectedParent;
    if (section == nullptr) return {};
    auto found = section->find(key);
    return found == section->end() ? std::string() : found->second.text;
}

std::int64_t InfFile::readNumber(const std::string& key) const {
    std::string text = read(key);
    std::size_t i = 0;
    while (i < text.size() && (text[i] == ' ' || (text[i] >= '\t' && text[i] <= '\r'))) ++i;
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';

    // Saturates at the ends of the signed range, as strtoll does.
    const std::uint64_t limit = negative ? std::uint64_t(std::numeric_limits<std::int64_t>::max()) + 1
                                         : std::uint64_t(std::numeric_limits<std::int64_t>::max());
    std::uint64_t magnitude = 0;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
        unsigned digit = unsigned(text[i] - '0');
        magnitude = magnitude > (limit - digit) / 10 ? limit : magnitude * 10 + digit;
    }
    if (!negative) return std::int64_t(magnitude);
    return magnitude == limit ? std::numeric_limits<std::int64_t>::min() : -std::int64_t(magnitude);
}

std::string InfFile::sectionText(const std::string& name) const {
    std::string text;
    const Section* section = findSection(name);
    if (section == nullptr) return text;
    for (const auto& [key, value] : *section) {
        if (!text.empty()) text += '\n';
        text += key;
        text += '=';
        text += value.text;
    }
    return text;
}

void InfFile::set(const std::string& key, const std::string& value) {
    // An empty key could never be read back from the written file.
    if (key.empty()) return;
    sections[selectedName][key].text = value;
}

void InfFile::setNumber(const std::string& key, std::int64_t number) {
    set(key, std::to_string(number));
}

bool InfFile::write(const std::string& filePath) const {
    std::string text;
    for (const auto& [name, section] : sections) {
        text += '[';
        text += name;
        text += "]\r\n";
        for (const auto& [key, value] : section) {
            if (value.text.empty()) continue;
            text += key;
            text += '=';
            text += value.text;
            text += "\r\n";
        }
        text += "\r\n";
    }
    return Platform::writeWholeFile(filePath, text);
}

void InfFile::assign(const InfFile& other) {
    if (this != &other) {
        sections = other.sections;
        counter = other.counter;
    }
    select(selectedName);
    select(other.selectedName);
}

void InfFile::clear() {
    sections.clear();
    selectedParent = nullptr;
    selectedChild = nullptr;
    counter = 0;
}

bool InfFile::operator==(const InfFile& other) const {
    if (sections.size() != other.sections.size()) return false;
    auto theirs = other.sections.begin();
    for (const auto& [name, section] : sections) {
        if (name != theirs->first || section.size() != theirs->second.size()) return false;
        auto theirKey = theirs->second.begin();
        for (const auto& [key, value] : section) {
            if (key != theirKey->first || value.text != theirKey->second.text) return false;
            ++theirKey;
        }
        ++theirs;
    }
    return true;
}

}  // namespace NORVA
