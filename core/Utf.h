// Text encodings met on disks: UTF-16 names (GPT entries, NTFS and exFAT volume names) shown as
// UTF-8, and UTF-8 labels given on the command line written as UTF-16.
#pragma once
#include <string>
#include <string_view>

namespace Corvo::Core {

// UTF-16 to UTF-8, up to the first NUL; an unpaired surrogate becomes U+FFFD.
std::string utf8FromUtf16(std::u16string_view text);
// UTF-8 to UTF-16 code units; bytes that start no UTF-8 sequence are taken as Latin-1.
std::u16string utf16FromUtf8(std::string_view text);

}  // namespace Corvo::Core
