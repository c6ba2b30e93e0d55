#include "foundation/shared_library.h"

#include <gtest/gtest.h>
#include <uv.h>

#include "platform.h"

namespace fn {
namespace {

TEST(SharedLibrary, LoadsLibrariesFindsSymbolsAndExplainsFailures) {
  // The system's C library, or on Windows its kernel, both of which tell the process id.
  bool windows = testing_support::isWindows();
  char const* symbol = windows ? "GetCurrentProcessId" : "getpid";
  SharedLibrary libc;
  EXPECT_THROW(libc.getSymbol(symbol), SharedLibraryException);
  libc.load(windows ? "kernel32.dll" : "libc.so.6");
  EXPECT_EQ(static_cast<int>(libc.getSymbolAs<unsigned long (*)()>(symbol)()), uv_os_getpid());
  EXPECT_THROW(libc.getSymbol("noSuchSymbolAnywhere"), SharedLibraryException);
  EXPECT_THROW(libc.load("libm.so.6"), SharedLibraryException);

  SharedLibrary missing;
  try {
    missing.load(String("/nonexistent/libnothing") + SHARED_LIBRARY_SUFFIX);
    ADD_FAILURE() << "a missing library was loaded";
  } catch (SharedLibraryException const& e) {
    // The loader's own explanation travels as the detail.
    ASSERT_TRUE(e.info().detail);
    EXPECT_FALSE(e.info().detail->empty());
    if (!windows) {
      EXPECT_NE(e.info().detail->find("No such file"), String::npos) << *e.info().detail;
    }
  }
  EXPECT_FALSE(missing.isLoaded());
}

}  // namespace
}  // namespace fn
