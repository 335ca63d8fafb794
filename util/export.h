// Marks the symbols that the shared library exports. All others are hidden.
#pragma once

#define ZEB_API __attribute__((visibility("default")))
