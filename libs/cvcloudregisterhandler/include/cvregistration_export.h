#ifndef CVREGISTRATION_EXPORT_H
#define CVREGISTRATION_EXPORT_H

/// @file
/// What the library shows to its process.

/// Marks a name that the daemon, or another library in it, may look up. The version script lists the same
/// names.
#define CV_EXPORT __attribute__((visibility("default")))

#endif
