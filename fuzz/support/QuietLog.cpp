#include "support/QuietLog.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "config/AudioKit.h"
#include "config/Log.h"
#include "config/LogFile.h"

namespace velmora::fuzzing {

void sendLogNowhere() {
    std::string folder = (std::filesystem::temp_directory_path() / "velmora-fuzz-XXXXXX").string();
    if (::mkdtemp(folder.data()) == nullptr) {
        std::perror("velmora fuzzing: cannot create a private log folder");
        std::abort();
    }
    ::setenv("XDG_STATE_HOME", folder.c_str(), 1);
    const std::filesystem::path logFolder = LogFile::defaultFolder();
    std::filesystem::create_directories(logFolder);
    std::filesystem::create_symlink("/dev/null", logFolder / AudioKit::config().logFileName);
}

void drainLogEvery(unsigned inputs) {
    static unsigned count = 0;
    if (++count % inputs == 0) flushLog();
}

bool verbose() {
    static const bool enabled = [] {
        const char* value = std::getenv("VELMORA_FUZZ_VERBOSE");
        return value != nullptr && std::string(value) == "1";
    }();
    return enabled;
}

}  // namespace velmora::fuzzing
