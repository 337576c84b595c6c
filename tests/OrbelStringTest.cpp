// String and value helpers: number, boolean and port checks, stripping,
// splitting, JSON quoting, regular expressions, link meta keys, and the
// diagnostic lines of the printable-text checks.
#include <gmock/gmock.h>

#include <memory>
#include <regex>
#include <string>
#include <tuple>
#include <vector>

#include "Orbel.h"
#include "TestEnv.h"
#include "ZObject_JsonStringTrans.h"

using namespace Orbel;

namespace {

// `check` accepts every text of `yes` and refuses every text of `no`.
void ExpectVerdicts(bool (*check)(const std::string&), std::initializer_list<const char*> yes,
                    std::initializer_list<const char*> no) {
    for (const char* text : yes) EXPECT_TRUE(check(text)) << "[" << text << "]";
    for (const char* text : no) EXPECT_FALSE(check(text)) << "[" << text << "]";
}

TEST(OrbelNumbers, SignedUnsignedFloatAndPortTexts) {
    ExpectVerdicts(IsSignedNumString, {"0", "-12", "-"},
                   {"", "+1", "1-", "--1", " 1", "1 ", "1.0", "12a"});
    ExpectVerdicts(IsUnsignedNumString, {"0", "007", "4294967296"},
                   {"", "-", "-1", "+1", "1-", "1.5"});
    ExpectVerdicts(IsFloatString, {"1.5", "-0.25", "-", ".", "1.", ".5", "42"},
                   {"", "1.2.3", "1e5", "+1.0", "-1-", " 1.0", "1,0"});
    // A text is digits only, then the number rule; nothing may wrap into range.
    ExpectVerdicts(
        static_cast<bool (*)(const std::string&)>(IsProtocolPortValid),
        {"65535", "1", "443", "00080"},
        {"0", "65536", "+80", " 80", "80 ", "", "-1", "8o", "99999999999999999999", "4294967376"});
    for (int port : {0, -80, 65536}) EXPECT_FALSE(IsProtocolPortValid(port)) << port;
    EXPECT_TRUE(IsProtocolPortValid(1) && IsProtocolPortValid(65535));
}

TEST(OrbelNumbers, BoolTextsSetOnlyOnExactWords) {
    bool out = false;
    EXPECT_TRUE(BoolStr2Value("true", out) == RT_SUCCESS && out);
    EXPECT_TRUE(BoolStr2Value("false", out) == RT_SUCCESS && !out);
    // Anything else fails and leaves both a true and a false value alone.
    for (const char* bad : {"True", "FALSE", "1", "0", "", "true ", " false", "yes"}) {
        for (bool before : {true, false}) {
            out = before;
            EXPECT_EQ(BoolStr2Value(bad, out), RT_FAILURE) << "[" << bad << "]";
            EXPECT_EQ(out, before) << "[" << bad << "]";
        }
    }
}

TEST(OrbelStrings, StripDropsNonPrintableAndGivenBytesAtTheEdgesOnly) {
    // {text, chars, left strip, right strip}. Without chars only non-printable
    // bytes go (DEL, bytes above 0x7E and NUL included); a blank is printable.
    const std::tuple<std::string, std::string, std::string, std::string> cases[] = {
        {"\t\n  x y \r", " ", "x y \r", "\t\n  x y"},
        {"\t\n  x y \r", "", "  x y \r", "\t\n  x y "},
        {"\377\177a\200\177", "", "a\200\177", "\377\177a"},
        {"\"\"[v]\"", "\"[]", "v]\"", "\"\"[v"},
        {"--a--", "-", "a--", "--a"},
        {" \t- ", " -", "", ""},
        {"", "x", "", ""},
        {std::string("ab\0", 3), "", std::string("ab\0", 3), "ab"},
        // Well-formed UTF-8 is text, whole; stray and cut sequences go.
        {"25 \xC2\xB0", " ", "25 \xC2\xB0", "25 \xC2\xB0"},
        {"\xC3\xA9t\xC3\xA9 \xE2\x82\xAC \x80", " ", "\xC3\xA9t\xC3\xA9 \xE2\x82\xAC \x80",
         "\xC3\xA9t\xC3\xA9 \xE2\x82\xAC"},
        {"\xA9\xF0\x9F\x98\x80x\xE2\x82", "", "\xF0\x9F\x98\x80x\xE2\x82", "\xA9\xF0\x9F\x98\x80x"},
        {"-----END-----\n", " ", "-----END-----\n", "-----END-----"},
    };
    for (const auto& [text, chars, left, right] : cases) {
        EXPECT_EQ(StringLeftStrip(text, chars), left) << "[" << text << "]";
        EXPECT_EQ(StringRightStrip(text, chars), right) << "[" << text << "]";
    }
}

TEST(OrbelStrings, FindCharAndSplit) {
    const std::string s = "a,b;c";
    EXPECT_EQ(StringFindChar(1, s, ";,"), 1);  // start itself is examined
    EXPECT_EQ(StringFindChar(2, s, ";,"), 3);
    EXPECT_EQ(StringFindChar(4, s, ";,"), -1);
    EXPECT_EQ(StringFindChar(500, s, ";,"), -1);

    // Like getline: one trailing delimiter makes no empty last piece.
    using V = std::vector<std::string>;
    EXPECT_EQ(StringSplit("a,,b", ','), (V{"a", "", "b"}));
    EXPECT_EQ(StringSplit("a,b,", ','), (V{"a", "b"}));
    EXPECT_EQ(StringSplit("a,b,,", ','), (V{"a", "b", ""}));
    EXPECT_EQ(StringSplit(",", ','), (V{""}));
    EXPECT_EQ(StringSplit("", ','), V{});
}

TEST(OrbelStrings, EscapeCorrectAndItsPairwiseRevert) {
    EXPECT_EQ(StringEscapeCorrect("a\"b?", true), "a\\\"b\\?");
    EXPECT_EQ(StringEscapeCorrect("a\"b?", false), "a\\\"b?");
    EXPECT_EQ(StringEscapeCorrect("c:\\dir\\", false), "c:\\\\dir\\\\");
    EXPECT_EQ(StringEscapeCorrect("\\\"", false), "\\\\\\\"");
    // Control characters and everything else pass untouched.
    EXPECT_EQ(StringEscapeCorrect("tab\there\nnew'line'/", true), "tab\there\nnew'line'/");

    EXPECT_EQ(StringEscapeRevert("a\\\\b"), "a\\b");
    EXPECT_EQ(StringEscapeRevert("say \\\"hi\\\""), "say \"hi\"");
    EXPECT_EQ(StringEscapeRevert("\\n"), "\\n");
    // An escaped backslash followed by an escaped quote: every backslash is
    // followed by a backslash or a quote, so all three go.
    EXPECT_EQ(StringEscapeRevert("\\\\\\\""), "\"");
    // An escaped '?' is never reverted, and the last byte is always kept,
    // even a backslash.
    EXPECT_EQ(StringEscapeRevert("why\\?"), "why\\?");
    EXPECT_EQ(StringEscapeRevert("a\\"), "a\\");
    EXPECT_EQ(StringEscapeRevert(""), "");
    // Texts with no backslash before a backslash-or-quote pair round-trip.
    for (const char* text : {"plain", "say \"hi\"", "c:\\dir\\file", "{\"k\":\"v\"}"}) {
        EXPECT_EQ(StringEscapeRevert(StringEscapeCorrect(text, false)), text) << text;
    }
}

TEST(OrbelRegExp, PosixExtendedUnanchoredAndCaseSensitive) {
    EXPECT_TRUE(RegExpCompare("ab", "xxabyy"));
    // Extended syntax: '|' and groups are operators, not literals.
    EXPECT_TRUE(RegExpCompare("^(On|Off)$", "Off"));
    EXPECT_FALSE(RegExpCompare("^on$", "On"));
    // A pattern that does not compile is no match, whatever the text.
    EXPECT_FALSE(RegExpCompare("a(", "a("));

    regex_t compiled;
    ASSERT_EQ(regcomp(&compiled, "^[0-9]{1,3}(\\.[0-9]{1,3}){3}$", REG_EXTENDED), 0);
    EXPECT_TRUE(RegExpCompare(&compiled, "192.168.0.1"));
    regfree(&compiled);
}

TEST(OrbelRegExp, NewPatternIsEcmaScriptOrNullAndLogged) {
    // A non-capturing group exists in ECMAScript but not in POSIX grammars.
    std::unique_ptr<std::regex> re(NewRegExpPattern("^(?:ab)+\\d$"));
    ASSERT_NE(re, nullptr);
    EXPECT_TRUE(std::regex_match("abab7", *re));
    EXPECT_FALSE(std::regex_match("aba7", *re));
    EXPECT_FALSE(std::regex_match("AB7", *re));  // no icase flag

    // The pattern is shown with its quote and question mark escaped, then
    // the library's error code and text.
    size_t mark = OrbelTest::LogMark();
    re.reset(NewRegExpPattern("\"x(?"));
    EXPECT_EQ(re, nullptr);
    const std::string log = OrbelTest::LogSince(mark);
    EXPECT_THAT(
        log, ::testing::HasSubstr("[ERROR] Orbel.cpp:NewRegExpPattern(): std::regex( \\\"x(\\? ) "
                                  "caught: err["));
    EXPECT_THAT(log, ::testing::EndsWith("].\n"));
}

TEST(OrbelPureString, VerboseLinesAndVerdict) {
    size_t mark = OrbelTest::LogMark();
    EXPECT_TRUE(IsPureString(std::string("Plain text ~ 0x20..0x7E"), true));
    EXPECT_FALSE(IsPureString(std::string("x\x7f"), false));  // without verbose: nothing logged
    EXPECT_EQ(OrbelTest::LogSince(mark), "");

    // Verbose keeps scanning past the first bad byte and logs each one, then
    // the verdict; raw lines carry no prefix.
    const unsigned char text[] = {'a', 0x09, 'b', 0xC3, 0xA9, 0};
    EXPECT_FALSE(IsPureString(text, true));
    EXPECT_EQ(OrbelTest::LogSince(mark),
              "  idx(1) char[0x9] is not a printable char.\n"
              "  idx(3) char[0xC3] is not a printable char.\n"
              "  idx(4) char[0xA9] is not a printable char.\n"
              "Error: [a\\tb\xC3\xA9] is not pure string!\n");  // the tab escaped

    // The length-bounded form looks at the first len bytes only and does not
    // log the verdict line.
    mark = OrbelTest::LogMark();
    EXPECT_TRUE(_IsPureString("ab\x01", 2, true));
    EXPECT_FALSE(_IsPureString("ab\x01", 3, true));
    EXPECT_EQ(OrbelTest::LogSince(mark), "  idx(2) char[0x1] is not a printable char.\n");
}

// The checks read a word at a time: every byte that decides a verdict is
// tried at every place in and around a word, in texts shorter and longer
// than one, against a byte-by-byte reading of the same rule.
TEST(OrbelPureString, WordAtATimeChecksAgreeWithBytes) {
    const unsigned char deciding[] = {0x00, 0x01, 0x1F, 0x20, '"', '\\',
                                      0x7E, 0x7F, 0x80, 0xC3, 0xFF};
    for (size_t len = 1; len <= 19; ++len) {
        for (size_t at = 0; at < len; ++at) {
            for (unsigned char b : deciding) {
                std::string text(len, 'a');
                text[at] = static_cast<char>(b);
                const bool printable = b >= 0x20 && b <= 0x7E;
                SCOPED_TRACE(testing::Message() << "len " << len << " at " << at << " byte " << +b);
                EXPECT_EQ(IsPureString(text, false), printable);
                // Content unless a quote, a lone backslash or a control byte;
                // bytes from 0x7F up are UTF-8 matters decided by the full walk.
                const bool content = b >= 0x20 && b != '"' && b != '\\' && b < 0x80;
                if (b < 0x80) {
                    EXPECT_EQ(IsJsonStringContent(text), content);
                }
            }
        }
    }
}

TEST(OrbelMetaKey, SplitsTheLinkFormsAndRejectsOtherTexts) {
    using Split = std::tuple<std::string, std::string, bool>;  // name, target, is a link
    const std::pair<const char*, Split> cases[] = {
        {"&&Object Status &&/redfish/v1/Systems/1/Status",
         {"Status", "&&/redfish/v1/Systems/1/Status", false}},
        {"&&ObjectRef Manager /redfish/v1/Managers/1", {"Manager", "/redfish/v1/Managers/1", true}},
        {"&&Array &&/x/Members", {"", "&&/x/Members", false}},
        {"&&ArraySimple Names &&/x/Names", {"Names", "&&/x/Names", false}},
        {"&&ObjectRef Links/x", {"", "Links/x", true}},
        // A list element keeps its whole text, blanks included.
        {"&&ObjectRef /redfish/v1/A B", {"", "/redfish/v1/A B", true}},
        {"&&Object &&/a b c", {"", "&&/a b c", false}},
        // The target may itself hold blanks.
        {"&&Object Name has blanks", {"Name", "has blanks", false}},
    };
    for (const auto& [key, expected] : cases) {
        Split got{"unset", "unset", !std::get<2>(expected)};
        ASSERT_TRUE(IsACorvelMetaKey(key, &std::get<0>(got), &std::get<1>(got), &std::get<2>(got)))
            << key;
        EXPECT_EQ(got, expected) << key;
    }
    // Outputs are optional, each on its own.
    std::string target;
    EXPECT_TRUE(IsACorvelMetaKey("&&Array &&/x/Members", nullptr, &target, nullptr));
    EXPECT_EQ(target, "&&/x/Members");

    // Anything else is refused, and the outputs are left alone.
    for (const char* key : {"&&Object", "&&Object ", "&&ObjectRef Status ", "&&Objects Status x",
                            "&&RequestMethod GET", "&&ObjectStatus x", "Object Status x",
                            "&Object Status x", " &&Object Status x", "&&object Status x", "", "&&",
                            "&& Status x", "&&Array\t&&/x", "&&ArraySimple"}) {
        Split got{"keep", "keep", true};
        EXPECT_FALSE(IsACorvelMetaKey(key, &std::get<0>(got), &std::get<1>(got), &std::get<2>(got)))
            << "[" << key << "]";
        EXPECT_EQ(got, Split("keep", "keep", true)) << key;
    }
}

}  // namespace

TEST(OrbelSecrets, LastComponentDecidesAndExceptionsShowTheValue) {
    ExpectVerdicts(&IsSecretLikeName,
                   {"Password", "UserPassword", "/redfish/v1/Accounts/3/Password", "AuthKey",
                    "PassPhrase", "RefreshToken", "ClientSecret", "CipherCode",
                    "KeyUsage/PrivateKey"},
                   {"PasswordName", "KeyType", "KeyUsage", "KeyLength", "KeyCurveId",
                    "KeyPairAlgorithm", "Password/UserName", "Name", ""});
    EXPECT_STREQ(MaskSecretValue("Password", "Hunter2"), "******");
    EXPECT_STREQ(MaskSecretValue("UserName", "root"), "root");
}
