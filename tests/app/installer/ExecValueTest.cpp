#include "app/installer/ExecValue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace velmora {
namespace {

using AppInstaller::execArguments;
using AppInstaller::execValue;
using Arguments = std::vector<std::string>;

TEST(ExecValue, APlainPathStandsAsItIs) {
    EXPECT_EQ(execValue({"/opt/velmora-audio-helper/bin/velmora-audio-helper", "--no-welcome"}),
              "/opt/velmora-audio-helper/bin/velmora-audio-helper --no-welcome");
}

TEST(ExecValue, ReservedCharactersAreQuoted) {
    EXPECT_EQ(execValue({"/home/a b/helper"}), "\"/home/a b/helper\"");
    EXPECT_EQ(execValue({"/x/it's"}), "\"/x/it's\"");
    EXPECT_EQ(execValue({"/x/a;b"}), "\"/x/a;b\"");
    EXPECT_EQ(execValue({"/x/~a"}), "\"/x/~a\"");
    EXPECT_EQ(execValue({""}), "\"\"");
}

// Inside quotes " ` $ and \ take a backslash; the string level then doubles every backslash.
TEST(ExecValue, QuotesBackticksDollarsAndBackslashesAreEscapedTwice) {
    EXPECT_EQ(execValue({"/x/a\"b"}), "\"/x/a\\\\\"b\"");
    EXPECT_EQ(execValue({"/x/a`b"}), "\"/x/a\\\\`b\"");
    EXPECT_EQ(execValue({"/x/a$b"}), "\"/x/a\\\\$b\"");
    EXPECT_EQ(execValue({"/x/a\\b"}), "\"/x/a\\\\\\\\b\"");
}

TEST(ExecValue, APercentSignIsDoubledQuotedOrNot) {
    EXPECT_EQ(execValue({"/x/100%"}), "/x/100%%");
    EXPECT_EQ(execValue({"/x/a b%c"}), "\"/x/a b%%c\"");
}

TEST(ExecValue, LineBreaksAndTabsAreEscapedAtTheStringLevel) {
    EXPECT_EQ(execValue({"/x/a\nb"}), "\"/x/a\\nb\"");
    EXPECT_EQ(execValue({"/x/a\tb"}), "\"/x/a\\tb\"");
}

TEST(ExecValue, ReadsBackWhatItWrites) {
    const Arguments tricky{"/home/Ann \"Q\" O'Neil/100% \\ `$HOME`/velmora-audio-helper",
                           "--no-welcome", "", "a\tb\nc"};
    EXPECT_EQ(execArguments(execValue(tricky)), tricky);
}

TEST(ExecValue, ReadingDropsFieldCodesAndRefusesBrokenValues) {
    EXPECT_EQ(execArguments("/usr/bin/app %U --flag"), (Arguments{"/usr/bin/app", "--flag"}));
    EXPECT_EQ(execArguments("  /usr/bin/app   x "), (Arguments{"/usr/bin/app", "x"}));
    EXPECT_EQ(execArguments("\"/usr/bin/app"), std::nullopt);
    EXPECT_EQ(execArguments("/usr/bin/app %"), std::nullopt);
    EXPECT_EQ(execArguments("/usr/bin/app %z"), std::nullopt);
    EXPECT_EQ(execArguments(""), Arguments{});
}

}  // namespace
}  // namespace velmora
