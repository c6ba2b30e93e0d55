// Feeds arbitrary bytes to DatabaseAccess as the content of its file: what a crash, a bad disk
// or another program may leave at the path. Opening it may log, migrate, rebuild the schema or
// fail with an exception; it must not crash, leak or hang. A malformed file is removed through
// handleException, as the application's own databases do.

#include <unistd.h>

#include <cstddef>
#include <cstdint>

#include "core/database_access.h"
#include "core/sqlite/statement.h"
#include "foundation/file.h"
#include "foundation/logging/category.h"
#include "foundation/uv/loop.h"

namespace {

class Catalogue : public core::DatabaseAccess {
public:
  explicit Catalogue(fn::String const& path) : DatabaseAccess(3, path) {
    addMigrationStep(2, [](sqlite::Database& db) {
      db.execute("alter table items add column rating integer default 0");
    });
  }
  using DatabaseAccess::handleException;

protected:
  void initSchema() override {
    database().execute("create table items (title text, rating integer default 0)");
  }
};

fn::String const PATH = fmt::format("/tmp/lumaren-fuzz-database-{}.db", getpid());

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fn::logging::CategoryManager::instance().setThreshold("*", 0);
  fn::uv::Loop::defaultLoop();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  fn::File(PATH).writeAll(fn::ByteArray(data, data + size));
  {
    Catalogue catalogue(PATH);
    try {
      core::DatabaseAccess::ScopedConnection scope(catalogue);
      sqlite::Statement query(catalogue.database(), "select title, rating from items");
      while (query.executeStep())
        query.getColumn(0).getText();
    } catch (sqlite::SQLiteException const& e) {
      catalogue.handleException(e);
    }
  }
  // The posted cancellations and the scheduled close go with the loop's next turn.
  uv_run(fn::uv::Loop::defaultLoop().raw(), UV_RUN_NOWAIT);
  fn::File(PATH).remove();
  fn::File(PATH + "-journal").remove();
  return 0;
}
