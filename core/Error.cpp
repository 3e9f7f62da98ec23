#include "core/Error.h"

#include <exception>
#include <new>

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

Error currentExceptionAsError(ErrorId id, const std::string& context) {
  std::string reason;
  try {
    throw;
  } catch (const Error& e) {
    return e;
  } catch (const std::bad_alloc&) {
    reason = "not enough memory";
  } catch (const std::exception& e) {
    reason = std::string("unexpected error: ") + e.what();
  } catch (...) {
    reason = "unexpected error";
  }
  return Error(id, context + " -- " + reason).with("reason", reason);
}

}  // namespace Corvo::Core
