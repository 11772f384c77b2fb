// Benchmarks of the record operations on records of 10,000 and 1,000,000
// segments (DO types 0, 3 and 5, fingerprint types 1 and 3), and the
// baselines they are judged against, measured in the same run: memcpy of
// the record's bytes, the fingerprint hash of the digest block alone, a
// plain SIMD writer of the same serialized form (reference_codec.h), and a
// protobuf message carrying the same segment list.
//
// Names: "<operation>/dotype:D/fptype:F/n:N", with "/containers:K" after the
// operation where the number of distinct containers matters. bench/report.py
// reads them.
//
// Memory. The process serves every allocation from the heap and keeps what
// is freed (see ConfigureAllocator), as a long-running service's allocator
// does: the operations under test allocate records of tens of megabytes,
// and with the C library's defaults each would be a fresh mapping whose
// first touch of every page faults, which on this VM costs about 25 us a
// page (230 ms for a 36 MB record) and would measure the hypervisor rather
// than the library.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sys/resource.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <ostream>
#include <streambuf>
#include <string>
#include <tuple>
#include <vector>

#include "crrecord/crrecord.h"
#include "reference_codec.h"
#include "segments.pb.h"

namespace {

// --- Test data -------------------------------------------------------------------

struct Shape {
  unsigned char dotype;
  unsigned char fptype;
  uint32_t n;
  uint32_t containers;
  bool operator<(const Shape& o) const {
    return std::tie(dotype, fptype, n, containers) < std::tie(o.dotype, o.fptype, o.n, o.containers);
  }
};

uint64_t SplitMix(uint64_t* state) {
  uint64_t z = (*state += 0x9E3779B97F4A7C15ull);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return z ^ (z >> 31);
}

unsigned int FpWidth(unsigned char fptype) { return fptype == 3 ? 32 : 16; }
unsigned int Extra(unsigned char dotype) {
  return dotype == 2 ? 4 : dotype == 3 ? 12 : dotype == 5 ? 8 : 0;
}

void PutLE32(unsigned char* p, uint32_t v) { std::memcpy(p, &v, 4); }
void PutLE64(unsigned char* p, uint64_t v) { std::memcpy(p, &v, 8); }
void PutBE32(unsigned char* p, uint32_t v) { v = __builtin_bswap32(v); std::memcpy(p, &v, 4); }
void PutBE64(unsigned char* p, uint64_t v) { v = __builtin_bswap64(v); std::memcpy(p, &v, 8); }

// A file of n segments of 2 to 14 KiB (8 KiB on average), as content-defined
// cutting gives, each stored in one of `containers` containers picked at
// random: the worst case for gathering the distinct ones.
struct Data {
  Shape shape;
  std::vector<unsigned char> fps;       // n fingerprints back to back
  std::vector<uint32_t> sizes;
  std::vector<uint64_t> offsets;        // file offsets (DO type 3) or object offsets (5)
  std::vector<unsigned long> dcids;
  std::vector<unsigned char> segments;  // the interleaved segment list
  uint64_t fileSize = 0;
  uint64_t ssize = 8192;
  uint32_t distinct = 0;                // distinct containers actually used
};

const Data& GetData(const Shape& shape) {
  static std::map<Shape, std::unique_ptr<Data>> cache;
  std::unique_ptr<Data>& slot = cache[shape];
  if (slot) return *slot;
  slot.reset(new Data);
  Data& d = *slot;
  d.shape = shape;
  uint64_t rng = shape.n * 31ull + shape.dotype * 7ull + shape.fptype;
  const unsigned int w = FpWidth(shape.fptype);
  const unsigned int entry = w + Extra(shape.dotype);
  d.fps.resize(uint64_t{shape.n} * w);
  for (unsigned char& b : d.fps) b = static_cast<unsigned char>(SplitMix(&rng));
  d.sizes.resize(shape.n);
  d.offsets.resize(shape.n);
  uint64_t offset = 0;
  for (uint32_t i = 0; i < shape.n; ++i) {
    d.sizes[i] = 2048 + static_cast<uint32_t>(SplitMix(&rng) % 12289);
    d.offsets[i] = shape.dotype == 5 ? static_cast<uint32_t>(offset) : offset;
    offset += d.sizes[i];
  }
  // DO types 0 and 1 derive the sizes: all ssize but a shorter last one.
  d.fileSize = shape.dotype <= 1 ? uint64_t{shape.n} * d.ssize - 100 : offset;

  std::vector<unsigned long> ids(shape.containers);
  for (uint32_t k = 0; k < shape.containers; ++k) {
    ids[k] = (uint64_t{k + 1} << 24) | (SplitMix(&rng) & 0xFFFFFF);  // distinct, all >= 64
  }
  std::vector<bool> used(shape.containers);
  d.dcids.resize(shape.n);
  for (uint32_t i = 0; i < shape.n; ++i) {
    const uint32_t k = static_cast<uint32_t>(SplitMix(&rng) % shape.containers);
    d.dcids[i] = ids[k];
    if (!used[k]) ++d.distinct;
    used[k] = true;
  }

  d.segments.resize(uint64_t{shape.n} * entry);
  for (uint32_t i = 0; i < shape.n; ++i) {
    unsigned char* e = &d.segments[uint64_t{i} * entry];
    std::memcpy(e, &d.fps[uint64_t{i} * w], w);
    if (shape.dotype == 3) {
      PutLE32(e + w, d.sizes[i]);
      PutLE64(e + w + 4, d.offsets[i]);
    } else if (shape.dotype == 5) {
      PutLE32(e + w, d.sizes[i]);
      PutLE32(e + w + 4, static_cast<uint32_t>(d.offsets[i]));
    }
  }
  return d;
}

constexpr unsigned int kCrc = 0x12345678;

DORecord* Build(const Data& d) {
  return new DORecord(1u << 30, d.fileSize, d.ssize, kCrc, 1600000000, 1600000000,
                      d.segments.data(), d.shape.n, d.dcids.data(), nullptr, d.shape.fptype,
                      d.shape.dotype);
}

const DORecord& GetRecord(const Shape& shape) {
  static std::map<Shape, std::unique_ptr<DORecord>> cache;
  std::unique_ptr<DORecord>& slot = cache[shape];
  if (!slot) slot.reset(Build(GetData(shape)));
  return *slot;
}

const std::vector<unsigned char>& GetSerialized(const Shape& shape) {
  static std::map<Shape, std::vector<unsigned char>> cache;
  std::vector<unsigned char>& slot = cache[shape];
  if (slot.empty()) {
    void* out = nullptr;
    unsigned long size = 0;
    if (GetRecord(shape).Serialize(&out, &size, true) != 0) std::abort();
    const unsigned char* p = static_cast<const unsigned char*>(out);
    slot.assign(p, p + size);
    DORecord::SerializedDORecordFree(&out);
  }
  return slot;
}

// The digest block as the library feeds it to the hash: per segment the
// fingerprint's text field, then its size and offset fields, big-endian.
const std::vector<unsigned char>& GetDigestBlock(const Shape& shape) {
  static std::map<Shape, std::vector<unsigned char>> cache;
  std::vector<unsigned char>& block = cache[shape];
  if (!block.empty()) return block;
  const Data& d = GetData(shape);
  const unsigned int w = FpWidth(shape.fptype), text = 2 * w + 1;
  const unsigned int entry = text + Extra(shape.dotype);
  block.resize(uint64_t{shape.n} * entry);
  for (uint32_t i = 0; i < shape.n; ++i) {
    unsigned char* e = &block[uint64_t{i} * entry];
    crfp_digest_t fp = {};
    std::memcpy(fp.digest, &d.fps[uint64_t{i} * w], w);
    CRFPDigestToString_r(&fp, shape.fptype, reinterpret_cast<char*>(e), text);
    if (shape.dotype == 3) {
      PutBE32(e + text, d.sizes[i]);
      PutBE64(e + text + 4, d.offsets[i]);
    } else if (shape.dotype == 5) {
      PutBE32(e + text, d.sizes[i]);
      PutBE32(e + text + 4, static_cast<uint32_t>(d.offsets[i]));
    }
  }
  return block;
}

// Swallows what is written to it, counting the bytes.
class CountingBuffer : public std::streambuf {
 public:
  CountingBuffer() { setp(buffer_, buffer_ + sizeof buffer_); }
  uint64_t count() const { return count_ + static_cast<uint64_t>(pptr() - pbase()); }

 protected:
  int overflow(int c) override {
    count_ += static_cast<uint64_t>(pptr() - pbase());
    setp(buffer_, buffer_ + sizeof buffer_);
    if (c != traits_type::eof()) sputc(static_cast<char>(c));
    return traits_type::not_eof(c);
  }
  std::streamsize xsputn(const char* s, std::streamsize n) override {
    benchmark::DoNotOptimize(s);
    count_ += static_cast<uint64_t>(n);
    return n;
  }

 private:
  char buffer_[1 << 16];
  uint64_t count_ = 0;
};

void SetBytes(benchmark::State& state, uint64_t bytes) {
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}

long MinorFaults() {
  rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_minflt;
}

// Counts the page faults of the timed loop, per iteration: near zero when the
// allocations of the operation reuse warm memory (see the file comment).
class FaultCounter {
 public:
  explicit FaultCounter(benchmark::State& state) : state_(state), start_(MinorFaults()) {}
  ~FaultCounter() {
    const double iterations = state_.iterations() > 0 ? double(state_.iterations()) : 1.0;
    state_.counters["faults"] = double(MinorFaults() - start_) / iterations;
  }

 private:
  benchmark::State& state_;
  long start_;
};

// --- Baselines -------------------------------------------------------------------

void BM_Memcpy(benchmark::State& state, const Shape& shape) {
  const DORecord& r = GetRecord(shape);
  const uint64_t size = r.GetHeaderSize();
  const void* src = r.GetHeader();
  std::vector<unsigned char> dst(size, 1);
  FaultCounter faults(state);
  for (auto _ : state) {
    std::memcpy(dst.data(), src, size);
    benchmark::ClobberMemory();
  }
  SetBytes(state, size);
}

void BM_FpHashOfDigestBlock(benchmark::State& state, const Shape& shape) {
  const std::vector<unsigned char>& block = GetDigestBlock(shape);
  FaultCounter faults(state);
  for (auto _ : state) {
    crfp_ctx_t ctx;
    crfp_digest_t digest;
    if (CRFPInitialize(&ctx, shape.fptype) != 0 ||
        CRFPAppend(&ctx, block.data(), static_cast<unsigned int>(block.size())) != 0 ||
        CRFPFinalizeDO(&ctx) != 0 || CRFPGetDigest_r(&ctx, &digest) == nullptr) {
      state.SkipWithError("hash failed");
      break;
    }
    benchmark::DoNotOptimize(digest);
  }
  SetBytes(state, block.size());
}

// --- Record operations -----------------------------------------------------------

void BM_Construct(benchmark::State& state, const Shape& shape) {
  const Data& d = GetData(shape);
  uint64_t size = 0;
  FaultCounter faults(state);
  for (auto _ : state) {
    DORecord r(1u << 30, d.fileSize, d.ssize, kCrc, 1600000000, 1600000000,
               d.segments.data(), d.shape.n, d.dcids.data(), nullptr, d.shape.fptype,
               d.shape.dotype);
    size = r.GetHeaderSize();
    benchmark::DoNotOptimize(r.GetHeader());
  }
  SetBytes(state, size);
}

void BM_CheckSegmentList(benchmark::State& state, const Shape& shape) {
  const DORecord& r = GetRecord(shape);
  FaultCounter faults(state);
  for (auto _ : state) r.checkSegmentList();
  SetBytes(state, r.GetHeaderSize());
}

void Serialize(benchmark::State& state, const Shape& shape, bool checksum) {
  const DORecord& r = GetRecord(shape);
  unsigned long size = 0;
  FaultCounter faults(state);
  for (auto _ : state) {
    void* out = nullptr;
    if (r.Serialize(&out, &size, checksum) != 0) {
      state.SkipWithError("Serialize failed");
      break;
    }
    benchmark::DoNotOptimize(out);
    DORecord::SerializedDORecordFree(&out);
  }
  SetBytes(state, size);
}

void BM_Serialize(benchmark::State& state, const Shape& shape) { Serialize(state, shape, false); }
void BM_SerializeChecksum(benchmark::State& state, const Shape& shape) { Serialize(state, shape, true); }

// The same form written into one buffer kept across calls: no allocation,
// no page faults once the buffer is warm.
void SerializeInto(benchmark::State& state, const Shape& shape, bool checksum) {
  const DORecord& r = GetRecord(shape);
  std::vector<unsigned char> buffer(r.GetSerializedSize());
  unsigned long size = 0;
  FaultCounter faults(state);
  for (auto _ : state) {
    if (r.SerializeInto(buffer.data(), buffer.size(), &size, checksum) != 0) {
      state.SkipWithError("SerializeInto failed");
      break;
    }
    benchmark::DoNotOptimize(buffer.data());
  }
  SetBytes(state, size);
}

void BM_SerializeInto(benchmark::State& state, const Shape& shape) {
  SerializeInto(state, shape, false);
}
void BM_SerializeChecksumInto(benchmark::State& state, const Shape& shape) {
  SerializeInto(state, shape, true);
}

// --- The reference codec --------------------------------------------------------

refcodec::SegmentColumns Columns(const Data& d) {
  refcodec::SegmentColumns c;
  c.dotype = d.shape.dotype;
  c.fptype = d.shape.fptype;
  c.n = d.shape.n;
  c.size = d.fileSize;
  c.ssize = d.ssize;
  c.crc = kCrc;
  c.fps = d.fps.data();
  c.sizes = d.sizes.data();
  c.offsets = d.offsets.data();
  c.dcids = d.dcids.data();
  return c;
}

// Empty when the reference writes, with and without checksum, the bytes that
// the library's Serialize writes for the shape's record, else what differs:
// the two are compared only when they do the same work. Checked once a shape.
const std::string& ReferenceMismatch(const Shape& shape) {
  static std::map<Shape, std::string> cache;
  auto found = cache.find(shape);
  if (found != cache.end()) return found->second;
  std::string& error = cache[shape];
  const refcodec::SegmentColumns columns = Columns(GetData(shape));
  // Not zeros: bytes the reference left unwritten must differ from
  // Serialize's zero-filled output.
  std::vector<unsigned char> reference(refcodec::SerializedSize(columns), 0xA5);
  for (bool checksum : {false, true}) {
    void* out = nullptr;
    unsigned long size = 0;
    if (GetRecord(shape).Serialize(&out, &size, checksum) != 0) {
      error = "Serialize failed";
      break;
    }
    const uint64_t written = refcodec::Serialize(columns, reference.data(), reference.size(),
                                                 checksum);
    const bool same = written == size && std::memcmp(reference.data(), out, size) == 0;
    DORecord::SerializedDORecordFree(&out);
    if (!same) {
      error = std::string("the reference codec's bytes differ from Serialize's") +
              (checksum ? " (with checksum)" : " (without checksum)");
      break;
    }
  }
  return error;
}

void ReferenceCodec(benchmark::State& state, const Shape& shape, bool checksum) {
  if (!refcodec::Supported()) {
    state.SkipWithError("the reference codec needs SSSE3 and AVX2");
    return;
  }
  if (!ReferenceMismatch(shape).empty()) {
    state.SkipWithError(ReferenceMismatch(shape).c_str());
    return;
  }
  const refcodec::SegmentColumns columns = Columns(GetData(shape));
  std::vector<unsigned char> buffer(refcodec::SerializedSize(columns));
  uint64_t size = 0;
  FaultCounter faults(state);
  for (auto _ : state) {
    size = refcodec::Serialize(columns, buffer.data(), buffer.size(), checksum);
    benchmark::DoNotOptimize(buffer.data());
  }
  SetBytes(state, size);
}

void BM_ReferenceCodec(benchmark::State& state, const Shape& shape) {
  ReferenceCodec(state, shape, false);
}
void BM_ReferenceCodecChecksum(benchmark::State& state, const Shape& shape) {
  ReferenceCodec(state, shape, true);
}

void BM_HeaderDeserialize(benchmark::State& state, const Shape& shape) {
  const std::vector<unsigned char>& in = GetSerialized(shape);
  FaultCounter faults(state);
  for (auto _ : state) {
    DORecordHeader* h = nullptr;
    unsigned long allocated = 0;
    if (DORecordHeaderDeserialize(&h, &allocated, in.data(), in.size(), shape.dotype,
                                  shape.fptype) != 0) {
      state.SkipWithError("DORecordHeaderDeserialize failed");
      break;
    }
    benchmark::DoNotOptimize(h);
    std::free(h);
  }
  SetBytes(state, in.size());
}

void BM_BufferConstructor(benchmark::State& state, const Shape& shape) {
  const std::vector<unsigned char>& in = GetSerialized(shape);
  FaultCounter faults(state);
  for (auto _ : state) {
    DORecord r(shape.dotype, 2, 1u << 30, shape.fptype, nullptr, 0, in.data(), in.size(), false);
    benchmark::DoNotOptimize(r.GetHeader());
  }
  SetBytes(state, in.size());
}

// The buffer constructor into a record buffer kept across calls.
void BM_BufferConstructorInto(benchmark::State& state, const Shape& shape) {
  const std::vector<unsigned char>& in = GetSerialized(shape);
  const unsigned long size =
      DORecordHeaderSizeRaw(0, shape.n, 0, 0, shape.dotype, shape.fptype, 0);
  std::vector<uint64_t> buffer(size / 8 + 1);
  FaultCounter faults(state);
  for (auto _ : state) {
    DORecord r(shape.dotype, 2, 1u << 30, shape.fptype, buffer.data(), buffer.size() * 8,
               in.data(), in.size(), false);
    benchmark::DoNotOptimize(r.GetHeader());
  }
  SetBytes(state, in.size());
}

void BM_HostToNetworkToHost(benchmark::State& state, const Shape& shape) {
  DORecord& r = const_cast<DORecord&>(GetRecord(shape));
  FaultCounter faults(state);
  for (auto _ : state) {
    r.HostToNetwork(0);
    r.NetworkToHost(0);
    benchmark::ClobberMemory();
  }
  SetBytes(state, r.GetHeaderSize());
}

void BM_GetDigest(benchmark::State& state, const Shape& shape) {
  const DORecord& r = GetRecord(shape);
  // DO type 0 has no digest beyond one segment: nothing is hashed.
  const uint64_t bytes = shape.dotype == 0 ? 0 : GetDigestBlock(shape).size();
  FaultCounter faults(state);
  for (auto _ : state) {
    cr_tdigest_t* digest = r.GetDigest();
    benchmark::DoNotOptimize(digest);
    CRTDigestDelete(&digest);
  }
  SetBytes(state, bytes);
}

void BM_ToStreamText(benchmark::State& state, const Shape& shape) {
  const DORecord& r = GetRecord(shape);
  uint64_t written = 0;
  FaultCounter faults(state);
  for (auto _ : state) {
    CountingBuffer sink;
    std::ostream os(&sink);
    r.ToStream(os, false);
    written = sink.count();
  }
  SetBytes(state, written);
}

void BM_AppendUniqueDCIDList(benchmark::State& state, const Shape& shape) {
  const Data& d = GetData(shape);
  const uint64_t bytes = GetRecord(Shape{shape.dotype, shape.fptype, shape.n, 1000}).GetHeaderSize();
  FaultCounter faults(state);
  for (auto _ : state) {
    state.PauseTiming();
    std::unique_ptr<DORecord> r(Build(d));
    state.ResumeTiming();
    if (r->AppendBloomAndUniqueDCIDList() != 0) {
      state.SkipWithError("AppendBloomAndUniqueDCIDList failed");
      break;
    }
    state.PauseTiming();
    if (r->GetNudcid() != d.distinct) {
      state.SkipWithError("wrong number of distinct containers");
      break;
    }
    r.reset();
    state.ResumeTiming();
  }
  state.counters["distinct"] = d.distinct;
  SetBytes(state, bytes);
}

// --- References and segment DB records ------------------------------------------

constexpr uint32_t kTaskIds = 100000;

std::vector<unsigned long> TaskIds(uint64_t seed) {
  std::vector<unsigned long> ids(kTaskIds);
  for (unsigned long& id : ids) id = SplitMix(&seed);
  return ids;
}

void BM_AddTaskIDs(benchmark::State& state) {
  const std::vector<unsigned long> ids = TaskIds(1);
  const Data& d = GetData(Shape{3, 1, 10000, 1000});
  FaultCounter faults(state);
  for (auto _ : state) {
    state.PauseTiming();
    std::unique_ptr<DORecord> r(Build(d));
    state.ResumeTiming();
    for (unsigned long id : ids) r->AddTaskID(id);
    state.PauseTiming();
    r.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kTaskIds));
}

void BM_HasTaskID(benchmark::State& state) {
  static std::unique_ptr<DORecord> r;
  const std::vector<unsigned long> present = TaskIds(1), absent = TaskIds(2);
  if (!r) {
    r.reset(Build(GetData(Shape{3, 1, 10000, 1000})));
    for (unsigned long id : present) r->AddTaskID(id);
  }
  FaultCounter faults(state);
  for (auto _ : state) {
    unsigned int found = 0;
    for (uint32_t i = 0; i < kTaskIds; ++i) found += r->HasTaskID(i % 2 == 0 ? present[i] : absent[i]);
    benchmark::DoNotOptimize(found);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kTaskIds));
}

// A host-order segment DB record with 8 task IDs and 4 DO fingerprints.
std::vector<uint64_t> SegmentDBRecord() {
  const uint32_t ntaskid = 8, ndo = 4, size = 104 + 8 * ntaskid + 16 * ndo;
  std::vector<uint64_t> words((size + 7) / 8, 0);
  unsigned char* p = reinterpret_cast<unsigned char*>(words.data());
  const uint16_t type = CR_SO_RECORD_TYPE;
  std::memcpy(p + 0, &type, 2);
  PutLE32(p + 4, size);
  PutLE32(p + 12, ntaskid);
  PutLE64(p + 24, 1u << 30);
  PutLE64(p + 40, 8192);
  PutLE32(p + 52, ndo);
  p[89] = 1;  // fingerprint type
  for (uint32_t i = 0; i < ntaskid; ++i) PutLE64(p + 96 + 8 * i, 1000 + i);
  for (uint32_t i = 0; i < 16 * ndo; ++i) p[96 + 8 * ntaskid + i] = static_cast<unsigned char>(i);
  return words;
}

void BM_SegmentRecordValidateHton(benchmark::State& state) {
  const std::vector<uint64_t> src = SegmentDBRecord();
  std::vector<uint64_t> dst(src.size());
  const auto* record = reinterpret_cast<const _SegmentDBRecord*>(src.data());
  const unsigned int size = record->recsize;
  FaultCounter faults(state);
  for (auto _ : state) {
    if (SegmentRecordValidate(record, size, 0) != 0) {
      state.SkipWithError("SegmentRecordValidate failed");
      break;
    }
    SegmentRecordHton(reinterpret_cast<_SegmentDBRecord*>(dst.data()), record, 0);
    benchmark::ClobberMemory();
  }
  SetBytes(state, size);
}

// --- The protobuf peer -----------------------------------------------------------

void Fill(const Data& d, crrecord_bench::SegmentList* list) {
  const unsigned int w = FpWidth(d.shape.fptype);
  const bool sizes = d.shape.dotype >= 2, offsets = d.shape.dotype == 3 || d.shape.dotype == 5;
  list->mutable_segments()->Reserve(static_cast<int>(d.shape.n));
  for (uint32_t i = 0; i < d.shape.n; ++i) {
    crrecord_bench::Segment* s = list->add_segments();
    s->set_fp(&d.fps[uint64_t{i} * w], w);
    if (sizes) s->set_size(d.sizes[i]);
    if (offsets) s->set_offset(d.offsets[i]);
    s->set_dcid(d.dcids[i]);
  }
}

void Fill(const Data& d, crrecord_bench::SegmentColumns* columns) {
  columns->set_fps(d.fps.data(), d.fps.size());
  if (d.shape.dotype >= 2) columns->mutable_sizes()->Add(d.sizes.begin(), d.sizes.end());
  if (d.shape.dotype == 3 || d.shape.dotype == 5) {
    columns->mutable_offsets()->Add(d.offsets.begin(), d.offsets.end());
  }
  columns->mutable_dcids()->Add(d.dcids.begin(), d.dcids.end());
}

// What a receiver does with a parsed message: the segment list in the
// record's interleaved layout and the DCID array beside it.
struct CopiedOut {
  std::vector<unsigned char> segments;
  std::vector<unsigned long> dcids;
};

void CopyOut(const crrecord_bench::SegmentList& list, const Shape& shape, CopiedOut* out) {
  const unsigned int w = FpWidth(shape.fptype), entry = w + Extra(shape.dotype);
  const int n = list.segments_size();
  out->segments.resize(uint64_t(n) * entry);
  out->dcids.resize(n);
  for (int i = 0; i < n; ++i) {
    const crrecord_bench::Segment& s = list.segments(i);
    unsigned char* e = &out->segments[uint64_t(i) * entry];
    std::memcpy(e, s.fp().data(), std::min<size_t>(w, s.fp().size()));
    if (shape.dotype == 3) {
      PutLE32(e + w, s.size());
      PutLE64(e + w + 4, s.offset());
    } else if (shape.dotype == 5) {
      PutLE32(e + w, s.size());
      PutLE32(e + w + 4, static_cast<uint32_t>(s.offset()));
    }
    out->dcids[i] = s.dcid();
  }
}

void CopyOut(const crrecord_bench::SegmentColumns& c, const Shape& shape, CopiedOut* out) {
  const unsigned int w = FpWidth(shape.fptype), entry = w + Extra(shape.dotype);
  const int n = c.dcids_size();
  out->segments.resize(uint64_t(n) * entry);
  out->dcids.assign(c.dcids().begin(), c.dcids().end());
  for (int i = 0; i < n; ++i) {
    unsigned char* e = &out->segments[uint64_t(i) * entry];
    std::memcpy(e, c.fps().data() + uint64_t(i) * w, w);
    if (shape.dotype == 3) {
      PutLE32(e + w, c.sizes(i));
      PutLE64(e + w + 4, c.offsets(i));
    } else if (shape.dotype == 5) {
      PutLE32(e + w, c.sizes(i));
      PutLE32(e + w + 4, static_cast<uint32_t>(c.offsets(i)));
    }
  }
}

template <class Message>
void PbBuildSerialize(benchmark::State& state, const Shape& shape) {
  const Data& d = GetData(shape);
  std::string out;
  FaultCounter faults(state);
  for (auto _ : state) {
    Message m;
    Fill(d, &m);
    out.clear();
    m.SerializeToString(&out);
    benchmark::DoNotOptimize(out.data());
  }
  SetBytes(state, out.size());
}

template <class Message>
void PbSerializeBuilt(benchmark::State& state, const Shape& shape) {
  const Data& d = GetData(shape);
  Message m;
  Fill(d, &m);
  std::string out;
  FaultCounter faults(state);
  for (auto _ : state) {
    out.clear();
    m.SerializeToString(&out);
    benchmark::DoNotOptimize(out.data());
  }
  SetBytes(state, out.size());
}

template <class Message>
void PbParseCopyOut(benchmark::State& state, const Shape& shape) {
  Message built;
  Fill(GetData(shape), &built);
  const std::string in = built.SerializeAsString();
  FaultCounter faults(state);
  for (auto _ : state) {
    Message m;
    CopiedOut out;
    if (!m.ParseFromString(in)) {
      state.SkipWithError("ParseFromString failed");
      break;
    }
    CopyOut(m, shape, &out);
    benchmark::DoNotOptimize(out.segments.data());
  }
  SetBytes(state, in.size());
}

// --- Registration ----------------------------------------------------------------

typedef void (*ShapedFn)(benchmark::State&, const Shape&);

void Register(const std::string& name, ShapedFn fn, const Shape& shape) {
  benchmark::RegisterBenchmark(name.c_str(), fn, shape)->Unit(benchmark::kMillisecond);
}

std::string ShapeName(const Shape& shape) {
  return "dotype:" + std::to_string(shape.dotype) + "/fptype:" + std::to_string(shape.fptype) +
         "/n:" + std::to_string(shape.n);
}

std::vector<Shape> Shapes(uint32_t containers) {
  std::vector<Shape> shapes;
  for (uint32_t n : {10000, 1000000}) {
    for (unsigned char dotype : {0, 3, 5}) {
      for (unsigned char fptype : {1, 3}) shapes.push_back(Shape{dotype, fptype, n, containers});
    }
  }
  return shapes;
}

void RegisterShaped(const char* name, ShapedFn fn) {
  for (const Shape& shape : Shapes(1000)) Register(std::string(name) + "/" + ShapeName(shape), fn, shape);
}

void RegisterAll() {
  RegisterShaped("memcpy", BM_Memcpy);
  RegisterShaped("construct", BM_Construct);
  RegisterShaped("check_segment_list", BM_CheckSegmentList);
  RegisterShaped("serialize", BM_Serialize);
  RegisterShaped("serialize_checksum", BM_SerializeChecksum);
  RegisterShaped("serialize_into", BM_SerializeInto);
  RegisterShaped("serialize_checksum_into", BM_SerializeChecksumInto);
  RegisterShaped("reference_codec", BM_ReferenceCodec);
  RegisterShaped("reference_codec_checksum", BM_ReferenceCodecChecksum);
  RegisterShaped("header_deserialize", BM_HeaderDeserialize);
  RegisterShaped("buffer_constructor", BM_BufferConstructor);
  RegisterShaped("buffer_constructor_into", BM_BufferConstructorInto);
  RegisterShaped("hton_ntoh", BM_HostToNetworkToHost);
  RegisterShaped("get_digest", BM_GetDigest);
  RegisterShaped("fp_hash_of_digest_block", BM_FpHashOfDigestBlock);
  RegisterShaped("to_stream_text", BM_ToStreamText);
  for (uint32_t containers : {1000, 100000}) {
    for (const Shape& shape : Shapes(containers)) {
      Register("append_udcid/containers:" + std::to_string(containers) + "/" + ShapeName(shape),
               BM_AppendUniqueDCIDList, shape);
    }
  }
  RegisterShaped("pb_build_serialize", PbBuildSerialize<crrecord_bench::SegmentList>);
  RegisterShaped("pb_serialize_built", PbSerializeBuilt<crrecord_bench::SegmentList>);
  RegisterShaped("pb_parse_copy_out", PbParseCopyOut<crrecord_bench::SegmentList>);
  RegisterShaped("pb_columns_build_serialize", PbBuildSerialize<crrecord_bench::SegmentColumns>);
  RegisterShaped("pb_columns_serialize_built", PbSerializeBuilt<crrecord_bench::SegmentColumns>);
  RegisterShaped("pb_columns_parse_copy_out", PbParseCopyOut<crrecord_bench::SegmentColumns>);
  benchmark::RegisterBenchmark("add_task_ids/ids:100000", BM_AddTaskIDs)
      ->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("has_task_id/ids:100000", BM_HasTaskID)
      ->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("segment_record_validate_hton", BM_SegmentRecordValidateHton)
      ->Unit(benchmark::kNanosecond);
}

// --heap=keep (the default): every allocation from the heap (no separate
// mappings), and nothing freed handed back to the kernel, so a freed
// record's pages are reused warm. --heap=default: glibc's own settings, as a
// user's program gets them: a large buffer is a fresh mapping each time and
// pays its page faults. The context line "heap" says which was measured.
bool ConfigureAllocator(int* argc, char** argv) {
  bool keep = true;
  int out = 1;
  for (int i = 1; i < *argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--heap=keep" || arg == "--heap=default") {
      keep = arg == "--heap=keep";
    } else {
      argv[out++] = argv[i];
    }
  }
  *argc = out;
  if (keep) {
    mallopt(M_MMAP_MAX, 0);
    mallopt(M_TRIM_THRESHOLD, 1 << 30);
    mallopt(M_TOP_PAD, 64 << 20);
  }
  benchmark::AddCustomContext("heap", keep ? "keeps its memory" : "glibc defaults");
  return keep;
}

}  // namespace

int main(int argc, char** argv) {
  ConfigureAllocator(&argc, argv);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RegisterAll();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
