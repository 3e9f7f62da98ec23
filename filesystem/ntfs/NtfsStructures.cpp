#include "filesystem/ntfs/NtfsStructures.h"

#include "core/Endian.h"
#include "core/Utf.h"

namespace Corvo::Filesystem::Ntfs {

namespace {

// Bytes needed for v as a signed little-endian number.
unsigned signedBytes(int64_t v) {
  unsigned n = 1;
  while (n < 8 && (v < -(int64_t(1) << (8 * n - 1)) || v >= (int64_t(1) << (8 * n - 1)))) ++n;
  return n;
}

}  // namespace

std::vector<uint8_t> encodeMappingPairs(const std::vector<Run>& runs) {
  std::vector<uint8_t> out;
  int64_t previous = 0;
  for (const Run& r : runs) {
    const unsigned lengthBytes = signedBytes(static_cast<int64_t>(r.length));
    int64_t delta = 0;
    unsigned offsetBytes = 0;
    if (r.lcn) {
      delta = static_cast<int64_t>(*r.lcn) - previous;
      offsetBytes = signedBytes(delta);
      previous = static_cast<int64_t>(*r.lcn);
    }
    out.push_back(static_cast<uint8_t>(lengthBytes | (offsetBytes << 4)));
    for (unsigned i = 0; i < lengthBytes; ++i) out.push_back(static_cast<uint8_t>(r.length >> (8 * i)));
    for (unsigned i = 0; i < offsetBytes; ++i) out.push_back(static_cast<uint8_t>(uint64_t(delta) >> (8 * i)));
  }
  out.push_back(0);
  return out;
}

std::optional<std::vector<Run>> decodeMappingPairs(const uint8_t* p, size_t bytes) {
  std::vector<Run> runs;
  int64_t lcn = 0;
  size_t at = 0;
  while (at < bytes && p[at] != 0) {
    const unsigned lengthBytes = p[at] & 0x0F, offsetBytes = p[at] >> 4;
    if (lengthBytes == 0 || lengthBytes > 8 || offsetBytes > 8 || at + 1 + lengthBytes + offsetBytes > bytes)
      return std::nullopt;
    ++at;
    uint64_t length = 0;
    for (unsigned i = 0; i < lengthBytes; ++i) length |= uint64_t(p[at + i]) << (8 * i);
    at += lengthBytes;
    if (length == 0 || length >> 62) return std::nullopt;
    Run r;
    r.length = length;
    if (offsetBytes) {
      uint64_t delta = 0;
      for (unsigned i = 0; i < offsetBytes; ++i) delta |= uint64_t(p[at + i]) << (8 * i);
      if (offsetBytes < 8 && (p[at + offsetBytes - 1] & 0x80)) delta |= ~uint64_t(0) << (8 * offsetBytes);
      at += offsetBytes;
      lcn += static_cast<int64_t>(delta);
      if (lcn < 0) return std::nullopt;
      r.lcn = static_cast<uint64_t>(lcn);
    }
    runs.push_back(r);
  }
  if (at >= bytes) return std::nullopt;  // no terminator
  return runs;
}

void applyFixups(uint8_t* record, size_t bytes, uint16_t usn) {
  uint8_t* usa = record + Multi::UsaOffset.get(record);
  Core::put16(usa, usn);
  for (size_t i = 1; i <= bytes / kSector; ++i) {
    uint8_t* tail = record + i * kSector - 2;
    usa[2 * i] = tail[0];
    usa[2 * i + 1] = tail[1];
    Core::put16(tail, usn);
  }
}

bool removeFixups(uint8_t* record, size_t bytes) {
  const size_t usaOffset = Multi::UsaOffset.get(record), count = Multi::UsaCount.get(record);
  if (count < 2 || (count - 1) * kSector > bytes || usaOffset + 2 * count > bytes || usaOffset + 2 * count > kSector)
    return false;
  uint8_t* usa = record + usaOffset;
  for (size_t i = 1; i < count; ++i) {
    uint8_t* tail = record + i * kSector - 2;
    if (tail[0] != usa[0] || tail[1] != usa[1]) return false;
    tail[0] = usa[2 * i];
    tail[1] = usa[2 * i + 1];
  }
  return true;
}

std::u16string utf16From(const std::string& text) {
  std::u16string out;
  for (size_t i = 0; i < text.size();) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    unsigned need = c >= 0xF0 && c < 0xF5 ? 3 : c >= 0xE0 && c < 0xF0 ? 2 : c >= 0xC2 && c < 0xE0 ? 1 : 0;
    uint32_t cp = need == 3 ? c & 0x07 : need == 2 ? c & 0x0F : c & 0x1F;
    bool ok = need > 0;
    for (unsigned k = 1; ok && k <= need; ++k) {
      if (i + k >= text.size()) { ok = false; break; }
      const unsigned char t = static_cast<unsigned char>(text[i + k]);
      if ((t & 0xC0) != 0x80) ok = false;
      cp = (cp << 6) | (t & 0x3F);
    }
    if (ok && ((need == 2 && (cp < 0x800 || (cp >= 0xD800 && cp < 0xE000))) || (need == 3 && (cp < 0x10000 || cp > 0x10FFFF))))
      ok = false;
    if (!ok) {  // ASCII, or a byte that starts no UTF-8 sequence: taken as Latin-1
      out.push_back(static_cast<char16_t>(c));
      ++i;
      continue;
    }
    if (cp >= 0x10000) {
      cp -= 0x10000;
      out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
      out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
    } else {
      out.push_back(static_cast<char16_t>(cp));
    }
    i += need + 1;
  }
  return out;
}

std::string utf8From(const std::u16string& text) { return Core::utf8FromUtf16(text); }

}  // namespace Corvo::Filesystem::Ntfs
