#include "config/PlatformTexts.h"

namespace velmora {
namespace {

std::string joined(std::string_view lead, std::string_view appName, std::string_view tail) {
    std::string text;
    text.reserve(lead.size() + appName.size() + tail.size());
    text.append(lead).append(appName).append(tail);
    return text;
}

constexpr PlatformTexts macOSTexts{
    .platform = "macos",
    .permissionDeniedLead =
        "macOS denied access to system audio. Open System Settings \u2192 Privacy & Security "
        "\u2192 Screen & System Audio Recording and allow ",
    .permissionDeniedTail = " under \"System Audio Recording Only\".",
    .permissionTimeoutLead =
        "macOS is still waiting for you to allow \"System Audio Recording\" for ",
    .permissionTimeoutTail = ". Answer the prompt, then try again.",
    .welcomeWhereItLives =
        "It lives in the menu bar (the waveform icon). When you capture an online meeting in "
        "Velmora, it sends your computer's audio \u2014 what the other people say \u2014 to "
        "Velmora for transcription. Nothing is recorded or stored.",
    .welcomeFirstTime = "The first time, macOS asks you to allow \"System Audio Recording\".",
    .loginItemTip =
        "Tip: move Velmora Audio Helper to your Applications folder first. You can also manage "
        "it in System Settings \u2192 General \u2192 Login Items.",
    .installOfferInformative =
        "It's running from the downloaded disk image. Install it in your Applications folder so "
        "it keeps working after the disk image is closed and can start at login.",
    .installInsteadTip = "You can drag Velmora Audio Helper into the Applications folder instead.",
};

// On Linux the sound server (PulseAudio, or PipeWire speaking its protocol) decides who may
// record the output; sandboxed desktops ask through their own prompt.
constexpr PlatformTexts linuxTexts{
    .platform = "linux",
    .permissionDeniedLead =
        "The sound server denied access to system audio. Open your desktop's privacy or sound "
        "settings (or the sound server's access rules) and allow ",
    .permissionDeniedTail = " to record the system audio output.",
    .permissionTimeoutLead =
        "Your desktop is still waiting for you to allow \"System Audio Recording\" for ",
    .permissionTimeoutTail = ". Answer the prompt, then try again.",
    .welcomeWhereItLives =
        "It lives in the system tray (the waveform icon). When you capture an online meeting in "
        "Velmora, it sends your computer's audio \u2014 what the other people say \u2014 to "
        "Velmora for transcription. Nothing is recorded or stored.",
    // Plain PulseAudio never asks; desktops that sandbox recording do.
    .welcomeFirstTime =
        "The first time, your desktop may ask you to allow \"System Audio Recording\".",
    .loginItemTip =
        "Tip: you can also manage it in your desktop's Startup Applications settings, or with "
        "the files in ~/.config/autostart.",
    .installOfferInformative =
        "It's running from the downloaded disk image. Install it in /opt or in your own "
        "~/.local/share folder so it keeps working after the disk image is closed and can start "
        "at login.",
    .installInsteadTip =
        "You can copy the velmora-audio-helper folder from the disk image into /opt or "
        "~/.local/share instead.",
};

}  // namespace

std::string PlatformTexts::permissionDenied(std::string_view appName) const {
    return joined(permissionDeniedLead, appName, permissionDeniedTail);
}

std::string PlatformTexts::permissionTimeout(std::string_view appName) const {
    return joined(permissionTimeoutLead, appName, permissionTimeoutTail);
}

const PlatformTexts& PlatformTexts::forMacOS() {
    return macOSTexts;
}

const PlatformTexts& PlatformTexts::forLinux() {
    return linuxTexts;
}

const PlatformTexts& PlatformTexts::current() {
#ifdef __APPLE__
    return macOSTexts;
#else
    return linuxTexts;
#endif
}

}  // namespace velmora
