#include "app/installer/HandOver.h"

#include <spawn.h>
#include <unistd.h>

#include <string>
#include <vector>

extern char** environ;

namespace velmora::AppInstaller {

void relaunch(const std::filesystem::path& installedExecutable,
              const std::optional<DiskImageVolume>& ejecting) {
    const std::string script(handOverScript);
    const std::string pid = std::to_string(::getpid());
    const std::string device = ejecting ? ejecting->device : std::string();
    const std::string installed = installedExecutable.string();
    std::vector<char*> argv{const_cast<char*>("/bin/sh"),         const_cast<char*>("-c"),
                            const_cast<char*>(script.c_str()),    const_cast<char*>("sh"),
                            const_cast<char*>(pid.c_str()),       const_cast<char*>(device.c_str()),
                            const_cast<char*>(installed.c_str()), nullptr};

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    // A working folder or an open file on the image would keep it busy.
    posix_spawn_file_actions_addchdir_np(&actions, "/");
    posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);

    pid_t child = 0;
    ::posix_spawn(&child, "/bin/sh", &actions, &attributes, argv.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
}

}  // namespace velmora::AppInstaller
