// A conversation with sqlengine: it is asked, and what it answers, errors included, comes back in
// the order in which it said it. The program goes on after an error.
#pragma once

#include "sqlengine_process.h"

#include <poll.h>

namespace sqltest {

// The pipe that a program answers through.
class AnswerPipe {
  public:
    AnswerPipe()
    {
        EXPECT_EQ(pipe2(ends_, O_CLOEXEC), 0);
        fcntl(ends_[1], F_SETPIPE_SZ, 1 << 20); // a long answer must not wait for a long question
    }
    ~AnswerPipe()
    {
        close(ends_[0]);
        leave();
    }
    AnswerPipe(const AnswerPipe&) = delete;
    AnswerPipe& operator=(const AnswerPipe&) = delete;

    // In the child: this is where both outputs go.
    bool become_outputs() const
    {
        return dup2(ends_[1], 1) == 1 && dup2(ends_[1], 2) == 2;
    }
    // Leaves the writing end to the child, so that its end is seen.
    void leave()
    {
        if (ends_[1] >= 0)
            close(ends_[1]);
        ends_[1] = -1;
    }

    // Reads more to the end of `text`; false at the end, and after a minute of silence.
    bool read_more(std::string& text) const
    {
        char part[16384];
        pollfd wait = {ends_[0], POLLIN, 0};
        if (poll(&wait, 1, 60000) != 1)
            return false;
        const ssize_t got = read(ends_[0], part, sizeof part);
        text.append(part, static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
        return got > 0;
    }

  private:
    int ends_[2] = {-1, -1};
};

class Dialog {
  public:
    // `setup` runs in the child before it becomes the program.
    Dialog(const psptest::TempDir& dir, const std::string& tag, std::vector<std::string> arguments,
           const Engine::Setup& setup = {})
        : engine_(dir, tag, with_go_on(std::move(arguments)),
                  [&] { return answers_.become_outputs() && (!setup || setup()); })
    {
        std::signal(SIGPIPE, SIG_IGN); // an engine that died is a failure and not the test's end
        answers_.leave();
    }

    // Hands over whole lines, which must be shorter than what a pipe holds.
    void tell(const std::string& lines)
    {
        engine_.say(lines + "\nSELECT 'mark " + std::to_string(++marks_) + "' AS mark;\n");
    }

    // Waits for the answer to all of what was told last.
    std::string hear()
    {
        std::string answer;
        const std::string end = "mark " + std::to_string(marks_) + "\n(1 row)\n";
        while (!ends_with(answer, end)) {
            if (!answers_.read_more(answer)) {
                ADD_FAILURE() << "no answer, only " << answer;
                return answer;
            }
        }
        const std::size_t table = answer.rfind("mark", answer.size() - end.size() - 1);
        return answer.substr(0, answer.rfind('\n', table) + 1);
    }

    std::string ask(const std::string& lines)
    {
        tell(lines);
        return hear();
    }

    // The one value that a query gives; what was answered when that is not one row.
    std::string value(const std::string& query)
    {
        const std::string answer = ask(query + ";");
        const std::string end = "\n(1 row)\n";
        if (!ends_with(answer, end))
            return answer;
        const std::string row = answer.substr(0, answer.size() - end.size());
        return row.substr(row.find_last_of("\n ") + 1);
    }

    // Ends the input; the exit status.
    int finish()
    {
        return engine_.finish().status;
    }

    pid_t pid() const
    {
        return engine_.pid();
    }

  private:
    static std::vector<std::string> with_go_on(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), "--go-on");
        return arguments;
    }
    static bool ends_with(const std::string& text, const std::string& end)
    {
        return text.size() >= end.size() &&
               text.compare(text.size() - end.size(), end.size(), end) == 0;
    }

    AnswerPipe answers_;
    Engine engine_;
    int marks_ = 0;
};

} // namespace sqltest
