#include "util/KTFileUtil.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/ResourceLimit.h"
#include "util/KTPathUtil.h"
#include "util/KTStreamUtil.h"
#include "util/KTThrowable.h"

namespace {

namespace fs = std::filesystem;
namespace files = orv::util::files;
namespace paths = orv::util::paths;
namespace streams = orv::util::streams;
using orv::test::ResourceLimit;

std::string narrow(const KTWideString& text) {
  return toNarrow(text).c_str();
}

// A directory of its own for each test, and what the module calls it.
class KTFileUtil : public testing::Test {
 protected:
  KTFileUtil() {
    std::string name = (fs::temp_directory_path() / "filesXXXXXX").string();
    root_ = mkdtemp(name.data());
  }
  ~KTFileUtil() override { fs::remove_all(root_); }

  KTWideString wide(const std::string& name) const {
    return paths::toBackslashes(toWide((root_ / name).string().c_str()));
  }
  void write(const std::string& name, const std::string& text) const { std::ofstream(root_ / name) << text; }
  std::string read(const std::string& name) const {
    std::ifstream file(root_ / name);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  // The characters of a file, read directly or through a pipe, which has no positions to go back to.
  std::vector<i32> charactersOf(const std::string& name, bool piped) const {
    const std::string path = (root_ / name).string();
    std::FILE* const stream = piped ? popen(("cat " + path).c_str(), "r") : std::fopen(path.c_str(), "r");
    streams::skipBom(stream);
    std::vector<i32> characters;
    for (i32 next = 0; (next = streams::readWideChar(stream, true)) >= 0;) characters.push_back(next);
    EXPECT_TRUE(streams::feof(stream));
    piped ? pclose(stream) : std::fclose(stream);
    return characters;
  }

  fs::path root_;
};

// A pipe moves less than is asked for, and signals cut its transfers short or stop them before the first
// byte.
TEST_F(KTFileUtil, finishesShortReadsAndWrites) {
  struct sigaction quiet {};
  quiet.sa_handler = [](int) {};
  sigaction(SIGUSR1, &quiet, nullptr);
  int ends[2];
  ASSERT_EQ(0, pipe(ends));
  constexpr i64 kSize = 1'000'000;
  std::string sent, got(kSize + 10, '\0');
  for (u32 i = 0; i < kSize; ++i) sent += static_cast<char>(i * 7 + i / 251);
  std::atomic<int> running{2};
  std::thread writer([&] {
    EXPECT_EQ(kSize, files::writeAll(ends[1], sent.data(), kSize));
    close(ends[1]);
    --running;
  });
  std::thread reader([&] {
    EXPECT_EQ(kSize, files::readAll(ends[0], got.data(), kSize + 10));
    --running;
  });
  while (running > 0) {
    pthread_kill(writer.native_handle(), SIGUSR1);
    pthread_kill(reader.native_handle(), SIGUSR1);
    std::this_thread::yield();
  }
  writer.join();
  reader.join();
  close(ends[0]);
  EXPECT_EQ(sent, got.substr(0, kSize));
}

TEST_F(KTFileUtil, tellsFailedTransfers) {
  char byte = 0;
  EXPECT_EQ(-1, files::readAll(-1, &byte, 1));
  EXPECT_EQ(0, files::readAll(-1, &byte, 0));
  const int full = open("/dev/full", O_WRONLY);
  EXPECT_EQ(-1, files::writeAll(full, "x", 1));
  close(full);

  // The first call moves what the limit leaves, the second one fails.
  const int fd = files::openTempFile();
  signal(SIGXFSZ, SIG_IGN);
  {
    const ResourceLimit<RLIMIT_FSIZE> small(60);
    EXPECT_EQ(-1, files::writeAll(fd, std::string(100, 'x').data(), 100));
  }
  EXPECT_EQ(60, files::seek64(fd, 0, SEEK_END));
  close(fd);
}

TEST_F(KTFileUtil, temporaryFileHasNoNameAndMayHaveHoles) {
  setenv("TMPDIR", root_.c_str(), 1);
  const int fd = files::openTempFile();
  ASSERT_GE(fd, 0);
  EXPECT_TRUE(fs::is_empty(root_));
  EXPECT_TRUE(files::setSparse(fd));
  const i64 far = i64{5} << 32;
  EXPECT_EQ(far, files::extendTo(fd, far));
  EXPECT_EQ(far + 1, files::seek64(fd, 0, SEEK_END));
  EXPECT_EQ(-1, files::extendTo(fd, -1));
  EXPECT_EQ(-1, files::seek64(-1, 0, SEEK_SET));
  EXPECT_FALSE(files::setSparse(-1));
  close(fd);
  setenv("TMPDIR", "/no/such/directory", 1);
  EXPECT_EQ(-1, files::openTempFile());
  unsetenv("TMPDIR");
}

TEST_F(KTFileUtil, nullStreamsNeverFault) {
  char byte = 0;
  EXPECT_TRUE(streams::feof(nullptr));
  EXPECT_EQ(-1, streams::fgetc(nullptr));
  EXPECT_EQ(-1, streams::fputc('x', nullptr));
  EXPECT_EQ(-1, streams::ungetc('x', nullptr));
  EXPECT_EQ(-1, streams::fflush(nullptr));
  EXPECT_EQ(-1, streams::tell(nullptr));
  EXPECT_EQ(-1, streams::seek(nullptr, 0, SEEK_SET));
  for (const bool utf8 : {false, true}) EXPECT_EQ(-1, streams::readWideChar(nullptr, utf8));
  EXPECT_EQ(0u, streams::fread(&byte, 1, 1, nullptr) + streams::fwrite(&byte, 1, 1, nullptr));
  streams::skipBom(nullptr);
  const char* none = nullptr;
  std::size_t size = 0;
  streams::skipBom(none, size);
  EXPECT_EQ(nullptr, none);
}

TEST_F(KTFileUtil, readsUtf8ByTheCharacter) {
  const struct {
    const char* bytes;
    std::vector<i32> characters;
  } kCases[] = {{"", {}},
                {"\xEF\xBB\xBF", {}},
                {"\xEF\xBB\xBFxy", {'x', 'y'}},
                {"\xEF\xBBx", {0xEF, 0xBB, 'x'}},
                {"\xEF\xBB\xBF\xEF\xBB\xBF", {0xFEFF}},  // The second one is text.
                {"\xE2\x82\xACx\xC3\xA9", {0x20AC, 'x', 0xE9}},
                {"\xE2\xC3\xA9", {0xE2, 0xE9}},
                {"\xE2\x82xy", {0xE2, 0x82, 'x', 'y'}},
                {"\xE2\x82", {0xE2, 0x82}},
                {"\xF0\x9F\x98\x80", {0xF0, 0x9F, 0x98, 0x80}}};
  for (const auto& c : kCases) {
    write("text", c.bytes);
    for (const bool piped : {false, true})
      EXPECT_EQ(c.characters, charactersOf("text", piped)) << testing::PrintToString(c.bytes) << piped;
  }
  const char text[] = "\xEF\xBB\xBFx";
  const char* buffer = text;
  std::size_t size = 2;
  streams::skipBom(buffer, size);
  EXPECT_TRUE(buffer == text && size == 2);
  size = 4;
  streams::skipBom(buffer, size);
  EXPECT_TRUE(buffer == text + 3 && size == 1);
  write("plain", "Q");
  std::FILE* const plain = std::fopen((root_ / "plain").c_str(), "r");
  EXPECT_EQ('Q', streams::readWideChar(plain, false));
  EXPECT_EQ(-1, streams::readWideChar(plain, false));
  fclose(plain);
}

TEST_F(KTFileUtil, appendsLines) {
  EXPECT_TRUE(files::appendLine(wide("log"), "%s %d", "one", 1));
  EXPECT_TRUE(files::appendLine(wide("log"), "%s", std::string(2000, 'x').c_str()));
  EXPECT_EQ("one 1\n" + std::string(1023, 'x') + "\n", read("log"));
  EXPECT_FALSE(files::appendLine(wide("missing/log"), "x"));
}

TEST_F(KTFileUtil, handlesFilesByWideNames) {
  const KTWideString a = wide("a\u20AC"), b = wide("b"), c = wide("c"), directory = wide("d");
  write("a\u20AC", "text");
  orv::platform::FileState state;
  EXPECT_TRUE(files::stat(a, &state) == 0 && state.size == 4);
  EXPECT_EQ(-1, files::stat(b, &state));
  EXPECT_TRUE(files::copyFile(a, b) && files::renameFile(b, c));
  EXPECT_EQ("text", read("c"));
  EXPECT_FALSE(files::copyFile(b, c) || files::renameFile(b, c));
  EXPECT_TRUE(files::access(c, 4) == 0 && files::access(b, 0) == -1);
  EXPECT_TRUE(files::deleteFile(c));
  EXPECT_FALSE(files::deleteFile(c) || files::deleteFile(KTWideString(u"\0c", 2) + a));
  for (const int result : {0, -1}) EXPECT_EQ(result, files::makeDirectory(directory));
  for (const KTWideString& name : {directory, directory + u'\\', KTWideString(u"\\")})
    EXPECT_TRUE(files::isDirectory(name)) << narrow(name);
  for (const KTWideString& name : {a, b, KTWideString()})
    EXPECT_FALSE(files::isDirectory(name)) << narrow(name);
  EXPECT_FALSE(files::isReadOnly(a) || files::isReadOnly(b));
  fs::permissions(root_ / "a\u20AC", fs::perms::owner_read);
  EXPECT_TRUE(files::isReadOnly(a));
  EXPECT_TRUE(files::removeDirectory(directory));
  EXPECT_FALSE(files::removeDirectory(directory) || files::removeDirectory(a));
}

TEST_F(KTFileUtil, createsTheDirectoriesOfAFile) {
  EXPECT_TRUE(files::createDirectories(wide("a/b/file")));
  EXPECT_TRUE(fs::is_directory(root_ / "a/b") && !fs::exists(root_ / "a/b/file"));
  EXPECT_TRUE(files::createDirectories(wide("a\\c/d\\")));
  EXPECT_TRUE(fs::is_directory(root_ / "a/c/d"));
  EXPECT_TRUE(files::createDirectories(wide("a/b/")) && files::createDirectories(u"bare"));
  write("file", "");
  EXPECT_FALSE(files::createDirectories(wide("file/x/y")) || files::createDirectories(wide("file/")) ||
               files::createDirectories(u""));
}

TEST_F(KTFileUtil, removesADeepTreeWithFewDescriptors) {
  const int home = open(".", O_RDONLY | O_DIRECTORY);
  ASSERT_EQ(0, chdir(root_.c_str()));
  for (int depth = 0; depth < 500; ++depth) {  // Beyond the longest path and the most open files.
    ASSERT_EQ(0, mkdir("directory", 0777));
    close(creat(depth % 2 ? "file" : "\xF0\x9F\x98\x80\\", 0666));  // The second name is no wide text.
    ASSERT_EQ(0, chdir("directory"));
  }
  ASSERT_EQ(0, fchdir(home));
  close(home);
  const ResourceLimit<RLIMIT_NOFILE> few(32);
  EXPECT_TRUE(files::removeTree(wide("")));
  EXPECT_FALSE(fs::exists(root_));
}

TEST_F(KTFileUtil, removesLinksAndKeepsWhatTheyPointTo) {
  fs::create_directories(root_ / "kept/inside");
  write("kept/file", "still here");
  fs::create_directories(root_ / "tree/sub");
  fs::create_symlink("../kept", root_ / "tree/toDirectory");
  fs::create_symlink(root_ / "kept/file", root_ / "tree/sub/toFile");
  fs::create_symlink("nowhere", root_ / "tree/sub/broken");
  fs::create_symlink("..", root_ / "tree/sub/up");
  EXPECT_TRUE(files::removeTree(wide("tree\\")));
  EXPECT_FALSE(fs::exists(root_ / "tree"));
  fs::create_symlink("kept", root_ / "link");
  EXPECT_TRUE(files::removeTree(wide("link\\")));
  EXPECT_FALSE(fs::exists(fs::symlink_status(root_ / "link")));
  EXPECT_EQ("still here", read("kept/file"));
  EXPECT_TRUE(fs::exists(root_ / "kept/inside"));
  for (const char* refused : {"kept/file", "kept/.", "kept/inside/..", "missing"})
    EXPECT_FALSE(files::removeTree(wide(refused))) << refused;
  EXPECT_FALSE(files::removeTree(u"\\") || files::removeTree(u""));
  EXPECT_EQ("still here", read("kept/file"));
}

TEST_F(KTFileUtil, aReadOnlyDirectoryStaysAndTheRestGoes) {
  for (const char* name :
       {"tree/locked/sub", "tree/unreadable", "tree/free/sub", "tree/listed", "tree/m/sub", "tree/z/sub"})
    fs::create_directories(root_ / name);
  write("tree/locked/file", "x");
  write("tree/free/file", "x");
  const uid_t self = geteuid(), nobody = 65534;
  ASSERT_TRUE(self != 0 || chown(root_.c_str(), nobody, nobody) == 0);
  for (const auto& entry : fs::recursive_directory_iterator(root_))
    ASSERT_TRUE(self != 0 || chown(entry.path().c_str(), nobody, nobody) == 0);
  fs::permissions(root_ / "tree/locked", fs::perms(0555));
  fs::permissions(root_ / "tree/unreadable", fs::perms(0));
  fs::permissions(root_ / "tree/listed", fs::perms(0444));  // No way back up from it.
  ASSERT_TRUE(self != 0 || seteuid(nobody) == 0);           // Permissions don't bind the superuser.
  EXPECT_FALSE(files::removeTree(wide("tree")));
  ASSERT_EQ(0, seteuid(self));
  EXPECT_EQ("x", read("tree/locked/file"));
  for (const char* gone : {"tree/unreadable", "tree/free", "tree/listed", "tree/m", "tree/z"})
    EXPECT_FALSE(fs::exists(root_ / gone)) << gone;
  fs::permissions(root_ / "tree/locked", fs::perms(0755));
}

TEST(KTPathUtil, rules) {
  const struct {
    KTWideString (*rule)(const KTWideString&);
    std::vector<std::pair<const char16_t*, const char16_t*>> results;
  } kRules[] = {
      {paths::fileName, {{u"C:\\a\\b.flv", u"b.flv"}, {u"b.flv", u"b.flv"}, {u"a\\", u""}, {u"a/b", u"a/b"}}},
      {paths::parentDirectory,
       {{u"C:\\a\\b", u"C:\\a"}, {u"C:\\a", u"C:\\"}, {u"C:\\", u"C:\\"}, {u"ab\\c", u"ab"}, {u"\\a", u""}}},
      {paths::stripTrailingSeparator,
       {{u"C:\\a\\", u"C:\\a"},
        {u"C:\\a", u"C:\\a"},
        {u"C:\\", u"C:\\"},
        {u"C:", u"C:\\"},
        {u"ab\\", u"ab"},
        {u"a\\\\", u"a\\"},
        {u"", u""}}},
      {paths::toBackslashes, {{u"/a\\b//c", u"\\a\\b\\\\c"}}},
      {paths::toForwardSlashes,
       {{u"\\\\server\\a", u"server/a"}, {u"C:\\a", u"C/a"}, {u"\\a:\\b", u"/a:/b"}}},
      {paths::safeFileName, {{u"a\\/:*?\"<>|b.c", u"a_________b.c"}}}};
  for (const auto& [rule, results] : kRules) {
    for (const auto& [path, result] : results) EXPECT_EQ(narrow(result), narrow(rule(path))) << narrow(path);
  }
  for (const char16_t* path : {u"\\\\a", u"a\\\\b", u"C:"})
    EXPECT_TRUE(paths::isAbsolute(path)) << narrow(path);
  for (const char16_t* path : {u"\\a", u"", u"ab:"}) EXPECT_FALSE(paths::isAbsolute(path)) << narrow(path);
}

TEST(KTPathUtil, joins) {
  KTWideString out;
  const struct {
    const char16_t *base, *relative, *joined;
  } kGood[] = {{u"a", u"b/c", u"a\\b\\c"},
               {u"a\\", u"\\b", u"a\\b"},
               {u"", u"/b", u"b"},
               {u"a/x", u"", u"a/x\\"},
               {u"a", u"b..c", u"a\\b..c"},
               {u"a", u"...\\b", u"a\\...\\b"},
               {u"a", u"b..\\..\\c", u"a\\b..\\..\\c"}};  // Only the first ".." is looked at.
  for (const auto& c : kGood) {
    EXPECT_TRUE(paths::join(c.base, c.relative, &out, false, false)) << narrow(c.relative);
    EXPECT_EQ(narrow(c.joined), narrow(out));
  }
  for (const char16_t* refused :
       {u"C:\\b", u"//h/b", u"\\/h", u"b//c", u"..\\b", u"b/../c", u"b\\..", u".."}) {
    EXPECT_FALSE(paths::join(u"a", refused, &out, false, false)) << narrow(refused);
    EXPECT_EQ("a\\", narrow(out));
  }
  for (const char16_t* absolute : {u"C:\\b", u"C:\\..\\b", u"//h/b"}) {
    EXPECT_TRUE(paths::join(u"a", absolute, &out, true, false));
    EXPECT_EQ(narrow(absolute), narrow(out));
  }
  EXPECT_TRUE(paths::join(u"a", u"..", &out, false, true));
  EXPECT_EQ("a\\..", narrow(out));
  EXPECT_TRUE(paths::join(out, out, &out, false, true));
  EXPECT_EQ("a\\..\\a\\..", narrow(out));
}

// Prints what it sees: the test below runs it in a place whose name is no wide text.
TEST(KTPathUtil, moduleDirectoryHoldsThisProgram) {
  const std::string directory = fs::read_symlink("/proc/self/exe").parent_path().string() + "/";
  try {
    EXPECT_EQ(directory, std::string(paths::toNative(paths::moduleDirectory()).c_str()));
    EXPECT_EQ(paths::moduleDirectory(), paths::parentDirectory(u"name"));
  } catch (const KTException& error) {
    FAIL() << narrow(error.message);
  }
}

TEST_F(KTFileUtil, moduleDirectoryThatCannotBeNamedThrows) {
  const fs::path program = root_ / "\xF0\x9F\x98\x80";
  fs::copy_file("/proc/self/exe", program);
  const std::string command =
      program.string() + " --gtest_filter=KTPathUtil.moduleDirectory* > " + root_.string() + "/log";
  EXPECT_NE(0, std::system(command.c_str()));
  EXPECT_NE(std::string::npos,
            read("log").find("GetModuleFileName failed. Error was " + std::to_string(EILSEQ)));
}

}  // namespace
