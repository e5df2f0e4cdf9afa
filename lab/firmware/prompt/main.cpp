// orrin, the firmware simulator: the far end of the mailbox, on the lab link.
#include <unistd.h>

#include <cstdio>

#include "lab/firmware/prompt/simulator.h"

int main(int count, char** words) {
  orrin::SimulatorOptions options;
  if (!orrin::ReadOptions(count, words, &options)) {
    std::fputs("usage: orrin [--socket NAME | --tcp PORT] [--script FILE]\n", stderr);
    return 2;
  }
  return orrin::Simulator(STDIN_FILENO, STDOUT_FILENO).Run(options);
}
