#include "core/Utf.h"

#include <cstdint>

namespace Corvo::Core {

void appendUtf8(std::string& out, uint32_t c) {
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

std::string utf8FromUtf16(std::u16string_view text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    uint32_t c = text[i];
    if (c == 0) break;
    if (c >= 0xD800 && c < 0xE000) {
      const bool paired = c < 0xDC00 && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] < 0xE000;
      c = paired ? 0x10000 + ((c - 0xD800) << 10) + (text[++i] - 0xDC00) : 0xFFFD;
    }
    appendUtf8(out, c);
  }
  return out;
}

size_t utf8SequenceAt(std::string_view s, size_t i, uint32_t* codePoint) {
  const auto b = [&](size_t k) { return static_cast<unsigned char>(s[k]); };
  if (i >= s.size()) return 0;
  const unsigned char c = b(i);
  size_t n;
  uint32_t cp;
  if (c < 0x80) {
    n = 1;
    cp = c;
  } else if (c >= 0xC2 && c <= 0xDF) {
    n = 2;
    cp = c & 0x1F;
  } else if (c >= 0xE0 && c <= 0xEF) {
    n = 3;
    cp = c & 0x0F;
  } else if (c >= 0xF0 && c <= 0xF4) {
    n = 4;
    cp = c & 0x07;
  } else {
    return 0;
  }
  if (i + n > s.size()) return 0;
  for (size_t k = 1; k < n; ++k) {
    if ((b(i + k) & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (b(i + k) & 0x3F);
  }
  // Overlong forms, surrogates and values past U+10FFFF are not UTF-8.
  if ((n == 3 && cp < 0x800) || (n == 4 && (cp < 0x10000 || cp > 0x10FFFF)) || (cp >= 0xD800 && cp < 0xE000))
    return 0;
  if (codePoint) *codePoint = cp;
  return n;
}

std::string utf8FromCp850(std::string_view bytes) {
  static const uint16_t upper[128] = {
      0x00C7, 0x00FC, 0x00E9, 0x00E2, 0x00E4, 0x00E0, 0x00E5, 0x00E7, 0x00EA, 0x00EB, 0x00E8, 0x00EF, 0x00EE,
      0x00EC, 0x00C4, 0x00C5, 0x00C9, 0x00E6, 0x00C6, 0x00F4, 0x00F6, 0x00F2, 0x00FB, 0x00F9, 0x00FF, 0x00D6,
      0x00DC, 0x00F8, 0x00A3, 0x00D8, 0x00D7, 0x0192, 0x00E1, 0x00ED, 0x00F3, 0x00FA, 0x00F1, 0x00D1, 0x00AA,
      0x00BA, 0x00BF, 0x00AE, 0x00AC, 0x00BD, 0x00BC, 0x00A1, 0x00AB, 0x00BB, 0x2591, 0x2592, 0x2593, 0x2502,
      0x2524, 0x00C1, 0x00C2, 0x00C0, 0x00A9, 0x2563, 0x2551, 0x2557, 0x255D, 0x00A2, 0x00A5, 0x2510, 0x2514,
      0x2534, 0x252C, 0x251C, 0x2500, 0x253C, 0x00E3, 0x00C3, 0x255A, 0x2554, 0x2569, 0x2566, 0x2560, 0x2550,
      0x256C, 0x00A4, 0x00F0, 0x00D0, 0x00CA, 0x00CB, 0x00C8, 0x0131, 0x00CD, 0x00CE, 0x00CF, 0x2518, 0x250C,
      0x2588, 0x2584, 0x00A6, 0x00CC, 0x2580, 0x00D3, 0x00DF, 0x00D4, 0x00D2, 0x00F5, 0x00D5, 0x00B5, 0x00FE,
      0x00DE, 0x00DA, 0x00DB, 0x00D9, 0x00FD, 0x00DD, 0x00AF, 0x00B4, 0x00AD, 0x00B1, 0x2017, 0x00BE, 0x00B6,
      0x00A7, 0x00F7, 0x00B8, 0x00B0, 0x00A8, 0x00B7, 0x00B9, 0x00B3, 0x00B2, 0x25A0, 0x00A0};
  std::string out;
  for (const char ch : bytes) {
    const auto b = static_cast<unsigned char>(ch);
    appendUtf8(out, b < 0x80 ? b : upper[b - 0x80]);
  }
  return out;
}

std::string validUtf8(std::string_view text) {
  std::string out;
  for (size_t i = 0; i < text.size();) {
    const size_t n = utf8SequenceAt(text, i, nullptr);
    if (n) {
      out.append(text.substr(i, n));
      i += n;
    } else {
      appendUtf8(out, 0xFFFD);
      ++i;
    }
  }
  return out;
}

std::u16string utf16FromUtf8(std::string_view text) {
  std::u16string out;
  for (size_t i = 0; i < text.size();) {
    uint32_t cp = 0;
    size_t n = utf8SequenceAt(text, i, &cp);
    if (n == 0) {  // a byte that starts no UTF-8 sequence: taken as Latin-1
      cp = static_cast<unsigned char>(text[i]);
      n = 1;
    }
    if (cp >= 0x10000) {
      cp -= 0x10000;
      out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
      out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
    } else {
      out.push_back(static_cast<char16_t>(cp));
    }
    i += n;
  }
  return out;
}

namespace {

// Terminal columns of a code point: 0 for combining marks, 2 for wide East Asian characters.
size_t columnsOf(uint32_t c) {
  if ((c >= 0x0300 && c <= 0x036F) || (c >= 0x200B && c <= 0x200F) || (c >= 0xFE20 && c <= 0xFE2F)) return 0;
  if ((c >= 0x1100 && c <= 0x115F) || (c >= 0x2E80 && c <= 0xA4CF && c != 0x303F) || (c >= 0xAC00 && c <= 0xD7A3) ||
      (c >= 0xF900 && c <= 0xFAFF) || (c >= 0xFE30 && c <= 0xFE4F) || (c >= 0xFF00 && c <= 0xFF60) ||
      (c >= 0xFFE0 && c <= 0xFFE6) || (c >= 0x1F300 && c <= 0x1FAFF) || (c >= 0x20000 && c <= 0x3FFFD))
    return 2;
  return 1;
}

}  // namespace

std::string fitColumns(std::string_view text, size_t columns) {
  const std::string valid = validUtf8(text);
  std::string out;
  size_t used = 0;
  for (size_t i = 0; i < valid.size();) {
    uint32_t cp = 0;
    const size_t n = utf8SequenceAt(valid, i, &cp);
    const size_t w = columnsOf(cp);
    if (used + w > columns) break;
    out.append(valid, i, n);
    used += w;
    i += n;
  }
  return out.append(columns - used, ' ');
}

}  // namespace Corvo::Core
