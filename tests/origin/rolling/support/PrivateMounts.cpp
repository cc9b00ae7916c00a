#include "PrivateMounts.h"

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace velstream::testing {

namespace {

std::string failure(const std::string& what)
{
    return what + ": " + std::strerror(errno);
}

/// Without root's rights a user namespace of its own gives the right to mount.
bool unshare_mounts()
{
    const uid_t user = geteuid();
    const gid_t group = getegid();
    if (user == 0 && unshare(CLONE_NEWNS) == 0) return true;
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return false;
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << "0 " << user << " 1";
    std::ofstream("/proc/self/gid_map") << "0 " << group << " 1";
    return true;
}

} // namespace

std::string enter_private_mounts(const std::vector<std::string>& folders)
{
    std::error_code error;
    for (const std::string& folder : folders)
        std::filesystem::create_directories(folder, error);
    if (!unshare_mounts()) return failure("no mounts of its own");
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return failure("private mounts");
    for (const std::string& folder : folders) {
        if (mount("velstream-test", folder.c_str(), "tmpfs", 0, "mode=0755") != 0) return failure(folder);
    }
    return {};
}

} // namespace velstream::testing
