// Keeps a member of an exported class inside the library.
#pragma once

#define ORVEX_LOCAL __attribute__((visibility("hidden")))
