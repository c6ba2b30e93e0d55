#include "core/database_access.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "core/sqlite/statement.h"
#include "foundation/file.h"
#include "loop_runner.h"
#include "test_support.h"

namespace core {
namespace {

using testing::LogCapture;
using testing::TemporaryRoot;
using testing_support::drainLoop;
using testing_support::runLoopUntil;
using Schema = std::function<void(sqlite::Database&)>;

constexpr char const* CATEGORY = "core.databaseAccess";

Schema const ITEMS_V3 = [](sqlite::Database& db) {
  db.execute(
      "create table items (id integer primary key autoincrement, title text not null);"
      "create index items_title on items(title);"
      "create table tags (item integer references items(id), tag text)");
};
Schema const ITEMS_V5 = [](sqlite::Database& db) {
  db.execute(
      "create table items (id integer primary key autoincrement, title text not null, "
      "rating integer not null default 0)");
};

fn::uv::Loop& loop() {
  return fn::uv::Loop::defaultLoop();
}

class Catalogue : public DatabaseAccess {
public:
  Catalogue(int version, fn::String const& path, Schema schema, Options options = Options())
      : DatabaseAccess(version, path, options),
        _schema(std::move(schema)) {}
  ~Catalogue() override {
    // Posted cancellations and closes run, so that no test leaves work on the shared loop.
    drainLoop(loop());
  }

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

/// The file's tables and indexes ("table items", "index items_title") and stored versions,
/// read through a connection of its own.
struct Stored {
  std::vector<fn::String> schema;
  std::vector<int> versions;
};
Stored stored(fn::String const& path) {
  sqlite::Database db(path, sqlite::OPEN_READONLY);
  Stored result;
  sqlite::Statement entries(
      db,
      "select type || ' ' || name from sqlite_master where name not like 'sqlite_%' order by 1");
  while (entries.executeStep())
    result.schema.push_back(entries.getColumn(0).getText());
  sqlite::Statement versions(db, "select version from schema_version");
  while (versions.executeStep())
    result.versions.push_back(versions.getColumn(0).getInt(-1));
  return result;
}

/// The lines of the category, priority first. The category logs its LOG lines while it lives.
struct DatabaseLog : LogCapture {
  DatabaseLog() { fn::logging::CategoryManager::instance().setThreshold(CATEGORY, 6); }
  ~DatabaseLog() { fn::logging::CategoryManager::instance().setThreshold(CATEGORY, 4); }
};

std::vector<fn::String> texts(LogCapture const& log) {
  std::vector<fn::String> lines;
  for (auto const& line : log.linesOf(CATEGORY))
    lines.push_back(fmt::format("{} {}", line.priority, line.text));
  return lines;
}

TEST(DatabaseAccess, NewFileGetsTheSchemaAndVersionAndUnchangedFileOnlyTheCheck) {
  TemporaryRoot root;
  fn::String path = root.file("catalogue.db");
  {
    DatabaseLog log;
    Catalogue catalogue(5, path, ITEMS_V5);
    EXPECT_FALSE(fn::File(path).exists());  // nothing opens before a scope
    catalogue.addItem("Metropolis");
    EXPECT_EQ(catalogue.readyCalls, 1);
    EXPECT_EQ(texts(log), (std::vector<fn::String>{
                              "6 Checking schema version",
                              "6 Persistent schema version: -1, Current schema version: 5",
                              "4 Initializing schema for " + path,
                          }));
  }
  EXPECT_EQ(stored(path).schema, (std::vector<fn::String>{"table items", "table schema_version"}));
  EXPECT_EQ(stored(path).versions, std::vector<int>{5});

  DatabaseLog log;
  Catalogue again(5, path, ITEMS_V5);
  EXPECT_EQ(again.count("items"), 1);
  EXPECT_EQ(again.readyCalls, 1);
  EXPECT_EQ(texts(log), (std::vector<fn::String>{
                            "6 Checking schema version",
                            "6 Persistent schema version: 5, Current schema version: 5",
                        }));
}

TEST(DatabaseAccess, EmptyVersionTableCountsAsNewFile) {
  TemporaryRoot root;
  fn::String path = root.file("catalogue.db");
  sqlite::Database(path, sqlite::OPEN_READWRITE | sqlite::OPEN_CREATE)
      .execute("create table schema_version (version integer)");
  DatabaseLog log;
  Catalogue catalogue(2, path, ITEMS_V5);
  EXPECT_EQ(catalogue.count("items"), 0);
  EXPECT_TRUE(log.contains("Persistent schema version: -1, Current schema version: 2"));
  EXPECT_EQ(stored(path).versions, std::vector<int>{2});
}

TEST(DatabaseAccess, MigratesByDroppingEverythingOrByDeclaredSteps) {
  enum Steps { None, Working, FailingSecond, FromFourOnly };
  struct Case {
    char const* name;
    Steps steps;
    int64_t itemsKept;
    std::vector<fn::String> logged;  // beyond the check's lines
  };
  fn::String const path = "PATH";
  std::vector<Case> const cases = {
      {"no steps", None, 0, {"4 Dropping schema for PATH", "4 Initializing schema for PATH"}},
      {"steps", Working, 2, {}},
      {"a step missing",
       FromFourOnly,
       0,
       {"2 No migration steps lead from 3 to 5 for PATH, dropping the schema",
        "4 Dropping schema for PATH", "4 Initializing schema for PATH"}},
      {"failing step",
       FailingSecond,
       0,
       {"1 Migration step from 4 to 5 failed for PATH, dropping the schema: SQLiteException: "
        "no such table: missing (insert into missing values (1)) [code 1]",
        "4 Dropping schema for PATH", "4 Initializing schema for PATH"}},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    TemporaryRoot root;
    fn::String file = root.file("catalogue.db");
    {
      Catalogue old(3, file, ITEMS_V3);
      old.addItem("Nosferatu");
      old.addItem("Faust");
    }
    DatabaseLog log;
    Catalogue catalogue(5, file, ITEMS_V5);
    if (c.steps != None && c.steps != FromFourOnly) {
      catalogue.addMigrationStep(
          3, [](sqlite::Database& db) { db.execute("drop index items_title; drop table tags"); });
    }
    if (c.steps != None) {
      catalogue.addMigrationStep(4, [&c](sqlite::Database& db) {
        db.execute("alter table items add column rating integer not null default 0");
        if (c.steps == FailingSecond)
          db.execute("insert into missing values (1)");
      });
    }
    EXPECT_EQ(catalogue.count("items"), c.itemsKept);
    auto found = stored(file);
    EXPECT_EQ(found.schema, (std::vector<fn::String>{"table items", "table schema_version"}));
    EXPECT_EQ(found.versions, std::vector<int>{5});
    {
      // The new column exists whichever way the file got there.
      DatabaseAccess::ScopedConnection scope(catalogue);
      EXPECT_NO_THROW(sqlite::Statement(catalogue.database(), "select rating from items"));
    }

    std::vector<fn::String> expected = {"6 Checking schema version",
                                        "6 Persistent schema version: 3, Current schema version: 5",
                                        "4 Migrating schema from 3 to 5 for " + file};
    for (auto line : c.logged)
      expected.push_back(line.replace(line.find(path), path.size(), file));
    EXPECT_EQ(texts(log), expected);
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
  EXPECT_EQ(DatabaseAccess::DEFAULT_CLOSE_DELAY, fn::Duration::seconds(300));
  {
    DatabaseAccess::ScopedConnection outer(catalogue);
    {
      DatabaseAccess::ScopedConnection inner(&catalogue);
      EXPECT_EQ(catalogue.readyCalls, 1);
    }
    runFor(delay + delay);  // the inner scope scheduled nothing
    EXPECT_TRUE(catalogue.isOpen());
    catalogue.addItem("Sunrise");
  }
  runFor(fn::Duration::milliseconds(200));
  EXPECT_TRUE(catalogue.isOpen());
  // A use within the delay re-activates the open database: no check, no hook, and the close
  // scheduled by the first use is cancelled.
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
      // Read, then write in a separate statement: a lost update shows interleaved scopes.
      sqlite::Statement read(catalogue.database(), "select value from counter");
      read.executeStep();
      int value = read.getColumn(0).getInt();
      DatabaseAccess::ScopedConnection nested(catalogue);
      sqlite::Statement write(catalogue.database(), "update counter set value = ?");
      write.bindAt(1, value + 1);
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
  EXPECT_EQ(catalogue.count("counter"), 1);
  DatabaseAccess::ScopedConnection scope(catalogue);
  sqlite::Statement read(catalogue.database(), "select value from counter");
  read.executeStep();
  EXPECT_EQ(read.getColumn(0).getInt(), 2 * ROUNDS);
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
  // Every page after the first (the header and the schema) overwritten.
  {
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
  auto unexpected =
      log.matching("Unexpected exception: SQLiteException: database disk image is malformed");
  ASSERT_EQ(unexpected.size(), 1u);
  EXPECT_EQ(unexpected[0].priority, 1);
  EXPECT_NE(unexpected[0].text.find("[path " + path + "]"), fn::String::npos);
  auto deleting = log.matching("Database disk image " + path + " is malformed :( Deleting file");
  ASSERT_EQ(deleting.size(), 1u);
  EXPECT_EQ(deleting[0].priority, 1);
  EXPECT_FALSE(fn::File(path).exists());

  EXPECT_EQ(catalogue.count("items"), 0);
  EXPECT_EQ(stored(path).versions, std::vector<int>{4});
  EXPECT_EQ(catalogue.readyCalls, 2);
}

TEST(DatabaseAccess, FailuresOutsideTheSchemaAreReportedNotFatal) {
  TemporaryRoot root;
  DatabaseLog log;
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

  catalogue.deleteDatabase();
  catalogue.handleException(sqlite::SQLiteException("database disk image is malformed"));
  catalogue.handleException(sqlite::SQLiteException("database is locked"));
  for (auto const* text : {"Could not delete database: FileException: remove failed: Is a "
                           "directory",
                           "Error while removing file: FileException: remove failed: Is a "
                           "directory"}) {
    auto lines = log.matching(text);
    ASSERT_EQ(lines.size(), 1u) << text;
    EXPECT_EQ(lines[0].priority, 1);
    EXPECT_NE(lines[0].text.find(blocked), fn::String::npos) << "the path is part of the text";
  }
  EXPECT_EQ(log.matching("is malformed :( Deleting file").size(), 1u);
}

}  // namespace
}  // namespace core
