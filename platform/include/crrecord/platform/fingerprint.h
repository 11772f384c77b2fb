/// @file
/// Fingerprints: the stand-in for the service's fingerprint component.
///
/// Fingerprint types: 1 = MD5 (16 bytes), 2 = SHA-256 cut to its first 16
/// bytes, 3 = SHA-256 (32 bytes). Hashing uses OpenSSL's libcrypto. Failures
/// return -1 or null and leave their status in the CR errno
/// (__cr_errno_location): 65 for a null argument, 9 for an unknown type or a
/// context in the wrong state, 121 for bad text, 122 for a buffer too small.
#ifndef CRRECORD_PLATFORM_FINGERPRINT_H
#define CRRECORD_PLATFORM_FINGERPRINT_H

#include <cstddef>

#include "crrecord/platform/export.h"

/// Fingerprint types.
enum : unsigned char {
  CR_FP_TYPE_MD5 = 1,        ///< MD5, 16 bytes
  CR_FP_TYPE_SHA256_16 = 2,  ///< SHA-256 cut to its first 16 bytes
  CR_FP_TYPE_SHA256 = 3,     ///< SHA-256, 32 bytes
};

/// One fingerprint value, as raw digest bytes (no byte order applies).
struct crfp_digest_t {
  unsigned char digest[32];  ///< the digest; 16-byte types use the first 16
};

/// A fingerprint computation in caller-provided storage. It holds no heap
/// memory, so a context may be abandoned at any point without leaking. Use
/// it only through the CRFP* functions.
struct crfp_ctx_t {
  unsigned char fptype;                  ///< fingerprint type; 0 until initialized
  unsigned char finalized;               ///< set by CRFPFinalize / CRFPFinalizeDO
  unsigned char reserved[6];             ///< unused
  alignas(16) unsigned char state[240];  ///< the hash state
  crfp_digest_t result;                  ///< the digest, once finalized
};

/// True for the fingerprint types 1, 2 and 3.
CRRECORD_PLATFORM_API bool CRFPTypeIsValid(unsigned char fptype);
/// Nonzero for DO types 0 to 5, the types acceptable for a new record.
CRRECORD_PLATFORM_API int CRDOTypeIsValid(unsigned char dotype);
/// Bytes of a fingerprint of this type: 16 or 32; 0 when the type is invalid.
CRRECORD_PLATFORM_API unsigned int CRFPDigestSize(unsigned char fptype);

/// Starts a computation of type @p fptype in @p ctx (any earlier state is
/// dropped). Returns 0, or -1 with the CR errno 65 (null context) or 9
/// (unknown type).
CRRECORD_PLATFORM_API int CRFPInitialize(crfp_ctx_t* ctx, unsigned char fptype);
/// Feeds @p length bytes of @p data (null allowed when @p length is 0).
/// Returns 0, or -1 with the CR errno 65 or 9 (context not initialized or
/// already finalized).
CRRECORD_PLATFORM_API int CRFPAppend(crfp_ctx_t* ctx, const void* data, unsigned int length);
/// Finishes the fingerprint of one segment; read it with CRFPGetDigest_r.
/// Returns 0, or -1 with the CR errno set (9 for a context in the wrong state).
CRRECORD_PLATFORM_API int CRFPFinalize(crfp_ctx_t* ctx);
/// Finishes the digest of a whole DO record: domain-separated, so it never
/// equals CRFPFinalize of the same bytes. Returns 0, or -1 as CRFPFinalize.
CRRECORD_PLATFORM_API int CRFPFinalizeDO(crfp_ctx_t* ctx);
/// Copies the finalized digest to *@p out; returns @p out, or null (CR errno
/// 65 or 9) when an argument is null or the context is not finalized.
CRRECORD_PLATFORM_API crfp_digest_t* CRFPGetDigest_r(crfp_ctx_t* ctx, crfp_digest_t* out);

/// Writes the lower-case hex text of the fingerprint plus its NUL
/// (2 * size + 1 bytes) into @p buffer of @p length bytes and returns
/// @p buffer; null when an argument is null (65), the type is invalid (9) or
/// the text does not fit (122).
CRRECORD_PLATFORM_API char* CRFPDigestToString_r(const crfp_digest_t* fp, unsigned char fptype,
                                                 char* buffer, size_t length);
/// The exact inverse of CRFPDigestToString_r: @p length must be 2 * size hex
/// digits (either case), without the NUL. Returns @p out, or null with *out
/// untouched on a null argument (65), an unknown type (9) or bad text (121).
/// Never reads more than @p length bytes.
CRRECORD_PLATFORM_API crfp_digest_t* CRFPStringToDigest_r(const char* text, size_t length,
                                                          unsigned char fptype, crfp_digest_t* out);
/// One-shot segment fingerprint of @p length bytes at @p data into *@p out.
/// Returns 0, or -1 with the CR errno 65 (null output, or null data with a
/// length) or 9 (unknown type).
CRRECORD_PLATFORM_API int CRFPCompute(unsigned char fptype, const void* data, size_t length,
                                      crfp_digest_t* out);

/// Text forms of many fingerprints in one call, for loops over a whole
/// segment list where a call per fingerprint would cost more than the
/// conversion. Fingerprint k (CRFPDigestSize(@p fptype) bytes) at
/// @p digests + k * @p digestStride gets its text, exactly what
/// CRFPDigestToString_r writes (2 * size lower-case hex digits and a NUL), at
/// @p text + k * @p textStride; nothing else is written. Returns 0, or -1
/// with the CR errno set for an unknown type (9) or a null pointer (65).
CRRECORD_PLATFORM_API int CRFPDigestsToStrings(const void* digests, size_t digestStride,
                                               unsigned char fptype, char* text,
                                               size_t textStride, size_t count);
/// The inverse of CRFPDigestsToStrings over text fields of 2 * size hex
/// digits (either case) and a NUL at @p text + k * @p textStride: decodes
/// field k into @p digests + k * @p digestStride. Returns the number of
/// fields before the first one that is not so (@p count when every one is),
/// setting the CR errno when that is fewer than @p count; the failing field's
/// bytes may be partly written. An unknown type or a null pointer gives 0.
CRRECORD_PLATFORM_API size_t CRFPStringsToDigests(const char* text, size_t textStride,
                                                  unsigned char fptype, void* digests,
                                                  size_t digestStride, size_t count);

#endif  // CRRECORD_PLATFORM_FINGERPRINT_H
