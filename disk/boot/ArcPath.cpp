#include "disk/boot/ArcPath.h"

namespace Corvo::Disk {

// Numbering rule of the NT loader (Microsoft Knowledge Base article Q102873, "BOOT.INI and
// ARC Path Naming Conventions and Usage"): every partition receives a number except
// extended (container) and unused entries; primary partitions are numbered first, in
// partition table slot order, then the logical drives in the order of their chain; the first
// number is 1, while multi(), disk() and rdisk() count from 0. Containers of every extended
// type (0x05, 0x0F and their relatives) count as extended here, as the loader cannot boot
// from a container either.
unsigned arcPartitionOrdinal(const PartitionedDisk& layout, const PartitionNode& node) {
  if (node.role != PartitionRole::Primary && node.role != PartitionRole::Logical) return 0;
  const auto list = layout.displayList();  // slots in slot order, logical drives in chain order
  unsigned ordinal = 0;
  for (const PartitionRole role : {PartitionRole::Primary, PartitionRole::Logical})
    for (const PartitionNode* n : list) {
      if (n->role != role || n->type == 0) continue;
      ++ordinal;
      if (n == &node) return ordinal;
    }
  return 0;
}

std::string arcPath(unsigned diskIndex, unsigned ordinal, const std::string& folder) {
  return "multi(0)disk(0)rdisk(" + std::to_string(diskIndex) + ")partition(" + std::to_string(ordinal) + ")\\" +
         folder;
}

}  // namespace Corvo::Disk
