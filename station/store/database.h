// An SQLite database: its owner, statements and transactions.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

// A statement with its values. Rows are read until step() is false, which makes it ready to be used again.
class Statement {
  public:
    // Values count from 0, in the order of the question marks.
    Statement& bind(int index, int64_t value);
    Statement& bind(int index, double value);
    Statement& bind(int index, std::string_view text);
    template <class Value>
    Statement& bind(int index, const std::optional<Value>& value) {
        return value ? bind(index, *value) : bind_null(index);
    }

    // Runs up to the next row. False when there is none. Throws IoError.
    bool step();

    // Values of the row, whose columns count from 0.
    int64_t integer(int column) const;
    double real(int column) const;
    std::string text(int column) const;
    std::optional<double> optional_real(int column) const;
    std::optional<int64_t> optional_integer(int column) const;

  private:
    friend class Database;
    struct Finalize {
        void operator()(sqlite3_stmt* statement) const noexcept { sqlite3_finalize(statement); }
    };
    Statement(sqlite3* database, std::string path, sqlite3_stmt* statement);
    Statement& bind_null(int index);
    Statement& checked(int result);

    sqlite3* database_;
    std::string path_;
    std::unique_ptr<sqlite3_stmt, Finalize> statement_;
};

// One connection, for one thread at a time. Its statements must not outlive it. Every call throws IoError, whose text
// names the file and the reason.
class Database {
  public:
    enum class Access {
        READ,   // an existing file
        WRITE,  // made when it is missing
    };
    Database(const std::string& path, Access access);

    // Runs statements that have neither values nor rows.
    void run(const std::string& sql);
    Statement prepare(std::string_view sql);

    int64_t last_row() const { return sqlite3_last_insert_rowid(database_.get()); }
    int64_t changed() const { return sqlite3_changes64(database_.get()); }  // rows, by the last statement
    const std::string& path() const { return path_; }

  private:
    struct Close {
        void operator()(sqlite3* database) const noexcept { sqlite3_close(database); }
    };
    std::string path_;
    std::unique_ptr<sqlite3, Close> database_;
};

// What happens between its begin and commit() happens as a whole, or not at all.
class Transaction {
  public:
    explicit Transaction(Database& database);
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    ~Transaction();

    // On return everything is on the disk.
    void commit();

  private:
    Database& database_;
    bool open_ = true;
};
