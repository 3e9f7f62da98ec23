#include "core/Utf.h"

#include <cstdint>

namespace Corvo::Core {

std::string utf8FromUtf16(std::u16string_view text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    uint32_t c = text[i];
    if (c == 0) break;
    if (c >= 0xD800 && c < 0xE000) {
      const bool paired = c < 0xDC00 && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] < 0xE000;
      c = paired ? 0x10000 + ((c - 0xD800) << 10) + (text[++i] - 0xDC00) : 0xFFFD;
    }
    if (c < 0x80) {
      out += static_cast<char>(c);
    } else if (c < 0x800) {
      out += static_cast<char>(0xC0 | (c >> 6));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      out += static_cast<char>(0xE0 | (c >> 12));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (c >> 18));
      out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return out;
}

std::u16string utf16FromUtf8(std::string_view text) {
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

}  // namespace Corvo::Core
