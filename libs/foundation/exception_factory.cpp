#include "foundation/exception_factory.h"

#include "foundation/uv/status.h"

namespace fn {

ExceptionFactory& ExceptionFactory::instance() {
  static ExceptionFactory* factory = new ExceptionFactory;  // used until the process ends
  return *factory;
}

ExceptionFactory::ExceptionFactory() {
  registerClass<Exception>();
  registerClass<RuntimeException>();
  registerClass<RangeException>();
  registerClass<IllegalArgumentException>();
  registerClass<DataFormatException>();
  registerClass<NullPointerException>();
  registerClass<IllegalStateException>();
  registerClass<IOException>();
  registerClass<FileException>();
  registerClass<TimeoutException>();
  registerClass<OperationTimedOutException>();
  registerClass<uv::UVException>();
}

void ExceptionFactory::registerClass(String const& className, Creator creator) {
  std::lock_guard lock(_mutex);
  _creators[className] = std::move(creator);
}

bool ExceptionFactory::knows(String const& className) const {
  std::lock_guard lock(_mutex);
  return _creators.contains(className);
}

std::exception_ptr ExceptionFactory::createException(String const& className,
                                                     String const& message,
                                                     ErrorInfo info) const {
  Creator creator;
  {
    std::lock_guard lock(_mutex);
    if (auto found = _creators.find(className); found != _creators.end())
      creator = found->second;
  }
  if (creator)
    return creator(message, std::move(info));
  info.detail = info.detail ? String(fmt::format("{}: {}", className, *info.detail)) : className;
  RuntimeException exception(message);
  exception.info() = std::move(info);
  return std::make_exception_ptr(std::move(exception));
}

}  // namespace fn
