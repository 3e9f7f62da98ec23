#include "disk/layout/WipedDisk.h"

#include <array>

#include "core/Error.h"
#include "core/Trace.h"
#include "disk/layout/BiosBootRecord.h"
#include "disk/layout/PartitionTypes.h"

namespace Corvo::Disk {

std::vector<const PartitionNode*> keptUtilityPartitions(const PartitionedDisk& disk) {
  std::vector<const PartitionNode*> kept;
  if (disk.scheme() != PartitionScheme::Mbr) return kept;
  for (const auto& root : disk.roots())
    if (root->role == PartitionRole::Primary && root->tableBlock == 0 && root->slot >= 0 && root->firstBlock > 0 &&
        root->blockCount > 0 && isDiagnosticType(root->type))
      kept.push_back(root.get());
  return kept;
}

void writeKeptBootRecord(DiskDrive& drive, const std::vector<const PartitionNode*>& kept) {
  Core::TraceScope scope("writeKeptBootRecord");
  std::array<uint8_t, BiosBootRecord::kSize> sector{};
  drive.read(0, 1, sector.data());
  BiosBootRecord record(true, BiosBootRecord::kMaxSlots, sector.data());
  record.setBootCode(nullptr, 0);
  for (unsigned slot = 0; slot < BiosBootRecord::kMaxSlots; ++slot) {
    bool keep = false;
    for (const PartitionNode* n : kept) keep |= n->slot == static_cast<int>(slot);
    if (!keep) record.clearSlot(slot);
  }
  drive.writeRecord(0, record.data(), BiosBootRecord::kSize);
  drive.flush();
}

std::string reportWipedLayout(DiskDrive& drive, const std::vector<const PartitionNode*>& kept) {
  OsLayout layout;
  layout.style = OsLayout::Mbr;
  for (const PartitionNode* n : kept) layout.entries.push_back(osLayoutEntry(*n, static_cast<uint32_t>(n->slot + 1)));
  return reportOsLayout(drive, layout);
}

}  // namespace Corvo::Disk
