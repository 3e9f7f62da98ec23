// Product name, version and build stamp shown by the banner, the help and the error file.
#pragma once

namespace Kdisk {

inline constexpr const char* kProductTitle = "Kdisk";
inline constexpr const char* kErrorFileTitle = "Kdisk32";  // first word of the error file header
inline constexpr int kVersionMajor = 11, kVersionMinor = 5, kVersionPatch = 1;
inline constexpr int kBuildNumber = 2259;
inline constexpr const char* kBuildDate = "Dec  8 2009";
inline constexpr const char* kBuildTime = "06:02:36";
// Two lines: printed after the banner and in the error file header.
inline constexpr const char* kNotice =
    "Copyright (C) 1999-2009 The Kdisk developers.\n"
    "Use on disks whose data is backed up; every change is written at once.";
inline constexpr const char* kErrorFileName = "kdiskerr.txt";

}  // namespace Kdisk
