// Typed reference objects: Cr_TRef, its counting and ordering, and the
// process-wide TRef pool of 16-byte chunks.
#include <mutex>
#include <new>

#include <boost/pool/singleton_pool.hpp>

#include "crrecord/DORecord.h"

namespace {

// 16-byte chunks, blocks from new[] (nothrow), first block of 32 chunks, no
// upper bound, every allocation and release under the pool's mutex.
typedef boost::singleton_pool<Cr_TRef_Pool_Tag, 16u, boost::default_user_allocator_new_delete,
                              std::mutex, 32u, 0u>
    TRefPool;

_cr_tref_t* Checked(_cr_tref_t* ref) {
  if (ref == nullptr) throw std::bad_alloc();
  return ref;
}

}  // namespace

static_assert(sizeof(Cr_TRef) == 16, "a Cr_TRef fills one chunk of the TRef pool");

Cr_TRef::Cr_TRef(unsigned long taskId) : ref_(Checked(CRTRefNewTaskID(taskId))), count_(0) {}

Cr_TRef::Cr_TRef(unsigned int dsid) : ref_(Checked(CRTRefNewDSID(dsid))), count_(0) {}

Cr_TRef::Cr_TRef(_cr_tref_t* ref) : ref_(ref), count_(0) {}

Cr_TRef::~Cr_TRef() { CRTRefDelete(&ref_); }

Cr_TRef* Cr_TRef::Factory(const _cr_tref_t* ref) {
  _cr_tref_t* copy = Checked(CRTRefDup(ref));
  try {
    return new Cr_TRef(copy);
  } catch (...) {
    CRTRefDelete(&copy);
    throw;
  }
}

void* Cr_TRef::operator new(size_t) {
  void* chunk = TRefPool::malloc();
  if (chunk == nullptr) throw std::bad_alloc();
  return chunk;
}

void Cr_TRef::operator delete(void* p) {
  if (p != nullptr) TRefPool::free(p);
}

void intrusive_ptr_add_ref(Cr_TRef* p) { ++p->count_; }

void intrusive_ptr_release(Cr_TRef* p) {
  if (--p->count_ == 0) delete p;
}

bool Cr_TRefComparator::operator()(const boost::intrusive_ptr<Cr_TRef>& a,
                                   const boost::intrusive_ptr<Cr_TRef>& b) const {
  return CRTRefCompare(a->Get(), b->Get()) < 0;
}
