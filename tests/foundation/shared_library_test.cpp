#include "foundation/shared_library.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace fn {
namespace {

TEST(SharedLibrary, LoadsLibrariesFindsSymbolsAndExplainsFailures) {
  SharedLibrary libc;
  EXPECT_FALSE(libc.isLoaded());
  EXPECT_THROW(libc.getSymbol("getpid"), SharedLibraryException);

  libc.load("libc.so.6");
  EXPECT_TRUE(libc.isLoaded());
  auto pid = libc.getSymbolAs<pid_t (*)()>("getpid");
  EXPECT_EQ(pid(), ::getpid());
  try {
    libc.getSymbol("noSuchSymbolAnywhere");
    ADD_FAILURE() << "a missing symbol was found";
  } catch (SharedLibraryException const& e) {
    EXPECT_NE(e.toString().find("noSuchSymbolAnywhere"), String::npos) << e.toString();
    EXPECT_EQ(e.info().path, String("libc.so.6"));
  }
  EXPECT_THROW(libc.load("libm.so.6"), SharedLibraryException);

  SharedLibrary missing;
  try {
    missing.load("/nonexistent/libnothing.so");
    ADD_FAILURE() << "a missing library was loaded";
  } catch (SharedLibraryException const& e) {
    EXPECT_EQ(e.info().path, String("/nonexistent/libnothing.so"));
    // The loader's own explanation travels as the detail.
    ASSERT_TRUE(e.info().detail);
    EXPECT_NE(e.info().detail->find("No such file"), String::npos) << *e.info().detail;
  }
  EXPECT_FALSE(missing.isLoaded());
}

}  // namespace
}  // namespace fn
