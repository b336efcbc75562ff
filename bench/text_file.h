// Files that rows write and read: in memory where the machine has such a file system, and otherwise
// with the other temporary files.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

#include <unistd.h>

namespace bench {

// The name of a new, empty file, which goes with the object.
class TextFile {
  public:
    TextFile()
    {
        const bool in_memory = access("/dev/shm", W_OK) == 0;
        name_ = std::string(in_memory ? "/dev/shm" : P_tmpdir) + "/bench.XXXXXX";
        const int fd = mkstemp(name_.data());
        if (fd == -1)
            std::abort();
        close(fd);
    }
    ~TextFile()
    {
        unlink(name_.c_str());
    }
    TextFile(const TextFile&) = delete;
    TextFile& operator=(const TextFile&) = delete;

    const char* name() const
    {
        return name_.c_str();
    }

    std::string contents() const
    {
        std::string text;
        std::FILE* const file = std::fopen(name(), "r");
        for (int c; (c = std::getc(file)) != EOF;)
            text.push_back(static_cast<char>(c));
        std::fclose(file);
        return text;
    }

    void fill(const std::string& text) const
    {
        std::FILE* const file = std::fopen(name(), "w");
        std::fwrite(text.data(), 1, text.size(), file);
        std::fclose(file);
    }

  private:
    std::string name_;
};

} // namespace bench
