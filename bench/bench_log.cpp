// Log lines against the two ways that programs have without the library: printing the time and the
// message, once, into C streams that are flushed after each line, and a logger that is told to
// flush each line. Everybody writes to descriptor 1, which leads into a file meanwhile, and to a
// log file of their own where the row has one.

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#ifdef PSP_PEER_SPDLOG
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>
#endif

#include "row.h"
#include "text_file.h"

namespace bench {

namespace {

constexpr size_t LINES = 100;

// Leads descriptor 1 into a file, and back at the end.
class Console {
  public:
    explicit Console(const char* name)
    {
        std::fflush(stdout);
        saved_ = dup(1);
        const int fd = open(name, O_WRONLY | O_TRUNC);
        dup2(fd, 1);
        close(fd);
    }
    ~Console()
    {
        std::fflush(stdout);
        dup2(saved_, 1);
        close(saved_);
    }
    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

    // The next line is the first one again.
    static void rewind()
    {
        lseek(1, 0, SEEK_SET);
        if (ftruncate(1, 0) != 0)
            std::abort();
    }

  private:
    int saved_;
};

// What everybody logs: the n-th line.
#define MESSAGE "[%s] connection %d: page %08x of '%s', lsn %llu\n"
#define VALUES(n)                                                                                  \
    "storage", static_cast<int>(n), static_cast<unsigned>(n) * 2654435761U, "orders",              \
        12345678901234ULL + (n)

// "[2024-05-01 13:07:42]  "
constexpr size_t TIME_LENGTH = 23;

// A text of lines that all begin with a time, without these.
std::string without_times(const std::string& text)
{
    std::string rest;
    for (size_t pos = 0; pos < text.size();) {
        const size_t end = text.find('\n', pos) + 1;
        rest += text.substr(pos + TIME_LENGTH, end - pos - TIME_LENGTH);
        pos = end;
    }
    return rest;
}

std::string messages()
{
    std::string text;
    for (size_t i = 0; i < LINES; ++i) {
        char line[200];
        std::snprintf(line, sizeof line, MESSAGE, VALUES(i));
        text += line;
    }
    return text;
}

// ---- The sides; `log` is null where there is the console only ----

// Opens the log in the background of the row; the figures hold no opening.
class OwnLog {
  public:
    explicit OwnLog(const char* log) : opened_(log != nullptr)
    {
        if (opened_ && psp_log_openEx(nullptr, log) != sOKAY)
            std::abort();
    }
    ~OwnLog()
    {
        if (opened_)
            psp_log_closeEx(nullptr);
    }
    OwnLog(const OwnLog&) = delete;
    OwnLog& operator=(const OwnLog&) = delete;

    void write(size_t lines)
    {
        for (size_t i = 0; i < lines; ++i)
            psp_log_with_time(MESSAGE, VALUES(i));
    }

  private:
    bool opened_;
};

class PlainLog {
  public:
    explicit PlainLog(const char* log) : file_(log != nullptr ? std::fopen(log, "w") : nullptr) {}
    ~PlainLog()
    {
        if (file_ != nullptr)
            std::fclose(file_);
    }
    PlainLog(const PlainLog&) = delete;
    PlainLog& operator=(const PlainLog&) = delete;

    void write(size_t lines)
    {
        for (size_t i = 0; i < lines; ++i) {
            const time_t now = time(nullptr);
            struct tm local;
            char line[200];
            const size_t begin =
                strftime(line, sizeof line, "[%F %T]  ", localtime_r(&now, &local));
            const int rest = std::snprintf(line + begin, sizeof line - begin, MESSAGE, VALUES(i));
            const size_t length = begin + static_cast<size_t>(rest);
            put(stdout, line, length);
            if (file_ != nullptr)
                put(file_, line, length);
        }
    }

  private:
    static void put(std::FILE* file, const char* line, size_t length)
    {
        std::fwrite(line, 1, length, file);
        std::fflush(file);
    }

    std::FILE* file_;
};

#ifdef PSP_PEER_SPDLOG
class SpdLog {
  public:
    explicit SpdLog(const char* log) : logger_("bench")
    {
        logger_.sinks().push_back(std::make_shared<spdlog::sinks::stdout_sink_mt>());
        if (log != nullptr)
            logger_.sinks().push_back(
                std::make_shared<spdlog::sinks::basic_file_sink_mt>(log, true));
        logger_.set_pattern("[%Y-%m-%d %H:%M:%S]  %v");
        logger_.flush_on(spdlog::level::trace);
    }

    void write(size_t lines)
    {
        for (size_t i = 0; i < lines; ++i)
            logger_.info("[{}] connection {}: page {:08x} of '{}', lsn {}", VALUES(i));
    }

  private:
    spdlog::logger logger_;
};
#endif

// Whether a side writes what it should to both places.
template <class Log>
bool writes_messages(const TextFile& console, const TextFile* file)
{
    Console::rewind();
    {
        Log log(file != nullptr ? file->name() : nullptr);
        log.write(LINES);
    }
    return without_times(console.contents()) == messages() &&
           (file == nullptr || without_times(file->contents()) == messages());
}

void compare(Row& row, bool with_file)
{
    const Server server;
    const TextFile console, file;
    const Console redirected(console.name());
    const TextFile* const log = with_file ? &file : nullptr;
    const double goal = with_file ? 0.95 : 1.0;
    bool same = writes_messages<OwnLog>(console, log) && writes_messages<PlainLog>(console, log);

    const TextFile own_file, plain_file;
    OwnLog own(with_file ? own_file.name() : nullptr);
    PlainLog plain(with_file ? plain_file.name() : nullptr);
    row.batch(LINES);
    row.psp([&](size_t n) { own.write(n); }, Console::rewind);
    row.peer(
        "strftime, snprintf, fwrite and fflush", [&](size_t n) { plain.write(n); }, goal,
        Console::rewind);
#ifdef PSP_PEER_SPDLOG
    same = same && writes_messages<SpdLog>(console, log);
    const TextFile spd_file;
    SpdLog spd(with_file ? spd_file.name() : nullptr);
    row.peer(
        "spdlog", [&](size_t n) { spd.write(n); }, goal, Console::rewind);
#endif
    if (!same)
        return row.fail("a side does not log the messages");
    row.run();
}

const Registered rows[] = {
    {"log", "a line to the console", "ns/line", [](Row& row) { compare(row, false); }},
    {"log", "a line to console and file", "ns/line", [](Row& row) { compare(row, true); }},
};

} // namespace

} // namespace bench
