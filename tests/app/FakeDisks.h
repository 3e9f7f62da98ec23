// A partition table model for the front-end tests that records what the commands ask it to
// change; the drive backend over a byte vector is in tests/support/InMemory.h.
#pragma once
#include "core/Config.h"
#include "support/TestSupport.h"
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "app/FixedDisks.h"
#include "core/Error.h"
#include "disk/DiskDrive.h"
#include "disk/PartitionedDisk.h"
#include "tests/support/InMemory.h"

namespace KdiskTest {

// A partition table held as nodes; changes are applied to the nodes and counted.
class FakeLayout : public Corvo::Disk::PartitionedDisk {
 public:
  using Node = Corvo::Disk::PartitionNode;
  using Role = Corvo::Disk::PartitionRole;

  explicit FakeLayout(Corvo::Disk::DiskDrive& drive, Corvo::Disk::PartitionScheme scheme = Corvo::Disk::PartitionScheme::Mbr)
      : PartitionedDisk(drive), scheme_(scheme) {}

  Node* addPrimary(uint64_t first, uint64_t count, uint8_t type, bool active = false) {
    roots_.push_back(makeNode(Role::Primary, first, count, type, active));
    return roots_.back().get();
  }
  Node* addExtended(uint64_t first, uint64_t count, uint8_t type = 0x0F) {
    roots_.push_back(makeNode(Role::Extended, first, count, type, false));
    tail_ = roots_.back().get();
    return tail_;
  }
  // Appends a logical drive to the chain of the last extended partition, with its link entry.
  Node* addLogical(uint64_t first, uint64_t count, uint8_t type, bool active = false) {
    if (tail_->role == Role::Auxiliary || !tail_->children.empty()) {
      auto link = makeNode(Role::Auxiliary, first - 1, count + 1, 0x05, false);
      link->parent = tail_;
      tail_->children.push_back(std::move(link));
      tail_ = tail_->children.back().get();
    }
    auto n = makeNode(Role::Logical, first, count, type, active);
    n->parent = tail_;
    tail_->children.push_back(std::move(n));
    return tail_->children.back().get();
  }

  Corvo::Disk::PartitionScheme scheme() const override { return scheme_; }
  const char* kindName() const override { return gpt() ? "GPT" : "MBR"; }
  Corvo::Disk::TableCapabilities capabilities() const override {
    return gpt() ? Corvo::Disk::TableCapabilities{} : Corvo::Disk::TableCapabilities{true, true, true, true};
  }
  bool gpt() const { return scheme_ == Corvo::Disk::PartitionScheme::Gpt; }
  const std::vector<std::unique_ptr<Node>>& roots() const override { return roots_; }
  const Corvo::Disk::TableFacts& facts() const override { return facts_; }
  std::vector<Corvo::Disk::RawBootRecord> rawTables() const override { return raw; }
  Corvo::Disk::OsLayout osLayout() const override { return {}; }
  void reload() override {
    if (failReload) throw Corvo::Core::Error(Corvo::Core::ErrorId::ReadFailed, "reload failed");
    ++reloads;
  }
  unsigned slotCount() const override { return 4; }
  unsigned primarySlotsInUse() const override { return static_cast<unsigned>(roots_.size()); }
  // Creation fails with "boom" when asked, else appends a node of the requested size at 2048.
  Node* createPrimary(Corvo::Disk::CreationRequest& r) override { return create(r, Role::Primary, 0x06); }
  Node* createExtended(Corvo::Disk::CreationRequest& r) override { return create(r, Role::Extended, 0x05); }
  Node* createLogical(Corvo::Disk::CreationRequest& r) override { return create(r, Role::Logical, 0x06); }
  void remove(Node& node) override {
    ++writes;
    std::erase_if(roots_, [&](const auto& p) { return p.get() == &node; });
  }
  void removeAll() override { ++writes, roots_.clear(); }
  void setActive(Node& node) override {
    failIfAsked();
    for (auto& r : roots_) r->active = false;
    node.active = true;
    ++writes;
  }
  void clearActive(Node& node) override {
    failIfAsked();
    node.active = false;
    ++writes;
  }
  void setType(Node& node, uint8_t type) override {
    failIfAsked();
    node.type = type;
    ++writes;
  }

  Corvo::Disk::TableFacts facts_;
  std::vector<Corvo::Disk::RawBootRecord> raw;
  int writes = 0, reloads = 0;
  bool failWrites = false, createError = false, failReload = false;

 private:
  Node* create(Corvo::Disk::CreationRequest& r, Role role, uint8_t type) {
    if (createError) throw Corvo::Core::Error(Corvo::Core::ErrorId::NoSpace, "boom");
    uint64_t size = r.sizeBlocks == Corvo::Disk::CreationRequest::kLargest ? 4096 : r.sizeBlocks;
    roots_.push_back(makeNode(role, 2048, size, type, false));
    return roots_.back().get();
  }
  void failIfAsked() {
    if (failWrites) throw Corvo::Core::Error(Corvo::Core::ErrorId::WriteFailed, "injected write failure");
  }
  static std::unique_ptr<Node> makeNode(Role role, uint64_t first, uint64_t count, uint8_t type, bool active) {
    auto n = std::make_unique<Node>();
    n->role = role;
    n->firstBlock = first;
    n->blockCount = count;
    n->type = type;
    n->active = active;
    return n;
  }
  Corvo::Disk::PartitionScheme scheme_;
  std::vector<std::unique_ptr<Node>> roots_;
  Node* tail_ = nullptr;
};

// Owns the drives behind the fixed disk table for one test; releases the table first.
class FakeDiskTable {
 public:
  // The table backups of the commands go to a folder of the test's own.
  FakeDiskTable() {
    Kdisk::releaseFixedDiskTable();
    if (!Corvo::Core::Config::has(Corvo::Core::Config::kBackupFolderKey)) {
      Corvo::Core::Config::set(Corvo::Core::Config::kBackupFolderKey, backups_.path());
      ownsFolder_ = true;
    }
  }
  ~FakeDiskTable() {
    Kdisk::releaseFixedDiskTable();
    if (ownsFolder_) Corvo::Core::Config::unset(Corvo::Core::Config::kBackupFolderKey);
  }

  // Adds an accessible disk and returns its layout (its backend is in lastAccess).
  // blocks counts the disk's own sectors of bytesPerSector bytes.
  FakeLayout& add(uint64_t blocks, Corvo::Disk::PartitionScheme scheme = Corvo::Disk::PartitionScheme::Mbr,
                  uint32_t bytesPerSector = 512) {
    auto access = std::make_unique<MemoryAccess>(blocks * (bytesPerSector / 512));
    access->geometry.bytesPerSector = bytesPerSector;
    lastAccess = access.get();
    drives_.push_back(std::make_unique<Corvo::Disk::DiskDrive>(static_cast<uint32_t>(drives_.size()), std::move(access)));
    auto rec = std::make_unique<Kdisk::FixedDisk>();
    rec->index = static_cast<uint32_t>(drives_.size() - 1);
    rec->drive = drives_.back().get();
    auto layout = std::make_unique<FakeLayout>(*rec->drive, scheme);
    FakeLayout& ref = *layout;
    rec->layout = std::move(layout);
    Kdisk::adoptFixedDisk(std::move(rec));
    return ref;
  }
  // Adds a disk that could not be opened.
  void addBroken(const std::string& why) {
    drives_.push_back(nullptr);
    auto rec = std::make_unique<Kdisk::FixedDisk>();
    rec->index = static_cast<uint32_t>(drives_.size() - 1);
    rec->status = Corvo::Core::Error(Corvo::Core::ErrorId::OpenFailed, why);
    Kdisk::adoptFixedDisk(std::move(rec));
  }
  MemoryAccess* lastAccess = nullptr;

 private:
  KdiskTest::TempDir backups_;
  bool ownsFolder_ = false;
  std::vector<std::unique_ptr<Corvo::Disk::DiskDrive>> drives_;
};

}  // namespace KdiskTest
