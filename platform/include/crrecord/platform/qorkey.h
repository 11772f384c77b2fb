// The key record under which a segment's data was stored. The record library
// copies its first 33 bytes (key and key type) and never interprets them.
#ifndef CRRECORD_PLATFORM_QORKEY_H
#define CRRECORD_PLATFORM_QORKEY_H

struct QorKey {
  unsigned char key[32];
  unsigned char keyType;
};

#endif  // CRRECORD_PLATFORM_QORKEY_H
