#include "app/HelperApplication.h"

#include <csignal>
#include <cstdlib>

#include <boost/asio/signal_set.hpp>
#include <memory>
#include <ostream>

#include "access/HelperPass.h"
#include "app/HelperServices.h"
#include "app/ListenCommand.h"
#include "app/SettingsCommand.h"
#include "config/HelperInfo.h"
#include "config/HelperSettings.h"
#include "config/Log.h"
#include "config/SerialQueue.h"

namespace velmora {
namespace {

constexpr int exitUsage = 2;

int runHelper() {
    // Port and admitted origins come from the saved settings, read anew at every use.
    HelperSettings::shared().installAsKitHooks();
    // A page that vanishes mid-write must not end the process.
    std::signal(SIGPIPE, SIG_IGN);
    log(HelperPass::trustedKeysText(HelperPass::keyCount()));

    SerialQueue mainQueue("com.velmora.audiohelper.main", SerialQueue::CallerThread{});
    auto server = makeHelperServices(mainQueue, HelperSettings::shared()).server;

    boost::asio::signal_set signals(mainQueue.context(), SIGINT, SIGTERM);
    signals.async_wait([&](const boost::system::error_code& error, int signal) {
        if (error) return;
        log(std::string("Quitting (") + (signal == SIGINT ? "SIGINT" : "SIGTERM") + ")");
        server->shutdown();
        mainQueue.stop();
    });

    server->start();
    mainQueue.run();
    server.reset();
    flushLog();
    return 0;
}

}  // namespace

HelperArguments HelperArguments::parse(const std::vector<std::string>& args) {
    HelperArguments parsed;
    if (!args.empty() && (args.front() == "settings" || args.front() == "listen")) {
        parsed.action = args.front() == "settings" ? Action::settings : Action::listen;
        parsed.commandArguments.assign(args.begin() + 1, args.end());
        return parsed;
    }
    for (const std::string& argument : args) {
        if (argument == "--help" || argument == "-h") {
            parsed.action = Action::help;
            return parsed;
        }
        if (argument == "--version") {
            parsed.action = Action::version;
            return parsed;
        }
        if (argument == "--no-welcome") {
            parsed.noWelcome = true;
        } else if (argument == "--no-install") {
            parsed.noInstall = true;
        } else if (argument == "--headless") {
            parsed.headless = true;
        } else {
            parsed.action = Action::usageError;
            parsed.problem = argument.starts_with("-") ? "unknown option " + argument
                                                       : "unknown command " + argument;
            return parsed;
        }
    }
    return parsed;
}

void printHelperUsage(std::ostream& stream) {
    stream << "Usage: velmora-audio-helper [--headless] [--no-welcome] [--no-install]\n"
              "       velmora-audio-helper settings [COMMAND]\n"
              "       velmora-audio-helper listen [OPTIONS]\n"
              "       velmora-audio-helper --help | --version\n"
              "\n"
              "Without a command, serves the system audio to allowed Velmora pages on\n"
              "ws://127.0.0.1:<port>/ until interrupted (SIGINT or SIGTERM).\n"
              "  --headless    run without a tray icon and without touching the display\n"
              "  --no-welcome  do not greet the user on this launch\n"
              "  --no-install  do not offer to install the helper\n"
              "  settings      show or change the port and the extra allowed origins\n"
              "                (velmora-audio-helper settings --help)\n"
              "  listen        connect like a page and report what arrives\n"
              "\n"
              "Exits with status 3 when the helper is already running for this user.\n";
}

bool wantsTray(const HelperArguments& arguments) {
    if (arguments.action != HelperArguments::Action::runHelper || arguments.headless) return false;
    auto isSet = [](const char* name) {
        const char* value = std::getenv(name);
        return value != nullptr && value[0] != '\0';
    };
    // A platform named outright (offscreen, for instance) needs no display server.
    return isSet("DISPLAY") || isSet("WAYLAND_DISPLAY") || isSet("QT_QPA_PLATFORM");
}

int runHelperApplication(const std::vector<std::string>& args, std::ostream& out,
                         std::ostream& err) {
    HelperArguments parsed = HelperArguments::parse(args);
    switch (parsed.action) {
        case HelperArguments::Action::settings:
            return runSettingsCommand(parsed.commandArguments, HelperSettings::shared(), out, err);
        case HelperArguments::Action::listen:
            return runListenCommand(parsed.commandArguments, out, err);
        case HelperArguments::Action::help:
            printHelperUsage(out);
            return 0;
        case HelperArguments::Action::version:
            out << HelperInfo::appId << ' ' << HelperInfo::version() << '\n';
            return 0;
        case HelperArguments::Action::usageError:
            err << "velmora-audio-helper: " << parsed.problem << "\n";
            printHelperUsage(err);
            return exitUsage;
        case HelperArguments::Action::runHelper:
            break;
    }
    return runHelper();
}

}  // namespace velmora
