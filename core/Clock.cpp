#include "core/Clock.h"

#include <cstdlib>
#include <random>

namespace Corvo::Core {

namespace {

bool testNumber(const char* name, uint64_t& value) {
  const char* text = std::getenv(name);
  if (!text || !*text) return false;
  char* end = nullptr;
  value = std::strtoull(text, &end, 10);
  return end && *end == 0;
}

}  // namespace

std::time_t currentTime() {
  uint64_t fixed = 0;
  if (testNumber("KDISK_TEST_CLOCK", fixed)) return static_cast<std::time_t>(fixed);
  return std::time(nullptr);
}

std::tm localNow() {
  const std::time_t t = currentTime();
  std::tm tm{};
  uint64_t fixed = 0;
  const bool utc = testNumber("KDISK_TEST_CLOCK", fixed);
#if defined(_WIN32)
  if (utc) gmtime_s(&tm, &t); else localtime_s(&tm, &t);
#else
  if (utc) gmtime_r(&t, &tm); else localtime_r(&t, &tm);
#endif
  return tm;
}

std::string localTimeStamp() {
  const std::tm tm = localNow();
  char text[32] = {};
  if (std::strftime(text, sizeof text, "%d/%m/%Y %H:%M:%S", &tm) == 0) text[0] = 0;
  return text;
}

void randomBytes(void* buffer, size_t size) {
  auto* out = static_cast<uint8_t*>(buffer);
  uint64_t seed = 0;
  if (testNumber("KDISK_TEST_SEED", seed)) {
    // One fixed sequence per process, so two draws in one run still differ.
    static std::mt19937_64 sequence(seed);
    for (size_t i = 0; i < size; ++i) out[i] = static_cast<uint8_t>(sequence());
    return;
  }
  std::random_device source;
  for (size_t i = 0; i < size; i += 4) {
    const uint32_t v = source();
    for (size_t k = 0; k < 4 && i + k < size; ++k) out[i + k] = static_cast<uint8_t>(v >> (8 * k));
  }
}

}  // namespace Corvo::Core
