#include "core/database_access.h"

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "../foundation/support.h"
#include "core/sqlite/statement.h"
#include "foundation/file.h"
#include "test_support.h"

namespace core {
namespace {

using testing::LogCapture;
using testing::TemporaryRoot;
using testing_support::runLoopUntil;
using Schema = std::function<void(sqlite::Database&)>;
using Lines = std::vector<fn::String>;

constexpr char const* CATEGORY = "core.databaseAccess";

Schema const ITEMS_V3 = [](sqlite::Database& db) {
  db.execute(
      "create table items (id integer primary key autoincrement, title text not null);"
      "create index items_title on items(title);"
      "create table tags (item integer references items(id), tag text)");
};
Schema const ITEMS_V5 = [](sqlite::Database& db) {
  db.execute("create table items (id integer primary key, title text, rating integer default 0)");
};

auto const loop = &fn::uv::Loop::defaultLoop;

class Catalogue : public DatabaseAccess {
public:
  Catalogue(int version, fn::String const& path, Schema schema, Options options = Options())
      : DatabaseAccess(version, path, options),
        _schema(std::move(schema)) {}
  // Posted cancellations and closes run, so that no test leaves work on the shared loop.
  ~Catalogue() override { testing_support::drainLoop(loop()); }

  using DatabaseAccess::addMigrationStep;
  using DatabaseAccess::handleException;

  int64_t count(std::string_view table) {
    ScopedConnection scope(this);
    sqlite::Statement query(database(), fmt::format("select count(*) from {}", table));
    query.executeStep();
    return query.getColumn(0).getInt64();
  }
  void addItem(std::string_view title) {
    ScopedConnection scope(this);
    sqlite::Statement insert(database(), "insert into items (title) values (?)");
    insert.bindAt(1, title);
    insert.execute();
  }

  std::atomic<int> readyCalls = 0;

protected:
  void initSchema() override { _schema(database()); }
  void onDatabaseReady() override {
    // Commits without waiting for the disk keep the suite fast; durability is not tested here.
    database().execute("PRAGMA synchronous = OFF");
    ++readyCalls;
  }

private:
  Schema _schema;
};

/// The file's tables and indexes and its stored versions, read through a connection of its own:
/// "table items, table schema_version; 5".
fn::String stored(fn::String const& path) {
  sqlite::Database db(path, sqlite::OPEN_READONLY);
  sqlite::Statement query(db,
                          "select group_concat(type || ' ' || name, ', ') from (select * from "
                          "sqlite_master where name not like 'sqlite_%' order by name) union all "
                          "select group_concat(version, ', ') from schema_version");
  fn::String text;
  for (char const* separator = ""; query.executeStep(); separator = "; ")
    text += separator + query.getColumn(0).getText();
  return text;
}

/// Records the category's lines down to LOG, as "priority text" with the path as "PATH".
struct DatabaseLog : LogCapture {
  DatabaseLog() { fn::logging::CategoryManager::instance().setThreshold(CATEGORY, 6); }
  ~DatabaseLog() { fn::logging::CategoryManager::instance().setThreshold(CATEGORY, 4); }
  Lines texts(fn::String const& path) const {
    Lines lines;
    for (auto line : linesOf(CATEGORY)) {
      for (size_t at; (at = line.text.find(path)) != fn::String::npos;)
        line.text.replace(at, path.size(), "PATH");
      lines.push_back(fmt::format("{} {}", line.priority, line.text));
    }
    return lines;
  }
};

TEST(DatabaseAccess, NewOrEmptyFileGetsSchemaAndVersionAnUnchangedOneOnlyTheCheck) {
  TemporaryRoot root;
  fn::String path = root.file("catalogue.db"), empty = root.file("empty.db");
  Lines const created = {"6 Checking schema version",
                         "6 Persistent schema version: -1, Current schema version: 5",
                         "4 Initializing schema for PATH"};
  sqlite::Database(empty, sqlite::OPEN_READWRITE | sqlite::OPEN_CREATE)
      .execute("create table schema_version (version integer)");
  for (auto const& file : {path, empty}) {
    DatabaseLog log;
    Catalogue catalogue(5, file, ITEMS_V5);
    EXPECT_EQ(fn::File(file).exists(), file == empty);  // nothing opens before a scope
    catalogue.addItem("Metropolis");
    EXPECT_EQ(catalogue.readyCalls, 1);
    EXPECT_EQ(log.texts(file), created);
    EXPECT_EQ(stored(file), "table items, table schema_version; 5");
  }

  DatabaseLog log;
  Catalogue again(5, path, ITEMS_V5);
  EXPECT_EQ(again.count("items"), 1);
  EXPECT_EQ(again.readyCalls, 1);
  EXPECT_EQ(log.texts(path), (Lines{"6 Checking schema version",
                                    "6 Persistent schema version: 5, Current schema version: 5"}));
}

TEST(DatabaseAccess, MigratesByDroppingEverythingOrByDeclaredSteps) {
  enum Steps { None, Working, FailingSecond, SecondOnly };
  Lines const dropped = {"4 Dropping schema for PATH", "4 Initializing schema for PATH"};
  struct Case {
    Steps steps;
    int64_t itemsKept;
    Lines logged;  // after the check's lines
  };
  for (auto const& c : std::vector<Case>{
           {None, 0, {}},
           {Working, 2, {}},
           {SecondOnly, 0, {"2 No migration steps lead from 3 to 5 for PATH, dropping the schema"}},
           {FailingSecond,
            0,
            {"1 Migration step from 4 to 5 failed for PATH, dropping the schema: SQLiteException: "
             "no such table: missing (insert into missing values (1)) [code 1]"}},
       }) {
    SCOPED_TRACE(c.steps);
    TemporaryRoot root;
    fn::String path = root.file("catalogue.db");
    {
      Catalogue old(3, path, ITEMS_V3);
      old.addItem("Nosferatu");
      old.addItem("Faust");
    }
    DatabaseLog log;
    Catalogue catalogue(5, path, ITEMS_V5);
    if (c.steps == Working || c.steps == FailingSecond) {
      catalogue.addMigrationStep(
          3, [](sqlite::Database& db) { db.execute("drop index items_title; drop table tags"); });
    }
    if (c.steps != None) {
      catalogue.addMigrationStep(4, [&c](sqlite::Database& db) {
        db.execute("alter table items add column rating integer default 0");
        if (c.steps == FailingSecond)
          db.execute("insert into missing values (1)");
      });
    }
    EXPECT_EQ(catalogue.count("items"), c.itemsKept);
    EXPECT_EQ(stored(path), "table items, table schema_version; 5");
    EXPECT_NO_THROW(catalogue.count("items where rating = 0"));

    Lines expected = {"6 Checking schema version",
                      "6 Persistent schema version: 3, Current schema version: 5",
                      "4 Migrating schema from 3 to 5 for PATH"};
    expected.insert(expected.end(), c.logged.begin(), c.logged.end());
    if (c.steps != Working)
      expected.insert(expected.end(), dropped.begin(), dropped.end());
    EXPECT_EQ(log.texts(path), expected);
  }
}

TEST(DatabaseAccess, NestedScopesShareTheConnectionAndTheLastUseStartsTheDelayedClose) {
  TemporaryRoot root;
  fn::Duration const delay = fn::Duration::milliseconds(600);
  auto runFor = [](fn::Duration time) {
    runLoopUntil(
        loop(), [] { return false; }, time);
  };
  Catalogue catalogue(1, root.file("catalogue.db"), ITEMS_V5, {.closeDelay = delay});
  {
    DatabaseAccess::ScopedConnection outer(catalogue);
    { DatabaseAccess::ScopedConnection inner(&catalogue); }
    runFor(delay + delay);  // the inner scope scheduled nothing
    EXPECT_TRUE(catalogue.isOpen());
    catalogue.addItem("Sunrise");
  }
  runFor(fn::Duration::milliseconds(200));
  // A use within the delay re-activates the open database without a check or the hook, and
  // cancels the close the first use scheduled.
  EXPECT_EQ(catalogue.count("items"), 1);
  runFor(fn::Duration::milliseconds(500));
  EXPECT_TRUE(catalogue.isOpen());
  EXPECT_EQ(catalogue.readyCalls, 1);

  EXPECT_TRUE(runLoopUntil(loop(), [&] { return !catalogue.isOpen(); }));
  EXPECT_EQ(catalogue.count("items"), 1);
  EXPECT_EQ(catalogue.readyCalls, 2);
}

TEST(DatabaseAccess, ScopesOfTwoThreadsTakeTurns) {
  TemporaryRoot root;
  Catalogue catalogue(1, root.file("catalogue.db"), [](sqlite::Database& db) {
    db.execute("create table counter (value integer); insert into counter values (0)");
  });
  constexpr int ROUNDS = 200;
  std::atomic<int> inside = 0, overlaps = 0, finished = 0;
  auto work = [&] {
    for (int i = 0; i < ROUNDS; ++i) {
      DatabaseAccess::ScopedConnection scope(catalogue);
      overlaps += inside.fetch_add(1) != 0;
      // Read, then write in a separate statement: interleaved scopes would lose updates.
      sqlite::Statement read(catalogue.database(), "select value from counter");
      read.executeStep();
      DatabaseAccess::ScopedConnection nested(catalogue);
      sqlite::Statement write(catalogue.database(), "update counter set value = ?");
      write.bindAt(1, read.getColumn(0).getInt() + 1);
      write.execute();
      --inside;
    }
    ++finished;
  };
  std::thread first(work), second(work);
  EXPECT_TRUE(runLoopUntil(
      loop(), [&] { return finished == 2; }, fn::Duration::seconds(60)));
  first.join();
  second.join();
  EXPECT_EQ(overlaps, 0);
  EXPECT_EQ(catalogue.count(fmt::format("counter where value = {}", 2 * ROUNDS)), 1);
  EXPECT_EQ(catalogue.readyCalls, 1);
}

TEST(DatabaseAccess, MalformedFileIsRemovedAndRecreatedWithTheCurrentSchema) {
  TemporaryRoot root;
  fn::String path = root.file("catalogue.db");
  {
    Catalogue catalogue(4, path, ITEMS_V5);
    for (int i = 0; i < 200; ++i)
      catalogue.addItem(fmt::format("{:-<100}", i));
  }
  {
    // Every page after the first (the header and the schema) overwritten.
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(4096);
    std::string garbage(8 * 4096, '\x5a');
    file.write(garbage.data(), static_cast<std::streamsize>(garbage.size()));
  }
  DatabaseLog log;
  Catalogue catalogue(4, path, ITEMS_V5);
  try {
    catalogue.count("items");
    ADD_FAILURE() << "the corrupt table was read";
  } catch (sqlite::SQLiteException const& e) {
    EXPECT_EQ(e.message(), "database disk image is malformed");
    catalogue.handleException(e);
  }
  EXPECT_FALSE(fn::File(path).exists());
  EXPECT_EQ(catalogue.count("items"), 0);
  EXPECT_EQ(stored(path), "table items, table schema_version; 4");
  EXPECT_EQ(catalogue.readyCalls, 2);
  EXPECT_EQ(log.texts(path),
            (Lines{"6 Checking schema version",
                   "1 Unexpected exception: SQLiteException: database disk image is malformed "
                   "(select version from schema_version) [path PATH] [code 11]",
                   "1 Database disk image PATH is malformed :( Deleting file",
                   "6 Checking schema version",
                   "6 Persistent schema version: -1, Current schema version: 4",
                   "4 Initializing schema for PATH"}));
}

TEST(DatabaseAccess, FailuresOutsideTheSchemaAreReportedNotFatal) {
  TemporaryRoot root;
  Catalogue unopenable(1, root.file("missing/catalogue.db"), ITEMS_V5);
  try {
    unopenable.database();
    ADD_FAILURE() << "no exception";
  } catch (sqlite::SQLiteException const& e) {
    EXPECT_EQ(e.message(),
              "No database available. Make sure to have a DatabaseAccess::Connection instance");
  }
  // Opening fails with the lock released: another thread's scope fails too, it does not wait.
  EXPECT_THROW(DatabaseAccess::ScopedConnection{unopenable}, sqlite::SQLiteException);
  std::thread other(
      [&] { EXPECT_THROW(DatabaseAccess::ScopedConnection{unopenable}, sqlite::SQLiteException); });
  other.join();

  // A directory where the file should be cannot be removed, not even by root.
  fn::String blocked = root.file("blocked.db");
  fn::File(blocked + "/inside").createDirectories();
  Catalogue catalogue(1, blocked, ITEMS_V5);
  DatabaseLog log;
  catalogue.deleteDatabase();
  catalogue.handleException(sqlite::SQLiteException("database disk image is malformed"));
  catalogue.handleException(sqlite::SQLiteException("database is locked"));
  fn::String const error = "FileException: remove failed: Is a directory [path PATH] [errno 21]";
  EXPECT_EQ(log.texts(blocked), (Lines{"1 Could not delete database: " + error,
                                       "1 Database disk image PATH is malformed :( Deleting file",
                                       "1 Error while removing file: " + error}));
}

}  // namespace
}  // namespace core
