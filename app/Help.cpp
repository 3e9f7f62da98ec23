#include "app/Help.h"

#include <algorithm>
#include <cstring>
#include <initializer_list>

#include "app/Version.h"
#include "core/Message.h"

namespace Kdisk {

using namespace Corvo::Core;

namespace {

std::string versionText() { return format("%d.%d.%d", kVersionMajor, kVersionMinor, kVersionPatch); }

struct Item {
  const char* name;
  const char* meaning;  // may hold several lines
};

// Two columns: the switch and its meaning. Continuation lines of a meaning are indented to
// the meaning column.
void printList(std::initializer_list<Item> items) {
  size_t width = 0;
  for (const Item& i : items) width = std::max(width, std::strlen(i.name));
  width += 2;
  print("\n");
  for (const Item& i : items) {
    std::string meaning = i.meaning;
    size_t start = 0;
    bool first = true;
    while (true) {
      size_t nl = meaning.find('\n', start);
      std::string line = meaning.substr(start, nl == std::string::npos ? std::string::npos : nl - start);
      print("  %-*s%s\n", static_cast<int>(width), first ? i.name : "", line.c_str());
      first = false;
      if (nl == std::string::npos) break;
      start = nl + 1;
    }
  }
}

const Item kDisk{"disk", "The physical fixed disk (1-128)."};
const Item kX{"/X", "Ignore extended disk-access support."};
const Item kI{"/I", "Ignore direct IDE disk-access support."};
const Item kU{"/U", "Ignore direct IDE UDMA disk-access support."};
const Item kS{"/S", "Ignore direct SCSI disk-access support."};
const Item kNoOsLayout{"/NOOSLAYOUT", "OS update of disk layout change is skipped."};
const Item kY{"/Y", "Suppress the confirmation prompts (answer Yes).\n/SURE has the same meaning as /Y."};
const Item kR{"/R", "Reboot after execution of command"};

void describe(const char* text) { print("%s", text); }

}  // namespace

void printBanner() {
  print("%s %s (build=%d). Built on %s %s.\n", kProductTitle, versionText().c_str(), kBuildNumber, kBuildDate,
        kBuildTime);
  print("%s\n", kNotice);
}

void printGeneralHelp(const std::string& program) {
  const char* p = program.c_str();
  int w = static_cast<int>(program.size());
  print("Fixed Disk Partitioning Utility\n");
  print("%s %s\n\n", kProductTitle, versionText().c_str());
  print("%s disk /CRE {/PRI|/EXT|/LOG} [/SZ:{mbytes|pcent{P|%%}}] [/END]\n", p);
  print("%*s [/FOR [/Q] [/NTFS[:VISTA|XP|2000|NT4|NT351]] [/EXT2] [/EXFAT] [/ALIGN[:CHS|1MB]] [/V[:label]]] [/-32] [/NTFAT16]\n",
        w, "");
  print("%s disk /DEL {/P:partn-no|/ALL}\n", p);
  print("%*s [/QWIPE|/DODWIPE|/CUSTOMWIPE:passes]\n", w, "");
  print("%s [disk] [/STATUS] [/RAW|/LBA] [/SER] [/JSON] [/X] [/I] [/U] [/S]\n", p);
  print("%s disk /[-]ACT /P:partn-no [/X] [/I] [/U] [/S] \n", p);
  print("%s disk /[-]HIDE /P:partn-no [/X] [/I] [/U] [/S] \n", p);
  print("%s disk /DISKWIPE [/DODWIPE|/CUSTOMWIPE:passes] [/[-]HPA] [/X] [/I] [/U] \n", p);
  print("%s disk /MBR [/WIPE] [/X] [/I] [/U] [/S] [/Y] [/R]\n", p);
  print("%s disk /GPT /WIPE [/X] [/I] [/U] [/S] [/Y] [/R]\n", p);
  print("%s /REVERT [/X] [/I] [/U] [/S] [/Y] [/R]\n", p);
  print("%s /BOOTINI {/ADD|/REMOVE|/DEFAULT} [/D:disk-no] [/P:partn-no]\n", p);
  print("%*s [/DESC:desc] [/ENTRY:no] [/TIMEOUT:sec] [/INIFILE:filename]\n", w, "");
  print("%s disk /VIEW:sector [/NUM:num-sectors] [/PAGE]\n", p);
  print("%s [disk] /BATCH[:filename] [switch[switch...]]\n", p);
  print("%s /? [/STATUS|/[-]ACT|/[-]HIDE|/DISKWIPE|/BOOTINI|/BATCH|/VIEW]\n", p);

  print("\nAdding virtual disks as regular disks to the disk list.\n");
  print("%s /ADDDISK=path [/ADDDISK=path...] [disk] [/command] [switches]\n", p);
  print("%s /AD=path [/AD=path...] [disk] [/command] [switches]\n", p);
  print("%*s path: a VMDK virtual disk file (.vmdk) or a raw disk image file.\n", w, "");
  print("%*s Each file added becomes the next fixed disk after the computer's own disks;\n", w, "");
  print("%*s /NOOSDISK leaves the computer's own disks out of the list.\n", w, "");

  print("\nOption to preserve Corvo Boot Partition during disk wipe operation\n\n");
  print("%s /keepcorvoboot\n\n", p);
}

void printHelp(const std::string& program, CommandCode code) {
  const char* p = program.c_str();
  int w = static_cast<int>(program.size());
  switch (code) {
    case ccCreate:
      describe("Creates fixed disk partitions and logical drives.\n\n");
      print("%s disk /CRE {/PRI|/EXT|/LOG} [/SZ:{mbytes|pcent{P|%%}}] [/END]\n", p);
      print("%*s [/FOR [/Q] [/NTFS[:VISTA|XP|2000|NT4|NT351]] [/EXT2] [/EXFAT] [/ALIGN[:CHS|1MB]] [/V[:label]]] [/-32] [/NTFAT16]\n",
            w, "");
      print("%*s [/TYPE:type] [/LETTER:c] [/X] [/I] [/U] [/S]\n", w, "");
      printList({kDisk,
                 {"/PRI", "Create a primary DOS partition."},
                 {"/EXT", "Create an extended DOS partition."},
                 {"/LOG", "Create a logical DOS drive in the extended DOS partition."},
                 {"/SZ:mbytes", "Size of the partition in megabytes."},
                 {"/SZ:pcent{P or %}", "Size as a percentage of the disk: /SZ:50P makes a partition of half the disk.\n"
                                       "Default is the largest possible size."},
                 {"/END", "Create the new partition at the end of the free space."},
                 {"/FOR", "Format the partition after it is created."},
                 {"/Q", "Quick format."},
                 {"/V[:label]", "Volume label of the format. Default is no label."},
                 {"/NTFS[:VISTA, XP, 2000, NT4, NT351]", "NTFS quick format for the given Windows version."},
                 {"/EXT2", "Format as ext2."},
                 {"/EXFAT", "Format as exFAT."},
                 {"/ALIGN[:CHS or 1MB]", "Alignment: CHS is the traditional cylinder/head/sector alignment,\n"
                                         "1MB the 1 MB alignment of Windows Vista."},
                 {"/LETTER:c", "Drive letter to assign to the new partition."},
                 {"/TYPE:type", "Partition type, replacing the one the format would pick: an MBR type\n"
                                "byte in hex (/TYPE:82), a GPT type GUID, or EFI, LINUX, SWAP, LVM, RAID,\n"
                                "and on GPT disks only MSR, BIOSBOOT, RECOVERY."},
                 {"/-32", "Do not use FAT32: new primary partitions and logical drives are\n"
                          "limited to 2048 MB."},
                 {"/NTFAT16", "Do not use FAT32: new primary partitions and logical drives are\n"
                              "limited to 4097 MB. Only Windows NT can access drives between 2048 MB\n"
                              "and 4097 MB when FAT32 support is off."},
                 kX, kI, kU, kS, kNoOsLayout});
      return;
    case ccDelete:
      describe("Deletes fixed disk partitions and logical drives.\n\n");
      print("%s disk /DEL {/P:partn-no|/ALL}\n", p);
      print("%*s [/QWIPE|/DODWIPE|/CUSTOMWIPE:passes] [/X] [/I] [/U] [/S] [/Y]\n", w, "");
      printList({kDisk,
                 {"/P:partn-no", "The partition number as shown by /STATUS."},
                 {"/ALL", "Delete all partitions."},
                 {"/QWIPE", "Quick wipe of the partition before it is deleted."},
                 {"/DODWIPE", "DoD 5220.22-M wipe of the partition before it is deleted."},
                 {"/CUSTOMWIPE:passes", "DoD 5220.22-M wipe with a custom number of passes before the\n"
                                        "partition is deleted."},
                 kX, kI, kU, kS, kNoOsLayout, kY});
      return;
    case ccStatus:
    case ccDefault:
      if (code == ccDefault) break;
      describe("Displays information about fixed disk partitions.\n\n");
      print("%s [disk] [/STATUS] [/RAW|/LBA] [/X] [/I] [/U] [/S] \n", p);
      print("%*s [/SER] [/JSON]\n", w, "");
      printList({{"disk", "The physical fixed disk (1-128).\nDefault is to list all fixed disks."},
                 {"/RAW", "Display the raw partition table."},
                 {"/LBA", "Display the raw partition table in LBA format."},
                 {"/SER", "Display the disk serial number instead of the model."},
                 {"/JSON", "Print the disks and partitions as one JSON document instead of the tables."},
                 kX, kI, kU, kS});
      return;
    case ccActivate:
    case ccDeactivate:
      describe("Sets or removes the active partition.\n\n");
      print("%s disk /[-]ACT /P:partn-no [/X] [/I] [/U] [/S] \n", p);
      printList({kDisk,
                 {"/ACT", "Set the partition active (the partition the computer boots from)."},
                 {"/-ACT", "Remove the active flag from the partition."},
                 {"/P:partn-no", "The partition number as shown by /STATUS."},
                 kX, kI, kU, kS, kNoOsLayout});
      return;
    case ccHide:
    case ccUnhide:
      describe("Hides a regular partition or unhides a hidden partition.\n\n");
      print("%s disk /[-]HIDE /P:partn-no [/X] [/I] [/U] [/S] \n", p);
      printList({kDisk,
                 {"/HIDE", "Hide a regular partition."},
                 {"/-HIDE", "Unhide a hidden partition."},
                 {"/P:partn-no", "The partition number as shown by /STATUS."},
                 kX, kI, kU, kS, kNoOsLayout});
      return;
    case ccMbr:
      describe("Reinitialises the boot code in the Master Boot Record.\n\n");
      print("%s disk /MBR [/WIPE] [/P|/Z] [/X] [/I] [/U] [/S] [/Y] [/R]\n", p);
      printList({kDisk,
                 {"/WIPE", "Delete all partitions."},
                 {"/P", "Preserve the Windows disk signatures. Recommended option."},
                 {"/Z", "Clear the Windows disk signatures."},
                 {"/MBR /replace:{file containing mbr}", "Reinitialise the Master Boot Record from the given file."},
                 kX, kI, kU, kS, kNoOsLayout, kY, kR});
      return;
    case ccGpt:
      describe("Reinitialises the Guid Partition Table (GPT).\n\n");
      print("%s disk /GPT /WIPE [/X] [/I] [/U] [/S] [/Y] [/R]\n", p);
      printList({kDisk,
                 {"/WIPE", "Delete all partitions and re-format the disk as a GPT disk."},
                 kX, kI, kU, kS, kNoOsLayout, kY, kR});
      print("\n/GPT switch is only supported in the DOS & Vista version of %s\n\n", p);
      return;
    case ccRevert:
      describe("Reverts the bootable disks mbr to the contents of the mbr.bin file.\n\n");
      print("%s /REVERT [/X] [/I] [/U] [/S] [/Y] [/R]\n", p);
      printList({kX, kI, kU, kS, kNoOsLayout, kY, kR});
      return;
    case ccRestore:
      describe("Writes back the partition tables saved before an earlier change of the disk.\n\n");
      print("%s disk /RESTORE:file [/X] [/I] [/U] [/S] [/Y] [/R]\n", p);
      printList({kDisk,
                 {"/RESTORE:file", "A backup file that a command changing the disk saved\n"
                                   "(in the folder of /BACKUPDIR=, by default the user's state folder)."},
                 kX, kI, kU, kS, kNoOsLayout, kY, kR});
      return;
    case ccDiskWipe:
      describe("Wipes the contents of the whole disk.\n\n");
      print("%s [disk|/DISK:ALL|/DISK:SYSTEM] /DISKWIPE [/DODWIPE|/CUSTOMWIPE:passes] [/KEEPCORVOBOOT] [/X] [/I] [/U]\n",
            p);
      printList({kDisk,
                 {"/DISK:ALL", "Wipe all attached disks."},
                 {"/DISK:SYSTEM", "Wipe the disk that holds the first bootable partition."},
                 {"/DODWIPE", "DoD 5220.22-M wipe of the whole disk."},
                 {"/CUSTOMWIPE:passes", "DoD 5220.22-M wipe of the whole disk with a custom number of passes."},
                 {"/KEEPCORVOBOOT", "Preserve Corvo partition which was used to boot."},
                 kX, kI, kU, kY});
      return;
    case ccBootIni:
      describe("Modifies boot.ini file on Windows NT/2000 platforms.\n\n");
      print("%s /BOOTINI /ADD /D:disk-no /P:partn-no /DESC:desc [/INIFILE:filename]\n", p);
      print("%s /BOOTINI /REMOVE /ENTRY:no [/INIFILE:filename] [/R]\n", p);
      print("%s /BOOTINI /DEFAULT [/ENTRY:no] [/TIMEOUT:sec] [/INIFILE:filename] [/R]\n", p);
      printList({{"/ADD", "Add an entry to the boot menu (boot.ini editing)."},
                 {"/REMOVE", "Remove an entry from the boot menu."},
                 {"/DEFAULT", "Set the default entry and the timeout of the boot menu."},
                 {"/D:disk-no", "The fixed disk of the new entry (1-128)."},
                 {"/P:partn-no", "The partition of the new entry as shown by /STATUS."},
                 {"/DESC:desc", "Description of the new entry."},
                 {"/ENTRY:no", "Number of the boot menu entry."},
                 {"/TIMEOUT:sec", "Seconds the boot menu waits for a choice."},
                 {"/INIFILE:filename", "The boot.ini file. Default is C:\\boot.ini."},
                 {"/BSECTFILE:filename", "The boot sector file made for a new entry.\n"
                                         "Default is C:\\<desc without invalid chars>.dat."},
                 {"/WINNT", "The new entry starts Windows NT/2000/XP from its system folder."},
                 {"/SYSFOLDER:folder", "The system folder of the new entry. Default is WINNT."},
                 kR});
      return;
    case ccBatch:
      print("Executes a batch file of %s commands.\n\n", p);
      print("%s [disk] /BATCH[:filename] [switch[switch...]]\n", p);
      printList({{"disk", "The physical fixed disk (1-128), added to every command of the batch."},
                 {"/BATCH:filename", "Runs the command lines of the file, one per line. Empty lines and\n"
                                     "lines starting with # are skipped; the first failing line stops the batch."},
                 {"/BATCH", "Without a file name the command lines are typed at the console;\n"
                            "an empty line ends the batch."},
                 {"switch", "Switches added to every command line of the batch."}});
      return;
    case ccView:
      describe("Views the contents of one or more sectors of a physical disk.\n\n");
      print("%s disk /VIEW:n [/NUM:num-sectors] [/PAGE]\n", p);
      printList({kDisk,
                 {"/VIEW:n", "The first sector to view, counted from 0."},
                 {"/NUM:num-sectors", "The number of sectors to view. Default is 1."},
                 {"/PAGE", "Pause after each page: press any key to go on, or 'q' to quit."}});
      return;
    case ccHelpShown:
    case ccAtaSecurity: break;
  }
  printGeneralHelp(program);
}

}  // namespace Kdisk
