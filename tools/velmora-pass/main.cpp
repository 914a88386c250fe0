// velmora-pass: makes the key pair that signs start passes, and issues passes with it.
//
// A web application's server issues a pass for a page like this:
//   payload   = {"v":1,"origin":"<page origin>","iat":<seconds since 1970>,"nonce":"<random>"}
//   signature = ECDSA P-256 with SHA-256 over the payload bytes, as raw r||s (64 bytes, not DER)
//   pass      = base64url(payload) + "." + base64url(signature), without "=" padding
// The helper accepts a pass once, for the origin it names, within 300 seconds of "iat".

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <iostream>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "access/PassIssuer.h"

namespace {

constexpr const char* usage =
    "usage: velmora-pass keygen --out FILE\n"
    "           Writes a new P-256 private key to FILE (PEM, mode 0600) and prints its public\n"
    "           key in the form VELMORA_PRODUCTION_KEY and VELMORA_DEV_KEYS take.\n"
    "       velmora-pass issue --key FILE --origin ORIGIN [--iat SECONDS] [--nonce NONCE]\n"
    "           Prints a start pass for pages of ORIGIN, signed with the private key in FILE.\n"
    "           SECONDS since 1970 defaults to now; NONCE defaults to 16 random bytes.\n";

// A mistake in the command line: reported together with the usage text.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

using Options = std::map<std::string, std::string>;

// "--name VALUE" pairs, each name at most once and one of allowed.
Options parseOptions(const std::vector<std::string>& arguments,
                     const std::set<std::string>& allowed) {
    Options options;
    for (std::size_t i = 0; i < arguments.size(); i += 2) {
        const std::string& name = arguments[i];
        if (!allowed.contains(name)) {
            throw UsageError("unknown option \"" + name + "\"");
        }
        if (i + 1 == arguments.size()) {
            throw UsageError(name + " needs a value");
        }
        if (!options.emplace(name, arguments[i + 1]).second) {
            throw UsageError(name + " is given more than once");
        }
    }
    return options;
}

// The option's value, if given. An empty value is a mistake.
std::optional<std::string> optional(const Options& options, const std::string& name) {
    const auto found = options.find(name);
    if (found == options.end()) {
        return std::nullopt;
    }
    if (found->second.empty()) {
        throw UsageError(name + " must not be empty");
    }
    return found->second;
}

std::string required(const Options& options, const std::string& name) {
    auto value = optional(options, name);
    if (!value) {
        throw UsageError(name + " is required");
    }
    return *value;
}

double parseSeconds(const std::string& text) {
    double seconds = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
    if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(seconds)) {
        throw UsageError("--iat must be a number of seconds since 1970, not \"" + text + "\"");
    }
    return seconds;
}

std::string readFile(const std::string& path) {
    const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    std::string contents;
    std::array<char, 4096> buffer{};
    ssize_t count = 0;
    while (file >= 0 && (count = ::read(file, buffer.data(), buffer.size())) > 0) {
        contents.append(buffer.data(), static_cast<std::size_t>(count));
    }
    const int readError = errno;
    if (file >= 0) {
        ::close(file);
    }
    if (file < 0 || count < 0) {
        throw std::runtime_error("cannot read the key file \"" + path +
                                 "\": " + std::strerror(readError));
    }
    return contents;
}

// Creates path readable by its owner only; never replaces an existing file.
void writePrivateFile(const std::string& path, const std::string& contents) {
    const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (file < 0) {
        throw std::runtime_error("cannot create \"" + path + "\": " + std::strerror(errno));
    }
    const bool written =
        ::fchmod(file, 0600) == 0 &&
        ::write(file, contents.data(), contents.size()) == static_cast<ssize_t>(contents.size());
    const int writeError = errno;
    if (::close(file) != 0 || !written) {
        ::unlink(path.c_str());
        throw std::runtime_error("cannot write \"" + path + "\": " + std::strerror(writeError));
    }
}

void printLine(const std::string& text) {
    if (!(std::cout << text << "\n" << std::flush)) {
        throw std::runtime_error("cannot write to standard output");
    }
}

int keygen(const Options& options) {
    const std::string path = required(options, "--out");
    const velmora::PassIssuer issuer = velmora::PassIssuer::generate();
    writePrivateFile(path, issuer.privateKeyPem());
    printLine(issuer.publicKeyBase64());
    return 0;
}

int issue(const Options& options) {
    const std::string keyPath = required(options, "--key");
    const std::string origin = required(options, "--origin");
    const auto iatText = optional(options, "--iat");
    const double iat = iatText ? parseSeconds(*iatText) : velmora::PassIssuer::currentTime();
    const std::string nonce =
        optional(options, "--nonce").value_or(velmora::PassIssuer::randomNonce());

    const std::string pem = readFile(keyPath);
    const velmora::PassIssuer issuer = [&] {
        try {
            return velmora::PassIssuer::fromPem(pem);
        } catch (const std::runtime_error& error) {
            throw std::runtime_error("the key file \"" + keyPath +
                                     "\" is unusable: " + error.what());
        }
    }();
    printLine(issuer.issue(origin, iat, nonce));
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    try {
        if (arguments.empty()) {
            throw UsageError("a command is required");
        }
        const std::string& command = arguments.front();
        const std::vector<std::string> rest(arguments.begin() + 1, arguments.end());
        if (command == "--help" || command == "-h" || command == "help") {
            std::cout << usage;
            return 0;
        }
        if (command == "keygen") {
            return keygen(parseOptions(rest, {"--out"}));
        }
        if (command == "issue") {
            return issue(parseOptions(rest, {"--key", "--origin", "--iat", "--nonce"}));
        }
        throw UsageError("unknown command \"" + command + "\"");
    } catch (const UsageError& error) {
        std::cerr << "velmora-pass: " << error.what() << "\n" << usage;
        return 2;
    } catch (const std::exception& error) {
        std::cerr << "velmora-pass: " << error.what() << "\n";
        return 1;
    }
}
