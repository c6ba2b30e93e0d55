#include "foundation/exception_factory.h"

#include <gtest/gtest.h>

#include "foundation/uv/status.h"
#include "support.h"

namespace fn {
namespace {

FN_DECLARE_EXCEPTION(QuotaException, RuntimeException);

template <typename E>
E caught(std::exception_ptr const& error) {
  try {
    std::rethrow_exception(error);
  } catch (E const& e) {
    return e;
  } catch (...) {
    ADD_FAILURE() << "not of the expected class: " << describeException(error);
  }
  return E();
}

String classOf(std::exception_ptr const& error) {
  try {
    std::rethrow_exception(error);
  } catch (Exception const& e) {
    return e.className();
  }
}

TEST(ExceptionFactory, RebuildsRegisteredClassesWithTheirInformation) {
  auto& factory = ExceptionFactory::instance();
  for (char const* name : {"RuntimeException", "RangeException", "DataFormatException",
                           "NullPointerException", "IllegalStateException", "IOException",
                           "FileException", "TimeoutException", "UVException"}) {
    EXPECT_TRUE(factory.knows(name)) << name;
    EXPECT_EQ(classOf(factory.createException(name, "m")), name);
  }

  ErrorInfo info;
  info.path = "/tmp/x";
  info.errnoValue = 2;
  info.stackTrace = std::vector<StackFrame>{{0x1234, "libfn.so", "open", "file.cpp", 12}};
  auto file = caught<FileException>(factory.createException("FileException", "gone", info));
  EXPECT_EQ(file.message(), "gone");
  EXPECT_EQ(file.info().path, "/tmp/x");
  EXPECT_EQ(file.info().errnoValue, 2);
  EXPECT_EQ(file.info().stackTrace, info.stackTrace);
  EXPECT_FALSE(file.info().detail);
  // A subclass stays catchable as its bases.
  caught<uv::UVException>(factory.createException("UVException", "refused"));
  caught<IOException>(factory.createException("UVException", "refused"));

  // Another library's class, once registered.
  EXPECT_FALSE(factory.knows("QuotaException"));
  factory.registerClass<QuotaException>();
  EXPECT_EQ(caught<QuotaException>(factory.createException("QuotaException", "full")).message(),
            "full");
}

TEST(ExceptionFactory, UnknownClassesBecomeRuntimeExceptionsThatNameTheirClass) {
  auto& factory = ExceptionFactory::instance();
  auto plain = caught<RuntimeException>(factory.createException("MediaException", "no codec"));
  EXPECT_EQ(plain.className(), "RuntimeException");
  EXPECT_EQ(plain.message(), "no codec");
  EXPECT_EQ(plain.info().detail, "MediaException");

  ErrorInfo info;
  info.detail = "h.265";
  info.errorCode = 7;
  auto detailed = caught<RuntimeException>(factory.createException("MediaException", "x", info));
  EXPECT_EQ(detailed.info().detail, "MediaException: h.265");
  EXPECT_EQ(detailed.info().errorCode, 7);
}

}  // namespace
}  // namespace fn
