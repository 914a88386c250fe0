#include "access/OriginText.h"

#include <gtest/gtest.h>

namespace velmora {
namespace {

TEST(OriginText, TrimWhitespaceRemovesSpacesTabsAndUnicodeSpaces) {
    EXPECT_EQ(OriginText::trimWhitespace("\t \xC2\xA0"
                                         "a b\xE3\x80\x80 "),
              "a b");
}

TEST(OriginText, TrimWhitespaceKeepsLineBreaks) {
    EXPECT_EQ(OriginText::trimWhitespace(" \na\r "), "\na\r");
    EXPECT_EQ(OriginText::trimWhitespace("a\xE2\x80\xA8"), "a\xE2\x80\xA8");
}

TEST(OriginText, TrimWhitespaceAndNewlinesRemovesBoth) {
    EXPECT_EQ(OriginText::trimWhitespaceAndNewlines(" \r\n\ta\xE2\x80\xA8\xC2\x85 \n"), "a");
}

TEST(OriginText, LowercasedChangesOnlyAsciiLetters) {
    EXPECT_EQ(OriginText::lowercased("HTTPS://App.Example:80/\xC3\x84"),
              "https://app.example:80/\xC3\x84");
}

TEST(OriginText, WithoutTrailingSlashesRemovesTheWholeRun) {
    EXPECT_EQ(OriginText::withoutTrailingSlashes("a//b///"), "a//b");
    EXPECT_EQ(OriginText::withoutTrailingSlashes("///"), "");
}

}  // namespace
}  // namespace velmora
