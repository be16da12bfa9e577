#include "System/InfFile.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "Platform/Platform.h"
#include "TempFolder.h"

namespace {

using NORVA::InfFile;
namespace fs = std::filesystem;

TEST(InfFileParse, LinesAndHeaders) {
    InfFile inf;
    inf.loadText(
        "a = 1\rb=1\r\n\r\neq=b=c\n\nx=1 ; note\n  indented   =  spaced value  \nempty=\n = orphan\n"
        "no equals sign\n; a=comment\n# b=comment\n// c=comment\n/d=slash\nb=2\n[ first ]   \nk=f\n"
        "[broken\nafter=still first\n[]\nback=global\n[lonely]\n[second]\nk=s\n");
    EXPECT_EQ(inf.sectionText("global"),
              "/d=slash\na=1\nb=2\nback=global\nempty=\neq=b=c\nindented=spaced value\nx=1 ; note");
    EXPECT_EQ(inf.sectionText("first"), "after=still first\nk=f");
    EXPECT_EQ(inf.sectionText("second"), "k=s");
    EXPECT_EQ(inf.sections.size(), 3u) << "a header with no key behind it makes no section";
    EXPECT_EQ(inf.counter, 12u);
    EXPECT_EQ(inf.sections["global"]["b"].sequence, 8u);
    // Names and keys are case-sensitive.
    inf.select("First");
    EXPECT_EQ(inf.read("k"), "");
    inf.select("first");
    EXPECT_EQ(inf.read("K") + inf.read("k"), "f");
}

// That "global" is no fallback is the driver's settings tests' to check.
TEST(InfFileSelect, ChildShadowsParentWhole) {
    InfFile inf;
    inf.loadText("top=1\n[a]\nonlyA=1\nboth=a\n");
    inf.select("a.b");
    EXPECT_EQ(inf.read("both"), "a");  // no a.b yet: the parent answers
    inf.loadText("[a.b]\nboth=ab\n");
    // Loading selects again: a.b now hides a, with no fallback key by key.
    EXPECT_EQ(inf.read("both") + inf.read("onlyA"), "ab");
    // Only the text ahead of the first dot names the parent.
    inf.select("a.x.c");
    EXPECT_EQ(inf.read("onlyA"), "1");
    // A section made by set is seen only once selected again.
    inf.select("new");
    inf.setNumber("k", -42);
    EXPECT_EQ(inf.read("k"), "");
    inf.select("new");
    EXPECT_EQ(inf.read("k"), "-42");
}

// Saturating at the ends of the signed range; anything behind the digits is ignored.
TEST(InfFileRead, NumberForms) {
    InfFile inf;
    inf.loadText(
        "a= -12abc\nb=x\nc=+7\nd=-\ne=12 34\nf=99999999999999999999\ng=9223372036854775808\n"
        "h=-9223372036854775808\ni=-99999999999999999999\n");
    std::string numbers;
    for (const char* key : {"a", "b", "c", "d", "e", "f", "g", "h", "i", "missing"})
        numbers += std::to_string(inf.readNumber(key)) + " ";
    EXPECT_EQ(
        numbers,
        "-12 0 7 0 12 9223372036854775807 9223372036854775807 -9223372036854775808 -9223372036854775808 0 ");
}

// A folder of the test's own; names are UTF-8 bytes.
class InfFileFiles : public ::testing::Test {
  protected:
    TempFolder folder;
    std::string file(const std::string& name) const { return folder.file(name); }
    void put(const std::string& name, const std::string& bytes) const {
        ASSERT_TRUE(NORVA::Platform::writeWholeFile(file(name), bytes));
    }
};

TEST_F(InfFileFiles, ControlByteAnywhereFailsWholeLoad) {
    InfFile inf;
    put("good.inf", std::string("\xEF\xBB\xBF") + "k=1\r\n[s]\nx=2\na=\xEF\xBB\xBF\n");
    ASSERT_TRUE(inf.load(file("good.inf")));
    inf.select("s");
    EXPECT_EQ(inf.read("a"), "\xEF\xBB\xBF") << "a byte order mark is skipped only at the start";
    const InfFile before = inf;
    for (const std::string& bytes : {std::string("new=1\n; a\tcomment\n"), std::string("new=1\nx=\x01\n")}) {
        put("bad.inf", bytes);
        EXPECT_FALSE(inf.load(file("bad.inf")));
        EXPECT_TRUE(inf == before && inf.counter == before.counter && inf.path == file("good.inf"));
    }
    EXPECT_TRUE(!inf.load(file("missing.inf")) && inf == before);
    // loadText does no such check.
    inf.loadText("[s]\ntab=\tx\n");
    EXPECT_EQ(inf.read("tab"), "\tx");
}

// The sorted CRLF layout itself is the settings-file tests' to check. A later
// file layers over an earlier one, its leading keys going to "global".
TEST_F(InfFileFiles, LayeredLoadsWriteWithoutEmptyValues) {
    put("setting.inf", "Debug=off\r\nCycleTime = 1000\r\n[LOW]\r\nCycleTime=2000\r\ngone=0\r\n");
    put("debug.inf", "Debug=enable\n[LOW]\nFragment=disable\n[empty]\nnothing=\n");
    InfFile inf;
    ASSERT_TRUE(inf.load(file("setting.inf")) && inf.load(file("debug.inf")));
    EXPECT_EQ(inf.path, file("debug.inf"));
    inf.select("LOW");
    inf.set("gone", "");
    // A name that isn't ASCII, so that the path conversion counts; longer old content is replaced.
    const std::string name = "s\xC3\xA4tting \xE2\x82\xAC.inf";
    put(name, std::string(200, '.'));
    ASSERT_TRUE(inf.write(file(name)));
    EXPECT_TRUE(fs::exists(folder.path / fs::path(u8"s\u00e4tting \u20ac.inf")));
    std::string bytes;
    ASSERT_TRUE(NORVA::Platform::readWholeFile(file(name), bytes));
    EXPECT_EQ(bytes,
              "[LOW]\r\nCycleTime=2000\r\nFragment=disable\r\n\r\n[empty]\r\n\r\n"
              "[global]\r\nCycleTime=1000\r\nDebug=enable\r\n\r\n");
    EXPECT_FALSE(inf.write(file("no such folder/x.inf")));
}

}  // namespace
