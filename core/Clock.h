// The time of day and the random numbers that the program stamps on what it writes (error file,
// diagnostic log, volume serials and identifiers, the wipe's random byte).
// Tests fix both: KDISK_TEST_CLOCK=<seconds since 1970> stops the clock at that instant, read
// as UTC whatever the time zone, and KDISK_TEST_SEED=<number> makes randomBytes a fixed
// sequence. Nothing else reads these variables.
#pragma once
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>

namespace Corvo::Core {

std::time_t currentTime();
// Broken-down local time of the current time; thread-safe.
std::tm localNow();
// "dd/mm/yyyy hh:mm:ss" of the current local time.
std::string localTimeStamp();

// Fills the buffer from the system's random source (or the test sequence).
void randomBytes(void* buffer, size_t size);
template <typename T>
T randomValue() {
  T v{};
  randomBytes(&v, sizeof v);
  return v;
}

}  // namespace Corvo::Core
