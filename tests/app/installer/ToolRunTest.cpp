#include "app/installer/ToolRun.h"

#include <sys/stat.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "app/installer/InstallerError.h"
#include "config/TemporaryFolder.h"

namespace velmora {
namespace {

using testing::TemporaryFolder;
using testing::writeText;

std::filesystem::path writeTool(const TemporaryFolder& folder, const std::string& name,
                                const std::string& script) {
    std::filesystem::path tool = folder / name;
    writeText(tool, "#!/bin/sh\n" + script);
    ::chmod(tool.c_str(), 0755);
    return tool;
}

InstallerError failureOf(const std::string& path, const std::vector<std::string>& arguments) {
    try {
        AppInstaller::run(path, arguments);
    } catch (const InstallerError& error) {
        return error;
    }
    ADD_FAILURE() << path << " did not fail";
    return InstallerError("");
}

TEST(ToolRun, SucceedsQuietlyWhenTheToolExitsWithZero) {
    TemporaryFolder folder;
    writeText(folder / "from", "content");
    AppInstaller::run("/bin/cp", {"-a", (folder / "from").string(), (folder / "to").string()});
    EXPECT_EQ(testing::readText(folder / "to"), "content");
}

TEST(ToolRun, FailingToolWithEmptyErrorOutputYieldsItsPathAndFailed) {
    TemporaryFolder folder;
    std::filesystem::path tool = writeTool(folder, "silent-copy", "exit 3\n");
    InstallerError error = failureOf(tool.string(), {"a", "b"});
    EXPECT_EQ(std::string(error.what()), tool.string() + " failed");
    EXPECT_EQ(error.code(), 3);
}

TEST(ToolRun, FailingToolWithOnlyBlankErrorOutputCountsAsEmpty) {
    TemporaryFolder folder;
    std::filesystem::path tool = writeTool(folder, "blank", "printf ' \\n\\t\\n' >&2\nexit 1\n");
    EXPECT_EQ(std::string(failureOf(tool.string(), {}).what()), tool.string() + " failed");
}

TEST(ToolRun, FailureTextIsTheToolsErrorOutputTrimmed) {
    TemporaryFolder folder;
    std::filesystem::path tool =
        writeTool(folder, "noisy", "printf '\\n  disk full: no space left\\n\\n' >&2\nexit 4\n");
    InstallerError error = failureOf(tool.string(), {});
    EXPECT_EQ(std::string(error.what()), "disk full: no space left");
    EXPECT_EQ(error.code(), 4);
}

TEST(ToolRun, RealCopyToolFailureCarriesItsOwnMessage) {
    TemporaryFolder folder;
    const std::string missing = (folder / "missing").string();
    InstallerError error = failureOf("/bin/cp", {"-a", missing, (folder / "to").string()});
    // Debian 12's cp (coreutils 9.1) names itself as invoked ("/bin/cp: ..."), Debian 13's (9.7)
    // by its bare name ("cp: ..."); what it says after that is the same.
    EXPECT_THAT(error.what(), ::testing::MatchesRegex("(/bin/)?cp: cannot stat '" + missing +
                                                      "': No such file or directory"));
    EXPECT_NE(error.code(), 0);
}

TEST(ToolRun, ToolThatCannotStartIsThrown) {
    TemporaryFolder folder;
    InstallerError error = failureOf((folder / "no-such-tool").string(), {});
    EXPECT_THAT(error.what(), ::testing::HasSubstr("Couldn't start"));
}

}  // namespace
}  // namespace velmora
