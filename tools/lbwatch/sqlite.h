#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

/// A thin layer over SQLite that owns its handles. Result codes are SQLite's own.
namespace lbwatch {

class Statement {
  public:
    Statement(sqlite3* database, const char* sql);

    /// Binds the next parameter, from the first on.
    Statement& bind(std::int64_t value);
    Statement& bind(const std::string& value);
    Statement& bind(const std::optional<std::int64_t>& value);

    /// SQLITE_ROW, SQLITE_DONE or an error. A statement that is done is ready for new values.
    int step();
    bool has_row() { return step() == SQLITE_ROW; }

    std::int64_t number(int column) const;
    std::optional<std::int64_t> optional_number(int column) const;
    std::string text(int column) const;

  private:
    struct Finalize {
        void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
    };
    std::unique_ptr<sqlite3_stmt, Finalize> statement_;
    int prepared_ = SQLITE_OK;
    int bound_ = 0;
};

class Database {
  public:
    /// Opens a file; `is_open()` and `code()` tell how that went.
    Database(const std::string& path, int flags);

    bool is_open() const { return database_ != nullptr && opened_ == SQLITE_OK; }
    int code() const { return is_open() ? sqlite3_extended_errcode(database_.get()) : opened_; }
    std::string error() const;
    /// SQLite opens what may not be written for reading alone.
    bool is_read_only() const { return sqlite3_db_readonly(database_.get(), "main") == 1; }

    int run(const char* sql);
    Statement statement(const char* sql) const { return {database_.get(), sql}; }
    /// Rows changed since it was opened.
    std::int64_t changes() const { return sqlite3_total_changes(database_.get()); }
    /// The value of a PRAGMA or other query of one number; nothing where it fails.
    std::optional<std::int64_t> number(const char* sql) const;

  private:
    struct Close {
        void operator()(sqlite3* database) const { sqlite3_close_v2(database); }
    };
    std::unique_ptr<sqlite3, Close> database_;
    int opened_ = SQLITE_OK;
};

/// Any code but those of success, of a row and of the end.
bool is_error(int code);
/// The file is no database, or a damaged one.
bool is_damage(int code);

}  // namespace lbwatch
