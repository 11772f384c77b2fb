// `crrec build`: cut a file into segments, fingerprint them, place the
// distinct ones into containers and build the file's DO record.
//
// The input is streamed through a buffer of a few times the largest segment;
// what grows with the file is only the record itself and one table entry per
// distinct segment.
#ifndef CRREC_BUILD_H
#define CRREC_BUILD_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include <crrecord/DORecord.h>

#include "chunker.h"

namespace crrec {

// Where the bytes come from.
class ByteSource {
 public:
  virtual ~ByteSource() = default;
  // Up to n bytes into buffer; 0 at the end. Throws ToolError on failure.
  virtual size_t Read(unsigned char* buffer, size_t n) = 0;
  // The total size when it is known in advance (for the progress bar), else 0.
  virtual uint64_t SizeHint() const { return 0; }
};

// A file, or standard input for "-".
class FileSource : public ByteSource {
 public:
  explicit FileSource(const std::string& path);  // usage error when it cannot be opened
  ~FileSource() override;
  FileSource(const FileSource&) = delete;
  FileSource& operator=(const FileSource&) = delete;
  size_t Read(unsigned char* buffer, size_t n) override;
  uint64_t SizeHint() const override { return size_; }

 private:
  std::string path_;
  int fd_;
  uint64_t size_;
};

class MemorySource : public ByteSource {
 public:
  MemorySource(const void* data, size_t length)
      : data_(static_cast<const unsigned char*>(data)), length_(length) {}
  size_t Read(unsigned char* buffer, size_t n) override;
  uint64_t SizeHint() const override { return length_; }

 private:
  const unsigned char* data_;
  size_t length_;
  size_t at_ = 0;
};

// Places distinct segments into data containers: DCIDs are handed out from
// the first one up, a new container is opened when the next distinct
// segment would overflow the current one (a segment larger than a whole
// container gets one of its own), and a fingerprint seen before goes to the
// container of its first copy.
class ContainerPlacer {
 public:
  struct Placement {
    uint64_t dcid;
    uint64_t offset;  // where the segment's bytes begin inside the container
    bool repeated;    // the fingerprint was placed before
  };

  ContainerPlacer(uint64_t containerSize, uint64_t firstDcid);
  Placement Place(const unsigned char* fingerprint, size_t width, uint32_t size);

  uint64_t containers() const { return opened_; }
  uint64_t distinctSegments() const { return seen_.size(); }
  uint64_t distinctBytes() const { return distinctBytes_; }
  uint64_t firstDcid() const { return first_; }
  // The DCID of the container opened last; meaningless before the first.
  uint64_t lastDcid() const { return current_; }

 private:
  struct Slot {
    uint64_t dcid;
    uint64_t offset;
  };
  uint64_t containerSize_;
  uint64_t first_;
  uint64_t opened_ = 0;   // containers opened so far
  uint64_t current_ = 0;  // the container being filled
  uint64_t used_ = 0;     // bytes used in it
  uint64_t distinctBytes_ = 0;
  std::unordered_map<std::string, Slot> seen_;
};

struct BuildOptions {
  ChunkerParams chunking;
  unsigned char fptype = 2;
  unsigned char dotype = 3;
  uint64_t containerSize = 4u << 20;
  uint64_t firstDcid = 64;
  uint64_t cid = 64;             // the record's own container
  bool crcGiven = false;         // else the CRC-32 of the file
  uint32_t crc = 0;
  uint32_t time = 0;             // ctime and mtime; 0 for now
  bool uniqueDcidList = true;
  uint32_t bloomBytes = 0;       // DO type 4: 0 chooses 10 bits per distinct segment
  std::vector<uint64_t> taskIds;
  std::vector<uint32_t> dsids;
  unsigned threads = 1;          // fingerprinting threads; the output does not depend on it
};

struct BuildStats {
  uint64_t bytes = 0;
  uint64_t segments = 0;
  uint64_t distinctSegments = 0;
  uint64_t distinctBytes = 0;
  uint64_t containers = 0;
  uint64_t firstDcid = 0;
  uint64_t lastDcid = 0;
  uint32_t crc = 0;
};

struct Built {
  std::unique_ptr<DORecord> record;
  BuildStats stats;
};

// Called with the bytes read so far, at most once per MiB.
typedef std::function<void(uint64_t done, uint64_t total)> ProgressFn;

// Empty when the options are usable together; otherwise what is wrong.
std::string CheckBuildOptions(const BuildOptions& options);

// Builds the record of everything `source` holds. `name` names the input in
// errors. Throws ToolError: usage for unusable options, unsound for an input
// the record cannot describe (empty, too many segments, an offset over 32
// bits for DO type 5), or the library's refusal.
Built BuildRecord(ByteSource& source, const std::string& name, const BuildOptions& options,
                  const ProgressFn& progress = ProgressFn());

// The summary of a build: bytes, segments, distinct segments and dedup
// ratio, containers, record size, serialized size and digest.
void PrintBuildSummary(const std::string& name, const Built& built, const BuildOptions& options,
                       std::ostream& out);

// The k bit positions of a fingerprint in a Bloom bitmap of `bits` bits.
// Exposed for tests; k = kBloomHashes.
constexpr unsigned kBloomHashes = 7;
void BloomPositions(const unsigned char* fingerprint, uint64_t bits, uint64_t* positions);

}  // namespace crrec

#endif  // CRREC_BUILD_H
