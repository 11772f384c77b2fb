// Fuzz entry functions over the platform layer's readers of outside bytes:
// the typed-reference decoder and the fingerprint text decoder.
#include <cctype>
#include <cstring>
#include <string>
#include <vector>

#include "boost/intrusive_ptr.hpp"
#include "crrecord/DORecord.h"
#include "crrecord/platform/fingerprint.h"
#include "crrecord/platform/status.h"
#include "crrecord/platform/tref.h"
#include "fuzz_support.h"
#include "fuzz_targets.h"

namespace crfuzz {
namespace {

int Sign(int v) { return (v > 0) - (v < 0); }

}  // namespace

// Input: a mode byte (0 text, 1 binary, anything else refused), then the
// bytes, decoded one reference after another as a section is.
Outcome FuzzTRefNewDeserialize(const uint8_t* data, size_t size) {
  QuietLogging();
  Input in(data, size);
  const uint8_t modeByte = in.U8();
  const int mode = modeByte % 4 == 3 ? 7 : modeByte % 2;
  const std::vector<uint8_t> bytes = in.Rest();
  // Exactly the bytes, so that a read past them shows under the sanitizer.
  Buffer copy = CopyOf(bytes.data(), bytes.size());
  const unsigned char* p = copy.get();
  size_t left = bytes.size();
  Outcome outcome = Outcome::kRefused;
  boost::intrusive_ptr<Cr_TRef> previous;
  while (left != 0) {
    unsigned long consumed = 99;
    _cr_tref_t* ref = CRTRefNewDeserialize(p, left, mode, &consumed);
    if (ref == nullptr) {
      Check(consumed == 0 && *__cr_errno_location() != CR_STATUS_SUCCESS,
            "a refused reference consumes nothing and leaves a status");
      break;
    }
    outcome = Outcome::kAccepted;
    if (!Check(consumed >= 1 && consumed <= left, "a reference consumes what it was given")) {
      CRTRefDelete(&ref);
      break;
    }
    unsigned char written[2 + CR_TREF_MAX_PAYLOAD] = {};
    Check(CRTRefSerializedSize(ref, CR_TREF_MODE_BINARY) == consumed &&
              CRTRefSerialize(written, sizeof written, ref, CR_TREF_MODE_BINARY) == consumed &&
              std::memcmp(written, p, consumed) == 0,
          "a decoded reference encodes to the bytes it came from");
    char text[CR_TREF_TEXT_SIZE] = {};
    const size_t textSize = CRTRefSerializedSize(ref, CR_TREF_MODE_TEXT);
    Check(textSize >= 2 && textSize <= sizeof text &&
              CRTRefSerialize(text, sizeof text, ref, CR_TREF_MODE_TEXT) == textSize &&
              std::strlen(text) + 1 == textSize,
          "the text form fits its buffer and ends at its NUL");
    char shown[CR_TREF_TEXT_SIZE + 1];
    Check(std::strcmp(CRTRefToString(shown, sizeof shown, ref), text) == 0,
          "CRTRefToString gives the text form");
    (void)CRTRefGetTaskID(ref);

    boost::intrusive_ptr<Cr_TRef> wrapped(Cr_TRef::Factory(ref));
    CRTRefDelete(&ref);
    if (previous) {
      const _cr_tref_t* a = previous->Get();
      const _cr_tref_t* b = wrapped->Get();
      Check(Sign(CRTRefCompare(a, b)) == -Sign(CRTRefCompare(b, a)) &&
                (CRTRefCompare(a, b) == 0) == (CRTRefEqual(a, b) != 0),
            "the order of references is antisymmetric and agrees with equality");
    }
    previous = wrapped;
    p += consumed;
    left -= consumed;
  }
  return outcome;
}

// Input: a fingerprint-type byte, then the text, not NUL-terminated.
Outcome FuzzFPStringToDigest(const uint8_t* data, size_t size) {
  QuietLogging();
  Input in(data, size);
  const unsigned char fptype = FPTypeFrom(in.U8());
  const std::vector<uint8_t> bytes = in.Rest();
  Buffer text = CopyOf(bytes.data(), bytes.size());
  crfp_digest_t fp;
  std::memset(&fp, 0xA5, sizeof fp);
  const char* chars = reinterpret_cast<const char*>(text.get());
  if (CRFPStringToDigest_r(chars, bytes.size(), fptype, &fp) == nullptr) {
    return Outcome::kRefused;
  }
  const size_t digits = 2 * CRFPDigestSize(fptype);
  Check(digits != 0 && bytes.size() == digits, "only the exact number of digits is taken");
  std::string lower(chars, bytes.size());
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  char again[65];
  Check(CRFPDigestToString_r(&fp, fptype, again, sizeof again) != nullptr && lower == again,
        "the digest prints as the text it was read from, in lower case");
  return Outcome::kAccepted;
}

}  // namespace crfuzz
