#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace velmora {

// A private sound server for tests: its own runtime, home and configuration folders under a
// temporary directory, its own socket, and nothing shared with a user's session. The server
// speaks the PulseAudio protocol; it is either PulseAudio itself or PipeWire with its pulse
// server. Every wait is bounded; the destructor stops and reaps every process it started.
//
// Running as root: PulseAudio only warns ("not intended to be run as root") when started
// without --system, so it is started the same way for root and for other users. PipeWire and
// WirePlumber run as root unchanged. WirePlumber's hardware monitors (ALSA, V4L2, libcamera,
// Bluetooth) are switched off so that the private graph never opens real devices.
class SoundServer {
  public:
    enum class Kind { pulseAudio, pipeWire };

    struct Options {
        // PulseAudio only: listen on loopback TCP and require the server's own cookie, so that a
        // client without it is refused (access denied). serverAddress() is then "tcp:...".
        bool requireCookie = false;
    };

    struct CommandResult {
        int exitStatus = -1;  // the exit code; -1 when killed or timed out
        bool timedOut = false;
        std::string output;  // standard output and standard error together
        bool succeeded() const { return exitStatus == 0 && !timedOut; }
    };

    // A child process started by the fixture. Destroying it terminates and reaps it.
    class Process {
      public:
        // Starts argv[0] (looked up on PATH) with exactly `environment` ("KEY=value" entries),
        // standard input from /dev/null and both outputs appended to `outputFile`.
        static std::unique_ptr<Process> spawn(const std::vector<std::string>& argv,
                                              const std::vector<std::string>& environment,
                                              const std::filesystem::path& outputFile);
        ~Process();
        Process(const Process&) = delete;
        Process& operator=(const Process&) = delete;

        pid_t pid() const { return pid_; }
        bool isRunning();
        // Waits at most `timeout` for the exit; the exit code, or -1 when killed by a signal.
        std::optional<int> waitFor(std::chrono::milliseconds timeout);
        // SIGTERM, then SIGKILL after `grace`; always reaps.
        void terminate(std::chrono::milliseconds grace = std::chrono::milliseconds(3000));
        // SIGKILL at once (a crash, as far as clients can tell); always reaps.
        void kill();

      private:
        explicit Process(pid_t pid) : pid_(pid) {}
        pid_t pid_;
        std::optional<int> exitStatus_;
    };

    // The devices every server starts with.
    static constexpr const char* speakers = "speakers";      // 48000 Hz stereo, the default
    static constexpr const char* headphones = "headphones";  // 44100 Hz stereo
    static constexpr const char* microphone = "microphone";  // a silent input

    // Whether the binaries for `kind` are on PATH; when not, `whyNot` names the missing one.
    static bool isAvailable(Kind kind, std::string* whyNot = nullptr);
    static std::string kindName(Kind kind);  // "PulseAudio" or "PipeWire"

    // Starts the server and waits until it answers and its devices exist; throws
    // std::runtime_error (with the daemons' output) when that does not happen in time.
    static std::unique_ptr<SoundServer> start(Kind kind, Options options);
    static std::unique_ptr<SoundServer> start(Kind kind) { return start(kind, Options()); }

    ~SoundServer();
    SoundServer(const SoundServer&) = delete;
    SoundServer& operator=(const SoundServer&) = delete;

    Kind kind() const { return kind_; }
    // The address for PULSE_SERVER or pa_context_connect, e.g. "unix:/tmp/velmora-sound-x/native".
    // environment() carries the cookie (PULSE_COOKIE) where one is required.
    std::string serverAddress() const;
    // The environment for clients (pactl, pacat, parec) that should talk to this server.
    std::vector<std::string> environment() const;
    const std::filesystem::path& directory() const { return directory_; }

    // Runs a command in environment() and waits at most `timeout` for it.
    CommandResult run(const std::vector<std::string>& argv,
                      std::chrono::milliseconds timeout = std::chrono::milliseconds(10000));
    // Starts a command in environment() without waiting; its output goes to `outputFile`, or to
    // a file of its own in directory().
    std::unique_ptr<Process> launch(const std::vector<std::string>& argv,
                                    std::optional<std::filesystem::path> outputFile = {});

    // Creates a null sink and waits until the server lists it; throws on failure.
    void loadNullSink(const std::string& name, int rate, int channels);
    // Removes a sink created by loadNullSink (or one of the starting sinks) and waits until the
    // server no longer lists it; throws on failure.
    void removeSink(const std::string& name);
    // Makes `name` the default sink and waits until the server reports it; throws on failure.
    void setDefaultSink(const std::string& name);
    std::string defaultSink();

    // Plays a sine tone of `hz` into `sink` with pacat, at the sink's own rate (48000 Hz unless
    // told), stereo float32. The returned process plays until done or destroyed.
    std::unique_ptr<Process> playTone(const std::string& sink, double hz, double seconds,
                                      int rate = 48000);

    // Kills the daemons abruptly, as a crash would; clients see the connection drop.
    void kill();
    // Starts the daemons again on the same socket and recreates every sink loaded so far (and
    // the default sink); waits until ready. Kills first when still running.
    void restart();
    bool isRunning() const { return !daemons_.empty(); }
    // Stops the daemon that serves the pulse protocol with SIGSTOP, as a hung server: its socket
    // still accepts, nothing answers. resume() lets it go on (stopping and killing do too).
    void suspend();
    void resume();

    // The daemons' output so far, for failure messages.
    std::string daemonOutput() const;

  private:
    struct Sink {
        std::string name;
        int rate;
        int channels;
    };

    SoundServer(Kind kind, Options options, std::filesystem::path directory);
    void launchDaemons();
    void waitUntilReady();
    void createDevices();
    void createNullSink(const std::string& name, int rate, int channels);
    void writePulseAudioConfig();
    void writePipeWireConfig();
    void stopAll();
    [[noreturn]] void fail(const std::string& what);

    Kind kind_;
    Options options_;
    std::filesystem::path directory_;
    std::unique_ptr<Process> bus_;  // PipeWire only: the private session bus
    std::vector<std::unique_ptr<Process>> daemons_;
    std::vector<Sink> extraSinks_;
    std::string defaultSink_;
    int commandCount_ = 0;
    int cookiePort_ = 0;
    bool suspended_ = false;
};

}  // namespace velmora
