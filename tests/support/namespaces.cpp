#include "support/namespaces.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sched.h>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

constexpr char SCRATCH[] = "/run/scratch";
constexpr char PROC_NET[] = "/proc/self/net";

bool isInside = false;
pid_t procNetCoveredFor = 0; // /proc/net is a folder of each process
std::vector<std::string> privateFolders;

void require(bool done, const std::string& what) {
    if (!done) {
        fprintf(stderr, "%s: %s\n", what.c_str(), strerror(errno));
        abort();
    }
}

void cover_with_nothing(const std::string& folder) {
    require(mount("tmpfs", folder.c_str(), "tmpfs", 0, nullptr) == 0, "mount on " + folder);
}

void put(const std::string& path, const std::string& text) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << text;
    require(file.flush().good(), "write " + path);
}

void become_root() {
    uid_t user = geteuid();
    gid_t group = getegid();
    if (user == 0) {
        return;
    }
    require(unshare(CLONE_NEWUSER) == 0, "user namespace");
    put("/proc/self/setgroups", "deny");
    put("/proc/self/uid_map", "0 " + std::to_string(user) + " 1");
    put("/proc/self/gid_map", "0 " + std::to_string(group) + " 1");
}

void bring_up_loopback() {
    int control = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request = {};
    strcpy(request.ifr_name, "lo");
    require(ioctl(control, SIOCGIFFLAGS, &request) == 0, "loopback");
    request.ifr_flags |= IFF_UP;
    require(ioctl(control, SIOCSIFFLAGS, &request) == 0, "loopback");
    close(control);
}

void enter() {
    become_root();
    require(unshare(CLONE_NEWNS | CLONE_NEWNET) == 0, "private namespaces");
    require(mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) == 0, "private mounts");
    isInside = true;
    bring_up_loopback();
    cover_with_nothing(fs::canonical("/run"));
    fs::create_directories(SCRATCH);
    privateFolders = {"/run", "/var/run"};
    cover_folder("/etc",
                 {"config", "cloud-sdk", "hosts", "host.conf", "nsswitch.conf", "resolv.conf"});
    write_file("/etc/nsswitch.conf", "passwd: files\ngroup: files\nhosts: files\n");
    write_file("/etc/host.conf", "multi on\n");
    write_file("/etc/hosts", "127.0.0.1 localhost\n");
}

class private_environment : public testing::Environment {
public:
    void SetUp() override { enter(); }
};

bool is_private(const std::string& path) {
    for (const std::string& folder : privateFolders) {
        if (path.starts_with(folder + "/")) {
            return true;
        }
    }
    return false;
}

} // namespace

bool private_namespaces() {
    static const testing::Environment* environment =
        testing::AddGlobalTestEnvironment(new private_environment);
    return environment != nullptr;
}

std::string scratch_path(const std::string& name) {
    return std::string(SCRATCH) + "/" + name;
}

void write_file(const std::string& path, const std::string& text) {
    require(is_private(path), path + " is not private");
    fs::create_directories(fs::path(path).parent_path());
    put(path, text);
}

std::string read_file(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

void remove_file(const std::string& path) {
    require(is_private(path), path + " is not private");
    fs::remove_all(path);
}

void cover_folder(const std::string& folder, const std::vector<std::string>& own) {
    require(isInside, "cover " + folder + " outside of private namespaces");
    std::string behind = std::string(SCRATCH) + "/behind" + folder;
    fs::create_directories(behind);
    require(mount(folder.c_str(), behind.c_str(), "none", MS_BIND | MS_REC, nullptr) == 0,
            "bind " + folder);
    cover_with_nothing(folder);
    for (const fs::directory_entry& entry : fs::directory_iterator(behind)) {
        std::string name = entry.path().filename();
        if (std::find(own.begin(), own.end(), name) == own.end()) {
            fs::create_symlink(entry.path(), folder + "/" + name);
        }
    }
    privateFolders.push_back(folder);
}

void install_program(const std::string& name, const std::string& script) {
    std::string folder = scratch_path("bin");
    std::string path = folder + "/" + name;
    write_file(path, "#!/bin/sh\n" + script);
    require(chmod(path.c_str(), 0755) == 0, path);
    std::string search = getenv("PATH") != nullptr ? getenv("PATH") : "/usr/bin:/bin";
    if (!search.starts_with(folder + ":")) {
        setenv("PATH", (folder + ":" + search).c_str(), 1);
    }
}

// A mount on one file below /proc/net would be lost at the next look at it: the kernel looks the
// files of a network up anew each time. One on the folder stays.
void remove_proc_file(const std::string& path) {
    require(isInside && path.starts_with("/proc/net/"), path + " cannot be replaced");
    if (procNetCoveredFor != getpid()) {
        cover_with_nothing(PROC_NET);
        procNetCoveredFor = getpid();
    }
    fs::remove(path);
}

void replace_proc_file(const std::string& path, const std::string& text) {
    remove_proc_file(path);
    // By the folder's other name: an emulator of the other byte order has its own /proc/net/route.
    put(PROC_NET + path.substr(strlen("/proc/net")), text);
}

void restore_proc_files() {
    if (procNetCoveredFor == getpid()) {
        require(umount2(PROC_NET, MNT_DETACH) == 0, "uncover /proc/net");
        procNetCoveredFor = 0;
    }
}

shown_file::shown_file(const std::string& shownPath, const std::string& text) : path(shownPath) {
    const std::string file = scratch_path("shown");
    put(file, text);
    require(mount(file.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) == 0, path);
}

shown_file::~shown_file() {
    require(umount2(path.c_str(), MNT_DETACH) == 0, path);
}
