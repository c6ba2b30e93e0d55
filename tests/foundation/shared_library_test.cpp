#include "foundation/shared_library.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace fn {
namespace {

TEST(SharedLibrary, LoadsLibrariesFindsSymbolsAndExplainsFailures) {
  SharedLibrary libc;
  EXPECT_THROW(libc.getSymbol("getpid"), SharedLibraryException);
  libc.load("libc.so.6");
  EXPECT_EQ(libc.getSymbolAs<pid_t (*)()>("getpid")(), ::getpid());
  EXPECT_THROW(libc.getSymbol("noSuchSymbolAnywhere"), SharedLibraryException);
  EXPECT_THROW(libc.load("libm.so.6"), SharedLibraryException);

  SharedLibrary missing;
  try {
    missing.load("/nonexistent/libnothing.so");
    ADD_FAILURE() << "a missing library was loaded";
  } catch (SharedLibraryException const& e) {
    // The loader's own explanation travels as the detail.
    ASSERT_TRUE(e.info().detail);
    EXPECT_NE(e.info().detail->find("No such file"), String::npos) << *e.info().detail;
  }
  EXPECT_FALSE(missing.isLoaded());
}

}  // namespace
}  // namespace fn
