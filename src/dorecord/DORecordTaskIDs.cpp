// Task IDs and data-selection IDs as typed references (kinds 2 and 4), the
// purge of inactive tasks, and the conversion of a stored record's typed
// references and old task-ID and DSID lists into the reference sets.
#include <cstdint>
#include <cstring>

#include "crrecord/DORecord.h"
#include "dorecord/DORecordFormat.h"
#include "status/Report.h"

using namespace crrecord;

namespace {

// Both constructors exist (unsigned long: task ID, unsigned int: DSID); the
// casts make sure the intended one is chosen.
boost::intrusive_ptr<Cr_TRef> TaskIDRef(unsigned long taskId) {
  return boost::intrusive_ptr<Cr_TRef>(new Cr_TRef(static_cast<unsigned long>(taskId)));
}

boost::intrusive_ptr<Cr_TRef> DSIDRef(unsigned int dsid) {
  return boost::intrusive_ptr<Cr_TRef>(new Cr_TRef(static_cast<unsigned int>(dsid)));
}

void RequireCallback(DORecord::task_activity_callback_t isActive) {
  if (isActive == nullptr) {
    ThrowFixed(CR_STATUS_MISSING_ARGUMENT, "No task activity callback given.");
  }
}

}  // namespace

// --- Task IDs ------------------------------------------------------------------

int DORecord::AddTaskID(unsigned long taskId) { return OwnTRef(TaskIDRef(taskId)); }

int DORecord::AddTaskID(unsigned long taskId, task_activity_callback_t isActive, void* context) {
  RequireCallback(isActive);
  if (isActive(taskId, context) == 0) return CR_STATUS_INVALID;
  RemoveInactiveTaskIDs(isActive, context);
  const int result = AddTRef(TaskIDRef(taskId));
  handleUpdate();
  return result;
}

bool DORecord::HasTaskID(unsigned long taskId) const {
  const tref_set_t& set = trefs_[CR_TREF_TYPE_TASKID];
  return set.find(TaskIDRef(taskId)) != set.end();
}

unsigned long DORecord::RemoveInactiveTaskIDs(task_activity_callback_t isActive, void* context) {
  RequireCallback(isActive);
  unsigned long removed = 0;
  tref_set_t& set = trefs_[CR_TREF_TYPE_TASKID];
  for (tref_set_t::iterator it = set.begin(); it != set.end();) {
    if (isActive(CRTRefGetTaskID((*it)->Get()), context) != 0) {
      ++it;
      continue;
    }
    const uint32_t size =
        static_cast<uint32_t>(CRTRefSerializedSize((*it)->Get(), CR_TREF_MODE_BINARY));
    setTRefsSize(getTRefsSize() - size);
    const uint32_t recsize = getRecSize();
    setRecSize(size > recsize ? 0 : recsize - size);  // below the header size: refused
    it = set.erase(it);
    ++removed;
  }
  handleUpdate();
  return removed;
}

void DORecord::RemoveAllTaskIDs() { RemoveAllTRefs(); }

// --- Data-selection IDs --------------------------------------------------------

int DORecord::AddDSID(unsigned int dsid) { return OwnTRef(DSIDRef(dsid)); }

bool DORecord::HasDSID(unsigned int dsid) const {
  const tref_set_t& set = trefs_[CR_TREF_TYPE_DSID];
  return set.find(DSIDRef(dsid)) != set.end();
}

unsigned long DORecord::DelDSID(unsigned int dsid) { return DelTRef(DSIDRef(dsid)); }

// --- Conversion ----------------------------------------------------------------

// The old lists lie right behind the header, task IDs first (see DORecord.h),
// so with both counts at 0 the task IDs are found in place, and once they are
// cut out the DSIDs are found with the task-ID count at 0.
// REQUIRES: a record with old lists is in host order.
void DORecord::convertToTRefs() {
  const uint32_t oldTaskIds = header_->ntaskid;
  const uint32_t oldDsids = header_->nds;
  const bool hasOld = oldTaskIds != 0 || oldDsids != 0;
  if (hasOld && header_.mode() == kBufferModeFixed) {
    ThrowFixed(CR_STATUS_INVALID,
               "Cannot construct a DORecord that does not own its internal buffer but has old "
               "task id and dsid references.");
  }
  const uint32_t trefsize = getTRefsSize();
  if (trefsize != 0 && hasOld) {
    ThrowFixed(CR_STATUS_MIXED_REFERENCES,
               "Record with both old references and new typed references not supported.");
  }

  const unsigned char dotype = header_->dotype;
  const unsigned char fptype = header_->fptype;
  const uint32_t count = dotype == CR_DO_TYPE_BLOOM_FILTER ? GetBSize() : GetNfp();
  const uint32_t nudcid = GetNudcid();

  header_->ntaskid = 0;
  header_->nds = 0;
  setRecSize(calcRecSize());
  initReferenceSets();

  const uint32_t mtime = header_->mtime;
  AddSerializedTRefs(reinterpret_cast<const char*>(DORecordHeaderStartTRefs(header_)), trefsize);
  header_->mtime = mtime;

  // Each addition may move the buffer, so every position is taken afresh.
  if (oldTaskIds != 0) {
    for (uint32_t i = 0; i < oldTaskIds; ++i) {
      AddTaskID(Load<uint64_t>(DORecordHeaderIndexOfTaskId(header_, i)));
    }
    const uint64_t listEnd = kDOHeaderSize + uint64_t{8} * oldTaskIds;
    const uint64_t dataEnd = DORecordHeaderSizeRaw(oldTaskIds, count, nudcid, oldDsids, dotype,
                                                   fptype, 0);
    unsigned char* base = header_.bytes();
    std::memmove(base + kDOHeaderSize, base + listEnd, dataEnd - listEnd);
  }
  if (oldDsids != 0) {
    for (uint32_t i = 0; i < oldDsids; ++i) {
      AddDSID(Load<uint32_t>(DORecordHeaderIndexOfDataSelection(header_, i)));
    }
    const uint64_t listEnd = kDOHeaderSize + uint64_t{4} * oldDsids;
    const uint64_t dataEnd = DORecordHeaderSizeRaw(0, count, nudcid, oldDsids, dotype, fptype, 0);
    unsigned char* base = header_.bytes();
    std::memmove(base + kDOHeaderSize, base + listEnd, dataEnd - listEnd);
  }
  if (hasOld) handleUpdate();
  expand(getRecSize());
}
