#include "app/installer/CopyLock.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <string>
#include <string_view>

#include "config/Log.h"
#include "config/PrivateFiles.h"
#include "config/UserFolders.h"

namespace velmora::AppInstaller {
namespace {

constexpr std::string_view prefix = "running-";
constexpr std::string_view suffix = ".lock";

std::filesystem::path lockFile(const std::filesystem::path& folder, pid_t pid) {
    return folder / (std::string(prefix) + std::to_string(pid) + std::string(suffix));
}

// The pid a lock file is named after.
std::optional<pid_t> namedPid(const std::string& name) {
    if (!name.starts_with(prefix) || !name.ends_with(suffix)) return std::nullopt;
    std::string_view digits(name);
    digits.remove_prefix(prefix.size());
    digits.remove_suffix(suffix.size());
    pid_t pid = 0;
    auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), pid);
    if (error != std::errc() || end != digits.data() + digits.size() || pid <= 0) {
        return std::nullopt;
    }
    return pid;
}

// The process holding a write lock on the open file, if any. The query is answered by the kernel
// with the holder's pid as this process sees it.
std::optional<pid_t> holderOf(int descriptor) {
    struct flock query {};
    query.l_type = F_WRLCK;
    query.l_whence = SEEK_SET;
    if (::fcntl(descriptor, F_GETLK, &query) != 0 || query.l_type == F_UNLCK) return std::nullopt;
    if (query.l_pid <= 0) return std::nullopt;
    return query.l_pid;
}

}  // namespace

std::filesystem::path runningCopiesFolder() {
    std::optional<std::filesystem::path> runtime = UserFolders::runtimeFolder();
    return runtime ? *runtime / "velmora-audio-helper" : std::filesystem::path();
}

CopyLock::CopyLock(int descriptor, std::filesystem::path file)
    : descriptor_(descriptor), file_(std::move(file)) {}

CopyLock::~CopyLock() {
    // Removed before the lock goes, so the installer never finds a file of a live copy unlocked.
    ::unlink(file_.c_str());
    ::close(descriptor_);
}

std::unique_ptr<CopyLock> CopyLock::take(const std::filesystem::path& folder) {
    if (folder.empty()) {
        log("No runtime folder (XDG_RUNTIME_DIR), so a later install can't find this copy to "
            "end it.");
        return nullptr;
    }
    if (auto problem = PrivateFiles::makeFolder(folder)) {
        log("Couldn't keep this copy's lock: the folder " + folder.string() + " " + *problem + ".");
        return nullptr;
    }
    const std::filesystem::path file = lockFile(folder, ::getpid());
    PrivateFiles::Opened opened = PrivateFiles::open(file, O_RDWR, 0600);
    if (!opened) {
        log("Couldn't keep this copy's lock: " + file.string() + " " + opened.problem + ".");
        return nullptr;
    }
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    const std::string pid = std::to_string(::getpid()) + "\n";
    if (::fcntl(opened.descriptor, F_SETLK, &lock) != 0 || ::ftruncate(opened.descriptor, 0) != 0 ||
        ::pwrite(opened.descriptor, pid.data(), pid.size(), 0) !=
            static_cast<ssize_t>(pid.size())) {
        log("Couldn't keep this copy's lock in " + file.string() + ".");
        ::close(opened.descriptor);
        return nullptr;
    }
    return std::unique_ptr<CopyLock>(new CopyLock(opened.descriptor, file));
}

CopyLock::Start CopyLock::takeUnlessRunning(const std::filesystem::path& folder) {
    Start start;
    if (folder.empty() || PrivateFiles::makeFolder(folder)) {
        start.lock = take(folder);  // says why there is no lock
        return start;
    }
    // Held only while looking and taking; closing the descriptor lets the next copy look.
    const int folderDescriptor = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const bool serialised = folderDescriptor >= 0 && ::flock(folderDescriptor, LOCK_EX) == 0;
    start.others = lockHolders(folder);
    if (start.others.empty()) start.lock = take(folder);
    if (!serialised) log("Couldn't lock " + folder.string() + " while looking for other copies.");
    if (folderDescriptor >= 0) ::close(folderDescriptor);
    return start;
}

bool holdsCopyLock(const std::filesystem::path& folder, pid_t pid) {
    PrivateFiles::Opened opened = PrivateFiles::open(lockFile(folder, pid), O_RDONLY);
    if (!opened) return false;
    std::optional<pid_t> holder = holderOf(opened.descriptor);
    ::close(opened.descriptor);
    return holder == pid;
}

std::vector<pid_t> lockHolders(const std::filesystem::path& folder) {
    std::vector<pid_t> holders;
    if (folder.empty()) return holders;
    const pid_t self = ::getpid();
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
        std::optional<pid_t> named = namedPid(entry.path().filename().string());
        // Never open this process's own file: closing any descriptor of it would drop the lock.
        if (!named || *named == self) continue;
        PrivateFiles::Opened opened = PrivateFiles::open(entry.path(), O_RDONLY);
        if (!opened) continue;
        std::optional<pid_t> holder = holderOf(opened.descriptor);
        ::close(opened.descriptor);
        if (!holder) {
            // Its copy has ended; a copy that is alive may be about to take its lock.
            if (::kill(*named, 0) != 0 && errno == ESRCH) {
                std::error_code ignored;
                std::filesystem::remove(entry.path(), ignored);
            }
        } else if (*holder == *named) {
            holders.push_back(*holder);
        }
    }
    return holders;
}

}  // namespace velmora::AppInstaller
