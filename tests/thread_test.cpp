// Threads: the TRef pool, the one piece of the library that threads share,
// hammered from several threads at once, and independent DORecord objects
// built, changed, serialized, rebuilt and compared on several threads at
// once. `./dev.sh test` also runs this file under ThreadSanitizer, which
// reports any access to shared state that the pool's mutex or the per-thread
// status and message words do not order.
#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "crrecord/DORecord.h"
#include "images.h"

namespace {

constexpr int kThreads = 4;

// All threads wait at Wait() until the last one arrives; reusable.
class Barrier {
 public:
  explicit Barrier(int count) : count_(count) {}
  void Wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    const unsigned long generation = generation_;
    if (++arrived_ == count_) {
      arrived_ = 0;
      ++generation_;
      all_.notify_all();
      return;
    }
    all_.wait(lock, [&] { return generation_ != generation; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable all_;
  const int count_;
  int arrived_ = 0;
  unsigned long generation_ = 0;
};

// What went wrong on one thread; each thread writes only its own.
struct ThreadReport {
  int failures = 0;
  std::string first;
  void Fail(const std::string& what) {
    if (failures++ == 0) first = what;
  }
};

void ExpectNoFailures(const std::vector<ThreadReport>& reports) {
  for (int t = 0; t < kThreads; ++t) {
    EXPECT_EQ(reports[t].failures, 0) << "thread " << t << ": " << reports[t].first;
  }
}

// --- The TRef pool ----------------------------------------------------------------

constexpr int kRounds = 100;
constexpr int kRefsPerRound = 48;  // more than one pool block of 32 per thread

unsigned long TaskIDOf(int thread, int round, int i) {
  return 1000000ul * (thread + 1) + 1000ul * round + i;
}

// Each round, every thread makes references, copies them within the thread
// (a second pointer and a Factory copy), and holds them all while every
// other thread does the same: no chunk may then be held by two threads, and
// every reference must still carry what it was made with. Then each thread
// releases its references, and the chunks go back to the pool for the next
// round, from whichever thread.
TEST(ThreadTest, TRefPoolGivesEveryThreadChunksOfItsOwn) {
  Barrier barrier(kThreads);
  std::vector<ThreadReport> reports(kThreads);
  // Chunk addresses held in the current round, one row per thread.
  std::vector<std::vector<const Cr_TRef*>> held(kThreads);

  auto work = [&](int t) {
    ThreadReport& report = reports[t];
    for (int round = 0; round < kRounds; ++round) {
      std::vector<boost::intrusive_ptr<Cr_TRef>> refs, copies, factoryCopies;
      for (int i = 0; i < kRefsPerRound; ++i) {
        refs.emplace_back(new Cr_TRef(TaskIDOf(t, round, i)));
        copies.push_back(refs.back());
        factoryCopies.emplace_back(Cr_TRef::Factory(refs.back()->Get()));
      }
      held[t].clear();
      for (int i = 0; i < kRefsPerRound; ++i) {
        held[t].push_back(refs[i].get());
        held[t].push_back(factoryCopies[i].get());
      }
      std::sort(held[t].begin(), held[t].end());
      barrier.Wait();

      if (std::adjacent_find(held[t].begin(), held[t].end()) != held[t].end()) {
        report.Fail("one chunk given twice within the thread");
      }
      for (int other = 0; other < kThreads; ++other) {
        if (other == t) continue;
        for (const Cr_TRef* p : held[other]) {
          if (std::binary_search(held[t].begin(), held[t].end(), p)) {
            report.Fail("a chunk held by threads " + std::to_string(t) + " and " +
                        std::to_string(other));
          }
        }
      }
      for (int i = 0; i < kRefsPerRound; ++i) {
        const unsigned long id = TaskIDOf(t, round, i);
        if (CRTRefGetTaskID(refs[i]->Get()) != id || CRTRefGetTaskID(factoryCopies[i]->Get()) != id) {
          report.Fail("reference " + std::to_string(id) + " no longer carries its task ID");
        }
        if (refs[i]->UseCount() != 2 || factoryCopies[i]->UseCount() != 1) {
          report.Fail("reference " + std::to_string(id) + " has a wrong count");
        }
      }
      barrier.Wait();  // nobody reads the table while chunks go back
    }
  };

  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) threads.emplace_back(work, t);
  for (std::thread& thread : threads) thread.join();
  ExpectNoFailures(reports);
}

// --- Independent records ---------------------------------------------------------

constexpr int kIterations = 60;

// Thread t's file: three DO type 2 segments of its own, fingerprint type
// 1 + t % 3, in containers 64 + t, 200 and 64 + t.
struct ThreadFile {
  uint8_t fptype;
  std::vector<crtest::Seg> segs;
  crtest::Bytes list;
  std::vector<unsigned long> dcids;
  std::vector<uint8_t> serialized;  // written out by hand, the CRC in the head
  uint64_t size;
  unsigned int crc;
};

ThreadFile FileOf(int t) {
  ThreadFile f;
  f.fptype = static_cast<uint8_t>(1 + t % 3);
  const size_t width = crtest::FPWidth(f.fptype);
  const uint8_t seed = static_cast<uint8_t>(16 * t);
  f.segs = {{crtest::PatternFP(seed, width), 4096u + t, 0, 0, 64ul + t},
            {crtest::PatternFP(seed + 1, width), 100, 0, 0, 200},
            {crtest::PatternFP(seed + 2, width), 7u * (t + 1), 0, 0, 64ul + t}};
  f.size = 0;
  for (const crtest::Seg& s : f.segs) {
    f.size += s.size;
    f.dcids.push_back(s.dcid);
  }
  f.list = crtest::SegmentList(CR_DO_TYPE_NO_OFFSET, f.segs);
  f.crc = 0xC0DE0000u + t;
  f.serialized = crtest::SerializedDO(CR_DO_TYPE_NO_OFFSET, f.size, 4096, f.crc, f.segs);
  return f;
}

// Adds the references that both the built record and its rebuilt twin get.
void AddReferences(DORecord& r, int t, int i, const _cr_tref_t* hold) {
  r.AddTaskID(static_cast<unsigned long>(1000 * t + i));
  r.AddDSID(static_cast<unsigned int>(50 + t));
  r.AddTRef(*hold);
}

// Every thread builds its own records, changes them, serializes and rebuilds
// them, refuses an unsupported reference (whose message comes from the
// thread's own last log line) and compares: nothing of one thread's records
// may show in another's.
TEST(ThreadTest, IndependentRecordsOnSeveralThreadsAtOnce) {
  std::vector<ThreadFile> files;
  for (int t = 0; t < kThreads; ++t) files.push_back(FileOf(t));
  crtest::LogCapture log;  // the refusals are logged; the sink is serialized
  Barrier start(kThreads);
  std::vector<ThreadReport> reports(kThreads);

  auto work = [&](int t) {
    ThreadReport& report = reports[t];
    const ThreadFile& f = files[t];
    const uint8_t holdPayload[3] = {0x48, static_cast<uint8_t>(t), 0x7F};
    _cr_tref_t* hold = CRTRefNew(CR_TREF_TYPE_HOLD, holdPayload, sizeof holdPayload);
    start.Wait();
    for (int i = 0; i < kIterations; ++i) {
      DORecord built(900 + t, f.size, 4096, f.crc, 0, 0, f.list.data(), 3, f.dcids.data(),
                     nullptr, f.fptype, CR_DO_TYPE_NO_OFFSET);
      AddReferences(built, t, i, hold);

      void* out = nullptr;
      unsigned long outSize = 0;
      if (built.Serialize(&out, &outSize, false) != 0) {
        report.Fail("Serialize failed");
        continue;
      }
      const std::vector<uint8_t> bytes(static_cast<uint8_t*>(out),
                                       static_cast<uint8_t*>(out) + outSize);
      if (bytes != f.serialized) report.Fail("serialized bytes differ at iteration " + std::to_string(i));

      DORecord rebuilt(CR_DO_TYPE_NO_OFFSET, 2, 900 + t, f.fptype, nullptr, 0, out, outSize,
                       false);
      DORecord::SerializedDORecordFree(&out);
      if (rebuilt == built) report.Fail("a rebuilt record without references equals its source");
      AddReferences(rebuilt, t, i, hold);
      if (rebuilt != built) report.Fail("rebuilt record differs at iteration " + std::to_string(i));

      // The stored form, reopened in a buffer of its own.
      const DORecordHeader* header = built.GetHeader();
      void* copy = std::malloc(header->recsize);
      std::memcpy(copy, header, header->recsize);
      DORecord reopened(static_cast<DORecordHeader*>(copy), header->recsize, 2);
      if (reopened != built) report.Fail("reopened record differs at iteration " + std::to_string(i));
      if (!reopened.HasTaskID(static_cast<unsigned long>(1000 * t + i))) {
        report.Fail("reopened record lost its task ID");
      }

      const uint8_t kindOnePayload[2] = {static_cast<uint8_t>(t), static_cast<uint8_t>(i)};
      _cr_tref_t* unsupported = CRTRefNew(CR_TREF_TYPE_FILE, kindOnePayload, 2);
      const std::string expected = "The type of reference tref1:" +
                                   crtest::Hex(kindOnePayload, 2) + " is unsupported for a DO";
      try {
        built.AddTRef(*unsupported);
        report.Fail("an unsupported reference was added");
      } catch (const Cr_ErrnoException& e) {
        if (e.GetStatus() != 9 || expected != e.what()) {
          report.Fail("refusal reads \"" + std::string(e.what()) + "\", expected \"" + expected +
                      "\"");
        }
      }
      CRTRefDelete(&unsupported);
      if (built.GetNTRefs() != 3) report.Fail("the refusal changed the references");
    }
    CRTRefDelete(&hold);
  };

  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) threads.emplace_back(work, t);
  for (std::thread& thread : threads) thread.join();
  ExpectNoFailures(reports);
  EXPECT_EQ(log.lines().size(), static_cast<size_t>(kThreads * kIterations));
}

}  // namespace
