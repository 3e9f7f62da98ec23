// Configuration server: library settings are keys named "Class::setting", each read with a
// default at its point of use. Start-up switches are taken out of the argument list here.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace Corvo::Core::Config {

void set(const std::string& key, const std::string& value);
void setBool(const std::string& key, bool value);
void setInt(const std::string& key, int64_t value);
// Multi-valued keys (one value per occurrence, in order), for example the added disks.
void append(const std::string& key, const std::string& value);
bool has(const std::string& key);
void unset(const std::string& key);
void clear();  // forget every key (tests and library shutdown)

bool getBool(const std::string& key, bool def);
int64_t getInt(const std::string& key, int64_t def);
std::string getString(const std::string& key, const std::string& def);
std::vector<std::string> getList(const std::string& key);

// Key holding the paths given with /ADDDISK= (alias /AD=), in the order given.
inline constexpr const char* kAddDiskKey = "DiskManager::addDisk";
// The folder of the partition table backups (/BACKUPDIR=); unset: the user's own state folder.
inline constexpr const char* kBackupFolderKey = "TableBackup::folder";

// Logical and physical sector size of the raw image files (/SECTORSIZE=, /PHYSICALSECTORSIZE=):
// 512 or 4096; the physical size defaults to the logical one.
inline constexpr const char* kImageSectorSizeKey = "ImageFile::sectorSize";
inline constexpr const char* kImagePhysicalSectorSizeKey = "ImageFile::physicalSectorSize";

// Removes the library's start-up switches from args (args[0] is the program name and stays)
// and sets their configuration keys. Accepts /NAME and /NAME=value, any case. Throws
// Core::Error (BadStartupSwitch) naming the switch when a value is missing, unexpected or
// not a number where a number is needed; for a value outside a switch's list of choices the
// error carries the property "choices" (a bad command line rather than a failed start-up).
std::vector<std::string> takeStartupSwitches(const std::vector<std::string>& args);

}  // namespace Corvo::Core::Config
