/// @file
/// Symbol visibility of the platform layer: the library is built with hidden
/// visibility by default and exports only what carries this macro.
#ifndef CRRECORD_PLATFORM_EXPORT_H
#define CRRECORD_PLATFORM_EXPORT_H

/// Marks a declaration of the platform layer's public API for export.
#define CRRECORD_PLATFORM_API __attribute__((visibility("default")))

#endif  // CRRECORD_PLATFORM_EXPORT_H
