#pragma once

// What every public header starts from: the language that hosts must be compiled in, and what the shared
// libraries export.

#if __cplusplus < 202002L
#error "ZembraCoreSDK needs C++20: compile with -std=c++20 or a later standard"
#include <the_error_above_says_why>  // Ends the compilation there, before hundreds of errors that say less.
#endif

/// Marks what the shared libraries of this project export; everything else is hidden.
#define ZEMBRA_EXPORT __attribute__((visibility("default")))

/// Marks the definition of a class nested in an exported one that is nobody's business outside.
#define ZEMBRA_HIDDEN __attribute__((visibility("hidden")))
