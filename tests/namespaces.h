// Tests of code with fixed paths and ports run as root in mount, network and IPC namespaces of
// their own: the machine's files are never touched.
#pragma once

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

inline constexpr const char* INSIDE = "--inside-own-namespaces";

// A process with threads, and the logging library starts some before main, cannot leave its mount
// namespace; unshare(1) can, and then runs this program anew.
[[noreturn]] inline void enter_namespaces(int argc, char** argv) {
    std::string self = std::filesystem::read_symlink("/proc/self/exe");
    std::string tool = "unshare";
    std::string options[] = {"--mount", "--net", "--ipc", "--"};
    std::string inside = INSIDE;
    std::vector<char*> command = {tool.data()};
    for (std::string& option : options) {
        command.push_back(option.data());
    }
    command.insert(command.end(), {self.data(), inside.data()});
    command.insert(command.end(), argv + 1, argv + argc);
    command.push_back(nullptr);
    (void)execvp(tool.c_str(), command.data());
    std::perror("unshare");
    std::exit(1);
}

// Covers these directories, and what the daemon would write to or run, with empty ones.
inline bool make_private_places(std::initializer_list<const char*> others) {
    std::vector<const char*> places = {"/etc", "/run", "/var/log", "/usr/local/bin"};
    places.insert(places.end(), others);
    for (const char* place : places) {
        if (mount("tmpfs", place, "tmpfs", 0, "mode=755") != 0) {
            std::perror(place);
            return false;
        }
    }
    return mkdir("/etc/quoradmind", 0755) == 0 && mkdir("/etc/quorsyncd", 0755) == 0 &&
           std::system("ip link set lo up") == 0;
}

// Call it first. Returns in namespaces of this process's own, with the arguments it was given.
inline void live_in_namespaces(int& argc, char**& argv,
                               std::initializer_list<const char*> others = {}) {
    if (argc < 2 || std::string_view(argv[1]) != INSIDE) {
        enter_namespaces(argc, argv);
    }
    if (!make_private_places(others)) {
        std::exit(1);
    }
    argv[1] = argv[0];
    argv += 1;
    argc -= 1;
}
