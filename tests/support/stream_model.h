// A text stream written as plainly as can be: a file, a descriptor with a position in it, a window
// of 1024 bytes that is refilled and flushed as a whole, and the two encodings on top, one byte a
// step. It notes every transfer that reaches the descriptor, and transfers can be told to fail, to
// be short or to be interrupted.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <deque>
#include <ostream>
#include <string>
#include <vector>

namespace psptest {

// One call of read or write as the kernel sees it: how many bytes were asked for.
struct Transfer {
    char op; // 'r' or 'w'
    std::size_t size;

    friend bool operator==(const Transfer&, const Transfer&) = default;
    friend std::ostream& operator<<(std::ostream& out, const Transfer& transfer)
    {
        return out << transfer.op << transfer.size;
    }
};

// What becomes of a call.
struct Outcome {
    enum Kind { WHOLE, SHORT, FAILED, INTERRUPTED } kind = WHOLE;
    std::size_t most = 0; // SHORT: at most so many bytes, at least 1
};

// The outcomes of the calls to come; when it runs out, all are whole.
class Script {
  public:
    std::deque<Outcome> coming{};

    Outcome next()
    {
        if (coming.empty())
            return {};
        const Outcome outcome = coming.front();
        coming.pop_front();
        return outcome;
    }
};

// The open file: what the kernel keeps, and the retries of the layer above it.
struct ModelFile {
    std::string bytes{};
    std::size_t pos = 0;
    bool readable = true;
    bool writable = true;
    bool append = false;
    Script script{};
    std::vector<Transfer> transfers{};

    std::size_t read(char* data, std::size_t size)
    {
        if (!readable || size == 0)
            return 0;
        for (;;) {
            transfers.push_back({'r', size});
            const Outcome outcome = script.next();
            if (outcome.kind == Outcome::INTERRUPTED)
                continue;
            if (outcome.kind == Outcome::FAILED)
                return 0;
            const std::size_t most = outcome.kind == Outcome::SHORT ? outcome.most : size;
            const std::size_t left = pos < bytes.size() ? bytes.size() - pos : 0;
            const std::size_t count = std::min({size, most, left});
            std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(pos), count, data);
            pos += count;
            return count;
        }
    }

    std::size_t write(const char* data, std::size_t size)
    {
        if (!writable || size == 0)
            return 0;
        for (std::size_t done = 0; done < size;) {
            transfers.push_back({'w', size - done});
            const Outcome outcome = script.next();
            if (outcome.kind == Outcome::INTERRUPTED)
                continue;
            if (outcome.kind == Outcome::FAILED)
                return 0;
            const std::size_t most = outcome.kind == Outcome::SHORT ? outcome.most : size;
            const std::size_t count = std::min(size - done, most);
            if (append)
                pos = bytes.size();
            bytes.resize(std::max(bytes.size(), pos + count));
            std::copy_n(data + done, count, bytes.begin() + static_cast<std::ptrdiff_t>(pos));
            pos += count;
            done += count;
        }
        return size;
    }
};

// What the characters of a mode come to.
struct OpenMode {
    const char* mode;
    bool readable, writable, append, truncate;
    bool writing; // what a "w" or an "a" leaves behind, whatever follows it
};

// clang-format off
inline constexpr OpenMode open_modes[] = {
    {"r",   true,  false, false, false, false},
    {"r+",  true,  true,  false, false, false},
    {"+",   true,  true,  false, false, false},
    {"w",   false, true,  false, true,  true},
    {"w+",  true,  true,  false, true,  true},
    {"a",   false, true,  true,  false, true},
    {"a+",  true,  true,  true,  false, true},
    {"wr",  true,  false, false, false, true},
    {"wr+", true,  true,  false, false, true},
    {"rw",  false, true,  false, true,  true},
};
// clang-format on

struct StreamModel {
    ModelFile file{};
    // The window.
    uint64_t buff_off = 0;
    uint64_t off = 0;
    uint64_t size = 0;
    uint32_t bytes = 0;
    bool modified = false;
    char buff[1024] = {};
    // The stream.
    int mode = 1; // 0 undecided, 1 UTF-8, 2 UTF-16
    bool swap = false;
    uint32_t bom_off = 0;
    std::vector<int32_t> pushed{};
    uint32_t val = 0;
    int bytesleft = 0;

    // ---- The window ----

    // True unless the descriptor took a part only; a failure looks like success.
    bool flush()
    {
        if (!modified)
            return true;
        const std::size_t wanted = off - buff_off;
        const std::size_t written = file.write(buff, wanted);
        if (written != wanted)
            return written == 0;
        modified = false;
        buff_off = off;
        return true;
    }
    bool reposition()
    {
        if (!flush())
            return false;
        buff_off = off;
        bytes = 0;
        if (size == 0 || size > off)
            bytes = static_cast<uint32_t>(file.read(buff, sizeof buff));
        return true;
    }
    bool get_byte(uint8_t* byte)
    {
        if (off < buff_off || off >= buff_off + bytes)
            if (!reposition() || bytes == 0)
                return false;
        *byte = static_cast<uint8_t>(buff[off - buff_off]);
        off++;
        return true;
    }
    bool put_byte(uint32_t byte)
    {
        if (off < buff_off || off >= buff_off + sizeof buff)
            if (!reposition())
                return false;
        modified = true;
        buff[off - buff_off] = static_cast<char>(byte);
        off++;
        size = std::max(size, off);
        return true;
    }

    // ---- Opening ----

    void open(const OpenMode& how, const std::string& before, int fmode)
    {
        file.bytes = how.truncate ? "" : before;
        file.readable = how.readable;
        file.writable = how.writable;
        file.append = how.append;
        size = file.bytes.size();
        mode = how.writing && fmode == 0 ? 1 : fmode;
        if (!how.writing)
            look_for_mark();
        else if (mode == 2)
            put_mark();
    }
    void put_mark()
    {
        put_byte(0xFF);
        put_byte(0xFE);
        bom_off = 2;
    }
    void look_for_mark()
    {
        uint8_t byte = 0;
        const bool any = get_byte(&byte);
        std::string rest;
        if (any && byte == 0xEF)
            rest = "\xBB\xBF";
        else if (any && byte == 0xFF)
            rest = "\xFE";
        else if (any && byte == 0xFE)
            rest = "\xFF";
        else
            return no_mark();
        const uint8_t first = byte;
        for (const char expected : rest) {
            if (!get_byte(&byte)) {
                off = 0; // undecided: all stays as the caller has it
                return;
            }
            if (byte != static_cast<uint8_t>(expected))
                return no_mark();
        }
        mode = first == 0xEF ? 1 : 2;
        swap = first == 0xFE;
        bom_off = first == 0xEF ? 3 : 2;
    }
    void no_mark()
    {
        mode = 1;
        off = 0;
    }

    // ---- Characters ----

    int32_t fungetc(int32_t c)
    {
        if (pushed.size() == 20)
            return -1;
        pushed.push_back(c);
        return c;
    }
    int32_t fgetc()
    {
        if (!pushed.empty()) {
            const int32_t c = pushed.back();
            pushed.pop_back();
            return c;
        }
        uint8_t byte = 0;
        if (mode == 1)
            return get_byte(&byte) ? static_cast<int8_t>(byte) : -1;
        return mode == 2 ? get_unit_text() : 0;
    }
    int32_t get_unit_text()
    {
        uint8_t pair[2] = {0, 0};
        if (!get_byte(&pair[0]))
            return -1;
        get_byte(&pair[1]);
        uint32_t code = swap ? pair[0] * 256u + pair[1] : pair[1] * 256u + pair[0];
        if (code >= 0xDC00 && code <= 0xDFFF)
            return '.';
        if (code >= 0xD800 && code <= 0xDBFF) {
            if (!get_byte(&pair[0]) || !get_byte(&pair[1]))
                return -1;
            const uint32_t low = pair[1] * 256u + pair[0];
            code = code % 1024 * 1024 + low % 1024 + 0x10000;
        }
        std::vector<uint32_t> text;
        if (code < 0x80)
            text = {code};
        else if (code < 0x800)
            text = {0xC0 + code / 64, 0x80 + code % 64};
        else if (code < 0x10000)
            text = {0xE0 + code / 4096, 0x80 + code / 64 % 64, 0x80 + code % 64};
        else
            text = {0xF0 + code / 262144, 0x80 + code / 4096 % 64, 0x80 + code / 64 % 64,
                    0x80 + code % 64};
        for (std::size_t i = text.size(); i-- > 1;)
            fungetc(static_cast<int8_t>(text[i]));
        return static_cast<int8_t>(text[0]);
    }
    bool fgets(int32_t room, std::string* text)
    {
        text->clear();
        if (room < 1)
            return false;
        while (text->size() + 1 < static_cast<std::size_t>(room)) {
            const int32_t c = fgetc();
            if (c == -1 && text->empty())
                return false;
            if (c == -1)
                break;
            text->push_back(static_cast<char>(c));
            if (text->back() == '\n')
                break;
        }
        return true;
    }
    // A line of any length into a buffer of the caller's size, 100 for none, that grows by 100.
    bool get_line(std::string* buffer)
    {
        if (buffer->empty())
            buffer->resize(100);
        bool any = false;
        for (std::size_t start = 0;; start = buffer->size() - 101) {
            std::string part;
            const bool endless = mode == 0 && pushed.empty(); // NUL after NUL: no line ever
            if (endless || !fgets(static_cast<int32_t>(buffer->size() - start), &part))
                return any;
            any = true;
            buffer->replace(start, part.size(), part);
            (*buffer)[start + part.size()] = '\0';
            buffer->back() = '\0';
            if (std::strchr(buffer->c_str() + start, '\n') != nullptr)
                return true;
            buffer->resize(buffer->size() + 100);
        }
    }
    bool put_unit(uint32_t unit)
    {
        return put_byte(unit & 0xFF) && put_byte(unit >> 8);
    }
    bool fputc(uint32_t byte)
    {
        if (mode != 2)
            return put_byte(byte);
        if (bytesleft == 0)
            return begin(byte);
        if (byte < 0x80 || byte > 0xBF)
            return false;
        val = val * 64 + byte % 64;
        if (--bytesleft != 0)
            return true;
        if (val <= 0xFFFF)
            return put_unit(val);
        return put_unit(0xD800 + (val - 0x10000) / 1024 % 1024) && put_unit(0xDC00 + val % 1024);
    }
    bool begin(uint32_t byte)
    {
        if (byte < 0x80)
            return put_unit(byte);
        if (byte < 0xC2 || byte > 0xF4)
            return false;
        bytesleft = byte < 0xE0 ? 1 : byte < 0xF0 ? 2 : 3;
        val = bytesleft == 1 ? byte - 0xC0 : bytesleft == 2 ? byte - 0xE0 : byte - 0xF0;
        return true;
    }
    int32_t fputs(const std::string& text)
    {
        for (const char byte : text)
            if (!fputc(static_cast<uint8_t>(byte)))
                return -1;
        return static_cast<int32_t>(text.size());
    }
};

} // namespace psptest
