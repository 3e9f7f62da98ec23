#include "app/Entry.h"

#include <cctype>
#include <cstdio>
#include <exception>
#include <new>

#include "app/Batch.h"
#include "app/ErrorReport.h"
#include "app/Help.h"
#include "app/Selection.h"
#include "core/Config.h"
#include "core/Error.h"
#include "core/FileKind.h"
#include "core/Interrupt.h"
#include "core/Message.h"
#include "core/Trace.h"
#include "disk/DiskDrive.h"

namespace Kdisk {

using namespace Corvo::Core;

namespace {

std::vector<std::string> gArgs;  // the command line as the process received it

// The name the program is known by in help texts and batch echoes: the file name of the
// first argument, without a Windows ".exe".
std::string displayName(const std::string& argv0) {
  size_t slash = argv0.find_last_of("/\\");
  std::string name = slash == std::string::npos ? argv0 : argv0.substr(slash + 1);
  if (name.size() > 4) {
    std::string ext = name.substr(name.size() - 4);
    for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (ext == ".exe") name.resize(name.size() - 4);
  }
  return name.empty() ? std::string("kdisk") : name;
}

void shutDownLibrary() {
  Corvo::Disk::DiskManager::instance().reset();
  DiagnosticLog::close();
  Config::clear();
}

int finish(int code) {
  std::fflush(stdout);
  std::fflush(stderr);
  return code;
}

}  // namespace

const std::vector<std::string>& processArguments() { return gArgs; }

int processEntry(const std::vector<std::string>& args) {
  gArgs = args.empty() ? std::vector<std::string>{"kdisk"} : args;
  TraceScope scope("main");
  installInterruptHandler();

  // Library start-up: its own switches become configuration keys, then the disks are found.
  std::vector<std::string> rest;
  try {
    rest = Config::takeStartupSwitches(gArgs);
    Corvo::Disk::DiskManager::instance().enumerate();
  } catch (const Error& e) {
    Config::setInt("PhantomErrorId", e.numericId());
    if (Config::getInt("PhantomErrorId", 0) != 0) message(mkError, "%s\n", e.text().c_str());
    // A value outside a start-up switch's choices is a bad command line.
    const bool badValue = e.id() == Corvo::Core::ErrorId::BadStartupSwitch && !e.property("choices").empty();
    shutDownLibrary();
    return finish(badValue ? 2 : 1);
  } catch (const std::exception& e) {
    message(mkError, "Cannot start the disk library -- %s", e.what());
    shutDownLibrary();
    return finish(1);
  }

  rest[0] = displayName(gArgs[0]);
  // The help requests of other command-line programs ask for the general help too.
  for (size_t i = 1; i < rest.size(); ++i)
    if (rest[i] == "--help" || rest[i] == "-h") rest[i] = "/?";
  int result = 1;
  try {
    SwitchSet set(std::move(rest));
    if (set.isPresent(swVERSION) || set.isPresent(swVER)) {
      printBanner();
      shutDownLibrary();
      return finish(0);
    }
    std::string diag;
    bool diagHasValue = false;
    if (set.isPresent(swDIAG, &diag, &diagHasValue)) {
      if (!diagHasValue || diag.empty()) {
        message(mkError, "Switch requires a value -- /DIAG");
        shutDownLibrary();
        return finish(2);
      }
      // The log must not land on a disk this run may write.
      auto& disks = Corvo::Disk::DiskManager::instance();
      for (size_t i = 0; i < disks.driveCount(); ++i) {
        if (!sameFile(diag, disks.pathOf(i))) continue;
        message(mkError, "Cannot open diagnostic log %s -- it is fixed disk %u", visibleText(diag).c_str(),
                static_cast<unsigned>(i + 1));
        shutDownLibrary();
        return finish(2);
      }
      std::string why;
      if (!DiagnosticLog::open(diag, false, &why)) {
        message(mkError, "Cannot open diagnostic log %s -- %s", visibleText(diag).c_str(), why.c_str());
        shutDownLibrary();
        return finish(2);
      }
    }
    result = runCommandLine(set);
  } catch (const ExitCode& raised) {
    result = raised.code;
  } catch (const Error& e) {
    result = AbortServerReporterKdisk(gArgs[0]).handle(e);
  } catch (const std::bad_alloc&) {
    message(mkError, "Unable to complete command! -- out of memory");
    result = 1;
  } catch (const std::exception& e) {
    message(mkError, "Unable to complete command! -- unexpected error: %s", e.what());
    result = 1;
  } catch (...) {
    message(mkError, "Unable to complete command! -- unexpected error");
    result = 1;
  }
  shutDownLibrary();
  return finish(result);
}

}  // namespace Kdisk
