#include "app/installer/ExecValue.h"

#include <string_view>

namespace velmora::AppInstaller {
namespace {

constexpr std::string_view reserved = " \t\n\"'\\><~|&;$*?#()`";
constexpr std::string_view escapedInQuotes = "\"`$\\";
constexpr std::string_view fieldCodes = "fFuUdDnNickvm";

std::string quotedArgument(const std::string& argument) {
    const bool needsQuotes =
        argument.empty() || argument.find_first_of(reserved) != std::string::npos;
    std::string quoted = needsQuotes ? "\"" : "";
    for (char c : argument) {
        if (needsQuotes && escapedInQuotes.find(c) != std::string_view::npos) quoted += '\\';
        quoted += c;
        if (c == '%') quoted += '%';
    }
    if (needsQuotes) quoted += '"';
    return quoted;
}

}  // namespace

std::string stringValue(const std::string& text) {
    std::string escaped;
    for (char c : text) {
        switch (c) {
            case '\\':
                escaped += "\\\\";
                break;
            case '\n':
                escaped += "\\n";
                break;
            case '\t':
                escaped += "\\t";
                break;
            case '\r':
                escaped += "\\r";
                break;
            default:
                escaped += c;
        }
    }
    return escaped;
}

namespace {

std::string unescapedString(const std::string& text) {
    std::string plain;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\' || i + 1 == text.size()) {
            plain += text[i];
            continue;
        }
        switch (text[++i]) {
            case 's':
                plain += ' ';
                break;
            case 'n':
                plain += '\n';
                break;
            case 't':
                plain += '\t';
                break;
            case 'r':
                plain += '\r';
                break;
            default:
                plain += text[i];
        }
    }
    return plain;
}

}  // namespace

std::string execValue(const std::vector<std::string>& arguments) {
    std::string command;
    for (const std::string& argument : arguments) {
        if (!command.empty()) command += ' ';
        command += quotedArgument(argument);
    }
    return stringValue(command);
}

std::optional<std::vector<std::string>> execArguments(const std::string& value) {
    const std::string command = unescapedString(value);
    std::vector<std::string> arguments;
    std::string current;
    bool inArgument = false;
    bool inQuotes = false;
    for (std::size_t i = 0; i < command.size(); ++i) {
        const char c = command[i];
        if (c == '%') {
            if (i + 1 == command.size()) return std::nullopt;
            const char code = command[++i];
            if (code == '%') {
                current += '%';
                inArgument = true;
            } else if (fieldCodes.find(code) == std::string_view::npos) {
                return std::nullopt;
            }
            continue;
        }
        if (inQuotes) {
            if (c == '"') {
                inQuotes = false;
            } else if (c == '\\' && i + 1 < command.size() &&
                       escapedInQuotes.find(command[i + 1]) != std::string_view::npos) {
                current += command[++i];
            } else {
                current += c;
            }
            continue;
        }
        if (c == ' ' || c == '\t' || c == '\n') {
            if (inArgument) arguments.push_back(std::move(current));
            current.clear();
            inArgument = false;
        } else if (c == '"') {
            inQuotes = true;
            inArgument = true;
        } else {
            current += c;
            inArgument = true;
        }
    }
    if (inQuotes) return std::nullopt;
    if (inArgument) arguments.push_back(std::move(current));
    return arguments;
}

}  // namespace velmora::AppInstaller
