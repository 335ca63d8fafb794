// The commands. Each runs on the main thread and returns the exit code or throws Failure.
#pragma once

#include "tools/connection.h"
#include "tools/ending.h"
#include "tools/options.h"

namespace zeb::tools {

int Publish(const Options& options);
int Subscribe(const Options& options);
int Ping(const Options& options);
int Status(const Options& options);

}  // namespace zeb::tools
