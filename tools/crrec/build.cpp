// Building a DO record from a stream of bytes.
#include "build.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <map>
#include <ostream>


#include <crrecord/DORecord.h>
#include <crrecord/DORecordSerialized.h>
#include <crrecord/platform/fingerprint.h>
#include <crrecord/platform/status.h>

#include <crrecord/common/Endian.h>
#include "examine.h"
#include "pipeline.h"
#include "util.h"

namespace crrec {

FileSource::FileSource(const std::string& path)
    : path_(path), fd_(path == "-" ? 0 : ::open(path.c_str(), O_RDONLY | O_CLOEXEC)), size_(0) {
  if (fd_ < 0) Usage(path, std::string("cannot open: ") + std::strerror(errno));
  struct stat st {};
  if (::fstat(fd_, &st) == 0) {
    if (S_ISDIR(st.st_mode)) {
      if (fd_ > 0) ::close(fd_);
      Usage(path, "is a directory");
    }
    if (S_ISREG(st.st_mode)) size_ = static_cast<uint64_t>(st.st_size);
  }
}

FileSource::~FileSource() {
  if (fd_ > 0) ::close(fd_);
}

size_t FileSource::Read(unsigned char* buffer, size_t n) {
  for (;;) {
    ssize_t got = ::read(fd_, buffer, n);
    if (got >= 0) return static_cast<size_t>(got);
    if (errno != EINTR) Unsound(path_, std::string("cannot read: ") + std::strerror(errno));
  }
}

size_t MemorySource::Read(unsigned char* buffer, size_t n) {
  size_t take = std::min(n, length_ - at_);
  if (take == 0) return 0;
  std::memcpy(buffer, data_ + at_, take);
  at_ += take;
  return take;
}

ContainerPlacer::ContainerPlacer(uint64_t containerSize, uint64_t firstDcid)
    : containerSize_(containerSize), first_(firstDcid) {}

ContainerPlacer::Placement ContainerPlacer::Place(const unsigned char* fingerprint, size_t width,
                                                  uint32_t size) {
  std::string key(reinterpret_cast<const char*>(fingerprint), width);
  auto found = seen_.find(key);
  if (found != seen_.end()) return Placement{found->second.dcid, found->second.offset, true};
  if (opened_ == 0 || (used_ > 0 && used_ + size > containerSize_)) {
    current_ = first_ + opened_;
    ++opened_;
    used_ = 0;
  }
  Slot slot{current_, used_};
  seen_.emplace(std::move(key), slot);
  used_ += size;
  distinctBytes_ += size;
  return Placement{slot.dcid, slot.offset, false};
}

namespace {

// The unique-DCID block as the builders take it: checksum, count, entries,
// all host order, entries in ascending DCID order.
std::vector<unsigned char> UniqueDcidBlock(const std::map<uint64_t, uint64_t>& bytes) {
  std::vector<unsigned char> block(8 + 16 * bytes.size());
  crrecord::Store<uint32_t>(&block[4], static_cast<uint32_t>(bytes.size()));
  size_t at = 8;
  for (const auto& entry : bytes) {
    crrecord::Store<uint64_t>(&block[at], entry.first);
    crrecord::Store<uint64_t>(&block[at + 8], entry.second);
    at += 16;
  }
  crrecord::Store<uint32_t>(&block[0], DORecordAdler32(&block[4], block.size() - 4));
  return block;
}

}  // namespace

void BloomPositions(const unsigned char* fingerprint, uint64_t bits, uint64_t* positions) {
  // Fingerprints are uniform already: two 64-bit halves give the k
  // positions by double hashing; an odd step visits distinct positions
  // whenever the bitmap size is a power of two.
  const uint64_t h1 = crrecord::Load<uint64_t>(fingerprint);
  const uint64_t h2 = crrecord::Load<uint64_t>(fingerprint + 8) | 1;
  for (unsigned i = 0; i < kBloomHashes; ++i) positions[i] = (h1 + i * h2) % bits;
}

std::string CheckBuildOptions(const BuildOptions& o) {
  if (!CRFPTypeIsValid(o.fptype)) {
    return "fingerprint type " + std::to_string(o.fptype) + " is not one of 1, 2, 3";
  }
  if (!CRDOTypeIsValid(o.dotype)) {
    return "DO type " + std::to_string(o.dotype) + " is not one of 0, 1, 2, 3, 4, 5";
  }
  std::string chunking = CheckChunkerParams(o.chunking);
  if (!chunking.empty()) return chunking;
  if ((o.dotype == CR_DO_TYPE_ORIGINAL || o.dotype == CR_DO_TYPE_NO_SIZE) &&
      o.chunking.kind != ChunkerKind::kFixed) {
    return "DO types 0 and 1 derive segment sizes from one segment size: use --chunker fixed";
  }
  if (o.firstDcid < 64) return "DCIDs below 64 are invalid: --first-dcid must be at least 64";
  if (o.firstDcid > UINT64_MAX - (uint64_t{1} << 32)) return "--first-dcid leaves no room";
  if (o.containerSize == 0) return "the container size must be at least 1 byte";
  if (o.dotype != CR_DO_TYPE_BLOOM_FILTER && o.bloomBytes != 0) {
    return "--bloom-bytes is for DO type 4 only";
  }
  return "";
}

Built BuildRecord(ByteSource& source, const std::string& name, const BuildOptions& o,
                  const ProgressFn& progress) {
  std::string problem = CheckBuildOptions(o);
  if (!problem.empty()) Usage(name, problem);

  const Chunker chunker(o.chunking);
  const unsigned width = CRFPDigestSize(o.fptype);
  const bool bloom = o.dotype == CR_DO_TYPE_BLOOM_FILTER;
  // A DO type the options let through has a layout (CheckBuildOptions).
  static const crrecord::DOTypeLayout kNoFields{};
  const crrecord::DOTypeLayout* found = crrecord::FindDOTypeLayout(o.dotype);
  const crrecord::DOTypeLayout& layout = found != nullptr ? *found : kNoFields;
  const bool objectOffsets =
      crrecord::FindSegmentField(o.dotype, crrecord::SegmentField::kObjectOffset) != nullptr;
  const unsigned entryWidth = width + layout.width;

  std::vector<unsigned char> segments;       // the interleaved segment list
  std::vector<unsigned long> dcids;          // one per segment
  std::vector<unsigned char> distinctFps;    // DO type 4: what the bitmap holds
  std::map<uint64_t, uint64_t> perContainer; // DO type 4: the unique-DCID list
  ContainerPlacer placer(o.containerSize, o.firstDcid);
  BuildStats stats;
  uint32_t crc = CrcOf(nullptr, 0);
  uint64_t offset = 0, nextReport = 0;
  const uint64_t total = source.SizeHint();

  // Places the segments of a fingerprinted batch, in the file's order.
  auto place = [&](Batch& batch) {
    if (batch.failed != 0) {
      Unsound(name, "cannot fingerprint segment " + std::to_string(stats.segments + batch.failedAt) +
                        ": " + CRStatusToStringA(batch.failed));
    }
    crc = CombineCrc(crc, batch.crc, batch.bytes.size());
    for (size_t k = 0; k < batch.lengths.size(); ++k) {
      const unsigned char* fp = batch.fingerprints[k].digest;
      const uint32_t size = batch.lengths[k];
      const ContainerPlacer::Placement where = placer.Place(fp, width, size);
      if (bloom) {
        perContainer[where.dcid] += size;
        if (!where.repeated) distinctFps.insert(distinctFps.end(), fp, fp + width);
      } else {
        if (stats.segments == UINT32_MAX ||
            DORecordHeaderSizeRaw(0, static_cast<uint32_t>(stats.segments) + 1, 1, 0, o.dotype,
                                  o.fptype, 0) > UINT32_MAX) {
          Unsound(name, "more segments than one record holds (" +
                            std::to_string(stats.segments) + "): use larger segments");
        }
        if (objectOffsets && offset > UINT32_MAX) {
          Unsound(name, "DO type 5 keeps 32-bit object offsets and segment " +
                            std::to_string(stats.segments) + " starts at byte " +
                            std::to_string(offset) + ": use DO type 3");
        }
        size_t at = segments.size();
        segments.resize(at + entryWidth);
        std::memcpy(&segments[at], fp, width);
        // The object offset is where the segment begins in the data object,
        // the file, as the offset is, cut to the field's width.
        for (unsigned f = 0; f < layout.count; ++f) {
          const crrecord::SegmentFieldLayout& field = layout.fields[f];
          crrecord::StoreSegmentField(&segments[at + width], field,
                                      field.field == crrecord::SegmentField::kSize ? size : offset);
        }
        dcids.push_back(where.dcid);
      }
      ++stats.segments;
      offset += size;
    }
    if (progress && offset >= nextReport) {
      progress(offset, total);
      nextReport = offset + (uint64_t{1} << 20);
    }
  };

  // The file is read and cut here, in order (a cut depends on the one
  // before); segments go out in batches to the workers, which fingerprint
  // them and take their CRC-32; batches come back and are placed in order.
  // Memory: the read buffer, and per worker at most kBatchesPerWorker
  // batches of a few times the largest segment.
  const size_t batchBytes = std::max<size_t>(size_t{2} * chunker.MaxSize(), kMinBatchBytes);
  // The batches outlive the pool, so that an error thrown while workers
  // hold some (an unreadable input, an unsound record) joins the workers
  // before their batches go.
  std::deque<std::unique_ptr<Batch>> inFlight;
  std::vector<std::unique_ptr<Batch>> spare;
  FingerprintPool pool(o.threads, o.fptype);
  auto newBatch = [&]() {
    std::unique_ptr<Batch> b;
    if (spare.empty()) {
      b.reset(new Batch);
      b->bytes.reserve(batchBytes + chunker.MaxSize());
    } else {
      b = std::move(spare.back());
      spare.pop_back();
      b->Clear();
    }
    return b;
  };
  auto retireFront = [&]() {
    std::unique_ptr<Batch> done = std::move(inFlight.front());
    inFlight.pop_front();
    pool.Wait(*done);
    place(*done);
    spare.push_back(std::move(done));
  };
  auto submit = [&](std::unique_ptr<Batch> b) {
    if (inFlight.size() >= pool.Capacity()) retireFront();
    pool.Submit(b.get());
    inFlight.push_back(std::move(b));
  };

  // The buffer holds several of the largest segments, so that reads are
  // large and a cut always sees MaxSize bytes ahead unless the input ends.
  const size_t capacity = std::max<size_t>(size_t{4} * chunker.MaxSize(), size_t{1} << 20);
  std::vector<unsigned char> buffer(capacity);
  size_t start = 0, have = 0;
  bool eof = false;
  std::unique_ptr<Batch> batch = newBatch();
  for (;;) {
    if (!eof && have - start < chunker.MaxSize()) {
      std::memmove(buffer.data(), buffer.data() + start, have - start);
      have -= start;
      start = 0;
      while (have < capacity && !eof) {
        size_t got = source.Read(buffer.data() + have, capacity - have);
        if (got == 0) eof = true;
        have += got;
      }
    }
    if (start == have) break;
    const size_t length = chunker.Cut(buffer.data() + start, have - start);
    batch->Add(buffer.data() + start, length);
    start += length;
    if (batch->bytes.size() >= batchBytes) {
      submit(std::move(batch));
      batch = newBatch();
    }
  }
  if (!batch->lengths.empty()) submit(std::move(batch));
  while (!inFlight.empty()) retireFront();
  if (progress) progress(offset, total);

  if (stats.segments == 0) Unsound(name, "empty input: a DO record needs at least one segment");
  stats.bytes = offset;
  stats.distinctSegments = placer.distinctSegments();
  stats.distinctBytes = placer.distinctBytes();
  stats.containers = placer.containers();
  stats.firstDcid = placer.firstDcid();
  stats.lastDcid = placer.lastDcid();
  stats.crc = o.crcGiven ? o.crc : crc;

  MessageScope scope;
  Built built;
  built.stats = stats;
  try {
    if (bloom) {
      uint64_t bytes = o.bloomBytes;
      if (bytes == 0) {
        // About 1% false positives with 7 hashes at 10 bits per element.
        bytes = std::max<uint64_t>(8, (stats.distinctSegments * 10 + 7) / 8);
      }
      if (bytes > UINT32_MAX / 2) Unsound(name, "the Bloom bitmap would be too large");
      std::vector<unsigned char> bitmap(bytes);
      uint64_t positions[kBloomHashes];
      for (size_t at = 0; at < distinctFps.size(); at += width) {
        BloomPositions(&distinctFps[at], bytes * 8, positions);
        for (uint64_t bit : positions) bitmap[bit / 8] |= static_cast<unsigned char>(1u << (bit % 8));
      }
      std::vector<unsigned char> block;
      if (o.uniqueDcidList) block = UniqueDcidBlock(perContainer);
      built.record.reset(new DORecord(
          o.cid, stats.bytes, chunker.NominalSize(), stats.crc, o.time, o.time,
          static_cast<unsigned int>(bytes), bitmap.data(),
          block.empty() ? nullptr : reinterpret_cast<const char*>(block.data()), o.fptype,
          o.dotype));
    } else {
      built.record.reset(new DORecord(o.cid, stats.bytes, chunker.NominalSize(), stats.crc,
                                      o.time, o.time, segments.data(),
                                      static_cast<unsigned int>(stats.segments), dcids.data(),
                                      nullptr, o.fptype, o.dotype));
      // The list goes in before any reference: the library appends it only
      // to a record whose typed-reference section is empty.
      if (o.uniqueDcidList) {
        cr_status_t status = built.record->AppendBloomAndUniqueDCIDList();
        if (status != CR_STATUS_SUCCESS) Unsound(name, DescribeStatus(status, scope));
      }
    }
    for (uint64_t id : o.taskIds) built.record->AddTaskID(static_cast<unsigned long>(id));
    for (uint32_t id : o.dsids) built.record->AddDSID(id);
    // Adding a reference stamps mtime with the clock; a time the caller
    // gave stands for both times.
    if (o.time != 0) built.record->GetHeader()->mtime = o.time;
  } catch (const Cr_ErrnoException& e) {
    Unsound(name, Describe(e, scope));
  }
  return built;
}

void PrintBuildSummary(const std::string& name, const Built& built, const BuildOptions& o,
                       std::ostream& out) {
  const BuildStats& s = built.stats;
  const DORecord& r = *built.record;
  auto row = [&out](const char* field, const std::string& value) {
    out << "  " << field << std::string(12 - std::strlen(field), ' ') << value << "\n";
  };
  char ratio[32];
  std::snprintf(ratio, sizeof ratio, "%.2f",
                s.distinctBytes == 0 ? 1.0
                                     : static_cast<double>(s.bytes) /
                                           static_cast<double>(s.distinctBytes));
  const ChunkerParams& c = o.chunking;
  std::string chunking =
      c.kind == ChunkerKind::kFixed
          ? "fixed-size: " + std::to_string(c.fixedSize) + " bytes"
          : "content-defined: min " + std::to_string(c.minSize) + ", avg " +
                std::to_string(c.avgSize) + ", max " + std::to_string(c.maxSize) + " bytes";
  uint64_t trefs = 0;
  for (unsigned kind = CR_TREF_TYPE_NONE; kind < CR_TREF_TYPE_END; ++kind) {
    trefs += r.GetNTRefs(static_cast<cr_reftype_t>(kind));
  }
  out << name << "\n";
  row("bytes", std::to_string(s.bytes) + " (" + HumanBytes(s.bytes) + ")");
  row("segments", std::to_string(s.segments) + " (" + chunking + ")");
  row("distinct", std::to_string(s.distinctSegments) + " segments, " +
                      std::to_string(s.distinctBytes) + " bytes; dedup ratio " + ratio);
  row("containers", Count(s.containers, "container") + " of " + HumanBytes(o.containerSize) +
                        ", DCIDs " + std::to_string(s.firstDcid) + " to " +
                        std::to_string(s.lastDcid));
  row("record", std::to_string(r.GetHeaderSize()) + " bytes (DO type " +
                    std::to_string(o.dotype) + ", fingerprint type " + std::to_string(o.fptype) +
                    ", " + Count(r.GetNudcid(), "unique DCID") + ", " +
                    Count(trefs, "typed reference") + ")");
  // The serialized size follows from the counts; no need to make the form.
  const uint64_t serialized =
      o.dotype == CR_DO_TYPE_BLOOM_FILTER
          ? crrecord::serialized::BloomSize(r.GetBSize(), r.GetNudcid())
          : crrecord::serialized::RecordSize(r.GetNfp(), o.dotype, o.fptype);
  row("serialized", std::to_string(serialized) + " bytes");
  std::string digest;
  try {
    digest = DigestText(r, name);
  } catch (const ToolError& e) {
    digest = "none (" + e.reason() + ")";
  }
  row("digest", digest);
}

}  // namespace crrec
