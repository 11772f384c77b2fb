// Text forms of many fingerprints in one call: the fingerprint layer's
// entry for the record library's per-segment loops, where a call per
// fingerprint would cost more than the conversion itself.
//
// Internal: exported by the platform library for the record library only,
// and not installed. The text of each fingerprint is exactly what
// CRFPDigestToString_r writes and CRFPStringToDigest_r reads.
#ifndef CRRECORD_PLATFORM_SRC_FINGERPRINT_BATCH_H
#define CRRECORD_PLATFORM_SRC_FINGERPRINT_BATCH_H

#include <cstddef>

#include "crrecord/platform/export.h"

// Fingerprint k (CRFPDigestSize(fptype) bytes) at digests + k * digestStride
// gets its text, 2 * size lower-case hex digits and a NUL, at
// text + k * textStride; nothing else is written. Returns 0, or -1 with the
// CR errno set for an invalid fingerprint type or a null pointer.
CRRECORD_PLATFORM_API int CRFPDigestsToStrings(const void* digests, size_t digestStride,
                                               unsigned char fptype, char* text,
                                               size_t textStride, size_t count);

// The inverse over text fields of 2 * size hex digits (either case) and a
// NUL at text + k * textStride: decodes field k into
// digests + k * digestStride. Returns the number of fields before the first
// that is not so (count when every one is), setting the CR errno when that
// is fewer than count; the failing field's bytes may be partly written. An
// invalid fingerprint type or a null pointer gives 0.
CRRECORD_PLATFORM_API size_t CRFPStringsToDigests(const char* text, size_t textStride,
                                                  unsigned char fptype, void* digests,
                                                  size_t digestStride, size_t count);

#endif  // CRRECORD_PLATFORM_SRC_FINGERPRINT_BATCH_H
