#include "filesystem/fat/Fat.h"

#include "core/Error.h"

namespace Corvo::Filesystem {

bool validateVolumeLabel(const std::string&, bool) { return true; }

void formatFat(Disk::BlockDevice&, int, const FatFormatOptions&) {
  throw Core::Error(Core::ErrorId::NotSupported, "The FAT formatter is not available in this build");
}

}  // namespace Corvo::Filesystem
