// The executable's entry.
#include "platform/process.h"
#include "service/host/start_up.h"

int main(int argc, char** argv) {
  // Before anything else runs: what the platform needs, or shuts off, for the whole process. Where
  // that fails the service still does more good running than not.
  (void)platform::PrepareProcess();
  return stewardry::RunProcess(argc, argv);
}
