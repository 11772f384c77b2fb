/// @file
/// SORecord: the in-memory handle of one SO record, the description of one
/// stored segment.
///
/// The record is the fixed part of a _SegmentDBRecord (drawn in full in
/// <crrecord/SOmarshall.h>) with no task IDs and no DO fingerprints, followed
/// by the zero trailer: always 104 bytes.
///
/// @code{.unparsed}
///   off size field       order      SORecord accessors
///     0   2  type        record     2
///     2   2  flags       record     SetFlags/GetFlags: 0 or 2
///     4   4  recsize     record     104
///     8   4  unused      record     0
///    12   4  ntaskid     record     0
///    16   4  checktime   record     SetCheckTime/GetCheckTime
///    20   4  reserved1   as stored  0
///    24   8  DCID        record     SetDCID/GetDCID/GetPathID
///    32   8  fileID      record     GetFileID
///    40   8  size        record     SetSize/GetSize
///    48   4  CRC         record     SetCRC/GetCRC
///    52   4  ndo         record     0
///    56  33  key         as stored  SetKey/GetKey
///    89   1  fptype      as stored  SetFPType/GetFPType
///    90   1  cryptoMode  as stored  SetCryptoMode/GetCryptoMode
///    91   1  pad         as stored  0
///    92   2  keyIndex    as stored  SetKeyIndex/GetKeyIndex
///    94   2  reserved2   as stored  0
///    96   8  trailer     -          0
/// @endcode
///
/// "record" fields stand in the object's byte order: host order until
/// HostToNetwork, network order until NetworkToHost. Their getters return
/// host values and their setters take host values in either state; the
/// "as stored" fields are the same bytes in both states.
///
/// Ownership: the object allocates its buffer (malloc) and frees it when it
/// goes. GetHeader hands out the buffer without giving it away. Copying is
/// not allowed: a member-wise copy would give one buffer two owners.
#ifndef CRRECORD_SORECORD_H
#define CRRECORD_SORECORD_H

#include "crrecord/RecordBuffer.h"
#include "crrecord/SOmarshall.h"
#include "crrecord/export.h"
#include "crrecord/platform/qorkey.h"

/// Flags an SO record may carry: none, or this one.
enum : unsigned short {
  CR_SO_FLAGS_NONE = 0,  ///< no flag
  CR_SO_FLAGS_NEW = 2    ///< the one flag an SO record may carry
};

/// The in-memory handle of one SO record: a 104-byte _SegmentDBRecord in a
/// buffer of its own, with typed access to every field in either byte order.
/// Used by one thread at a time.
class CRRECORD_API SORecord {
 public:
  /// Builds a host-order record of type 2 in a buffer of its own. The DCID
  /// and size are widened to 64 bits; the file ID, check time, key index and
  /// counts start at 0. Throws Cr_ErrnoException 9 (no message) for flags
  /// other than 0 or 2, a DCID other than 1 or at least 64, or an unknown
  /// fingerprint type; 22 with "SORecord: memory allocation of 104 bytes
  /// failed!" when the buffer cannot be allocated. A failed construction
  /// leaves nothing allocated.
  SORecord(unsigned short flags, unsigned int dcid, unsigned int size, unsigned int crc,
           const QorKey& key, unsigned char cryptoMode, unsigned char fptype);
  /// Frees the buffer.
  virtual ~SORecord();
  SORecord(const SORecord&) = delete;             ///< not copyable: one owner per buffer
  SORecord& operator=(const SORecord&) = delete;  ///< not assignable

  /// Sets the flags: 0 or 2, else throws Cr_ErrnoException 9 and leaves the
  /// record unchanged.
  void SetFlags(unsigned short flags);
  /// The flags, as a host value.
  unsigned short GetFlags() const;
  /// Sets the container ID: 1 or at least 64, else throws Cr_ErrnoException
  /// 9 and leaves the record unchanged; also sets the file ID to 0.
  void SetDCID(unsigned long dcid);
  /// The DCID field when the file ID is 0, else 0.
  unsigned long GetDCID() const;
  /// The DCID field (the path ID of a segment in a file), whatever the file ID.
  unsigned long GetPathID() const;
  /// The file ID; 0 for a segment stored in a container.
  unsigned long GetFileID() const;
  /// Sets the segment size in bytes.
  void SetSize(unsigned long size);
  /// The segment size in bytes.
  unsigned long GetSize() const;
  /// Sets the segment's CRC.
  void SetCRC(unsigned int crc);
  /// The segment's CRC.
  unsigned int GetCRC() const;
  /// Sets the check time (seconds).
  void SetCheckTime(unsigned int checkTime);
  /// The check time (seconds).
  unsigned int GetCheckTime() const;
  /// Sets the fingerprint type; throws Cr_ErrnoException 9 for a type
  /// CRFPTypeIsValid refuses. The record size stays.
  void SetFPType(unsigned char fptype);
  /// The fingerprint type.
  unsigned char GetFPType() const;
  /// Sets the crypto mode, unchecked.
  void SetCryptoMode(unsigned char cryptoMode);
  /// The crypto mode.
  unsigned char GetCryptoMode() const;
  /// Sets the key index; stored as given, in either byte order.
  void SetKeyIndex(unsigned short keyIndex);
  /// The key index, returned as stored, in either byte order.
  unsigned short GetKeyIndex() const;
  /// Copies the key's first 33 bytes (key and key type) into the record.
  void SetKey(const QorKey& key);
  /// The 33 key bytes inside the record; valid while the object lives.
  const unsigned char* GetKey() const;

  /// True between HostToNetwork and NetworkToHost.
  bool IsInNetworkOrder() const { return networkOrder_; }
  /// The record buffer (104 bytes, in the object's byte order); the object
  /// keeps ownership, so the pointer is valid while the object lives.
  _SegmentDBRecord* GetHeader() const { return header_.get(); }
  /// Always 104, the bytes of the record.
  unsigned int GetHeaderSize() const { return CR_SO_RECORD_MIN_SIZE; }

  /// Converts the record in place to network order (SegmentRecordHton with
  /// these flags); nothing happens when it is already in network order.
  void HostToNetwork(unsigned int flags);
  /// Converts the record in place to host order (SegmentRecordNtoh with
  /// these flags); nothing happens when it is already in host order.
  void NetworkToHost(unsigned int flags);

  /// True for the same buffer, or the same 104 bytes (whatever order each
  /// stands in).
  bool operator==(const SORecord& other) const;

 private:
  crrecord::RecordBuffer<_SegmentDBRecord> header_;  // always the object's own
  bool networkOrder_;
};

#endif  // CRRECORD_SORECORD_H
