// Adding, checking and removing typed references, the sizes they keep in
// step (the TRef size field and the record size move with every change of a
// set), and the typed-reference section read from and written to bytes.
#include <cstdint>

#include "crrecord/DORecord.h"
#include "dorecord/DORecordFormat.h"
#include "status/Report.h"

using namespace crrecord;

namespace {

constexpr size_t kTRefTextSize = 99;

bool HasSet(cr_reftype_t kind) { return kind < CR_TREF_TYPE_END; }

// The kinds a DO record keeps on its own account.
bool MayAdd(cr_reftype_t kind) {
  return kind == CR_TREF_TYPE_TASKID || kind == CR_TREF_TYPE_DSID ||
         kind == CR_TREF_TYPE_RETENTION || kind == CR_TREF_TYPE_HOLD;
}

// Legacy references (kind 8) may still be found in stored sections, so they
// can be removed although they can no longer be added.
bool MayRemove(cr_reftype_t kind) { return MayAdd(kind) || kind == CR_TREF_TYPE_LEGACY; }

bool MayLookUp(cr_reftype_t kind) {
  return kind == CR_TREF_TYPE_DSID || kind == CR_TREF_TYPE_RETENTION ||
         kind == CR_TREF_TYPE_HOLD;
}

// Task IDs are looked up with HasTaskID, so CheckTRef refuses them; kind 7
// and kinds beyond the end kind are answered as present without a search.
bool PresentWithoutLooking(cr_reftype_t kind) {
  return kind == CR_TREF_TYPE_SYSTEM || kind > CR_TREF_TYPE_END;
}

uint32_t SerializedSize(const boost::intrusive_ptr<Cr_TRef>& ref) {
  return static_cast<uint32_t>(CRTRefSerializedSize(ref->Get(), CR_TREF_MODE_BINARY));
}

[[noreturn]] void ThrowUnsupported(const _cr_tref_t* ref, const char* operation) {
  char text[kTRefTextSize];
  CRTRefToString(text, sizeof text, ref);
  if (operation == nullptr) {
    ErrorA(CR_STATUS_INVALID, "The type of reference %s is unsupported for a DO", text);
  } else {
    ErrorA(CR_STATUS_INVALID, "%s: The type of reference %s is unsupported for a DO", operation,
           text);
  }
  ThrowLastLogged(CR_STATUS_INVALID);
}

// The record size once `bytes` more are added. A record size beyond 32 bits
// cannot be stored; it is refused before anything changes.
unsigned int GrownRecSize(const DORecord& record, uint64_t bytes) {
  const uint64_t recsize = uint64_t{record.getRecSize()} + bytes;
  if (recsize > kLargestRecordSize) ThrowFixed(CR_STATUS_INVALID, "invalid record size for DO");
  return static_cast<unsigned int>(recsize);
}

// Both grow by `size`, or neither.
void GrowSizes(DORecord& record, uint32_t size) {
  const unsigned int recsize = GrownRecSize(record, size);
  record.setTRefsSize(record.getTRefsSize() + size);
  record.setRecSize(recsize);
}

// The TRef size field shrinks first; setRecSize then refuses a record size
// below the header size (a size that would go below zero counts as 0).
void ShrinkSizes(DORecord& record, uint32_t size) {
  record.setTRefsSize(record.getTRefsSize() - size);
  const uint32_t recsize = record.getRecSize();
  record.setRecSize(size > recsize ? 0 : recsize - size);
}

[[noreturn]] void ThrowCorruptSection(cr_status_t status, unsigned long offset) {
  CR_TRACE("Invalid DO record: invalid typed reference at offset %lu from start of typed "
           "reference section: %s",
           offset, CRStatusToStringA(status));
  ThrowFixed(status, "Received a buffer with corrupt typed references.");
}

}  // namespace

// --- Adding -------------------------------------------------------------------

// A null pointer, or one wrapping no raw reference, is refused like
// AddTRef's rather than dereferenced.
int DORecord::OwnTRef(boost::intrusive_ptr<Cr_TRef> ref) {
  if (!ref || ref->Get() == nullptr) ThrowFixed(CR_STATUS_INVALID, "NULL reference");
  const cr_reftype_t kind = CRTRefGetType(ref->Get());
  if (!MayAdd(kind)) ThrowUnsupported(ref->Get(), nullptr);

  tref_set_t& set = trefs_[kind];
  const std::pair<tref_set_t::iterator, bool> added = set.insert(ref);
  const uint32_t size = added.second ? SerializedSize(ref) : 0;
  // The buffer grows before the size fields are written, so that a borrowed
  // buffer that growth copies (mode 1) keeps its old bytes, and a refusal
  // only has the insertion to undo.
  try {
    expand(GrownRecSize(*this, size));
  } catch (...) {
    if (added.second) set.erase(added.first);
    throw;
  }
  if (added.second) GrowSizes(*this, size);
  handleUpdate();
  return added.second ? 0 : 1;
}

int DORecord::OwnTRef(_cr_tref_t& ref) {
  // From here on the Cr_TRef releases the raw reference, whatever happens.
  boost::intrusive_ptr<Cr_TRef> owned(new Cr_TRef(&ref));
  return OwnTRef(owned);
}

int DORecord::AddTRef(const _cr_tref_t& ref) {
  return OwnTRef(boost::intrusive_ptr<Cr_TRef>(Cr_TRef::Factory(&ref)));
}

int DORecord::AddTRef(boost::intrusive_ptr<Cr_TRef> ref) {
  if (!ref || ref->Get() == nullptr) ThrowFixed(CR_STATUS_INVALID, "NULL reference");
  return AddTRef(*ref->Get());
}

// --- Checking -----------------------------------------------------------------

cr_status_t DORecord::CheckTRef(boost::intrusive_ptr<Cr_TRef> ref) {
  if (!ref || ref->Get() == nullptr) ThrowFixed(CR_STATUS_INVALID, "NULL reference");
  const cr_reftype_t kind = CRTRefGetType(ref->Get());
  if (PresentWithoutLooking(kind)) return CR_STATUS_SUCCESS;
  if (!MayLookUp(kind)) ThrowUnsupported(ref->Get(), "CheckTRef");
  if (trefs_[kind].find(ref) != trefs_[kind].end()) return CR_STATUS_SUCCESS;

  char text[kTRefTextSize];
  CRTRefToString(text, sizeof text, ref->Get());
  WarningA(CR_STATUS_NOT_FOUND, "%s: The type of reference %s is not found", "CheckTRef", text);
  return CR_STATUS_NOT_FOUND;
}

cr_status_t DORecord::CheckTRef(const _cr_tref_t* ref) {
  if (ref == nullptr) ThrowFixed(CR_STATUS_INVALID, "NULL reference");
  return CheckTRef(boost::intrusive_ptr<Cr_TRef>(Cr_TRef::Factory(ref)));
}

// --- Removing -----------------------------------------------------------------

// A null pointer removes nothing and changes nothing, as for the raw form.
unsigned long DORecord::DelTRef(boost::intrusive_ptr<Cr_TRef> ref) {
  if (!ref || ref->Get() == nullptr) return 0;
  const cr_reftype_t kind = CRTRefGetType(ref->Get());
  if (!MayRemove(kind)) ThrowUnsupported(ref->Get(), nullptr);

  const size_t removed = trefs_[kind].erase(ref);
  if (removed != 0) ShrinkSizes(*this, SerializedSize(ref));
  handleUpdate();
  return removed;
}

unsigned long DORecord::DelTRef(const _cr_tref_t* ref) {
  if (ref == nullptr) return 0;
  return DelTRef(boost::intrusive_ptr<Cr_TRef>(Cr_TRef::Factory(ref)));
}

void DORecord::ClearTRefType(cr_reftype_t kind) {
  if (!HasSet(kind)) return;
  const uint32_t total = static_cast<uint32_t>(GetTRefTypeTotalSize(kind));
  trefs_[kind].clear();
  ShrinkSizes(*this, total);
}

void DORecord::RemoveAllTRefs() {
  tref_set_t& set = trefs_[CR_TREF_TYPE_TASKID];
  for (tref_set_t::iterator it = set.begin(); it != set.end();) {
    ShrinkSizes(*this, SerializedSize(*it));
    it = set.erase(it);
  }
  handleUpdate();
}

// --- Sizes and the section ---------------------------------------------------------

unsigned long DORecord::calcTRefsSize() const {
  uint64_t total = 0;
  for (unsigned int kind = 0; kind < CR_TREF_TYPE_END; ++kind) {
    total += GetTRefTypeTotalSize(static_cast<cr_reftype_t>(kind));
  }
  return total;
}

unsigned long DORecord::GetTRefTypeTotalSize(cr_reftype_t kind) const {
  if (!HasSet(kind)) return 0;
  uint64_t total = 0;
  for (const boost::intrusive_ptr<Cr_TRef>& ref : trefs_[kind]) total += SerializedSize(ref);
  return total;
}

unsigned char* DORecord::GetSerializedTRefs() const {
  writeTRefSection();
  return DORecordHeaderStartTRefs(header_);
}

unsigned int DORecord::GetSerializedTRefsSize() const { return getTRefsSize(); }

// A decoded kind above 10 has no set: such a section is refused as malformed,
// like any other section that does not decode, rather than dropping the
// reference silently.
void DORecord::AddSerializedTRefs(const char* data, unsigned int length) {
  if (data == nullptr && length != 0) {
    ThrowFixed(CR_STATUS_MISSING_ARGUMENT, "Received a buffer with corrupt typed references.");
  }
  const unsigned int needed = GrownRecSize(*this, length);

  // The bytes may lie in this record's own buffer (convertToTRefs loads the
  // section in place); growth may move the buffer, so keep their offset.
  const uintptr_t base = reinterpret_cast<uintptr_t>(header_.get());
  const uintptr_t at = reinterpret_cast<uintptr_t>(data);
  const bool inBuffer = data != nullptr && at >= base && at - base < header_.size();
  expand(needed);
  const unsigned char* start = inBuffer
                                   ? header_.bytes() + (at - base)
                                   : reinterpret_cast<const unsigned char*>(data);

  size_t offset = 0;
  while (offset < length) {
    const size_t left = length - offset;
    unsigned long consumed = 0;
    _cr_tref_t* raw = CRTRefNewDeserialize(start + offset, left, CR_TREF_MODE_BINARY, &consumed);
    if (raw == nullptr) ThrowCorruptSection(LastOutsideStatus(), offset);
    if (consumed == 0 || consumed > left || !HasSet(CRTRefGetType(raw))) {
      CRTRefDelete(&raw);
      ThrowCorruptSection(CR_STATUS_MALFORMED, offset);
    }
    const cr_reftype_t kind = CRTRefGetType(raw);
    boost::intrusive_ptr<Cr_TRef> ref;
    try {
      ref.reset(new Cr_TRef(raw));
    } catch (...) {
      CRTRefDelete(&raw);
      throw;
    }
    tref_set_t& set = trefs_[kind];
    const size_t before = set.size();
    set.insert(set.end(), ref);  // sections are written in set order
    if (set.size() != before) GrowSizes(*this, static_cast<uint32_t>(consumed));
    offset += consumed;
  }
  handleUpdate();
}
