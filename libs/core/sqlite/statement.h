#pragma once

// sqlite::Statement: one prepared statement of a Database, and sqlite::Column, one value of
// the row the statement stands on. A statement must not outlive its database's use: it
// belongs to the thread (and the DatabaseAccess scope) that prepared it.

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "core/export.h"
#include "core/sqlite/database.h"
#include "foundation/byte_array.h"
#include "foundation/string.h"

struct sqlite3_stmt;

namespace sqlite {

class Statement;

/// A value of the current row. Valid until the statement steps, resets or goes.
class CORE_EXPORT Column {
public:
  bool isNull() const;
  /// The value as an integer; `defaultValue` for NULL.
  int getInt(int defaultValue = 0) const;
  int64_t getInt64(int64_t defaultValue = 0) const;
  double getDouble(double defaultValue = 0) const;
  /// Text as stored; an empty text for NULL.
  fn::String getText() const;
  fn::ByteArray getBlob() const;

private:
  friend class Statement;
  Column(sqlite3_stmt* statement, int index) : _statement(statement), _index(index) {}

  sqlite3_stmt* _statement;
  int _index;
};

class CORE_EXPORT Statement {
public:
  /// Prepares the first statement of `sql`.
  Statement(Database& database, std::string_view sql);
  ~Statement();
  Statement(Statement const&) = delete;
  Statement& operator=(Statement const&) = delete;

  /// Binds a parameter; `index` counts from 1.
  void bindAt(int index, int value);
  void bindAt(int index, int64_t value);
  void bindAt(int index, double value);
  void bindAt(int index, std::string_view text);
  void bindAt(int index, fn::ByteView blob);
  void bindAt(int index, std::nullptr_t);

  /// Runs the statement up to its next row: true while a row is available, false once done.
  bool executeStep();
  /// Runs the statement to its end and returns the number of rows it changed.
  int execute();
  /// Makes the statement ready to run again; bindings are kept.
  void reset();

  /// The column `index` (from 0) of the current row. SQLiteException without a row or for an
  /// index past the last column.
  Column getColumn(int index) const;
  int columnCount() const;

private:
  void check(int code) const;

  Database& _database;
  sqlite3_stmt* _statement = nullptr;
  bool _hasRow = false;
};

}  // namespace sqlite
