// MD5 message digest, used to recognise known boot-code images.
#pragma once
#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace Corvo::Core {

using Md5Digest = std::array<uint8_t, 16>;

class Md5 {
 public:
  Md5();
  void update(const void* data, size_t length);
  Md5Digest finish();  // the object must not be updated afterwards

  static Md5Digest of(const void* data, size_t length);
  // Lower-case hexadecimal, 32 characters.
  static std::string hex(const Md5Digest& digest);

 private:
  void block(const uint8_t* p);
  uint32_t state_[4];
  uint64_t length_ = 0;
  uint8_t buffer_[64];
  size_t used_ = 0;
};

}  // namespace Corvo::Core
