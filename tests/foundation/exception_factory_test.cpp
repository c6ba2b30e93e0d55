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

// What travels (message, error information, the detail naming an unknown class) is proven
// across processes by the callable object suite; here, which classes the factory knows.
TEST(ExceptionFactory, RebuildsRegisteredClassesAndNamesUnknownOnes) {
  auto& factory = ExceptionFactory::instance();
  for (char const* name : {"RuntimeException", "RangeException", "DataFormatException",
                           "NullPointerException", "IllegalStateException", "IOException",
                           "FileException", "TimeoutException", "UVException"}) {
    EXPECT_TRUE(factory.knows(name)) << name;
    EXPECT_EQ(classOf(factory.createException(name, "m")), name);
  }
  // A subclass stays catchable as its bases.
  caught<uv::UVException>(factory.createException("UVException", "refused"));
  caught<IOException>(factory.createException("UVException", "refused"));

  // Another library's class, once registered.
  EXPECT_FALSE(factory.knows("QuotaException"));
  auto unknown = caught<RuntimeException>(factory.createException("QuotaException", "full"));
  EXPECT_EQ(unknown.className(), "RuntimeException");
  EXPECT_EQ(unknown.info().detail, "QuotaException");
  factory.registerClass<QuotaException>();
  EXPECT_EQ(caught<QuotaException>(factory.createException("QuotaException", "full")).message(),
            "full");
}

}  // namespace
}  // namespace fn
