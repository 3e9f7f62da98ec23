#include "core/Error.h"

namespace Corvo::Core {

std::string Error::property(const std::string& name) const {
  for (const auto& [k, v] : props_)
    if (k == name) return v;
  return {};
}

std::string Error::report() const {
  std::string out = "Error " + std::to_string(numericId()) + ": " + text() + "\n";
  for (const auto& [k, v] : props_) out += "  " + k + " = " + v + "\n";
  return out;
}

}  // namespace Corvo::Core
