// Recognising what a file holds and opening it through the library.
//
// The forms, and how they are told apart:
// - stored DO record buffer: its type word reads 3 (03 00 in host order,
//   00 03 in network order);
// - segment DB record: its type word reads 2 (02 00 or 00 02);
// - JSON form: its first non-blank byte is '{';
// - serialized DO record: 29 + nfp × (W + X + 8) bytes with nfp big-endian
//   at offset 20. Every (DO type, fingerprint type) pair but two gives its own
//   entry width; DO types 0 and 1 share a layout, and so do fingerprint types
//   1 and 2, so those are assumed unless the caller says (--dotype, --fptype);
// - serialized Bloom DO record: nfp 0 and 56 + bsize + 16 × nudcid bytes with
//   bsize big-endian at 28 and nudcid at 36 + bsize. It carries no
//   fingerprint type, so that is assumed unless the caller says.
// A serialized form's first bytes are the top bytes of a big-endian file
// size, zero for any file under 2^48 bytes, so they never read as 2 or 3.
#ifndef CRREC_LOAD_H
#define CRREC_LOAD_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <crrecord/DORecord.h>
#include <crrecord/SOmarshall.h>

namespace crrec {

enum class Form { kStored, kSerialized, kSerializedBloom, kSegmentDb, kJson };

// "stored", "serialized", "serialized-bloom", "segment-db", "json": the
// names of --form and of the JSON form's "form" field.
const char* FormKey(Form form);
bool FormFromKey(const std::string& key, Form* form);

// What the caller says about the input (command-line options).
struct Hints {
  bool formGiven = false;
  Form form = Form::kStored;
  int dotype = -1;  // serialized forms: -1 to recognise or assume
  int fptype = -1;
  // Header fields the serialized forms do not carry.
  uint64_t cid = 0;
  unsigned short flags = CR_DO_FLAGS_NEW;
  // ctime and mtime of a record rebuilt from a serialized form, which
  // carries no times: a fixed value (not the clock, which the library's
  // reader stamps), so that converting the same input twice gives the same
  // bytes.
  uint32_t time = 0;
};

// The DO types and fingerprint types a serialized form is read with.
struct Recognition {
  Form form = Form::kStored;
  bool networkOrder = false;     // stored and segment DB forms
  unsigned char dotype = 0;      // serialized forms
  unsigned char fptype = 0;
  std::vector<std::string> notes;  // what was assumed, for the user
};

// Decides the form of `length` bytes. Throws ToolError (unsound) when none
// fits, naming the sizes that were expected; usage when the hints
// contradict the bytes.
Recognition Recognise(const unsigned char* data, size_t length, const Hints& hints,
                      const std::string& name);

// An input opened through the library.
struct Loaded {
  std::string name;
  Form form = Form::kStored;    // what the bytes were
  Form origin = Form::kStored;  // for JSON, the form its "form" field names; else form
  bool networkOrder = false;    // stored or segment DB record in network order
  std::vector<std::string> notes;

  // DO forms: the record, in host order.
  std::unique_ptr<DORecord> record;
  // Stored form: the header as the file has it (host values), before old
  // task-ID and DSID lists were turned into typed references.
  DORecordHeader fileHeader{};
  // Stored form: opening turned old task-ID and DSID lists into typed
  // references, so the record no longer has the input's bytes.
  bool convertedOldLists = false;
  // ...and then the record's bytes as the file holds them, in host order:
  // what a stored form is written from, and where the JSON form reads the
  // lists in their order, repeats included.
  std::vector<unsigned char> oldListBytes;
  // Stored form without old lists: where the input differs from what the
  // library writes back for the opened record ("byte 212 is 0x05, the
  // library writes 0x02"); empty when they agree.
  std::string rewritten;
  // Serialized forms: the input bytes, and whether their head holds the
  // Adler-32 of the body (the form written with a checksum).
  std::vector<unsigned char> serialized;
  bool serializedChecksum = false;

  // Segment DB record, host order, 8-byte aligned.
  std::vector<uint64_t> soStorage;
  uint32_t soLength = 0;
  _SegmentDBRecord* so() { return reinterpret_cast<_SegmentDBRecord*>(soStorage.data()); }
  const _SegmentDBRecord* so() const {
    return reinterpret_cast<const _SegmentDBRecord*>(soStorage.data());
  }

  bool IsDO() const { return record != nullptr; }
};

// A stored DO record is at most 4 GiB - 1 (recsize has 32 bits); no other
// form of one is larger than this either.
constexpr uint64_t kMaxInput = 0xFFFFFFFFull;

// Recognises and opens the bytes: every check the library makes on opening
// runs. Throws ToolError (unsound) with the library's reason.
Loaded Load(const std::string& name, const std::vector<unsigned char>& bytes, const Hints& hints);
// The most bytes that an input beginning with these bytes can have and still
// be a record: the length its head gives (a stored or segment DB record's
// recsize, a serialized form's length from its counts), the JSON limit, or
// kMaxInput while the bytes do not tell yet.
uint64_t LengthBound(const unsigned char* data, size_t length, const Hints& hints);
// ReadFile and Load; a stream is read no further than LengthBound allows.
Loaded LoadFile(const std::string& path, const Hints& hints);

// Opens a host-order stored record of `length` bytes: the header check, then
// the stored-record constructor over a copy. Throws ToolError (unsound).
// With `oldListBytes`, a record that has old task-ID or DSID lists leaves
// its host-order bytes there before opening turns the lists into references.
std::unique_ptr<DORecord> OpenStored(const std::string& name, const unsigned char* data,
                                     size_t length, bool networkOrder, DORecordHeader* header,
                                     std::vector<unsigned char>* oldListBytes = nullptr);

// Where `input` first differs from `written`, for people; empty when they
// are the same bytes.
std::string FirstDifference(const std::vector<unsigned char>& input,
                            const std::vector<unsigned char>& written);

// The record's bytes as stored, in host or network order.
std::vector<unsigned char> StoredBytes(const DORecord& record, bool networkOrder);
// The stored form of what was loaded: the old lists kept where the input had
// them, else StoredBytes of the record.
std::vector<unsigned char> StoredBytes(const Loaded& loaded, bool networkOrder);
// The record's serialized form; throws ToolError with the library's status.
std::vector<unsigned char> SerializedBytes(const DORecord& record, bool checksum,
                                           const std::string& name);

}  // namespace crrec

#endif  // CRREC_LOAD_H
