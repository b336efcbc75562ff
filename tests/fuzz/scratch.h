// A directory that lies in memory where the system has one, for fuzzers that work on files. It goes
// when the process ends; the fuzzer clears it before every input. A process that a finding ended
// leaves it behind for the next one to remove.
#pragma once

#include "fuzz.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <string>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

namespace fs = std::filesystem;

class Scratch {
  public:
    Scratch()
    {
        const fs::path memory = "/dev/shm";
        const bool usable = access(memory.c_str(), W_OK | X_OK) == 0;
        const fs::path place = usable ? memory : fs::temp_directory_path();
        sweep(place);
        path_ = place / ("pspfuzz_" + std::to_string(getpid()) + "_XXXXXX");
        CHECK(mkdtemp(path_.data()) != nullptr);
    }
    ~Scratch()
    {
        fs::remove_all(path_);
        close(home_);
    }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    const std::string& path() const
    {
        return path_;
    }
    // Makes the directory the current one, empty.
    void enter()
    {
        for (const auto& entry : fs::directory_iterator(path_))
            fs::remove_all(entry);
        CHECK(chdir(path_.c_str()) == 0);
    }
    // Goes back to where the process was before.
    void leave()
    {
        CHECK(fchdir(home_) == 0);
    }

  private:
    // The names have the number of the process that they belong to.
    static void sweep(const fs::path& place)
    {
        std::error_code ignored;
        for (const auto& entry : fs::directory_iterator(place, ignored)) {
            int process = 0;
            const std::string name = entry.path().filename();
            if (std::sscanf(name.c_str(), "pspfuzz_%d_", &process) == 1 && process > 0 &&
                kill(process, 0) != 0 && errno == ESRCH)
                fs::remove_all(entry, ignored);
        }
    }

    std::string path_;
    int home_ = open(".", O_RDONLY | O_DIRECTORY);
};
