#include "app/ListenCommand.h"

#include <gtest/gtest.h>

#include <sstream>

namespace velmora {
namespace {

int listen(const std::vector<std::string>& args, std::string& errText) {
    std::ostringstream out;
    std::ostringstream err;
    int code = runListenCommand(args, out, err);
    errText = err.str();
    return code;
}

TEST(ListenCommand, RejectsUnknownOptionsWithUsage) {
    std::string err;
    EXPECT_EQ(listen({"--loud", "yes"}, err), 2);
    EXPECT_NE(err.find("unknown option --loud"), std::string::npos);
    EXPECT_NE(err.find("usage:"), std::string::npos);
}

TEST(ListenCommand, RejectsAnOptionWithoutItsValue) {
    std::string err;
    EXPECT_EQ(listen({"--seconds"}, err), 2);
    EXPECT_NE(err.find("--seconds needs a value"), std::string::npos);
}

TEST(ListenCommand, RejectsBadNumbers) {
    std::string err;
    EXPECT_EQ(listen({"--seconds", "-1"}, err), 2);
    EXPECT_EQ(listen({"--seconds", "5x"}, err), 2);
    EXPECT_EQ(listen({"--port", "70000"}, err), 2);
    EXPECT_NE(err.find("a port 1-65535"), std::string::npos);
}

TEST(ListenCommand, RejectsAKeyFileItCannotRead) {
    std::string err;
    EXPECT_EQ(listen({"--key", "/nonexistent/key.pem"}, err), 2);
    EXPECT_NE(err.find("cannot read the pass key"), std::string::npos);
}

TEST(ListenCommand, ReportsAHelperThatIsNotRunning) {
    std::string err;
    // Port 1 is privileged and never ours: the connection is refused at once.
    EXPECT_EQ(listen({"--port", "1", "--seconds", "1"}, err), 1);
    EXPECT_NE(err.find("is the helper running on port 1?"), std::string::npos);
}

}  // namespace
}  // namespace velmora
