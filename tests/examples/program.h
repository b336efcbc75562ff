// Runs an example program as a process of its own, the way a user does: arguments, standard input,
// two outputs and an exit status. The outputs go to files, so what the program flushed before it
// was killed is there to be read.
#pragma once

#include "support/psp_test.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

namespace psptest {

// Exit status of a child that could not be set up or executed.
inline constexpr int not_started = 125;

// What a program left behind.
struct Result {
    int status; // exit status, or 128 plus the signal that ended it
    std::string out;
    std::string err;
};

// Tries `condition` again and again for ten seconds; false when it never holds.
template <class Condition>
bool wait_until(Condition condition)
{
    for (int i = 0; i < 5000; i++) {
        if (condition())
            return true;
        usleep(2000);
    }
    return false;
}

// A running program. Its files lie in `dir` under names that begin with `tag`.
class Program {
  public:
    using Setup = std::function<bool()>; // runs in the child; false: not_started

    Program(std::string path, const TempDir& dir, const std::string& tag,
            std::vector<std::string> arguments, const std::string& input, const Setup& setup = {})
        : path_(std::move(path)), out_(dir / (tag + ".out")), err_(dir / (tag + ".err"))
    {
        const std::string in = dir / (tag + ".in");
        write_file(in, input);
        start(std::move(arguments), open(in.c_str(), O_RDONLY | O_CLOEXEC), setup);
    }

    // With an input that the test feeds through say().
    Program(std::string path, const TempDir& dir, const std::string& tag,
            std::vector<std::string> arguments, const Setup& setup = {})
        : path_(std::move(path)), out_(dir / (tag + ".out")), err_(dir / (tag + ".err"))
    {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) {
            ADD_FAILURE() << "no pipe";
            return;
        }
        feed_ = ends[1];
        start(std::move(arguments), ends[0], setup);
    }

    ~Program()
    {
        kill_now();
        end_input();
    }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    void say(const std::string& text)
    {
        const ssize_t done = write(feed_, text.data(), text.size());
        EXPECT_EQ(done, static_cast<ssize_t>(text.size()));
    }

    void end_input()
    {
        if (feed_ >= 0)
            close(feed_);
        feed_ = -1;
    }

    // Waits until the output holds `text`; false when it never does.
    bool wait_for(const std::string& text) const
    {
        return wait_until([&] { return output().find(text) != std::string::npos; });
    }

    std::string output() const
    {
        return read_file(out_);
    }

    // -1 once its end was waited for.
    pid_t pid() const
    {
        return pid_;
    }

    void kill_now()
    {
        if (pid_ > 0)
            kill(pid_, SIGKILL);
        reap();
    }

    // Waits for the end.
    Result finish()
    {
        end_input();
        reap();
        return {status_, read_file(out_), read_file(err_)};
    }

  private:
    void start(std::vector<std::string> arguments, int input, const Setup& setup)
    {
        const int out = open(out_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
        const int err = open(err_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
        std::fflush(nullptr);
        pid_ = fork();
        if (pid_ == 0)
            become_program(std::move(arguments), input, out, err, setup);
        if (pid_ < 0)
            ADD_FAILURE() << "fork: " << std::strerror(errno);
        for (int fd : {input, out, err})
            close(fd);
    }

    [[noreturn]] void become_program(std::vector<std::string> arguments, int input, int out,
                                     int err, const Setup& setup)
    {
        dup2(input, 0);
        dup2(out, 1);
        dup2(err, 2);
        std::vector<char*> argv;
        argv.push_back(path_.data());
        for (std::string& argument : arguments)
            argv.push_back(argument.data());
        argv.push_back(nullptr);
        if (!setup || setup())
            execv(path_.c_str(), argv.data());
        _exit(not_started);
    }

    void reap()
    {
        int status = 0;
        if (pid_ <= 0 || waitpid(pid_, &status, 0) != pid_)
            return;
        pid_ = -1;
        status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    std::string path_;
    std::string out_;
    std::string err_;
    pid_t pid_ = -1;
    int feed_ = -1;
    int status_ = -1;
};

// Runs a program to its end.
inline Result run_program(std::string path, const TempDir& dir, std::vector<std::string> arguments,
                          const std::string& input = "", const Program::Setup& setup = {})
{
    return Program(std::move(path), dir, "run", std::move(arguments), input, setup).finish();
}

} // namespace psptest
