// Splitting of option values, index declarations and paths.
#include <gtest/gtest.h>

#include "protobuf_api/protobuf_util.h"

namespace {

using PROTOBUF_UTIL::getIndexInfo;
using PROTOBUF_UTIL::isWhitespace;
using PROTOBUF_UTIL::TokenSplit;
using PROTOBUF_UTIL::trim;
using Tokens = std::vector<std::string>;

Tokens Split(const std::string& source, const std::string& delimiter = ",") {
    Tokens tokens;
    TokenSplit(source, delimiter, tokens);
    return tokens;
}

TEST(IsWhitespace, MatchesTheClassicSpaceClass) {
    for (char c : std::string(" \t\n\v\f\r")) EXPECT_TRUE(isWhitespace(c)) << int(c);
    for (char c : std::string("a0,.()_\x7f")) EXPECT_FALSE(isWhitespace(c)) << int(c);
    EXPECT_FALSE(isWhitespace('\0'));
    // Bytes above 0x7f are taken as unsigned, never as negative values.
    EXPECT_FALSE(isWhitespace(static_cast<char>(0xa0)));
    EXPECT_FALSE(isWhitespace(static_cast<char>(0xff)));
}

TEST(Trim, StripsBothEndsAndKeepsInnerSpace) {
    std::string s = "  x y \t";
    EXPECT_EQ(&trim(s), &s);
    EXPECT_EQ(s, "x y");
}

TEST(Trim, AllBlanksGiveTheEmptyString) {
    std::string s = "   ";
    EXPECT_EQ(trim(s), "");
    std::string empty;
    EXPECT_EQ(trim(empty), "");
}

TEST(Trim, LeavesTrimmedTextAlone) {
    std::string s = "a b";
    EXPECT_EQ(trim(s), "a b");
    std::string lead = "\n\r\fa";
    EXPECT_EQ(trim(lead), "a");
    std::string tail = "a\v";
    EXPECT_EQ(trim(tail), "a");
}

TEST(TokenSplit, EmptySourceGivesNoToken) { EXPECT_EQ(Split(""), Tokens{}); }

TEST(TokenSplit, BlankSourceGivesOneEmptyToken) { EXPECT_EQ(Split(" "), Tokens{""}); }

TEST(TokenSplit, TokensAreTrimmed) { EXPECT_EQ(Split("a, b"), (Tokens{"a", "b"})); }

TEST(TokenSplit, EmptyTokenBetweenDelimitersIsKept) { EXPECT_EQ(Split("a,,b"), (Tokens{"a", "", "b"})); }

TEST(TokenSplit, LeadingDelimiterGivesAnEmptyToken) { EXPECT_EQ(Split(",a"), (Tokens{"", "a"})); }

TEST(TokenSplit, TrailingDelimiterAddsNoToken) { EXPECT_EQ(Split("a,b,"), (Tokens{"a", "b"})); }

TEST(TokenSplit, BlankTailAddsOneEmptyToken) { EXPECT_EQ(Split("a, "), (Tokens{"a", ""})); }

TEST(TokenSplit, SingleDelimiterGivesOneEmptyToken) { EXPECT_EQ(Split(","), Tokens{""}); }

TEST(TokenSplit, NoDelimiterGivesTheWholeTrimmedText) { EXPECT_EQ(Split("  abc "), Tokens{"abc"}); }

TEST(TokenSplit, DelimiterIsASetOfCharacters) {
    EXPECT_EQ(Split("a.b,c", ",."), (Tokens{"a", "b", "c"}));
    // Not a two-character separator: ",." splits at each character.
    EXPECT_EQ(Split("a,.b", ",."), (Tokens{"a", "", "b"}));
}

TEST(TokenSplit, DottedPaths) { EXPECT_EQ(Split("stats.deep.v", "."), (Tokens{"stats", "deep", "v"})); }

TEST(TokenSplit, AppendsAfterExistingTokens) {
    Tokens tokens{"x", "y"};
    TokenSplit("a,b", ",", tokens);
    EXPECT_EQ(tokens, (Tokens{"x", "y", "a", "b"}));
}

TEST(TokenSplit, EmptyDelimiterSetNeverSplits) { EXPECT_EQ(Split(" a,b ", ""), Tokens{"a,b"}); }

struct IndexCase {
    std::string source;
    int result;
    std::string name;    // expected indexName afterwards
    std::string fields;  // expected indexFields afterwards
};

class GetIndexInfoTest : public ::testing::TestWithParam<IndexCase> {};

TEST_P(GetIndexInfoTest, SplitsNameAndFields) {
    const IndexCase& c = GetParam();
    std::string name = "old-name";
    std::string fields = "old-fields";
    EXPECT_EQ(getIndexInfo(c.source, name, fields), c.result);
    EXPECT_EQ(name, c.name);
    EXPECT_EQ(fields, c.fields);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, GetIndexInfoTest,
    ::testing::Values(IndexCase{"idx(a,b)", 0, "idx", "a,b"},             //
                      IndexCase{"idx()", 0, "idx", ""},                   //
                      IndexCase{"(a)", 0, "", "a"},                       //
                      IndexCase{"idx( a , b )", 0, "idx", " a , b "},     // nothing trimmed
                      IndexCase{" idx ( a ) ", -3, " idx ", "old-fields"},  // ")" not last
                      IndexCase{"idx(a)b)", -3, "idx", "old-fields"},     // name already set
                      IndexCase{"idx(a", -3, "idx", "old-fields"},        // no ")"
                      IndexCase{"idx)(", -3, "idx)", "old-fields"},       // ")" before "("
                      IndexCase{"idx", -2, "old-name", "old-fields"},     //
                      IndexCase{"idx)", -2, "old-name", "old-fields"},    //
                      IndexCase{"", -1, "old-name", "old-fields"}));

}  // namespace
