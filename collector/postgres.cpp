#include "postgres.h"

#include <poll.h>

#include <array>
#include <charconv>
#include <cmath>
#include <vector>

#include "base/error.h"
#include "base/interrupts.h"

namespace {

constexpr double CONNECT_S = 10;
constexpr double ANSWER_S = 30;  // more than the server gives itself for a statement
// A collector that hangs, or whose machine is gone without a word, loses its locks within a minute.
constexpr const char* SETTINGS =
    "-c statement_timeout=20s -c lock_timeout=10s -c client_min_messages=warning "
    "-c idle_session_timeout=60s -c idle_in_transaction_session_timeout=60s -c tcp_keepalives_idle=20 "
    "-c tcp_keepalives_interval=10 -c tcp_keepalives_count=3 -c timezone=UTC";

// The first line, without what libpq puts before it.
std::string one_line(std::string_view text) {
    for (const std::string_view head : {"ERROR:  ", "FATAL:  "}) {
        if (text.starts_with(head)) text.remove_prefix(head.size());
    }
    return std::string(text.substr(0, text.find('\n')));
}

std::vector<const char*> pointers_to(std::span<const std::string> values) {
    std::vector<const char*> pointers;
    pointers.reserve(values.size());
    for (const std::string& value : values) pointers.push_back(value.c_str());
    return pointers;
}

}  // namespace

int64_t Rows::integer(int row, int column) const {
    const std::string shown = text(row, column);
    int64_t value = 0;
    std::from_chars(shown.data(), shown.data() + shown.size(), value);
    return value;
}

Postgres::Postgres(const std::string& where, const std::optional<std::string>& password) {
    // What comes later counts: the configuration cannot switch the limits off.
    std::vector<const char*> names = {"dbname", "application_name", "options", "keepalives_idle"};
    std::vector<const char*> values = {where.c_str(), "orvel-collector", SETTINGS, "30"};
    if (password) {
        names.push_back("password");
        values.push_back(password->c_str());
    }
    names.push_back(nullptr);
    values.push_back(nullptr);
    connection_.reset(PQconnectStartParams(names.data(), values.data(), 1));
    if (!connection_) throw IoError("memory is short");
    const double until = monotonic_now() + CONNECT_S;
    auto state = PQstatus(connection_.get()) == CONNECTION_BAD ? PGRES_POLLING_FAILED : PGRES_POLLING_WRITING;
    while (state == PGRES_POLLING_READING || state == PGRES_POLLING_WRITING) {
        wait(state == PGRES_POLLING_READING ? POLLIN : POLLOUT, until);
        state = PQconnectPoll(connection_.get());
    }
    if (state != PGRES_POLLING_OK || PQsetnonblocking(connection_.get(), 1) != 0) fail();
}

void Postgres::fail() {
    throw IoError("database: " + one_line(PQerrorMessage(connection_.get())));
}

void Postgres::wait(short events, double until) {
    pollfd end{PQsocket(connection_.get()), events, 0};
    const double left_s = until - monotonic_now();
    const int ready = left_s > 0 ? poll(&end, 1, static_cast<int>(std::ceil(1000 * left_s))) : 0;
    if (ready != 0) return;  // an interrupted wait is tried again
    throw IoError("database: no answer");
}

// All of what was sent goes out, and all of the answer is read, so that the next statement finds the connection free.
Rows Postgres::answer(int sent) {
    if (sent != 1) fail();
    const double until = monotonic_now() + ANSWER_S;
    while (true) {
        const int unsent = PQflush(connection_.get());
        if (unsent < 0 || PQconsumeInput(connection_.get()) != 1) fail();
        if (unsent == 0 && PQisBusy(connection_.get()) == 0) break;
        wait(static_cast<short>(unsent > 0 ? POLLIN | POLLOUT : POLLIN), until);
    }
    Rows rows(nullptr);
    std::string problem;
    while (PGresult* const result = PQgetResult(connection_.get())) {
        rows = Rows(result);
        const ExecStatusType status = PQresultStatus(result);
        if (status != PGRES_TUPLES_OK && status != PGRES_COMMAND_OK && problem.empty()) {
            problem = one_line(PQresultErrorMessage(result));
        }
        while (PQisBusy(connection_.get()) != 0) {
            wait(POLLIN, until);
            if (PQconsumeInput(connection_.get()) != 1) fail();
        }
    }
    if (!problem.empty()) throw IoError("database: " + problem);
    return rows;
}

Rows Postgres::run(const char* sql, std::span<const std::string> values) {
    const std::vector<const char*> pointers = pointers_to(values);
    return answer(PQsendQueryParams(connection_.get(), sql, static_cast<int>(pointers.size()), nullptr, pointers.data(),
                                    nullptr, nullptr, 0));
}

void Postgres::prepare(const char* name, const char* sql) {
    answer(PQsendPrepare(connection_.get(), name, sql, 0, nullptr));
}

Rows Postgres::run_prepared(const char* name, std::initializer_list<std::string> values) {
    const std::vector<const char*> pointers = pointers_to({values.begin(), values.size()});
    return answer(PQsendQueryPrepared(connection_.get(), name, static_cast<int>(pointers.size()), pointers.data(),
                                      nullptr, nullptr, 0));
}

void Postgres::script(const char* sql) {
    answer(PQsendQuery(connection_.get(), sql));
}

PostgresTransaction::PostgresTransaction(Postgres& database) : database_(database) {
    database.run("BEGIN");
}

PostgresTransaction::~PostgresTransaction() {
    if (!open_) return;
    try {
        database_.run("ROLLBACK");
    } catch (const IoError&) {  // the connection is gone, and the transaction with it
    }
}

void PostgresTransaction::commit() {
    database_.run("COMMIT");
    open_ = false;
}
