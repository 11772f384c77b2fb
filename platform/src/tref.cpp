// Typed references: raw references of a kind and a short payload, their
// order, their binary form (mode 1, kept in a record's typed-reference
// section) and their text form (mode 0), plus the digest object.
#include "crrecord/platform/tref.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "crrecord/common/Endian.h"
#include "crrecord/platform/status.h"
#include "hex.h"

struct _cr_tref_t {
  unsigned char kind;                          // 0..10
  unsigned char length;                        // payload bytes, 1..32
  unsigned char payload[CR_TREF_MAX_PAYLOAD];  // task IDs and DSIDs big-endian
};

namespace crrecord {
namespace {

constexpr size_t kBinaryHeaderSize = 2;  // kind u8, length u8

// The longest text: "tref10:" and 64 hex digits, then the NUL.
constexpr size_t kLongestText = 7 + 2 * CR_TREF_MAX_PAYLOAD + 1;
static_assert(kLongestText <= CR_TREF_TEXT_SIZE, "every text form fits its buffer");

void Fail(cr_status_t status) { *__cr_errno_location() = status; }

bool ValidKind(unsigned int kind) { return kind < CR_TREF_TYPE_END; }

bool ValidLength(size_t length) { return length >= 1 && length <= CR_TREF_MAX_PAYLOAD; }

// REQUIRES: a valid kind and length, and `length` bytes at payload.
_cr_tref_t* Make(unsigned int kind, const void* payload, size_t length) {
  _cr_tref_t* ref = static_cast<_cr_tref_t*>(std::malloc(sizeof(_cr_tref_t)));
  if (ref == nullptr) {
    Fail(CR_STATUS_NO_MEMORY);
    return nullptr;
  }
  ref->kind = static_cast<unsigned char>(kind);
  ref->length = static_cast<unsigned char>(length);
  std::memset(ref->payload, 0, sizeof ref->payload);
  std::memcpy(ref->payload, payload, length);
  return ref;
}

// The payload as a big-endian number: its first 8 bytes when it is longer.
unsigned long PayloadNumber(const _cr_tref_t* ref) {
  unsigned char word[8] = {};
  size_t n = ref->length < sizeof word ? ref->length : sizeof word;
  std::memcpy(word + sizeof word - n, ref->payload, n);
  return LoadBE64(word);
}

// Writes the text form and its NUL into out; returns the text's length.
// Only payloads of a number's own width are printed as that number: any
// other payload would print like a different reference, so it takes the
// generic hex form.
size_t FormatText(const _cr_tref_t* ref, char (&out)[kLongestText]) {
  int n;
  if (ref->kind == CR_TREF_TYPE_TASKID && ref->length == 8) {
    n = std::snprintf(out, sizeof out, "taskid:%lu", PayloadNumber(ref));
  } else if (ref->kind == CR_TREF_TYPE_DSID && ref->length == 4) {
    n = std::snprintf(out, sizeof out, "dsid:%lu", PayloadNumber(ref));
  } else {
    n = std::snprintf(out, sizeof out, "tref%u:", static_cast<unsigned int>(ref->kind));
    HexEncode(ref->payload, ref->length, out + n);
    n += 2 * ref->length;
    out[n] = '\0';
  }
  return static_cast<size_t>(n);
}

// The serialized size, or 0 with the CR errno set.
size_t SerializedSize(const _cr_tref_t* ref, int mode) {
  if (ref == nullptr) {
    Fail(CR_STATUS_MISSING_ARGUMENT);
    return 0;
  }
  if (mode == CR_TREF_MODE_BINARY) return kBinaryHeaderSize + ref->length;
  if (mode == CR_TREF_MODE_TEXT) {
    char text[kLongestText];
    return FormatText(ref, text) + 1;
  }
  Fail(CR_STATUS_INVALID);
  return 0;
}

}  // namespace
}  // namespace crrecord

using crrecord::Fail;

_cr_tref_t* CRTRefNew(cr_reftype_t kind, const void* payload, size_t length) {
  if (!crrecord::ValidKind(kind) || payload == nullptr || !crrecord::ValidLength(length)) {
    Fail(CR_STATUS_INVALID);
    return nullptr;
  }
  return crrecord::Make(kind, payload, length);
}

_cr_tref_t* CRTRefNewTaskID(unsigned long taskId) {
  unsigned char payload[8];
  crrecord::StoreBE64(payload, taskId);
  return crrecord::Make(CR_TREF_TYPE_TASKID, payload, sizeof payload);
}

_cr_tref_t* CRTRefNewDSID(unsigned int dsid) {
  unsigned char payload[4];
  crrecord::StoreBE32(payload, dsid);
  return crrecord::Make(CR_TREF_TYPE_DSID, payload, sizeof payload);
}

_cr_tref_t* CRTRefDup(const _cr_tref_t* ref) {
  if (ref == nullptr) {
    Fail(CR_STATUS_MISSING_ARGUMENT);
    return nullptr;
  }
  return crrecord::Make(ref->kind, ref->payload, ref->length);
}

void CRTRefDelete(_cr_tref_t** ref) {
  if (ref == nullptr) return;
  std::free(*ref);
  *ref = nullptr;
}

// A null reference has no kind: it answers the end kind, which no set holds.
cr_reftype_t CRTRefGetType(const _cr_tref_t* ref) {
  return ref != nullptr ? static_cast<cr_reftype_t>(ref->kind) : CR_TREF_TYPE_END;
}

unsigned long CRTRefGetTaskID(const _cr_tref_t* ref) {
  return ref != nullptr ? crrecord::PayloadNumber(ref) : 0;
}

// A null reference orders before every reference, so the order stays total.
int CRTRefCompare(const _cr_tref_t* a, const _cr_tref_t* b) {
  if (a == nullptr || b == nullptr) return (a != nullptr) - (b != nullptr);
  if (a->kind != b->kind) return a->kind < b->kind ? -1 : 1;
  if (a->length != b->length) return a->length < b->length ? -1 : 1;
  int c = std::memcmp(a->payload, b->payload, a->length);
  return (c > 0) - (c < 0);
}

int CRTRefEqual(const _cr_tref_t* a, const _cr_tref_t* b) { return CRTRefCompare(a, b) == 0; }

size_t CRTRefSerializedSize(const _cr_tref_t* ref, int mode) {
  return crrecord::SerializedSize(ref, mode);
}

size_t CRTRefSerialize(void* dst, size_t room, const _cr_tref_t* ref, int mode) {
  if (dst == nullptr) {
    Fail(CR_STATUS_MISSING_ARGUMENT);
    return 0;
  }
  size_t size = crrecord::SerializedSize(ref, mode);
  if (size == 0) return 0;
  if (room < size) {
    Fail(CR_STATUS_NO_ROOM);
    return 0;
  }
  unsigned char* out = static_cast<unsigned char*>(dst);
  if (mode == CR_TREF_MODE_BINARY) {
    out[0] = ref->kind;
    out[1] = ref->length;
    std::memcpy(out + crrecord::kBinaryHeaderSize, ref->payload, ref->length);
  } else {
    char text[crrecord::kLongestText];
    crrecord::FormatText(ref, text);
    std::memcpy(out, text, size);
  }
  return size;
}

// Only the binary form is read back; the text form is for people and is
// refused as malformed. *consumed is 0 after a failure.
_cr_tref_t* CRTRefNewDeserialize(const void* src, size_t left, int mode, unsigned long* consumed) {
  if (consumed != nullptr) *consumed = 0;
  if (src == nullptr || consumed == nullptr) {
    Fail(CR_STATUS_MISSING_ARGUMENT);
    return nullptr;
  }
  if (mode != CR_TREF_MODE_BINARY) {
    Fail(mode == CR_TREF_MODE_TEXT ? CR_STATUS_MALFORMED : CR_STATUS_INVALID);
    return nullptr;
  }
  const unsigned char* in = static_cast<const unsigned char*>(src);
  if (left < crrecord::kBinaryHeaderSize) {
    Fail(CR_STATUS_TRUNCATED);
    return nullptr;
  }
  // A bad header is reported as such even when the input is also short: its
  // length cannot be trusted to say how short.
  if (!crrecord::ValidKind(in[0]) || !crrecord::ValidLength(in[1])) {
    Fail(CR_STATUS_MALFORMED);
    return nullptr;
  }
  size_t length = in[1];
  if (left - crrecord::kBinaryHeaderSize < length) {
    Fail(CR_STATUS_TRUNCATED);
    return nullptr;
  }
  _cr_tref_t* ref = crrecord::Make(in[0], in + crrecord::kBinaryHeaderSize, length);
  if (ref != nullptr) *consumed = crrecord::kBinaryHeaderSize + length;
  return ref;
}

// A null reference prints as the empty text.
char* CRTRefToString(char* buffer, size_t size, const _cr_tref_t* ref) {
  if (buffer == nullptr || size == 0) return buffer;
  if (ref == nullptr) return qorstrcpy(buffer, "", size);
  char text[crrecord::kLongestText];
  crrecord::FormatText(ref, text);
  return qorstrcpy(buffer, text, size);
}

cr_tdigest_t* CRTDigestNewFull(unsigned char type, const crfp_digest_t* digest,
                               unsigned long cid) {
  if (digest == nullptr) {
    Fail(CR_STATUS_MISSING_ARGUMENT);
    return nullptr;
  }
  cr_tdigest_t* d = static_cast<cr_tdigest_t*>(std::malloc(sizeof(cr_tdigest_t)));
  if (d == nullptr) {
    Fail(CR_STATUS_NO_MEMORY);
    return nullptr;
  }
  d->type = type;
  d->digest = *digest;
  d->cid = cid;
  return d;
}

void CRTDigestDelete(cr_tdigest_t** digest) {
  if (digest == nullptr) return;
  std::free(*digest);
  *digest = nullptr;
}
