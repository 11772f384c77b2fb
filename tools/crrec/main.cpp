// crrec: builds DO records from files and shows, verifies and converts
// records. The commands live in cli.cpp, where the tests reach them.
#include <iostream>
#include <string>
#include <vector>

#include "cli.h"

int main(int argc, char** argv) {
  std::vector<std::string> args(argv, argv + argc);
  return crrec::Run(args, std::cout, std::cerr);
}
