#pragma once

// core::DatabaseAccess: the base class of every SQLite file the application keeps. A subclass
// names the file and the schema version this build expects, and creates the schema in
// initSchema(). Users work inside a ScopedConnection:
//
//     DatabaseAccess::ScopedConnection scope(catalogue);
//     sqlite::Statement query(catalogue.database(), "select title from items");
//
// The first scope opens the file and brings it to the current schema version: it creates the
// schema in a new file and migrates an older (or newer) one, by default by dropping everything
// and creating it anew; a subclass may declare migration steps that keep the data instead.
// When the last scope ends the connection stays open for closeDelay (five minutes by default)
// so that the next scope starts without cost, then it is closed.
//
// Threads: scopes may be opened on any thread. A scope holds the access's re-entrant lock for
// its whole life, so scopes of different threads run one after the other and scopes nest on
// one thread. The delayed close runs on the default loop (fn::uv::Loop::defaultLoop()), whose
// thread must run that loop for idle databases to close. Construct and destroy the access on
// that thread, when no scope is alive.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>

#include "core/export.h"
#include "core/sqlite/database.h"
#include "core/sqlite/exception.h"
#include "foundation/duration.h"
#include "foundation/lock.h"
#include "foundation/object.h"
#include "foundation/string.h"

namespace core {

class CORE_EXPORT DatabaseAccess {
public:
  /// How long a database stays open after its last scope ended.
  static constexpr fn::Duration DEFAULT_CLOSE_DELAY = fn::Duration::seconds(300);

  struct Options {
    fn::Duration closeDelay = DEFAULT_CLOSE_DELAY;
  };

  /// Opens the database, or re-activates the open one, for the life of the scope, and holds
  /// the access's lock until it ends. Errors while opening the file propagate from the
  /// constructor, with the lock released.
  class CORE_EXPORT ScopedConnection {
  public:
    explicit ScopedConnection(DatabaseAccess& access);
    explicit ScopedConnection(DatabaseAccess* access) : ScopedConnection(*access) {}
    ~ScopedConnection();
    ScopedConnection(ScopedConnection const&) = delete;
    ScopedConnection& operator=(ScopedConnection const&) = delete;

  private:
    /// This scope opened or re-activated the connection and releases it.
    bool _owns = false;
    DatabaseAccess* _access;
  };

  /// Records the current schema version and the file; opens nothing.
  DatabaseAccess(int version, fn::String const& path);
  DatabaseAccess(int version, fn::String const& path, Options options);
  /// Closes the database.
  virtual ~DatabaseAccess();
  DatabaseAccess(DatabaseAccess const&) = delete;
  DatabaseAccess& operator=(DatabaseAccess const&) = delete;

  /// The open database. sqlite::SQLiteException when none is open: use it inside a scope.
  sqlite::Database& database();

  /// Closes the connection and removes the file; a failure to remove it is logged.
  void deleteDatabase();

  /// Whether a connection is open, in a scope or idle.
  bool isOpen();

  int version() const { return _version; }
  fn::String const& path() const { return _path; }

protected:
  /// Removes every table and index, whatever depends on what.
  virtual void dropSchema();
  /// Creates the schema of the current version in the open database.
  virtual void initSchema() = 0;
  /// Brings a file from the stored version `from` to `to`. By default through the declared
  /// migration steps when they lead from `from` to `to`, otherwise by dropping the schema and
  /// creating it anew.
  virtual void migrateSchema(int from, int to);
  /// Called after every opening, once the schema is current.
  virtual void onDatabaseReady();
  /// The reaction to a failed database operation, for subclasses to call from their own error
  /// handling. By default a "database disk image is malformed" error removes the file, so that
  /// the next scope starts with a fresh database; other errors are left to the caller.
  virtual void handleException(sqlite::SQLiteException const& e);
  /// Stores the current version in the table schema_version.
  virtual void updateSchemaVersion();

  /// Brings the open database to the current version. Errors are logged, not propagated: the
  /// opening goes on with whatever schema the file has.
  void checkSchema();

  /// One migration step: changes the schema (and the data) of version `from` into `from + 1`.
  using MigrationStep = std::function<void(sqlite::Database&)>;
  /// Declares the step from `from` to `from + 1`; call it from the subclass's constructor.
  /// Each step runs in a transaction of its own that also stores its new version. A step that
  /// fails is rolled back and the migration falls back to dropping the schema.
  void addMigrationStep(int from, MigrationStep step);

private:
  class CloseTimer;

  void open();
  void doInitSchema();
  void initVersionTable();
  void storeSchemaVersion(int version);
  bool migrateByStep(int from, int to);
  void close();
  /// The end of the delay: closes unless a scope is alive or being opened.
  void closeIfIdle();

  std::unique_ptr<sqlite::Database> _database;
  bool _connected = false;
  fn::AutoPtr<CloseTimer> _closeTimer;
  int _version;
  fn::String _path;
  int _openFlags = sqlite::OPEN_READWRITE | sqlite::OPEN_CREATE;
  fn::Lock _lock;
  std::map<int, MigrationStep> _migrationSteps;
};

}  // namespace core
