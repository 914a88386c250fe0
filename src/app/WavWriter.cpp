#include "app/WavWriter.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <bit>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

#include "config/PrivateFiles.h"

namespace velmora {
namespace {

void putU32(std::vector<char>& out, std::uint32_t value) {
    for (int shift = 0; shift < 32; shift += 8) out.push_back(static_cast<char>(value >> shift));
}

void putU16(std::vector<char>& out, std::uint16_t value) {
    out.push_back(static_cast<char>(value & 0xFF));
    out.push_back(static_cast<char>(value >> 8));
}

void putTag(std::vector<char>& out, const char* tag) {
    out.insert(out.end(), tag, tag + 4);
}

bool writeAll(int descriptor, std::string_view bytes) {
    while (!bytes.empty()) {
        ssize_t written = ::write(descriptor, bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

}  // namespace

std::string writeFloatWav(const std::filesystem::path& file, int sampleRate,
                          std::span<const float> samples) {
    const std::uint64_t dataBytes = samples.size() * sizeof(float);
    if (dataBytes > 0xFFFFFFFFull - 64) return "The recording is too long for a WAV file.";

    std::vector<char> header;
    putTag(header, "RIFF");
    putU32(header, static_cast<std::uint32_t>(4 + 26 + 12 + 8 + dataBytes));
    putTag(header, "WAVE");
    putTag(header, "fmt ");
    putU32(header, 18);
    putU16(header, 3);  // IEEE float
    putU16(header, 1);  // mono
    putU32(header, static_cast<std::uint32_t>(sampleRate));
    putU32(header, static_cast<std::uint32_t>(sampleRate) * 4);
    putU16(header, 4);
    putU16(header, 32);
    putU16(header, 0);
    putTag(header, "fact");
    putU32(header, 4);
    putU32(header, static_cast<std::uint32_t>(samples.size()));
    putTag(header, "data");
    putU32(header, static_cast<std::uint32_t>(dataBytes));

    // What was heard is private: the file is 0600, this user's own, never reached through a
    // link or a FIFO planted at the path.
    PrivateFiles::Opened out = PrivateFiles::open(file, O_WRONLY | O_TRUNC, 0600);
    if (!out) {
        return "Could not create " + file.string() + (out.refused ? ": it " + out.problem : "") +
               ".";
    }
    ::fchmod(out.descriptor, 0600);
    // WAV is little-endian, as are the samples on every platform we build for.
    static_assert(std::endian::native == std::endian::little);
    bool written = writeAll(out.descriptor, {header.data(), header.size()}) &&
                   writeAll(out.descriptor, {reinterpret_cast<const char*>(samples.data()),
                                             static_cast<std::size_t>(dataBytes)});
    if (::close(out.descriptor) != 0) written = false;
    if (!written) return "Could not write " + file.string() + ".";
    return {};
}

}  // namespace velmora
