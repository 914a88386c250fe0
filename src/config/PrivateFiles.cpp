#include "config/PrivateFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <system_error>
#include <vector>

namespace velmora::PrivateFiles {
namespace {

std::string errnoText(int error) {
    return std::error_code(error, std::generic_category()).message();
}

std::string kindOf(mode_t mode) {
    if (S_ISLNK(mode)) return "a symbolic link";
    if (S_ISFIFO(mode)) return "a FIFO";
    if (S_ISSOCK(mode)) return "a socket";
    if (S_ISCHR(mode) || S_ISBLK(mode)) return "a device";
    if (S_ISDIR(mode)) return "a folder";
    return "not a regular file";
}

// Why a file with these attributes is not one of ours; empty when it is.
std::string refusal(const struct stat& info) {
    if (!S_ISREG(info.st_mode)) return "is " + kindOf(info.st_mode);
    if (info.st_uid != ::geteuid()) {
        return "belongs to another user (uid " + std::to_string(info.st_uid) + ")";
    }
    return {};
}

bool writeAll(int descriptor, std::string_view text) {
    while (!text.empty()) {
        ssize_t written = ::write(descriptor, text.data(), text.size());
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        text.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

}  // namespace

std::optional<std::string> makeFolder(const std::filesystem::path& folder, bool narrowExisting) {
    // Parents first, each made private when it is made here.
    std::vector<std::filesystem::path> missing;
    for (std::filesystem::path at = folder; !at.empty() && at != at.root_path();
         at = at.parent_path()) {
        struct stat info {};
        if (::lstat(at.c_str(), &info) == 0) break;
        if (errno != ENOENT) return "can't be examined: " + errnoText(errno);
        missing.push_back(at);
    }
    for (auto made = missing.rbegin(); made != missing.rend(); ++made) {
        if (::mkdir(made->c_str(), 0700) != 0 && errno != EEXIST) {
            return "can't be created: " + errnoText(errno);
        }
    }
    // The helper's own folder is never a link; a shared one (~/.config/autostart) may be the
    // user's link into a dotfiles checkout, and is still checked to be this user's.
    int descriptor = ::open(folder.c_str(),
                            O_RDONLY | O_DIRECTORY | O_CLOEXEC | (narrowExisting ? O_NOFOLLOW : 0));
    if (descriptor < 0) {
        if (errno == ELOOP) return "is a symbolic link";
        if (errno == ENOTDIR) return "is not a folder";
        return "can't be opened: " + errnoText(errno);
    }
    struct stat info {};
    std::optional<std::string> problem;
    if (::fstat(descriptor, &info) != 0) {
        problem = "can't be examined: " + errnoText(errno);
    } else if (info.st_uid != ::geteuid()) {
        problem = "belongs to another user (uid " + std::to_string(info.st_uid) + ")";
    } else if (narrowExisting && (info.st_mode & 07777) != 0700 &&
               ::fchmod(descriptor, 0700) != 0) {
        problem = "can't be made private: " + errnoText(errno);
    }
    ::close(descriptor);
    return problem;
}

Opened open(const std::filesystem::path& file, int flags, std::optional<mode_t> createMode) {
    Opened opened;
    // Non-blocking so that a FIFO planted at the path can't hold the caller; cleared below.
    const int common = O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
    // Truncated only once it is known to be ours, never another user's file on the way.
    const bool truncate = (flags & O_TRUNC) != 0;
    flags &= ~O_TRUNC;
    int descriptor = ::open(file.c_str(), flags | common);
    if (descriptor < 0 && errno == ENOENT && createMode) {
        descriptor = ::open(file.c_str(), flags | common | O_CREAT | O_EXCL, *createMode);
    }
    if (descriptor < 0) {
        int error = errno;
        struct stat info {};
        if (error == ENOENT || error == ENOTDIR) {  // nothing there, or no folder for it
            opened.missing = true;
            opened.problem = "does not exist";
        } else if (::lstat(file.c_str(), &info) == 0 && !refusal(info).empty()) {
            opened.problem = refusal(info);  // ELOOP for a link, ENXIO for a FIFO without reader
            opened.refused = true;
        } else {
            opened.problem = "can't be opened: " + errnoText(error);
        }
        return opened;
    }
    struct stat info {};
    if (::fstat(descriptor, &info) != 0) {
        opened.problem = "can't be examined: " + errnoText(errno);
    } else {
        opened.problem = refusal(info);
        opened.refused = !opened.problem.empty();
    }
    if (opened.problem.empty() && truncate && ::ftruncate(descriptor, 0) != 0) {
        opened.problem = "can't be emptied: " + errnoText(errno);
    }
    if (opened.problem.empty()) {
        int status = ::fcntl(descriptor, F_GETFL);
        if (status >= 0) ::fcntl(descriptor, F_SETFL, status & ~O_NONBLOCK);
        opened.descriptor = descriptor;
    } else {
        ::close(descriptor);
    }
    return opened;
}

std::optional<std::string> replace(const std::filesystem::path& target, std::string_view text,
                                   mode_t mode, bool narrowFolder) {
    static std::atomic<unsigned> counter{0};
    const std::filesystem::path folder = target.parent_path();
    if (!target.is_absolute()) return "the path " + target.string() + " is not absolute";
    if (auto problem = makeFolder(folder, narrowFolder)) {
        return "the folder " + folder.string() + " " + *problem;
    }
    // Whatever stands at the target is replaced by the rename, never written through; but a
    // thing that isn't ours is left alone.
    struct stat existing {};
    if (::lstat(target.c_str(), &existing) == 0) {
        if (std::string reason = refusal(existing); !reason.empty()) {
            return target.string() + " " + reason;
        }
    }
    const std::filesystem::path temporary =
        folder / ("." + target.filename().string() + ".tmp-" + std::to_string(::getpid()) + "-" +
                  std::to_string(counter.fetch_add(1)));
    int descriptor =
        ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
    if (descriptor < 0) {
        return "a temporary file can't be created in " + folder.string() + ": " + errnoText(errno);
    }
    ::fchmod(descriptor, mode);  // not narrowed or widened by the umask
    bool written = writeAll(descriptor, text);
    int writeError = errno;
    bool synced = written && ::fsync(descriptor) == 0;
    int syncError = errno;
    bool closed = ::close(descriptor) == 0;
    if (!written || !synced || !closed) {
        std::string reason = "writing " + temporary.string() + " failed: " +
                             errnoText(!written  ? writeError
                                       : !synced ? syncError
                                                 : errno);
        ::unlink(temporary.c_str());
        return reason;
    }
    if (::rename(temporary.c_str(), target.c_str()) != 0) {
        std::string reason = "it can't be replaced: " + errnoText(errno);
        ::unlink(temporary.c_str());
        return reason;
    }
    // Make the rename itself durable; a failure here leaves a correct file, so it is ignored.
    int folderDescriptor = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folderDescriptor >= 0) {
        ::fsync(folderDescriptor);
        ::close(folderDescriptor);
    }
    return std::nullopt;
}

}  // namespace velmora::PrivateFiles
