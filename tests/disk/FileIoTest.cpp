// The one pread/pwrite loop of the image and Linux backends: a transfer that stops early says
// why through errno (0: the file ended), which the callers turn into their errors.
#include <gtest/gtest.h>

#if !defined(_WIN32)
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <vector>

#include "disk/access/FileIo.h"
#include "support/TestSupport.h"

using namespace Corvo::Disk;

TEST(FileIo, TransfersStopAtTheEndOrTheFailureAndSayWhy) {
  KdiskTest::TempDir dir;
  const std::string path = dir.file("data.bin");
  std::ofstream(path, std::ios::binary) << std::string(1000, 'x');
  const int readOnly = ::open(path.c_str(), O_RDONLY), readWrite = ::open(path.c_str(), O_RDWR);
  ASSERT_GE(readOnly, 0);
  ASSERT_GE(readWrite, 0);
  const struct {
    const char* name;
    bool write;
    int fd;
    uint64_t offset;
    size_t bytes, moved;
    int error;
  } cases[] = {
      {"whole read", false, readOnly, 100, 900, 900, 0},
      {"read past the end", false, readOnly, 600, 1024, 400, 0},
      {"read at the end", false, readOnly, 1000, 512, 0, 0},
      {"read of a closed file", false, -1, 0, 512, 0, EBADF},
      {"write that extends", true, readWrite, 900, 512, 512, 0},
      {"write to a read-only file", true, readOnly, 0, 512, 0, EBADF},
  };
  for (const auto& c : cases) {
    std::vector<char> buffer(c.bytes, 'y');
    errno = 12345;
    const size_t moved = c.write ? writeFully(c.fd, c.offset, buffer.data(), c.bytes)
                                 : readFully(c.fd, c.offset, buffer.data(), c.bytes);
    EXPECT_EQ(moved, c.moved) << c.name;
    if (moved < c.bytes) {
      EXPECT_EQ(errno, c.error) << c.name;
    }
  }
  // The write landed where it was asked to.
  std::vector<char> back(1412);
  EXPECT_EQ(readFully(readOnly, 0, back.data(), back.size()), back.size());
  EXPECT_EQ(back[899], 'x');
  EXPECT_EQ(back[900], 'y');
  EXPECT_EQ(back[1411], 'y');
  ::close(readOnly);
  ::close(readWrite);

  // FileIo turns the short read into its own error and the end of the file into a count.
  FileIo io;
  io.openReadOnly(path);
  std::vector<char> big(2048);
  EXPECT_EQ(io.readSome(1000, big.data(), big.size()), 412u);
  EXPECT_THROW(io.readAt(1000, big.data(), big.size()), Corvo::Core::Error);
}
#endif
