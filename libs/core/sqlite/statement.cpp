#include "core/sqlite/statement.h"

#include <sqlite3.h>

#include <limits>

namespace sqlite {

bool Column::isNull() const {
  return sqlite3_column_type(_statement, _index) == SQLITE_NULL;
}

int Column::getInt(int defaultValue) const {
  return isNull() ? defaultValue : sqlite3_column_int(_statement, _index);
}

int64_t Column::getInt64(int64_t defaultValue) const {
  return isNull() ? defaultValue : sqlite3_column_int64(_statement, _index);
}

double Column::getDouble(double defaultValue) const {
  return isNull() ? defaultValue : sqlite3_column_double(_statement, _index);
}

fn::String Column::getText() const {
  auto const* text = sqlite3_column_text(_statement, _index);
  // The length is asked for after the text, as SQLite wants, so that it counts the converted form.
  auto length = static_cast<size_t>(sqlite3_column_bytes(_statement, _index));
  return text ? fn::String(reinterpret_cast<char const*>(text), length) : fn::String();
}

fn::ByteArray Column::getBlob() const {
  auto const* bytes = static_cast<uint8_t const*>(sqlite3_column_blob(_statement, _index));
  auto length = static_cast<size_t>(sqlite3_column_bytes(_statement, _index));
  return bytes ? fn::ByteArray(bytes, bytes + length) : fn::ByteArray();
}

Statement::Statement(Database& database, std::string_view sql) : _database(database) {
  if (sql.size() > static_cast<size_t>(std::numeric_limits<int>::max()))
    throw SQLiteException("SQL text too long");
  int code = sqlite3_prepare_v2(database.handle(), sql.data(), static_cast<int>(sql.size()),
                                &_statement, nullptr);
  if (code != SQLITE_OK)
    database.fail(code, sql);
  if (!_statement)
    throw fn::withDetail(SQLiteException("No statement in the SQL text"), fn::String(sql));
}

Statement::~Statement() {
  sqlite3_finalize(_statement);
}

void Statement::check(int code) const {
  if (code != SQLITE_OK)
    _database.fail(code, sqlite3_sql(_statement));
}

void Statement::bindAt(int index, int value) {
  check(sqlite3_bind_int(_statement, index, value));
}

void Statement::bindAt(int index, int64_t value) {
  check(sqlite3_bind_int64(_statement, index, value));
}

void Statement::bindAt(int index, double value) {
  check(sqlite3_bind_double(_statement, index, value));
}

void Statement::bindAt(int index, std::string_view text) {
  check(sqlite3_bind_text64(_statement, index, text.data(), text.size(), SQLITE_TRANSIENT,
                            SQLITE_UTF8));
}

void Statement::bindAt(int index, fn::ByteView blob) {
  check(sqlite3_bind_blob64(_statement, index, blob.data(), blob.size(), SQLITE_TRANSIENT));
}

void Statement::bindAt(int index, std::nullptr_t) {
  check(sqlite3_bind_null(_statement, index));
}

bool Statement::executeStep() {
  int code = sqlite3_step(_statement);
  _hasRow = code == SQLITE_ROW;
  if (code != SQLITE_ROW && code != SQLITE_DONE)
    _database.fail(code, sqlite3_sql(_statement));
  return _hasRow;
}

int Statement::execute() {
  while (executeStep()) {
  }
  return _database.changes();
}

void Statement::reset() {
  _hasRow = false;
  // The error of the last step is reported again by reset; it was thrown from there already.
  sqlite3_reset(_statement);
}

Column Statement::getColumn(int index) const {
  if (!_hasRow)
    throw fn::withDetail(SQLiteException("No row to read a column of"),
                         fn::String(sqlite3_sql(_statement)));
  if (index < 0 || index >= columnCount())
    throw fn::withDetail(SQLiteException(fmt::format("No column {}", index)),
                         fn::String(sqlite3_sql(_statement)));
  return Column(_statement, index);
}

int Statement::columnCount() const {
  return sqlite3_column_count(_statement);
}

}  // namespace sqlite
