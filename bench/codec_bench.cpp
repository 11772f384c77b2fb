// The codecs under the record operations, one implementation at a time:
// hex encoding and decoding of fingerprint text and Adler-32, each through
// every path the CPU runs, with zlib's adler32 beside them.
#include <benchmark/benchmark.h>
#include <zlib.h>

#include <cstdint>
#include <string>
#include <vector>

#include "common/Adler32.h"
#include "hex.h"

namespace {

using crrecord::Adler32Path;
using crrecord::HexPath;

std::vector<unsigned char> Random(size_t n) {
  std::vector<unsigned char> v(n);
  uint64_t x = 88172645463325252ull;
  for (unsigned char& b : v) {
    x ^= x << 13;
    x ^= x >> 7;
    x ^= x << 17;
    b = static_cast<unsigned char>(x);
  }
  return v;
}

const char* Name(HexPath p) { return crrecord::HexPathName(p); }
const char* Name(Adler32Path p) { return crrecord::Adler32PathName(p); }

constexpr size_t kBulk = 1 << 20;  // bytes of binary input; fits the cache with its text
constexpr size_t kFields = 100000;  // fingerprints laid out as in a DO type 3 record

void HexEncodeBulk(benchmark::State& state, HexPath path) {
  crrecord::HexForcePath(path);
  const std::vector<unsigned char> in = Random(kBulk);
  std::string out(2 * kBulk, ' ');
  for (auto _ : state) {
    crrecord::HexEncode(in.data(), in.size(), &out[0]);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBulk));
}

void HexDecodeBulk(benchmark::State& state, HexPath path) {
  crrecord::HexForcePath(path);
  const std::vector<unsigned char> bytes = Random(kBulk);
  std::string text(2 * kBulk, ' ');
  crrecord::HexEncode(bytes.data(), bytes.size(), &text[0]);
  std::vector<unsigned char> out(kBulk);
  for (auto _ : state) {
    if (!crrecord::HexDecode(text.data(), text.size(), out.data())) state.SkipWithError("bad");
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBulk));
}

// 16-byte fingerprints in 28-byte entries to 33-byte text fields and back.
void HexEncodeFields(benchmark::State& state, HexPath path) {
  crrecord::HexForcePath(path);
  const std::vector<unsigned char> list = Random(kFields * 28);
  std::string text(kFields * 33, '\0');
  for (auto _ : state) {
    crrecord::HexEncodeFields(list.data(), 28, 16, &text[0], 33, kFields, true);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kFields));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kFields * 16));
}

void HexDecodeFields(benchmark::State& state, HexPath path) {
  crrecord::HexForcePath(path);
  const std::vector<unsigned char> list = Random(kFields * 28);
  std::string text(kFields * 33, '\0');
  crrecord::HexEncodeFields(list.data(), 28, 16, &text[0], 33, kFields, true);
  std::vector<unsigned char> back(kFields * 28);
  for (auto _ : state) {
    if (crrecord::HexDecodeFields(text.data(), 33, 16, back.data(), 28, kFields, true) != kFields) {
      state.SkipWithError("bad");
    }
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kFields));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kFields * 16));
}

void Adler(benchmark::State& state, Adler32Path path) {
  crrecord::Adler32ForcePath(path);
  const std::vector<unsigned char> in = Random(static_cast<size_t>(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(crrecord::Adler32(in.data(), in.size()));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * in.size()));
}

void ZlibAdler(benchmark::State& state) {
  const std::vector<unsigned char> in = Random(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    benchmark::DoNotOptimize(adler32(1, in.data(), static_cast<uInt>(in.size())));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * in.size()));
}

void RegisterAll() {
  for (HexPath path : {HexPath::kPortable, HexPath::kSSSE3, HexPath::kAVX2}) {
    if (!crrecord::HexPathAvailable(path)) continue;
    const std::string p = Name(path);
    benchmark::RegisterBenchmark(("hex_encode/" + p).c_str(), HexEncodeBulk, path);
    benchmark::RegisterBenchmark(("hex_decode/" + p).c_str(), HexDecodeBulk, path);
    benchmark::RegisterBenchmark(("hex_encode_fields/" + p).c_str(), HexEncodeFields, path);
    benchmark::RegisterBenchmark(("hex_decode_fields/" + p).c_str(), HexDecodeFields, path);
  }
  for (int64_t size : {int64_t{64} << 10, int64_t{64} << 20}) {
    for (Adler32Path path : {Adler32Path::kPortable, Adler32Path::kSSSE3, Adler32Path::kAVX2,
                             Adler32Path::kAVX512}) {
      if (!crrecord::Adler32PathAvailable(path)) continue;
      benchmark::RegisterBenchmark(("adler32/" + std::string(Name(path))).c_str(), Adler, path)
          ->Arg(size);
    }
    benchmark::RegisterBenchmark("adler32/zlib", ZlibAdler)->Arg(size);
  }
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RegisterAll();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
