// /CRE: the creation routines of each partition kind. They work on one fixed disk record,
// print their own messages and return true on success.
#pragma once
#include "app/FixedDisks.h"
#include "disk/PartitionedDisk.h"

namespace Kdisk {

bool createPrimaryDos(FixedDisk& disk, Corvo::Disk::CreationRequest& request);
bool createExtendedDos(FixedDisk& disk, Corvo::Disk::CreationRequest& request);
bool createLogicalDos(FixedDisk& disk, Corvo::Disk::CreationRequest& request);

}  // namespace Kdisk
