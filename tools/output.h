// Standard output is for what was asked for, standard error for everything else.
#pragma once

#include <string>
#include <string_view>

#include "tools/ending.h"

namespace zeb::tools {

/// Writes to standard output without a buffer. Waits for a slow reader, but only until the ending begins.
/// Returns false if not everything was written; the ending has begun then. One thread at a time.
bool WriteOutput(std::string_view bytes, Ending& ending);

/// Prints a line to standard error, after the program's name. Any thread.
void Say(const std::string& text);

/// Sets up the system log for warnings and errors. With `debug` every line is logged, and also printed to
/// standard error.
void OpenLog(bool debug);

}  // namespace zeb::tools
