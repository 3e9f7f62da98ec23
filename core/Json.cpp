#include "core/Json.h"

#include <cstdio>

namespace Corvo::Core {
namespace {

// Length of the UTF-8 sequence starting at i, or 0 when the bytes there are not one.
size_t utf8Length(std::string_view s, size_t i) {
  const auto b = [&](size_t k) { return static_cast<unsigned char>(s[k]); };
  const unsigned char c = b(i);
  size_t n;
  uint32_t cp;
  if (c >= 0xC2 && c <= 0xDF) {
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
  return n;
}

}  // namespace

std::string jsonQuote(std::string_view s) {
  std::string out = "\"";
  for (size_t i = 0; i < s.size();) {
    const unsigned char c = static_cast<unsigned char>(s[i]);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20 || c == 0x7F) {
      char buf[8];
      std::snprintf(buf, sizeof buf, "\\u%04x", c);
      out += buf;
    } else if (c >= 0x80) {
      if (size_t n = utf8Length(s, i)) {
        out.append(s.substr(i, n));
        i += n;
        continue;
      }
      out += static_cast<char>(0xC0 | (c >> 6));  // the byte as a Latin-1 character
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
      out += static_cast<char>(c);
    }
    ++i;
  }
  return out + "\"";
}

void JsonWriter::beforeValue() {
  if (afterKey_) {
    afterKey_ = false;
    return;
  }
  if (!levels_.empty()) {
    if (levels_.back().count++ > 0) out_ += ',';
    out_ += '\n';
    out_.append(2 * levels_.size(), ' ');
  }
}

void JsonWriter::open(char bracket) {
  beforeValue();
  out_ += bracket;
  levels_.push_back({bracket == '{'});
}

void JsonWriter::close(char bracket) {
  const bool empty = levels_.back().count == 0;
  levels_.pop_back();
  if (!empty) {
    out_ += '\n';
    out_.append(2 * levels_.size(), ' ');
  }
  out_ += bracket;
  if (levels_.empty()) out_ += '\n';
}

void JsonWriter::beginObject() { open('{'); }
void JsonWriter::endObject() { close('}'); }
void JsonWriter::beginArray() { open('['); }
void JsonWriter::endArray() { close(']'); }

void JsonWriter::key(std::string_view name) {
  beforeValue();
  out_ += jsonQuote(name) + ": ";
  afterKey_ = true;
}

void JsonWriter::text(std::string_view value) {
  beforeValue();
  out_ += jsonQuote(value);
}
void JsonWriter::number(uint64_t value) {
  beforeValue();
  out_ += std::to_string(value);
}
void JsonWriter::boolean(bool value) {
  beforeValue();
  out_ += value ? "true" : "false";
}
void JsonWriter::null() {
  beforeValue();
  out_ += "null";
}
void JsonWriter::textOrNull(std::string_view value) {
  if (value.empty())
    null();
  else
    text(value);
}

}  // namespace Corvo::Core
