#include "core/console_log_post_processor.h"

#include <algorithm>

namespace core {

std::vector<ConsoleLogPostProcessor::StandardErrorCallback>
    ConsoleLogPostProcessor::_standardErrorCallbacks;
std::mutex ConsoleLogPostProcessor::_standardErrorCallbacksMutex;
int ConsoleLogPostProcessor::_pipe[2] = {-1, -1};
int ConsoleLogPostProcessor::savedStandardError = -1;

void ConsoleLogPostProcessor::registerStandardErrorCallback(StandardErrorCallback callback) {
  std::lock_guard lock(_standardErrorCallbacksMutex);
  _standardErrorCallbacks.push_back(callback);
}

void ConsoleLogPostProcessor::unregisterStandardErrorCallback(StandardErrorCallback callback) {
  std::lock_guard lock(_standardErrorCallbacksMutex);
  std::erase(_standardErrorCallbacks, callback);
}

}  // namespace core
