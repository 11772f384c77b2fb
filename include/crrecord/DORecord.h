// The DO record: one per stored file.
//
// A DO record is one contiguous buffer: the fixed header DORecordHeader
// followed by sections whose presence and widths follow from the header's
// counts, its DO type and its fingerprint type. The same bytes are stored
// and sent; DORecord wraps such a buffer.
//
// Fixed header (80 bytes). Every multi-byte field is in the record's byte
// order (host, or network while the owner says so):
//
//   off size field      meaning
//     0   2  type       record type, 3
//     2   2  flags      only 0x0002 and 0x0004 may be set
//     4   4  recsize    bytes of the whole record, header and sections
//     8   4  reserved   zero; never read or written
//    12   4  checktime  check time (seconds)
//    16   8  CID        container ID of the record itself
//    24   8  size       file size in bytes
//    32   8  ssize      segment size in bytes
//    40   4  CRC        checksum supplied by the builder; never computed here
//    44   4  ctime      creation time (seconds since 1970, 32 bits)
//    48   4  mtime      modification time (seconds since 1970, 32 bits)
//    52   4  ntaskid    entries of the old task-ID list
//    56   4  nfp        segments; 0 in a Bloom DO record
//    60   4  nudcid     entries of the unique-DCID section
//    64   4  nds        entries of the old data-selection-ID list
//    68   4  trefsize   bytes of the typed-reference section
//    72   4  bsize      bytes of the Bloom bitmap (DO type 4 only)
//    76   1  fptype     fingerprint type
//    77   1  dotype     DO type
//    78   2  reserved   zero; pads the header to a multiple of 8
//
// Sections, with H = 80, W = fingerprint width (32 for fptype 3, else 16),
// X = per-segment fields after the fingerprint (0 for DO types 0 and 1,
// 4 for type 2, 12 for type 3, 8 for type 5, 0 for any other type),
// U = 8 + 16 * nudcid when nudcid > 0, else 0:
//
//   segment-list record:
//   | header H | old task IDs 8*ntaskid | old DSIDs 4*nds |
//   | segment list nfp*(W+X) | DCIDs nfp*8 | unique DCIDs U | typed refs trefsize |
//
//   Bloom DO record (DO type 4):
//   | header H | old task IDs | old DSIDs | length word 4 | bitmap bsize |
//   | 16 reserved bytes | unique DCIDs U | typed refs trefsize |
//
// Choices this format makes:
// - No padding between sections: segment entries, DCIDs and unique-DCID
//   entries may be unaligned, and every access goes through memcpy.
// - The old lists lie directly behind the header, the task IDs first; the
//   task IDs' place depends on no count and the DSIDs' place on ntaskid
//   alone, so both can be cut out of the buffer in turn (convertToTRefs).
// - In a Bloom DO record the 16 reserved bytes come before the unique-DCID
//   section, so that the typed-reference section starts right after that
//   section in both layouts and the digest span (length word, bitmap, 16
//   bytes, unique DCIDs) is contiguous.
// - DORecordHeaderHton/Ntoh convert the header (but its reserved words), the
//   per-segment sizes, offsets and object offsets, and the old task-ID and
//   DSID lists. They leave fingerprints, per-segment DCIDs, the unique-DCID
//   section, the whole Bloom section and the typed-reference section as they
//   are: the DCID getters hand out stored bytes, so they read the same in
//   both orders.
// - The Bloom section's length word doubles as the byte-order mark of a Bloom
//   record's unique-DCID list: a record built from a bitmap holds both in
//   host order; a record rebuilt from the serialized Bloom form holds both
//   big-endian, as they travelled, until AppendBloomAndUniqueDCIDList turns
//   them to host order. DORecordHeaderStartBFBitmap designates that word.
//
// Unique-DCID section (all fields host order when built by this library):
//   off 0 u32 Adler-32 of the next 4 + 16*n bytes | off 4 u32 n |
//   off 8+16i u64 DCID i | off 16+16i u64 bytes of the file in that container
#ifndef CRRECORD_DORECORD_H
#define CRRECORD_DORECORD_H

#include <cstddef>
#include <iosfwd>
#include <iterator>
#include <map>
#include <set>
#include <string>

#include <boost/intrusive_ptr.hpp>

#include "crrecord/Status.h"
#include "crrecord/export.h"
#include "crrecord/platform/fingerprint.h"
#include "crrecord/platform/tref.h"

// DO types.
enum : unsigned char {
  CR_DO_TYPE_ORIGINAL = 0,
  CR_DO_TYPE_NO_SIZE = 1,
  CR_DO_TYPE_NO_OFFSET = 2,
  CR_DO_TYPE_8_BYTE_OFFSET = 3,
  CR_DO_TYPE_BLOOM_FILTER = 4,
  CR_DO_TYPE_4_BYTE_OFFSET = 5,
  CR_DO_TYPE_INVALID = 255,
};

struct DORecordHeader {
  unsigned short type;         // record type, 3
  unsigned short flags;        // 0x0002 | 0x0004 at most
  unsigned int recsize;        // bytes of the whole record
  unsigned int reserved;       // zero
  unsigned int checktime;      // seconds
  unsigned long CID;           // container ID of the record
  unsigned long size;          // file size, bytes
  unsigned long ssize;         // segment size, bytes
  unsigned int CRC;            // builder's checksum
  unsigned int ctime;          // seconds since 1970
  unsigned int mtime;          // seconds since 1970
  unsigned int ntaskid;        // old task-ID list entries
  unsigned int nfp;            // segments
  unsigned int nudcid;         // unique-DCID entries
  unsigned int nds;            // old DSID list entries
  unsigned int trefsize;       // typed-reference section bytes
  unsigned int bsize;          // Bloom bitmap bytes
  unsigned char fptype;        // fingerprint type
  unsigned char dotype;        // DO type
  unsigned char reserved2[2];  // zero
};

// Flags that may be set in a DO record.
enum : unsigned short { CR_DO_FLAGS_ALLOWED = 0x0006, CR_DO_FLAGS_NEW = 0x0002 };

// ---------------------------------------------------------------------------
// Header operations. The size functions take counts; every other operation
// takes a record buffer and trusts its counts ("assumes a validated buffer"):
// locators do not check indexes and find the same place in either byte order.

// Bytes of a record with these counts (count is nfp, or bsize for DO type 4).
CRRECORD_API unsigned long DORecordHeaderSizeRaw(unsigned int ntaskid, unsigned int count,
                                                 unsigned int nudcid, unsigned int nds,
                                                 unsigned char dotype, unsigned char fptype,
                                                 unsigned int trefsize);
// Bytes of a Bloom DO record; equals DORecordHeaderSizeRaw for DO type 4.
CRRECORD_API unsigned long DORecordHeaderSizeWithBloom(unsigned int ntaskid, unsigned int bsize,
                                                       unsigned int nudcid, unsigned int nds,
                                                       unsigned char dotype,
                                                       unsigned int trefsize);

CRRECORD_API unsigned char* DORecordHeaderIndexOfSegment(const DORecordHeader* h, unsigned int i);
CRRECORD_API unsigned char* DORecordHeaderIndexOfSegmentSize(const DORecordHeader* h,
                                                             unsigned int i);
CRRECORD_API unsigned char* DORecordHeaderIndexOfSegmentOffset(const DORecordHeader* h,
                                                               unsigned int i);
CRRECORD_API unsigned char* DORecordHeaderIndexOfSegmentObjectOffset(const DORecordHeader* h,
                                                                     unsigned int i);
// i may be nfp: the first byte after the DCID array.
CRRECORD_API unsigned char* DORecordHeaderIndexOfDCID(const DORecordHeader* h, unsigned int i);
CRRECORD_API unsigned char* DORecordHeaderStartUDCID(const DORecordHeader* h);
CRRECORD_API unsigned char* DORecordHeaderIndexOfUDCID(const DORecordHeader* h, unsigned int i);
CRRECORD_API unsigned char* DORecordHeaderStartTRefs(const DORecordHeader* h);
CRRECORD_API unsigned char* DORecordHeaderIndexOfTaskId(const DORecordHeader* h, unsigned int i);
CRRECORD_API unsigned char* DORecordHeaderIndexOfDataSelection(const DORecordHeader* h,
                                                               unsigned int i);
// The Bloom section's length word; the bitmap follows 4 bytes later.
CRRECORD_API unsigned char* DORecordHeaderGetBloomStart(const DORecordHeader* h);
// The Bloom bitmap's first byte.
CRRECORD_API unsigned char* DORecordHeaderGetBloom(const DORecordHeader* h);
// The Bloom section's length word, which marks the byte order of a Bloom
// record's unique-DCID list (see the layout notes above).
CRRECORD_API unsigned char* DORecordHeaderStartBFBitmap(const DORecordHeader* h);
// The record's own identity: its container ID field.
CRRECORD_API unsigned char* DORecordHeaderGetPOID(const DORecordHeader* h);

// Validation flags.
enum : unsigned int {
  CR_DO_VALIDATE_NETWORK_ORDER = 1,  // the record is in network order
};
// Checks a record of `length` bytes read from outside: length at least the
// header, type 3, allowed flags, recsize equal to length, valid fingerprint
// and DO types, and a size that matches the counts. Returns 0, 9 for a null
// record or unknown flag bits, or 32 with a trace line naming the check.
CRRECORD_API cr_status_t DORecordHeaderValidate(const DORecordHeader* h, unsigned int length,
                                                unsigned int flags);
// In-place conversion to network and to host order; Ntoh undoes Hton.
CRRECORD_API void DORecordHeaderHton(DORecordHeader* h);
CRRECORD_API void DORecordHeaderNtoh(DORecordHeader* h);

// Adler-32 (RFC 1950) of `length` bytes, started at 1.
CRRECORD_API unsigned int DORecordAdler32(const void* data, size_t length);

// Builds a host-order record from a serialized DO record or serialized Bloom
// DO record. With *header null it allocates the buffer (malloc; the owner
// frees it with free) and stores it and its size; otherwise it builds in the
// caller's buffer of *allocatedSize bytes. The head's checksum field is
// stored as CRC, unverified: the form does not say whether it holds the
// record's CRC or an Adler-32 of the body (see DORecordSerializedHasAdler32).
// Returns 0; 65 for a null argument, 113 / 111 for a DO / fingerprint type
// that is refused, 120 for input shorter than its counts say, 121 for
// malformed input (wrong length, bad fingerprint text, nonzero padding, bad
// unique-DCID checksum), 122 for a caller buffer that is too small, 9 for a
// caller buffer not aligned to 8 bytes (the header is accessed as a struct),
// 22 when memory runs out. On failure nothing of its own stays allocated and
// *header and *allocatedSize are unchanged; a caller's buffer may hold a
// partly written record. The record gets flags 0, CID 0, checktime 0 and the
// current time as ctime and mtime; its caller completes the header.
CRRECORD_API cr_status_t DORecordHeaderDeserialize(DORecordHeader** header,
                                                   unsigned long* allocatedSize, const void* data,
                                                   unsigned long length, unsigned char dotype,
                                                   unsigned char fptype);
// True when the head of the serialized record (either form) holds the
// Adler-32 of its body, as it does when the sender asked for a checksum (and
// always in the Bloom form). False for input shorter than the head.
CRRECORD_API bool DORecordSerializedHasAdler32(const void* data, unsigned long length);

// ---------------------------------------------------------------------------
// Typed reference objects. A Cr_TRef wraps one raw reference, is counted by
// boost::intrusive_ptr (not atomically: one thread at a time per object) and
// lives in the process-wide TRef pool of 16-byte chunks.

class CRRECORD_API Cr_TRef {
 public:
  explicit Cr_TRef(unsigned long taskId);  // task-ID kind (2)
  explicit Cr_TRef(unsigned int dsid);     // data-selection kind (4)
  explicit Cr_TRef(_cr_tref_t* ref);       // takes the raw reference over
  ~Cr_TRef();
  Cr_TRef(const Cr_TRef&) = delete;
  Cr_TRef& operator=(const Cr_TRef&) = delete;

  // A new object (count 0) holding a copy of ref, which stays the caller's.
  // Throws std::bad_alloc; never returns null.
  static Cr_TRef* Factory(const _cr_tref_t* ref);
  _cr_tref_t* Get() const { return ref_; }
  unsigned long UseCount() const { return count_; }

  static void* operator new(size_t size);
  static void operator delete(void* p);

 private:
  friend void intrusive_ptr_add_ref(Cr_TRef* p);
  friend void intrusive_ptr_release(Cr_TRef* p);
  _cr_tref_t* ref_;
  unsigned long count_;
};

CRRECORD_API void intrusive_ptr_add_ref(Cr_TRef* p);
CRRECORD_API void intrusive_ptr_release(Cr_TRef* p);

// Orders references by CRTRefCompare.
struct CRRECORD_API Cr_TRefComparator {
  bool operator()(const boost::intrusive_ptr<Cr_TRef>& a,
                  const boost::intrusive_ptr<Cr_TRef>& b) const;
};

// Names the TRef pool (boost::singleton_pool).
struct Cr_TRef_Pool_Tag {};

// ---------------------------------------------------------------------------
// DORecord: the in-memory handle of one DO record.
//
// Ownership. The object points at a record buffer of a known allocated size.
// It frees the buffer only when it owns it: it allocated it, took it over
// (buffer mode 2 of the stored-record constructor), or had to copy or grow
// it. A caller's buffer stays the caller's and, once the object has copied
// it, is left untouched. Buffer modes say what the object may do when the
// buffer must grow: 0 nothing, 1 copy it into a buffer of its own, 2 realloc.
//
// The eleven reference sets are the truth about references while the object
// lives; the typed-reference section in the buffer is written from them only
// by GetHeader, GetSerializedTRefs, the binary ToStream and the unique-DCID
// operations. A record is used by one thread at a time: even GetHeader and the
// binary ToStream, though const, write into the buffer.
//
// Copying is not allowed: a member-wise copy would give one buffer two owners.
class CRRECORD_API DORecord {
 public:
  typedef std::set<boost::intrusive_ptr<Cr_TRef>, Cr_TRefComparator> tref_set_t;
  typedef int (*task_activity_callback_t)(unsigned long taskId, void* context);

  // Read-only walk over the references of kinds 1 to 10 (kind 0 is never
  // visited), kind by kind, each kind in CRTRefCompare order.
  class CRRECORD_API tref_const_iterator_t {
   public:
    typedef std::forward_iterator_tag iterator_category;
    typedef boost::intrusive_ptr<Cr_TRef> value_type;
    typedef std::ptrdiff_t difference_type;
    typedef const value_type* pointer;
    typedef const value_type& reference;

    tref_const_iterator_t();
    tref_const_iterator_t(const DORecord* record, cr_reftype_t kind,
                          tref_set_t::const_iterator position);

    const boost::intrusive_ptr<Cr_TRef>& dereference() const;
    bool equal(const tref_const_iterator_t& other) const;
    void increment();

    reference operator*() const { return dereference(); }
    pointer operator->() const { return &dereference(); }
    tref_const_iterator_t& operator++() {
      increment();
      return *this;
    }
    tref_const_iterator_t operator++(int) {
      tref_const_iterator_t old = *this;
      increment();
      return old;
    }
    bool operator==(const tref_const_iterator_t& other) const { return equal(other); }
    bool operator!=(const tref_const_iterator_t& other) const { return !equal(other); }

   private:
    const DORecord* record_;
    cr_reftype_t kind_;
    tref_set_t::const_iterator position_;
  };

  // "type,formatversion,flags,...": the layout of the text form.
  static const std::string TEXT_STREAM_FORMAT_DESCRIPTION;

  // Builds a record from a segment list: segmentCount entries in the
  // interleaved layout (fingerprint, then the DO type's size/offset fields),
  // one DCID per segment, an optional unique-DCID block laid out like the
  // section. Input is host order and copied. Times of 0 mean "now".
  // Throws Cr_ErrnoException (9, 22, 89, 111, 113) and leaves nothing behind.
  DORecord(unsigned long dcid, unsigned long size, unsigned long ssize, unsigned int crc,
           unsigned int ctime, unsigned int mtime, const void* segments,
           unsigned int segmentCount, const unsigned long* dcids, const char* uniqueDcids,
           unsigned char fptype, unsigned char dotype);

  // Builds a Bloom DO record (DO type 4) from a caller's bitmap and an
  // optional unique-DCID block.
  DORecord(unsigned long dcid, unsigned long size, unsigned long ssize, unsigned int crc,
           unsigned int ctime, unsigned int mtime, unsigned int bitmapSize,
           const unsigned char* bitmap, const char* uniqueDcids, unsigned char fptype,
           unsigned char dotype);

  // Rebuilds a record from a serialized DO record of dataLength bytes, in the
  // caller's buffer (which stays the caller's; mode 1) or, when buffer is
  // null, in one of its own (mode 2). flags, dcid and fptype complete the
  // header; a sub-DO takes the DCID of its first segment as CID (one without
  // segments keeps dcid). A caller's buffer must be aligned to 8 bytes.
  // Throws Cr_ErrnoException with the status of DORecordHeaderDeserialize
  // (no message), 9 "invalid fptype for DO", or that of checkSegmentList,
  // and leaves no buffer of its own behind.
  DORecord(unsigned int dotype, unsigned short flags, unsigned long dcid, unsigned char fptype,
           void* buffer, unsigned long bufferSize, const void* data, unsigned long dataLength,
           bool subDO);

  // Opens a stored record: the host-order buffer that GetHeader handed out,
  // of allocatedSize bytes. The record must fit the buffer and pass
  // DORecordHeaderValidate; otherwise Cr_ErrnoException with the validation's
  // status (32 when recsize exceeds allocatedSize) and the buffer is left as
  // it was, still the caller's. bufferMode: 0 the buffer may neither be copied
  // nor grown, 1 it is copied when it must grow, 2 the object takes it over
  // (frees it with free, may realloc it). The stored typed references and any
  // old task-ID and DSID lists are loaded into the sets (convertToTRefs).
  // The buffer must be 8-byte aligned (the header is accessed as a struct),
  // else 9; a null record gives 65, a bufferMode above 2 gives 9.
  // On any failure the caller's buffer holds its old bytes and stays the
  // caller's, also in mode 2: the object takes it over only once the
  // references are loaded. A record without old lists is loaded in place
  // (its header is put back if loading fails); a record with old lists is
  // converted on a copy of the object's own in modes 1 and 2 (in mode 2 the
  // caller's buffer is then freed, in mode 1 left untouched), and refused
  // with 9 in mode 0.
  DORecord(DORecordHeader* record, unsigned long allocatedSize, unsigned int bufferMode);

  virtual ~DORecord();
  DORecord(const DORecord&) = delete;
  DORecord& operator=(const DORecord&) = delete;

  // --- Buffer and sizes ---------------------------------------------------
  // Grows the buffer to at least `needed` bytes, in whole pages. Throws 9 in
  // buffer mode 0, 22 when memory runs out (the old buffer stays valid).
  void expand(unsigned int needed);
  void expand();  // to recsize
  unsigned int getRecSize() const;
  unsigned int GetHeaderSize() const;  // recsize: the whole record
  // Throws 9 "invalid record size for DO" below the header size.
  void setRecSize(unsigned int size);
  unsigned int calcRecSize() const;
  unsigned int getTRefsSize() const;
  void setTRefsSize(unsigned int size);
  unsigned long GetDOSize() const;  // recsize minus the header size
  void initReferenceSets();
  void handleUpdate();  // stamps mtime
  unsigned long GetAllocatedSize() const { return allocatedSize_; }
  unsigned int GetBufferMode() const { return bufferMode_; }
  bool OwnsBuffer() const { return ownsBuffer_; }

  // --- Header fields (host values in either byte order) --------------------
  unsigned short GetFlags() const;
  unsigned int GetCheckTime() const;
  unsigned long GetDCID() const;
  unsigned long GetSize() const;
  unsigned long GetSsize() const;
  unsigned int GetCrc() const;
  unsigned int GetCTime() const;
  unsigned int GetMTime() const;
  unsigned int GetNfp() const;
  unsigned int GetNudcid() const;
  unsigned int GetBSize() const;
  unsigned char GetFPType() const;
  unsigned char GetDOType() const;
  unsigned char* GetPOID() const;

  void setCheckTime(unsigned int t);
  void SetCheckTime(unsigned int t);
  void setDCID(unsigned long dcid);
  void SetDCID(unsigned long dcid);  // stamps mtime
  void setFPType(unsigned char fptype);  // throws 9 for an unknown type
  void SetFPType(unsigned char fptype);  // no check; stamps mtime
  void setFlags(unsigned short flags);   // logs and keeps the old flags when invalid
  void SetFlags(unsigned short flags);   // logs when invalid, stores anyway; stamps mtime

  bool IsInNetworkOrder() const { return networkOrder_; }
  void SetSubDO(bool subDO) { subDO_ = subDO; }
  bool IsSubDO() const { return subDO_; }

  // Writes the typed-reference section from the sets and returns the buffer.
  DORecordHeader* GetHeader() const;
  static cr_status_t ValidateHeader(const void* h, unsigned int length, unsigned int flags);
  void checkInvariants() const {}

  // --- Typed references -----------------------------------------------------
  unsigned int GetNTRefs() const;
  unsigned long GetNTRefs(cr_reftype_t kind) const;
  unsigned int GetNtaskid() const;
  unsigned int GetNds() const;
  tref_set_t::const_iterator GetTRefTypeBegin(cr_reftype_t kind) const;
  tref_set_t::const_iterator GetTRefTypeEnd(cr_reftype_t kind) const;
  tref_const_iterator_t GetTRefBegin() const;
  tref_const_iterator_t GetTRefEnd() const;

  // 0 when added, 1 when an equal reference was already there. Kinds other
  // than 2, 4, 6 and 9 are refused with Cr_ErrnoException 9.
  int OwnTRef(boost::intrusive_ptr<Cr_TRef> ref);
  // Takes the raw reference over in every outcome but std::bad_alloc.
  int OwnTRef(_cr_tref_t& ref);
  int AddTRef(const _cr_tref_t& ref);  // stores a copy
  int AddTRef(boost::intrusive_ptr<Cr_TRef> ref);  // stores a copy; 9 on null
  // 0 when present (or kind 7 / above 11), 72 when absent.
  cr_status_t CheckTRef(boost::intrusive_ptr<Cr_TRef> ref);
  cr_status_t CheckTRef(const _cr_tref_t* ref);
  unsigned long DelTRef(boost::intrusive_ptr<Cr_TRef> ref);
  unsigned long DelTRef(const _cr_tref_t* ref);
  void ClearTRefType(cr_reftype_t kind);
  void RemoveAllTRefs();  // every task-ID reference
  unsigned long calcTRefsSize() const;
  unsigned long GetTRefTypeTotalSize(cr_reftype_t kind) const;
  unsigned char* GetSerializedTRefs() const;
  unsigned int GetSerializedTRefsSize() const;
  // Loads a typed-reference section of `length` bytes into the sets.
  void AddSerializedTRefs(const char* data, unsigned int length);

  // --- Task IDs and data-selection IDs ------------------------------------
  int AddTaskID(unsigned long taskId);
  // Adds the task only when the callback calls it active (else returns 9),
  // after removing the task IDs the callback calls inactive.
  int AddTaskID(unsigned long taskId, task_activity_callback_t isActive, void* context);
  bool HasTaskID(unsigned long taskId) const;
  unsigned long RemoveInactiveTaskIDs(task_activity_callback_t isActive, void* context);
  void RemoveAllTaskIDs();
  int AddDSID(unsigned int dsid);
  bool HasDSID(unsigned int dsid) const;
  unsigned long DelDSID(unsigned int dsid);
  // Loads the typed-reference section and turns old task-ID and DSID lists
  // (host order) into typed references, cutting the lists out of the buffer.
  void convertToTRefs();

  // --- Segments -------------------------------------------------------------
  // Indexes must be below nfp; they are not checked. Sizes, offsets and
  // object offsets come back in host order; all-ones for a DO type that does
  // not carry the field. Fingerprints and DCIDs are handed out as stored.
  unsigned int GetSegmentSize(unsigned int i) const;
  unsigned long GetSegmentOffset(unsigned int i) const;
  unsigned int GetSegmentObjectOffset(unsigned int i) const;
  const unsigned char* GetSegmentFP(unsigned int i) const;
  unsigned long GetSegmentDCID(unsigned int i) const;
  const unsigned char* GetSegmentDCIDList() const;  // nfp unaligned u64s
  unsigned long GetSegmentUDCID(unsigned int i) const;
  const unsigned char* GetSegmentUDCIDList() const;

  // Setters store the value as given, in either byte order.
  void SetSegmentSize(unsigned int i, unsigned int size);  // DO types 2, 3, 5; stamps mtime
  void SetSegmentOffset(unsigned int i, unsigned long offset);  // DO type 3; stamps mtime
  void SetSegmentObjectOffset(unsigned int i, unsigned int offset);  // DO type 5; stamps mtime
  void SetSegmentFP(unsigned int i, const crfp_digest_t& fp);
  void SetSegmentDCID(unsigned int i, unsigned long dcid);

  // Throw Cr_ErrnoException 89 (9 for DO type 255) when the list is unsound.
  void checkSegmentList() const;
  void checkSegmentSizeEndiannes() const;
  void checkSegmentOffsetEndiannes() const;

  // --- Digest, stream forms, equality ---------------------------------------
  // A new digest object (release with CRTDigestDelete), or null when the
  // record has none (DO type 0 with nfp other than 1).
  cr_tdigest_t* GetDigest() const;
  std::ostream& ToStream(std::ostream& os, bool binary) const;
  bool operator==(const DORecord& other) const;
  bool operator!=(const DORecord& other) const;

  // --- Serialization and byte order -----------------------------------------
  // The serialized form in a calloc'ed buffer the caller releases with
  // SerializedDORecordFree. Returns 0, 9 in network order, or the status of
  // a failed allocation.
  cr_status_t Serialize(void** out, unsigned long* outSize, bool checksum) const;
  cr_status_t SerializeBloomFilterDO(void** out, unsigned long* outSize, bool checksum) const;
  static void SerializedDORecordFree(void** buffer);
  // Bit 0 of flags: remove every task-ID reference after the conversion.
  void HostToNetwork(unsigned int flags);
  void NetworkToHost(unsigned int flags);

  // --- Unique-DCID list and Bloom section -------------------------------------
  cr_status_t AppendBloomAndUniqueDCIDList();  // 0, 9 or 22
  cr_status_t AppendBloom(std::map<unsigned long, unsigned long>& dcids);
  cr_status_t GetUDCIDSizeList(std::map<unsigned long, unsigned long>& sizes) const;
  unsigned int GetUDCIDSize() const;
  unsigned char* GetBloom() const;
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
  CRRECORD_LOCAL void cleanupConstruction();
  CRRECORD_LOCAL unsigned int headerSize() const;
  CRRECORD_LOCAL void writeTRefSection() const;

  DORecordHeader* header_;
  unsigned long allocatedSize_;
  mutable bool networkOrder_;  // the binary ToStream flips it while it runs
  bool ownsBuffer_;
  bool subDO_;
  unsigned int bufferMode_;
  tref_set_t trefs_[CR_TREF_TYPE_END];
};

#endif  // CRRECORD_DORECORD_H
