#include "foundation/exception.h"

#include "foundation/logging/category.h"
#include "foundation/object.h"

namespace fn {
namespace {
logging::Category logException_("fn.exception");
}

Exception::Exception(StackTrace trace) : Exception(String(), trace) {}

Exception::Exception(String message, StackTrace trace) : _message(std::move(message)) {
  if (trace == StackTrace::Capture)
    _info.stackTrace = captureStackTrace(2);
}

String Exception::toString() const {
  String text = className();
  if (!_message.empty())
    text += ": " + _message;
  if (_info.detail)
    text += " (" + *_info.detail + ")";
  if (_info.path)
    text += " [path " + *_info.path + "]";
  if (_info.errnoValue)
    text += fmt::format(" [errno {}]", *_info.errnoValue);
  if (_info.uvErrno)
    text += fmt::format(" [uv errno {}]", *_info.uvErrno);
  if (_info.winError)
    text += fmt::format(" [windows error {}]", *_info.winError);
  if (_info.errorCode)
    text += fmt::format(" [code {}]", *_info.errorCode);
  return text;
}

String describeException(std::exception_ptr const& error) {
  try {
    std::rethrow_exception(error);
  } catch (Exception const& e) {
    return e.toString();
  } catch (std::exception const& e) {
    return String(fmt::format("{}: {}", demangledTypeName(typeid(e)), e.what()));
  } catch (...) {
    return "Unknown Exception";
  }
}

void logException(std::exception_ptr const& error, std::string_view context) {
  if (context.empty())
    logException_.log(logging::ERR, "{}", describeException(error));
  else
    logException_.log(logging::ERR, "{}: {}", context, describeException(error));
}

void unhandledException() {
  logException(std::current_exception(), "Unhandled exception");
}

}  // namespace fn
