#include "lbwatch/sqlite.h"

namespace lbwatch {

Statement::Statement(sqlite3* database, const char* sql) {
    sqlite3_stmt* made = nullptr;
    prepared_ = sqlite3_prepare_v2(database, sql, -1, &made, nullptr);
    statement_.reset(made);
}

Statement& Statement::bind(std::int64_t value) {
    sqlite3_bind_int64(statement_.get(), ++bound_, value);
    return *this;
}

Statement& Statement::bind(const std::string& value) {
    // A copy: the library may look at it after this call.
    sqlite3_bind_text64(statement_.get(), ++bound_, value.data(), value.size(), SQLITE_TRANSIENT,
                        SQLITE_UTF8);
    return *this;
}

Statement& Statement::bind(const std::optional<std::int64_t>& value) {
    if (value) {
        return bind(*value);
    }
    sqlite3_bind_null(statement_.get(), ++bound_);
    return *this;
}

int Statement::step() {
    if (prepared_ != SQLITE_OK) {
        return prepared_;
    }
    const int code = sqlite3_step(statement_.get());
    if (code != SQLITE_ROW) {
        sqlite3_reset(statement_.get());
        bound_ = 0;
    }
    return code;
}

std::int64_t Statement::number(int column) const {
    return sqlite3_column_int64(statement_.get(), column);
}

std::optional<std::int64_t> Statement::optional_number(int column) const {
    return sqlite3_column_type(statement_.get(), column) == SQLITE_NULL
               ? std::nullopt
               : std::make_optional(number(column));
}

std::string Statement::text(int column) const {
    const auto* const bytes =
        static_cast<const char*>(sqlite3_column_blob(statement_.get(), column));
    const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement_.get(), column));
    return bytes == nullptr ? std::string() : std::string(bytes, size);
}

Database::Database(const std::string& path, int flags) {
    sqlite3* made = nullptr;
    opened_ = sqlite3_open_v2(path.c_str(), &made, flags, nullptr);
    database_.reset(made);
}

std::string Database::error() const {
    return is_open() ? sqlite3_errmsg(database_.get()) : sqlite3_errstr(opened_);
}

int Database::run(const char* sql) {
    return sqlite3_exec(database_.get(), sql, nullptr, nullptr, nullptr);
}

std::optional<std::int64_t> Database::number(const char* sql) const {
    Statement query = statement(sql);
    return query.has_row() ? query.optional_number(0) : std::nullopt;
}

bool is_error(int code) {
    return code != SQLITE_OK && code != SQLITE_DONE && code != SQLITE_ROW;
}

bool is_damage(int code) {
    const int primary = code & 0xff;
    return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB;
}

}  // namespace lbwatch
