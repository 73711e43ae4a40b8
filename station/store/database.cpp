#include "store/database.h"

#include <utility>

#include "base/error.h"

namespace {

constexpr int BUSY_MS = 10'000;  // that another connection may take

[[noreturn]] void fail(sqlite3* database, const std::string& path) {
    throw IoError("cannot use '" + path + "': " + sqlite3_errmsg(database));
}

}  // namespace

Statement::Statement(sqlite3* database, std::string path, sqlite3_stmt* statement)
    : database_(database), path_(std::move(path)), statement_(statement) {}

Statement& Statement::checked(int result) {
    if (result != SQLITE_OK) fail(database_, path_);
    return *this;
}

Statement& Statement::bind(int index, int64_t value) {
    return checked(sqlite3_bind_int64(statement_.get(), index + 1, value));
}

Statement& Statement::bind(int index, double value) {
    return checked(sqlite3_bind_double(statement_.get(), index + 1, value));
}

Statement& Statement::bind(int index, std::string_view text) {
    return checked(
        sqlite3_bind_text64(statement_.get(), index + 1, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8));
}

Statement& Statement::bind_null(int index) {
    return checked(sqlite3_bind_null(statement_.get(), index + 1));
}

bool Statement::step() {
    const int result = sqlite3_step(statement_.get());
    if (result == SQLITE_ROW) return true;
    sqlite3_reset(statement_.get());
    if (result != SQLITE_DONE) fail(database_, path_);
    return false;
}

int64_t Statement::integer(int column) const {
    return sqlite3_column_int64(statement_.get(), column);
}

double Statement::real(int column) const {
    return sqlite3_column_double(statement_.get(), column);
}

std::string Statement::text(int column) const {
    const unsigned char* const text = sqlite3_column_text(statement_.get(), column);
    if (text == nullptr) return "";
    return {reinterpret_cast<const char*>(text),
            static_cast<std::size_t>(sqlite3_column_bytes(statement_.get(), column))};
}

std::optional<double> Statement::optional_real(int column) const {
    if (sqlite3_column_type(statement_.get(), column) == SQLITE_NULL) return std::nullopt;
    return real(column);
}

std::optional<int64_t> Statement::optional_integer(int column) const {
    if (sqlite3_column_type(statement_.get(), column) == SQLITE_NULL) return std::nullopt;
    return integer(column);
}

Database::Database(const std::string& path, Access access) : path_(path) {
    const int flags = access == Access::READ ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
    sqlite3* opened = nullptr;
    const int result = sqlite3_open_v2(path.c_str(), &opened, flags | SQLITE_OPEN_NOMUTEX, nullptr);
    database_.reset(opened);
    if (result != SQLITE_OK) throw IoError("cannot open '" + path + "': " + sqlite3_errstr(result));
    sqlite3_busy_timeout(opened, BUSY_MS);
}

void Database::run(const std::string& sql) {
    if (sqlite3_exec(database_.get(), sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK)
        fail(database_.get(), path_);
}

Statement Database::prepare(std::string_view sql) {
    sqlite3_stmt* statement = nullptr;
    const auto length = static_cast<int>(sql.size());
    if (sqlite3_prepare_v3(database_.get(), sql.data(), length, SQLITE_PREPARE_PERSISTENT, &statement, nullptr) !=
        SQLITE_OK) {
        fail(database_.get(), path_);
    }
    return {database_.get(), path_, statement};
}

Transaction::Transaction(Database& database) : database_(database) {
    database.run("BEGIN IMMEDIATE");
}

Transaction::~Transaction() {
    if (!open_) return;
    try {
        database_.run("ROLLBACK");
    } catch (const IoError&) {  // a failed statement may have ended it already
    }
}

void Transaction::commit() {
    database_.run("COMMIT");
    open_ = false;
}
