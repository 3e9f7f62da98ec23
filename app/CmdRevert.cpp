// /REVERT: puts the master boot code from mbr.bin (beside the program, in its library folder,
// else in the current folder) back onto the boot disk, keeping its partition table and disk identifiers.
#include "app/BootCodeWrite.h"
#include "app/Commands.h"
#include "core/Message.h"
#include "core/System.h"
#include "core/Trace.h"

namespace Kdisk {

using namespace Corvo::Core;

namespace {

// The file /REVERT reads from (any case of its letters): beside the program, in its library
// folder, else in the current folder.
constexpr const char* kRevertFileName = "mbr.bin";

std::string revertFile() {
  const std::string found = findDataFile(kRevertFileName, true);
  return found.empty() ? kRevertFileName : found;
}

}  // namespace

int commandRevert(SwitchSet& set) {
  TraceScope scope("commandRevert");
  if (!set.validate({&swREVERT, &swX, &swI, &swU, &swS, &swY, &swSURE, &swR, &swDIAG}, 0, 0)) {
    message(mkError, "%s", set.errorText().c_str());
    return 2;
  }
  const uint32_t index = systemDisk();
  if (index == kNoDisk) {
    message(mkError, "Failed to determine system disk");
    return 1;
  }
  std::vector<uint8_t> code;
  const std::string path = revertFile();
  if (!loadBootCodeFile(path, code)) return 1;
  FixedDisk* disk = findDisk(index);
  if (!disk) return 1;
  if (!bootRecordFree(*disk, false)) return 1;
  if (message(mkQuestionPrompted,
              "The master boot record of fixed disk %u, the boot disk, will be reverted to the contents of %s. Continue?",
              index + 1, path.c_str()) != 1)
    return 1;
  return writeBootCodeToDisk(*disk, code, Corvo::Disk::DiskIdMode::Preserve, false);
}

}  // namespace Kdisk
