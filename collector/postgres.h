// A connection to PostgreSQL whose every call ends in bounded time.
#pragma once

#include <libpq-fe.h>

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

// Rows of an answer; rows and columns count from 0.
class Rows {
  public:
    explicit Rows(PGresult* result) : result_(result) {}
    int count() const { return PQntuples(result_.get()); }
    std::string text(int row, int column) const { return PQgetvalue(result_.get(), row, column); }
    int64_t integer(int row, int column) const;
    bool is_true(int row, int column) const { return text(row, column) == "t"; }

  private:
    struct Clear {
        void operator()(PGresult* result) const noexcept { PQclear(result); }
    };
    std::unique_ptr<PGresult, Clear> result_;
};

// For one thread. What throws IoError names the reason in one line; after that the connection may be gone.
class Postgres {
  public:
    // `where` as libpq takes it: "host=… dbname=…" or a URL. Throws IoError.
    Postgres(const std::string& where, const std::optional<std::string>& password);

    // One statement, with texts for $1, $2 and so on.
    Rows run(const char* sql, std::span<const std::string> values = {});
    Rows run(const char* sql, std::initializer_list<std::string> values) {
        return run(sql, std::span<const std::string>(values.begin(), values.size()));
    }

    // A statement that is kept under a name, and its use.
    void prepare(const char* name, const char* sql);
    Rows run_prepared(const char* name, std::initializer_list<std::string> values);

    // Several statements without values.
    void script(const char* sql);

  private:
    struct Finish {
        void operator()(PGconn* connection) const noexcept { PQfinish(connection); }
    };
    Rows answer(int sent);
    void wait(short events, double until);
    [[noreturn]] void fail();

    std::unique_ptr<PGconn, Finish> connection_;
};

// What happens between its begin and commit() happens as a whole, or not at all.
class PostgresTransaction {
  public:
    explicit PostgresTransaction(Postgres& database);
    PostgresTransaction(const PostgresTransaction&) = delete;
    PostgresTransaction& operator=(const PostgresTransaction&) = delete;
    ~PostgresTransaction();

    // On return everything is on the server's disk.
    void commit();

  private:
    Postgres& database_;
    bool open_ = true;
};
