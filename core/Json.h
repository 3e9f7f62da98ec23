// A small writer of JSON documents: two-space indentation, one member or element a line.
#pragma once
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Corvo::Core {

// The text as a JSON string literal, quotes included. Bytes that do not form UTF-8 are taken
// as Latin-1 characters, so the result is always valid UTF-8.
std::string jsonQuote(std::string_view text);

class JsonWriter {
 public:
  void beginObject();
  void endObject();
  void beginArray();
  void endArray();
  // Names the next member of the enclosing object.
  void key(std::string_view name);
  void text(std::string_view value);
  void number(uint64_t value);
  void boolean(bool value);
  void null();
  // Text, or null when empty.
  void textOrNull(std::string_view value);
  // The document so far, with a final newline once the outermost value is closed.
  const std::string& document() const { return out_; }

 private:
  void beforeValue();
  void open(char bracket);
  void close(char bracket);
  struct Level {
    bool object;
    size_t count = 0;
  };
  std::vector<Level> levels_;
  std::string out_;
  bool afterKey_ = false;
};

}  // namespace Corvo::Core
