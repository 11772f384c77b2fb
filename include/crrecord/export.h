/// @file
/// Symbol visibility of the record library: hidden by default, exported only
/// where this macro stands.
#ifndef CRRECORD_EXPORT_H
#define CRRECORD_EXPORT_H

/// Marks a declaration of the record library's public API for export.
#define CRRECORD_API __attribute__((visibility("default")))
/// Keeps a member of an exported class out of the library's symbol table:
/// for private members that no inline code of a public header calls.
#define CRRECORD_LOCAL __attribute__((visibility("hidden")))

#endif  // CRRECORD_EXPORT_H
