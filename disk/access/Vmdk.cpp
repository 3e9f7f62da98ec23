#include "disk/access/Vmdk.h"

#include <cstring>

#include "core/Endian.h"
#include "core/Error.h"

namespace Corvo::Disk::Vmdk {

using Core::Error;
using Core::ErrorId;

bool looksLikeVmdk(const uint8_t* head, size_t n) {
  if (n >= 4 && Core::get32(head) == kSparseMagic) return true;
  static const char kText[] = "# Disk DescriptorFile";
  return n >= sizeof kText - 1 && std::memcmp(head, kText, sizeof kText - 1) == 0;
}

std::unique_ptr<DiskDriveAccess> open(const std::string& path) {
  throw Error(ErrorId::InvalidImage, "Cannot use VMDK image " + path + " -- not supported yet").with("path", path);
}

}  // namespace Corvo::Disk::Vmdk
