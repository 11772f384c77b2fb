// Fingerprints over OpenSSL's libcrypto. The low-level MD5 and SHA-256 calls
// keep the whole hash state in the caller's crfp_ctx_t, so a context owns no
// heap memory and may be abandoned at any point.
//
// The digest of a whole DO record (CRFPFinalizeDO) is domain-separated from a
// segment fingerprint: it is H(kDODomainLabel || H(bytes)), with H the
// type's hash taken at full width and the result cut to the type's size, so
// it never coincides with CRFPFinalize of the same bytes.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "crrecord/platform/fingerprint.h"

#include <openssl/md5.h>
#include <openssl/sha.h>

#include <cstring>
#include <new>

#include "crrecord/platform/status.h"
#include "hex.h"

namespace crrecord {
namespace {

static_assert(sizeof(MD5_CTX) <= sizeof(crfp_ctx_t::state), "the MD5 state fits the context");
static_assert(sizeof(SHA256_CTX) <= sizeof(crfp_ctx_t::state),
              "the SHA-256 state fits the context");
static_assert(alignof(MD5_CTX) <= 16 && alignof(SHA256_CTX) <= 16,
              "the context's state is aligned for both hashes");

constexpr char kDODomainLabel[] = "crrecord.dorecord.digest";

constexpr size_t kMaxHashSize = 32;

void Fail(cr_status_t status) { *__cr_errno_location() = status; }

// The digest size of a fingerprint type; 0, reported as invalid, for a type
// this build does not know.
size_t CheckedDigestSize(unsigned char fptype) {
  const size_t size = CRFPDigestSize(fptype);
  if (size == 0) Fail(CR_STATUS_INVALID);
  return size;
}

bool IsMD5(unsigned char fptype) { return fptype == CR_FP_TYPE_MD5; }

MD5_CTX* MD5State(crfp_ctx_t* ctx) {
  return std::launder(reinterpret_cast<MD5_CTX*>(ctx->state));
}

SHA256_CTX* SHAState(crfp_ctx_t* ctx) {
  return std::launder(reinterpret_cast<SHA256_CTX*>(ctx->state));
}

// REQUIRES: fptype is valid. The hash state is created in ctx->state here.
bool HashInit(crfp_ctx_t* ctx, unsigned char fptype) {
  if (IsMD5(fptype)) return MD5_Init(new (ctx->state) MD5_CTX) == 1;
  return SHA256_Init(new (ctx->state) SHA256_CTX) == 1;
}

bool HashUpdate(crfp_ctx_t* ctx, const void* data, size_t length) {
  if (IsMD5(ctx->fptype)) return MD5_Update(MD5State(ctx), data, length) == 1;
  return SHA256_Update(SHAState(ctx), data, length) == 1;
}

// Writes the hash at its full width (16 or 32 bytes) and stores the width.
bool HashFinal(crfp_ctx_t* ctx, unsigned char out[kMaxHashSize], size_t* width) {
  if (IsMD5(ctx->fptype)) {
    *width = MD5_DIGEST_LENGTH;
    return MD5_Final(out, MD5State(ctx)) == 1;
  }
  *width = SHA256_DIGEST_LENGTH;
  return SHA256_Final(out, SHAState(ctx)) == 1;
}

bool Usable(const crfp_ctx_t* ctx) {
  if (ctx == nullptr) {
    Fail(CR_STATUS_MISSING_ARGUMENT);
    return false;
  }
  if (!CRFPTypeIsValid(ctx->fptype) || ctx->finalized) {
    Fail(CR_STATUS_INVALID);
    return false;
  }
  return true;
}

// Stores the hash, cut to the type's size and zero beyond it, as the result.
void Seal(crfp_ctx_t* ctx, const unsigned char* hash) {
  std::memset(ctx->result.digest, 0, sizeof ctx->result.digest);
  std::memcpy(ctx->result.digest, hash, CRFPDigestSize(ctx->fptype));
  ctx->finalized = 1;
}

int Finish(crfp_ctx_t* ctx, bool wholeDO) {
  if (!Usable(ctx)) return -1;
  unsigned char hash[kMaxHashSize];
  size_t width = 0;
  if (!HashFinal(ctx, hash, &width)) {
    Fail(CR_STATUS_INVALID);
    return -1;
  }
  if (wholeDO) {
    unsigned char inner[kMaxHashSize];
    std::memcpy(inner, hash, width);
    if (!HashInit(ctx, ctx->fptype) ||
        !HashUpdate(ctx, kDODomainLabel, sizeof kDODomainLabel - 1) ||
        !HashUpdate(ctx, inner, width) || !HashFinal(ctx, hash, &width)) {
      Fail(CR_STATUS_INVALID);
      return -1;
    }
  }
  Seal(ctx, hash);
  return 0;
}

}  // namespace
}  // namespace crrecord

using crrecord::CheckedDigestSize;
using crrecord::Fail;

bool CRFPTypeIsValid(unsigned char fptype) {
  return fptype >= CR_FP_TYPE_MD5 && fptype <= CR_FP_TYPE_SHA256;
}

int CRDOTypeIsValid(unsigned char dotype) { return dotype <= 5; }

unsigned int CRFPDigestSize(unsigned char fptype) {
  switch (fptype) {
    case CR_FP_TYPE_MD5:
    case CR_FP_TYPE_SHA256_16:
      return 16;
    case CR_FP_TYPE_SHA256:
      return 32;
    default:
      return 0;
  }
}

int CRFPInitialize(crfp_ctx_t* ctx, unsigned char fptype) {
  if (ctx == nullptr) {
    Fail(CR_STATUS_MISSING_ARGUMENT);
    return -1;
  }
  ctx->fptype = 0;
  ctx->finalized = 0;
  if (!CRFPTypeIsValid(fptype) || !crrecord::HashInit(ctx, fptype)) {
    Fail(CR_STATUS_INVALID);
    return -1;
  }
  ctx->fptype = fptype;
  return 0;
}

int CRFPAppend(crfp_ctx_t* ctx, const void* data, unsigned int length) {
  if (!crrecord::Usable(ctx)) return -1;
  if (length == 0) return 0;
  if (data == nullptr) {
    Fail(CR_STATUS_MISSING_ARGUMENT);
    return -1;
  }
  if (!crrecord::HashUpdate(ctx, data, length)) {
    Fail(CR_STATUS_INVALID);
    return -1;
  }
  return 0;
}

int CRFPFinalize(crfp_ctx_t* ctx) { return crrecord::Finish(ctx, false); }

int CRFPFinalizeDO(crfp_ctx_t* ctx) { return crrecord::Finish(ctx, true); }

crfp_digest_t* CRFPGetDigest_r(crfp_ctx_t* ctx, crfp_digest_t* out) {
  if (ctx == nullptr || out == nullptr) {
    Fail(CR_STATUS_MISSING_ARGUMENT);
    return nullptr;
  }
  if (!CRFPTypeIsValid(ctx->fptype) || !ctx->finalized) {
    Fail(CR_STATUS_INVALID);
    return nullptr;
  }
  *out = ctx->result;
  return out;
}

char* CRFPDigestToString_r(const crfp_digest_t* fp, unsigned char fptype, char* buffer,
                           size_t length) {
  if (fp == nullptr || buffer == nullptr) {
    Fail(CR_STATUS_MISSING_ARGUMENT);
    return nullptr;
  }
  const size_t size = CheckedDigestSize(fptype);
  if (size == 0) return nullptr;
  if (length < 2 * size + 1) {
    Fail(CR_STATUS_NO_ROOM);
    return nullptr;
  }
  crrecord::HexEncode(fp->digest, size, buffer);
  buffer[2 * size] = '\0';
  return buffer;
}

crfp_digest_t* CRFPStringToDigest_r(const char* text, size_t length, unsigned char fptype,
                                    crfp_digest_t* out) {
  if (text == nullptr || out == nullptr) {
    Fail(CR_STATUS_MISSING_ARGUMENT);
    return nullptr;
  }
  const size_t size = CheckedDigestSize(fptype);
  if (size == 0) return nullptr;
  // Decoded aside so that *out is untouched on bad text.
  crfp_digest_t value = {};
  if (length != 2 * size || !crrecord::HexDecode(text, length, value.digest)) {
    Fail(CR_STATUS_MALFORMED);
    return nullptr;
  }
  *out = value;
  return out;
}

int CRFPDigestsToStrings(const void* digests, size_t digestStride, unsigned char fptype,
                         char* text, size_t textStride, size_t count) {
  if (count == 0) return 0;
  if (digests == nullptr || text == nullptr) {
    Fail(CR_STATUS_MISSING_ARGUMENT);
    return -1;
  }
  const size_t size = CRFPDigestSize(fptype);
  if (size == 0) {
    Fail(CR_STATUS_INVALID);
    return -1;
  }
  crrecord::HexEncodeFields(static_cast<const unsigned char*>(digests), digestStride, size, text,
                            textStride, count, true);
  return 0;
}

size_t CRFPStringsToDigests(const char* text, size_t textStride, unsigned char fptype,
                            void* digests, size_t digestStride, size_t count) {
  if (count == 0) return 0;
  if (text == nullptr || digests == nullptr) {
    Fail(CR_STATUS_MISSING_ARGUMENT);
    return 0;
  }
  const size_t size = CRFPDigestSize(fptype);
  if (size == 0) {
    Fail(CR_STATUS_INVALID);
    return 0;
  }
  const size_t good = crrecord::HexDecodeFields(text, textStride, size,
                                                static_cast<unsigned char*>(digests),
                                                digestStride, count, true);
  if (good < count) Fail(CR_STATUS_MALFORMED);
  return good;
}

int CRFPCompute(unsigned char fptype, const void* data, size_t length, crfp_digest_t* out) {
  if (out == nullptr || (data == nullptr && length != 0)) {
    Fail(CR_STATUS_MISSING_ARGUMENT);
    return -1;
  }
  crfp_ctx_t ctx;
  if (CRFPInitialize(&ctx, fptype) != 0) return -1;
  // The length may exceed what CRFPAppend takes in one call.
  if (length != 0 && !crrecord::HashUpdate(&ctx, data, length)) {
    Fail(CR_STATUS_INVALID);
    return -1;
  }
  if (CRFPFinalize(&ctx) != 0) return -1;
  *out = ctx.result;
  return 0;
}
