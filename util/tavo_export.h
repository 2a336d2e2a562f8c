// Marks the few symbols the shared library exports; the rest is hidden.
#pragma once

#define TAVO_EXPORT __attribute__((visibility("default")))
