// The SQL shell.
#pragma once

struct sqlite3;

namespace sql {

// Reads statements from the standard input and prints what they give, to the end of the input.
// On a terminal it prompts and goes on after an error; otherwise the first error ends it unless
// `go_on` is set. False when a statement failed or the input was not whole.
bool shell_run(sqlite3* db, bool go_on);

} // namespace sql
