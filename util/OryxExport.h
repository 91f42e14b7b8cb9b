#pragma once

/// Marks what a program linked with the library may use; everything else stays hidden in the shared object.
#define ORYX_EXPORT __attribute__((visibility("default")))
