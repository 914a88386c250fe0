#include "app/DisplayProbe.h"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <vector>

namespace velmora::DisplayProbe {
namespace {

// X11 over TCP listens on 6000 plus the display number.
constexpr int xTcpPortBase = 6000;
// Long enough for a forwarded display across a slow link, short enough that a login with a
// dead display name still gets its helper promptly.
constexpr int tcpTimeoutMilliseconds = 3000;

class Socket {
  public:
    explicit Socket(int descriptor) : descriptor_(descriptor) {}
    ~Socket() {
        if (descriptor_ >= 0) ::close(descriptor_);
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    int get() const { return descriptor_; }

  private:
    int descriptor_;
};

// Connects to a local socket by path, or in the abstract namespace when `abstract` is set.
std::optional<std::string> connectLocal(const std::string& name, bool abstract) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::size_t offset = abstract ? 1 : 0;
    if (name.size() + offset >= sizeof address.sun_path) return "the socket name is too long";
    std::memcpy(address.sun_path + offset, name.data(), name.size());
    auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + offset + name.size() +
                                         (abstract ? 0 : 1));
    Socket socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (socket.get() < 0) return std::string(std::strerror(errno));
    if (::connect(socket.get(), reinterpret_cast<sockaddr*>(&address), length) == 0) {
        return std::nullopt;
    }
    return std::string(std::strerror(errno));
}

std::optional<std::string> connectWithTimeout(const addrinfo& candidate) {
    Socket socket(
        ::socket(candidate.ai_family, candidate.ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (socket.get() < 0) return std::string(std::strerror(errno));
    if (::connect(socket.get(), candidate.ai_addr, candidate.ai_addrlen) == 0) return std::nullopt;
    if (errno != EINPROGRESS) return std::string(std::strerror(errno));
    pollfd waiting{.fd = socket.get(), .events = POLLOUT, .revents = 0};
    int ready = ::poll(&waiting, 1, tcpTimeoutMilliseconds);
    if (ready == 0) return "no answer within " + std::to_string(tcpTimeoutMilliseconds) + " ms";
    if (ready < 0) return std::string(std::strerror(errno));
    int error = 0;
    socklen_t size = sizeof error;
    ::getsockopt(socket.get(), SOL_SOCKET, SO_ERROR, &error, &size);
    if (error != 0) return std::string(std::strerror(error));
    return std::nullopt;
}

std::optional<std::string> connectTcp(const std::string& host, int port) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    int status = ::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
    if (status != 0) return "cannot resolve " + host + ": " + ::gai_strerror(status);
    std::string problem = "no address for " + host;
    for (addrinfo* candidate = found; candidate != nullptr; candidate = candidate->ai_next) {
        std::optional<std::string> attempt = connectWithTimeout(*candidate);
        if (!attempt) {
            ::freeaddrinfo(found);
            return std::nullopt;
        }
        problem = *attempt;
    }
    ::freeaddrinfo(found);
    return problem;
}

bool isDisplayNumber(const std::string& text) {
    return !text.empty() && text.size() <= 5 &&
           text.find_first_not_of("0123456789") == std::string::npos;
}

bool isSet(const char* value) {
    return value != nullptr && value[0] != '\0';
}

}  // namespace

std::optional<std::string> problemWithXDisplay(const std::string& display,
                                               const std::filesystem::path& xSocketFolder) {
    std::size_t colon = display.rfind(':');
    if (colon == std::string::npos) return "it is not a display name";
    std::string host = display.substr(0, colon);
    std::string rest = display.substr(colon + 1);
    std::string number = rest.substr(0, rest.find('.'));
    // A full socket path before the number, as some systems hand out.
    if (host.starts_with('/')) return connectLocal(host, false);
    if (!isDisplayNumber(number)) return "it is not a display name";

    std::string protocol;
    if (std::size_t slash = host.find('/'); slash != std::string::npos) {
        protocol = host.substr(0, slash);
        host = host.substr(slash + 1);
    }
    if (host.empty() || host == "unix" || protocol == "unix") {
        std::string socket = (xSocketFolder / ("X" + number)).string();
        if (!connectLocal(socket, true)) return std::nullopt;
        return connectLocal(socket, false);
    }
    if (host.starts_with('[') && host.ends_with(']')) host = host.substr(1, host.size() - 2);
    return connectTcp(host, xTcpPortBase + std::stoi(number));
}

std::optional<std::string> problemWithWaylandDisplay(const std::string& waylandDisplay,
                                                     const char* runtimeFolder) {
    if (waylandDisplay.starts_with('/')) return connectLocal(waylandDisplay, false);
    if (!isSet(runtimeFolder)) return "XDG_RUNTIME_DIR is not set, so its socket cannot be found";
    return connectLocal((std::filesystem::path(runtimeFolder) / waylandDisplay).string(), false);
}

Verdict probe(const Environment& environment, const std::filesystem::path& xSocketFolder) {
    const char* display = environment("DISPLAY");
    const char* waylandDisplay = environment("WAYLAND_DISPLAY");
    const char* waylandSocket = environment("WAYLAND_SOCKET");
    const char* platforms = environment("QT_QPA_PLATFORM");

    // A compositor that started the helper hands it a connected socket instead of a name.
    bool waylandHandedOver = isSet(waylandSocket);
    std::vector<std::string> problems;
    auto xAnswers = [&] {
        if (!isSet(display)) return false;
        std::optional<std::string> problem = problemWithXDisplay(display, xSocketFolder);
        if (problem) problems.push_back("the X display " + std::string(display) + ": " + *problem);
        return !problem;
    };
    auto waylandAnswers = [&] {
        if (waylandHandedOver) return true;
        if (!isSet(waylandDisplay)) return false;
        std::optional<std::string> problem =
            problemWithWaylandDisplay(waylandDisplay, environment("XDG_RUNTIME_DIR"));
        if (problem) {
            problems.push_back("the Wayland display " + std::string(waylandDisplay) + ": " +
                               *problem);
        }
        return !problem;
    };
    auto explain = [&](Verdict verdict) {
        if (verdict.reachable) return verdict;
        verdict.problem = "No display can be reached";
        if (problems.empty()) problems.push_back("neither DISPLAY nor WAYLAND_DISPLAY is set");
        for (std::size_t index = 0; index < problems.size(); ++index) {
            verdict.problem += (index == 0 ? " (" : "; ") + problems[index];
        }
        verdict.problem += ")";
        return verdict;
    };

    if (isSet(platforms)) {
        // Qt tries the listed platforms in order ("wayland;xcb"); each may carry options.
        std::string list = platforms;
        std::size_t start = 0;
        while (start <= list.size()) {
            std::size_t end = std::min(list.find(';', start), list.size());
            std::string name = list.substr(start, end - start);
            name = name.substr(0, name.find(':'));
            bool answers = name == "xcb"                 ? xAnswers()
                           : name.starts_with("wayland") ? waylandAnswers()
                                                         : !name.empty();
            if (answers) return {.reachable = true, .platform = {}, .problem = {}};
            start = end + 1;
        }
        return explain({});
    }
    bool x = xAnswers();
    bool wayland = waylandAnswers();
    Verdict verdict;
    verdict.reachable = x || wayland;
    // Qt picks its platform from the session's type and its own default, not from what answers:
    // name the one that does when only one does.
    if (x && !wayland) verdict.platform = "xcb";
    if (wayland && !x) verdict.platform = "wayland";
    return explain(verdict);
}

}  // namespace velmora::DisplayProbe
