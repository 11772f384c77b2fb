/// @file
/// The key record under which a segment's data was stored. The record library
/// copies its first 33 bytes (key and key type) and never interprets them.
#ifndef CRRECORD_PLATFORM_QORKEY_H
#define CRRECORD_PLATFORM_QORKEY_H

/// The key record passed to SORecord; only its first 33 bytes are used.
struct QorKey {
  unsigned char key[32];  ///< the key bytes, kept verbatim
  unsigned char keyType;  ///< the key type, kept verbatim
};

#endif  // CRRECORD_PLATFORM_QORKEY_H
