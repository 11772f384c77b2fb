// SORecord: the in-memory handle of one SO record, the description of one
// stored segment.
//
// The record is the fixed part of a _SegmentDBRecord (drawn in full in
// <crrecord/SOmarshall.h>) with no task IDs and no DO fingerprints, followed
// by the zero trailer: always 104 bytes.
//
//   off size field       order      SORecord accessors
//     0   2  type        record     2
//     2   2  flags       record     SetFlags/GetFlags: 0 or 2
//     4   4  recsize     record     104
//     8   4  unused      record     0
//    12   4  ntaskid     record     0
//    16   4  checktime   record     SetCheckTime/GetCheckTime
//    20   4  reserved1   as stored  0
//    24   8  DCID        record     SetDCID/GetDCID/GetPathID
//    32   8  fileID      record     GetFileID
//    40   8  size        record     SetSize/GetSize
//    48   4  CRC         record     SetCRC/GetCRC
//    52   4  ndo         record     0
//    56  33  key         as stored  SetKey/GetKey
//    89   1  fptype      as stored  SetFPType/GetFPType
//    90   1  cryptoMode  as stored  SetCryptoMode/GetCryptoMode
//    91   1  pad         as stored  0
//    92   2  keyIndex    as stored  SetKeyIndex/GetKeyIndex
//    94   2  reserved2   as stored  0
//    96   8  trailer     -          0
//
// "record" fields stand in the object's byte order: host order until
// HostToNetwork, network order until NetworkToHost. Their getters return
// host values and their setters take host values in either state; the
// "as stored" fields are the same bytes in both states.
//
// Ownership: the object allocates its buffer (malloc) and frees it when it
// goes. GetHeader hands out the buffer without giving it away. Copying is
// not allowed: a member-wise copy would give one buffer two owners.
#ifndef CRRECORD_SORECORD_H
#define CRRECORD_SORECORD_H

#include "crrecord/SOmarshall.h"
#include "crrecord/export.h"
#include "crrecord/platform/qorkey.h"

// Flags an SO record may carry: none, or this one.
enum : unsigned short { CR_SO_FLAGS_NONE = 0, CR_SO_FLAGS_NEW = 2 };

class CRRECORD_API SORecord {
 public:
  // Builds a host-order record of type 2 in a buffer of its own. The DCID
  // and size are widened to 64 bits. Throws Cr_ErrnoException 9 for flags
  // other than 0 or 2, a DCID other than 1 or at least 64, or an unknown
  // fingerprint type; 22 when the buffer cannot be allocated. A failed
  // construction leaves nothing allocated.
  SORecord(unsigned short flags, unsigned int dcid, unsigned int size, unsigned int crc,
           const QorKey& key, unsigned char cryptoMode, unsigned char fptype);
  virtual ~SORecord();
  SORecord(const SORecord&) = delete;
  SORecord& operator=(const SORecord&) = delete;

  // A setter that throws leaves the record unchanged.
  void SetFlags(unsigned short flags);  // 0 or 2, else throws 9
  unsigned short GetFlags() const;
  // 1 or at least 64, else throws 9; also sets the file ID to 0.
  void SetDCID(unsigned long dcid);
  unsigned long GetDCID() const;    // the DCID field when the file ID is 0, else 0
  unsigned long GetPathID() const;  // the same field, whatever the file ID
  unsigned long GetFileID() const;
  void SetSize(unsigned long size);
  unsigned long GetSize() const;
  void SetCRC(unsigned int crc);
  unsigned int GetCRC() const;
  void SetCheckTime(unsigned int checkTime);
  unsigned int GetCheckTime() const;
  // Throws 9 for a type CRFPTypeIsValid refuses; the record size stays.
  void SetFPType(unsigned char fptype);
  unsigned char GetFPType() const;
  void SetCryptoMode(unsigned char cryptoMode);
  unsigned char GetCryptoMode() const;
  // Stored and returned as given, in either byte order.
  void SetKeyIndex(unsigned short keyIndex);
  unsigned short GetKeyIndex() const;
  void SetKey(const QorKey& key);       // copies the key's first 33 bytes
  const unsigned char* GetKey() const;  // the 33 key bytes inside the record

  bool IsInNetworkOrder() const { return networkOrder_; }
  _SegmentDBRecord* GetHeader() const { return header_; }
  unsigned int GetHeaderSize() const { return CR_SO_RECORD_MIN_SIZE; }

  // Convert the record in place (SegmentRecordHton / SegmentRecordNtoh with
  // these flags); nothing happens when it already stands in that order.
  void HostToNetwork(unsigned int flags);
  void NetworkToHost(unsigned int flags);

  // Same buffer, or the same 104 bytes (whatever order each stands in).
  bool operator==(const SORecord& other) const;

 private:
  _SegmentDBRecord* header_;
  bool owned_;
  bool networkOrder_;
};

#endif  // CRRECORD_SORECORD_H
