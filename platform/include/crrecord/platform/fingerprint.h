// Fingerprints: the stand-in for the service's fingerprint component.
//
// Fingerprint types: 1 = MD5 (16 bytes), 2 = SHA-256 cut to its first 16
// bytes, 3 = SHA-256 (32 bytes). Failures return -1 or null and leave their
// status in the CR errno.
#ifndef CRRECORD_PLATFORM_FINGERPRINT_H
#define CRRECORD_PLATFORM_FINGERPRINT_H

#include <cstddef>

#include "crrecord/platform/export.h"

enum : unsigned char {
  CR_FP_TYPE_MD5 = 1,
  CR_FP_TYPE_SHA256_16 = 2,
  CR_FP_TYPE_SHA256 = 3,
};

struct crfp_digest_t {
  unsigned char digest[32];  // 16-byte types use the first 16
};

// A fingerprint computation in caller-provided storage. It holds no heap
// memory, so a context may be abandoned at any point without leaking.
struct crfp_ctx_t {
  unsigned char fptype;     // 0 until initialized
  unsigned char finalized;  // set by CRFPFinalize / CRFPFinalizeDO
  unsigned char reserved[6];
  alignas(16) unsigned char state[240];  // the hash state
  crfp_digest_t result;
};

CRRECORD_PLATFORM_API bool CRFPTypeIsValid(unsigned char fptype);
// Nonzero for DO types 0 to 5, the types acceptable for a new record.
CRRECORD_PLATFORM_API int CRDOTypeIsValid(unsigned char dotype);
// 16 or 32; 0 when the type is invalid.
CRRECORD_PLATFORM_API unsigned int CRFPDigestSize(unsigned char fptype);

CRRECORD_PLATFORM_API int CRFPInitialize(crfp_ctx_t* ctx, unsigned char fptype);  // 0 / -1
CRRECORD_PLATFORM_API int CRFPAppend(crfp_ctx_t* ctx, const void* data, unsigned int length);
// Fingerprint of one segment.
CRRECORD_PLATFORM_API int CRFPFinalize(crfp_ctx_t* ctx);
// Digest of a whole DO record: domain-separated, so it never equals
// CRFPFinalize of the same bytes.
CRRECORD_PLATFORM_API int CRFPFinalizeDO(crfp_ctx_t* ctx);
// Copies the finalized digest to *out; returns out, or null when not finalized.
CRRECORD_PLATFORM_API crfp_digest_t* CRFPGetDigest_r(crfp_ctx_t* ctx, crfp_digest_t* out);

// Lower-case hex text of the fingerprint plus its NUL (2 * size + 1 bytes);
// null when the type is invalid or the text does not fit in `length`.
CRRECORD_PLATFORM_API char* CRFPDigestToString_r(const crfp_digest_t* fp, unsigned char fptype,
                                                 char* buffer, size_t length);
// The exact inverse: `length` must be 2 * size hex digits (either case).
// Null on bad text; never reads more than `length` bytes.
CRRECORD_PLATFORM_API crfp_digest_t* CRFPStringToDigest_r(const char* text, size_t length,
                                                          unsigned char fptype, crfp_digest_t* out);
// One-shot segment fingerprint; 0 / -1.
CRRECORD_PLATFORM_API int CRFPCompute(unsigned char fptype, const void* data, size_t length,
                                      crfp_digest_t* out);

#endif  // CRRECORD_PLATFORM_FINGERPRINT_H
