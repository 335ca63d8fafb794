// Standard output for what was asked for, standard error for what is said about it.
#pragma once

#include <string>
#include <string_view>

#include "tools/ending.h"

namespace zeb::tools {

/// Writes to standard output at once. Waits for a slow reader, but not beyond the ending. False: not all was
/// written; the ending has begun. One thread at a time.
bool WriteOutput(std::string_view bytes, Ending& ending);

/// One line to standard error, after the program's name.
void Say(const std::string& text);

/// Sets up the system's log, into which the library writes: warnings and errors; with `debug` every line,
/// and on standard error too.
void OpenLog(bool debug);

}  // namespace zeb::tools
