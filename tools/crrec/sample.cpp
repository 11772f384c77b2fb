// Sample data and the demo job.
#include "sample.h"

#include <algorithm>
#include <cstring>
#include <ostream>

#include "examine.h"
#include "load.h"
#include "util.h"

namespace crrec {

namespace {

constexpr size_t kKeptRegions = 32;
constexpr uint64_t kRegionUnit = 4096;

}  // namespace

SampleSource::SampleSource(uint64_t seed, uint64_t size)
    : state_(seed * 0x9e3779b97f4a7c15ull + 0x6a09e667f3bcc909ull), size_(size) {}

// splitmix64: fixed arithmetic, so the bytes are the same everywhere.
uint64_t SampleSource::Next() {
  uint64_t z = (state_ += 0x9e3779b97f4a7c15ull);
  z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
  z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
  return z ^ (z >> 31);
}

void SampleSource::NextRegion() {
  at_ = 0;
  const uint64_t pick = Next() % 100;
  if (pick < 33 && !kept_.empty()) {
    region_ = kept_[Next() % kept_.size()];
    return;
  }
  // A short odd-length run now and then moves the next region off any
  // fixed-size boundary.
  const uint64_t length = pick < 43 ? 1 + Next() % 199 : kRegionUnit * (1 + Next() % 16);
  region_.resize(length);
  for (size_t i = 0; i < length; i += 8) {
    const uint64_t word = Next();
    std::memcpy(&region_[i], &word, std::min<size_t>(8, length - i));
  }
  if (length >= kRegionUnit) {
    if (kept_.size() < kKeptRegions) {
      kept_.push_back(region_);
    } else {
      kept_[Next() % kKeptRegions] = region_;
    }
  }
}

size_t SampleSource::Read(unsigned char* buffer, size_t n) {
  size_t done = 0;
  while (done < n && produced_ < size_) {
    if (at_ == region_.size()) NextRegion();
    const size_t take =
        std::min<uint64_t>({n - done, region_.size() - at_, size_ - produced_});
    std::memcpy(buffer + done, &region_[at_], take);
    at_ += take;
    done += take;
    produced_ += take;
  }
  return done;
}

int RunDemo(std::ostream& out) {
  const uint64_t size = 4u << 20;
  const std::string name = "sample";
  BuildOptions options;
  options.chunking.kind = ChunkerKind::kContentDefined;
  options.dotype = 3;
  options.fptype = 2;
  options.containerSize = 1u << 20;
  options.time = 1700000000;  // fixed, so that the demo prints the same every time
  options.taskIds.push_back(42);

  out << "crrec demo: build, serialize, rebuild, verify and show the DO record of a\n"
      << HumanBytes(size) << " sample with repeated regions (seed 1)\n\n";
  out << "1. build\n";
  SampleSource source(1, size);
  Built built = BuildRecord(source, name, options);
  PrintBuildSummary(name, built, options, out);

  out << "\n2. serialize, with checksum\n";
  std::vector<unsigned char> serialized = SerializedBytes(*built.record, true, name);
  out << "  " << serialized.size() << " bytes\n";

  out << "\n3. rebuild from the serialized form\n";
  Hints hints;
  hints.cid = options.cid;
  hints.dotype = options.dotype;
  hints.fptype = options.fptype;
  Loaded rebuilt = Load("sample.serialized", serialized, hints);
  std::vector<unsigned char> again = SerializedBytes(*rebuilt.record, true, name);
  const std::string before = DigestText(*built.record, name);
  const std::string after = DigestText(*rebuilt.record, name);
  out << "  " << rebuilt.record->GetNfp() << " segments; serialized again: "
      << (again == serialized ? "the same bytes" : "DIFFERENT bytes") << "; digest "
      << (before == after ? "the same" : "DIFFERENT") << "\n";
  if (again != serialized || before != after) {
    Unsound(name, "the record rebuilt from its serialized form differs");
  }

  out << "\n4. verify\n";
  Verify(rebuilt, VerifyOptions(), out);

  out << "\n5. show the built record\n";
  Loaded shown;
  shown.name = name;
  shown.record = std::move(built.record);
  shown.fileHeader = *shown.record->GetHeader();
  ShowOptions show;
  show.segments = 5;
  Show(shown, show, out);
  return kExitOk;
}

}  // namespace crrec
