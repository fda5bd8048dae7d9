#include "util/KTFileUtil.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "util/KTPathUtil.h"
#include "util/KTStreamUtil.h"
#include "util/KTThrowable.h"

namespace {

namespace fs = std::filesystem;
namespace files = orv::util::files;
namespace paths = orv::util::paths;
namespace streams = orv::util::streams;

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

  fs::path root_;
};

void onSignal(int) {}

// A pipe moves less than is asked for, and signals cut its transfers short or stop them before the first
// byte.
TEST_F(KTFileUtil, finishesShortReadsAndWrites) {
  struct sigaction quiet {};
  quiet.sa_handler = onSignal;
  sigaction(SIGUSR1, &quiet, nullptr);
  int ends[2];
  ASSERT_EQ(0, pipe(ends));
  std::string sent(1'000'000, '\0');
  for (std::size_t i = 0; i < sent.size(); ++i) sent[i] = static_cast<char>(i * 7 + i / 251);
  const i64 size = static_cast<i64>(sent.size());
  std::atomic<int> running{2};
  i64 written = 0, received = 0;
  std::string got(sent.size() + 10, '\0');
  std::thread writer([&] {
    written = files::writeAll(ends[1], sent.data(), size);
    close(ends[1]);
    --running;
  });
  std::thread reader([&] {
    received = files::readAll(ends[0], got.data(), size + 10);
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
  EXPECT_EQ(size, written);
  EXPECT_EQ(size, received);
  EXPECT_EQ(sent, got.substr(0, sent.size()));
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
  rlimit old{};
  getrlimit(RLIMIT_FSIZE, &old);
  const rlimit small{60, old.rlim_max};
  signal(SIGXFSZ, SIG_IGN);
  setrlimit(RLIMIT_FSIZE, &small);
  EXPECT_EQ(-1, files::writeAll(fd, std::string(100, 'x').data(), 100));
  setrlimit(RLIMIT_FSIZE, &old);
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
  EXPECT_EQ(0u, streams::fread(&byte, 1, 1, nullptr) + streams::fwrite(&byte, 1, 1, nullptr));
  EXPECT_EQ(-1, streams::fflush(nullptr));
  EXPECT_EQ(-1, streams::tell(nullptr));
  EXPECT_EQ(-1, streams::seek(nullptr, 0, SEEK_SET));
  EXPECT_EQ(-1, streams::readWideChar(nullptr, true));
  EXPECT_EQ(-1, streams::readWideChar(nullptr, false));
  streams::skipBom(nullptr);
  const char* none = nullptr;
  std::size_t size = 0;
  streams::skipBom(none, size);
  EXPECT_EQ(nullptr, none);
}

// The characters of a stream that holds `bytes`, from a file or from a pipe, which has no positions to go
// back to.
std::vector<i32> charactersOf(const std::string& bytes, bool piped) {
  int ends[2];
  if (piped ? pipe(ends) != 0 : (ends[0] = ends[1] = files::openTempFile()) < 0) return {};
  files::writeAll(ends[1], bytes.data(), static_cast<i64>(bytes.size()));
  if (piped) {
    close(ends[1]);
  } else {
    files::seek64(ends[0], 0, SEEK_SET);
  }
  std::FILE* const stream = fdopen(ends[0], "r");
  streams::skipBom(stream);
  std::vector<i32> characters;
  for (i32 next = 0; (next = streams::readWideChar(stream, true)) >= 0;) characters.push_back(next);
  EXPECT_TRUE(streams::feof(stream));
  fclose(stream);
  return characters;
}

TEST_F(KTFileUtil, readsUtf8ByTheCharacter) {
  const struct {
    const char* bytes;
    std::vector<i32> characters;
  } kCases[] = {{"", {}},
                {"\xEF\xBB\xBF", {}},
                {"\xEF\xBB\xBF"
                 "ab",
                 {'a', 'b'}},
                {"\xEF\xBB"
                 "a",
                 {0xEF, 0xBB, 'a'}},
                {"\xEF\xBB\xBF\xEF\xBB\xBF", {0xFEFF}},  // The second one is text.
                {"\xE2\x82\xACx\xC3\xA9", {0x20AC, 'x', 0xE9}},
                {"\xE2\xC3\xA9", {0xE2, 0xE9}},
                {"\xE2\x82"
                 "ab",
                 {0xE2, 0x82, 'a', 'b'}},
                {"\xE2\x82", {0xE2, 0x82}},
                {"\xF0\x9F\x98\x80", {0xF0, 0x9F, 0x98, 0x80}},
                {"\xC0\x80", {0xC0, 0x80}}};
  for (const auto& c : kCases) {
    for (const bool piped : {false, true})
      EXPECT_EQ(c.characters, charactersOf(c.bytes, piped)) << testing::PrintToString(c.bytes) << piped;
  }
  const char text[] = "\xEF\xBB\xBFx";
  for (const std::size_t skipped : {3u, 0u}) {
    const char* buffer = text;
    std::size_t size = skipped ? 4 : 2;
    streams::skipBom(buffer, size);
    EXPECT_EQ(text + skipped, buffer);
    EXPECT_EQ(skipped ? 1u : 2u, size);
  }
  write("plain", "Q");
  std::FILE* const plain = fopen((root_ / "plain").c_str(), "r");
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
  write("a\u20AC", "text");
  orv::platform::FileState state;
  EXPECT_EQ(0, files::stat(wide("a\u20AC"), &state));
  EXPECT_EQ(4, state.size);
  EXPECT_EQ(-1, files::stat(wide("b"), &state));
  EXPECT_TRUE(files::copyFile(wide("a\u20AC"), wide("b")) && files::renameFile(wide("b"), wide("c")));
  EXPECT_EQ("text", read("c"));
  EXPECT_FALSE(files::copyFile(wide("b"), wide("c")) || files::renameFile(wide("b"), wide("c")));
  EXPECT_EQ(0, files::access(wide("c"), 4));
  EXPECT_EQ(-1, files::access(wide("b"), 0));
  EXPECT_TRUE(files::deleteFile(wide("c")));
  EXPECT_FALSE(files::deleteFile(wide("c")) || files::deleteFile(KTWideString(u"\0c", 2) + wide("a")));
  EXPECT_EQ(0, files::makeDirectory(wide("d")));
  EXPECT_EQ(-1, files::makeDirectory(wide("d")));
  EXPECT_TRUE(files::isDirectory(wide("d")) && files::isDirectory(wide("d") + u'\\') &&
              files::isDirectory(u"\\"));
  EXPECT_FALSE(files::isDirectory(wide("a\u20AC")) || files::isDirectory(wide("b")) ||
               files::isDirectory(u""));
  EXPECT_FALSE(files::isReadOnly(wide("a\u20AC")) || files::isReadOnly(wide("b")));
  fs::permissions(root_ / "a\u20AC", fs::perms::owner_read);
  EXPECT_TRUE(files::isReadOnly(wide("a\u20AC")));
  EXPECT_TRUE(files::removeDirectory(wide("d")));
  EXPECT_FALSE(files::removeDirectory(wide("d")) || files::removeDirectory(wide("a\u20AC")));
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
  rlimit old{};
  getrlimit(RLIMIT_NOFILE, &old);
  const rlimit few{32, old.rlim_max};
  setrlimit(RLIMIT_NOFILE, &few);
  EXPECT_TRUE(files::removeTree(wide("")));
  setrlimit(RLIMIT_NOFILE, &old);
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
  for (const auto& entry : fs::recursive_directory_iterator(root_))
    ASSERT_TRUE(geteuid() != 0 || chown(entry.path().c_str(), 65534, 65534) == 0);
  ASSERT_TRUE(geteuid() != 0 || chown(root_.c_str(), 65534, 65534) == 0);
  fs::permissions(root_ / "tree/locked", fs::perms(0555));
  fs::permissions(root_ / "tree/unreadable", fs::perms(0));
  fs::permissions(root_ / "tree/listed", fs::perms(0444));  // No way back up from it.
  const uid_t self = geteuid();
  ASSERT_TRUE(self != 0 || seteuid(65534) == 0);  // Permissions don't bind the superuser.
  EXPECT_FALSE(files::removeTree(wide("tree")));
  ASSERT_EQ(0, seteuid(self));
  EXPECT_EQ("x", read("tree/locked/file"));
  for (const char* gone : {"tree/unreadable", "tree/free", "tree/listed", "tree/m", "tree/z"})
    EXPECT_FALSE(fs::exists(root_ / gone)) << gone;
  fs::permissions(root_ / "tree/locked", fs::perms(0755));
}

using Rule = KTWideString (*)(const KTWideString&);

TEST(KTPathUtil, rules) {
  const struct {
    Rule rule;
    const char16_t *path, *result;
  } kCases[] = {{paths::fileName, u"C:\\a\\b.flv", u"b.flv"},
                {paths::fileName, u"b.flv", u"b.flv"},
                {paths::fileName, u"a\\", u""},
                {paths::fileName, u"a/b", u"a/b"},
                {paths::parentDirectory, u"C:\\a\\b", u"C:\\a"},
                {paths::parentDirectory, u"C:\\a", u"C:\\"},
                {paths::parentDirectory, u"C:\\", u"C:\\"},
                {paths::parentDirectory, u"ab\\c", u"ab"},
                {paths::parentDirectory, u"\\a", u""},
                {paths::stripTrailingSeparator, u"C:\\a\\", u"C:\\a"},
                {paths::stripTrailingSeparator, u"C:\\a", u"C:\\a"},
                {paths::stripTrailingSeparator, u"C:\\", u"C:\\"},
                {paths::stripTrailingSeparator, u"C:", u"C:\\"},
                {paths::stripTrailingSeparator, u"ab\\", u"ab"},
                {paths::stripTrailingSeparator, u"a\\\\", u"a\\"},
                {paths::stripTrailingSeparator, u"", u""},
                {paths::toBackslashes, u"/a\\b//c", u"\\a\\b\\\\c"},
                {paths::toForwardSlashes, u"\\\\server\\a", u"server/a"},
                {paths::toForwardSlashes, u"C:\\a", u"C/a"},
                {paths::toForwardSlashes, u"\\a:\\b", u"/a:/b"},
                {paths::safeFileName, u"a\\/:*?\"<>|b.c", u"a_________b.c"}};
  for (const auto& c : kCases) EXPECT_EQ(narrow(c.result), narrow(c.rule(c.path))) << narrow(c.path);
  const struct {
    const char16_t* path;
    bool absolute;
  } kAbsolute[] = {{u"\\\\a", true}, {u"a\\\\b", true}, {u"C:", true},
                   {u"\\a", false},  {u"", false},      {u"ab:", false}};
  for (const auto& c : kAbsolute) EXPECT_EQ(c.absolute, paths::isAbsolute(c.path)) << narrow(c.path);
}

TEST(KTPathUtil, joins) {
  const struct {
    const char16_t *base, *relative;
    bool allowAbsolute, allowDotDot, good;
    const char16_t* out;
  } kCases[] = {
      {u"a", u"b/c", false, false, true, u"a\\b\\c"},
      {u"a\\", u"\\b", false, false, true, u"a\\b"},
      {u"", u"/b", false, false, true, u"b"},
      {u"a/x", u"", false, false, true, u"a/x\\"},
      {u"a", u"C:\\b", true, false, true, u"C:\\b"},
      {u"a", u"C:\\b", false, false, false, u"a\\"},
      {u"a", u"C:\\..\\b", true, false, true, u"C:\\..\\b"},
      {u"a", u"..\\b", false, false, false, u"a\\"},
      {u"a", u"b/../c", false, false, false, u"a\\"},
      {u"a", u"b\\..", false, false, false, u"a\\"},
      {u"a", u"..", false, false, false, u"a\\"},
      {u"a", u"..", false, true, true, u"a\\.."},
      {u"a", u"b..c", false, false, true, u"a\\b..c"},
      {u"a", u"...\\b", false, false, true, u"a\\...\\b"},
      {u"a", u"b..\\..\\c", false, false, true, u"a\\b..\\..\\c"}};  // Only the first ".." is looked at.
  for (const auto& c : kCases) {
    KTWideString out;
    EXPECT_EQ(c.good, paths::join(c.base, c.relative, &out, c.allowAbsolute, c.allowDotDot))
        << narrow(c.relative);
    EXPECT_EQ(narrow(c.out), narrow(out)) << narrow(c.relative);
  }
  KTWideString same(u"a");
  EXPECT_TRUE(paths::join(same, same, &same, false, false));
  EXPECT_EQ("a\\a", narrow(same));
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
