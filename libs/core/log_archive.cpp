#include "core/log_archive.h"

#include <zip.h>
#include <zlib.h>

#include <algorithm>
#include <memory>

#include "core/app_info.h"
#include "foundation/date_time.h"
#include "foundation/directory_iterator.h"
#include "foundation/exception.h"
#include "foundation/file.h"
#include "foundation/file_stream.h"
#include "foundation/logging/category.h"
#include "foundation/path_manager.h"

namespace core {
namespace {

fn::logging::Category logArchive("core.logArchive");

constexpr size_t COPY_PIECE = 4096;
constexpr int COMPRESSION_LEVEL = 5;
constexpr int MEMORY_LEVEL = 8;

struct ZipCloser {
  void operator()(void* zip) const { zipClose(zip, nullptr); }
};
using Zip = std::unique_ptr<void, ZipCloser>;

void check(int result, char const* what, fn::String const& path) {
  if (result != ZIP_OK)
    throw fn::withPath(fn::IOException(fmt::format("{} failed ({})", what, result)), path);
}

void addEntry(zipFile zip, fn::String const& path, fn::String const& name) {
  zip_fileinfo info{};
  check(zipOpenNewFileInZip3(zip, name.c_str(), &info, nullptr, 0, nullptr, 0, nullptr, Z_DEFLATED,
                             COMPRESSION_LEVEL, 0, -MAX_WBITS, MEMORY_LEVEL, Z_DEFAULT_STRATEGY,
                             nullptr, 0),
        "Opening an archive entry", name);
  fn::FileInputStream file(path);
  char piece[COPY_PIECE];
  while (size_t count = file.read(piece, sizeof piece))
    check(zipWriteInFileInZip(zip, piece, static_cast<unsigned>(count)), "Writing to the archive",
          name);
  check(zipCloseFileInZip(zip), "Closing an archive entry", name);
}

}  // namespace

fn::String LogArchive::createLogArchive() {
  try {
    fn::String time =
        fn::DateTimeFormatter::format(fn::LocalDateTime(), fn::DateTimeFormat::SORTABLE_FORMAT);
    std::replace(time.begin(), time.end(), ' ', '-');
    std::replace(time.begin(), time.end(), ':', '-');
    fn::String name = AppInfo::instance().applicationShortName() + "Logs-" + time + ".zip";
    auto& paths = fn::PathManager::instance();
    fn::String archivePath = paths.getPath(fn::PathManager::USER_FILES, name, true);
    // A process that never logged to a file has no log directory yet: an empty archive then.
    fn::String logs = paths.getPath(fn::PathManager::LOGS, {}, true);

    Zip zip(zipOpen64(archivePath.c_str(), APPEND_STATUS_CREATE));
    if (!zip)
      throw fn::withPath(fn::IOException("Cannot create the archive"), archivePath);
    for (fn::DirectoryIterator entry(logs), end; entry != end; ++entry) {
      if (!fn::File(*entry).isDirectory())
        addEntry(zip.get(), *entry, entry.name());
    }
    int closed = zipClose(zip.release(), nullptr);
    check(closed, "Closing the archive", archivePath);
    return archivePath;
  } catch (...) {
    logArchive.log(fn::logging::ERR, "Unexpected exception while zipping and copying logs: {}",
                   fn::describeException(std::current_exception()));
    return {};
  }
}

}  // namespace core
