#pragma once

// The independent JavaScript peers of the tests: node with the pinned npm package "osc"
// (package.json beside this file), installed into the build folder on first use.

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "../transport/OpensslProcess.hpp"

namespace kavrin::test {

inline bool onPath(const std::string& name) {
    std::istringstream path(std::getenv("PATH") ? std::getenv("PATH") : "");
    for (std::string dir; std::getline(path, dir, ':');) {
        if (::access((dir + "/" + name).c_str(), X_OK) == 0) return true;
    }
    return false;
}

// Installs the pinned npm package "osc" into the build folder, once; its node_modules folder. Test
// programs that run at the same time take turns.
inline std::string npmPeers() {
    namespace fs = std::filesystem;
    const fs::path folder = KAVRIN_NPM_PEERS;
    const fs::path pinned = KAVRIN_SOURCE_DIR "/tests/tools/package.json";
    const auto text = [](const fs::path& file) {
        std::ifstream in(file);
        return std::string(std::istreambuf_iterator<char>(in), {});
    };
    fs::create_directories(folder);
    const int lock = ::open((folder / "install.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (lock < 0 || ::flock(lock, LOCK_EX) != 0) {
        ADD_FAILURE() << "cannot lock " << folder;
        return "";
    }
    const struct Unlock {
        int fd;
        ~Unlock() { ::close(fd); }
    } unlock{lock};
    // The copy named installed.json is made only once an install of that list succeeded.
    if (text(folder / "installed.json") != text(pinned)) {
        fs::copy_file(pinned, folder / "package.json", fs::copy_options::overwrite_existing);
        tcpTest::ChildProcess npm("npm", {"install", "--prefix", folder.string(), "--no-package-lock",
                                          "--no-audit", "--no-fund", "--omit=optional",
                                          "--ignore-scripts", "--loglevel=error"});
        if (npm.waitForExit(std::chrono::seconds(90)) != 0) {
            ADD_FAILURE() << "npm install failed in " << folder << ": " << npm.output();
            return "";
        }
        fs::copy_file(pinned, folder / "installed.json", fs::copy_options::overwrite_existing);
    }
    return (folder / "node_modules").string();
}

}  // namespace kavrin::test
