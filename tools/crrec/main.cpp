// crrec: builds DO records from files and shows, verifies and converts
// records. The command line lives in cli.cpp and the commands in
// commands.cpp, where the tests reach them.
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "cli.h"
#include "util.h"

int main(int argc, char** argv) {
  std::vector<std::string> args(argv, argv + argc);
  int code = 0;
  {
    // Standard output through a buffer that keeps the reason of a failed
    // write; Run reports it.
    crrec::FdOutput buffer(1);
    std::ostream out(&buffer);
    code = crrec::Run(args, out, std::cerr);
  }
  // A descriptor on a file system that reports write errors only when the
  // file is closed (NFS) still fails the command.
  if (::close(1) != 0 && errno != EBADF && code == crrec::kExitOk) {
    std::cerr << "crrec: standard output: " << std::strerror(errno) << "\n";
    code = crrec::kExitUnsound;
  }
  return code;
}
