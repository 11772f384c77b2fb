// Fuzz entry function over the segment DB record read from outside: the
// validation, and the conversions, serialization and stream forms that
// trust a record once it has passed.
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "crrecord/common/Endian.h"
#include "crrecord/SOmarshall.h"
#include "fuzz_support.h"
#include "fuzz_targets.h"

namespace crfuzz {
namespace {

void Convert(_SegmentDBRecord* dst, const _SegmentDBRecord* src, unsigned int flags,
             bool toHost) {
  toHost ? SegmentRecordNtoh(dst, src, flags) : SegmentRecordHton(dst, src, flags);
}

_SegmentDBRecord* AsRecord(const Buffer& b) {
  return reinterpret_cast<_SegmentDBRecord*>(b.get());
}

std::string Streamed(_SegmentDBRecord& record, bool binary) {
  std::ostringstream os;
  SegmentRecordToStream(os, record, binary);
  return os.str();
}

}  // namespace

// Input: a byte of validation flags (bit 2 is one the function refuses),
// then the record.
Outcome FuzzSegmentRecordValidate(const uint8_t* data, size_t size) {
  QuietLogging();
  Input in(data, size);
  const unsigned int flags = in.U8() & 7;
  const std::vector<uint8_t> bytes = in.Rest();
  if (bytes.size() > UINT32_MAX) return Outcome::kRefused;
  const unsigned int length = static_cast<unsigned int>(bytes.size());
  Buffer record = CopyOf(bytes.data(), bytes.size());
  const cr_status_t status = SegmentRecordValidate(AsRecord(record), length, flags);
  if ((flags & ~3u) != 0) {
    Check(status == CR_STATUS_INVALID, "unknown flags give 9");
    return Outcome::kRefused;
  }
  if (status != CR_STATUS_SUCCESS) {
    Check(status == CR_STATUS_INVALID_RECORD, "an invalid record gives 32");
    return Outcome::kRefused;
  }
  Check(std::memcmp(record.get(), bytes.data(), length) == 0, "validation changes nothing");

  const bool net = (flags & CR_SO_VALIDATE_NETWORK_ORDER) != 0;
  const _SegmentDBRecord* src = AsRecord(record);
  const uint32_t ntaskid = crrecord::InRecordOrder(src->ntaskid, net);
  const uint32_t ndo = crrecord::InRecordOrder(src->ndo, net);
  const uint64_t fpBytes = uint64_t{FPWidth(src->fptype)} * ndo;

  // Converted in place and into another buffer: the same record, valid in
  // its new order, and converted back it is the input again.
  Buffer inPlace = CopyOf(bytes.data(), length);
  Convert(AsRecord(inPlace), AsRecord(inPlace), 0, net);
  Buffer moved = CopyOf(nullptr, 0, length);
  Convert(AsRecord(moved), src, 0, net);
  Check(std::memcmp(inPlace.get(), moved.get(), length) == 0,
        "conversion in place and into another buffer agree");
  const unsigned int otherOrder = net ? 0u : unsigned{CR_SO_VALIDATE_NETWORK_ORDER};
  Check(SegmentRecordValidate(AsRecord(moved), length, otherOrder | (flags & 2)) ==
            CR_STATUS_SUCCESS,
        "a converted record validates in its new order");
  Convert(AsRecord(moved), AsRecord(moved), 0, !net);
  Check(std::memcmp(moved.get(), bytes.data(), length) == 0,
        "conversion there and back restores every byte");

  // Without task IDs: a shorter record, its fingerprints and trailer moved up.
  const uint64_t dropped = CR_SO_RECORD_MIN_SIZE + fpBytes;
  Buffer shorter = CopyOf(nullptr, 0, dropped);
  Convert(AsRecord(shorter), src, CR_SO_CONVERT_DROP_TASKIDS, net);
  Check(SegmentRecordValidate(AsRecord(shorter), static_cast<unsigned int>(dropped),
                              otherOrder | CR_SO_VALIDATE_NO_TASKIDS) == CR_STATUS_SUCCESS,
        "a record converted without task IDs validates");
  Check(std::memcmp(shorter.get() + CR_SO_FIXED_SIZE,
                    bytes.data() + CR_SO_FIXED_SIZE + 8 * uint64_t{ntaskid}, fpBytes + 8) == 0,
        "dropping the task IDs moves the fingerprints and trailer up");

  Buffer host = CopyOf(net ? inPlace.get() : record.get(), length);
  Buffer network = CopyOf(net ? record.get() : inPlace.get(), length);

  void* out = nullptr;
  unsigned long outSize = 0;
  Check(SegmentRecordSerialize(AsRecord(network), &out, &outSize) == CR_STATUS_INVALID &&
            out == nullptr,
        "a network-order record is not serialized");
  if (Check(SegmentRecordSerialize(AsRecord(host), &out, &outSize) == CR_STATUS_SUCCESS,
            "a valid host-order record serializes")) {
    const uint64_t textWidth = 2 * uint64_t{FPWidth(src->fptype)} + 1;
    Check(outSize == 33 + textWidth * ndo, "the serialized SO record is 33 + m * W bytes");
    std::free(out);
  }

  // Both stream forms leave each record as it was; the binary form is the
  // network-order record, the text form the same from either order.
  for (Buffer* b : {&host, &network}) {
    const std::vector<uint8_t> before(b->get(), b->get() + length);
    const std::string binary = Streamed(*AsRecord(*b), true);
    Check(binary.size() == length && std::memcmp(binary.data(), network.get(), length) == 0,
          "the binary stream form is the network-order record");
    Check(std::memcmp(b->get(), before.data(), length) == 0, "the binary form restores the record");
  }
  const std::vector<uint8_t> hostBytes(host.get(), host.get() + length);
  const std::vector<uint8_t> networkBytes(network.get(), network.get() + length);
  const std::string text = Streamed(*AsRecord(host), false);
  Check(std::memcmp(host.get(), hostBytes.data(), length) == 0,
        "the text form leaves the record as it was");
  Check(Streamed(*AsRecord(network), false) == text, "the text form reads either order alike");
  Check(std::memcmp(network.get(), networkBytes.data(), length) == 0,
        "the text form restores a network-order record");
  return Outcome::kAccepted;
}

}  // namespace crfuzz
