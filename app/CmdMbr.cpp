// /MBR: writes the master boot code into sector 0 of a disk, keeping its partition table
// (or, with /WIPE, deleting every partition). The code comes from /REPLACE:file, else from
// MBR.BIN (any case) beside the program or in its library folder, else from the copy built into
// the program.
#include "app/BootCodeWrite.h"
#include "app/Commands.h"
#include "core/Error.h"
#include "core/Message.h"
#include "core/System.h"
#include "core/Trace.h"

namespace Kdisk {

using namespace Corvo::Core;
using Corvo::Disk::DiskIdMode;

int commandMbr(SwitchSet& set) {
  TraceScope scope("commandMbr");
  if (!set.validate({&swMBR, &swWIPE, &swMbrP, &swZ, &swREPLACE, &swX, &swI, &swU, &swS, &swY, &swSURE, &swR, &swDIAG})) {
    message(mkError, "%s", set.errorText().c_str());
    return 2;
  }
  const bool preserve = set.isPresent(swMbrP), clear = set.isPresent(swZ), wipe = set.isPresent(swWIPE);
  if (preserve && clear) {
    message(mkError, "Conflicting switches. Specify either /P or /Z");
    return 2;
  }
  std::string replaceFile;
  const bool replace = set.isPresent(swREPLACE, &replaceFile);
  if (replace && replaceFile.empty()) {
    message(mkError, "Switch requires a value -- /REPLACE");
    return 2;
  }
  const uint32_t index = parseDiskNumber(set);
  if (index == kNoDisk) return 2;

  // The code is read before the disk is looked at: a bad file changes nothing.
  std::vector<uint8_t> code;
  if (replace) {
    if (!loadBootCodeFile(replaceFile, code)) return 1;
  } else {
    const std::string file = findDataFile(Corvo::Disk::kMasterBootCodeFileName, false);
    if (!file.empty()) {
      if (!loadBootCodeFile(file, code)) return 1;
    } else {
      code.assign(Corvo::Disk::kMasterBootCode, Corvo::Disk::kMasterBootCode + Corvo::Disk::kMasterBootCodeSize);
    }
  }

  FixedDisk* disk = findDisk(index);
  if (!disk) return 1;
  if (!bootRecordFree(*disk, wipe)) return 1;
  const DiskIdMode mode = preserve ? DiskIdMode::Preserve : clear ? DiskIdMode::Clear : DiskIdMode::FromCode;
  // The question says what becomes of the disk signature that boot loaders find the disk by.
  std::string idClause;
  try {
    const Corvo::Disk::DiskIdChange id = Corvo::Disk::diskIdChange(*disk->drive, code, mode);
    idClause = id.kind == Corvo::Disk::DiskIdChange::Cleared ? "; its disk signatures are cleared"
               : id.kind == Corvo::Disk::DiskIdChange::FromCode
                   ? format("; its disk signature %08X is replaced by %08X from the boot code", id.before, id.after)
                   : format("; its disk signature %08X is kept", id.before);
  } catch (const Error& e) {
    message(mkError, "Cannot write master boot record -- %s", e.text().c_str());
    return 1;
  }
  if (wipe) {
    if (message(mkQuestionPrompted,
                "All partitions on fixed disk %u will be deleted and its master boot record reinitialised%s. Continue?",
                index + 1, idClause.c_str()) != 1)
      return 1;
  } else if (message(mkQuestionPrompted, "The master boot record of fixed disk %u will be reinitialised%s. Continue?",
                     index + 1, idClause.c_str()) != 1) {
    return 1;
  }
  return writeBootCodeToDisk(*disk, code, mode, wipe);
}

}  // namespace Kdisk
