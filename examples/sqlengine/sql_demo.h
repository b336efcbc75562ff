// The demonstration.
#pragma once

namespace sql {

// Imports `file_name`, in the format of UnicodeData.txt, into a new database in `directory`,
// queries it, checks it and prints what the engine asked of the platform. False after a message.
bool demo_run(const char* directory, const char* file_name);

} // namespace sql
