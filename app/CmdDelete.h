// /DEL: the deletion routines of each partition kind, optionally wiping the partition first
// (wipeMode: a WipeMode of the wipe engine). They work on one fixed disk record, print their
// own messages and return true on success.
#pragma once
#include "app/FixedDisks.h"
#include "disk/PartitionedDisk.h"
#include "disk/Wipe.h"

namespace Kdisk {

bool deletePrimaryDos(FixedDisk& disk, Corvo::Disk::PartitionNode& node, Corvo::Disk::WipeMode wipeMode, unsigned customCount);
bool deleteExtendedDos(FixedDisk& disk, Corvo::Disk::PartitionNode& node, Corvo::Disk::WipeMode wipeMode, unsigned customCount);
bool deleteLogicalDos(FixedDisk& disk, Corvo::Disk::PartitionNode& node, Corvo::Disk::WipeMode wipeMode, unsigned customCount);
bool deleteNonDos(FixedDisk& disk, Corvo::Disk::PartitionNode& node, Corvo::Disk::WipeMode wipeMode, unsigned customCount);
bool deleteAllPartitions(FixedDisk& disk, Corvo::Disk::WipeMode wipeMode, unsigned customCount);

}  // namespace Kdisk
