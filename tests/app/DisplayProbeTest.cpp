#include "app/DisplayProbe.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <stdexcept>

namespace velmora {
namespace {

// A listening socket, local or on 127.0.0.1, standing in for a display server.
class Listener {
  public:
    explicit Listener(const std::filesystem::path& path) {
        descriptor_ = ::socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        if (::bind(descriptor_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            ::listen(descriptor_, 4) != 0) {
            throw std::runtime_error("cannot listen on " + path.string());
        }
    }
    // On a port the system picks, on the loopback address.
    Listener() {
        descriptor_ = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        if (::bind(descriptor_, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
            ::listen(descriptor_, 4) != 0 ||
            ::getsockname(descriptor_, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
            throw std::runtime_error("cannot listen on the loopback address");
        }
        port_ = ntohs(address.sin_port);
    }
    ~Listener() { ::close(descriptor_); }
    int port() const { return port_; }

  private:
    int descriptor_ = -1;
    int port_ = 0;
};

class DisplayProbeTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string pattern = std::filesystem::temp_directory_path() / "velmora-probe-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        folder_ = pattern;
    }
    void TearDown() override { std::filesystem::remove_all(folder_); }

    DisplayProbe::Verdict probe() {
        return DisplayProbe::probe(
            [this](const char* name) -> const char* {
                auto found = environment_.find(name);
                return found == environment_.end() ? nullptr : found->second.c_str();
            },
            folder_);
    }

    std::filesystem::path folder_;
    std::map<std::string, std::string> environment_;
};

TEST_F(DisplayProbeTest, ALocalXServerAnswersOnItsSocketAndAMissingOneDoesNot) {
    Listener server(folder_ / "X7");
    EXPECT_EQ(DisplayProbe::problemWithXDisplay(":7", folder_), std::nullopt);
    EXPECT_EQ(DisplayProbe::problemWithXDisplay(":7.0", folder_), std::nullopt);
    EXPECT_EQ(DisplayProbe::problemWithXDisplay("unix:7", folder_), std::nullopt);
    std::optional<std::string> missing = DisplayProbe::problemWithXDisplay(":8", folder_);
    ASSERT_TRUE(missing);
    EXPECT_EQ(*missing, std::strerror(ENOENT));
}

TEST_F(DisplayProbeTest, AnXServerOverTcpAnswersOnSixThousandPlusItsNumber) {
    std::string display;
    {
        Listener server;
        ASSERT_GT(server.port(), 6000);
        display = "127.0.0.1:" + std::to_string(server.port() - 6000);
        EXPECT_EQ(DisplayProbe::problemWithXDisplay(display, folder_), std::nullopt);
        EXPECT_EQ(DisplayProbe::problemWithXDisplay("tcp/" + display + ".0", folder_),
                  std::nullopt);
    }
    EXPECT_EQ(DisplayProbe::problemWithXDisplay(display, folder_), std::strerror(ECONNREFUSED));
}

TEST_F(DisplayProbeTest, WhatIsNotADisplayNameIsSaidToBeOne) {
    EXPECT_EQ(DisplayProbe::problemWithXDisplay("nonsense", folder_), "it is not a display name");
    EXPECT_EQ(DisplayProbe::problemWithXDisplay(":x", folder_), "it is not a display name");
}

TEST_F(DisplayProbeTest, AWaylandCompositorIsFoundInTheRuntimeFolderOrByItsPath) {
    Listener compositor(folder_ / "wayland-3");
    std::string runtime = folder_.string();
    EXPECT_EQ(DisplayProbe::problemWithWaylandDisplay("wayland-3", runtime.c_str()), std::nullopt);
    EXPECT_EQ(DisplayProbe::problemWithWaylandDisplay((folder_ / "wayland-3").string(), nullptr),
              std::nullopt);
    EXPECT_EQ(DisplayProbe::problemWithWaylandDisplay("wayland-4", runtime.c_str()),
              std::strerror(ENOENT));
    EXPECT_EQ(DisplayProbe::problemWithWaylandDisplay("wayland-3", nullptr),
              "XDG_RUNTIME_DIR is not set, so its socket cannot be found");
}

TEST_F(DisplayProbeTest, AStaleXDisplayBesideAWorkingCompositorSendsQtToWayland) {
    Listener compositor(folder_ / "wayland-0");
    environment_ = {{"DISPLAY", ":97"},
                    {"WAYLAND_DISPLAY", "wayland-0"},
                    {"XDG_RUNTIME_DIR", folder_.string()}};
    DisplayProbe::Verdict verdict = probe();
    EXPECT_TRUE(verdict.reachable);
    EXPECT_EQ(verdict.platform, "wayland");
}

TEST_F(DisplayProbeTest, AnXDisplayAloneSendsQtToX) {
    Listener server(folder_ / "X0");
    environment_ = {{"DISPLAY", ":0"}};
    DisplayProbe::Verdict verdict = probe();
    EXPECT_TRUE(verdict.reachable);
    EXPECT_EQ(verdict.platform, "xcb");
}

TEST_F(DisplayProbeTest, WhenBothAnswerQtKeepsItsOwnChoice) {
    Listener server(folder_ / "X0");
    Listener compositor(folder_ / "wayland-0");
    environment_ = {
        {"DISPLAY", ":0"}, {"WAYLAND_DISPLAY", "wayland-0"}, {"XDG_RUNTIME_DIR", folder_.string()}};
    DisplayProbe::Verdict verdict = probe();
    EXPECT_TRUE(verdict.reachable);
    EXPECT_EQ(verdict.platform, "");
}

TEST_F(DisplayProbeTest, WhenNothingAnswersTheProblemNamesEachDisplay) {
    environment_ = {{"DISPLAY", ":97"},
                    {"WAYLAND_DISPLAY", "wayland-9"},
                    {"XDG_RUNTIME_DIR", folder_.string()}};
    DisplayProbe::Verdict verdict = probe();
    EXPECT_FALSE(verdict.reachable);
    EXPECT_EQ(
        verdict.problem,
        "No display can be reached (the X display :97: " + std::string(std::strerror(ENOENT)) +
            "; the Wayland display wayland-9: " + std::strerror(ENOENT) + ")");
}

TEST_F(DisplayProbeTest, APlatformNamedOutrightIsTheOnlyOneProbed) {
    Listener compositor(folder_ / "wayland-0");
    environment_ = {{"DISPLAY", ":97"},
                    {"WAYLAND_DISPLAY", "wayland-0"},
                    {"XDG_RUNTIME_DIR", folder_.string()},
                    {"QT_QPA_PLATFORM", "xcb"}};
    EXPECT_FALSE(probe().reachable);
    environment_["QT_QPA_PLATFORM"] = "xcb;wayland";
    EXPECT_TRUE(probe().reachable);
    // Platforms without a display server need nothing to answer.
    environment_["QT_QPA_PLATFORM"] = "offscreen";
    EXPECT_TRUE(probe().reachable);
    EXPECT_EQ(probe().platform, "");
}

TEST_F(DisplayProbeTest, AHandedOverWaylandSocketCountsAsReachable) {
    environment_ = {{"WAYLAND_SOCKET", "5"}};
    EXPECT_TRUE(probe().reachable);
}

}  // namespace
}  // namespace velmora
