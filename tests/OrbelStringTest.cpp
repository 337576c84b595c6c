// String and value helpers: number, boolean and port checks, stripping,
// splitting, JSON quoting, regular expressions, link meta keys, and the
// diagnostic lines of the printable-text checks.
#include <gtest/gtest.h>

#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "Orbel.h"
#include "TestEnv.h"

using namespace Orbel;

namespace {

struct Case {
    const char* text;
    bool expected;
};

TEST(OrbelNumbers, SignedUnsignedAndFloatTexts) {
    const Case signedCases[] = {{"0", true},   {"-12", true},  {"-", true},    {"", false},
                                {"+1", false}, {"1-", false},  {"--1", false}, {" 1", false},
                                {"1 ", false}, {"1.0", false}, {"12a", false}};
    for (const auto& c : signedCases) {
        EXPECT_EQ(IsSignedNumString(c.text), c.expected) << "[" << c.text << "]";
    }
    const Case unsignedCases[] = {{"0", true},   {"007", true},  {"", false},
                                  {"-", false},  {"-1", false},  {"+1", false},
                                  {"1-", false}, {"1.5", false}, {"4294967296", true}};
    for (const auto& c : unsignedCases) {
        EXPECT_EQ(IsUnsignedNumString(c.text), c.expected) << "[" << c.text << "]";
    }
    const Case floatCases[] = {{"1.5", true},    {"-0.25", true}, {"-", true},     {".", true},
                               {"1.", true},     {".5", true},    {"42", true},    {"", false},
                               {"1.2.3", false}, {"1e5", false},  {"+1.0", false}, {"-1-", false},
                               {" 1.0", false},  {"1,0", false}};
    for (const auto& c : floatCases) {
        EXPECT_EQ(IsFloatString(c.text), c.expected) << "[" << c.text << "]";
    }
}

TEST(OrbelNumbers, BoolTextsSetOnlyOnExactWords) {
    bool out = false;
    EXPECT_EQ(BoolStr2Value("true", out), RT_SUCCESS);
    EXPECT_TRUE(out);
    EXPECT_EQ(BoolStr2Value("false", out), RT_SUCCESS);
    EXPECT_FALSE(out);
    // Anything else fails and leaves both a true and a false value alone.
    for (const char* bad : {"True", "FALSE", "1", "0", "", "true ", " false", "yes"}) {
        for (bool before : {true, false}) {
            out = before;
            EXPECT_EQ(BoolStr2Value(bad, out), RT_FAILURE) << "[" << bad << "]";
            EXPECT_EQ(out, before) << "[" << bad << "]";
        }
    }
}

TEST(OrbelNumbers, ProtocolPorts) {
    EXPECT_FALSE(IsProtocolPortValid(0));
    EXPECT_FALSE(IsProtocolPortValid(-80));
    EXPECT_FALSE(IsProtocolPortValid(65536));
    EXPECT_TRUE(IsProtocolPortValid(1));
    EXPECT_TRUE(IsProtocolPortValid(65535));

    const Case texts[] = {{"65535", true},
                          {"1", true},
                          {"443", true},
                          {"00080", true},
                          {"0", false},
                          {"65536", false},
                          {"+80", false},
                          {" 80", false},
                          {"80 ", false},
                          {"", false},
                          {"-1", false},
                          {"8o", false},
                          {"99999999999999999999", false},
                          {"4294967376", false}};
    for (const auto& c : texts) {
        EXPECT_EQ(IsProtocolPortValid(std::string(c.text)), c.expected) << "[" << c.text << "]";
    }
}

TEST(OrbelStrings, StripDropsNonPrintableAndGivenBytes) {
    const std::string s = "\t\n  x y \r";
    EXPECT_EQ(StringLeftStrip(s, " "), "x y \r");
    EXPECT_EQ(StringRightStrip(s, " "), "\t\n  x y");
    // Without chars only non-printable bytes go; a blank is printable.
    EXPECT_EQ(StringLeftStrip(s, ""), "  x y \r");
    EXPECT_EQ(StringRightStrip(s, ""), "\t\n  x y ");
    // DEL and bytes above 0x7E count as non-printable.
    EXPECT_EQ(StringLeftStrip("\x7f\x80\xff"
                              "a\x7f",
                              ""),
              "a\x7f");
    EXPECT_EQ(StringRightStrip("\x7f"
                               "a\x80\x7f",
                               ""),
              "\x7f"
              "a");
    EXPECT_EQ(StringLeftStrip("\"\"[v]\"", "\"["), "v]\"");
    EXPECT_EQ(StringRightStrip("\"\"[v]\"", "\"]"), "\"\"[v");
    // Only the run at the edge goes, not the same bytes inside.
    EXPECT_EQ(StringLeftStrip("--a--", "-"), "a--");
    EXPECT_EQ(StringRightStrip("--a--", "-"), "--a");
    // Nothing left, or nothing to start with.
    EXPECT_EQ(StringLeftStrip(" \t- ", " -"), "");
    EXPECT_EQ(StringRightStrip(" \t- ", " -"), "");
    EXPECT_EQ(StringLeftStrip("", "x"), "");
    EXPECT_EQ(StringRightStrip("", ""), "");
    // An embedded NUL is non-printable too.
    EXPECT_EQ(StringRightStrip(std::string("ab\0", 3), ""), "ab");
}

TEST(OrbelStrings, FindCharFromStart) {
    const std::string s = "a,b;c";
    EXPECT_EQ(StringFindChar(0, s, ";,"), 1);
    EXPECT_EQ(StringFindChar(1, s, ";,"), 1);  // start itself is examined
    EXPECT_EQ(StringFindChar(2, s, ";,"), 3);
    EXPECT_EQ(StringFindChar(4, s, ";,"), -1);
    EXPECT_EQ(StringFindChar(5, s, ";,"), -1);  // at the end
    EXPECT_EQ(StringFindChar(500, s, ";,"), -1);
    EXPECT_EQ(StringFindChar(0, s, ""), -1);
    EXPECT_EQ(StringFindChar(0, s, "xyz"), -1);
    EXPECT_EQ(StringFindChar(0, "", ","), -1);
}

TEST(OrbelStrings, SplitLikeGetline) {
    using V = std::vector<std::string>;
    EXPECT_EQ(StringSplit("a,b,c", ','), (V{"a", "b", "c"}));
    EXPECT_EQ(StringSplit("a,,b", ','), (V{"a", "", "b"}));
    EXPECT_EQ(StringSplit("a,b,", ','), (V{"a", "b"}));
    EXPECT_EQ(StringSplit("a,b,,", ','), (V{"a", "b", ""}));
    EXPECT_EQ(StringSplit(",a", ','), (V{"", "a"}));
    EXPECT_EQ(StringSplit(",", ','), (V{""}));
    EXPECT_EQ(StringSplit("", ','), V{});
    EXPECT_EQ(StringSplit("no delimiter", ','), (V{"no delimiter"}));
    EXPECT_EQ(StringSplit("/redfish/v1/Systems", '/'), (V{"", "redfish", "v1", "Systems"}));
}

TEST(OrbelStrings, EscapeCorrect) {
    EXPECT_EQ(StringEscapeCorrect("a\"b?", true), "a\\\"b\\?");
    EXPECT_EQ(StringEscapeCorrect("a\"b?", false), "a\\\"b?");
    EXPECT_EQ(StringEscapeCorrect("c:\\dir\\", false), "c:\\\\dir\\\\");
    EXPECT_EQ(StringEscapeCorrect("\\\"", false), "\\\\\\\"");
    // Control characters and everything else pass untouched.
    EXPECT_EQ(StringEscapeCorrect("tab\there\nnew'line'/", true), "tab\there\nnew'line'/");
    EXPECT_EQ(StringEscapeCorrect("", true), "");
}

TEST(OrbelStrings, EscapeRevertIsAPairwiseWalk) {
    EXPECT_EQ(StringEscapeRevert("\\\""), "\"");
    EXPECT_EQ(StringEscapeRevert("\\n"), "\\n");
    EXPECT_EQ(StringEscapeRevert("a\\\\b"), "a\\b");
    EXPECT_EQ(StringEscapeRevert("say \\\"hi\\\""), "say \"hi\"");
    // An escaped backslash followed by an escaped quote: every backslash is
    // followed by a backslash or a quote, so all three go.
    EXPECT_EQ(StringEscapeRevert("\\\\\\\""), "\"");
    // An escaped '?' is never reverted.
    EXPECT_EQ(StringEscapeRevert("why\\?"), "why\\?");
    // The last byte is always kept, even a lone backslash.
    EXPECT_EQ(StringEscapeRevert("a\\"), "a\\");
    EXPECT_EQ(StringEscapeRevert("\\"), "\\");
    EXPECT_EQ(StringEscapeRevert("x"), "x");
    EXPECT_EQ(StringEscapeRevert(""), "");
    // Texts with no backslash before a backslash-or-quote pair round-trip.
    for (const char* text : {"plain", "say \"hi\"", "c:\\dir\\file", "{\"k\":\"v\"}"}) {
        EXPECT_EQ(StringEscapeRevert(StringEscapeCorrect(text, false)), text) << text;
    }
}

TEST(OrbelRegExp, PosixExtendedUnanchored) {
    EXPECT_TRUE(RegExpCompare("ab", "xxabyy"));
    EXPECT_FALSE(RegExpCompare("^ab$", "xxabyy"));
    EXPECT_TRUE(RegExpCompare("^ab$", "ab"));
    // Extended syntax: '+', '|' and groups are operators, not literals.
    EXPECT_TRUE(RegExpCompare("^a+b$", "aaab"));
    EXPECT_FALSE(RegExpCompare("^a+b$", "a+b"));
    EXPECT_TRUE(RegExpCompare("^(On|Off)$", "Off"));
    EXPECT_FALSE(RegExpCompare("^(On|Off)$", "OnOff"));
    // Case matters: no REG_ICASE.
    EXPECT_FALSE(RegExpCompare("^on$", "On"));
    // A pattern that does not compile is no match, whatever the text.
    EXPECT_FALSE(RegExpCompare("a(", "a("));
    EXPECT_FALSE(RegExpCompare("[z-a]", "z"));

    regex_t compiled;
    ASSERT_EQ(regcomp(&compiled, "^[0-9]{1,3}(\\.[0-9]{1,3}){3}$", REG_EXTENDED), 0);
    EXPECT_TRUE(RegExpCompare(&compiled, "192.168.0.1"));
    EXPECT_FALSE(RegExpCompare(&compiled, "192.168.0"));
    EXPECT_TRUE(RegExpCompare(&compiled, "10.0.0.255"));
    regfree(&compiled);
    EXPECT_FALSE(RegExpCompare(static_cast<const regex_t*>(nullptr), "x"));
}

TEST(OrbelRegExp, NewPatternIsEcmaScript) {
    // A non-capturing group exists in ECMAScript but not in POSIX grammars.
    std::unique_ptr<std::regex> re(NewRegExpPattern("^(?:ab)+\\d$"));
    ASSERT_NE(re, nullptr);
    EXPECT_TRUE(std::regex_match("abab7", *re));
    EXPECT_FALSE(std::regex_match("aba7", *re));
    // No icase flag.
    EXPECT_FALSE(std::regex_match("AB7", *re));
}

TEST(OrbelRegExp, NewPatternOfBadPatternIsNullAndLogged) {
    const std::string pattern = "\"x(?";
    int code = 0;
    std::string what;
    try {
        std::regex probe(pattern, std::regex::ECMAScript);
        FAIL() << "the probe pattern compiled";
    } catch (const std::regex_error& e) {
        code = static_cast<int>(e.code());
        what = e.what();
    }
    size_t mark = OrbelTest::LogMark();
    std::regex* re = NewRegExpPattern(pattern);
    EXPECT_EQ(re, nullptr);
    delete re;
    // The pattern is shown with its quote and question mark escaped.
    const std::string expected =
        "[ERROR] Orbel.cpp:NewRegExpPattern(): std::regex( \\\"x(\\? ) "
        "caught: err[" +
        std::to_string(code) + "]:[" + what + "].\n";
    EXPECT_NE(OrbelTest::LogSince(mark).find(expected), std::string::npos)
        << OrbelTest::LogSince(mark);
}

TEST(OrbelPureString, VerboseLinesAndVerdict) {
    size_t mark = OrbelTest::LogMark();
    EXPECT_TRUE(IsPureString(std::string("Plain text ~ 0x20..0x7E"), true));
    EXPECT_TRUE(IsPureString(std::string(), true));
    EXPECT_TRUE(IsPureString(static_cast<const unsigned char*>(nullptr), true));
    EXPECT_EQ(OrbelTest::LogSince(mark), "");

    // Without verbose: false, and nothing logged.
    EXPECT_FALSE(IsPureString("a\tb", false));
    EXPECT_EQ(OrbelTest::LogSince(mark), "");

    // Verbose keeps scanning past the first bad byte and logs each one, then
    // the verdict; raw lines carry no prefix.
    const unsigned char text[] = {'a', 0x09, 'b', 0xC3, 0xA9, 0};
    EXPECT_FALSE(IsPureString(text, true));
    EXPECT_EQ(OrbelTest::LogSince(mark),
              "  idx(1) char[0x9] is not a printable char.\n"
              "  idx(3) char[0xC3] is not a printable char.\n"
              "  idx(4) char[0xA9] is not a printable char.\n"
              "Error: [a\tb\xC3\xA9] is not pure string!\n");

    // The length-bounded form looks at the first len bytes only and does not
    // log the verdict line.
    mark = OrbelTest::LogMark();
    EXPECT_TRUE(_IsPureString("ab\x01", 2, true));
    EXPECT_FALSE(_IsPureString("ab\x01", 3, true));
    EXPECT_EQ(OrbelTest::LogSince(mark), "  idx(2) char[0x1] is not a printable char.\n");
    // DEL (0x7F) is not printable; a blank is.
    EXPECT_FALSE(IsPureString(std::string("x\x7f"), false));
    EXPECT_TRUE(IsPureString(" ", false));
}

struct MetaKeyCase {
    const char* key;
    bool ok;
    const char* name;
    const char* target;
    bool isLink;
};

TEST(OrbelMetaKey, SplitsTheFourLinkForms) {
    const MetaKeyCase cases[] = {
        {"&&Object Status &&/redfish/v1/Systems/1/Status", true, "Status",
         "&&/redfish/v1/Systems/1/Status", false},
        {"&&ObjectRef Manager /redfish/v1/Managers/1", true, "Manager", "/redfish/v1/Managers/1",
         true},
        {"&&Array &&/x/Members", true, "", "&&/x/Members", false},
        {"&&ObjectRef Links/x", true, "", "Links/x", true},
        {"&&ArraySimple Names &&/x/Names", true, "Names", "&&/x/Names", false},
        {"&&Array Members &&/redfish/v1/Systems/Members", true, "Members",
         "&&/redfish/v1/Systems/Members", false},
        // A list element keeps its whole text, blanks included.
        {"&&ObjectRef /redfish/v1/A B", true, "", "/redfish/v1/A B", true},
        {"&&Object &&/a b c", true, "", "&&/a b c", false},
        // The target may itself hold blanks.
        {"&&Object Name has blanks", true, "Name", "has blanks", false},
    };
    for (const auto& c : cases) {
        std::string name = "unset";
        std::string target = "unset";
        bool isLink = !c.isLink;
        ASSERT_EQ(IsACorvelMetaKey(c.key, &name, &target, &isLink), c.ok) << c.key;
        EXPECT_EQ(name, c.name) << c.key;
        EXPECT_EQ(target, c.target) << c.key;
        EXPECT_EQ(isLink, c.isLink) << c.key;
    }
}

TEST(OrbelMetaKey, RejectsOtherTextsAndLeavesOutputsAlone) {
    const char* const rejected[] = {
        "&&Object",
        "&&Object ",
        "&&ObjectRef Status ",
        "&&Objects Status x",
        "&&RequestMethod GET",
        "&&ObjectStatus x",
        "Object Status x",
        "&Object Status x",
        " &&Object Status x",
        "&&object Status x",
        "",
        "&&",
        "&& Status x",
        "&&Array\t&&/x",
        "&&ArraySimple",
    };
    for (const char* key : rejected) {
        std::string name = "keep-name";
        std::string target = "keep-target";
        bool isLink = true;
        EXPECT_FALSE(IsACorvelMetaKey(key, &name, &target, &isLink)) << "[" << key << "]";
        EXPECT_EQ(name, "keep-name") << key;
        EXPECT_EQ(target, "keep-target") << key;
        EXPECT_TRUE(isLink) << key;
    }
    // Outputs are optional.
    EXPECT_TRUE(IsACorvelMetaKey("&&ObjectRef Manager /redfish/v1/Managers/1"));
    std::string target;
    EXPECT_TRUE(IsACorvelMetaKey("&&Array &&/x/Members", nullptr, &target, nullptr));
    EXPECT_EQ(target, "&&/x/Members");
}

}  // namespace
