#include "support/SoundServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <random>
#include <sstream>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace velmora {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto readinessTimeout = 20s;
constexpr auto pollInterval = 25ms;

std::optional<std::filesystem::path> findOnPath(const std::string& name) {
    if (name.find('/') != std::string::npos) {
        return std::filesystem::path(name);
    }
    const char* path = std::getenv("PATH");
    std::stringstream folders(path != nullptr ? path : "/usr/bin:/bin");
    std::string folder;
    while (std::getline(folders, folder, ':')) {
        if (folder.empty()) {
            continue;
        }
        std::filesystem::path candidate = std::filesystem::path(folder) / name;
        if (::access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
    }
    return std::nullopt;
}

// A port that was free a moment ago; the server binds it right after.
int freeLoopbackPort() {
    const int socket = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    if (socket < 0 || ::bind(socket, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        ::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        throw std::runtime_error("no free loopback port");
    }
    ::close(socket);
    return ntohs(address.sin_port);
}

std::string readFile(const std::filesystem::path& path) {
    std::ifstream stream(path, std::ios::binary);
    std::stringstream contents;
    contents << stream.rdbuf();
    return contents.str();
}

std::string trimmed(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ' || text.back() == '\r')) {
        text.pop_back();
    }
    return text;
}

bool waitUntil(std::chrono::milliseconds timeout, const std::function<bool()>& condition) {
    const auto deadline = Clock::now() + timeout;
    while (true) {
        if (condition()) {
            return true;
        }
        if (Clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(pollInterval);
    }
}

bool isOverriddenKey(const std::string& entry) {
    static const char* prefixes[] = {"XDG_",     "HOME=",    "PULSE_",           "PIPEWIRE_",
                                     "DISPLAY=", "WAYLAND_", "DBUS_SESSION_BUS_"};
    for (const char* prefix : prefixes) {
        if (entry.rfind(prefix, 0) == 0) {
            return true;
        }
    }
    return false;
}

std::vector<std::string> sinkNames(SoundServer& server) {
    std::vector<std::string> names;
    auto listed = server.run({"pactl", "list", "short", "sinks"}, 5000ms);
    std::stringstream lines(listed.output);
    std::string line;
    while (std::getline(lines, line)) {
        std::stringstream fields(line);
        std::string index;
        std::string name;
        if (std::getline(fields, index, '\t') && std::getline(fields, name, '\t')) {
            names.push_back(name);
        }
    }
    return names;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Process

std::unique_ptr<SoundServer::Process> SoundServer::Process::spawn(
    const std::vector<std::string>& argv, const std::vector<std::string>& environment,
    const std::filesystem::path& outputFile) {
    if (argv.empty()) {
        throw std::invalid_argument("no command to start");
    }
    auto executable = findOnPath(argv[0]);
    if (!executable) {
        throw std::runtime_error(argv[0] + " is not on PATH");
    }
    // Everything the child needs is prepared before fork: after it, only async-signal-safe calls.
    std::string executablePath = executable->string();
    std::string outputPath = outputFile.string();
    std::vector<char*> arguments;
    for (const auto& argument : argv) {
        arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    std::vector<char*> variables;
    for (const auto& variable : environment) {
        variables.push_back(const_cast<char*>(variable.c_str()));
    }
    variables.push_back(nullptr);
    const pid_t parent = ::getpid();

    const pid_t pid = ::fork();
    if (pid < 0) {
        throw std::runtime_error(std::string("fork failed: ") + std::strerror(errno));
    }
    if (pid == 0) {
        ::setpgid(0, 0);
        // Dies with the test process even when that one crashes.
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent) {
            ::_exit(127);
        }
        int input = ::open("/dev/null", O_RDONLY);
        int output = ::open(outputPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        if (input < 0 || output < 0) {
            ::_exit(127);
        }
        ::dup2(input, STDIN_FILENO);
        ::dup2(output, STDOUT_FILENO);
        ::dup2(output, STDERR_FILENO);
        ::close_range(3, ~0U, 0);
        ::execve(executablePath.c_str(), arguments.data(), variables.data());
        ::_exit(127);
    }
    return std::unique_ptr<Process>(new Process(pid));
}

SoundServer::Process::~Process() {
    terminate();
}

bool SoundServer::Process::isRunning() {
    return !waitFor(0ms).has_value();
}

std::optional<int> SoundServer::Process::waitFor(std::chrono::milliseconds timeout) {
    if (exitStatus_) {
        return exitStatus_;
    }
    const auto deadline = Clock::now() + timeout;
    while (true) {
        int status = 0;
        const pid_t result = ::waitpid(pid_, &status, WNOHANG);
        if (result == pid_ || (result < 0 && errno == ECHILD)) {
            exitStatus_ = (result == pid_ && WIFEXITED(status)) ? WEXITSTATUS(status) : -1;
            return exitStatus_;
        }
        if (Clock::now() >= deadline) {
            return std::nullopt;
        }
        std::this_thread::sleep_for(5ms);
    }
}

void SoundServer::Process::terminate(std::chrono::milliseconds grace) {
    if (exitStatus_) {
        return;
    }
    ::kill(pid_, SIGTERM);
    if (!waitFor(grace)) {
        kill();
    }
}

void SoundServer::Process::kill() {
    if (exitStatus_) {
        return;
    }
    ::kill(pid_, SIGKILL);
    // SIGKILL cannot be ignored; the bound only guards against an uninterruptible sleep.
    waitFor(10000ms);
}

// ---------------------------------------------------------------------------------------------
// SoundServer

bool SoundServer::isAvailable(Kind kind, std::string* whyNot) {
    std::vector<std::string> needed = {"pactl", "pacat"};
    if (kind == Kind::pulseAudio) {
        needed.push_back("pulseaudio");
    } else {
        needed.insert(needed.end(), {"pipewire", "wireplumber", "pipewire-pulse", "dbus-daemon"});
    }
    for (const auto& name : needed) {
        if (!findOnPath(name)) {
            if (whyNot != nullptr) {
                *whyNot = kindName(kind) + " tests need " + name + ", which is not on PATH";
            }
            return false;
        }
    }
    return true;
}

std::string SoundServer::kindName(Kind kind) {
    return kind == Kind::pulseAudio ? "PulseAudio" : "PipeWire";
}

std::unique_ptr<SoundServer> SoundServer::start(Kind kind, Options options) {
    std::string whyNot;
    if (!isAvailable(kind, &whyNot)) {
        throw std::runtime_error(whyNot);
    }
    // Short base: the socket path must fit in sockaddr_un.
    std::string pattern = "/tmp/velmora-sound-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error(std::string("mkdtemp failed: ") + std::strerror(errno));
    }
    std::unique_ptr<SoundServer> server(new SoundServer(kind, options, pattern));
    server->launchDaemons();
    server->waitUntilReady();
    server->createDevices();
    return server;
}

SoundServer::SoundServer(Kind kind, Options options, std::filesystem::path directory)
    : kind_(kind), options_(options), directory_(std::move(directory)) {
    for (const char* folder : {"runtime", "home", "config", "state", "data"}) {
        std::filesystem::create_directories(directory_ / folder);
    }
    std::filesystem::permissions(directory_ / "runtime", std::filesystem::perms::owner_all);
    if (options_.requireCookie) {
        if (kind_ != Kind::pulseAudio) {
            throw std::invalid_argument("only the PulseAudio test server can require a cookie");
        }
        cookiePort_ = freeLoopbackPort();
        std::random_device random;
        std::string cookie(256, '\0');
        for (auto& byte : cookie) {
            byte = static_cast<char>(random() & 0xff);
        }
        std::ofstream(directory_ / "cookie", std::ios::binary) << cookie;
    }
    if (kind_ == Kind::pulseAudio) {
        writePulseAudioConfig();
    } else {
        writePipeWireConfig();
    }
}

SoundServer::~SoundServer() {
    stopAll();
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

std::string SoundServer::serverAddress() const {
    if (options_.requireCookie) {
        return "tcp:127.0.0.1:" + std::to_string(cookiePort_);
    }
    if (kind_ == Kind::pulseAudio) {
        return "unix:" + (directory_ / "native").string();
    }
    return "unix:" + (directory_ / "runtime" / "pulse" / "native").string();
}

std::vector<std::string> SoundServer::environment() const {
    std::vector<std::string> result;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        if (!isOverriddenKey(*entry)) {
            result.emplace_back(*entry);
        }
    }
    result.push_back("HOME=" + (directory_ / "home").string());
    result.push_back("XDG_RUNTIME_DIR=" + (directory_ / "runtime").string());
    result.push_back("XDG_CONFIG_HOME=" + (directory_ / "config").string());
    result.push_back("XDG_STATE_HOME=" + (directory_ / "state").string());
    result.push_back("XDG_DATA_HOME=" + (directory_ / "data").string());
    result.push_back("PULSE_SERVER=" + serverAddress());
    if (options_.requireCookie) {
        result.push_back("PULSE_COOKIE=" + (directory_ / "cookie").string());
    }
    if (kind_ == Kind::pipeWire) {
        result.push_back("DBUS_SESSION_BUS_ADDRESS=unix:path=" +
                         (directory_ / "runtime" / "bus").string());
    }
    return result;
}

void SoundServer::writePulseAudioConfig() {
    std::ofstream config(directory_ / "default.pa");
    if (options_.requireCookie) {
        // Over a local socket the server trusts any client of its own user, so the refusal
        // needs TCP, where only the cookie counts.
        config << "load-module module-native-protocol-tcp listen=127.0.0.1 port=" << cookiePort_
               << " auth-anonymous=0 auth-cookie-enabled=1 auth-cookie="
               << (directory_ / "cookie").string() << "\n";
    } else {
        config << "load-module module-native-protocol-unix auth-anonymous=1 socket="
               << (directory_ / "native").string() << "\n";
    }
    config << "load-module module-null-sink sink_name=" << speakers << " rate=48000 channels=2\n"
           << "load-module module-null-sink sink_name=" << headphones << " rate=44100 channels=2\n"
           << "load-module module-null-source source_name=" << microphone
           << " rate=48000 channels=1\n"
           << "set-default-sink " << speakers << "\n";
}

void SoundServer::writePipeWireConfig() {
    // The private graph must not open the machine's real devices.
    const auto main = directory_ / "config" / "wireplumber" / "main.lua.d";
    const auto bluetooth = directory_ / "config" / "wireplumber" / "bluetooth.lua.d";
    std::filesystem::create_directories(main);
    std::filesystem::create_directories(bluetooth);
    std::ofstream(main / "51-private-test-server.lua") << "alsa_monitor.enabled = false\n"
                                                          "v4l2_monitor.enabled = false\n"
                                                          "libcamera_monitor.enabled = false\n";
    std::ofstream(bluetooth / "51-private-test-server.lua") << "bluez_monitor.enabled = false\n";
    // WirePlumber 0.5 (Debian 13) reads no Lua configuration; it turns monitors off by profile.
    // Its snap access policy goes too: it keys on the client's own properties, so the tests'
    // stand-in snaps would be cut off from the graph, while a real snap is named by the server.
    const auto fragments = directory_ / "config" / "wireplumber" / "wireplumber.conf.d";
    std::filesystem::create_directories(fragments);
    std::ofstream(fragments / "51-private-test-server.conf") << R"(wireplumber.profiles = {
  main = {
    monitor.alsa = disabled
    monitor.alsa-midi = disabled
    monitor.bluez = disabled
    monitor.bluez-midi = disabled
    monitor.v4l2 = disabled
    monitor.libcamera = disabled
    script.client.access-snap = disabled
  }
}
)";
}

void SoundServer::launchDaemons() {
    const auto env = environment();
    if (kind_ == Kind::pulseAudio) {
        daemons_.push_back(Process::spawn(
            {"pulseaudio", "-n", "--daemonize=no", "--exit-idle-time=-1", "--disallow-exit",
             "--use-pid-file=no", "--realtime=no", "--high-priority=no", "--log-target=stderr",
             "-F", (directory_ / "default.pa").string()},
            env, directory_ / "pulseaudio.log"));
        return;
    }
    const auto runtime = directory_ / "runtime";
    if (!bus_ || !bus_->isRunning()) {
        bus_ = Process::spawn({"dbus-daemon", "--session", "--nofork", "--nopidfile",
                               "--address=unix:path=" + (runtime / "bus").string()},
                              env, directory_ / "dbus.log");
        if (!waitUntil(5000ms, [&] { return std::filesystem::exists(runtime / "bus"); })) {
            fail("the private session bus did not start");
        }
    }
    std::error_code ignored;
    std::filesystem::remove(runtime / "pipewire-0", ignored);
    daemons_.push_back(Process::spawn({"pipewire"}, env, directory_ / "pipewire.log"));
    if (!waitUntil(5000ms, [&] { return std::filesystem::exists(runtime / "pipewire-0"); })) {
        fail("pipewire did not create its socket");
    }
    daemons_.push_back(Process::spawn({"wireplumber"}, env, directory_ / "wireplumber.log"));
    daemons_.push_back(Process::spawn({"pipewire-pulse"}, env, directory_ / "pipewire-pulse.log"));
}

void SoundServer::waitUntilReady() {
    const bool ready =
        waitUntil(std::chrono::duration_cast<std::chrono::milliseconds>(readinessTimeout), [&] {
            for (auto& daemon : daemons_) {
                if (!daemon->isRunning()) {
                    fail("a daemon exited during start-up");
                }
            }
            return run({"pactl", "info"}, 2000ms).succeeded();
        });
    if (!ready) {
        fail("the server did not answer pactl info in time");
    }
}

void SoundServer::createDevices() {
    if (kind_ == Kind::pipeWire) {
        createNullSink(speakers, 48000, 2);
        createNullSink(headphones, 44100, 2);
        auto result =
            run({"pactl", "load-module", "module-null-sink", std::string("sink_name=") + microphone,
                 "media.class=Audio/Source/Virtual", "rate=48000", "channels=1"});
        if (!result.succeeded()) {
            fail("could not create the microphone: " + result.output);
        }
    }
    for (const auto& sink : extraSinks_) {
        createNullSink(sink.name, sink.rate, sink.channels);
    }
    setDefaultSink(defaultSink_.empty() ? speakers : defaultSink_);
}

SoundServer::CommandResult SoundServer::run(const std::vector<std::string>& argv,
                                            std::chrono::milliseconds timeout) {
    const auto outputFile = directory_ / ("command-" + std::to_string(++commandCount_) + ".out");
    CommandResult result;
    {
        auto process = Process::spawn(argv, environment(), outputFile);
        auto status = process->waitFor(timeout);
        if (!status) {
            result.timedOut = true;
            process->kill();
        } else {
            result.exitStatus = *status;
        }
    }
    result.output = readFile(outputFile);
    std::error_code ignored;
    std::filesystem::remove(outputFile, ignored);
    return result;
}

std::unique_ptr<SoundServer::Process> SoundServer::launch(
    const std::vector<std::string>& argv, std::optional<std::filesystem::path> outputFile) {
    return Process::spawn(
        argv, environment(),
        outputFile.value_or(directory_ / ("launched-" + std::to_string(++commandCount_) + ".out")));
}

void SoundServer::loadNullSink(const std::string& name, int rate, int channels) {
    createNullSink(name, rate, channels);
    extraSinks_.push_back({name, rate, channels});
}

void SoundServer::createNullSink(const std::string& name, int rate, int channels) {
    auto result = run({"pactl", "load-module", "module-null-sink", "sink_name=" + name,
                       "rate=" + std::to_string(rate), "channels=" + std::to_string(channels)});
    if (!result.succeeded()) {
        fail("could not load the null sink " + name + ": " + result.output);
    }
    const bool listed = waitUntil(10000ms, [&] {
        auto names = sinkNames(*this);
        return std::find(names.begin(), names.end(), name) != names.end();
    });
    if (!listed) {
        fail("the null sink " + name + " did not appear");
    }
}

void SoundServer::removeSink(const std::string& name) {
    auto modules = run({"pactl", "list", "short", "modules"});
    std::stringstream lines(modules.output);
    std::string line;
    std::optional<std::string> index;
    while (std::getline(lines, line)) {
        std::stringstream fields(line);
        std::string number;
        std::string module;
        std::string arguments;
        std::getline(fields, number, '\t');
        std::getline(fields, module, '\t');
        std::getline(fields, arguments, '\t');
        std::stringstream words(arguments);
        std::string word;
        while (words >> word) {
            if (module == "module-null-sink" && word == "sink_name=" + name) {
                index = number;
            }
        }
    }
    if (!index) {
        fail("no module made the sink " + name + ": " + modules.output);
    }
    auto result = run({"pactl", "unload-module", *index});
    if (!result.succeeded()) {
        fail("could not unload the sink " + name + ": " + result.output);
    }
    const bool gone = waitUntil(10000ms, [&] {
        auto names = sinkNames(*this);
        return std::find(names.begin(), names.end(), name) == names.end();
    });
    if (!gone) {
        fail("the sink " + name + " did not go away");
    }
    std::erase_if(extraSinks_, [&](const Sink& sink) { return sink.name == name; });
}

void SoundServer::setDefaultSink(const std::string& name) {
    // PipeWire applies the choice asynchronously (through the session manager), so ask again
    // until the server reports it.
    const bool done = waitUntil(10000ms, [&] {
        run({"pactl", "set-default-sink", name}, 5000ms);
        return waitUntil(1000ms, [&] { return defaultSink() == name; });
    });
    if (!done) {
        fail("the default sink did not become " + name);
    }
    defaultSink_ = name;
}

std::string SoundServer::defaultSink() {
    auto result = run({"pactl", "get-default-sink"}, 5000ms);
    return result.succeeded() ? trimmed(result.output) : std::string();
}

std::unique_ptr<SoundServer::Process> SoundServer::playTone(const std::string& sink, double hz,
                                                            double seconds, int rate) {
    const auto file = directory_ / ("tone-" + std::to_string(++commandCount_) + ".raw");
    {
        const auto frames = static_cast<std::size_t>(seconds * rate);
        std::vector<float> samples(frames * 2);
        constexpr double twoPi = 6.283185307179586;
        for (std::size_t frame = 0; frame < frames; ++frame) {
            const auto value =
                static_cast<float>(0.5 * std::sin(twoPi * hz * double(frame) / rate));
            samples[2 * frame] = value;
            samples[2 * frame + 1] = value;
        }
        std::ofstream stream(file, std::ios::binary);
        stream.write(reinterpret_cast<const char*>(samples.data()),
                     static_cast<std::streamsize>(samples.size() * sizeof(float)));
    }
    return launch({"pacat", "--playback", "--raw", "--device=" + sink, "--format=float32le",
                   "--rate=" + std::to_string(rate), "--channels=2", "--latency-msec=20",
                   file.string()});
}

void SoundServer::suspend() {
    if (daemons_.empty()) {
        fail("there is no daemon to suspend");
    }
    // PulseAudio alone, or pipewire-pulse, started last.
    ::kill(daemons_.back()->pid(), SIGSTOP);
    suspended_ = true;
}

void SoundServer::resume() {
    if (suspended_ && !daemons_.empty()) {
        ::kill(daemons_.back()->pid(), SIGCONT);
    }
    suspended_ = false;
}

void SoundServer::kill() {
    resume();
    // The pulse server first, so clients see the drop before the graph goes.
    for (auto it = daemons_.rbegin(); it != daemons_.rend(); ++it) {
        (*it)->kill();
    }
    daemons_.clear();
}

void SoundServer::restart() {
    kill();
    launchDaemons();
    waitUntilReady();
    createDevices();
}

std::string SoundServer::daemonOutput() const {
    std::string output;
    for (const char* name :
         {"pulseaudio.log", "dbus.log", "pipewire.log", "wireplumber.log", "pipewire-pulse.log"}) {
        if (std::filesystem::exists(directory_ / name)) {
            output += std::string("--- ") + name + "\n" + readFile(directory_ / name);
        }
    }
    return output;
}

void SoundServer::stopAll() {
    resume();
    for (auto it = daemons_.rbegin(); it != daemons_.rend(); ++it) {
        (*it)->terminate();
    }
    daemons_.clear();
    if (bus_) {
        bus_->terminate();
        bus_.reset();
    }
}

void SoundServer::fail(const std::string& what) {
    throw std::runtime_error(kindName(kind_) + " test server: " + what + "\n" + daemonOutput());
}

}  // namespace velmora
