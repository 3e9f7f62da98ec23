#include "app/Switches.h"

#include <cctype>
#include <cstring>

#include "core/Message.h"

namespace Kdisk {

// Markers: 0xFE optional switch, 0xFF required switch.
#define OPT "\xFE"
#define REQ "\xFF"

const Switch swHelpQ{OPT "?"}, swH{OPT "H"}, swHELP{OPT "HELP"}, swVERSION{OPT "VERSION"}, swVER{OPT "VER"};
const Switch swCRE{OPT "CRE"}, swDEL{OPT "DEL"}, swSTATUS{OPT "STATUS"}, swACT{OPT "ACT"}, swDeACT{OPT "-ACT"},
    swHIDE{OPT "HIDE"}, swUnHIDE{OPT "-HIDE"}, swMBR{OPT "MBR"}, swGPT{OPT "GPT"}, swREVERT{OPT "REVERT"},
    swDISKWIPE{OPT "DISKWIPE"}, swBOOTINI{OPT "BOOTINI"}, swATASECURITY{OPT "ATASECURITY"}, swBATCH{OPT "BATCH>"},
    swVIEW{OPT "VIEW:"}, swRESTORE{OPT "RESTORE:"};
const Switch swR{OPT "R"}, swX{OPT "X"}, swI{OPT "I"}, swU{OPT "U"}, swS{OPT "S"}, swY{OPT "Y"}, swSURE{OPT "SURE"},
    swDIAG{OPT "DIAG:"};
const Switch swSZ{OPT "SZ:"}, swPRI{OPT "PRI"}, swEXT{OPT "EXT"}, swLOG{OPT "LOG"}, swNo32{OPT "-32"},
    swNTFAT16{OPT "NTFAT16"}, swFOR{OPT "FOR"}, swQ{OPT "Q"}, swNTFS{OPT "NTFS>"}, swEXT2{OPT "EXT2"}, swEXFAT{OPT "EXFAT"},
    swALIGN{OPT "ALIGN:"}, swV{OPT "V>"}, swNoCE{OPT "-CE"}, swEND{OPT "END"}, swLETTER{OPT "LETTER:"},
    swTYPE{OPT "TYPE:"};
const Switch swDelPRI{OPT "PRI>"}, swDelEXT{OPT "EXT>"}, swDelLOG{OPT "LOG:"}, swDelP{OPT "P:"}, swALL{OPT "ALL"},
    swQWIPE{OPT "QWIPE"}, swDODWIPE{OPT "DODWIPE"}, swCUSTOMWIPE{OPT "CUSTOMWIPE:"};
const Switch swActP{REQ "P:"}, swBootiniP{OPT "P:"};
const Switch swLBA{OPT "LBA"}, swRAW{OPT "RAW"}, swSER{OPT "SER"}, swJSON{OPT "JSON"};
const Switch swWIPE{OPT "WIPE"}, swZ{OPT "Z"}, swMbrP{OPT "P"}, swREPLACE{OPT "REPLACE:"}, swDOD{OPT "DOD"},
    swCUSTOM{OPT "CUSTOM:"}, swHPA{OPT "HPA"}, swNoHPA{OPT "-HPA"}, swDISK{OPT "DISK:"},
    swKEEPCORVOBOOT{OPT "KEEPCORVOBOOT"};
const Switch swADD{OPT "ADD"}, swREMOVE{OPT "REMOVE"}, swDEFAULT{OPT "DEFAULT"}, swENTRY{OPT "ENTRY:"}, swD{OPT "D:"},
    swDESC{OPT "DESC:"}, swINIFILE{OPT "INIFILE:"}, swBSECTFILE{OPT "BSECTFILE:"}, swTIMEOUT{OPT "TIMEOUT:"},
    swWINNT{OPT "WINNT"}, swSYSFOLDER{OPT "SYSFOLDER:"};
const Switch swNUM{OPT "NUM:"}, swPAGE{OPT "PAGE"};

#undef OPT
#undef REQ

const std::vector<const Switch*>& allSwitches() {
  static const std::vector<const Switch*> all = {
      &swHelpQ, &swH, &swHELP, &swVERSION, &swVER, &swCRE, &swDEL, &swSTATUS, &swACT, &swDeACT, &swHIDE,
      &swUnHIDE, &swMBR, &swGPT, &swREVERT, &swDISKWIPE, &swBOOTINI, &swATASECURITY, &swBATCH, &swVIEW, &swR,
      &swX, &swI, &swU, &swS, &swY, &swSURE, &swDIAG, &swSZ, &swPRI, &swEXT, &swLOG, &swNo32, &swNTFAT16,
      &swFOR, &swQ, &swNTFS, &swEXT2, &swEXFAT, &swALIGN, &swV, &swNoCE, &swEND, &swLETTER, &swTYPE, &swDelPRI, &swDelEXT,
      &swDelLOG, &swDelP, &swActP, &swBootiniP, &swALL, &swQWIPE, &swDODWIPE, &swCUSTOMWIPE, &swLBA, &swRAW,
      &swSER, &swWIPE, &swZ, &swMbrP, &swREPLACE, &swDOD, &swCUSTOM, &swHPA, &swNoHPA, &swDISK,
      &swKEEPCORVOBOOT, &swADD, &swREMOVE, &swDEFAULT, &swENTRY, &swD, &swDESC, &swINIFILE, &swBSECTFILE,
      &swTIMEOUT, &swWINNT, &swSYSFOLDER, &swNUM, &swPAGE, &swJSON, &swRESTORE};
  return all;
}

namespace {

// Length of the name: up to the first colon; without one, up to the first '>'.
size_t nameLength(const char* text) {
  const char* colon = std::strchr(text, ':');
  if (colon) return static_cast<size_t>(colon - text);
  const char* gt = std::strchr(text, '>');
  if (gt) return static_cast<size_t>(gt - text);
  return std::strlen(text);
}

const char* specName(const Switch& sw) { return sw.spec + 1; }
bool specRequired(const Switch& sw) { return static_cast<unsigned char>(sw.spec[0]) == 0xFF; }
bool specNeedsValue(const Switch& sw) { return std::strchr(specName(sw), ':') != nullptr; }
bool specTakesValue(const Switch& sw) { return specNeedsValue(sw) || std::strchr(specName(sw), '>') != nullptr; }

// Does the slash argument name this switch (same length, same letters ignoring case)?
bool matches(const std::string& arg, const Switch& sw) {
  const char* argName = arg.c_str() + 1;
  const char* name = specName(sw);
  size_t n = nameLength(name);
  if (nameLength(argName) != n) return false;
  for (size_t i = 0; i < n; ++i)
    if (std::toupper(static_cast<unsigned char>(argName[i])) != std::toupper(static_cast<unsigned char>(name[i])))
      return false;
  return true;
}

std::string argName(const std::string& arg) { return arg.substr(1, nameLength(arg.c_str() + 1)); }

// The value after the name's colon, if the argument has one right after the name.
bool argValue(const std::string& arg, std::string& value) {
  size_t n = 1 + nameLength(arg.c_str() + 1);
  if (n < arg.size() && arg[n] == ':') {
    value = arg.substr(n + 1);
    return true;
  }
  value.clear();
  return false;
}

bool isSwitch(const std::string& arg) { return !arg.empty() && arg[0] == '/'; }

}  // namespace

SwitchSet::SwitchSet(std::vector<std::string> args) : args_(std::move(args)) {
  if (args_.empty()) args_.push_back("kdisk");
}

bool SwitchSet::isPresent(const Switch& sw, std::string* value, bool* hasValue) const {
  if (value) value->clear();
  if (hasValue) *hasValue = false;
  if (args_.size() < 2) return false;
  for (size_t i = 1; i < args_.size(); ++i) {
    const std::string& a = args_[i];
    if (!isSwitch(a) || !matches(a, sw)) continue;
    std::string v;
    bool hv = argValue(a, v);
    if (value) *value = v;
    if (hasValue) *hasValue = hv;
    return true;
  }
  return false;
}

bool SwitchSet::validate(std::initializer_list<const Switch*> accepted, int minParameters, int maxParameters) {
  using Corvo::Core::visibleText;
  error_.clear();
  // The first argument naming each accepted switch, by its place in the accepted list: every
  // later occurrence is compared with that one only, so long lines are checked in linear time.
  std::vector<const std::string*> first(accepted.size(), nullptr);
  for (size_t i = 1; i < args_.size(); ++i) {
    const std::string& a = args_[i];
    if (!isSwitch(a)) continue;
    size_t k = 0;
    const Switch* found = nullptr;
    for (const Switch* sw : accepted) {
      if (matches(a, *sw)) {
        found = sw;
        break;
      }
      ++k;
    }
    if (!found) {
      error_ = "Unknown switch -- /" + visibleText(argName(a));
      return false;
    }
    std::string value;
    bool hasValue = argValue(a, value);
    if (hasValue && !specTakesValue(*found)) {
      error_ = "Switch does not require a value -- /" + visibleText(argName(a));
      return false;
    }
    if (!hasValue && specNeedsValue(*found)) {
      error_ = "Switch requires a value -- /" + visibleText(argName(a));
      return false;
    }
    if (!first[k]) {
      first[k] = &a;
      continue;
    }
    std::string firstValue;
    bool firstHas = argValue(*first[k], firstValue);
    if (firstHas != hasValue || firstValue != value) {
      error_ = "Conflicting values for switch -- /" + visibleText(argName(*first[k]) + ":" + firstValue + " /" + a.substr(1));
      return false;
    }
  }
  for (const Switch* sw : accepted) {
    if (specRequired(*sw) && !isPresent(*sw)) {
      error_ = "Required switch missing -- /" + std::string(specName(*sw), nameLength(specName(*sw)));
      return false;
    }
  }
  int params = countParameters();
  if (params < minParameters) {
    error_ = "Required parameter missing";
    return false;
  }
  if (params > maxParameters) {
    int k = 0;
    for (size_t i = 1; i < args_.size(); ++i) {
      if (isSwitch(args_[i])) continue;
      if (++k > maxParameters) {
        error_ = "Too many parameters -- " + visibleText(args_[i]);
        break;
      }
    }
    return false;
  }
  return true;
}

int SwitchSet::countParameters() const {
  int n = 0;
  for (size_t i = 1; i < args_.size(); ++i)
    if (!isSwitch(args_[i])) ++n;
  return n;
}

const std::string* SwitchSet::firstParameter() const {
  for (size_t i = 1; i < args_.size(); ++i)
    if (!isSwitch(args_[i])) return &args_[i];
  return nullptr;
}

}  // namespace Kdisk
