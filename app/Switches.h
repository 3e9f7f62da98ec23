// Switch objects and the switch set of one command line.
#pragma once
#include <initializer_list>
#include <string>
#include <vector>

namespace Kdisk {

// One process-wide object per switch and command. spec: a marker byte (0xFE optional,
// 0xFF required), the name, and an optional suffix (':' value required, '>' value optional).
struct Switch {
  const char* spec;
};

// The switch table. Names that exist twice carry the asking command in their C++ name.
extern const Switch swHelpQ, swH, swHELP, swVERSION, swVER;
extern const Switch swCRE, swDEL, swSTATUS, swACT, swDeACT, swHIDE, swUnHIDE, swMBR, swGPT, swREVERT,
    swDISKWIPE, swBOOTINI, swATASECURITY, swBATCH, swVIEW, swRESTORE;
extern const Switch swR, swX, swI, swU, swS, swY, swSURE, swDIAG;
// Creation.
extern const Switch swSZ, swPRI, swEXT, swLOG, swNo32, swNTFAT16, swFOR, swQ, swNTFS, swEXT2, swEXFAT, swALIGN, swV,
    swNoCE, swEND, swLETTER, swTYPE;
// Deletion.
extern const Switch swDelPRI, swDelEXT, swDelLOG, swDelP, swALL, swQWIPE, swDODWIPE, swCUSTOMWIPE;
// Activation and hiding; boot.ini.
extern const Switch swActP, swBootiniP;
// Status. JSON is this build's own: the status display as one JSON document.
extern const Switch swLBA, swRAW, swSER, swJSON;
// MBR, GPT, disk wipe.
extern const Switch swWIPE, swZ, swMbrP, swREPLACE, swDOD, swCUSTOM, swHPA, swNoHPA, swDISK, swKEEPCORVOBOOT;
// boot.ini.
extern const Switch swADD, swREMOVE, swDEFAULT, swENTRY, swD, swDESC, swINIFILE, swBSECTFILE, swTIMEOUT, swWINNT,
    swSYSFOLDER;
// Sector view.
extern const Switch swNUM, swPAGE;

// Every switch object, in table order (the 79 of the table, then /JSON and /RESTORE:).
const std::vector<const Switch*>& allSwitches();

class SwitchSet {
 public:
  // args[0] is the program name.
  explicit SwitchSet(std::vector<std::string> args);

  const std::vector<std::string>& args() const { return args_; }
  const std::string& programName() const { return args_[0]; }

  // True when some argument matches the switch; value and hasValue (optional) receive the
  // text after the first colon.
  bool isPresent(const Switch& sw, std::string* value = nullptr, bool* hasValue = nullptr) const;
  // Checks every slash argument against the accepted switches and the parameter count limits.
  // On failure the message is kept in errorText() and false is returned; nothing is printed.
  bool validate(std::initializer_list<const Switch*> accepted, int minParameters = 0, int maxParameters = 1);
  const std::string& errorText() const { return error_; }
  // Arguments from the second on that do not begin with a slash.
  int countParameters() const;
  // The first such argument, or null.
  const std::string* firstParameter() const;

 private:
  std::vector<std::string> args_;
  std::string error_;
};

}  // namespace Kdisk
