#include "disk/PartitionedDisk.h"

#include "core/Message.h"
#include "disk/layout/PartitionTypes.h"

namespace Corvo::Disk {

const char* roleName(PartitionRole role) {
  switch (role) {
    case PartitionRole::Primary: return "PRIMARY";
    case PartitionRole::Extended: return "EXTENDED";
    case PartitionRole::Logical: return "LOGICAL";
    case PartitionRole::Auxiliary: return "AUXILIARY";
    case PartitionRole::Unknown: break;
  }
  return "UNKNOWN";
}

namespace {
[[noreturn]] void refuse(const char* what, const char* kind) {
  throw Core::Error(Core::ErrorId::NotSupported, Core::format("%s are not supported on %s disks", what, kind));
}
}  // namespace

PartitionNode* PartitionedDisk::createExtended(CreationRequest&) { refuse("Extended DOS partitions", kindName()); }
PartitionNode* PartitionedDisk::createLogical(CreationRequest&) { refuse("Logical DOS drives", kindName()); }
void PartitionedDisk::setActive(PartitionNode&) { refuse("Active partitions", kindName()); }
void PartitionedDisk::clearActive(PartitionNode&) { refuse("Active partitions", kindName()); }
void PartitionedDisk::setType(PartitionNode&, uint8_t) {
  refuse("Partition type bytes (hiding and unhiding)", kindName());
}

OsLayoutEntry osLayoutEntry(const PartitionNode& node, uint32_t number) {
  OsLayoutEntry e;
  e.number = number;
  e.firstBlock = node.firstBlock;
  e.blockCount = node.blockCount;
  e.type = node.type;
  e.active = node.active;
  e.container = node.isExtendedType();
  e.typeGuid = node.typeGuid;
  e.uniqueGuid = node.uniqueGuid;
  e.attributes = node.attributes;
  e.name = node.name;
  return e;
}

std::string reportOsLayout(DiskDrive& drive, const OsLayout& layout) {
  try {
    drive.setNativePartitionLayout(layout);
  } catch (const Core::Error& e) {
    return e.text();
  }
  return {};
}

bool PartitionNode::isExtendedType() const {
  return isExtendedClassType(visibleFormOfType(type));
}
bool PartitionNode::isDosExtended() const { return type == kTypeExtended || type == kTypeExtendedLba; }
bool PartitionNode::isHiddenType() const { return lookupPartitionType(type).hidden; }

const PartitionNode* PartitionNode::extendedContainer() const {
  if (role != PartitionRole::Logical) return nullptr;
  const PartitionNode* p = parent;
  while (p && p->role != PartitionRole::Extended) p = p->parent;
  return p;
}

namespace {
void collect(const PartitionNode& node, std::vector<PartitionNode*>& out) {
  for (const auto& child : node.children) {
    if (child->role == PartitionRole::Logical) out.push_back(child.get());
  }
  for (const auto& child : node.children) {
    if (child->role == PartitionRole::Auxiliary) collect(*child, out);
  }
}
}  // namespace

std::vector<PartitionNode*> PartitionedDisk::displayList() const {
  std::vector<PartitionNode*> out;
  for (const auto& root : roots()) {
    out.push_back(root.get());
    if (root->role == PartitionRole::Extended) collect(*root, out);
  }
  return out;
}

PartitionNode* PartitionedDisk::byDisplayNumber(unsigned number) const {
  auto list = displayList();
  return number >= 1 && number <= list.size() ? list[number - 1] : nullptr;
}

PartitionNode* PartitionedDisk::findByFirstBlock(uint64_t firstBlock) const {
  for (PartitionNode* n : displayList())
    if (n->firstBlock == firstBlock) return n;
  return nullptr;
}

}  // namespace Corvo::Disk
