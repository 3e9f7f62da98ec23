// Text encodings met on disks: UTF-16 names (GPT entries, NTFS volume names) shown as UTF-8.
#pragma once
#include <string>
#include <string_view>

namespace Corvo::Core {

// UTF-16 to UTF-8, up to the first NUL; an unpaired surrogate becomes U+FFFD.
std::string utf8FromUtf16(std::u16string_view text);

}  // namespace Corvo::Core
