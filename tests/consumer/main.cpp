// A user of the installed package: builds a record and prints its size.
#include <crrecord/crrecord.h>

#include <cstdio>

int main() {
  unsigned char fp[16] = {1, 2, 3};
  const unsigned long dcid = 64;
  DORecord record(100, 10, 4096, 0, 1, 1, fp, 1, &dcid, nullptr, 1, 1);
  std::printf("record of %u bytes\n", record.GetHeaderSize());
  return record.GetHeaderSize() == 80 + 24 ? 0 : 1;
}
