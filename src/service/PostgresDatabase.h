#pragma once

#include "service/RecordStore.h"

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

struct pg_conn;
struct pg_result;

// One query's rows, owned. Values come as text (libpq's text format); a failed query never makes
// one: it throws StoreError.
class PgResult
{
public:
    explicit PgResult(pg_result *result);
    ~PgResult();
    PgResult(PgResult &&other) noexcept;
    PgResult(const PgResult &) = delete;
    PgResult &operator=(const PgResult &) = delete;

    int rows() const;
    // Rows a statement changed (an UPDATE or a DELETE).
    int changed() const;
    std::string text(int row, int column) const;
    int64_t integer(int row, int column) const;
    bool isNull(int row, int column) const;

private:
    friend class PostgresDatabase;
    pg_result *m_result;
};

// A query's parameters, $1 onwards, each text or null.
class PgParams
{
public:
    PgParams() = default;
    PgParams(std::initializer_list<std::optional<std::string>> values);
    PgParams &add(std::optional<std::string> value);
    PgParams &add(int64_t value);
    PgParams &add(double value);

    const std::vector<std::optional<std::string>> &values() const { return m_values; }

private:
    std::vector<std::optional<std::string>> m_values;
};

// A few connections to one PostgreSQL database, lent to one caller at a time: each call of the
// record store borrows one, runs its statements (one short transaction) and gives it back. A
// connection the server dropped is opened again the next time it is lent.
class PostgresDatabase
{
public:
    // Connects once to check the URL (postgresql://USER@HOST:PORT/DATABASE, with libpq's usual
    // variables and ~/.pgpass for what it leaves out); throws StoreError with libpq's message.
    PostgresDatabase(std::string url, int maxConnections);
    ~PostgresDatabase();
    PostgresDatabase(const PostgresDatabase &) = delete;
    PostgresDatabase &operator=(const PostgresDatabase &) = delete;

    class Session
    {
    public:
        ~Session();
        Session(Session &&) = delete;
        PgResult run(const char *sql, const PgParams &params = {});
        // Statements without parameters, several at once (a migration).
        void script(const char *sql);

    private:
        friend class PostgresDatabase;
        Session(PostgresDatabase &database, pg_conn *connection);
        PostgresDatabase &m_database;
        pg_conn *m_connection;
    };

    // Waits for a free connection when all are lent.
    std::unique_ptr<Session> session();

    // The URL with any password left out, for messages.
    static std::string withoutPassword(const std::string &url);

private:
    pg_conn *connect();
    void giveBack(pg_conn *connection);

    const std::string m_url;
    const int m_maxConnections;
    std::mutex m_mutex;
    std::condition_variable m_returned;
    std::vector<pg_conn *> m_idle; // guarded by m_mutex
    int m_open = 0; // guarded by m_mutex: idle and lent
};

// BEGIN on construction, ROLLBACK unless commit() was called.
class PgTransaction
{
public:
    explicit PgTransaction(PostgresDatabase::Session &session, const char *begin = "BEGIN");
    ~PgTransaction();
    void commit();

private:
    PostgresDatabase::Session &m_session;
    bool m_done = false;
};
