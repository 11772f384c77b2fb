// The fuzz entry function of crrec's readers: form recognition and every
// loader, then what the commands do with a record that loads. It calls the
// same functions the tool's commands call, so a crash here is a crash of
// `crrec show`, `verify`, `digest` or `convert` on the same file.
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "crrecord/DORecord.h"
#include "examine.h"
#include "fuzz_input.h"
#include "fuzz_support.h"
#include "fuzz_targets.h"
#include "json.h"
#include "load.h"
#include "util.h"

namespace crfuzz {
namespace {

// What the command line would say, from the input's first two bytes.
struct Options {
  crrec::Hints hints;
  crrec::VerifyOptions verify;
  crrec::ShowOptions show;
};

// Byte 0: bits 0-2 the form given with --form (5 to 7: recognised), bit 3
// --no-checksum, bit 4 `show --all`. Byte 1: bits 0-2 --dotype (6 and 7:
// none), bits 3-4 --fptype (0: none).
Options OptionsFrom(uint8_t form, uint8_t types) {
  Options o;
  if ((form & 7) < 5) {
    o.hints.formGiven = true;
    o.hints.form = static_cast<crrec::Form>(form & 7);
  }
  o.verify.noChecksum = (form & 8) != 0;
  if ((form & 16) != 0) o.show.segments = UINT64_MAX;
  if ((types & 7) < 6) o.hints.dotype = types & 7;
  if ((types >> 3 & 3) != 0) o.hints.fptype = types >> 3 & 3;
  return o;
}

// What a loaded record's bytes are in the form they return to.
std::vector<unsigned char> BytesOf(const crrec::Loaded& loaded) {
  if (loaded.IsDO()) return crrec::StoredBytes(*loaded.record, false);
  const unsigned char* p = reinterpret_cast<const unsigned char*>(loaded.so());
  return std::vector<unsigned char>(p, p + loaded.soLength);
}

// A command that refuses (ToolError) leaves the others to run.
template <typename Command>
void Attempt(Command command) {
  try {
    command();
  } catch (const crrec::ToolError&) {
  }
}

// Everything the commands do with the bytes: load, show, digest, each
// conversion, and verify last, whose refusal (ToolError) is the outcome.
void RunTool(const std::vector<unsigned char>& bytes, const Options& o) {
  crrec::Loaded loaded = crrec::Load("fuzz", bytes, o.hints);
  std::ostringstream out;
  crrec::Show(loaded, o.show, out);
  const std::string json = crrec::ToJson(loaded).dump(2);
  if (loaded.IsDO()) {
    const DORecord& r = *loaded.record;
    crrec::StoredBytes(r, true);
    Attempt([&] { crrec::DigestText(r, "fuzz"); });
    Attempt([&] { crrec::SerializedBytes(r, true, "fuzz"); });
    Attempt([&] { crrec::SerializedBytes(r, false, "fuzz"); });
  }
  crrec::Verify(loaded, o.verify, out);

  // The JSON form is lossless: a record that verifies comes back from its
  // JSON text with the same bytes.
  const std::vector<unsigned char> text(json.begin(), json.end());
  crrec::Loaded again;
  try {
    again = crrec::Load("fuzz.json", text, crrec::Hints());
  } catch (const crrec::ToolError&) {
    Check(false, "the JSON form of a verified record loads");
    return;
  }
  Check(again.IsDO() == loaded.IsDO() && BytesOf(again) == BytesOf(loaded),
        "a verified record comes back from its JSON form with the same bytes");
}

}  // namespace

// Input: the two option bytes (OptionsFrom), then the file's bytes.
Outcome FuzzCrrecLoad(const uint8_t* data, size_t size) {
  QuietLogging();
  Input in(data, size);
  const uint8_t form = in.U8();
  const uint8_t types = in.U8();
  const std::vector<uint8_t> rest = in.Rest();
  try {
    RunTool(std::vector<unsigned char>(rest.begin(), rest.end()), OptionsFrom(form, types));
    return Outcome::kAccepted;
  } catch (const crrec::ToolError&) {
    return Outcome::kRefused;
  } catch (const std::exception& e) {
    // The tool prints these too, but as a bare library or JSON message
    // rather than a reason of its own. The message goes to stderr so that
    // the crash report names it.
    std::fprintf(stderr, "crrec_load: escaped: %s\n", e.what());
    Check(false, "the tool refuses only with its own error");
    return Outcome::kRefused;
  }
}

}  // namespace crfuzz
