// GetDirSizeOnDisk: the space the files under a directory take on disk.
#include "zerla_common/dir_size.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>

#include "support/temp_dir.h"

namespace {

constexpr unsigned long kUntouched = 0xDEADBEEFUL;

void WriteFile(const std::string& path, size_t bytes) {
  std::ofstream out(path, std::ios::binary);
  out << std::string(bytes, 'x');
  out.close();
  ASSERT_TRUE(out) << path;
}

unsigned long AllocatedBytes(const std::string& path) {
  struct stat info;
  EXPECT_EQ(lstat(path.c_str(), &info), 0) << path;
  return static_cast<unsigned long>(info.st_blocks) * 512UL;
}

// The sum of lstat's block counts over all entries that are not
// directories, walked independently of the function under test.
unsigned long SumOfBlocks(const std::string& root) {
  unsigned long total = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
    if (entry.is_symlink() || !entry.is_directory()) total += AllocatedBytes(entry.path());
  }
  return total;
}

TEST(GetDirSizeOnDisk, EmptyDirectoryIsZero) {
  testing_support::TempDir dir;
  unsigned long size = kUntouched;
  EXPECT_EQ(GetDirSizeOnDisk(dir.path(), &size), 0);
  EXPECT_EQ(size, 0UL);
}

TEST(GetDirSizeOnDisk, DirectoriesThemselvesDoNotCount) {
  testing_support::TempDir dir;
  ASSERT_EQ(mkdir(dir.Sub("a").c_str(), 0755), 0);
  ASSERT_EQ(mkdir(dir.Sub("a/b").c_str(), 0755), 0);
  ASSERT_EQ(mkdir(dir.Sub("a/b/c").c_str(), 0755), 0);
  ASSERT_EQ(mkdir(dir.Sub("d").c_str(), 0755), 0);
  ASSERT_GT(AllocatedBytes(dir.Sub("a")), 0UL);
  unsigned long size = kUntouched;
  EXPECT_EQ(GetDirSizeOnDisk(dir.path(), &size), 0);
  EXPECT_EQ(size, 0UL);
}

TEST(GetDirSizeOnDisk, SumsTheBlocksOfNestedFiles) {
  testing_support::TempDir dir;
  WriteFile(dir.Sub("top.log"), 5000);
  WriteFile(dir.Sub("empty"), 0);
  ASSERT_EQ(mkdir(dir.Sub("nested").c_str(), 0755), 0);
  WriteFile(dir.Sub("nested/000005.ldb"), 70000);
  ASSERT_EQ(mkdir(dir.Sub("nested/deeper").c_str(), 0755), 0);
  WriteFile(dir.Sub("nested/deeper/MANIFEST-000001"), 1);
  WriteFile(dir.Sub("nested/deeper/big"), 300000);

  const unsigned long expected = AllocatedBytes(dir.Sub("top.log")) +
                                 AllocatedBytes(dir.Sub("empty")) +
                                 AllocatedBytes(dir.Sub("nested/000005.ldb")) +
                                 AllocatedBytes(dir.Sub("nested/deeper/MANIFEST-000001")) +
                                 AllocatedBytes(dir.Sub("nested/deeper/big"));
  ASSERT_GE(expected, 5000UL + 70000UL + 1UL + 300000UL);
  EXPECT_EQ(SumOfBlocks(dir.path()), expected);

  unsigned long size = kUntouched;
  EXPECT_EQ(GetDirSizeOnDisk(dir.path(), &size), 0);
  EXPECT_EQ(size, expected);
}

TEST(GetDirSizeOnDisk, CountsAllocatedBlocksNotLength) {
  testing_support::TempDir dir;
  const std::string sparse = dir.Sub("sparse");
  const int fd = open(sparse.c_str(), O_CREAT | O_WRONLY, 0644);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(ftruncate(fd, 64L << 20), 0);
  ASSERT_EQ(pwrite(fd, "x", 1, 0), 1);
  ASSERT_EQ(close(fd), 0);
  const unsigned long allocated = AllocatedBytes(sparse);
  ASSERT_LT(allocated, 64UL << 20);

  unsigned long size = kUntouched;
  EXPECT_EQ(GetDirSizeOnDisk(dir.path(), &size), 0);
  EXPECT_EQ(size, allocated);
}

TEST(GetDirSizeOnDisk, SymbolicLinksAreNotFollowed) {
  testing_support::TempDir outside;
  WriteFile(outside.Sub("large"), 200000);
  testing_support::TempDir dir;
  WriteFile(dir.Sub("file"), 3000);
  ASSERT_EQ(symlink(outside.path().c_str(), dir.Sub("link_to_dir").c_str()), 0);
  ASSERT_EQ(symlink(outside.Sub("large").c_str(), dir.Sub("link_to_file").c_str()), 0);

  const unsigned long expected = AllocatedBytes(dir.Sub("file")) +
                                 AllocatedBytes(dir.Sub("link_to_dir")) +
                                 AllocatedBytes(dir.Sub("link_to_file"));
  ASSERT_LT(expected, 200000UL);
  unsigned long size = kUntouched;
  EXPECT_EQ(GetDirSizeOnDisk(dir.path(), &size), 0);
  EXPECT_EQ(size, expected);
}

TEST(GetDirSizeOnDisk, MissingDirectoryIsNegativeErrnoAndSizeUntouched) {
  testing_support::TempDir dir;
  unsigned long size = kUntouched;
  EXPECT_EQ(GetDirSizeOnDisk(dir.Sub("missing"), &size), -ENOENT);
  EXPECT_EQ(size, kUntouched);
}

TEST(GetDirSizeOnDisk, EmptyPathIsNegativeErrnoAndSizeUntouched) {
  unsigned long size = kUntouched;
  EXPECT_EQ(GetDirSizeOnDisk("", &size), -ENOENT);
  EXPECT_EQ(size, kUntouched);
}

TEST(GetDirSizeOnDisk, RegularFileIsNotADirectory) {
  testing_support::TempDir dir;
  WriteFile(dir.Sub("file"), 10);
  unsigned long size = kUntouched;
  EXPECT_EQ(GetDirSizeOnDisk(dir.Sub("file"), &size), -ENOTDIR);
  EXPECT_EQ(size, kUntouched);
}

TEST(GetDirSizeOnDisk, NullSizeIsInvalidArgument) {
  testing_support::TempDir dir;
  EXPECT_EQ(GetDirSizeOnDisk(dir.path(), nullptr), -EINVAL);
}

TEST(GetDirSizeOnDisk, FollowsTheGivenPathWhenItIsALink) {
  testing_support::TempDir target;
  WriteFile(target.Sub("data"), 9000);
  testing_support::TempDir dir;
  ASSERT_EQ(symlink(target.path().c_str(), dir.Sub("store").c_str()), 0);
  unsigned long size = kUntouched;
  EXPECT_EQ(GetDirSizeOnDisk(dir.Sub("store"), &size), 0);
  EXPECT_EQ(size, AllocatedBytes(target.Sub("data")));
}

}  // namespace
