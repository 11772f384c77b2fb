// Threads: the TRef pool, the one piece of the library that threads share,
// and independent DORecord objects, each worked on several threads at once.
// `./dev.sh test` also runs this file under ThreadSanitizer, which reports
// any access to shared state that the pool's mutex or the per-thread status
// and message words do not order.
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "crrecord/DORecord.h"
#include "images.h"

namespace {

constexpr int kThreads = 4;

// Runs work(t, fail) on kThreads threads started together; each thread
// reports only its first failure, in a slot of its own.
template <typename Work>
void OnThreads(Work work) {
  std::vector<std::string> failures(kThreads);
  std::atomic<int> ready{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (++ready; ready < kThreads;) std::this_thread::yield();
      work(t, [&](const std::string& what) {
        if (failures[t].empty()) failures[t] = what;
      });
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(failures[t], "") << "thread " << t;
}

// Rounds of 48 references per thread (more than a pool block of 32), each
// also shared and copied through Factory, all held while the other threads
// take and give back chunks: a chunk handed to two holders shows as a
// reference that no longer carries its task ID, or a wrong count.
TEST(ThreadTest, TRefPoolGivesEveryHolderAChunkOfItsOwn) {
  OnThreads([](int t, auto fail) {
    for (int round = 0; round < 100; ++round) {
      std::vector<boost::intrusive_ptr<Cr_TRef>> refs, shared, copies;
      auto id = [&](size_t i) { return 1000000ul * (t + 1) + 1000ul * round + i; };
      for (size_t i = 0; i < 48; ++i) {
        refs.emplace_back(new Cr_TRef(id(i)));
        shared.push_back(refs.back());
        copies.emplace_back(Cr_TRef::Factory(refs.back()->Get()));
      }
      for (size_t i = 0; i < 48; ++i) {
        const bool kept = CRTRefGetTaskID(refs[i]->Get()) == id(i) &&
                          CRTRefGetTaskID(copies[i]->Get()) == id(i);
        if (!kept || refs[i]->UseCount() != 2 || copies[i]->UseCount() != 1) {
          fail("reference " + std::to_string(id(i)) + " lost its task ID or its count");
        }
      }
    }
  });
}

// Each thread builds its own records (its own fingerprint type, sizes and
// containers), serializes them and refuses an unsupported reference, whose
// message comes from the thread's own last log line: nothing of one
// thread's records or messages may show in another's.
TEST(ThreadTest, IndependentRecordsOnSeveralThreadsAtOnce) {
  crtest::LogCapture log;  // the refusals are logged; the sink is serialized
  OnThreads([](int t, auto fail) {
    const uint8_t fptype = static_cast<uint8_t>(1 + t % 3), seed = static_cast<uint8_t>(16 * t);
    const std::vector<crtest::Seg> segs = {
        {crtest::PatternFP(seed, crtest::FPWidth(fptype)), 4096u + t, 0, 0, 64ul + t},
        {crtest::PatternFP(seed + 1, crtest::FPWidth(fptype)), 100, 0, 0, 200}};
    const std::vector<uint8_t> image = crtest::SerializedDO(2, 4196u + t, 4096, 7u * t, segs);
    for (int i = 0; i < 60; ++i) {
      std::unique_ptr<DORecord> r = crtest::BuildDO(2, fptype, segs, 7u * t, 900 + t, 4196u + t);
      r->AddTaskID(static_cast<unsigned long>(1000 * t + i));
      if (crtest::SerializedBytes(*r, false) != image) fail("serialized bytes differ");
      const uint8_t payload[2] = {static_cast<uint8_t>(t), static_cast<uint8_t>(i)};
      _cr_tref_t* unsupported = CRTRefNew(CR_TREF_TYPE_FILE, payload, 2);
      const std::string expected =
          "The type of reference tref1:" + crtest::Hex(payload, 2) + " is unsupported for a DO";
      try {
        r->AddTRef(*unsupported);
        fail("an unsupported reference was added");
      } catch (const Cr_ErrnoException& e) {
        if (e.GetStatus() != 9 || expected != e.what()) fail(e.what());
      }
      CRTRefDelete(&unsupported);
      if (!r->HasTaskID(static_cast<unsigned long>(1000 * t + i)) || r->GetNTRefs() != 1) {
        fail("the references changed");
      }
    }
  });
  EXPECT_EQ(log.lines().size(), static_cast<size_t>(kThreads * 60));
}

}  // namespace
