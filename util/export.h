// Marks what the shared library exports; everything else is built with hidden visibility.
#pragma once

#define ZEB_API __attribute__((visibility("default")))
