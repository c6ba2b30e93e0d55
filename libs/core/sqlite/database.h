#pragma once

// sqlite::Database: one open connection to an SQLite file. A thin layer over the C library
// that turns every failure into sqlite::SQLiteException.
//
// A connection may be used from any thread, one thread at a time; whoever shares it across
// threads serialises the use (core::DatabaseAccess does).

#include <cstdint>
#include <string_view>

#include "core/export.h"
#include "core/sqlite/exception.h"
#include "foundation/string.h"

struct sqlite3;

namespace sqlite {

/// Flags for opening, with SQLite's own values.
enum OpenFlags : int {
  OPEN_READONLY = 0x1,
  OPEN_READWRITE = 0x2,
  OPEN_CREATE = 0x4,
};

class CORE_EXPORT Database {
public:
  /// Opens (with OPEN_CREATE, creates) the file at `path`.
  Database(fn::String path, int flags);
  ~Database();
  Database(Database const&) = delete;
  Database& operator=(Database const&) = delete;

  /// Runs one or more statements separated by semicolons; rows they return are dropped.
  void execute(std::string_view sql);

  /// The rowid of the last row inserted through this connection.
  int64_t lastInsertRowId() const;
  /// Rows changed by the last INSERT, UPDATE or DELETE.
  int changes() const;

  fn::String const& path() const { return _path; }
  /// For the few things the wrapper does not cover.
  sqlite3* handle() const { return _handle; }

  /// Throws the exception for `code`, SQLite's message for this connection and `sql`.
  [[noreturn]] void fail(int code, std::string_view sql = {}) const;

private:
  fn::String _path;
  sqlite3* _handle = nullptr;
};

}  // namespace sqlite
