// Holds the functions that decode UTF-8 against the plain decoder, for one text, with every limit
// that makes a difference.
#pragma once

#include "support/utf8_model.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace psptest {

inline constexpr PSP_UTF8_ERROR_BEHAVIOR error_behaviors[] = {PSP_UTF8_ERROR_BREAK,
                                                              PSP_UTF8_ERROR_CONTINUE};

// A text as it is to be read, and its characters encoded anew.
class ExpectedUtf8 {
  public:
    ExpectedUtf8(const std::string& text, PSP_UTF8_ERROR_BEHAVIOR behavior)
        : bytes_(text.begin(), text.end()), behavior_(behavior),
          decoded_(decoded_utf8(text, behavior))
    {
        for (const uint32_t ch : decoded_.chars) {
            encoded_ += encoded_utf8(ch);
            ends_.push_back(encoded_.size());
        }
    }

    void check_counts() const
    {
        const std::size_t all = ends_.size() - 1;
        ASSERT_EQ(psp_countUTF8chars(bytes_.data(), bytes_.size(), behavior_),
                  decoded_.failed ? 0 : all);
        ASSERT_EQ(psp_countUTF8bytes(bytes_.data(), bytes_.size(), 0, behavior_),
                  decoded_.failed ? PSP_UTF8_FAILED : encoded_.size());
        for (std::size_t chars = 1; chars <= all + 2; chars++) {
            const bool enough = chars <= all; // what follows then does not matter
            ASSERT_EQ(psp_countUTF8bytes(bytes_.data(), bytes_.size(), chars, behavior_),
                      !enough && decoded_.failed ? PSP_UTF8_FAILED : ends_[std::min(chars, all)])
                << chars;
        }
    }

    void check_copies() const
    {
        for (std::size_t size = 0; size <= encoded_.size() + 2; size++) {
            const auto behind = std::upper_bound(ends_.begin(), ends_.end(), size) - 1;
            const std::size_t result = decoded_.failed ? PSP_UTF8_FAILED : *behind;
            const auto count = static_cast<std::size_t>(behind - ends_.begin());
            std::vector<char> room(size);
            for (char* dest : {room.data(), static_cast<char*>(nullptr)}) {
                std::size_t copied = 99;
                ASSERT_EQ(
                    psp_copyUTF8Chars(dest, size, bytes_.data(), bytes_.size(), &copied, behavior_),
                    result);
                ASSERT_EQ(copied, decoded_.failed ? 99 : count);
                ASSERT_EQ(
                    psp_copyUTF8Chars(dest, size, bytes_.data(), bytes_.size(), nullptr, behavior_),
                    result);
            }
            if (!decoded_.failed) {
                ASSERT_EQ(std::string(room.data(), result), encoded_.substr(0, result));
            }
        }
    }

    // `convert` is called with the text, a destination and its room in elements.
    template <class Convert>
    void check_wide(Convert convert) const
    {
        const std::size_t all = decoded_.chars.size();
        const std::size_t needed = decoded_.failed ? PSP_UTF8_FAILED : all + 1;
        ASSERT_EQ(convert(bytes_, nullptr, 0, behavior_), needed);
        ASSERT_EQ(convert(bytes_, nullptr, 1, behavior_), needed);
        for (std::size_t room = 1; room <= all + 3; room++) {
            std::vector<wchar_t> dest(room, L'Z');
            std::vector<wchar_t> wanted(decoded_.chars.begin(), decoded_.chars.end());
            wanted.resize(std::min(all, room - 1));
            wanted.push_back(0);
            ASSERT_EQ(convert(bytes_, dest.data(), room, behavior_),
                      decoded_.failed ? PSP_UTF8_FAILED : wanted.size());
            wanted.resize(room, L'Z');
            if (!decoded_.failed) {
                ASSERT_EQ(dest, wanted) << room;
            }
        }
    }

  private:
    std::vector<char> bytes_; // on the heap, of its exact size: a checker sees a look behind it
    PSP_UTF8_ERROR_BEHAVIOR behavior_;
    DecodedUtf8 decoded_;
    std::string encoded_{};
    std::vector<std::size_t> ends_{0}; // of so many characters
};

inline std::size_t widen_counted(const std::vector<char>& text, wchar_t* dest, std::size_t room,
                                 PSP_UTF8_ERROR_BEHAVIOR behavior)
{
    return psp_utf8_to_wchar_len(dest, room, text.data(), text.size(), behavior);
}

inline std::size_t widen_string(const std::vector<char>& text, wchar_t* dest, std::size_t room,
                                PSP_UTF8_ERROR_BEHAVIOR behavior)
{
    std::vector<char> terminated = text;
    terminated.push_back('\0');
    return psp_utf8_to_wchar(dest, terminated.data(), room, behavior);
}

inline void check_utf8(const std::string& bytes)
{
    for (const PSP_UTF8_ERROR_BEHAVIOR behavior : error_behaviors) {
        const ExpectedUtf8 expected(bytes, behavior);
        expected.check_counts();
        expected.check_copies();
        expected.check_wide(widen_counted);
        ExpectedUtf8(bytes.c_str(), behavior).check_wide(widen_string);
    }
    if (::testing::Test::HasFatalFailure()) {
        std::string hex;
        for (const char byte : bytes) {
            char digits[4];
            std::snprintf(digits, sizeof digits, " %02X", static_cast<unsigned char>(byte));
            hex += digits;
        }
        FAIL() << "for" << hex;
    }
}

} // namespace psptest
