#pragma once

#include "core/export.h"
#include "core/sqlite/database.h"

namespace sqlite {

/// A transaction on a database: begun on construction, rolled back on destruction unless
/// commit() was called.
class CORE_EXPORT Transaction {
public:
  explicit Transaction(Database& database);
  ~Transaction();
  Transaction(Transaction const&) = delete;
  Transaction& operator=(Transaction const&) = delete;

  void commit();

private:
  Database& _database;
  bool _done = false;
};

}  // namespace sqlite
