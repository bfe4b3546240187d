#pragma once

/// Marks what the shared libraries of this project export; everything else is hidden.
#define ZEMBRA_EXPORT __attribute__((visibility("default")))

/// Marks the definition of a class nested in an exported one that is nobody's business outside.
#define ZEMBRA_HIDDEN __attribute__((visibility("hidden")))
