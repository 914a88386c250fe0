#include "PrivateDesktop.h"

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <thread>

namespace velmora::testing {
namespace {

bool waitForFile(const std::filesystem::path& file, std::chrono::seconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (std::filesystem::exists(file)) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
}

std::filesystem::path lockFile(int displayNumber) {
    return "/tmp/.X" + std::to_string(displayNumber) + "-lock";
}

// True once `server` holds the display: its socket is there and the lock file names its pid.
// False when it exits first (another server took the number) or the time runs out.
bool waitForOwnDisplay(SoundServer::Process& server, int displayNumber,
                       std::chrono::seconds timeout) {
    std::filesystem::path socket = "/tmp/.X11-unix/X" + std::to_string(displayNumber);
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline && server.isRunning()) {
        std::ifstream lock(lockFile(displayNumber));
        long owner = 0;
        if (std::filesystem::exists(socket) && (lock >> owner) && owner == server.pid()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
}

std::string basicEnvironment(const char* name, const char* fallback) {
    const char* value = std::getenv(name);
    return std::string(name) + "=" + (value != nullptr ? value : fallback);
}

}  // namespace

PrivateDesktop::PrivateDesktop() {
    std::string pattern = std::filesystem::temp_directory_path() / "velmora-desktop-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    folder_ = pattern;
    std::filesystem::create_directories(folder_ / "runtime");
    std::filesystem::permissions(folder_ / "runtime", std::filesystem::perms::owner_all);

    // A display number no other X server holds, whoever else runs tests here. Two desktops
    // starting at once may pick the same free number; the X lock file names the one that won,
    // and the other moves on to the next number.
    displayNumber_ = 200 + static_cast<int>(::getpid() % 700);
    std::vector<std::string> base = {basicEnvironment("PATH", "/usr/bin:/bin")};
    for (int attempt = 0; attempt < 20 && !display_; ++attempt, ++displayNumber_) {
        while (std::filesystem::exists(lockFile(displayNumber_)) ||
               std::filesystem::exists("/tmp/.X11-unix/X" + std::to_string(displayNumber_))) {
            ++displayNumber_;
        }
        // -noreset: a server that resets when its last client leaves refuses connections
        // meanwhile, and the tests' short-lived X clients come and go all the time.
        auto server = SoundServer::Process::spawn(
            {"Xvfb", display(), "-nolisten", "tcp", "-noreset", "-screen", "0", "1024x768x24"},
            base, folder_ / "xvfb.log");
        if (waitForOwnDisplay(*server, displayNumber_, std::chrono::seconds(30))) {
            display_ = std::move(server);
            break;
        }
    }
    if (!display_) throw std::runtime_error("Xvfb did not start: " + readLog("xvfb"));
    bus_ = SoundServer::Process::spawn(
        {"dbus-daemon", "--session", "--nofork", "--nopidfile", "--address=" + busAddress()}, base,
        folder_ / "bus.log");
    if (!waitForFile(folder_ / "bus", std::chrono::seconds(30))) {
        throw std::runtime_error("dbus-daemon did not start: " + readLog("bus"));
    }
}

PrivateDesktop::~PrivateDesktop() {
    bus_.reset();
    display_.reset();
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
}

std::vector<std::string> PrivateDesktop::environment(const std::vector<std::string>& extra) const {
    std::vector<std::string> environment = {
        basicEnvironment("PATH", "/usr/bin:/bin"),
        "HOME=" + folder_.string(),
        "DISPLAY=" + display(),
        "DBUS_SESSION_BUS_ADDRESS=" + busAddress(),
        "XDG_CONFIG_HOME=" + (folder_ / "config").string(),
        "XDG_STATE_HOME=" + (folder_ / "state").string(),
        "XDG_RUNTIME_DIR=" + (folder_ / "runtime").string(),
    };
    environment.insert(environment.end(), extra.begin(), extra.end());
    return environment;
}

void PrivateDesktop::saveHelperPort(int port) const {
    std::filesystem::create_directories(folder_ / "config" / "velmora-audio-helper");
    std::ofstream(folder_ / "config" / "velmora-audio-helper" / "settings.json")
        << "{\"port\": " << port << ", \"hasShownWelcome\": true}\n";
}

std::unique_ptr<SoundServer::Process> PrivateDesktop::launch(
    const std::vector<std::string>& argv, const std::vector<std::string>& extraEnvironment,
    const std::string& name) const {
    return SoundServer::Process::spawn(argv, environment(extraEnvironment),
                                       folder_ / (name + ".log"));
}

std::string PrivateDesktop::readLog(const std::string& name) const {
    std::ifstream stream(folder_ / (name + ".log"));
    return std::string(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
}

}  // namespace velmora::testing
