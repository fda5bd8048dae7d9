#include "host/files/ModulePath.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "host/text/Failure.h"

namespace orv::host {
namespace {

TEST(ModulePath, anyNameCanBeGivenToTheModuleAndComesBack) {
  const struct {
    const char* native;
    const char* module;
  } kNames[] = {
      {"/films/clip.flv", "\\films\\clip"},
      {"/films/clip.bin", "\\films\\clip.bin%"},
      {"/films/clip.FLV", "\\films\\clip.FLV%"},
      {"/films/clip.flv.flv", "\\films\\clip.flv"},
      {"/films/.flv", "\\films\\"},
      {"/100%/a%41.flv", "\\100%25\\a%2541"},
      {"/x/clip%.flv", "\\x\\clip%25"},
      {"/x/f\xC3\xBC\xF0\x9F\x8E\xAC.flv", "\\x\\f%C3%BC%F0%9F%8E%AC"},
      {"/x/\xFF\n.flv", "\\x\\%FF%0A"},
  };
  for (const auto& name : kNames) {
    EXPECT_EQ(toModulePath(name.native), name.module);
    EXPECT_EQ(toNativePath(moduleFileName(name.module)), name.native);
  }
}

TEST(ModulePath, relativeNamesCountFromTheWorkingDirectory) {
  EXPECT_EQ(toModulePath("two words.flv"), toModulePath(std::filesystem::current_path() / "two words.flv"));
  EXPECT_THROW(toModulePath(""), Failure);
}

// A host's other callers name files without escapes.
TEST(ModulePath, percentWithoutTwoDigitsStandsForItself) {
  EXPECT_EQ(toNativePath("\\a%\\50%x\\%4"), "/a%/50%x/%4");
  EXPECT_EQ(toNativePath("\\f\xC3\xBC.flv"), "/f\xC3\xBC.flv");
}

}  // namespace
}  // namespace orv::host
