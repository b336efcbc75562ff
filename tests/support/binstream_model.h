// Binary streams told plainly: what a reader gives out of the pieces that a transport delivers, and
// which blocks leave a writer. Tests hold the library against both.
#pragma once

#include "psptypes.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

namespace psptest {

// The bytes of a number in the order in which it travels.
template <class T>
std::string number_bytes(T value, bool swap)
{
    std::string bytes(sizeof value, '\0');
    std::memcpy(bytes.data(), &value, sizeof value);
    if (swap)
        std::reverse(bytes.begin(), bytes.end());
    return bytes;
}

// ---- Input ----

// What a transport answers to one read.
struct Delivery {
    ZYN_RETCODE rc = sOKAY;
    std::size_t most = SIZE_MAX; // so many bytes at most; 0 asks for another read
    bool boasts = false;         // reports more bytes than there was room for
};

// A transport. When the deliveries run out it gives all it has, and then fails with `end`.
struct ReadTransport {
    std::string bytes{};
    ZYN_RETCODE end{};
    std::deque<Delivery> coming{};
    std::size_t taken = 0;
    std::size_t calls = 0;

    // The bytes of one read into room of `size`; `delivery` is how they come.
    std::string read(std::size_t size, Delivery* delivery)
    {
        calls++;
        *delivery = {};
        if (!coming.empty()) {
            *delivery = coming.front();
            coming.pop_front();
        }
        if (delivery->rc == sOKAY && delivery->most != 0 && taken == bytes.size())
            delivery->rc = end;
        if (delivery->rc != sOKAY)
            return "";
        const std::string part = bytes.substr(taken, std::min(size, delivery->most));
        taken += part.size();
        delivery->boasts = delivery->boasts && part.size() == size;
        return part;
    }
};

class BinaryInputModel {
  public:
    static constexpr std::size_t buffer_size = 4096;
    static constexpr uint32_t no_string = 0xFFFFFFFF;

    explicit BinaryInputModel(ReadTransport from, bool swap)
        : transport(std::move(from)), swap_(swap)
    {
    }

    ReadTransport transport;

    // Appends up to `size` bytes to `got`, and stops where the transport fails.
    ZYN_RETCODE get(std::size_t size, std::string* got)
    {
        while (size > 0) {
            if (ahead_.empty()) {
                Delivery delivery;
                std::string part = transport.read(buffer_size, &delivery);
                if (delivery.rc != sOKAY)
                    return delivery.rc;
                ahead_ = std::move(part);
            }
            const std::size_t piece = std::min(size, ahead_.size());
            got->append(ahead_, 0, piece);
            ahead_.erase(0, piece);
            size -= piece;
        }
        return sOKAY;
    }

    template <class T>
    ZYN_RETCODE get_number(T* value)
    {
        std::string bytes;
        const ZYN_RETCODE rc = get(sizeof(T), &bytes);
        if (rc != sOKAY)
            return rc;
        if (swap_)
            std::reverse(bytes.begin(), bytes.end());
        std::memcpy(value, bytes.data(), sizeof(T));
        return sOKAY;
    }

    void reset()
    {
        ahead_.clear();
    }

  private:
    bool swap_;
    std::string ahead_{}; // what was read and not given out
};

// ---- Output ----

class BinaryOutputModel {
  public:
    std::deque<ZYN_RETCODE> answers{}; // of the writes to come; when they run out all succeed
    std::string bytes{};               // that the transport took
    std::vector<uint32_t> blocks{};    // their sizes

    ZYN_RETCODE put(const std::string& data)
    {
        for (std::size_t done = 0; done < data.size();) {
            if (waiting_.size() == size_) {
                const bool grows = size_ < most;
                size_ = std::min(size_ + 1024, most);
                if (!grows || size_ == most) // the step to the largest size writes as well
                    if (const ZYN_RETCODE rc = flush(); rc != sOKAY)
                        return rc;
            }
            const std::size_t part = std::min(data.size() - done, size_ - waiting_.size());
            waiting_.append(data, done, part);
            done += part;
        }
        return sOKAY;
    }

    ZYN_RETCODE flush()
    {
        if (waiting_.empty())
            return sOKAY;
        const ZYN_RETCODE rc = write(waiting_);
        if (rc == sOKAY)
            waiting_.clear();
        return rc;
    }

    ZYN_RETCODE send(const std::string& data)
    {
        if (data.empty())
            return sOKAY;
        const ZYN_RETCODE rc = flush();
        return rc == sOKAY ? write(data) : rc;
    }

  private:
    static constexpr std::size_t most = 32768;

    ZYN_RETCODE write(const std::string& block)
    {
        ZYN_RETCODE rc = sOKAY;
        if (!answers.empty()) {
            rc = answers.front();
            answers.pop_front();
        }
        if (rc != sOKAY)
            return rc;
        blocks.push_back(static_cast<uint32_t>(block.size()));
        bytes += block;
        return sOKAY;
    }

    std::size_t size_ = 4096;
    std::string waiting_{};
};

} // namespace psptest
