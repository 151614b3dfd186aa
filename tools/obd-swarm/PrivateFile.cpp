#include "PrivateFile.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace obdswarm {
namespace {

std::string Errno(const std::string& what) {
    return what + ": " + std::strerror(errno);
}

bool WriteProc(const char* file, const std::string& text, std::string& note) {
    const int fd = ::open(file, O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        note = Errno(file);
        return false;
    }
    const bool ok = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    if (!ok) note = Errno(file);
    ::close(fd);
    return ok;
}

bool MakeDirs(const std::string& dir, std::string& note) {
    for (size_t at = 1; at <= dir.size(); ++at) {
        if (at < dir.size() && dir[at] != '/') continue;
        const std::string part = dir.substr(0, at);
        if (::mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) {
            note = Errno("mkdir " + part);
            return false;
        }
    }
    return true;
}

std::string DirOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace

bool EnterPrivateDir(const std::string& dir, std::string& note) {
    if (!MakeDirs(dir, note)) return false;
    const uid_t uid = ::getuid();
    const gid_t gid = ::getgid();
    if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
        note = Errno("unshare");
        return false;
    }
    // The same ids inside as outside, so that files the run writes elsewhere keep their owner.
    if (!WriteProc("/proc/self/setgroups", "deny", note) ||
        !WriteProc("/proc/self/uid_map", std::to_string(uid) + " " + std::to_string(uid) + " 1",
                   note) ||
        !WriteProc("/proc/self/gid_map", std::to_string(gid) + " " + std::to_string(gid) + " 1",
                   note)) {
        return false;
    }
    // Nothing mounted here may reach the namespace the run came from.
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        note = Errno("mount --make-rprivate /");
        return false;
    }
    if (::mount("obd-swarm", dir.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, "mode=0700") != 0) {
        note = Errno("mount tmpfs on " + dir);
        return false;
    }
    return true;
}

bool LockBeside(const std::string& path, std::string& note) {
    if (!MakeDirs(DirOf(path), note)) return false;
    const std::string lock = path + ".lock";
    // Left open on purpose: the lock lasts as long as the process.
    const int fd = ::open(lock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) {
        note = Errno(lock);
        return false;
    }
    while (::flock(fd, LOCK_EX) != 0) {
        if (errno != EINTR) {
            note = Errno("flock " + lock);
            ::close(fd);
            return false;
        }
    }
    return true;
}

FileIsolation IsolateUpgradeFile(const std::string& path, std::string& note) {
    if (EnterPrivateDir(DirOf(path), note)) return FileIsolation::Namespace;
    // A namespace entered but left without its tmpfs is harmless: the lock is on the shared file
    // system all the same.
    std::string lockNote;
    if (LockBeside(path, lockNote)) return FileIsolation::Lock;
    note += "; " + lockNote;
    return FileIsolation::Failed;
}

}  // namespace obdswarm
