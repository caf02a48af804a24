#include "dova/filesystem/filesystem.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <system_error>

#include "private_opt.h"

namespace {

namespace dfs = dova::filesystem;

TEST(DovaFilesystem, PathCollapsesSeparatorRuns) {
  EXPECT_EQ(dfs::path("/opt//quor///imptdata/").string(), "/opt/quor/imptdata/");
  EXPECT_EQ(dfs::path("//").string(), "/");
  EXPECT_EQ(dfs::path("a/b").string(), "a/b");
  EXPECT_EQ(dfs::path("").string(), "");
  EXPECT_EQ(dfs::path(static_cast<const char*>(nullptr)).string(), "");
}

TEST(DovaFilesystem, FilenameIsTheLastComponent) {
  EXPECT_EQ(dfs::path("src/korcommon/log.cpp").filename().string(), "log.cpp");
  EXPECT_EQ(dfs::path("log.cpp").filename().string(), "log.cpp");
  EXPECT_EQ(dfs::path("/a//b").filename().string(), "b");
  EXPECT_EQ(dfs::path("dir/").filename().string(), "");
  EXPECT_EQ(dfs::path("").filename().string(), "");
  EXPECT_EQ(dfs::path("/opt/quor/x.yaml").parent_path().string(), "/opt/quor");
}

TEST(DovaFilesystem, ErrorTextFollowsThePath) {
  const std::error_code code(EACCES, std::generic_category());
  const dfs::filesystem_error with_path(dfs::errorText(EACCES), dfs::path("/opt//x/"), code);
  EXPECT_EQ(std::string(with_path.what()), std::string(std::strerror(EACCES)) + ": '/opt/x/'");
  EXPECT_EQ(with_path.code(), code);
  EXPECT_EQ(with_path.path1().string(), "/opt/x/");

  const dfs::filesystem_error without_path("no such thing", code);
  EXPECT_STREQ(without_path.what(), "no such thing");

  // Caught as the standard system error, the text is the same.
  try {
    throw with_path;
  } catch (const std::system_error& error) {
    EXPECT_STREQ(error.what(), with_path.what());
  }
}

TEST(DovaFilesystem, CreateDirectoriesMakesParentsWithUmaskedMode) {
  KORCOMMON_REQUIRE_PRIVATE_OPT();
  const mode_t previous = umask(022);
  std::error_code error;
  EXPECT_TRUE(dfs::create_directories(dfs::path("/opt/fs_test//a/b/c/"), error));
  EXPECT_FALSE(error);
  struct stat status {};
  ASSERT_EQ(stat("/opt/fs_test/a/b", &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0755u);
  EXPECT_FALSE(dfs::create_directories(dfs::path("/opt/fs_test/a/b/c"), error))
      << "nothing new to create";
  EXPECT_FALSE(error) << "an existing directory is not an error";

  std::ofstream("/opt/fs_test/file") << "x";
  EXPECT_FALSE(dfs::create_directories(dfs::path("/opt/fs_test/file/sub"), error));
  EXPECT_TRUE(error);
  EXPECT_THROW(dfs::create_directories(dfs::path("/opt/fs_test/file/sub")), dfs::filesystem_error);
  umask(previous);
}

}  // namespace
