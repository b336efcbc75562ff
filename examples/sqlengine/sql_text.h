// Text on a screen: what may be shown, and how many columns it takes.
#pragma once

#include "psp.h"

#include <cstddef>
#include <cstdint>

namespace sql {

bool is_terminal(PSP_FILE_STREAM stream);
bool output_is_terminal();

struct ShownText {
    const char* text; // ends with NUL
    size_t bytes;     // without the NUL
    uint32_t columns; // that it takes on a screen
};

// Makes any bytes presentable, at most `columns` wide (0: no limit), in memory of
// Owner::results: malformed UTF-8 becomes '?', what would move the cursor or turn the direction
// of the text becomes a mark. A NULL text means that there is no memory.
ShownText shown_text(const char* bytes, size_t size, uint32_t columns);

// A number with a comma between groups of three digits.
struct Grouped {
    explicit Grouped(uint64_t value);
    char text[32];
};

} // namespace sql
