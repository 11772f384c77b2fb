/// @file
/// The DO record: one per stored file.
///
/// A DO record is one contiguous buffer: the fixed header DORecordHeader
/// followed by sections whose presence and widths follow from the header's
/// counts, its DO type and its fingerprint type. The same bytes are stored
/// and sent; DORecord wraps such a buffer.
///
/// Fixed header (80 bytes). Every multi-byte field is in the record's byte
/// order (host, or network while the owner says so):
///
/// @code{.unparsed}
///   off size field      meaning
///     0   2  type       record type, 3
///     2   2  flags      only 0x0002 and 0x0004 may be set
///     4   4  recsize    bytes of the whole record, header and sections
///     8   4  reserved   zero; never read or written
///    12   4  checktime  check time (seconds)
///    16   8  CID        container ID of the record itself
///    24   8  size       file size in bytes
///    32   8  ssize      segment size in bytes
///    40   4  CRC        checksum supplied by the builder; never computed here
///    44   4  ctime      creation time (seconds since 1970, 32 bits)
///    48   4  mtime      modification time (seconds since 1970, 32 bits)
///    52   4  ntaskid    entries of the old task-ID list
///    56   4  nfp        segments; 0 in a Bloom DO record
///    60   4  nudcid     entries of the unique-DCID section
///    64   4  nds        entries of the old data-selection-ID list
///    68   4  trefsize   bytes of the typed-reference section
///    72   4  bsize      bytes of the Bloom bitmap (DO type 4 only)
///    76   1  fptype     fingerprint type
///    77   1  dotype     DO type
///    78   2  reserved   zero; pads the header to a multiple of 8
/// @endcode
///
/// Sections, with H = 80, W = fingerprint width (32 for fptype 3, else 16),
/// X = per-segment fields after the fingerprint (0 for DO types 0 and 1,
/// 4 for type 2, 12 for type 3, 8 for type 5, 0 for any other type),
/// U = 8 + 16 * nudcid when nudcid > 0, else 0:
///
/// @code{.unparsed}
///   segment-list record:
///   | header H | old task IDs 8*ntaskid | old DSIDs 4*nds |
///   | segment list nfp*(W+X) | DCIDs nfp*8 | unique DCIDs U | typed refs trefsize |
///
///   Bloom DO record (DO type 4):
///   | header H | old task IDs | old DSIDs | length word 4 | bitmap bsize |
///   | 16 reserved bytes | unique DCIDs U | typed refs trefsize |
/// @endcode
///
/// Choices this format makes:
/// - No padding between sections: segment entries, DCIDs and unique-DCID
///   entries may be unaligned, and every access goes through memcpy.
/// - The old lists lie directly behind the header, the task IDs first; the
///   task IDs' place depends on no count and the DSIDs' place on ntaskid
///   alone, so both can be cut out of the buffer in turn (convertToTRefs).
/// - In a Bloom DO record the 16 reserved bytes come before the unique-DCID
///   section, so that the typed-reference section starts right after that
///   section in both layouts and the digest span (length word, bitmap, 16
///   bytes, unique DCIDs) is contiguous.
/// - DORecordHeaderHton/Ntoh convert the header (but its reserved words), the
///   per-segment sizes, offsets and object offsets, and the old task-ID and
///   DSID lists. They leave fingerprints, per-segment DCIDs, the unique-DCID
///   section, the whole Bloom section and the typed-reference section as they
///   are: the DCID getters hand out stored bytes, so they read the same in
///   both orders.
/// - The Bloom section's 16 reserved bytes mark the byte order of a Bloom
///   record's unique-DCID list: zero, the list stands in host order (a record
///   built from a bitmap); kBloomListBigEndianMark, it stands big-endian, as
///   it travelled (a record rebuilt from the serialized Bloom form), until
///   AppendBloomAndUniqueDCIDList turns it to host order and clears the mark.
///   The mark is not the length word, which DORecordHeaderStartBFBitmap
///   designates: AppendBloom byte-swaps that word whatever the list's order,
///   and AppendBloomAndUniqueDCIDList turns it back to host order when it
///   finds it swapped.
///
/// Unique-DCID section (all fields host order when built by this library):
/// @code{.unparsed}
///   off 0 u32 Adler-32 of the next 4 + 16*n bytes | off 4 u32 n |
///   off 8+16i u64 DCID i | off 16+16i u64 bytes of the file in that container
/// @endcode
#ifndef CRRECORD_DORECORD_H
#define CRRECORD_DORECORD_H

#include <cstddef>
#include <iosfwd>
#include <iterator>
#include <map>
#include <set>
#include <string>

#include <boost/intrusive_ptr.hpp>

#include "crrecord/RecordBuffer.h"
#include "crrecord/Status.h"
#include "crrecord/export.h"
#include "crrecord/DOSegmentLayout.h"
#include "crrecord/platform/fingerprint.h"
#include "crrecord/platform/tref.h"


/// The fixed header of a DO record buffer (80 bytes), drawn in DORecord.h.
/// The sections follow it in the same buffer. Multi-byte fields stand in the
/// record's byte order; the owner knows which (DORecord reads them through
/// its accessors, which swap while the record is in network order).
struct DORecordHeader {
  unsigned short type;         ///< record type, 3
  unsigned short flags;        ///< 0x0002 | 0x0004 at most
  unsigned int recsize;        ///< bytes of the whole record, header and sections
  unsigned int reserved;       ///< zero; never read or written
  unsigned int checktime;      ///< check time, seconds
  unsigned long CID;           ///< container ID of the record itself
  unsigned long size;          ///< file size, bytes
  unsigned long ssize;         ///< segment size, bytes
  unsigned int CRC;            ///< the builder's checksum; never computed here
  unsigned int ctime;          ///< creation time, seconds since 1970
  unsigned int mtime;          ///< modification time, seconds since 1970
  unsigned int ntaskid;        ///< old task-ID list entries
  unsigned int nfp;            ///< segments; 0 in a Bloom DO record
  unsigned int nudcid;         ///< unique-DCID entries
  unsigned int nds;            ///< old DSID list entries
  unsigned int trefsize;       ///< typed-reference section bytes
  unsigned int bsize;          ///< Bloom bitmap bytes (DO type 4 only)
  unsigned char fptype;        ///< fingerprint type
  unsigned char dotype;        ///< DO type
  unsigned char reserved2[2];  ///< zero; pads the header to a multiple of 8
};

// The drawing above, held to the struct (LP64: unsigned long is 8 bytes).
static_assert(sizeof(DORecordHeader) == 80, "the header is 80 bytes");
static_assert(offsetof(DORecordHeader, type) == 0, "type at 0");
static_assert(offsetof(DORecordHeader, flags) == 2, "flags at 2");
static_assert(offsetof(DORecordHeader, recsize) == 4, "recsize at 4");
static_assert(offsetof(DORecordHeader, reserved) == 8, "reserved at 8");
static_assert(offsetof(DORecordHeader, checktime) == 12, "checktime at 12");
static_assert(offsetof(DORecordHeader, CID) == 16, "CID at 16");
static_assert(offsetof(DORecordHeader, size) == 24, "size at 24");
static_assert(offsetof(DORecordHeader, ssize) == 32, "ssize at 32");
static_assert(offsetof(DORecordHeader, CRC) == 40, "CRC at 40");
static_assert(offsetof(DORecordHeader, ctime) == 44, "ctime at 44");
static_assert(offsetof(DORecordHeader, mtime) == 48, "mtime at 48");
static_assert(offsetof(DORecordHeader, ntaskid) == 52, "ntaskid at 52");
static_assert(offsetof(DORecordHeader, nfp) == 56, "nfp at 56");
static_assert(offsetof(DORecordHeader, nudcid) == 60, "nudcid at 60");
static_assert(offsetof(DORecordHeader, nds) == 64, "nds at 64");
static_assert(offsetof(DORecordHeader, trefsize) == 68, "trefsize at 68");
static_assert(offsetof(DORecordHeader, bsize) == 72, "bsize at 72");
static_assert(offsetof(DORecordHeader, fptype) == 76, "fptype at 76");
static_assert(offsetof(DORecordHeader, dotype) == 77, "dotype at 77");
static_assert(offsetof(DORecordHeader, reserved2) == 78, "reserved2 at 78");

namespace crrecord {
/// The Bloom section's 16 reserved bytes while the record's unique-DCID list
/// stands big-endian (see the layout notes above); zero otherwise.
constexpr unsigned char kBloomListBigEndianMark[16] = {'B', 'E'};
}  // namespace crrecord

/// Flags of a DO record.
enum : unsigned short {
  CR_DO_FLAGS_ALLOWED = 0x0006,  ///< the bits that may be set
  CR_DO_FLAGS_NEW = 0x0002       ///< the flags of a newly built record
};

// ---------------------------------------------------------------------------
// Header operations. The size functions take counts; every other operation
// takes a record buffer and trusts its counts ("assumes a validated buffer"):
// locators do not check indexes and find the same place in either byte order.

/// Bytes of a record with these counts: count is nfp, or bsize for DO type 4.
/// With every count 0 it gives the header size, 80. Cannot fail; computed in
/// 64 bits, so it never wraps.
CRRECORD_API unsigned long DORecordHeaderSizeRaw(unsigned int ntaskid, unsigned int count,
                                                 unsigned int nudcid, unsigned int nds,
                                                 unsigned char dotype, unsigned char fptype,
                                                 unsigned int trefsize);
/// Bytes of a Bloom DO record with these counts; equals DORecordHeaderSizeRaw
/// for DO type 4 (bsize in the count position, any fingerprint type).
CRRECORD_API unsigned long DORecordHeaderSizeWithBloom(unsigned int ntaskid, unsigned int bsize,
                                                       unsigned int nudcid, unsigned int nds,
                                                       unsigned char dotype,
                                                       unsigned int trefsize);

/// The first byte (the fingerprint) of segment entry @p i. Unchecked: the
/// caller keeps @p i below nfp. The entry may be unaligned.
CRRECORD_API unsigned char* DORecordHeaderIndexOfSegment(const DORecordHeader* h, unsigned int i);
/// The u32 size of segment entry @p i (DO types 2, 3, 5), in the record's
/// byte order; unaligned. Unchecked.
CRRECORD_API unsigned char* DORecordHeaderIndexOfSegmentSize(const DORecordHeader* h,
                                                             unsigned int i);
/// The u64 offset of segment entry @p i (DO type 3), in the record's byte
/// order; unaligned. Unchecked.
CRRECORD_API unsigned char* DORecordHeaderIndexOfSegmentOffset(const DORecordHeader* h,
                                                               unsigned int i);
/// The u32 object offset of segment entry @p i (DO type 5), in the record's
/// byte order; unaligned. Unchecked.
CRRECORD_API unsigned char* DORecordHeaderIndexOfSegmentObjectOffset(const DORecordHeader* h,
                                                                     unsigned int i);
/// The u64 DCID of segment @p i, as stored (host order when built here).
/// @p i may be nfp: the first byte after the DCID array. Unchecked.
CRRECORD_API unsigned char* DORecordHeaderIndexOfDCID(const DORecordHeader* h, unsigned int i);
/// The start (checksum word) of the unique-DCID section; in a record that is
/// not a Bloom DO record the same place as DCID number nfp.
CRRECORD_API unsigned char* DORecordHeaderStartUDCID(const DORecordHeader* h);
/// The u64 DCID of unique-DCID entry @p i: section start + 8 + 16 * i.
/// Unchecked.
CRRECORD_API unsigned char* DORecordHeaderIndexOfUDCID(const DORecordHeader* h, unsigned int i);
/// The start of the typed-reference section, the last section: the end of
/// the unique-DCID section.
CRRECORD_API unsigned char* DORecordHeaderStartTRefs(const DORecordHeader* h);
/// The u64 task ID @p i of the old task-ID list, right behind the header;
/// its place depends on no count. Unchecked.
CRRECORD_API unsigned char* DORecordHeaderIndexOfTaskId(const DORecordHeader* h, unsigned int i);
/// The u32 DSID @p i of the old DSID list, behind the old task-ID list.
/// Unchecked.
CRRECORD_API unsigned char* DORecordHeaderIndexOfDataSelection(const DORecordHeader* h,
                                                               unsigned int i);
/// The Bloom section's u32 length word; the bitmap follows 4 bytes later.
CRRECORD_API unsigned char* DORecordHeaderGetBloomStart(const DORecordHeader* h);
/// The Bloom bitmap's first byte.
CRRECORD_API unsigned char* DORecordHeaderGetBloom(const DORecordHeader* h);
/// The Bloom section's length word, which AppendBloom byte-swaps (see the
/// layout notes above).
CRRECORD_API unsigned char* DORecordHeaderStartBFBitmap(const DORecordHeader* h);
/// The record's own identity: its container ID field (8 bytes, record
/// order).
CRRECORD_API unsigned char* DORecordHeaderGetPOID(const DORecordHeader* h);

/// Flags of DORecordHeaderValidate.
enum : unsigned int {
  CR_DO_VALIDATE_NETWORK_ORDER = 1,  ///< the record is in network order
};
/// Checks a record of @p length bytes read from outside: length at least the
/// header, type 3, allowed flags, recsize equal to length, valid fingerprint
/// and DO types, and a size that matches the counts. Reads nothing past
/// @p length. Returns 0, 9 for a null record or unknown flag bits, or 32
/// with a trace line naming the check.
CRRECORD_API cr_status_t DORecordHeaderValidate(const DORecordHeader* h, unsigned int length,
                                                unsigned int flags);
/// Converts the record in place to network order: the header but its
/// reserved words, the per-segment sizes, offsets and object offsets, and the
/// old task-ID and DSID lists. REQUIRES: a host-order record whose counts are
/// sound (validated).
CRRECORD_API void DORecordHeaderHton(DORecordHeader* h);
/// Converts the record in place to host order; undoes DORecordHeaderHton.
/// REQUIRES: a network-order record whose counts are sound.
CRRECORD_API void DORecordHeaderNtoh(DORecordHeader* h);

/// Adler-32 (RFC 1950) of @p length bytes, started at 1. Adler-32 of one zero
/// byte is 0x00010001.
CRRECORD_API unsigned int DORecordAdler32(const void* data, size_t length);

/// Builds a host-order record from a serialized DO record or serialized Bloom
/// DO record of @p length bytes, for the DO type and fingerprint type given
/// (the forms do not carry them). Reads nothing past @p length.
///
/// With *@p header null it allocates the buffer (malloc; the owner frees it
/// with free) and stores it and its size; otherwise it builds in the caller's
/// buffer of *@p allocatedSize bytes. The head's checksum field is stored as
/// CRC, unverified: the form does not say whether it holds the record's CRC
/// or an Adler-32 of the body (see DORecordSerializedHasAdler32).
///
/// Returns 0; 65 for a null argument, 113 / 111 for a DO / fingerprint type
/// that is refused, 120 for input shorter than its counts say, 121 for
/// malformed input (wrong length, bad fingerprint text, nonzero padding, bad
/// unique-DCID checksum), 122 for a caller buffer that is too small, 9 for a
/// caller buffer not aligned to 8 bytes (the header is accessed as a struct),
/// 22 when memory runs out. On failure nothing of its own stays allocated and
/// *@p header and *@p allocatedSize are unchanged; a caller's buffer may hold
/// a partly written record. The record gets flags 0, CID 0, checktime 0 and
/// the current time as ctime and mtime; its caller completes the header.
CRRECORD_API cr_status_t DORecordHeaderDeserialize(DORecordHeader** header,
                                                   unsigned long* allocatedSize, const void* data,
                                                   unsigned long length, unsigned char dotype,
                                                   unsigned char fptype);
/// True when the head of the serialized record (either form) holds the
/// Adler-32 of its body, as it does when the sender asked for a checksum (and
/// always in the Bloom form). False for input shorter than the head.
CRRECORD_API bool DORecordSerializedHasAdler32(const void* data, unsigned long length);

// ---------------------------------------------------------------------------
// Typed reference objects.

/// One typed reference, as the record library holds it: wraps one raw
/// reference (_cr_tref_t), which it owns and releases with CRTRefDelete.
/// Counted by boost::intrusive_ptr (not atomically: one thread at a time per
/// object) and allocated from the process-wide TRef pool of 16-byte chunks,
/// whose allocations and releases are serialized by a mutex. An object lives
/// as long as any intrusive pointer to it, in a record's set or elsewhere.
class CRRECORD_API Cr_TRef {
 public:
  /// A task-ID reference (kind 2). Throws std::bad_alloc.
  explicit Cr_TRef(unsigned long taskId);
  /// A data-selection-ID reference (kind 4). Throws std::bad_alloc.
  explicit Cr_TRef(unsigned int dsid);
  /// Takes the raw reference over: the object releases it.
  explicit Cr_TRef(_cr_tref_t* ref);
  /// Releases the raw reference.
  ~Cr_TRef();
  Cr_TRef(const Cr_TRef&) = delete;             ///< not copyable: one owner per raw reference
  Cr_TRef& operator=(const Cr_TRef&) = delete;  ///< not assignable

  /// A new object (count 0) holding a copy of @p ref, which stays the
  /// caller's; hold it in a boost::intrusive_ptr. Throws std::bad_alloc
  /// (also for a null @p ref); never returns null.
  static Cr_TRef* Factory(const _cr_tref_t* ref);
  /// The raw reference, still owned by the object.
  _cr_tref_t* Get() const { return ref_; }
  /// The number of intrusive pointers to the object.
  unsigned long UseCount() const { return count_; }

  /// Takes a chunk from the TRef pool; throws std::bad_alloc when it is
  /// exhausted.
  static void* operator new(size_t size);
  /// Gives the chunk back to the TRef pool; null is ignored.
  static void operator delete(void* p);

 private:
  friend void intrusive_ptr_add_ref(Cr_TRef* p);
  friend void intrusive_ptr_release(Cr_TRef* p);
  _cr_tref_t* ref_;
  unsigned long count_;
};

/// Counts one more intrusive pointer to @p p (boost::intrusive_ptr hook).
CRRECORD_API void intrusive_ptr_add_ref(Cr_TRef* p);
/// Counts one intrusive pointer less; deletes @p p when none is left.
CRRECORD_API void intrusive_ptr_release(Cr_TRef* p);

/// Orders references by CRTRefCompare: kind, payload length, payload.
struct CRRECORD_API Cr_TRefComparator {
  /// True when @p a orders before @p b. Both must be non-null.
  bool operator()(const boost::intrusive_ptr<Cr_TRef>& a,
                  const boost::intrusive_ptr<Cr_TRef>& b) const;
};

/// Names the TRef pool (boost::singleton_pool); no other use.
struct Cr_TRef_Pool_Tag {};

// ---------------------------------------------------------------------------

/// DORecord: the in-memory handle of one DO record.
///
/// Ownership. The object points at a record buffer of a known allocated size.
/// It frees the buffer only when it owns it: it allocated it, took it over
/// (buffer mode 2 of the stored-record constructor), or had to copy or grow
/// it. A caller's buffer stays the caller's and, once the object has copied
/// it, is left untouched. Buffer modes say what the object may do when the
/// buffer must grow: 0 nothing, 1 copy it into a buffer of its own, 2 realloc.
///
/// The eleven reference sets are the truth about references while the object
/// lives; the typed-reference section in the buffer is written from them only
/// by GetHeader, GetSerializedTRefs, the binary ToStream and the unique-DCID
/// operations. A record is used by one thread at a time: even GetHeader and the
/// binary ToStream, though const, write into the buffer.
///
/// Failures. Constructors and operations that change the record throw
/// Cr_ErrnoException (status and message); a failed constructor leaves
/// nothing allocated. Serialization and the unique-DCID operations return a
/// cr_status_t.
///
/// Copying is not allowed: a member-wise copy would give one buffer two owners.
class CRRECORD_API DORecord {
 public:
  /// One kind's references, ordered by CRTRefCompare.
  typedef std::set<boost::intrusive_ptr<Cr_TRef>, Cr_TRefComparator> tref_set_t;
  /// Tells whether a task is still active: nonzero for active. @p context is
  /// the caller's pointer, handed on unchanged.
  typedef int (*task_activity_callback_t)(unsigned long taskId, void* context);

  /// Read-only walk over the references of kinds 1 to 10 (kind 0 is never
  /// visited), kind by kind, each kind in CRTRefCompare order. Invalidated
  /// by any change of the record's references.
  class CRRECORD_API tref_const_iterator_t {
   public:
    typedef std::forward_iterator_tag iterator_category;  ///< a forward iterator
    typedef boost::intrusive_ptr<Cr_TRef> value_type;     ///< a reference
    typedef std::ptrdiff_t difference_type;               ///< distance type
    typedef const value_type* pointer;                    ///< pointer to a reference
    typedef const value_type& reference;                  ///< a reference to a reference

    /// A singular iterator, equal only to another singular one.
    tref_const_iterator_t();
    /// Points at @p position in the set of @p kind of @p record. Callers
    /// normally take GetTRefBegin() and GetTRefEnd() instead.
    tref_const_iterator_t(const DORecord* record, cr_reftype_t kind,
                          tref_set_t::const_iterator position);

    /// The reference pointed at. REQUIRES: not the end.
    const boost::intrusive_ptr<Cr_TRef>& dereference() const;
    /// True when both point at the same place of the same record.
    bool equal(const tref_const_iterator_t& other) const;
    /// Moves to the next reference, across kinds. REQUIRES: not the end.
    void increment();

    /// The reference pointed at.
    reference operator*() const { return dereference(); }
    /// The reference pointed at.
    pointer operator->() const { return &dereference(); }
    /// Moves to the next reference.
    tref_const_iterator_t& operator++() {
      increment();
      return *this;
    }
    /// Moves to the next reference and returns the old position.
    tref_const_iterator_t operator++(int) {
      tref_const_iterator_t old = *this;
      increment();
      return old;
    }
    /// Same place.
    bool operator==(const tref_const_iterator_t& other) const { return equal(other); }
    /// Different places.
    bool operator!=(const tref_const_iterator_t& other) const { return !equal(other); }

   private:
    const DORecord* record_;
    cr_reftype_t kind_;
    tref_set_t::const_iterator position_;
  };

  /// "type,formatversion,flags,...": the layout of the text form that
  /// ToStream(os, false) writes, one name per field.
  static const std::string TEXT_STREAM_FORMAT_DESCRIPTION;

  /// Builds a record from a segment list: @p segmentCount entries in the
  /// interleaved layout (fingerprint, then the DO type's size/offset fields),
  /// one DCID per segment (each at least 64), an optional unique-DCID block
  /// laid out like the section (null for none; its Adler-32 is checked).
  /// Input is host order and copied; the caller keeps its buffers. Times of
  /// 0 mean "now". The record gets flags 0x0002 and owns its buffer; the
  /// segment list is checked with checkSegmentList.
  ///
  /// Throws Cr_ErrnoException and leaves nothing behind: 113 "Invalid CR DO
  /// type", 111 "Invalid CR fingerprint type", 9 "Got empty SO list." (no
  /// segments, or DO type 4: use the Bloom constructor), 9 for a missing
  /// DCID list, a DCID below 64 ("Got invalid dcid N at index I") or a
  /// unique-DCID block whose checksum does not match, 89 from
  /// checkSegmentList, 22 when memory runs out.
  DORecord(unsigned long dcid, unsigned long size, unsigned long ssize, unsigned int crc,
           unsigned int ctime, unsigned int mtime, const void* segments,
           unsigned int segmentCount, const unsigned long* dcids, const char* uniqueDcids,
           unsigned char fptype, unsigned char dotype);

  /// Builds a Bloom DO record (DO type 4) from a caller's bitmap of
  /// @p bitmapSize bytes and an optional unique-DCID block (null for none),
  /// both copied in host order. The library does not compute Bloom filters:
  /// the bitmap is carried as given.
  ///
  /// Throws Cr_ErrnoException and leaves nothing behind: 113 "Invalid CR DO
  /// type" for any DO type but 4, 111 "Invalid CR fingerprint type", 9 "Got
  /// empty bloom filter bitmap." for a size of 0, 9 for a null bitmap or a
  /// unique-DCID block whose checksum does not match, 22 when memory runs
  /// out.
  DORecord(unsigned long dcid, unsigned long size, unsigned long ssize, unsigned int crc,
           unsigned int ctime, unsigned int mtime, unsigned int bitmapSize,
           const unsigned char* bitmap, const char* uniqueDcids, unsigned char fptype,
           unsigned char dotype);

  /// Rebuilds a record from a serialized DO record of @p dataLength bytes
  /// (Serialize's output; references do not travel in it), in the caller's
  /// buffer of @p bufferSize bytes (which stays the caller's; mode 1) or,
  /// when @p buffer is null, in one of its own (mode 2). @p flags, @p dcid
  /// and @p fptype complete the header; a sub-DO takes the DCID of its first
  /// segment as CID (one without segments keeps @p dcid). A caller's buffer
  /// must be aligned to 8 bytes.
  ///
  /// Throws Cr_ErrnoException with the status of DORecordHeaderDeserialize
  /// (no message), 9 "invalid fptype for DO", or that of checkSegmentList,
  /// and leaves no buffer of its own behind.
  DORecord(unsigned int dotype, unsigned short flags, unsigned long dcid, unsigned char fptype,
           void* buffer, unsigned long bufferSize, const void* data, unsigned long dataLength,
           bool subDO);

  /// Opens a stored record: the host-order buffer that GetHeader handed out,
  /// of @p allocatedSize bytes.
  ///
  /// The record must fit the buffer and pass DORecordHeaderValidate;
  /// otherwise Cr_ErrnoException with the validation's status (32 when
  /// recsize exceeds @p allocatedSize) and the buffer is left as it was,
  /// still the caller's. @p bufferMode: 0 the buffer may neither be copied
  /// nor grown, 1 it is copied when it must grow, 2 the object takes it over
  /// (frees it with free, may realloc it). The stored typed references and
  /// any old task-ID and DSID lists are loaded into the sets
  /// (convertToTRefs). The buffer must be 8-byte aligned (the header is
  /// accessed as a struct), else 9; a null record gives 65, a @p bufferMode
  /// above 2 gives 9.
  ///
  /// On any failure the caller's buffer holds its old bytes and stays the
  /// caller's, also in mode 2: the object takes it over only once the
  /// references are loaded. A record without old lists is loaded in place
  /// (its header is put back if loading fails); a record with old lists is
  /// converted on a copy of the object's own in modes 1 and 2 (in mode 2 the
  /// caller's buffer is then freed, in mode 1 left untouched), and refused
  /// with 9 in mode 0.
  DORecord(DORecordHeader* record, unsigned long allocatedSize, unsigned int bufferMode);

  /// Frees the buffer when the object owns it; a caller's buffer is left.
  virtual ~DORecord();
  DORecord(const DORecord&) = delete;             ///< not copyable: one owner per buffer
  DORecord& operator=(const DORecord&) = delete;  ///< not assignable

  // --- Buffer and sizes ---------------------------------------------------
  /// Grows the buffer to at least @p needed bytes, in whole pages; does
  /// nothing when it is large enough. Throws Cr_ErrnoException 9 in buffer
  /// mode 0, 22 when memory runs out (the old buffer stays valid). Growing
  /// a borrowed buffer (mode 1) copies it into one the object owns.
  void expand(unsigned int needed);
  /// Grows the buffer to the record size, as expand(unsigned int).
  void expand();
  /// The header's record size, as a host value.
  unsigned int getRecSize() const;
  /// The record size: the bytes of the whole record, header and sections.
  unsigned int GetHeaderSize() const;
  /// Sets the header's record size. Throws Cr_ErrnoException 9 "invalid
  /// record size for DO" below the header size.
  void setRecSize(unsigned int size);
  /// The record size that the header's counts and TRef size give.
  unsigned int calcRecSize() const;
  /// The header's TRef size field: bytes of the typed-reference section.
  unsigned int getTRefsSize() const;
  /// Sets the header's TRef size field, unchecked.
  void setTRefsSize(unsigned int size);
  /// The record size minus the header size: the bytes of the DO body.
  unsigned long GetDOSize() const;
  /// Sets the TRef size to 0 and the record size to match (the sets
  /// themselves are left as they are). Throws as setRecSize.
  void initReferenceSets();
  /// Stamps mtime with the current time.
  void handleUpdate();
  /// The bytes of the buffer (at least the record size).
  unsigned long GetAllocatedSize() const { return header_.size(); }
  /// The buffer mode: 0 fixed, 1 copy when growing, 2 owned and growable.
  unsigned int GetBufferMode() const { return header_.mode(); }
  /// True when the object frees the buffer.
  bool OwnsBuffer() const { return header_.owned(); }

  // --- Header fields (host values in either byte order) --------------------
  /// The flags.
  unsigned short GetFlags() const;
  /// The check time (seconds).
  unsigned int GetCheckTime() const;
  /// The record's own container ID (CID).
  unsigned long GetDCID() const;
  /// The file size in bytes.
  unsigned long GetSize() const;
  /// The segment size in bytes.
  unsigned long GetSsize() const;
  /// The builder's CRC.
  unsigned int GetCrc() const;
  /// The creation time (seconds since 1970).
  unsigned int GetCTime() const;
  /// The modification time (seconds since 1970).
  unsigned int GetMTime() const;
  /// The number of segments; 0 in a Bloom DO record.
  unsigned int GetNfp() const;
  /// The number of unique-DCID entries.
  unsigned int GetNudcid() const;
  /// The bytes of the Bloom bitmap; 0 unless DO type 4.
  unsigned int GetBSize() const;
  /// The fingerprint type.
  unsigned char GetFPType() const;
  /// The DO type.
  unsigned char GetDOType() const;
  /// The record's container ID field in the buffer (DORecordHeaderGetPOID).
  unsigned char* GetPOID() const;

  /// Sets the check time.
  void setCheckTime(unsigned int t);
  /// Sets the check time (mtime is left as it is).
  void SetCheckTime(unsigned int t);
  /// Sets the record's container ID.
  void setDCID(unsigned long dcid);
  /// Sets the record's container ID and stamps mtime.
  void SetDCID(unsigned long dcid);
  /// Sets the fingerprint type; throws Cr_ErrnoException 9 "invalid fptype
  /// for DO" for a type CRFPTypeIsValid refuses.
  void setFPType(unsigned char fptype);
  /// Sets the fingerprint type without a check and stamps mtime.
  void SetFPType(unsigned char fptype);
  /// Sets the flags; flags outside 0x0006 are logged ("Setting DORecord
  /// flags to invalid value %x", status 9) and the old flags kept.
  void setFlags(unsigned short flags);
  /// Sets the flags and stamps mtime; flags outside 0x0006 are logged as by
  /// setFlags and stored anyway.
  void SetFlags(unsigned short flags);

  /// True while the buffer is in network order (HostToNetwork).
  bool IsInNetworkOrder() const { return networkOrder_; }
  /// Marks the record as a sub-DO, or not.
  void SetSubDO(bool subDO) { subDO_ = subDO; }
  /// True for a sub-DO.
  bool IsSubDO() const { return subDO_; }

  /// Writes the typed-reference section from the sets and returns the
  /// buffer: GetHeaderSize() bytes to store or send, in the record's byte
  /// order. The object keeps ownership; the pointer is valid until the
  /// buffer next grows or the object goes.
  DORecordHeader* GetHeader() const;
  /// DORecordHeaderValidate on @p h, unchanged.
  static cr_status_t ValidateHeader(const void* h, unsigned int length, unsigned int flags);
  /// A hook for debug builds; checks nothing.
  void checkInvariants() const {}

  // --- Typed references -----------------------------------------------------
  /// The number of references of every kind.
  unsigned int GetNTRefs() const;
  /// The number of references of @p kind; 0 for a kind outside 0..10.
  unsigned long GetNTRefs(cr_reftype_t kind) const;
  /// The number of task-ID references (kind 2).
  unsigned int GetNtaskid() const;
  /// The number of data-selection-ID references (kind 4).
  unsigned int GetNds() const;
  /// The start of the set of @p kind; an empty range for a kind outside 0..10.
  tref_set_t::const_iterator GetTRefTypeBegin(cr_reftype_t kind) const;
  /// The end of the set of @p kind.
  tref_set_t::const_iterator GetTRefTypeEnd(cr_reftype_t kind) const;
  /// The first reference of kinds 1 to 10 (kind 0 is never visited).
  tref_const_iterator_t GetTRefBegin() const;
  /// The end of the walk that GetTRefBegin starts.
  tref_const_iterator_t GetTRefEnd() const;

  /// Adds @p ref itself (not a copy) to its kind's set, grows the TRef size
  /// and record size by its serialized size, grows the buffer and stamps
  /// mtime. Returns 0 when added, 1 when an equal reference was already
  /// there. Throws Cr_ErrnoException 9 "NULL reference" for a null pointer,
  /// 9 "The type of reference ... is unsupported for a DO" (logged) for kinds
  /// other than 2, 4, 6 and 9, and what expand throws; the record is then
  /// unchanged.
  int OwnTRef(boost::intrusive_ptr<Cr_TRef> ref);
  /// As OwnTRef(boost::intrusive_ptr<Cr_TRef>), taking the raw reference
  /// over in every outcome but std::bad_alloc (then it stays the caller's).
  int OwnTRef(_cr_tref_t& ref);
  /// Adds a copy of @p ref, which stays the caller's; results and failures
  /// as OwnTRef.
  int AddTRef(const _cr_tref_t& ref);
  /// Adds a copy of the reference @p ref holds; throws Cr_ErrnoException 9
  /// "NULL reference" on null; otherwise as OwnTRef.
  int AddTRef(boost::intrusive_ptr<Cr_TRef> ref);
  /// 0 when an equal reference is present (or the kind is 7 or above 11,
  /// which count as present), 72 when absent (logged as a warning). Throws
  /// Cr_ErrnoException 9 for a null reference or a kind that cannot be
  /// looked up here (task IDs: use HasTaskID).
  cr_status_t CheckTRef(boost::intrusive_ptr<Cr_TRef> ref);
  /// As CheckTRef(boost::intrusive_ptr<Cr_TRef>) for a raw reference, which
  /// stays the caller's.
  cr_status_t CheckTRef(const _cr_tref_t* ref);
  /// Removes the reference equal to @p ref, shrinks the sizes and stamps
  /// mtime. Returns the number removed (0 or 1; 0 for null). Throws
  /// Cr_ErrnoException 9 (logged) for a kind that a DO record does not keep
  /// (kinds 2, 4, 6, 8 and 9 may be removed).
  unsigned long DelTRef(boost::intrusive_ptr<Cr_TRef> ref);
  /// As DelTRef(boost::intrusive_ptr<Cr_TRef>) for a raw reference, which
  /// stays the caller's.
  unsigned long DelTRef(const _cr_tref_t* ref);
  /// Removes every reference of @p kind and shrinks the sizes; nothing for a
  /// kind outside 0..10.
  void ClearTRefType(cr_reftype_t kind);
  /// Removes every task-ID reference (kind 2) and stamps mtime.
  void RemoveAllTRefs();
  /// The serialized size of every reference: what the TRef size field holds.
  unsigned long calcTRefsSize() const;
  /// The serialized size of the references of @p kind.
  unsigned long GetTRefTypeTotalSize(cr_reftype_t kind) const;
  /// Writes the typed-reference section from the sets and returns its start
  /// in the buffer (GetSerializedTRefsSize() bytes); owned by the object.
  unsigned char* GetSerializedTRefs() const;
  /// The bytes of the typed-reference section (the TRef size field).
  unsigned int GetSerializedTRefsSize() const;
  /// Loads a typed-reference section of @p length bytes (mode-1 references
  /// one after another) into the sets, growing the sizes and the buffer;
  /// duplicates are kept once. The bytes stay the caller's. Throws
  /// Cr_ErrnoException "Received a buffer with corrupt typed references."
  /// with the status of the failed decoding (65 for null data, 120 for a
  /// truncated reference, 121 for a malformed one), 9 when the record would
  /// grow beyond 32 bits, or what expand throws.
  void AddSerializedTRefs(const char* data, unsigned int length);

  // --- Task IDs and data-selection IDs ------------------------------------
  /// Adds a task-ID reference; 0 when added, 1 when already there. Throws as
  /// OwnTRef.
  int AddTaskID(unsigned long taskId);
  /// Adds the task only when @p isActive calls it active (else returns 9 and
  /// changes nothing), after removing the task IDs @p isActive calls
  /// inactive. Throws Cr_ErrnoException 65 "No task activity callback
  /// given." for a null callback; otherwise as OwnTRef.
  int AddTaskID(unsigned long taskId, task_activity_callback_t isActive, void* context);
  /// True when the record holds this task ID.
  bool HasTaskID(unsigned long taskId) const;
  /// Removes the task IDs @p isActive calls inactive, stamps mtime and
  /// returns how many went. Throws Cr_ErrnoException 65 for a null callback.
  unsigned long RemoveInactiveTaskIDs(task_activity_callback_t isActive, void* context);
  /// Removes every task-ID reference (RemoveAllTRefs).
  void RemoveAllTaskIDs();
  /// Adds a data-selection-ID reference; 0 when added, 1 when already
  /// there. Throws as OwnTRef.
  int AddDSID(unsigned int dsid);
  /// True when the record holds this data-selection ID.
  bool HasDSID(unsigned int dsid) const;
  /// Removes a data-selection-ID reference; returns the number removed.
  unsigned long DelDSID(unsigned int dsid);
  /// Loads the typed-reference section and turns old task-ID and DSID lists
  /// (host order) into typed references, cutting the lists out of the buffer.
  /// Throws Cr_ErrnoException 9 for a record with old lists in buffer mode
  /// 0, 71 for a record with both old lists and typed references, or what
  /// AddSerializedTRefs throws.
  void convertToTRefs();

  // --- Segments -------------------------------------------------------------
  // Indexes must be below nfp; they are not checked. Sizes, offsets and
  // object offsets come back in host order; all-ones for a DO type that does
  // not carry the field. Fingerprints and DCIDs are handed out as stored.

  /// The size of segment @p i: stored for DO types 2, 3 and 5, derived from
  /// size and ssize for types 0 and 1, 0xFFFFFFFF otherwise. Unchecked index.
  unsigned int GetSegmentSize(unsigned int i) const;
  /// The offset of segment @p i (DO type 3), else all-ones. Unchecked index.
  unsigned long GetSegmentOffset(unsigned int i) const;
  /// The object offset of segment @p i (DO type 5), else 0xFFFFFFFF.
  /// Unchecked index.
  unsigned int GetSegmentObjectOffset(unsigned int i) const;
  /// Field @p f of segment @p i as its getter above gives it (for walking
  /// the fields of FindDOTypeLayout). Unchecked index.
  unsigned long GetSegmentField(unsigned int i, crrecord::SegmentField f) const;
  /// The fingerprint bytes of segment @p i inside the buffer (16 or 32).
  /// Unchecked index.
  const unsigned char* GetSegmentFP(unsigned int i) const;
  /// The DCID of segment @p i, as stored. Unchecked index.
  unsigned long GetSegmentDCID(unsigned int i) const;
  /// The DCID array: nfp unaligned u64s inside the buffer.
  const unsigned char* GetSegmentDCIDList() const;
  /// The DCID of unique-DCID entry @p i, as stored. Unchecked index.
  unsigned long GetSegmentUDCID(unsigned int i) const;
  /// The start of the unique-DCID section inside the buffer.
  const unsigned char* GetSegmentUDCIDList() const;

  /// Sets the size of segment @p i (DO types 2, 3, 5; dropped otherwise) as
  /// given, in either byte order, and stamps mtime. Unchecked index.
  void SetSegmentSize(unsigned int i, unsigned int size);
  /// Sets the offset of segment @p i (DO type 3; dropped otherwise) as
  /// given and stamps mtime. Unchecked index.
  void SetSegmentOffset(unsigned int i, unsigned long offset);
  /// Sets the object offset of segment @p i (DO type 5; dropped otherwise)
  /// as given and stamps mtime. Unchecked index.
  void SetSegmentObjectOffset(unsigned int i, unsigned int offset);
  /// Copies the fingerprint (16 or 32 bytes by the record's type) into
  /// segment @p i. Unchecked index.
  void SetSegmentFP(unsigned int i, const crfp_digest_t& fp);
  /// Sets the DCID of segment @p i as given. Unchecked index.
  void SetSegmentDCID(unsigned int i, unsigned long dcid);

  /// Checks the segment sizes and offsets against the file size as the DO
  /// type requires. Throws Cr_ErrnoException 89 with a message naming the
  /// numbers ("Segment list of DORecord ... is corrupt. ..."), or 9 "invalid
  /// DO type" for DO type 255.
  void checkSegmentList() const;
  /// Throws Cr_ErrnoException 89 when a segment size has bit 31 set, the
  /// sign of a list in the wrong byte order; a sub-DO is not checked.
  void checkSegmentSizeEndiannes() const;
  /// Throws Cr_ErrnoException 89 when a segment offset has bit 63 set, the
  /// sign of a list in the wrong byte order.
  void checkSegmentOffsetEndiannes() const;

  // --- Digest, stream forms, equality ---------------------------------------
  /// A new digest object of the record (release with CRTDigestDelete): the
  /// fingerprint of a one-segment record, a digest of the segment list, or
  /// of the Bloom section; null when the record has none (DO type 0 with
  /// nfp other than 1). Throws Cr_ErrnoException 9 in network order, 22
  /// when memory runs out.
  cr_tdigest_t* GetDigest() const;
  /// Writes the record on @p os and returns @p os. Binary: the record bytes
  /// (typed-reference section written first) in host order, whatever order
  /// the object stands in; a network-order record is converted for the write
  /// and back afterwards, also when the stream throws. Text: one line without
  /// line end, laid out as TEXT_STREAM_FORMAT_DESCRIPTION says; throws
  /// Cr_ErrnoException 9 in network order.
  std::ostream& ToStream(std::ostream& os, bool binary) const;
  /// True when both stand in the same byte order and have equal type, flags,
  /// container ID, sizes, CRC, counts, types, references and segment lists
  /// (times and DCIDs are not compared).
  bool operator==(const DORecord& other) const;
  /// The negation of operator==.
  bool operator!=(const DORecord& other) const;

  // --- Serialization and byte order -----------------------------------------
  /// Writes the serialized DO record (big-endian; fingerprints as text; no
  /// references, times or flags) into a zero-filled buffer (calloc) stored
  /// in *@p out, its size in *@p outSize; the caller releases it with
  /// SerializedDORecordFree. With @p checksum the head holds the Adler-32 of
  /// the body, else the record's CRC. A DO type 4 record gives
  /// SerializeBloomFilterDO's result. Returns 0; 9 in network order
  /// (outputs untouched); 65 for a null output; the mapped status of a
  /// failed allocation (logged; *@p out null).
  cr_status_t Serialize(void** out, unsigned long* outSize, bool checksum) const;
  /// Writes the serialized Bloom DO record (bitmap and unique-DCID list,
  /// always with its Adler-32; @p checksum is not used), as Serialize does.
  /// Returns 9 for a record that is not of DO type 4 or is in network order.
  cr_status_t SerializeBloomFilterDO(void** out, unsigned long* outSize, bool checksum) const;
  /// The exact length in bytes of this record's serialized form: the
  /// serialized DO record, or for a DO type 4 record the serialized Bloom DO
  /// record. It is what Serialize allocates and what SerializeInto needs.
  /// 0 in network order.
  unsigned long GetSerializedSize() const;
  /// Writes the serialized form (the bytes Serialize gives, Bloom records
  /// included, with the same meaning of @p checksum) into the caller's
  /// @p buffer of @p length bytes and its length into *@p written. With a
  /// buffer reused from call to call, and the buffer constructor reading
  /// from one, records are exchanged with no allocation per call. Bytes of
  /// the buffer past the form are not touched. Returns 0; 122 when
  /// @p length is less than GetSerializedSize(), nothing written; 9 in
  /// network order; 65 for a null buffer or @p written.
  cr_status_t SerializeInto(void* buffer, unsigned long length, unsigned long* written,
                            bool checksum) const;
  /// Frees a buffer from Serialize and nulls the caller's pointer; does
  /// nothing when @p buffer or *@p buffer is null.
  static void SerializedDORecordFree(void** buffer);
  /// Converts the buffer in place to network order and remembers it; the
  /// accessors still give host values. Bit 0 of @p flags: remove every
  /// task-ID reference after the conversion. REQUIRES: host order.
  void HostToNetwork(unsigned int flags);
  /// Converts the buffer in place back to host order; bit 0 of @p flags as
  /// for HostToNetwork. REQUIRES: network order.
  void NetworkToHost(unsigned int flags);

  // --- Unique-DCID list and Bloom section -------------------------------------
  /// Computes the unique-DCID list from the segment list (sorted by DCID,
  /// with the bytes of the file in each container) and appends it as the
  /// record's unique-DCID section; for a Bloom DO record, turns its
  /// big-endian list into host order. Returns 0 (also for a record without
  /// segments, which stays as it is); 9 when the record has typed
  /// references ("%s: TRef size should be zero bytes.") or a DCID below 64
  /// ("%s: Invalid DCID %lu for SO %s at index %u."), both logged, the
  /// record unchanged; 22 when the buffer cannot grow.
  cr_status_t AppendBloomAndUniqueDCIDList();
  /// Byte-swaps the word at DORecordHeaderStartBFBitmap and reads a Bloom DO
  /// record's unique-DCID list into @p dcids (DCID to bytes), keeping what
  /// the map already held. The list is read in the order its mark says, and
  /// no further than the header's count of entries. Always returns 0.
  cr_status_t AppendBloom(std::map<unsigned long, unsigned long>& dcids);
  /// Fills @p sizes (cleared first) with the bytes the object occupies per
  /// container, the DO record itself charged to its own container. Returns
  /// 0; 32 ("%s: number of unique DCID can't be zero!", logged) without a
  /// unique-DCID list, the map untouched; 22 when memory runs out.
  cr_status_t GetUDCIDSizeList(std::map<unsigned long, unsigned long>& sizes) const;
  /// The bytes of the unique-DCID section: 0 without list, else
  /// 8 + 16 * nudcid.
  unsigned int GetUDCIDSize() const;
  /// Whether the unique-DCID list stands big-endian: only in a Bloom DO
  /// record rebuilt from the serialized Bloom form and not yet normalized
  /// (AppendBloomAndUniqueDCIDList); the Bloom section's reserved bytes tell
  /// (see the layout notes above). False without a list.
  bool UniqueDCIDListIsBigEndian() const;
  /// Entry @p i of the unique-DCID list as host values, in whichever byte
  /// order the list stands. Returns 0; 65 for a null pointer; 9 when @p i is
  /// not below nudcid; the outputs are then left as they were.
  cr_status_t GetUniqueDCIDEntry(unsigned int i, unsigned long* dcid,
                                 unsigned long* bytes) const;
  /// The unique-DCID list's checksum word (the Adler-32 of its count and
  /// entries as they stand) as a host value; 0 without a list.
  unsigned int GetUniqueDCIDChecksum() const;
  /// The Bloom bitmap inside the buffer (DORecordHeaderGetBloom).
  unsigned char* GetBloom() const;
  /// The Bloom section's length word inside the buffer
  /// (DORecordHeaderGetBloomStart).
  unsigned char* GetBloomStart() const;

 private:
  CRRECORD_LOCAL void init(unsigned long dcid, unsigned long size, unsigned long ssize,
                           unsigned int crc, unsigned int ctime, unsigned int mtime,
                           const unsigned long* taskIds, unsigned int taskIdCount,
                           const void* segments, unsigned int segmentCount,
                           const unsigned long* dcids, const char* uniqueDcids,
                           unsigned char fptype, unsigned char dotype);
  CRRECORD_LOCAL void initWithBloom(unsigned long dcid, unsigned long size, unsigned long ssize,
                                    unsigned int crc, unsigned int ctime, unsigned int mtime,
                                    const unsigned long* taskIds, unsigned int taskIdCount,
                                    unsigned int bitmapSize, const unsigned char* bitmap,
                                    const char* uniqueDcids, unsigned char fptype,
                                    unsigned char dotype);
  CRRECORD_LOCAL unsigned int headerSize() const;
  CRRECORD_LOCAL void writeTRefSection() const;

  crrecord::RecordBuffer<DORecordHeader> header_;  // with its size, mode and ownership
  mutable bool networkOrder_;  // the binary ToStream flips it while it runs
  bool subDO_;
  tref_set_t trefs_[CR_TREF_TYPE_END];
};

#endif  // CRRECORD_DORECORD_H
