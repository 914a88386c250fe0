#include "app/installer/DiskImageVolume.h"

#include <fstream>
#include <iterator>
#include <sstream>
#include <vector>

namespace velmora::AppInstaller {
namespace {

// The kernel writes blanks, tabs, newlines and backslashes in paths as "\ooo" octal escapes.
std::string unescaped(const std::string& field) {
    std::string text;
    for (std::size_t index = 0; index < field.size(); ++index) {
        if (field[index] == '\\' && index + 3 < field.size()) {
            const std::string digits = field.substr(index + 1, 3);
            if (digits.size() == 3 && digits.find_first_not_of("01234567") == std::string::npos) {
                text.push_back(static_cast<char>(std::stoi(digits, nullptr, 8)));
                index += 3;
                continue;
            }
        }
        text.push_back(field[index]);
    }
    return text;
}

bool contains(const std::filesystem::path& mountPoint, const std::filesystem::path& path) {
    const std::string mount = mountPoint.string();
    const std::string inner = path.string();
    if (mount == "/") return !inner.empty() && inner.front() == '/';
    return inner == mount || (inner.starts_with(mount) && inner[mount.size()] == '/');
}

std::optional<MountEntry> parsed(const std::string& line) {
    std::istringstream stream(line);
    std::vector<std::string> fields{std::istream_iterator<std::string>(stream),
                                    std::istream_iterator<std::string>()};
    // id, parent, major:minor, root, mount point, options, optional fields..., "-", type, source
    if (fields.size() < 9) return std::nullopt;
    std::size_t separator = 6;
    while (separator < fields.size() && fields[separator] != "-") ++separator;
    if (separator + 2 >= fields.size()) return std::nullopt;
    return MountEntry{.mountPoint = unescaped(fields[4]),
                      .deviceNumber = fields[2],
                      .source = unescaped(fields[separator + 2])};
}

std::string firstLine(const std::filesystem::path& file) {
    std::ifstream stream(file);
    std::string line;
    std::getline(stream, line);
    return line;
}

}  // namespace

std::optional<MountEntry> mountHolding(const std::filesystem::path& path,
                                       std::string_view mountinfo) {
    std::optional<MountEntry> best;
    std::istringstream lines{std::string(mountinfo)};
    std::string line;
    while (std::getline(lines, line)) {
        std::optional<MountEntry> entry = parsed(line);
        if (!entry || !contains(entry->mountPoint, path)) continue;
        // Equal lengths: the later line is mounted on top of the earlier one.
        if (!best || entry->mountPoint.string().size() >= best->mountPoint.string().size()) {
            best = std::move(entry);
        }
    }
    return best;
}

bool isLoopOrRemovable(const std::string& deviceNumber) {
    const std::filesystem::path device = std::filesystem::path("/sys/dev/block") / deviceNumber;
    std::error_code error;
    if (std::filesystem::exists(device / "loop", error)) return true;
    if (firstLine(device / "removable") == "1") return true;
    // A partition's medium is its parent device.
    if (std::filesystem::exists(device / "partition", error)) {
        return firstLine(device / ".." / "removable") == "1";
    }
    return false;
}

std::optional<DiskImageVolume> diskImageVolume(const std::filesystem::path& location) {
    std::ifstream stream("/proc/self/mountinfo");
    if (!stream) return std::nullopt;
    std::string mountinfo{std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
    std::optional<MountEntry> mount = mountHolding(location, mountinfo);
    if (!mount || !isLoopOrRemovable(mount->deviceNumber)) return std::nullopt;
    return DiskImageVolume{.mountPoint = mount->mountPoint, .device = mount->source};
}

}  // namespace velmora::AppInstaller
