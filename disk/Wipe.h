// The wipe engine: overwrites every sector of a partition or a disk, pass by pass, and
// reports through the message function and a Progress. The front end asks and decides.
// Mode 1 writes zeros once; mode 2 writes the cycle 0x35, 0xCA, R six times and verifies
// once; mode 3 writes the cycle n times and verifies once. R is a random byte other than
// 0x35 and 0xCA.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "disk/DiskDrive.h"
#include "disk/PartitionedDisk.h"

namespace Corvo::Disk {

enum WipeMode : int { wmNone = 0, wmQuick = 1, wmDod = 2, wmCustom = 3 };

// A run of sectors, relative to the device being wiped.
using WipeExtent = SectorRange;

// 1 for mode 1, 19 for mode 2, 3 x customCount + 1 for mode 3, 0 otherwise.
unsigned wipePassCount(int mode, unsigned customCount);

// Draws the third pattern byte from the C runtime generator (already seeded): redrawn up to
// 1000 times while it equals 0x35 or 0xCA.
uint8_t drawWipeRandomByte();

// Overwrites the given extents of the device (all of it when extents is empty). A device that
// cannot be written is refused before the first pass (the disk layer's error is thrown). Every
// writing pass goes past the system's cache and is flushed before the next begins; the
// verifying pass of modes 2 and 3 reads the medium and compares it with the last pattern. A
// chunk that fails is retried sector by sector and the pass goes on; every range that could
// not be written (or did not read back as written) is returned, in order, for the caller to
// report: a wipe that returns ranges has failed. Throws Core::Error for failures that are not about single
// sectors, such as a failed flush. Uses two buffers of the device's transfer length.
std::vector<WipeExtent> wipeDevice(BlockDevice& device, int mode, unsigned customCount,
                                   const std::vector<WipeExtent>& extents = {});

// Wipes the sectors [first, first + count) of the layout's drive, leaving out the `keep`
// extents (relative to first) and every sector that holds a partition table structure of the
// disk (layout.tableSectors()), which the wipe never writes: an entry that covers the master
// boot record, an extended boot record or a GPT array leaves them as they are, and the
// information message says how many sectors were left. Refuses with Core::Error, writing
// nothing, when the range does not lie on the disk, the drive cannot be written or the range
// is mounted or in use.
std::vector<WipeExtent> wipePartition(const PartitionedDisk& layout, uint64_t first, uint64_t count, int mode,
                                      unsigned customCount, const std::vector<WipeExtent>& keep = {});

// The runs of [0, count) that lie outside every `keep` extent, in order.
std::vector<WipeExtent> extentsOutside(uint64_t count, std::vector<WipeExtent> keep);

// The error text of a wipe that left sectors unwritten: "N sector(s) could not be written".
std::string unwrittenSectorsText(const std::vector<WipeExtent>& failed);

}  // namespace Corvo::Disk
