#include <gtest/gtest.h>

#include "core/Json.h"
#include "core/Utf.h"

using namespace Corvo::Core;

TEST(Json, QuoteEscapesAndKeepsValidUtf8) {
  const struct {
    std::string in, out;
  } cases[] = {
      {"DATA", "\"DATA\""},
      {"a\"b\\c", "\"a\\\"b\\\\c\""},
      {std::string("x\ny\0z", 5), "\"x\\u000ay\\u0000z\""},
      {"\x7f", "\"\\u007f\""},
      {"caf\xc3\xa9", "\"caf\xc3\xa9\""},          // UTF-8 stays
      {"\xe2\x82\xac", "\"\xe2\x82\xac\""},        // three bytes
      {"\xf0\x9f\x92\xbe", "\"\xf0\x9f\x92\xbe\""},  // four bytes
      {"\xe9t\xe9", "\"\xc3\xa9t\xc3\xa9\""},      // Latin-1 bytes become characters
      {"\xc3", "\"\xc3\x83\""},                    // a cut sequence
      {"\xc0\xaf", "\"\xc3\x80\xc2\xaf\""},        // an overlong form
      {"\xed\xa0\x80", "\"\xc3\xad\xc2\xa0\xc2\x80\""},  // a surrogate
  };
  for (const auto& c : cases) EXPECT_EQ(jsonQuote(c.in), c.out) << c.in;
}

TEST(Json, WriterNestsWithCommasAndIndentation) {
  JsonWriter w;
  w.beginObject();
  w.key("version");
  w.number(1);
  w.key("list");
  w.beginArray();
  w.text("a");
  w.null();
  w.boolean(true);
  w.endArray();
  w.key("empty");
  w.beginArray();
  w.endArray();
  w.key("none");
  w.textOrNull("");
  w.endObject();
  EXPECT_EQ(w.document(),
            "{\n  \"version\": 1,\n  \"list\": [\n    \"a\",\n    null,\n    true\n  ],\n  \"empty\": [],\n"
            "  \"none\": null\n}\n");
}

TEST(Utf, Utf16NamesBecomeUtf8) {
  const struct {
    std::u16string in;
    std::string out;
  } cases[] = {
      {u"alpha", "alpha"},
      {u"\u03b2eta \u03c9", "\xce\xb2" "eta \xcf\x89"},
      {u"\U0001F4BE", "\xf0\x9f\x92\xbe"},                 // a surrogate pair
      {std::u16string(1, 0xD800) + u"x", "\xef\xbf\xbdx"},  // unpaired: U+FFFD
      {std::u16string(1, 0xDC00), "\xef\xbf\xbd"},
      {std::u16string(u"ab\0cd", 5), "ab"},                // up to the first NUL
  };
  for (const auto& c : cases) EXPECT_EQ(utf8FromUtf16(c.in), c.out);
}
