// Text encodings met on disks: UTF-16 names (GPT entries, NTFS and exFAT volume names) shown as
// UTF-8, and UTF-8 labels given on the command line written as UTF-16.
#pragma once
#include <cstdint>
#include <string>
#include <string_view>

namespace Corvo::Core {

// UTF-16 to UTF-8, up to the first NUL; an unpaired surrogate becomes U+FFFD.
std::string utf8FromUtf16(std::u16string_view text);
// UTF-8 to UTF-16 code units; bytes that start no UTF-8 sequence are taken as Latin-1.
std::u16string utf16FromUtf8(std::string_view text);
// Length of the well-formed UTF-8 sequence at s[i] (1 for ASCII), 0 when the bytes there are
// not one; the code point is stored when codePoint is given.
size_t utf8SequenceAt(std::string_view s, size_t i, uint32_t* codePoint = nullptr);
// One Unicode code point as UTF-8.
void appendUtf8(std::string& out, uint32_t codePoint);
// Bytes of code page 850 (the DOS code page of FAT short names and labels) as UTF-8.
std::string utf8FromCp850(std::string_view bytes);
// The text with every byte that is not part of a well-formed UTF-8 sequence replaced by U+FFFD.
std::string validUtf8(std::string_view text);
// The text cut to at most `columns` terminal columns on a character boundary (wide East Asian
// characters take two, combining marks none) and padded with blanks to exactly that width.
std::string fitColumns(std::string_view text, size_t columns);

}  // namespace Corvo::Core
