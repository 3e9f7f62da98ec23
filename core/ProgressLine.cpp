#include "core/ProgressLine.h"

#include <algorithm>
#include <cmath>

namespace Corvo::Core {
namespace {

constexpr double kSectorBytes = 512.0;
constexpr size_t kBarMax = 30, kBarMin = 8;

unsigned percentOf(const ProgressState& s) {
  if (s.total == 0 || s.done >= s.total) return 100;
  return static_cast<unsigned>(s.done * 100 / s.total);
}

std::string percentText(const ProgressState& s) { return format("%3u%%", percentOf(s)); }

}  // namespace

std::string durationText(double seconds) {
  if (!(seconds >= 0) || seconds > 359999999.0) return "--:--:--";
  auto t = static_cast<unsigned long long>(std::llround(seconds));
  return format("%llu:%02llu:%02llu", t / 3600, t / 60 % 60, t % 60);
}

std::string progressDetails(const ProgressState& s, bool compact) {
  std::string out;
  if (s.passes > 1) out = compact ? format("%u/%u ", s.pass, s.passes) : format("pass %u of %u  ", s.pass, s.passes);
  const bool known = s.elapsedSeconds >= 1.0 && s.done > 0;
  const double rate = known ? static_cast<double>(s.done) * kSectorBytes / 1048576.0 / s.elapsedSeconds : 0;
  const char* unit = compact ? "MB/s" : " MB/s";
  out += known ? format("%.1f%s", rate, unit) : format("--.-%s", unit);
  out += (compact ? " " : "  elapsed ") + durationText(s.elapsedSeconds);
  double left = -1;
  if (s.done >= s.total)
    left = 0;
  else if (known)
    left = static_cast<double>(s.total - s.done) * s.elapsedSeconds / static_cast<double>(s.done);
  out += (compact ? " left " : "  left ") + durationText(left);
  return out;
}

std::string progressTerminalLine(const ProgressState& s, unsigned width) {
  const size_t room = width > 1 ? width - 1 : 0;
  // The full details with a bar, the short details with a bar, the short details alone; the
  // bar takes what the title and the tail leave, " [" and "]" included.
  for (bool compact : {false, true}) {
    const std::string tail = " " + percentText(s) + "  " + progressDetails(s, compact);
    const size_t used = s.title.size() + tail.size() + 3;
    if (used + kBarMin <= room) {
      const size_t bar = std::min(kBarMax, room - used);
      const size_t filled = static_cast<size_t>(bar * percentOf(s) / 100);
      return s.title + " [" + std::string(filled, '#') + std::string(bar - filled, '.') + "]" + tail;
    }
  }
  std::string line = s.title + " " + percentText(s) + " " + progressDetails(s, true);
  if (line.size() > room) line.resize(room);
  return line;
}

std::string progressPlainLine(const ProgressState& s, bool details) {
  std::string line = s.title + " " + percentText(s);
  if (details) line += "  " + progressDetails(s);
  return line;
}

}  // namespace Corvo::Core
