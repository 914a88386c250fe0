#include "server/PageCommand.h"

#include <gtest/gtest.h>

namespace velmora {
namespace {

using Kind = PageCommand::Kind;

TEST(PageCommandTest, NamesTheThreeCommands) {
    EXPECT_EQ(PageCommand::parse(R"({"type":"ping"})").kind, Kind::ping);
    EXPECT_EQ(PageCommand::parse(R"({"type":"stop"})").kind, Kind::stop);
    EXPECT_EQ(PageCommand::parse(R"({"type":"start","pass":"a.b"})").kind, Kind::start);
}

TEST(PageCommandTest, StartCarriesItsPassOnlyWhenItIsText) {
    EXPECT_EQ(PageCommand::parse(R"({"type":"start","pass":"a.b"})").pass, "a.b");
    EXPECT_EQ(PageCommand::parse(R"({"type":"start"})").pass, std::nullopt);
    EXPECT_EQ(PageCommand::parse(R"({"type":"start","pass":42})").pass, std::nullopt);
    EXPECT_EQ(PageCommand::parse(R"({"type":"start","pass":null})").pass, std::nullopt);
}

TEST(PageCommandTest, NotAnObjectWithAStringTypeIsMalformed) {
    for (const char* text : {"{}", "[]", "42", "{", "", "null", R"({"type": 5})",
                             R"({"type": null})", R"("ping")", R"({"Type":"ping"})"}) {
        EXPECT_EQ(PageCommand::parse(text).kind, Kind::malformed) << text;
    }
}

TEST(PageCommandTest, TypeIsComparedExactly) {
    auto command = PageCommand::parse(R"({"type":"PING"})");
    EXPECT_EQ(command.kind, Kind::unknownType);
    EXPECT_EQ(command.type, "PING");
    EXPECT_EQ(PageCommand::parse(R"({"type":" ping"})").kind, Kind::unknownType);
}

TEST(PageCommandTest, InvalidTextNeverThrows) {
    std::string deep(70'000, '[');
    EXPECT_EQ(PageCommand::parse(deep).kind, Kind::malformed);
    EXPECT_EQ(PageCommand::parse(std::string("{\"type\":\"\xff\"}")).kind, Kind::malformed);
    EXPECT_EQ(PageCommand::parse(std::string("{\"type\":\"ping\"}\0x", 17)).kind, Kind::malformed);
}

}  // namespace
}  // namespace velmora
