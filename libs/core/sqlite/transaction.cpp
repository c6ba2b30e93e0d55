#include "core/sqlite/transaction.h"

namespace sqlite {

Transaction::Transaction(Database& database) : _database(database) {
  _database.execute("BEGIN");
}

Transaction::~Transaction() {
  if (_done)
    return;
  try {
    _database.execute("ROLLBACK");
  } catch (SQLiteException const&) {
    // SQLite rolls back by itself after some errors (a full disk, an interrupt); there is
    // then no transaction left to end, and nothing else to do.
  }
}

void Transaction::commit() {
  _database.execute("COMMIT");
  _done = true;
}

}  // namespace sqlite
