#include "app/Selection.h"

#include <cstdlib>

#include "app/FixedDisks.h"
#include "app/Help.h"
#include "app/StatusJson.h"
#include "core/Config.h"
#include "core/Error.h"
#include "core/Message.h"

namespace Kdisk {

using namespace Corvo::Core;

namespace {

[[noreturn]] void raiseExitCode(int code) { throw ExitCode{code}; }

// Releases the fixed disk table when the command body leaves, by return or by exception.
struct FixedDiskTableScope {
  explicit FixedDiskTableScope(bool exclusive) { buildFixedDiskTable(exclusive); }
  ~FixedDiskTableScope() { releaseFixedDiskTable(); }
  FixedDiskTableScope(const FixedDiskTableScope&) = delete;
  FixedDiskTableScope& operator=(const FixedDiskTableScope&) = delete;
};

// Lets the command-line tests reach the fatal-error path without a broken disk.
void injectTestFault() {
  const char* fault = std::getenv("KDISK_TEST_FAULT");
  if (!fault) return;
  std::string kind = fault;
  if (kind == "library-error")
    throw Error(ErrorId::Internal, "Fault injected by KDISK_TEST_FAULT").with("trigger", "KDISK_TEST_FAULT");
  if (kind == "access-denied")
    throw Error(ErrorId::AccessDenied, "Access denied (injected by KDISK_TEST_FAULT)");
}

// Commands that may change a disk hold every disk for themselves while they run.
bool commandWrites(CommandCode code) {
  switch (code) {
    case ccCreate: case ccDelete: case ccActivate: case ccDeactivate: case ccHide: case ccUnhide:
    case ccMbr: case ccDiskWipe: case ccGpt: case ccRevert: case ccRestore:
      return true;
    default:
      return false;
  }
}

}  // namespace

CommandCode selectCommand(SwitchSet& set) {
  CommandCode code = ccDefault;
  int count = 0;
  if (set.isPresent(swCRE)) {
    code = ccCreate;
    count = 1;
  }
  if (set.isPresent(swDEL)) {
    code = ccDelete;
    count = count ? 2 : 1;
  }
  if (set.isPresent(swSTATUS)) {
    code = ccStatus;
    ++count;
  }
  bool act = set.isPresent(swACT), deact = set.isPresent(swDeACT);
  if (act || deact) {
    if (act && deact) {
      message(mkError, "Conflicting switches. Specify either /ACT or /-ACT");
      raiseExitCode(2);
    }
    code = act ? ccActivate : ccDeactivate;
    ++count;
  }
  bool hide = set.isPresent(swHIDE), unhide = set.isPresent(swUnHIDE);
  if (hide || unhide) {
    if (hide && unhide) {
      message(mkError, "Conflicting switches. Specify either /HIDE or /-HIDE");
      raiseExitCode(2);
    }
    code = hide ? ccHide : ccUnhide;
    ++count;
  }
  const struct {
    const Switch* sw;
    CommandCode code;
  } others[] = {{&swMBR, ccMbr},           {&swGPT, ccGpt},           {&swREVERT, ccRevert}, {&swATASECURITY, ccAtaSecurity},
                {&swDISKWIPE, ccDiskWipe}, {&swBOOTINI, ccBootIni}, {&swVIEW, ccView},
                {&swRESTORE, ccRestore}};
  for (const auto& o : others) {
    if (set.isPresent(*o.sw)) {
      code = o.code;
      ++count;
    }
  }
  if (count >= 2) {
    message(mkError,
            "Conflicting switches. Specify one of /CRE, /DEL, /STATUS, /ACT, /HIDE, /MBR, /DISKWIPE or /BOOTINI");
    raiseExitCode(2);
  }
  if (set.isPresent(swHelpQ) || set.isPresent(swH) || set.isPresent(swHELP)) {
    printHelp(set.programName(), code);
    return ccHelpShown;
  }
  if (set.isPresent(swX)) Config::setBool("DiskDriveAccessExInt13::disable", true);
  if (set.isPresent(swI)) Config::setBool("IdeControllerManager::disable", true);
  if (set.isPresent(swU)) Config::setBool("DiskDriveAccessIdeUdma::disable", true);
  if (set.isPresent(swS)) Config::setBool("DiskDriveAccessAspi::disable", true);
  bool yes = set.isPresent(swY), sure = set.isPresent(swSURE);
  if (yes && sure) {
    message(mkError, "Conflicting switches. Specify either /Y or /SURE");
    raiseExitCode(2);
  }
  if (yes || sure) setPromptMode(Corvo::Core::pmAnswerYes);
  return code;
}

int runCommandBody(CommandCode code, SwitchSet& set) {
  switch (code) {
    case ccCreate: return commandCreate(set);
    case ccDelete: return commandDelete(set);
    case ccStatus:
    case ccDefault: return commandStatus(set);
    case ccActivate:
    case ccDeactivate: return commandActivate(code, set);
    case ccHide:
    case ccUnhide: return commandHide(code, set);
    case ccMbr: return commandMbr(set);
    case ccDiskWipe: return commandDiskWipe(set);
    case ccBootIni: return commandBootIni(set);
    case ccView: return commandView(set);
    case ccGpt: return commandGpt(set);
    case ccRevert: return commandRevert(set);
    case ccRestore: return commandRestore(set);
    case ccAtaSecurity:
      message(mkError, "/ATASECURITY switch is only supported in the DOS version of %s", set.programName().c_str());
      return 2;
    case ccBatch:
    case ccHelpShown: break;
  }
  message(mkError, "Internal error -- no command body for command code %u", static_cast<unsigned>(code));
  return 1;
}

int runSingleCommand(SwitchSet& set) {
  setPromptMode(Corvo::Core::pmAsk);
  CommandCode code = selectCommand(set);
  if (code == ccHelpShown) return 0;
  int result;
  {
    JsonOutputScope json(code, set);
    FixedDiskTableScope table(commandWrites(code));
    injectTestFault();
    result = runCommandBody(code, set);
  }
  if (result != 0) return result;
  if (set.isPresent(swR)) attemptReboot();
  return 0;
}

}  // namespace Kdisk
