#include "System/InfFile.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <limits>
#include <random>
#include <string>

#include "Platform/Platform.h"

namespace {

using NORVA::InfFile;
namespace fs = std::filesystem;

TEST(InfFileParse, LineForms) {
    InfFile inf;
    inf.loadText(
        "a = 1\r"
        "b=1\r\n\r\n"
        "eq=b=c\n\n"
        "x=1 ; note\n"
        "  indented   =  spaced value  \n"
        "empty=\n"
        " = orphan\n"
        "no equals sign\n"
        "; a=comment\n"
        "# b=comment\n"
        "// c=comment\n"
        "/d=slash\n"
        "b=2");
    EXPECT_EQ(inf.sectionText("global"),
              "/d=slash\na=1\nb=2\nempty=\neq=b=c\nindented=spaced value\nx=1 ; note");
    EXPECT_EQ(inf.counter, 8u);
    EXPECT_EQ(inf.sections["global"]["b"].sequence, 8u);
}

TEST(InfFileParse, Headers) {
    InfFile inf;
    inf.loadText(
        "top=1\n"
        "[ first ]   \n"
        "k=f\n"
        "[broken\n"
        "after=still first\n"
        "[]\n"
        "back=global\n"
        "[lonely]\n"
        "[second]\n"
        "k=s\n");
    EXPECT_EQ(inf.sectionText("global"), "back=global\ntop=1");
    EXPECT_EQ(inf.sectionText("first"), "after=still first\nk=f");
    EXPECT_EQ(inf.sectionText("second"), "k=s");
    // A header with no key behind it makes no section.
    EXPECT_EQ(inf.sections.size(), 3u);
    // Names and keys are case-sensitive.
    inf.select("First");
    EXPECT_EQ(inf.read("k"), "");
    inf.select("first");
    EXPECT_EQ(inf.read("K"), "");
    EXPECT_EQ(inf.read("k"), "f");
}

TEST(InfFileSelect, MissingSectionHasNoFallbackToGlobal) {
    InfFile inf;
    inf.loadText("CycleTime=1000\n[other]\nCycleTime=2\n");
    EXPECT_EQ(inf.read("CycleTime"), "1000");
    inf.select("LOW");
    EXPECT_EQ(inf.read("CycleTime"), "");
    inf.select("");
    EXPECT_EQ(inf.selectedName, "global");
    EXPECT_EQ(inf.read("CycleTime"), "1000");
}

TEST(InfFileSelect, ChildShadowsParentWhole) {
    InfFile inf;
    inf.loadText("[a]\nonlyA=1\nboth=a\n");
    inf.select("a.b");
    EXPECT_EQ(inf.read("both"), "a");  // no a.b yet: the parent answers
    inf.loadText("[a.b]\nboth=ab\n");
    // Loading selects again: a.b now hides a, with no fallback key by key.
    EXPECT_EQ(inf.read("both"), "ab");
    EXPECT_EQ(inf.read("onlyA"), "");
    // Only the text ahead of the first dot names the parent.
    inf.select("a.x.c");
    EXPECT_EQ(inf.read("onlyA"), "1");
}

TEST(InfFileSelect, SetMakesSectionVisibleAfterSelect) {
    InfFile inf;
    inf.select("new");
    inf.setNumber("k", -42);
    EXPECT_EQ(inf.read("k"), "");  // selected before the section existed
    inf.select("new");
    EXPECT_EQ(inf.read("k"), "-42");
    inf.select("global");
    EXPECT_EQ(inf.read("k"), "");
}

TEST(InfFileRead, NumberForms) {
    InfFile inf;
    inf.loadText(
        "a= -12abc\n"
        "b=x\n"
        "c=+7\n"
        "d=-\n"
        "e=12 34\n"
        "f=99999999999999999999\n"
        "g=-9223372036854775808\n"
        "h=-99999999999999999999\n");
    EXPECT_EQ(inf.readNumber("a"), -12);
    EXPECT_EQ(inf.readNumber("b"), 0);
    EXPECT_EQ(inf.readNumber("c"), 7);
    EXPECT_EQ(inf.readNumber("d"), 0);
    EXPECT_EQ(inf.readNumber("e"), 12);
    EXPECT_EQ(inf.readNumber("f"), std::numeric_limits<std::int64_t>::max());
    EXPECT_EQ(inf.readNumber("g"), std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(inf.readNumber("h"), std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(inf.readNumber("missing"), 0);
}

TEST(InfFileObject, EqualityAssignAndClear) {
    InfFile a;
    a.loadText("k=1\n[s]\nx=2\n");
    InfFile b;
    b.loadText("x=2\n[s]\nk=1\n");
    EXPECT_FALSE(a == b);  // same names and sizes, the keys swapped
    InfFile c;
    c.loadText("[s]\nx=2\n[global]\nk=1\nk=1\n");
    EXPECT_TRUE(a == c);  // sequence and counter don't count
    c.set("y", "");
    EXPECT_FALSE(a == c);  // an empty value still is a key

    InfFile target;
    target.loadText("[mine]\nonly=here\n");
    target.select("mine");
    b.select("s");
    target.assign(b);
    EXPECT_TRUE(target == b);
    EXPECT_EQ(target.counter, b.counter);
    EXPECT_EQ(target.selectedName, "s");
    // The selection points into this object's own copy.
    b.sections["s"]["k"].text = "changed";
    EXPECT_EQ(target.read("k"), "1");

    InfFile copy(target);
    target.clear();
    EXPECT_TRUE(target.sections.empty());
    EXPECT_EQ(target.read("k"), "");
    EXPECT_EQ(copy.read("k"), "1");
}

class InfFileFiles : public ::testing::Test {
  protected:
    void SetUp() override {
        std::random_device random;
        dir =
            fs::temp_directory_path() / ("norva_inf_" + std::to_string(random()) + std::to_string(random()));
        ASSERT_TRUE(fs::create_directory(dir));
    }
    void TearDown() override {
        std::error_code ignored;
        fs::remove_all(dir, ignored);
    }
    // Names are UTF-8 bytes, joined as text: a narrow fs::path isn't UTF-8 on Windows.
    std::string file(const std::string& name) const {
        std::u8string text = dir.u8string();
        return std::string(text.begin(), text.end()) + "/" + name;
    }
    void put(const std::string& name, const std::string& bytes) const {
        ASSERT_TRUE(NORVA::Platform::writeWholeFile(file(name), bytes));
    }

    fs::path dir;
};

TEST_F(InfFileFiles, ControlByteAnywhereFailsWholeLoad) {
    InfFile inf;
    put("good.inf", "k=1\n[s]\nx=2\n");
    ASSERT_TRUE(inf.load(file("good.inf")));
    inf.select("s");
    const InfFile before = inf;

    for (const std::string& bytes : {std::string("new=1\n; a\tcomment\n"), std::string("new=1\nx=\x01\n")}) {
        put("bad.inf", bytes);
        EXPECT_FALSE(inf.load(file("bad.inf")));
        EXPECT_TRUE(inf == before);
        EXPECT_EQ(inf.counter, before.counter);
        EXPECT_EQ(inf.path, file("good.inf"));
        EXPECT_EQ(inf.read("x"), "2");
    }
    EXPECT_FALSE(inf.load(file("missing.inf")));
    EXPECT_TRUE(inf == before);
    // loadText does no such check.
    inf.loadText("tab=\tx\n");
    inf.select("global");
    EXPECT_EQ(inf.read("tab"), "\tx");
}

TEST_F(InfFileFiles, ByteOrderMarkIsSkippedOnlyAtStart) {
    put("bom.inf",
        "\xEF\xBB\xBF"
        "first=1\r\na=\xEF\xBB\xBF\r\n");
    InfFile inf;
    ASSERT_TRUE(inf.load(file("bom.inf")));
    EXPECT_EQ(inf.read("first"), "1");
    EXPECT_EQ(inf.read("a"), "\xEF\xBB\xBF");
}

TEST_F(InfFileFiles, WriteSortsAndDropsEmptyValues) {
    InfFile inf;
    inf.loadText("g=1\n[b]\nz=1\ny=2\n[a]\nkeep=v\ngone=x\n[empty]\nnothing=\n[B]\nq=1\n");
    inf.select("a");
    inf.set("gone", "");
    put("out.inf", "old content that is longer than the new one .........................................");
    ASSERT_TRUE(inf.write(file("out.inf")));
    std::string bytes;
    ASSERT_TRUE(NORVA::Platform::readWholeFile(file("out.inf"), bytes));
    EXPECT_EQ(bytes,
              "[B]\r\nq=1\r\n\r\n"
              "[a]\r\nkeep=v\r\n\r\n"
              "[b]\r\ny=2\r\nz=1\r\n\r\n"
              "[empty]\r\n\r\n"
              "[global]\r\ng=1\r\n\r\n");
    EXPECT_FALSE(inf.write(file("no such folder/x.inf")));
}

TEST_F(InfFileFiles, OverlayAndRoundTrip) {
    put("setting.inf",
        "; settings\r\nDebug=off\r\nCycleTime = 1000\r\n[LOW]\r\nCycleTime=2000\r\nFragment=0\r\n");
    // Starts with a key: it goes to "global", not to the first file's last section.
    put("debug.inf", "Debug=enable\n[LOW]\nFragment=disable\n");

    InfFile inf;
    ASSERT_TRUE(inf.load(file("setting.inf")));
    ASSERT_TRUE(inf.load(file("debug.inf")));
    EXPECT_EQ(inf.path, file("debug.inf"));
    EXPECT_EQ(inf.read("Debug"), "enable");
    EXPECT_EQ(inf.read("CycleTime"), "1000");
    inf.select("LOW");
    EXPECT_EQ(inf.read("CycleTime"), "2000");
    EXPECT_EQ(inf.read("Fragment"), "disable");

    // A name that isn't ASCII, so that the path conversion counts.
    const std::string name = "s\xC3\xA4tting \xE2\x82\xAC.inf";
    ASSERT_TRUE(inf.write(file(name)));
    EXPECT_TRUE(fs::exists(dir / fs::path(u8"s\u00e4tting \u20ac.inf")));
    InfFile again;
    ASSERT_TRUE(again.load(file(name)));
    EXPECT_TRUE(again == inf);
}

}  // namespace
