#include "platform/settings.h"

#include <fstream>
#include <string>

#include "platform/linux/lab/lab_folder.h"
#include "platform/linux/runtime/gate.h"

namespace platform {

std::uint32_t ReadSetting(const char* service, const char* name, std::uint32_t fallback) {
  if (gate::Fails("RegGetValueA", "%s %s", service, name)) return fallback;
  std::ifstream file(LabPath(std::string("settings/") + name));
  std::uint32_t value = 0;
  return file >> value ? value : fallback;
}

}  // namespace platform
