#include "platform/process.h"
#include "service/host/start_up.h"

int main(int argc, char** argv) {
  // Before anything else: it sets what the platform needs for the whole process. After a failure
  // the service still runs.
  (void)platform::PrepareProcess();
  return stewardry::RunProcess(argc, argv);
}
