#include "core/sqlite/database.h"

#include <sqlite3.h>

namespace sqlite {
namespace {

SQLiteException makeException(int code, char const* message, std::string_view sql) {
  SQLiteException e(message ? message : sqlite3_errstr(code));
  e.info().errorCode = code;
  if (!sql.empty())
    e.info().detail = fn::String(sql);
  return e;
}

}  // namespace

Database::Database(fn::String path, int flags) : _path(std::move(path)) {
  int code = sqlite3_open_v2(_path.c_str(), &_handle, flags, nullptr);
  if (code != SQLITE_OK) {
    // SQLite hands out a connection even when opening fails, to carry the message.
    auto e =
        fn::withPath(makeException(code, _handle ? sqlite3_errmsg(_handle) : nullptr, {}), _path);
    sqlite3_close(_handle);
    throw e;
  }
  sqlite3_extended_result_codes(_handle, 1);
}

Database::~Database() {
  // sqlite3_close_v2 defers the close until statements that are still open are finalized,
  // so a Statement that outlives its Database does not keep the connection from closing.
  sqlite3_close_v2(_handle);
}

void Database::execute(std::string_view sql) {
  fn::String text(sql);
  char* message = nullptr;
  int code = sqlite3_exec(_handle, text.c_str(), nullptr, nullptr, &message);
  if (code != SQLITE_OK) {
    auto e = makeException(code, message, sql);
    sqlite3_free(message);
    throw e;
  }
}

int64_t Database::lastInsertRowId() const {
  return sqlite3_last_insert_rowid(_handle);
}

int Database::changes() const {
  return sqlite3_changes(_handle);
}

void Database::fail(int code, std::string_view sql) const {
  throw makeException(code, sqlite3_errmsg(_handle), sql);
}

}  // namespace sqlite
