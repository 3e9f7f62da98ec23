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

TEST(Utf, LabelsForTheTable) {
  // Column fitting: cut on a character boundary, padded to the width in columns.
  const struct {
    std::string in;
    size_t columns;
    std::string out;
  } fits[] = {
      {"DATA", 6, "DATA  "},
      {"ProjectArchive2024Backup", 12, "ProjectArchi"},
      {"\xd0\x9d\xd0\xbe\xd0\xb2\xd1\x8b\xd0\xb9 \xd1\x82\xd0\xbe\xd0\xbc", 8, "\xd0\x9d\xd0\xbe\xd0\xb2\xd1\x8b\xd0\xb9 \xd1\x82\xd0\xbe"},
      {"\xe6\x97\xa5\xe6\x9c\xac\xe8\xaa\x9e", 5, "\xe6\x97\xa5\xe6\x9c\xac "},  // wide: two columns each
      {"e\xcc\x81t\xc3\xa9", 3, "e\xcc\x81t\xc3\xa9"},                      // a combining mark takes none
      {"a\xd0", 3, "a\xef\xbf\xbd "},                                     // a lone byte is U+FFFD
  };
  for (const auto& c : fits) EXPECT_EQ(fitColumns(c.in, c.columns), c.out) << c.in;
  EXPECT_EQ(validUtf8("ok\xc3\xa9\xff"), "ok\xc3\xa9\xef\xbf\xbd");
  // The DOS code page of FAT names: 0xE5 is a letter there, 0x8F is A with a ring.
  EXPECT_EQ(utf8FromCp850("\xe5RE \x8fR"), "\xc3\x95RE \xc3\x85R");
}
