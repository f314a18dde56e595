#include "host/cli/program.h"

int main(int argc, char** argv) {
  return zym::runProgram(argc, argv);
}
