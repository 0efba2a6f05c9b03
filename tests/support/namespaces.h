#pragma once

#include <string>
#include <vector>

// Private surroundings for the test process: mounts and a network of its own, so that the fixed
// paths and ports of the code under test are the test's, and several test processes run side by
// side. A test file asks for them at file scope, before the first test:
//
//     const bool isPrivate = private_namespaces();
//
// From then on /etc and /run are private: /etc shows the machine's own files, except that config/,
// cloud-sdk/, hosts, host.conf, nsswitch.conf and resolv.conf start missing, empty or resolving
// from hosts alone; /run starts empty. The network holds nothing but loopback. Threads and child
// processes that start afterwards are inside too. An ordinary user becomes root of a user
// namespace.

// Enters before the first test starts. Returns true, also when called again.
bool private_namespaces();

// --- files ---

// A path in a private folder that starts empty.
std::string scratch_path(const std::string& name);

// Writes a file and the folders that lead to it; private places only.
void write_file(const std::string& path, const std::string& text);
std::string read_file(const std::string& path);
void remove_file(const std::string& path);

// Makes another folder private: it goes on showing what it held, except for the names in `own`.
void cover_folder(const std::string& folder, const std::vector<std::string>& own = {});

// Puts a shell script first in the PATH of child processes.
void install_program(const std::string& name, const std::string& script);

// Replaces what a file below /proc/net shows this process, for instance /proc/net/route; all other
// files there are then missing. Without a text this one is missing, too.
void replace_proc_file(const std::string& path, const std::string& text);
void remove_proc_file(const std::string& path);
// Shows the kernel's own files again.
void restore_proc_files();

// Has an existing file show `text` to this process until the object ends, for instance
// /proc/meminfo.
class shown_file {
public:
    shown_file(const std::string& path, const std::string& text);
    ~shown_file();
    shown_file(const shown_file&) = delete;
    shown_file& operator=(const shown_file&) = delete;

private:
    std::string path;
};
