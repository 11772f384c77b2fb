// Symbol visibility of the record library: hidden by default, exported only
// where this macro stands.
#ifndef CRRECORD_EXPORT_H
#define CRRECORD_EXPORT_H

#define CRRECORD_API __attribute__((visibility("default")))

#endif  // CRRECORD_EXPORT_H
