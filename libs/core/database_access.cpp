#include "core/database_access.h"

#include <sqlite3.h>

#include <mutex>

#include "core/sqlite/statement.h"
#include "core/sqlite/transaction.h"
#include "foundation/file.h"
#include "foundation/logging/category.h"
#include "foundation/uv/loop.h"

namespace core {
namespace {

using namespace fn::logging;

Category logDatabase("core.databaseAccess");

constexpr char const* CREATE_VERSION_TABLE =
    "create table if not exists schema_version (version integer)";

// Removing the entries from the schema table itself, rather than dropping the tables one by
// one, leaves foreign keys and other dependencies between tables no say in the order.
// sqlite_sequence is created first so that clearing it cannot fail; VACUUM then gives the
// pages back, checked before and after.
constexpr char const* DROP_SCHEMA[] = {
    "PRAGMA writable_schema = 1;",
    "create table if not exists sqlite_sequence(dummy integer);",
    "delete from sqlite_sequence;",
    "delete from sqlite_master where type = 'index';",
    "delete from sqlite_master where type = 'table';",
    "PRAGMA writable_schema = 0;",
    "PRAGMA INTEGRITY_CHECK;",
    "VACUUM;",
    "PRAGMA INTEGRITY_CHECK;",
};

bool isCorruption(sqlite::SQLiteException const& e) {
  auto code = e.info().errorCode;
  return (code && (*code & 0xff) == SQLITE_CORRUPT) ||
         e.toString().find("database disk image is malformed") != fn::String::npos;
}

/// Removes the database file and what SQLite keeps beside it. A journal left behind would be
/// played back into the fresh database that the next opening creates at the same path.
void removeDatabaseFiles(fn::String const& path) {
  fn::File(path).remove();
  for (char const* suffix : {"-journal", "-wal", "-shm"})
    fn::File(path + suffix).remove();
}

}  // namespace

// Shared by the access and the tasks it posts to the default loop, so that a task that runs
// after the access is gone finds it detached rather than freed. The handle of the scheduled
// close is touched on the loop thread only.
class DatabaseAccess::CloseTimer : public fn::RefCountedObject {
public:
  CloseTimer(DatabaseAccess& access, fn::Duration delay)
      : _loop(fn::uv::Loop::defaultLoop()),
        _delay(delay),
        _access(&access) {}

  void cancel() {
    _loop.post([self = fn::AutoPtr<CloseTimer>(this)] { self->_handle.invalidate(); });
  }

  /// Starts the delay anew, replacing (and so cancelling) a close already scheduled.
  void arm() {
    _loop.post([self = fn::AutoPtr<CloseTimer>(this)] {
      if (!self->attached())
        return;
      // Weak: the scheduled call must not keep alive the object that holds its handle.
      self->_handle =
          self->_loop.schedule(self->_delay, [timer = fn::WeakReference<CloseTimer>(self.get())] {
            if (auto strong = timer.lock())
              strong->fire();
          });
    });
  }

  void detach() {
    std::lock_guard lock(_mutex);
    _access = nullptr;
  }

private:
  bool attached() {
    std::lock_guard lock(_mutex);
    return _access != nullptr;
  }

  void fire() {
    std::lock_guard lock(_mutex);
    if (_access)
      _access->closeIfIdle();
  }

  fn::RunLoop& _loop;
  fn::Duration _delay;
  std::mutex _mutex;
  DatabaseAccess* _access;
  fn::Handle _handle;
};

DatabaseAccess::ScopedConnection::ScopedConnection(DatabaseAccess& access) : _access(&access) {
  access._closeTimer->cancel();
  std::unique_lock lock(access._lock);
  if (!access._connected) {
    access.open();
    access._connected = true;
    _owns = true;
  }
  lock.release();
}

DatabaseAccess::ScopedConnection::~ScopedConnection() {
  if (_owns) {
    _access->_connected = false;
    _access->_closeTimer->arm();
  }
  _access->_lock.unlock();
}

DatabaseAccess::DatabaseAccess(int version, fn::String const& path)
    : DatabaseAccess(version, path, Options()) {}

DatabaseAccess::DatabaseAccess(int version, fn::String const& path, Options options)
    : _closeTimer(fn::makeAuto<CloseTimer>(*this, options.closeDelay)),
      _version(version),
      _path(path) {}

DatabaseAccess::~DatabaseAccess() {
  close();
  _closeTimer->detach();
}

sqlite::Database& DatabaseAccess::database() {
  if (!_database) {
    throw sqlite::SQLiteException(
        "No database available. Make sure to have a DatabaseAccess::Connection instance");
  }
  return *_database;
}

bool DatabaseAccess::isOpen() {
  std::lock_guard lock(_lock);
  return _database != nullptr;
}

void DatabaseAccess::open() {
  // The file went away behind the open connection (handleException removes a corrupt one):
  // SQLite would go on working on the unlinked file, so start afresh.
  if (_database && !fn::File(_path).exists())
    _database.reset();
  if (_database)
    return;
  _database = std::make_unique<sqlite::Database>(_path, _openFlags);
  try {
    _database->execute("PRAGMA foreign_keys = ON;");
    checkSchema();
    onDatabaseReady();
  } catch (...) {
    // Closed again, so that the next scope runs the check and the hook once more.
    _database.reset();
    throw;
  }
}

void DatabaseAccess::checkSchema() {
  try {
    logDatabase.log(LOG, "Checking schema version");
    initVersionTable();
    int persistent = -1;
    {
      sqlite::Statement query(database(), "select version from schema_version");
      if (query.executeStep())
        persistent = query.getColumn(0).getInt(-1);
    }
    logDatabase.log(LOG, "Persistent schema version: {}, Current schema version: {}", persistent,
                    _version);
    if (persistent == -1) {
      doInitSchema();
    } else if (persistent != _version) {
      // A downgrade takes this path too: the stored schema is not the one this build knows.
      logDatabase.log(INF, "Migrating schema from {} to {} for {}", persistent, _version, _path);
      migrateSchema(persistent, _version);
    }
  } catch (fn::Exception& e) {
    e.info().path = _path;
    logDatabase.log(ERR, "Unexpected exception: {}", e.toString());
  }
}

void DatabaseAccess::doInitSchema() {
  logDatabase.log(INF, "Initializing schema for {}", _path);
  initVersionTable();
  initSchema();
  updateSchemaVersion();
}

void DatabaseAccess::initVersionTable() {
  database().execute(CREATE_VERSION_TABLE);
}

void DatabaseAccess::storeSchemaVersion(int version) {
  database().execute("delete from schema_version");
  sqlite::Statement insert(database(), "insert into schema_version values (?)");
  insert.bindAt(1, version);
  insert.execute();
}

void DatabaseAccess::updateSchemaVersion() {
  sqlite::Transaction transaction(database());
  storeSchemaVersion(_version);
  transaction.commit();
}

void DatabaseAccess::migrateSchema(int from, int to) {
  if (migrateByStep(from, to))
    return;
  dropSchema();
  doInitSchema();
}

void DatabaseAccess::addMigrationStep(int from, MigrationStep step) {
  _migrationSteps[from] = std::move(step);
}

bool DatabaseAccess::migrateByStep(int from, int to) {
  if (_migrationSteps.empty())
    return false;
  bool covered = from < to;
  for (int step = from; covered && step < to; ++step)
    covered = _migrationSteps.contains(step);
  if (!covered) {
    logDatabase.log(WRN, "No migration steps lead from {} to {} for {}, dropping the schema", from,
                    to, _path);
    return false;
  }
  for (int step = from; step < to; ++step) {
    // Each step is stored with its version, so that a migration cut short (a crash, a failed
    // later step) resumes from the last version reached.
    try {
      sqlite::Transaction transaction(database());
      _migrationSteps[step](database());
      storeSchemaVersion(step + 1);
      transaction.commit();
    } catch (std::exception const&) {
      logDatabase.log(ERR, "Migration step from {} to {} failed for {}, dropping the schema: {}",
                      step, step + 1, _path, fn::describeException(std::current_exception()));
      return false;
    }
  }
  return true;
}

void DatabaseAccess::onDatabaseReady() {}

void DatabaseAccess::dropSchema() {
  logDatabase.log(INF, "Dropping schema for {}", _path);
  for (char const* sql : DROP_SCHEMA)
    database().execute(sql);
}

void DatabaseAccess::handleException(sqlite::SQLiteException const& e) {
  if (!isCorruption(e))
    return;
  // An idle connection is closed first, since Windows removes no open file. One in use by a
  // scope stays open: the next scope finds the file gone, drops it and creates a fresh
  // database (see open()).
  logDatabase.log(ERR, "Database disk image {} is malformed :( Deleting file", _path);
  if (std::unique_lock lock(_lock, std::try_to_lock); lock.owns_lock() && !_connected)
    _database.reset();
  try {
    removeDatabaseFiles(_path);
  } catch (fn::Exception const& removal) {
    logDatabase.log(ERR, "Error while removing file: {}", removal.toString());
  }
}

void DatabaseAccess::deleteDatabase() {
  std::lock_guard lock(_lock);
  _database.reset();
  try {
    removeDatabaseFiles(_path);
  } catch (fn::Exception const& e) {
    logDatabase.log(ERR, "Could not delete database: {}", e.toString());
  }
}

void DatabaseAccess::close() {
  _closeTimer->cancel();
  std::lock_guard lock(_lock);
  _database.reset();
}

void DatabaseAccess::closeIfIdle() {
  // A thread that holds the lock is inside a scope (or opening one), which arms the delay
  // again when it ends; waiting for it here would stall the loop for as long as it works.
  std::unique_lock lock(_lock, std::try_to_lock);
  if (!lock.owns_lock() || _connected || !_database)
    return;
  logDatabase.log(DBG, "Closing {} after its idle time", _path);
  _database.reset();
}

}  // namespace core
