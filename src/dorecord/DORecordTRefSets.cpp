// The reference sets of a DORecord: counts, the range of one kind, and the
// iterator that walks the references of every kind but kind 0.
#include "crrecord/DORecord.h"

namespace {

// Kinds outside the sets are caller errors; they read as empty kinds so that
// a bad kind never indexes past the array.
bool HasSet(cr_reftype_t kind) { return kind < CR_TREF_TYPE_END; }

}  // namespace

// --- Counts -------------------------------------------------------------------

unsigned int DORecord::GetNTRefs() const {
  size_t total = 0;
  for (const tref_set_t& set : trefs_) total += set.size();
  return static_cast<unsigned int>(total);
}

unsigned long DORecord::GetNTRefs(cr_reftype_t kind) const {
  return HasSet(kind) ? trefs_[kind].size() : 0;
}

unsigned int DORecord::GetNtaskid() const {
  return static_cast<unsigned int>(trefs_[CR_TREF_TYPE_TASKID].size());
}

unsigned int DORecord::GetNds() const {
  return static_cast<unsigned int>(trefs_[CR_TREF_TYPE_DSID].size());
}

// --- Ranges -------------------------------------------------------------------

// A kind without a set gets the empty range [end of set 0, end of set 0).
DORecord::tref_set_t::const_iterator DORecord::GetTRefTypeBegin(cr_reftype_t kind) const {
  return HasSet(kind) ? trefs_[kind].begin() : trefs_[0].end();
}

DORecord::tref_set_t::const_iterator DORecord::GetTRefTypeEnd(cr_reftype_t kind) const {
  return HasSet(kind) ? trefs_[kind].end() : trefs_[0].end();
}

// Starting on the end of set 0 and stepping once skips kind 0: the walk
// covers kinds 1 to 10 only.
DORecord::tref_const_iterator_t DORecord::GetTRefBegin() const {
  tref_const_iterator_t it(this, CR_TREF_TYPE_NONE, trefs_[CR_TREF_TYPE_NONE].end());
  it.increment();
  return it;
}

DORecord::tref_const_iterator_t DORecord::GetTRefEnd() const {
  return tref_const_iterator_t(this, CR_TREF_TYPE_END, trefs_[CR_TREF_TYPE_NONE].end());
}

// --- tref_const_iterator_t ----------------------------------------------------------

DORecord::tref_const_iterator_t::tref_const_iterator_t()
    : record_(nullptr), kind_(CR_TREF_TYPE_NONE), position_() {}

DORecord::tref_const_iterator_t::tref_const_iterator_t(const DORecord* record, cr_reftype_t kind,
                                                       tref_set_t::const_iterator position)
    : record_(record), kind_(kind), position_(position) {}

const boost::intrusive_ptr<Cr_TRef>& DORecord::tref_const_iterator_t::dereference() const {
  return *position_;
}

// At the end kind the position carries no meaning, so it is not compared.
bool DORecord::tref_const_iterator_t::equal(const tref_const_iterator_t& other) const {
  return record_ == other.record_ && kind_ == other.kind_ &&
         (kind_ == CR_TREF_TYPE_END || position_ == other.position_);
}

void DORecord::tref_const_iterator_t::increment() {
  if (record_ == nullptr || kind_ >= CR_TREF_TYPE_END) return;
  const tref_set_t* sets = record_->trefs_;
  if (position_ != sets[kind_].end()) ++position_;
  while (position_ == sets[kind_].end()) {
    kind_ = static_cast<cr_reftype_t>(kind_ + 1);
    if (kind_ == CR_TREF_TYPE_END) return;
    position_ = sets[kind_].begin();
  }
}
