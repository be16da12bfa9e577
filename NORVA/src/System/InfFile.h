// A settings file (".inf") held in memory: named sections of key and value
// texts, read with a selected section and written back sorted.
//
// Format, per line after leading spaces are dropped: empty or a comment
// (";", "#", "//") is ignored; "[name]" starts a section; "key = value" splits
// at the first "="; anything else is ignored. Keys ahead of any header belong
// to "global". Only spaces count as blanks; any other control character than
// CR and LF makes a file unreadable as a whole.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

namespace NORVA {

class InfFile {
  public:
    struct Value {
        std::string text;
        // The key-line counter when this value was last read from a file.
        std::uint32_t sequence = 0;
    };
    // std::string orders by bytes as unsigned values, a prefix first.
    using Section = std::map<std::string, Value>;

    InfFile() = default;
    InfFile(const InfFile& other);
    InfFile& operator=(const InfFile& other);

    // Reads a file and lays it over what is held, key by key. False if the
    // file can't be read or holds a control character; then nothing changes.
    bool load(const std::string& filePath);
    // The same parse of a text already in memory, without the control check.
    void loadText(std::string_view text);

    // Selects the section that read() looks in. "a.b" reads from a.b if it
    // exists and then from it alone, else from a. Empty means "global".
    void select(const std::string& name);
    // The value in the selected section; empty if missing.
    std::string read(const std::string& key) const;
    // The leading decimal integer of the value; 0 if there's none.
    std::int64_t readNumber(const std::string& key) const;
    // A section's keys as key=value lines joined by "\n"; empty if missing.
    std::string sectionText(const std::string& name) const;

    // Stores into the section named by the last select(), creating it if
    // needed. A new section is seen by read() after the next select().
    void set(const std::string& key, const std::string& value);
    void setNumber(const std::string& key, std::int64_t number);

    // Writes every section sorted, CR LF line ends, without empty values.
    bool write(const std::string& filePath) const;

    // Takes other's sections and counter in place of this object's own.
    void assign(const InfFile& other);
    void clear();

    bool operator==(const InfFile& other) const;

    std::map<std::string, Section> sections;
    std::string selectedName = "global";
    const Section* selectedParent = nullptr;
    const Section* selectedChild = nullptr;
    std::uint32_t counter = 0;
    std::string path;

  private:
    bool parse(std::string_view text, bool rejectControls);
    const Section* findSection(const std::string& name) const;
};

}  // namespace NORVA
