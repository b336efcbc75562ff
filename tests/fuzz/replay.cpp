// Runs a fuzzer without libFuzzer, in any build: every input of the given files and directories,
// and then variants of them that are the same in every run.
//
//     replay_match VARIANTS PATH...
//
// The input at hand stands in the file replay_match.input until the end: after a failure,
// `replay_match 0 replay_match.input` repeats it alone.
#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" [[gnu::weak]] int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

namespace fs = std::filesystem;

constexpr std::size_t longest = 4096;

[[noreturn]] void fail(const char* what, const std::string& name)
{
    std::fprintf(stderr, "%s: %s\n", what, name.c_str());
    std::exit(2);
}

std::string contents(const fs::path& path)
{
    std::ifstream file(path, std::ios::binary);
    std::string bytes{std::istreambuf_iterator<char>(file), {}};
    if (!file)
        fail("cannot read", path);
    return bytes;
}

// In the order of their names, which is the same everywhere.
void gather(const fs::path& path, std::vector<std::string>& inputs)
{
    if (!fs::is_directory(path)) {
        inputs.push_back(contents(path));
        return;
    }
    std::vector<fs::path> names;
    for (const auto& entry : fs::directory_iterator(path))
        names.push_back(entry.path());
    std::sort(names.begin(), names.end());
    for (const auto& name : names)
        inputs.push_back(contents(name));
}

// Keeps what it runs in a file until the next one.
class Runner {
  public:
    explicit Runner(const std::string& name)
        : name_(name), file_(open(name.c_str(), O_WRONLY | O_CREAT, 0666))
    {
        if (file_ < 0)
            fail("cannot write", name_);
    }
    ~Runner()
    {
        close(file_);
        unlink(name_.c_str());
    }
    Runner(const Runner&) = delete;
    Runner& operator=(const Runner&) = delete;

    void run(const std::string& input)
    {
        const auto size = static_cast<ssize_t>(input.size());
        if (pwrite(file_, input.data(), input.size(), 0) != size || ftruncate(file_, size) != 0)
            fail("cannot write", name_);
        // A copy without a byte to spare, so that reading beyond it is seen.
        const std::vector<std::uint8_t> copy(input.begin(), input.end());
        LLVMFuzzerTestOneInput(copy.data(), copy.size());
    }

  private:
    std::string name_;
    int file_;
};

class Mutator {
  public:
    explicit Mutator(const std::vector<std::string>& inputs) : inputs_(inputs) {}

    std::string variant()
    {
        std::string bytes = any();
        for (std::size_t steps = 1 + below(4); steps > 0; steps--)
            change(bytes);
        bytes.resize(std::min(bytes.size(), longest));
        return bytes;
    }

  private:
    std::size_t below(std::size_t limit)
    {
        return random_() % limit;
    }
    const std::string& any()
    {
        return inputs_[below(inputs_.size())];
    }

    std::string tail(const std::string& bytes)
    {
        return bytes.substr(below(bytes.size() + 1));
    }

    void change(std::string& bytes)
    {
        const std::size_t at = below(bytes.size() + 1);
        const std::size_t rest = bytes.size() - at;
        switch (below(7)) {
        case 0:
            bytes.resize(at);
            return;
        case 1:
            bytes += any();
            return;
        case 2: // the tail of another
            bytes.resize(at);
            bytes += tail(any());
            return;
        case 3:
            bytes.insert(at, bytes.substr(at, below(rest + 1)));
            return;
        case 4:
            bytes.erase(at, 1 + below(4));
            return;
        case 5:
            bytes.insert(at, 1 + below(4), static_cast<char>(random_()));
            return;
        default:
            if (rest > 0)
                bytes[at] = static_cast<char>(
                    below(2) == 0 ? random_()
                                  : static_cast<unsigned char>(bytes[at]) ^ 1u << below(8));
        }
    }

    const std::vector<std::string>& inputs_;
    std::mt19937 random_{1};
};

} // namespace

int main(int argc, char** argv)
{
    const std::string self = argv[0];
    std::size_t variants = 0;
    if (argc < 2 ||
        std::from_chars(argv[1], argv[1] + std::strlen(argv[1]), variants).ec != std::errc())
        fail("usage: VARIANTS PATH...", self);
    std::vector<std::string> inputs = {""};
    for (int i = 2; i < argc; i++)
        gather(argv[i], inputs);
    if (LLVMFuzzerInitialize != nullptr)
        LLVMFuzzerInitialize(&argc, &argv);

    Runner runner(self + ".input");
    for (const std::string& input : inputs)
        runner.run(input);
    Mutator mutator(inputs);
    for (std::size_t i = 0; i < variants; i++)
        runner.run(mutator.variant());
    std::printf("%zu inputs and %zu variants\n", inputs.size(), variants);
    return 0;
}
