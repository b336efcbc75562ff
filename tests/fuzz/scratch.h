// A directory that lies in memory where the system has one, for fuzzers that work on files. It goes
// when the process ends; the fuzzer clears it before every input.
#pragma once

#include "fuzz.h"

#include <filesystem>
#include <string>

#include <fcntl.h>
#include <unistd.h>

class Scratch {
  public:
    Scratch()
    {
        const std::filesystem::path memory = "/dev/shm";
        const bool usable = access(memory.c_str(), W_OK | X_OK) == 0;
        path_ = (usable ? memory : std::filesystem::temp_directory_path()) / "pspfuzz_XXXXXX";
        CHECK(mkdtemp(path_.data()) != nullptr);
    }
    ~Scratch()
    {
        std::filesystem::remove_all(path_);
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
        for (const auto& entry : std::filesystem::directory_iterator(path_))
            std::filesystem::remove_all(entry);
        CHECK(chdir(path_.c_str()) == 0);
    }
    // Goes back to where the process was before.
    void leave()
    {
        CHECK(fchdir(home_) == 0);
    }

  private:
    std::string path_;
    int home_ = open(".", O_RDONLY | O_DIRECTORY);
};
